#include "platform/foundation/files/Paths.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace platform {

namespace {

/// Where the extension's dot stands in the name `name`; npos when it has no extension.
std::size_t extensionDot(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot + 1 == name.size()) return std::string_view::npos;
  return name.find_first_not_of('.') < dot ? dot : std::string_view::npos;
}

/// The last component as it stands in `path`; separators alone have none.
std::string_view lastName(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string_view::npos) return {};
  path = path.substr(0, last + 1);
  return path.substr(path.rfind('/') + 1);
}

/// The root's own separator is the one in front of what lies below it.
std::string_view withoutRoot(std::string_view path) { return path == "/" ? std::string_view() : path; }

}  // namespace

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component) {
  if (path.empty()) return collapsedPath(component);
  return collapsedPath(std::string(path).append(1, '/').append(component));
}

std::string stringByDeletingLastPathComponent(std::string_view path) {
  std::string out = collapsedPath(path);
  const std::size_t separator = out.rfind('/');
  if (separator == std::string::npos) return {};
  out.resize(std::max<std::size_t>(separator, 1));
  return out;
}

std::string lastPathComponent(std::string_view path) {
  const std::string_view name = lastName(path);
  return name.empty() && !path.empty() ? "/" : std::string(name);
}

std::string pathExtension(std::string_view path) {
  const std::string_view name = lastName(path);
  const std::size_t dot = extensionDot(name);
  return dot == std::string_view::npos ? std::string() : std::string(name.substr(dot + 1));
}

std::string stringByDeletingPathExtension(std::string_view path) {
  std::string out = collapsedPath(path);
  const std::string_view name = lastName(out);
  if (const std::size_t dot = extensionDot(name); dot != std::string_view::npos) out.resize(out.size() - name.size() + dot);
  return out;
}

std::string stringByAppendingPathExtension(std::string_view path, std::string_view extension) {
  if (extension.empty() || extension.find('/') != std::string_view::npos || lastName(path).empty()) return std::string(path);
  return collapsedPath(path).append(1, '.').append(extension);
}

std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (path.starts_with('/')) components.emplace_back("/");
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    if (end > 0) components.emplace_back(path.substr(0, end));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return components;
}

std::string collapsedPath(std::string_view path) {
  std::string out;
  out.reserve(path.size() + 1);
  for (const char c : path) {
    if (c != '/' || !out.ends_with('/')) out += c;
  }
  if (out.size() > 1 && out.ends_with('/')) out.pop_back();
  return out;
}

std::string absolutePath(const std::string& path) {
  if (path.starts_with('/')) return path;
  std::error_code error;
  const std::string current = std::filesystem::current_path(error).string();
  return (current == "/" ? "" : current) + "/" + path;
}

bool isAtOrBelowPath(std::string_view path, std::string_view folder) {
  return withoutRoot(path) == withoutRoot(folder) || isBelowPath(path, folder);
}

bool isBelowPath(std::string_view path, std::string_view folder) {
  const std::string_view below = withoutRoot(path);
  const std::string_view above = withoutRoot(folder);
  return below.size() > above.size() && below.starts_with(above) && below[above.size()] == '/';
}

}  // namespace platform
