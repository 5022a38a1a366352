#include "app/client/WatchedFolder.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>

#include "contract/SharedPreferences.h"
#include "contract/SyncFolder.h"
#include "platform/foundation/base/SystemError.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/url/URL.h"

namespace kestrine {

namespace {

using platform::URL;

constexpr std::string_view kFileURLStart = "file://";

bool startsEscape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && platform::hexDigitValue(text[1]) >= 0 && platform::hexDigitValue(text[2]) >= 0;
}

/// The first thing in `text` that no URL may hold, for people.
std::string describeForbidden(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      if (!startsEscape(text.substr(i))) return "a '%' that is not followed by two hexadecimal digits";
    } else if (c == ' ') {
      return "a blank";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      return fmt::format("the control character 0x{:02x}", static_cast<unsigned char>(c));
    } else if (static_cast<unsigned char>(c) < 0x80 && !URL::URLWithString(std::string("/") + c)) {
      return fmt::format("the character '{}'", c);
    }
  }
  return "something that no URL may hold";
}

/// Why the URL of the text names no folder of this machine; empty when it does.
std::string whyNoFolder(const std::string& text, const URL& url) {
  if (text.empty()) return "it is empty";
  if (url.query()) return "'?' ends the path of a URL";
  if (url.fragment()) return "'#' ends the path of a URL";
  if (!url.scheme().empty() && !url.isFileURL()) return fmt::format("it is a URL of the kind '{}:'", url.scheme());
  if (!url.host().empty() && url.host() != "localhost") return fmt::format("'{}' is the name of a host in it", url.host());
  if (url.path().empty()) return "it has no path";
  if (!url.path().starts_with('/')) return "it is no absolute path";
  return {};
}

/// Whether no file system has room for such a name, wherever on the way to it folders are missing.
bool isTooLong(std::string_view path) {
  if (path.size() >= PATH_MAX) return true;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    if (end > NAME_MAX) return true;
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return false;
}

/// Why there never will be a folder at `path`, unless somebody makes room for it; empty when there is one or may be one.
std::string whyNeverAFolder(const std::string& path) {
  if (isTooLong(path)) return fmt::format("the name '{}' is too long", path);
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) return S_ISDIR(status.st_mode) ? std::string() : fmt::format("'{}' is no folder", path);
  const int error = errno;
  if (error == ENOENT || error == EACCES || error == EIO || error == ESTALE || error == ENOTCONN) return {};
  return fmt::format("'{}' can be no folder: {}", path, platform::errnoText(error));
}

}  // namespace

WatchedFolder watchedFolder(const std::string& text) {
  constexpr std::string_view kRemedy = "'kestrine start --base DIR' stores any folder so that it can be watched";
  const auto url = URL::URLWithString(syncFolderText(text));
  const std::string why =
      url ? whyNoFolder(text, *url) : fmt::format("it holds {}, and what is stored is read as a URL", describeForbidden(text));
  WatchedFolder folder;
  if (!why.empty()) {
    folder.problem = fmt::format("the base '{}' names no folder of this machine: {}; {}", text, why, kRemedy);
    return folder;
  }
  folder.watched = url->path();
  folder.base = platform::collapsedPath(folder.watched.substr(0, folder.watched.rfind('/') + 1));
  return folder;
}

std::string baseTextOfPath(const std::string& path) {
  const std::string simple = platform::collapsedPath(path);
  // Of the root the URL's path alone would be the beginning of a host's name.
  if (simple == "/") return std::string(kFileURLStart);
  return URL::fileURLWithPath(simple).absoluteString().substr(kFileURLStart.size());
}

std::string whyNeverABaseFolder(const std::string& path) {
  if (!path.starts_with('/')) return fmt::format("'{}' is no absolute path", path);
  if (path.find('\0') != std::string::npos) return "a path holds no NUL";
  const std::string why = whyNeverAFolder(path);
  return why.empty() ? whyNeverAFolder(syncFolderText(path)) : why;
}

std::optional<std::string> baseText() {
  const platform::Object base = platform::UserDefaults(kApplicationDomain).objectForKey(kBasePathKey);
  if (base.isNil()) return std::nullopt;
  return base.isString() ? base.stringValue() : base.description();
}

bool setBasePath(const std::string& path) {
  if (const std::string why = whyNeverABaseFolder(path); !why.empty()) {
    platform::NSLog("the base folder was not stored: " + why);
    return false;
  }
  platform::UserDefaults defaults(kApplicationDomain);
  defaults.setObject_forKey(baseTextOfPath(path), kBasePathKey);
  return defaults.synchronize();
}

}  // namespace kestrine
