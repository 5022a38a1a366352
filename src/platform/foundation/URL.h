#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// A uniform resource locator, kept as the text it was made from (RFC 1808 as the platform reads it). A value.
class URL {
 public:
  /// Reads `text` as a URL exactly as it stands. A blank or another ASCII character that a URL may not hold, or a '%' that is not
  /// followed by two hexadecimal digits, makes no URL (nullopt). Text beyond ASCII is percent-encoded as UTF-8. A text without a scheme is
  /// a relative URL. The empty text is a URL.
  static std::optional<URL> URLWithString(std::string_view text);
  /// The file URL of `path` (bytes; what a URL may not hold is percent-encoded). A relative path is taken from the current directory.
  /// A trailing separator is kept in the text only where the path names an existing folder, as the platform does; `path()` never has it.
  static URL fileURLWithPath(std::string_view path);

  /// The path part, percent escapes resolved, without a trailing separator (except for "/"), without query and fragment. Empty when there is none.
  [[nodiscard]] std::string path() const;
  /// The whole text.
  [[nodiscard]] const std::string& absoluteString() const noexcept { return text_; }
  /// Empty when there is none.
  [[nodiscard]] std::string scheme() const;
  [[nodiscard]] std::string host() const;
  /// Without '?'; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> query() const;
  /// Without '#'; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> fragment() const;
  [[nodiscard]] bool isFileURL() const { return scheme() == "file"; }
  /// What "%@" prints: the text.
  [[nodiscard]] std::string description() const { return text_; }

  friend bool operator==(const URL&, const URL&) = default;

 private:
  explicit URL(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

}  // namespace platform
