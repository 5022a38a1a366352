#include "tests/support/NetworkNamespace.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

namespace {

// Holds the name of the namespace outside, so that the second process can see that it is in another one.
constexpr const char* kOutside = "KESTRINE_TEST_NAMESPACE_OUTSIDE";

std::string namespaceOfThisProcess() { return std::filesystem::read_symlink("/proc/self/ns/net").string(); }

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::vector<std::string> operator+(std::vector<std::string> list, const std::vector<std::string>& more) {
  list.insert(list.end(), more.begin(), more.end());
  return list;
}

/// The ways into a namespace, for a user without rights and for one with them where the kernel has no user namespaces.
const std::vector<std::string> kWaysIn = {"unshare --user --map-root-user --net", "unshare --net"};

/// The first way that works, with the rights to make use of it; empty when there is none, and `why` says so.
std::vector<std::string> wayIn(std::string& why) {
  for (const std::string& way : kWaysIn) {
    try {
      const Outcome outcome = runToEnd(wordsOf(way) + wordsOf("ip link add v0 type veth peer name v0p"));
      if (outcome.status == 0) return wordsOf(way);
      why += outcome.errorOutput;
    } catch (const std::runtime_error& noProgram) {
      why += noProgram.what();
    }
  }
  return {};
}

void runAgain(const std::vector<std::string>& way) {
  const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
  const std::string program = std::filesystem::read_symlink("/proc/self/exe").string();
  // One test, whatever part of them this process was given.
  const auto command = wordsOf("env -u GTEST_TOTAL_SHARDS -u GTEST_SHARD_INDEX -u GTEST_SHARD_STATUS_FILE -u GTEST_OUTPUT") + way +
                       std::vector<std::string>{program, fmt::format("--gtest_filter={}.{}", test.test_suite_name(), test.name())};
  const Outcome outcome = runToEnd(command, {.environment = {{kOutside, namespaceOfThisProcess()}}}, std::chrono::seconds(240));
  if (outcome.output.find("[  SKIPPED ] 1 test") != std::string::npos) GTEST_SKIP() << outcome.output;
  EXPECT_EQ(outcome.status, 0) << outcome.output << outcome.errorOutput;
  EXPECT_NE(outcome.output.find("[  PASSED  ] 1 test."), std::string::npos) << "the test did not run:\n" << outcome.output;
}

bool isInNamespace() {
  const char* outside = std::getenv(kOutside);
  return outside != nullptr && namespaceOfThisProcess() != outside;
}

}  // namespace

std::string refusalOfNetworkNamespaces() {
  std::string why;
  return isInNamespace() || !wayIn(why).empty() ? "" : why;
}

void inNetworkNamespace(const std::function<void()>& body) {
  if (std::getenv(kOutside) != nullptr) {
    ASSERT_TRUE(isInNamespace()) << "not in a namespace of its own";
    body();
    return;
  }
  std::string why;
  const std::vector<std::string> way = wayIn(why);
  if (way.empty()) GTEST_SKIP() << "left out: a network namespace of its own, because the machine refuses one: " << why;
  runAgain(way);
}

void ip(const std::string& words) {
  if (!isInNamespace()) throw std::runtime_error("ip " + words + ": not in a network namespace of the test's own");
  const Outcome outcome = runToEnd(wordsOf("ip " + words));
  if (outcome.status != 0) throw std::runtime_error(fmt::format("ip {}: {}", words, outcome.errorOutput));
}

void ipBatch(const std::string& lines) {
  const TemporaryDirectory folder;
  writeFile(folder / "commands", lines);
  ip("-batch " + (folder / "commands"));
}

void addCable(const std::string& name) {
  ip(fmt::format("link add {0} type veth peer name {0}p", name));
  ip(fmt::format("link set {} up", name));
  ip(fmt::format("link set {}p up", name));
}

void connectToNetwork() {
  ip("link set lo up");
  addCable("v0");
  ip("address add 192.0.2.2/24 dev v0");
  ip("route add default via 192.0.2.1");
}

}  // namespace kestrine::test
