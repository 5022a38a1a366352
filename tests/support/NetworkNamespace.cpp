#include "tests/support/NetworkNamespace.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/RunAgain.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

namespace {

// Holds the name of the namespace outside, so that the second process can see that it is in another one.
constexpr const char* kOutside = "KESTRINE_TEST_NAMESPACE_OUTSIDE";

std::string namespaceOfThisProcess() { return std::filesystem::read_symlink("/proc/self/ns/net").string(); }

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
  runTestAgain(way, {{kOutside, namespaceOfThisProcess()}});
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
