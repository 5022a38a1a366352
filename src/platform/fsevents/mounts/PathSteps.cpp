#include "platform/fsevents/mounts/PathSteps.h"

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace platform::fsevents {

void pushComponents(const std::string& text, std::vector<std::string>& left) {
  const std::size_t before = left.size();
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('/', at), text.size());
    if (end > at) left.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  std::reverse(left.begin() + static_cast<std::ptrdiff_t>(before), left.end());
}

std::string linkAt(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t count = ::readlink(path.c_str(), target.data(), target.size());
  return count > 0 ? std::string(target.data(), static_cast<std::size_t>(count)) : std::string();
}

}  // namespace platform::fsevents
