#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

/// A small project in a folder of its own with a copy of this project's scripts, to see what the scripts do with faults that nobody would
/// put into the real one. Nothing is installed for it.
class ScriptProject {
 public:
  /// With the files given, by their paths.
  explicit ScriptProject(const std::map<std::string, std::string>& files);

  /// Makes the folders that are missing, and a script executable.
  void write(const std::string& path, const std::string& text) const;
  [[nodiscard]] std::string path(const std::string& name) const { return folder_ / name; }
  /// Where the temporary files of script/test are; empty when it has ended.
  [[nodiscard]] std::string memory() const { return folder_ / "memory"; }
  /// The surroundings that the scripts are started in.
  [[nodiscard]] Process::Options options() const;
  [[nodiscard]] Outcome run(const std::vector<std::string>& arguments) const;
  /// How many processes, wherever they are now, were started in these surroundings.
  [[nodiscard]] std::size_t processes() const;

 private:
  TemporaryDirectory folder_;
};

/// Copies the files of this project that git knows or would add, for a repository of its own at `target`.
void copyProject(const std::string& target);

}  // namespace kestrine::test
