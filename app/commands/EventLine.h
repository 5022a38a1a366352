#pragma once

#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/fsevents/event/FSEventStreamTypes.h"
#include "platform/fsevents/status/LossNotices.h"

namespace kestrine {

/// Writes events, and what is lost and found again, as lines of text, for `kestrine events`. Written by hand and without an allocation per
/// event, since a burst brings hundreds of thousands of them.
/// Threads: one at a time.
class EventLineWriter {
 public:
  explicit EventLineWriter(bool json) : json_(json) {}

  /// Appends one line. JSON: {"id": 7, "flags": 65792, "names": ["ItemCreated", "ItemIsFile"], "path": "/a/b"}, with "path_hex" (two digits
  /// a byte) instead of "path" where the bytes are not UTF-8. Text: identifier, names joined by commas ("-" for none) and the path with
  /// control characters, '\' and bytes that are not UTF-8 as escapes.
  void append(std::string& text, const platform::FSEvent& event);
  /// The same for a notice. JSON: {"loss": {"path": "/a", "reason": "...", "remedy": "..."}} when a loss begins and {"recovered": {"path":
  /// "/a"}} when it is over, with "path_hex" as above. Text: "lost /a: reason; remedy" and "recovered /a".
  void append(std::string& text, const platform::fsevents::LossNotice& notice) const;

 private:
  const std::string& names(platform::FSEventStreamEventFlags flags);

  bool json_;
  // Of the many possible combinations of flags a stream sees a few dozen.
  std::unordered_map<platform::FSEventStreamEventFlags, std::string> names_;
};

/// Appends `text` as a JSON string (RFC 8259, section 7), with the quotes. False, with nothing appended, when it is not UTF-8.
bool appendJsonString(std::string& out, std::string_view text);

}  // namespace kestrine
