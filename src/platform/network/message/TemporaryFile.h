#pragma once

#include <cstdint>
#include <string>

#include "platform/foundation/base/FileHandle.h"

// Internal to the network room.
namespace platform::network {

/// The folder for large temporary files: $TMPDIR when it is an absolute path, /var/tmp when it can be written, /tmp.
std::string temporaryFolder();

/// A new empty file without a name (open(2), O_TMPFILE; where the file system cannot, one whose name is removed at once), readable and
/// writable by this user. Not open, with errno, when there can be none.
FileHandle makeNamelessFile();

/// Gives a nameless file a fresh name in the temporary folder, or copies it to one where it has none to give (open(2) on O_TMPFILE). Empty,
/// with errno, when that fails.
std::string nameFile(const FileHandle& file);

/// Copies `length` bytes from the start of one file to the position of the other, in the kernel where it can. False, with errno, when it
/// fails; ENODATA when the source holds fewer.
bool copyFile(int from, int to, std::uint64_t length);

/// Writes all of it at the position of the file. False, with errno.
bool writeAll(int descriptor, const char* bytes, std::size_t size);

}  // namespace platform::network
