#include "platform/fsevents/mounts/MountTable.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <numeric>
#include <optional>
#include <utility>

#include "platform/foundation/files/Paths.h"

namespace platform::fsevents {
namespace {

constexpr std::size_t kOctalDigits = 3;

bool isOctal(char letter) { return letter >= '0' && letter <= '7'; }

/// The kernel writes blanks, tabs, line ends, backslashes and number signs of a path as a backslash and three octal digits.
std::string unescaped(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view digits = text.substr(at + 1, kOctalDigits);
    if (text[at] == '\\' && digits.size() == kOctalDigits && std::all_of(digits.begin(), digits.end(), isOctal)) {
      unsigned value = 0;
      std::from_chars(digits.data(), digits.data() + digits.size(), value, 8);
      result.push_back(static_cast<char>(value));
      at += kOctalDigits;
    } else {
      result.push_back(text[at]);
    }
  }
  return result;
}

/// Cuts the next field off `line`. A field may be empty (a source without a name), so one blank ends it.
std::string_view nextField(std::string_view& line) {
  const std::size_t end = std::min(line.find(' '), line.size());
  const std::string_view field = line.substr(0, end);
  line.remove_prefix(std::min(end + 1, line.size()));
  return field;
}

bool readNumber(std::string_view field, int& number) {
  const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), number);
  return error == std::errc{} && end == field.data() + field.size();
}

std::optional<Mount> parseLine(std::string_view line) {
  Mount mount;
  if (!readNumber(nextField(line), mount.id) || !readNumber(nextField(line), mount.parent)) return std::nullopt;
  mount.device = nextField(line);
  mount.root = unescaped(nextField(line));
  mount.point = unescaped(nextField(line));
  nextField(line);  // the options of the mount
  for (;;) {
    if (line.empty()) return std::nullopt;
    if (nextField(line) == "-") break;  // after any number of optional fields
  }
  mount.type = unescaped(nextField(line));
  mount.source = unescaped(nextField(line));
  if (mount.type.empty() || !mount.point.starts_with('/')) return std::nullopt;
  return mount;
}

/// Follows the way that the kernel's lookup of a path takes: from the root, and at each mount point on to the mount upon it, which
/// knows what it is mounted on (`parent`) and not merely under which text.
class Visibility {
 public:
  explicit Visibility(const std::vector<Mount>& mounts) : mounts_(mounts) {
    std::map<int, std::size_t> byId;
    for (std::size_t i = 0; i < mounts.size(); ++i) byId[mounts[i].id] = i;
    for (std::size_t i = 0; i < mounts.size(); ++i) {
      const bool hasParent = mounts[i].parent != mounts[i].id && byId.contains(mounts[i].parent);
      (hasParent ? children_[mounts[i].parent] : outermost_).push_back(i);
    }
  }

  std::vector<std::size_t> find() {
    enter(std::move(outermost_));
    while (!waiting_.empty()) {
      const std::size_t mount = waiting_.back();
      waiting_.pop_back();
      std::vector<std::size_t> upon = takeChildren(mount);
      std::vector<std::size_t> inside;
      std::size_t covers = mount;
      for (const std::size_t child : upon) {
        if (mounts_[child].point != mounts_[mount].point) {
          inside.push_back(child);
        } else if (mounts_[mount].point != "/") {
          covers = child;
        }
        // What is mounted upon the root of the process itself is reached by no path: the process is in what it hides.
      }
      if (covers != mount) {
        waiting_.push_back(covers);
      } else {
        found_.push_back(mount);
        enter(std::move(inside));
      }
    }
    return std::move(found_);
  }

 private:
  /// Of mounts upon one and the same mount those which no other of them hides.
  void enter(std::vector<std::size_t> siblings) {
    std::stable_sort(siblings.begin(), siblings.end(),
                     [this](std::size_t left, std::size_t right) { return isBefore(mounts_[left].point, mounts_[right].point); });
    std::optional<std::size_t> last;
    for (const std::size_t sibling : siblings) {
      if (last && isBelowPath(mounts_[sibling].point, mounts_[*last].point)) continue;
      // Two upon one place are seen only in a table that changed while it was read: the later one counts.
      if (last && mounts_[sibling].point == mounts_[*last].point) waiting_.pop_back();
      waiting_.push_back(sibling);
      last = sibling;
    }
  }

  /// Folders directly before what is below them.
  static bool isBefore(std::string_view left, std::string_view right) {
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
      if (a == '/' || b == '/') return a == '/' && b != '/';
      return static_cast<unsigned char>(a) < static_cast<unsigned char>(b);
    });
  }

  /// Once only, so that a table in which mounts are each other's parents ends, too.
  std::vector<std::size_t> takeChildren(std::size_t mount) {
    const auto found = children_.find(mounts_[mount].id);
    return found == children_.end() ? std::vector<std::size_t>{} : std::exchange(found->second, {});
  }

  const std::vector<Mount>& mounts_;
  std::vector<std::size_t> outermost_;
  std::map<int, std::vector<std::size_t>> children_;
  std::vector<std::size_t> waiting_;
  std::vector<std::size_t> found_;
};

}  // namespace

std::vector<Mount> parseMounts(std::string_view text) {
  std::vector<Mount> mounts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    if (std::optional<Mount> mount = parseLine(text.substr(0, end))) mounts.push_back(std::move(*mount));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return mounts;
}

MountTable::MountTable(std::vector<Mount> mounts) : mounts_(std::move(mounts)) {
  visible_ = Visibility(mounts_).find();
  std::sort(visible_.begin(), visible_.end(),
            [this](std::size_t left, std::size_t right) { return mounts_[left].point < mounts_[right].point; });
  byId_.resize(mounts_.size());
  std::iota(byId_.begin(), byId_.end(), std::size_t{0});
  std::sort(byId_.begin(), byId_.end(), [this](std::size_t left, std::size_t right) { return mounts_[left].id < mounts_[right].id; });
}

bool MountTable::contains(const Mount& mount) const {
  auto next = std::lower_bound(byId_.begin(), byId_.end(), mount.id, [this](std::size_t each, int id) { return mounts_[each].id < id; });
  for (; next != byId_.end() && mounts_[*next].id == mount.id; ++next) {
    if (mounts_[*next] == mount) return true;
  }
  return false;
}

const Mount* MountTable::at(std::string_view point) const {
  const auto found = std::lower_bound(visible_.begin(), visible_.end(), point,
                                      [this](std::size_t mount, std::string_view text) { return mounts_[mount].point < text; });
  return found != visible_.end() && mounts_[*found].point == point ? &mounts_[*found] : nullptr;
}

const Mount* MountTable::covering(std::string_view path) const {
  while (path.size() > 1) {
    if (const Mount* mount = at(path)) return mount;
    path = path.substr(0, path.rfind('/'));
  }
  return at("/");
}

std::vector<Mount> MountTable::below(std::string_view path) const {
  const std::string start = path == "/" ? "/" : std::string(path) + "/";
  std::vector<Mount> mounts;
  auto next = std::lower_bound(visible_.begin(), visible_.end(), start,
                               [this](std::size_t mount, const std::string& text) { return mounts_[mount].point < text; });
  for (; next != visible_.end() && mounts_[*next].point.starts_with(start); ++next) {
    if (mounts_[*next].point != start) mounts.push_back(mounts_[*next]);
  }
  return mounts;
}

}  // namespace platform::fsevents
