// What somebody who only wants the programs needs is less than what the tests need.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

// How the build is configured is the same under a sanitizer.
#ifndef KESTRINE_SANITIZED
namespace kestrine::test {
namespace {

namespace fs = std::filesystem;

/// A folder with what pkg-config knows on this machine, but not what only the tests use.
void linkPackagesWithoutTests(const std::string& folder) {
  std::istringstream places(runToEnd({"pkg-config", "--variable", "pc_path", "pkg-config"}).output);
  for (std::string place; std::getline(places, place, ':');) {
    if (!place.empty() && place.back() == '\n') place.pop_back();
    std::error_code missing;
    for (const auto& entry : fs::directory_iterator(place, missing)) {
      const std::string name = entry.path().filename();
      if (name.starts_with("libplist") || name.starts_with("cpp-httplib") || name.starts_with("gtest") || name.starts_with("gmock"))
        continue;
      std::error_code known;
      fs::create_symlink(entry.path(), folder + "/" + name, known);
    }
  }
}

Outcome configure(const TemporaryDirectory& folder, const std::string& build, const std::vector<std::string>& options) {
  std::vector<std::string> words = {
      "cmake", "-S", KESTRINE_SOURCE_DIR, "-B", folder / build, "-G", "Ninja", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"};
  words.insert(words.end(), options.begin(), options.end());
  Process::Options surroundings;
  surroundings.environment = {{"PKG_CONFIG_LIBDIR", folder / "packages"}};
  return runToEnd(words, surroundings, std::chrono::minutes(3));
}

TEST(BuildWithoutTests, IsConfiguredWithoutTheTestsLibraries) {
  const TemporaryDirectory folder;
  makeFolder(folder / "packages");
  linkPackagesWithoutTests(folder / "packages");
  const Outcome programs = configure(folder, "programs", {"-DBUILD_TESTING=OFF"});
  EXPECT_EQ(programs.status, 0) << programs.output << programs.errorOutput;
  EXPECT_TRUE(fs::exists(folder / "programs/build.ninja"));
  // That the libraries are hidden shows in the same with tests.
  const Outcome tests = configure(folder, "tests", {"-DBUILD_TESTING=ON"});
  EXPECT_NE(tests.status, 0) << tests.output;
  EXPECT_THAT(tests.errorOutput, testing::HasSubstr("GTest"));
}

}  // namespace
}  // namespace kestrine::test
#endif
