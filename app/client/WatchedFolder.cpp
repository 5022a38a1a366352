#include "app/client/WatchedFolder.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "contract/SharedPreferences.h"
#include "contract/SyncFolder.h"
#include "platform/foundation/preferences/UserDefaults.h"
#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/url/URL.h"

namespace kestrine {

namespace {

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
    } else if (static_cast<unsigned char>(c) < 0x80 && !platform::URL::URLWithString(std::string("/") + c)) {
      return fmt::format("the character '{}'", c);
    }
  }
  return "something that no URL may hold";
}

/// Why the path of the URL `text` is not `text` itself.
std::string_view describeDifference(std::string_view text) {
  if (text.starts_with("//")) return "'//' at the beginning makes the next part a host name";
  const auto special = text.find_first_of("#?");
  const auto escape = text.find('%');
  if (escape < special) return "'%' and two digits stand for another character";
  if (special == std::string_view::npos) return "the text names a URL";
  return text[special] == '#' ? "'#' ends the path" : "'?' ends the path";
}

/// With one separator where several stand.
std::string withSingleSeparators(std::string path) {
  // Not std::ranges::unique: clang 14 cannot read libstdc++'s subranges.
  path.erase(std::unique(path.begin(), path.end(), [](char a, char b) { return a == '/' && b == '/'; }), path.end());
  return path;
}

}  // namespace

WatchedFolder watchedFolder(const std::string& base) {
  WatchedFolder folder;
  const std::string text = syncFolderText(base);
  folder.typed = withSingleSeparators(text);
  const auto url = platform::URL::URLWithString(text);
  if (!url) {
    folder.problem = fmt::format(
        "the base folder '{}' cannot be watched: it holds {}, and the service reads the path as a URL; use a folder whose path has none",
        base, describeForbidden(base));
    return folder;
  }
  const std::string path = url->path();
  if (!path.starts_with('/')) {
    folder.problem = fmt::format("the base folder '{}' cannot be watched: it is no absolute path; give one that begins with '/'", base);
    return folder;
  }
  folder.watched = path;
  // Repeated separators inside a path change nothing; at its beginning, they do for a URL.
  if (base.starts_with("//") || withSingleSeparators(path) != folder.typed) {
    folder.warning = fmt::format("the service will watch '{}', not '{}': it reads the path as a URL, where {}", path, folder.typed,
                                 describeDifference(base));
  }
  return folder;
}

std::optional<std::string> basePath() {
  const platform::Object base = platform::UserDefaults(kApplicationDomain).objectForKey(kBasePathKey);
  if (base.isNil()) return std::nullopt;
  return base.isString() ? base.stringValue() : base.description();
}

bool setBasePath(const std::string& base) {
  platform::UserDefaults defaults(kApplicationDomain);
  defaults.setObject_forKey(base, kBasePathKey);
  return defaults.synchronize();
}

}  // namespace kestrine
