#include "platform/foundation/url/URL.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/text/UTF8.h"
#include "platform/foundation/url/PercentEscapes.h"
#include "platform/foundation/url/URLCharacters.h"

namespace platform {

namespace {

/// The parts of a URL's text, as they stand in it.
struct Parts {
  std::string_view scheme;
  std::optional<std::string_view> authority;
  std::string_view path;
  std::optional<std::string_view> query;
  std::optional<std::string_view> fragment;
};

bool isScheme(std::string_view text) {
  return !text.empty() && isASCIILetter(text[0]) &&
         std::ranges::all_of(text, [](char c) { return isASCIILetter(c) || isASCIIDigit(c) || c == '+' || c == '-' || c == '.'; });
}

/// Takes what follows the first `mark` off `text`, the mark with it.
std::optional<std::string_view> splitOff(std::string_view& text, char mark) {
  const std::size_t at = text.find(mark);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view rest = text.substr(at + 1);
  text = text.substr(0, at);
  return rest;
}

Parts split(std::string_view text) {
  Parts parts;
  parts.fragment = splitOff(text, '#');
  parts.query = splitOff(text, '?');
  if (const std::size_t colon = text.find_first_of(":/");
      colon != std::string_view::npos && text[colon] == ':' && isScheme(text.substr(0, colon))) {
    parts.scheme = text.substr(0, colon);
    text.remove_prefix(colon + 1);
    // "mailto:somebody" names no place in a hierarchy.
    if (!text.starts_with('/')) return parts;
  }
  if (text.starts_with("//")) {
    text.remove_prefix(2);
    const std::size_t end = std::min(text.find('/'), text.size());
    parts.authority = text.substr(0, end);
    text.remove_prefix(end);
  }
  parts.path = text;
  return parts;
}

/// The host of "user:password@host:port"; an address in brackets keeps them.
std::string_view hostOf(std::string_view authority) {
  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
  if (authority.starts_with('[')) return authority.substr(0, std::min(authority.find(']'), authority.size() - 1) + 1);
  return authority.substr(0, authority.find(':'));
}

/// "[::1]": an address in brackets, the only place where a URL holds them (RFC 2732).
bool isBracketedAddress(std::string_view host) {
  return host.size() > 2 && host.front() == '[' && host.back() == ']' && std::ranges::all_of(host.substr(1, host.size() - 2), [](char c) {
           return isLegalInURL(c) ? std::string_view("/?@").find(c) == std::string_view::npos : c == '%';
         });
}

/// Whether every '[' and ']' of `text` encloses the host's address.
bool bracketsAreInPlace(std::string_view text) {
  const auto brackets = std::ranges::count_if(text, [](char c) { return c == '[' || c == ']'; });
  if (brackets == 0) return true;
  const Parts parts = split(text);
  if (brackets != 2 || !parts.authority) return false;
  const std::string_view host = hostOf(*parts.authority);
  const std::string_view after = parts.authority->substr(static_cast<std::size_t>(host.data() + host.size() - parts.authority->data()));
  return isBracketedAddress(host) && (after.empty() || after[0] == ':');
}

/// Copies a text that may be a URL, with what is beyond ASCII escaped; nullopt when it holds what a URL may not.
std::optional<std::string> escapedURLText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool inFragment = false;
  while (!text.empty()) {
    std::size_t length = 1;
    const char c = text[0];
    if (isLegalInURL(c) || c == '[' || c == ']') {
      out += c;
    } else if (beginsWithEscape(text)) {
      length = 3;
      out += text.substr(0, length);
    } else if (c == '#' && !inFragment) {
      inFragment = true;
      out += c;
    } else if (char32_t character = 0; static_cast<unsigned char>(c) >= 0x80 && (length = utf8Decode(text, character)) > 0) {
      for (const char byte : text.substr(0, length)) appendEscape(out, byte);
    } else {
      return std::nullopt;
    }
    text.remove_prefix(length);
  }
  return out;
}

std::string currentDirectory() {
  const std::unique_ptr<char, decltype(&std::free)> path(getcwd(nullptr, 0), &std::free);
  // A directory that was removed, or lies outside the process's root, has no path.
  return path && path.get()[0] == '/' ? path.get() : "/";
}

bool isFolder(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void removeTrailingSeparators(std::string& path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
}

}  // namespace

std::optional<URL> URL::URLWithString(std::string_view text) {
  auto escaped = escapedURLText(text);
  if (!escaped || !bracketsAreInPlace(*escaped)) return std::nullopt;
  return URL(std::move(*escaped));
}

URL URL::fileURLWithPath(std::string_view path) {
  std::string absolute;
  if (!path.starts_with('/')) {
    absolute = currentDirectory();
    if (absolute != "/" && !path.empty()) absolute += '/';
  }
  absolute += path;
  if (absolute.size() > 1 && absolute.back() == '/' && !isFolder(absolute)) removeTrailingSeparators(absolute);

  std::string text = "file://";
  text.reserve(text.size() + absolute.size());
  for (const char c : absolute) {
    if (isLegalInURL(c) && c != '?') {
      text += c;
    } else {
      appendEscape(text, c);
    }
  }
  return URL(std::move(text));
}

std::string URL::path() const {
  const std::string_view raw = split(text_).path;
  std::string path = raw.find('%') == std::string_view::npos ? std::string(raw) : stringByReplacingPercentEscapes(raw);
  if (path.find('\0') != std::string::npos) return {};
  removeTrailingSeparators(path);
  return path;
}

std::string URL::scheme() const { return std::string(split(text_).scheme); }

bool URL::isFileURL() const { return equalIgnoringASCIICase(split(text_).scheme, "file"); }

std::string URL::host() const {
  std::string_view host = hostOf(split(text_).authority.value_or(std::string_view()));
  if (host.starts_with('[')) host = host.substr(1, host.size() - 2);
  return stringByReplacingPercentEscapes(host);
}

std::optional<std::string> URL::query() const {
  const auto query = split(text_).query;
  return query ? std::optional<std::string>(*query) : std::nullopt;
}

std::optional<std::string> URL::fragment() const {
  const auto fragment = split(text_).fragment;
  return fragment ? std::optional<std::string>(*fragment) : std::nullopt;
}

}  // namespace platform
