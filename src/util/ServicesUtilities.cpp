#include "util/ServicesUtilities.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/files/FileManager.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/process/SystemVersion.h"

namespace kestrine {

namespace {

// The AppKit version numbers with which two releases began.
constexpr double kAppKitVersionNumber10_7 = 1138.0;
constexpr double kAppKitVersionNumber10_10 = 1343.0;

bool continuesCharacter(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

/// The length in bytes of the first character of UTF-8 text.
std::size_t firstCharacter(std::string_view text) {
  std::size_t length = 1;
  while (length < text.size() && continuesCharacter(text[length])) ++length;
  return length;
}

}  // namespace

bool ServicesUtilities::is10_7() { return is10_7(platform::appKitVersionNumber(platform::systemVersion())); }

bool ServicesUtilities::isLessThan10_10() { return isLessThan10_10(platform::appKitVersionNumber(platform::systemVersion())); }

bool ServicesUtilities::is10_7(double appKitVersionNumber) { return std::floor(appKitVersionNumber) == kAppKitVersionNumber10_7; }

bool ServicesUtilities::isLessThan10_10(double appKitVersionNumber) {
  const double number = std::floor(appKitVersionNumber);
  return number >= kAppKitVersionNumber10_7 && number < kAppKitVersionNumber10_10;
}

std::string ServicesUtilities::convertPathToWindows(std::string_view path) {
  if (path.empty()) throw platform::Exception(platform::NSRangeException, "convertPathToWindows: an empty path has no first character");
  std::string converted(path.substr(firstCharacter(path)));
  std::replace(converted.begin(), converted.end(), '/', '\\');
  return converted;
}

std::string ServicesUtilities::convertPathToMac(std::string_view path) {
  std::string converted = fmt::format("/{}", path);
  std::replace(converted.begin(), converted.end(), '\\', '/');
  return converted;
}

std::string ServicesUtilities::checkDuplicateAndCreate_kestrinePath(const std::string& source, const std::string& kestrinePath) {
  static_cast<void>(kestrinePath);
  const std::string folder = platform::stringByDeletingLastPathComponent(source);
  const std::string stem = platform::stringByDeletingPathExtension(platform::lastPathComponent(source));
  const std::string extension = platform::pathExtension(source);
  // Unsigned underneath, so that a number beyond the last one wraps as the system's own does.
  for (std::uint32_t counter = 1;; ++counter) {
    bool isDirectory = false;
    if (!platform::fileExistsAtPath(source, &isDirectory)) return source;
    std::string name = fmt::format("{} {}", stem, static_cast<std::int32_t>(counter));
    if (!isDirectory) name = platform::stringByAppendingPathExtension(name, extension);
    std::string candidate = platform::stringByAppendingPathComponent(folder, name);
    if (platform::fileExistsAtPath(candidate)) continue;
    if (!platform::copyItemAtPath_toPath(source, candidate)) return candidate;
  }
}

}  // namespace kestrine
