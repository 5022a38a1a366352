#include "platform/foundation/process/SystemVersion.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <optional>

#include "platform/foundation/log/Log.h"

namespace platform {

namespace {

constexpr OperatingSystemVersion kDefaultVersion = {14, 0, 0};

/// One to three numbers of at most three digits, separated by dots.
std::optional<OperatingSystemVersion> parseVersion(std::string_view text) {
  constexpr std::size_t kMostDigits = 3;
  std::array<int, 3> numbers{};
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const std::string_view number = text.substr(0, text.find('.'));
    if (number.empty() || number.size() > kMostDigits) return std::nullopt;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), numbers[i]);
    if (error != std::errc() || end != number.data() + number.size() || numbers[i] < 0) return std::nullopt;
    if (number.size() == text.size()) return OperatingSystemVersion{numbers[0], numbers[1], numbers[2]};
    text.remove_prefix(number.size() + 1);
  }
  return std::nullopt;
}

/// A release and the AppKit number that it began with. Up to 10.15 the minor number names the release, from 11 on the major one does.
struct Release {
  int major;
  int minor;
  double number;
};

constexpr std::array<Release, 20> kReleases = {{
    {10, 0, 577},   {10, 1, 620},   {10, 2, 663},  {10, 3, 743},   {10, 4, 824},   {10, 5, 949},   {10, 6, 1038},
    {10, 7, 1138},  {10, 8, 1187},  {10, 9, 1265}, {10, 10, 1343}, {10, 11, 1404}, {10, 12, 1504}, {10, 13, 1561},
    {10, 14, 1671}, {10, 15, 1894}, {11, 0, 2022}, {12, 0, 2113},  {13, 0, 2299},  {14, 0, 2487},
}};
/// How far apart releases that are later than the table are taken to be.
constexpr double kStepBeyondTable = 100;

/// 0.07 for 7; never reaches 1.
double hundredths(int level) { return std::clamp(level, 0, 99) / 100.0; }

}  // namespace

OperatingSystemVersion systemVersion() {
  const char* text = std::getenv("KESTRINE_SYSTEM_VERSION");
  if (text == nullptr) return kDefaultVersion;
  if (const auto version = parseVersion(text)) return *version;
  static std::atomic<bool> said = false;
  if (!said.exchange(true))
    NSLog(fmt::format("KESTRINE_SYSTEM_VERSION is no version: \"{}\"; taken as {}.0.0", text, kDefaultVersion.major));
  return kDefaultVersion;
}

double appKitVersionNumber(const OperatingSystemVersion& version) {
  const auto later = std::ranges::find_if(kReleases, [&](const Release& release) {
    return release.major > version.major || (release.major == version.major && release.major == 10 && release.minor > version.minor);
  });
  if (later == kReleases.begin()) return 0;
  const Release& release = *std::prev(later);
  if (release.major == 10) return release.number + std::clamp(version.minor - release.minor, 0, 99) + hundredths(version.patch);
  const double newer = static_cast<double>(version.major) - release.major;
  return release.number + newer * kStepBeyondTable + hundredths(version.minor) + hundredths(version.patch) / 100;
}

}  // namespace platform
