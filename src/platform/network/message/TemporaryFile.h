#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/base/Result.h"

// Internal to the network room.
namespace platform::network {

/// The folder for large temporary files: $TMPDIR when it is an absolute path, /var/tmp when it can be written, /tmp.
std::string temporaryFolder();

/// A new empty file without a name (open(2), O_TMPFILE; where the file system cannot, one whose name is removed at once), readable and
/// writable by this user. An errno value when there can be none.
Result<FileHandle, int> makeNamelessFile();

/// Gives a nameless file a fresh name in the temporary folder, or copies it to one where it has none to give (open(2) on O_TMPFILE). Its
/// path, or an errno value.
Result<std::string, int> nameFile(const FileHandle& file);

/// Copies `length` bytes from the start of one file to the position of the other, in the kernel where it can. 0, or an errno value; ENODATA
/// when the source holds fewer.
[[nodiscard]] int copyFile(int from, int to, std::uint64_t length);

}  // namespace platform::network
