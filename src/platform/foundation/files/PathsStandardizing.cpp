#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/foundation/files/HomeDirectory.h"
#include "platform/foundation/files/Paths.h"

namespace platform {

namespace {

/// Whether there is nothing to do. This is what nearly every path of an event is, so it is one pass over the text.
bool isStandard(std::string_view path) {
  if (path.empty() || path == "/") return true;
  if (path[0] == '~' || path.back() == '/') return false;
  std::size_t begin = path[0] == '/' ? 1 : 0;
  while (begin <= path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view component = path.substr(begin, end - begin);
    if (component.empty() || component == "." || component == "..") return false;
    begin = end + 1;
  }
  return true;
}

bool isSymbolicLink(const std::string& path) {
  char target = 0;
  return readlink(path.c_str(), &target, 1) >= 0;
}

/// Goes up from the absolute path `path`: what ".." means there, when that can be told, else what it says.
void removeLastComponent(std::string& path) {
  if (isSymbolicLink(path)) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    if (real) path = real.get();
  }
  path.resize(std::min(path.rfind('/'), path.size()));
}

}  // namespace

std::string stringByStandardizingPath(std::string_view path) {
  if (isStandard(path)) return std::string(path);
  const std::string expanded = stringByExpandingTilde(path);
  const bool absolute = expanded.starts_with('/');

  // An absolute path is gathered without a separator at its end: the root is "" here.
  std::string out;
  out.reserve(expanded.size());
  std::string_view rest = expanded;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('/'), rest.size());
    const std::string_view component = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (component.empty() || component == ".") continue;
    if (component == ".." && absolute) {
      removeLastComponent(out);
      continue;
    }
    if (absolute || !out.empty()) out += '/';
    out += component;
  }
  if (!out.empty()) return out;
  return absolute ? "/" : ".";
}

}  // namespace platform
