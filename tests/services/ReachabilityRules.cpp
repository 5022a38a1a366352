#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>

#include "Services/NetWorkConnectionStatus.h"
#include "Services/Reachability/Reachability.h"

namespace kestrine::test {
namespace {

// The bits, in numbers of the test's own.
constexpr std::uint32_t kReachable = 0x2;
constexpr std::uint32_t kRequired = 0x4;
constexpr std::uint32_t kOnTraffic = 0x8;
constexpr std::uint32_t kIntervention = 0x10;
constexpr std::uint32_t kOnDemand = 0x20;
constexpr std::uint32_t kDirect = 0x20000;
// Bits that nobody consults: transient, automatic by another name, local address, a cellular link, and the mask's ends.
constexpr std::array<std::uint32_t, 6> kIgnored = {0x0, 0x1, 0x10000, 0x40000, 0x80000000, 0x80050001};

struct Row {
  bool required, onTraffic, intervention, onDemand;
  // What is to come out of reachable flags: by the network rule; by ConectionStatus when not direct, and when direct.
  bool network, connected, connectedDirectly;
};

constexpr bool kY = true;
constexpr bool kN = false;

// clang-format off
constexpr std::array<Row, 16> kTruth = {{
  // required, traffic, intervention, demand -> network, connected, connected directly
  {kN, kN, kN, kN,  kY, kY, kY},
  {kN, kN, kN, kY,  kY, kY, kY},
  {kN, kN, kY, kN,  kY, kY, kY},
  {kN, kN, kY, kY,  kY, kY, kY},
  {kN, kY, kN, kN,  kY, kY, kY},
  {kN, kY, kN, kY,  kY, kY, kY},
  {kN, kY, kY, kN,  kY, kY, kY},
  {kN, kY, kY, kY,  kY, kY, kY},
  {kY, kN, kN, kN,  kN, kN, kY},
  {kY, kN, kN, kY,  kY, kY, kY},
  {kY, kN, kY, kN,  kN, kN, kY},
  {kY, kN, kY, kY,  kN, kN, kY},
  {kY, kY, kN, kN,  kY, kY, kY},
  {kY, kY, kN, kY,  kY, kY, kY},
  {kY, kY, kY, kN,  kN, kN, kY},
  {kY, kY, kY, kY,  kN, kN, kY},
}};
// clang-format on

std::uint32_t flagsOf(const Row& row) {
  return (row.required ? kRequired : 0) | (row.onTraffic ? kOnTraffic : 0) | (row.intervention ? kIntervention : 0) |
         (row.onDemand ? kOnDemand : 0);
}

void expectRules(std::uint32_t flags, bool network, bool localWiFi, bool connected) {
  const Reachability reachability;
  for (const std::uint32_t ignored : kIgnored) {
    SCOPED_TRACE(fmt::format("flags {:#x}", flags | ignored));
    EXPECT_EQ(reachability.networkStatusForFlags(flags | ignored), network ? 1 : 0);
    EXPECT_EQ(reachability.localWiFiStatusForFlags(flags | ignored), localWiFi ? 1 : 0);
    EXPECT_EQ(NetWorkConnectionStatus::connectionStatusForFlags(flags | ignored), connected);
  }
}

TEST(ReachabilityRules, DecideAsTheTruthTableForEveryCombinationOfReachableFlags) {
  for (const Row& row : kTruth) {
    expectRules(kReachable | flagsOf(row), row.network, false, row.connected);
    expectRules(kReachable | kDirect | flagsOf(row), row.network, true, row.connectedDirectly);
  }
}

TEST(ReachabilityRules, DecideAgainstEveryCombinationOfFlagsThatAreNotReachable) {
  for (const Row& row : kTruth) {
    expectRules(flagsOf(row), false, false, false);
    expectRules(kDirect | flagsOf(row), false, false, false);
  }
}

TEST(ReachabilityRules, ReachableAloneIsReachableAndNothingOrARequiredConnectionAloneIsNot) {
  const Reachability reachability;
  EXPECT_EQ(reachability.networkStatusForFlags(0x2), NetworkStatusReachable);
  EXPECT_EQ(reachability.networkStatusForFlags(0x0), NetworkStatusNotReachable);
  EXPECT_EQ(reachability.networkStatusForFlags(0x4), NetworkStatusNotReachable);
}

TEST(ReachabilityRules, AConnectionThatMakesItselfCountsUnlessSomebodyMustIntervene) {
  const Reachability reachability;
  EXPECT_EQ(reachability.networkStatusForFlags(0x2 | 0x4 | 0x20), NetworkStatusReachable);
  EXPECT_EQ(reachability.networkStatusForFlags(0x2 | 0x4 | 0x20 | 0x10), NetworkStatusNotReachable);
  EXPECT_EQ(reachability.networkStatusForFlags(0x2 | 0x4 | 0x8), NetworkStatusReachable);
}

TEST(ReachabilityRules, ADirectNetworkThatNeedsAConnectionIsJudgedDifferentlyByEachRule) {
  const Reachability reachability;
  constexpr std::uint32_t kFlags = 0x2 | 0x4 | 0x20000;
  EXPECT_EQ(reachability.networkStatusForFlags(kFlags), NetworkStatusNotReachable);
  EXPECT_TRUE(NetWorkConnectionStatus::connectionStatusForFlags(kFlags));
  EXPECT_EQ(reachability.localWiFiStatusForFlags(kFlags), NetworkStatusReachable);
}

TEST(ReachabilityRules, DirectWithoutReachableIsNoLocalWiFi) {
  EXPECT_EQ(Reachability().localWiFiStatusForFlags(0x20000), NetworkStatusNotReachable);
}

TEST(ReachabilityRules, StatusesAreTheNumbersNoughtAndOneOf32Bits) {
  EXPECT_EQ(static_cast<int>(NetworkStatusNotReachable), 0);
  EXPECT_EQ(static_cast<int>(NetworkStatusReachable), 1);
  static_assert(sizeof(NetworkStatus) == 4);
  static_assert(std::is_signed_v<std::underlying_type_t<NetworkStatus>>);
}

}  // namespace
}  // namespace kestrine::test
