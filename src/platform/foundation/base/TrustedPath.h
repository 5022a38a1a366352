#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"

// Ways through the file system that no other user of the machine can have laid or can change: sockets, locks, logs and preferences are
// reached by no others. A path is opened one name at a time, each by the descriptor of the folder above it, and what was opened is looked
// at: it must belong to this user or to root, nobody else may write to it (but a folder with the sticky bit may stand on the way), and a
// symbolic link must have been made by one of the two. Nothing is repaired: what is not fit is refused, with words for whoever can mend it.
//
// Threads: any.
namespace platform {

/// Why a path was not opened.
struct PathRefusal {
  /// The errno of the step that failed; EPERM when the item itself is at fault.
  int error = 0;
  /// For people: the item that is at fault, or what the system said.
  std::string reason;
  /// Whether something on the way is not to be trusted; else the system refused, or nothing is there.
  bool isDistrust = false;
};

/// How a way is gone.
struct TrustedWay {
  /// Makes a folder that is missing, by its name in the folder that is open and stands at the path `parent`: 0 or an errno. Without it
  /// nothing is made.
  using FolderMaker = std::function<int(int folder, const std::string& parent, const std::string& name)>;
  FolderMaker makeFolder = {};
  /// Root may be at work in the folders of one other user, who then counts as trusted. A link of that user's must not lead into a folder
  /// of anybody else's. For who leaves what root makes there to that user.
  bool allowsHost = false;
  /// A sticky folder that others may write to will do, because each file in it is looked at too.
  bool mayEndInShared = false;
};

/// mkdirat with this mode.
TrustedWay::FolderMaker folderMaker(mode_t mode);

/// The folder at an absolute path, opened for reading.
Result<FileHandle, PathRefusal> openTrustedFolder(const std::string& path, const TrustedWay& way = {});

/// The folder in which a file is or would be, after links that stand in its place, and the name that it has there.
struct TrustedPlace {
  FileHandle folder;
  std::string name;
  /// The path of both.
  std::string path;
  /// The user in whose folders root is at work (TrustedWay::allowsHost).
  std::optional<uid_t> host = std::nullopt;
};
Result<TrustedPlace, PathRefusal> findTrustedPlace(const std::string& path, const TrustedWay& way = {});

/// Opens a file in its place by openat(2), never through a link, never becoming anybody's terminal and never waiting for the other end of a
/// pipe. A regular file must be fit as above; anything else must belong to this user or root.
Result<FileHandle, PathRefusal> openTrustedFile(const TrustedPlace& place, int flags, mode_t mode = 0600);
/// The same by a path that may lead through links.
Result<FileHandle, PathRefusal> openTrustedFile(const std::string& path, int flags, mode_t mode = 0600);

/// Whether what is open may be believed: what openTrustedFile asks. `path` is for the words.
std::optional<PathRefusal> refuseFile(int descriptor, const std::string& path, std::optional<uid_t> host = std::nullopt);

}  // namespace platform
