#pragma once

#include <string>

namespace kestrine::test {

/// Where the temporary folders of this process stand. In this order:
///
///   KESTRINE_TEST_FOLDER   made when it does not exist; a run of many programs names one, and removes it in the end
///   TMPDIR
///   /dev/shm               when it is memory, roomy, and programs may be started from it
///   /tmp
///
/// The variables count when they are absolute. Any thread, unless another changes the environment.
std::string testFolder();

/// How the names of this process's temporary folders begin, so that they can be told from those of others: "kestrine-" and letters made
/// once for the process.
const std::string& testFolderPrefix();

/// Whether `path` is in memory.
bool isInMemory(const std::string& path);

}  // namespace kestrine::test
