#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace platform::network {

/// Undoes the content coding of one body (RFC 9110, section 8.4.1): gzip, and deflate with or without its wrapper. libcurl could do it,
/// too, but takes a stream that ends early for a whole one. One thread at a time.
class ContentDecoder {
 public:
  enum class Step {
    /// A piece is there; there may be more without more input.
    Piece,
    /// All of the input was taken.
    Hungry,
    /// It is no such stream, or goes on behind its end.
    Broken,
  };

  /// By the body's Content-Encoding; nothing for a body that is not encoded.
  static std::unique_ptr<ContentDecoder> make(std::string_view contentEncoding);
  ~ContentDecoder();
  ContentDecoder(const ContentDecoder&) = delete;
  ContentDecoder& operator=(const ContentDecoder&) = delete;

  /// Takes from the beginning of `input`, which becomes shorter, what makes a piece.
  Step next(std::span<const char>& input);
  /// What `next` has made; until its next call.
  [[nodiscard]] std::span<const char> piece() const;
  /// Whether the stream has come to its end. True also before its first byte: a body may be left out.
  [[nodiscard]] bool isAtEnd() const;

 private:
  struct Stream;
  explicit ContentDecoder(std::unique_ptr<Stream> stream);
  const std::unique_ptr<Stream> stream_;
};

}  // namespace platform::network
