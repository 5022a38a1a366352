#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace platform {

/// A uniform resource locator, kept as the text it was made from (RFC 1808 as the platform reads it). A value.
class URL {
 public:
  /// Reads `text` as a URL exactly as it stands. A blank or another ASCII character that a URL may not hold, or a '%' that is not
  /// followed by two hexadecimal digits, makes no URL (nullopt). Text beyond ASCII is percent-encoded as UTF-8. A text without a scheme is
  /// a relative URL. The empty text is a URL. A second '#', and '[' or ']' other than around the address of a host, make no URL.
  static std::optional<URL> URLWithString(std::string_view text);
  /// The file URL of `path` (bytes; what a URL may not hold is percent-encoded). A relative path is taken from the current directory.
  /// A trailing separator is kept in the text only where the path names an existing folder, as the platform does; `path()` never has it.
  static URL fileURLWithPath(std::string_view path);

  /// The path part, percent escapes resolved, without a trailing separator (except for "/"), without query and fragment. Empty when there
  /// is none, as in "mailto:somebody". Escapes are resolved to bytes, whether or not these are UTF-8, since a path is bytes; a path with
  /// "%00" can name no file and is empty, too, rather than cut short.
  [[nodiscard]] std::string path() const;
  /// The whole text.
  [[nodiscard]] const std::string& absoluteString() const noexcept { return text_; }
  /// As it is written, without ':'; empty when there is none.
  [[nodiscard]] std::string scheme() const;
  /// Without user, port and the brackets of an address, percent escapes resolved; empty when there is none.
  [[nodiscard]] std::string host() const;
  /// Without '?'; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> query() const;
  /// Without '#'; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> fragment() const;
  /// Whether the scheme is "file", in upper or lower case.
  [[nodiscard]] bool isFileURL() const;
  /// What "%@" prints: the text.
  [[nodiscard]] std::string description() const { return text_; }

  friend bool operator==(const URL&, const URL&) = default;

 private:
  explicit URL(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

}  // namespace platform
