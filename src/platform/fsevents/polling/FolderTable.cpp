#include "platform/fsevents/polling/FolderTable.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>

namespace platform::fsevents {
namespace {

constexpr std::size_t kHeader = 3;

// The byte before a name.
constexpr unsigned kKindBits = 0x03;
constexpr unsigned kLooksShift = 2;
constexpr unsigned kLooksBits = 0x0C;
constexpr unsigned kNamedOnlyBit = 0x10;
constexpr unsigned kNumberedAlikeBit = 0x20;
constexpr unsigned kContentStampBit = 0x40;
constexpr unsigned kAbsentBit = 0x80;

std::uint32_t hashOfName(std::string_view name) {
  const std::size_t hash = std::hash<std::string_view>{}(name);
  return static_cast<std::uint32_t>(hash ^ (hash >> 32U));
}

unsigned bitsOf(const PolledItem& item) {
  return static_cast<unsigned>(item.kind) | (unsigned{item.looks} << kLooksShift) | (item.isNamedOnly ? kNamedOnlyBit : 0) |
         (item.isNumberedAlike ? kNumberedAlikeBit : 0) | (item.isContentStamp ? kContentStampBit : 0) | (item.isAbsent ? kAbsentBit : 0);
}

}  // namespace

bool FolderTable::append(std::string_view name, const PolledItem& item) {
  if (names_.size() + kHeader + name.size() > std::numeric_limits<std::uint32_t>::max()) return false;
  Entry entry{};
  entry.hash = hashOfName(name);
  entry.text = static_cast<std::uint32_t>(names_.size());
  const auto length = static_cast<std::uint16_t>(name.size());
  names_.resize(names_.size() + kHeader + name.size());
  std::memcpy(names_.data() + entry.text, &length, sizeof length);
  name.copy(names_.data() + entry.text + kHeader, name.size());
  write(entry, item);
  entries_.push_back(entry);
  return true;
}

void FolderTable::write(Entry& entry, const PolledItem& item) {
  entry.inode = item.inode;
  entry.changed = item.changed;
  entry.birth = item.birth;
  entry.content = item.content;
  names_[entry.text + 2] = static_cast<char>(bitsOf(item));
}

std::string_view FolderTable::nameOf(const Entry& entry) const {
  std::uint16_t length = 0;
  std::memcpy(&length, names_.data() + entry.text, sizeof length);
  return {names_.data() + entry.text + kHeader, length};
}

bool FolderTable::isAbsent(const Entry& entry) const { return (static_cast<unsigned char>(names_[entry.text + 2]) & kAbsentBit) != 0; }

void FolderTable::arrange() {
  std::sort(entries_.begin(), entries_.end(), [this](const Entry& one, const Entry& other) {
    if (one.hash != other.hash) return one.hash < other.hash;
    if (one.text == other.text) return false;
    const int order = nameOf(one).compare(nameOf(other));
    return order != 0 ? order < 0 : one.text < other.text;
  });
  std::size_t kept = 0;
  for (std::size_t at = 0; at < entries_.size(); ++at) {
    const Entry entry = entries_[at];
    const bool isOutdone = at + 1 < entries_.size() && entries_[at + 1].hash == entry.hash && nameOf(entries_[at + 1]) == nameOf(entry);
    if (!isOutdone && !isAbsent(entry)) entries_[kept++] = entry;
  }
  entries_.resize(kept);
  entries_.shrink_to_fit();
  names_.shrink_to_fit();
}

std::string_view FolderTable::name(std::size_t at) const { return nameOf(entries_[at]); }

PolledItem FolderTable::item(std::size_t at) const {
  const Entry& entry = entries_[at];
  const unsigned bits = static_cast<unsigned char>(names_[entry.text + 2]);
  PolledItem item;
  item.inode = entry.inode;
  item.changed = entry.changed;
  item.birth = entry.birth;
  item.content = entry.content;
  item.kind = static_cast<PolledItem::Kind>(bits & kKindBits);
  item.looks = static_cast<std::uint8_t>((bits & kLooksBits) >> kLooksShift);
  item.isNamedOnly = (bits & kNamedOnlyBit) != 0;
  item.isNumberedAlike = (bits & kNumberedAlikeBit) != 0;
  item.isContentStamp = (bits & kContentStampBit) != 0;
  return item;
}

void FolderTable::setItem(std::size_t at, const PolledItem& item) { write(entries_[at], item); }

PolledItem FolderTable::find(std::string_view name) const {
  const std::uint32_t hash = hashOfName(name);
  auto entry =
      std::lower_bound(entries_.begin(), entries_.end(), hash, [](const Entry& one, std::uint32_t wanted) { return one.hash < wanted; });
  for (; entry != entries_.end() && entry->hash == hash; ++entry) {
    if (nameOf(*entry) == name) return item(static_cast<std::size_t>(entry - entries_.begin()));
  }
  PolledItem none;
  none.isAbsent = true;
  return none;
}

int FolderTable::compare(const FolderTable& one, std::size_t at, const FolderTable& other, std::size_t otherAt) {
  const Entry& left = one.entries_[at];
  const Entry& right = other.entries_[otherAt];
  if (left.hash != right.hash) return left.hash < right.hash ? -1 : 1;
  return one.nameOf(left).compare(other.nameOf(right));
}

}  // namespace platform::fsevents
