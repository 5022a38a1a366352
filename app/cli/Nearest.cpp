#include "app/cli/Nearest.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <utility>

#include "platform/foundation/text/ASCII.h"

namespace kestrine {

namespace {

constexpr std::size_t kMostNames = 3;

/// Levenshtein's distance: how many letters must be added, taken away or changed.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::vector<std::string> nearestNames(std::string_view word, std::span<const std::string> names) {
  const std::string wanted = platform::asciiLowered(word);
  std::vector<std::pair<std::size_t, std::string>> near;
  for (const std::string& name : names) {
    const std::string candidate = platform::asciiLowered(name);
    const std::size_t apart = distance(wanted, candidate);
    const bool isPart = wanted.size() > 2 && (candidate.find(wanted) != std::string::npos || wanted.find(candidate) != std::string::npos);
    if (isPart || apart <= std::max<std::size_t>(1, std::min(wanted.size(), candidate.size()) / 3)) near.emplace_back(apart, name);
  }
  std::ranges::stable_sort(near, {}, &std::pair<std::size_t, std::string>::first);
  std::vector<std::string> nearest;
  for (const auto& [apart, name] : near) {
    if (nearest.size() < kMostNames && std::ranges::find(nearest, name) == nearest.end()) nearest.push_back(name);
  }
  return nearest;
}

std::string didYouMean(std::string_view word, std::span<const std::string> names) {
  const std::vector<std::string> nearest = nearestNames(word, names);
  if (nearest.empty()) return {};
  std::string text = fmt::format("; did you mean '{}'", nearest.front());
  for (std::size_t i = 1; i < nearest.size(); ++i) text += fmt::format("{} '{}'", i + 1 == nearest.size() ? " or" : ",", nearest[i]);
  return text + "?";
}

}  // namespace kestrine
