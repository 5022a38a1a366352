#include "tests/system/ScriptProject.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kestrine::test {

namespace fs = std::filesystem;

ScriptProject::ScriptProject(const std::map<std::string, std::string>& files) {
  fs::copy(std::string(KESTRINE_SOURCE_DIR) + "/script", path("script"), fs::copy_options::recursive);
  makeFolder(memory());
  write("script/bootstrap", "#!/bin/sh\nexit 0\n");
  for (const auto& [name, text] : files) write(name, text);
}

void ScriptProject::write(const std::string& name, const std::string& text) const {
  fs::create_directories(fs::path(path(name)).parent_path());
  writeFile(path(name), text);
  if (text.starts_with("#!")) fs::permissions(path(name), fs::perms::owner_all);
}

Process::Options ScriptProject::options() const {
  Process::Options options;
  options.environment = {{"KESTRINE_TEST_FOLDER", memory()}, {"KESTRINE_BUILD_ROOT", path("build")}, {"KESTRINE_TEST_JOBS", "4"}};
  options.directory = path("");
  return options;
}

Outcome ScriptProject::run(const std::vector<std::string>& arguments) const {
  return runToEnd(arguments, options(), std::chrono::minutes(5));
}

std::size_t ScriptProject::processes() const {
  std::size_t found = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (!std::ranges::all_of(name, [](unsigned char c) { return std::isdigit(c) != 0; })) continue;
    std::ifstream file(entry.path() / "environ", std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (text.find(memory()) != std::string::npos) ++found;
  }
  return found;
}

void copyProject(const std::string& target) {
  const std::string command = R"(
    cd "$1" && git ls-files -co --exclude-standard | while IFS= read -r file; do [ ! -f "$file" ] || echo "$file"; done |
      tar -cf - -T - | tar -xf - -C "$2" && git -C "$2" init -q)";
  const Outcome outcome = runToEnd({"bash", "-o", "pipefail", "-c", command, "copy", KESTRINE_SOURCE_DIR, target});
  if (outcome.status != 0) throw std::runtime_error("copying the project: " + outcome.errorOutput);
}

}  // namespace kestrine::test
