#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestrine::test {

/// The inode of every watch and mark that the kernel holds for a process, as /proc/<pid>/fdinfo tells them; once per mark.
std::vector<std::uint64_t> kernelMarks(pid_t process = 0);

/// How many folders there are at and below these paths (links not followed), but for those at or below `excluded` ones; each once, however
/// the paths overlap.
std::size_t countFolders(const std::vector<std::string>& roots, const std::vector<std::string>& excluded = {});

/// What is wrong with `marks` for watching `roots` without `excluded`, as text; empty when every folder at and below them is marked and
/// nothing else is but the folders on the way to them (each at most twice: a folder may be both content and on the way).
std::string differenceOfMarks(const std::vector<std::uint64_t>& marks, const std::vector<std::string>& roots,
                              const std::vector<std::string>& excluded = {});

/// Open descriptors of this process.
std::size_t openDescriptors();

}  // namespace kestrine::test
