#include "platform/foundation/value/TextTable.h"

#include <fmt/format.h>

#include <limits>
#include <memory>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/value/Dictionary.h"

namespace platform {

TextTable::TextTable(std::span<const ConstantKeyText> entries) {
  constexpr std::size_t kLongest = std::numeric_limits<std::uint32_t>::max();
  std::size_t length = 0;
  const std::string_view* former = nullptr;
  for (const auto& [key, text] : entries) {
    if (former != nullptr && *former >= key)
      throw Exception(NSInvalidArgumentException, fmt::format("the key \"{}\" is out of order", key));
    if (key.size() > kLongest || text.size() > kLongest) throw Exception(NSInvalidArgumentException, "a text of 4 GiB or more");
    length += text.size();
    former = &key;
  }
  entries_.reserve(entries.size());
  characters_.reserve(length);
  for (const auto& [key, text] : entries) {
    entries_.push_back({key.data(), static_cast<std::uint32_t>(key.size()), static_cast<std::uint32_t>(text.size())});
    characters_.append(text);
  }
}

TextTable::~TextTable() { delete dictionary_.load(std::memory_order_acquire); }

const Dictionary& TextTable::dictionary() const {
  const Dictionary* made = dictionary_.load(std::memory_order_acquire);
  if (made != nullptr) return *made;
  auto fresh = std::make_unique<Dictionary>();
  fresh->reserve(size());
  forEach([&fresh](std::string_view key, std::string_view text) { fresh->emplace(key, text); });
  // Whoever comes second takes what the first has made.
  if (dictionary_.compare_exchange_strong(made, fresh.get(), std::memory_order_acq_rel)) made = fresh.release();
  return *made;
}

}  // namespace platform
