#pragma once

#include <string>
#include <string_view>

namespace kestrine {

/// Standard output for commands that print while things happen: every `write` reaches the reader before it returns.
///
/// A reader that has gone closes it, and so does one that takes nothing for two seconds once the command has been told to end: further text
/// is dropped.
/// Threads: one at a time.
class Output {
 public:
  /// `descriptor` is written to; `interrupt` (not owned, -1 for none) becomes readable when the command is told to end.
  /// One that cannot be written to is closed from the beginning.
  explicit Output(int descriptor, int interrupt = -1);

  /// False when it is closed, or has been closed by this write.
  bool write(std::string_view text);

  /// The command has been told to end, by a signal that `interrupt` does not show any more.
  void hurry() { isHurried_ = true; }

  [[nodiscard]] bool isClosed() const { return state_ != State::Open; }
  /// Closed because the reader has gone: a quiet end.
  [[nodiscard]] bool readerHasGone() const { return state_ == State::ReaderGone; }
  /// Why it is closed, for people.
  [[nodiscard]] std::string reason() const;

 private:
  enum class State { Open, ReaderGone, ReaderStuck, Failed };
  bool waitUntilWritable();

  int descriptor_;
  int interrupt_;
  bool isHurried_ = false;
  int error_ = 0;
  State state_ = State::Open;
};

}  // namespace kestrine
