// What the pages show is what the programs do: commands are run, options exist, links lead somewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/system/DocsText.h"

namespace kestrine::test {
namespace {

std::string folderOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

/// A user's surroundings with everything of the product's in a folder of its own, as after an installation.
class Docs : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"home", "config", "state", "data", "run"}) makeFolder(home_ / name);
    std::filesystem::permissions(home_ / "run", std::filesystem::perms::owner_all);
    makeFolder(home_ / "data/xpc-services");
    writeFile(home_ / "data/xpc-services/Ostrabyte.FileWatcherXpcService.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>Program</key><string>" KESTRINE_SERVICE
              "</string></dict></plist>\n");
  }

  [[nodiscard]] Process::Options options() const {
    Process::Options options;
    options.environment = {{"HOME", home_ / "home"},
                           {"XDG_CONFIG_HOME", home_ / "config"},
                           {"XDG_STATE_HOME", home_ / "state"},
                           {"XDG_DATA_HOME", home_ / "data"},
                           {"XDG_RUNTIME_DIR", home_ / "run"},
                           {"PATH", folderOf(KESTRINE_COMMAND) + ":/usr/local/bin:/usr/bin:/bin"}};
    options.directory = home_ / "home";
    return options;
  }

 private:
  TemporaryDirectory home_;
};

std::vector<std::string> pagesWith(const std::string& info) {
  std::vector<std::string> pages = docsPages();
  std::erase_if(pages, [&](const std::string& page) {
    return std::ranges::none_of(docsBlocks(page), [&](const DocsBlock& block) { return block.info == info; });
  });
  return pages;
}

std::vector<std::string> pagesWithLinks() {
  std::vector<std::string> pages = docsPages();
  std::erase_if(pages, [](const std::string& page) { return docsLinks(page).empty(); });
  return pages;
}

std::string nameOfPage(const testing::TestParamInfo<std::string>& info) {
  std::string name = info.param;
  std::erase_if(name, [](char letter) { return std::isalnum(static_cast<unsigned char>(letter)) == 0; });
  return name;
}

class PageWithCommands : public Docs, public testing::WithParamInterface<std::string> {};
class PageWithScripts : public Docs, public testing::WithParamInterface<std::string> {};
class PageWithLinks : public testing::TestWithParam<std::string> {};

TEST_P(PageWithCommands, ShowsWhatRuns) {
  std::string script;
  for (const DocsBlock& block : docsBlocks(GetParam())) {
    if (block.info != "sh run") continue;
    for (const std::string& line : block.lines) script += line + "\n";
  }
  // Whatever the page leaves running ends with the script, also when a command in between failed.
  const Outcome outcome = runToEnd({"bash", "-euo", "pipefail", "-c", "trap 'kestrine stop >/dev/null 2>&1 || true' EXIT\n" + script},
                                   options(), std::chrono::minutes(3));
  EXPECT_EQ(outcome.status, 0) << "of:\n" << script << "\noutput:\n" << outcome.output << outcome.errorOutput;
}

/// The scripts take minutes and call these tests; that they exist and know the options shown is what can be seen from here.
TEST_P(PageWithScripts, ShowsOptionsThatExist) {
  std::map<std::string, std::string> helps;
  for (const DocsBlock& block : docsBlocks(GetParam())) {
    if (block.info != "sh") continue;
    for (const std::string& line : block.lines) {
      std::istringstream words(line);
      std::string program;
      words >> program;
      if (program.empty() || program == "#") continue;
      ASSERT_TRUE(std::filesystem::exists(std::string(KESTRINE_SOURCE_DIR) + "/" + program)) << line;
      if (!helps.contains(program)) {
        Process::Options help = options();
        help.directory = KESTRINE_SOURCE_DIR;
        const Outcome outcome = runToEnd({std::string(KESTRINE_SOURCE_DIR) + "/" + program, "--help"}, help);
        EXPECT_EQ(outcome.status, 0) << program << " --help: " << outcome.errorOutput;
        helps[program] = outcome.output;
      }
      for (std::string word; words >> word && word != "--" && word != "#";) {
        if (word.starts_with("--")) {
          EXPECT_NE(helps[program].find(word), std::string::npos) << line << "\nhelp:\n" << helps[program];
        }
      }
    }
  }
}

TEST_P(PageWithLinks, LeadsSomewhere) {
  for (const std::string& target : docsLinks(GetParam())) {
    EXPECT_TRUE(std::filesystem::exists(std::string(KESTRINE_SOURCE_DIR) + "/" + target)) << target;
  }
}

INSTANTIATE_TEST_SUITE_P(Docs, PageWithCommands, testing::ValuesIn(pagesWith("sh run")), nameOfPage);
INSTANTIATE_TEST_SUITE_P(Docs, PageWithScripts, testing::ValuesIn(pagesWith("sh")), nameOfPage);
INSTANTIATE_TEST_SUITE_P(Docs, PageWithLinks, testing::ValuesIn(pagesWithLinks()), nameOfPage);

/// The cases that a page names as "program: Suite.Case", `.Case` of the same suite.
std::vector<std::pair<std::string, std::string>> casesNamedIn(const std::string& text) {
  static const std::regex& name = *new std::regex("`(?:([a-z]+)_tests: )?(?:([A-Za-z]+))?\\.([A-Z][A-Za-z]+)`");
  std::vector<std::pair<std::string, std::string>> cases;
  std::string suite;
  for (std::sregex_iterator each(text.begin(), text.end(), name), end; each != end; ++each) {
    if ((*each)[2].matched) suite = (*each)[2];
    cases.emplace_back(suite, (*each)[3]);
  }
  return cases;
}

TEST(DocsSecurity, NamesTestsThatThereAre) {
  std::string tests;
  for (const auto& file : std::filesystem::recursive_directory_iterator(KESTRINE_SOURCE_DIR "/tests")) {
    if (file.path().extension() == ".cpp") tests += readFile(file.path());
  }
  const auto cases = casesNamedIn(docsText("docs/security.md"));
  EXPECT_GT(cases.size(), 25U);
  for (const auto& [suite, name] : cases) EXPECT_NE(tests.find("(" + suite + ", " + name + ")"), std::string::npos) << suite << "." << name;
}

TEST(DocsText, FindsTheTwoCommandsFirstAndCommandsToRun) {
  const std::vector<DocsBlock> blocks = docsBlocks("README.md");
  ASSERT_FALSE(blocks.empty());
  ASSERT_EQ(blocks.front().info, "sh");
  ASSERT_EQ(blocks.front().lines.size(), 2U);
  EXPECT_TRUE(blocks.front().lines[0].starts_with("script/run"));
  EXPECT_TRUE(blocks.front().lines[1].starts_with("script/test"));
  EXPECT_TRUE(std::ranges::any_of(blocks, [](const DocsBlock& block) { return block.info == "sh run"; }));
}

}  // namespace
}  // namespace kestrine::test
