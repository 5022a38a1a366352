#include "platform/foundation/text/Base64.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace platform {

namespace {

/// The two characters of each 12 bits: three bytes are two look-ups.
constexpr auto kPairs = [] {
  std::array<std::array<char, 2>, 4096> pairs{};
  for (std::size_t bits = 0; bits < pairs.size(); ++bits) pairs[bits] = {kBase64Alphabet[bits >> 6U], kBase64Alphabet[bits & 63U]};
  return pairs;
}();

/// Set in what a table holds for a character that is none of the alphabet.
constexpr std::uint32_t kUnknown = 1U << 24U;

/// For each place in a group, what each character there adds to the group's 24 bits.
constexpr auto kBitsAt = [] {
  std::array<std::array<std::uint32_t, 256>, 4> tables{};
  for (std::size_t place = 0; place < tables.size(); ++place) {
    tables[place].fill(kUnknown);
    for (std::size_t value = 0; value < kBase64Alphabet.size(); ++value) {
      tables[place][static_cast<unsigned char>(kBase64Alphabet[value])] = static_cast<std::uint32_t>(value << (18 - 6 * place));
    }
  }
  return tables;
}();

std::uint32_t bitsOf(const char* group) {
  const auto at = [group](std::size_t place) { return kBitsAt[place][static_cast<unsigned char>(group[place])]; };
  return at(0) | at(1) | at(2) | at(3);
}

void putBytes(std::byte* place, std::uint32_t bits) {
  place[0] = static_cast<std::byte>(bits >> 16U);
  place[1] = static_cast<std::byte>(bits >> 8U);
  place[2] = static_cast<std::byte>(bits);
}

/// The last group, one or two of whose characters are padding.
std::uint32_t bitsOfPadded(std::string_view group, std::size_t padding) {
  std::array<char, 4> whole{};
  std::ranges::copy(group, whole.begin());
  std::fill_n(whole.end() - static_cast<std::ptrdiff_t>(padding), padding, kBase64Alphabet[0]);
  return bitsOf(whole.data());
}

}  // namespace

std::string base64Text(std::span<const std::byte> bytes) {
  std::string text((bytes.size() + 2) / 3 * 4, kBase64Padding);
  char* place = text.data();
  const auto put = [&place](std::uint32_t twelveBits) { place = std::copy_n(kPairs[twelveBits].data(), 2, place); };
  for (; bytes.size() >= 3; bytes = bytes.subspan(3)) {
    const auto bits = std::to_integer<std::uint32_t>(bytes[0]) << 16U | std::to_integer<std::uint32_t>(bytes[1]) << 8U |
                      std::to_integer<std::uint32_t>(bytes[2]);
    put(bits >> 12U);
    put(bits & 0xFFFU);
  }
  if (!bytes.empty()) {
    const auto second = bytes.size() > 1 ? std::to_integer<std::uint32_t>(bytes[1]) : 0U;
    const auto bits = std::to_integer<std::uint32_t>(bytes[0]) << 16U | second << 8U;
    put(bits >> 12U);
    if (bytes.size() > 1) *place = kPairs[bits & 0xFFFU][0];
  }
  return text;
}

std::optional<std::vector<std::byte>> base64Bytes(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  const std::size_t padding = text.size() - std::min(text.size(), text.find(kBase64Padding));
  if (padding > 2 || (padding == 2 && text.back() != kBase64Padding)) return std::nullopt;

  std::vector<std::byte> bytes(text.size() / 4 * 3);
  std::byte* place = bytes.data();
  std::uint32_t seen = 0;
  const std::size_t plain = padding == 0 ? text.size() : text.size() - 4;
  for (std::size_t at = 0; at < plain; at += 4, place += 3) {
    const std::uint32_t bits = bitsOf(text.data() + at);
    seen |= bits;
    putBytes(place, bits);
  }
  if (padding > 0) {
    const std::uint32_t bits = bitsOfPadded(text.substr(plain), padding);
    seen |= bits;
    putBytes(place, bits);
  }
  if ((seen & kUnknown) != 0) return std::nullopt;
  bytes.resize(bytes.size() - padding);
  return bytes;
}

}  // namespace platform
