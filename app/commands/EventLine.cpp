#include "app/commands/EventLine.h"

#include <fmt/format.h>

#include <cstdint>
#include <utility>

#include "platform/foundation/text/ASCII.h"
#include "platform/foundation/text/UTF8.h"

namespace kestrine {

namespace {

/// The length of the character at the beginning of `text`; 0 when that is not UTF-8.
std::size_t characterLength(std::string_view text) {
  char32_t character{};
  return platform::utf8Decode(text, character);
}

bool isPlain(unsigned char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; }

/// How many bytes at the beginning of `text` stand for themselves in either form.
std::size_t plainPrefix(std::string_view text) {
  std::size_t length = 0;
  while (length < text.size() && isPlain(static_cast<unsigned char>(text[length]))) ++length;
  return length;
}

void appendHexadecimal(std::string& out, unsigned char byte) {
  out += platform::kLowerHexDigits[byte >> 4U];
  out += platform::kLowerHexDigits[byte & 0xfU];
}

void appendJsonEscape(std::string& out, char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      out += "\\u00";
      appendHexadecimal(out, static_cast<unsigned char>(c));
  }
}

void appendReadable(std::string& out, std::string_view text) {
  while (!text.empty()) {
    const std::size_t plain = plainPrefix(text);
    out.append(text, 0, plain);
    text.remove_prefix(plain);
    if (text.empty()) return;
    const std::size_t length = characterLength(text);
    if (length > 1 || text[0] == '"') {
      out.append(text, 0, length);
    } else if (text[0] == '\\') {
      out += "\\\\";
    } else {
      out += "\\x";
      appendHexadecimal(out, static_cast<unsigned char>(text[0]));
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
}

void appendNumber(std::string& out, std::uint64_t number) {
  const fmt::format_int digits(number);
  out.append(digits.data(), digits.size());
}

/// "path": "...", or "path_hex": "..." where the bytes are not UTF-8.
void appendJsonPath(std::string& out, std::string_view path) {
  const std::size_t before = out.size();
  out += "\"path\": ";
  if (appendJsonString(out, path)) return;
  out.resize(before);
  out += "\"path_hex\": \"";
  for (const char c : path) appendHexadecimal(out, static_cast<unsigned char>(c));
  out += '"';
}

/// For texts that are meant to be UTF-8: one that is not still makes valid JSON.
void appendJsonText(std::string& out, std::string_view text) {
  if (appendJsonString(out, text)) return;
  std::string readable;
  appendReadable(readable, text);
  appendJsonString(out, readable);
}

}  // namespace

bool appendJsonString(std::string& out, std::string_view text) {
  const std::size_t before = out.size();
  out += '"';
  while (!text.empty()) {
    const std::size_t plain = plainPrefix(text);
    out.append(text, 0, plain);
    text.remove_prefix(plain);
    if (text.empty()) break;
    const std::size_t length = characterLength(text);
    if (length == 0) {
      out.resize(before);
      return false;
    }
    if (length > 1) {
      out.append(text, 0, length);
    } else {
      appendJsonEscape(out, text[0]);
    }
    text.remove_prefix(length);
  }
  out += '"';
  return true;
}

const std::string& EventLineWriter::names(platform::FSEventStreamEventFlags flags) {
  const auto [entry, isNew] = names_.try_emplace(flags);
  std::string& text = entry->second;
  if (!isNew) return text;
  for (const std::string& name : platform::FSEventStreamEventFlagNames(flags)) {
    if (json_) {
      text += text.empty() ? "\"" : ", \"";
      text += name + '"';
    } else {
      text += (text.empty() ? "" : ",") + name;
    }
  }
  if (!json_ && text.empty()) text = "-";
  return text;
}

void EventLineWriter::append(std::string& text, const platform::FSEvent& event) {
  if (!json_) {
    appendNumber(text, event.id);
    text += ' ';
    text += names(event.flags);
    text += ' ';
    appendReadable(text, event.path);
    text += '\n';
    return;
  }
  text += "{\"id\": ";
  appendNumber(text, event.id);
  text += ", \"flags\": ";
  appendNumber(text, event.flags);
  text += ", \"names\": [";
  text += names(event.flags);
  text += "], ";
  appendJsonPath(text, event.path);
  text += "}\n";
}

void EventLineWriter::append(std::string& text, const platform::fsevents::LossNotice& notice) const {
  if (!json_) {
    text += notice.begins ? "lost " : "recovered ";
    appendReadable(text, notice.path);
    for (const auto& [before, part] : {std::pair<std::string_view, std::string_view>(": ", notice.reason), {"; ", notice.remedy}}) {
      if (!notice.begins || part.empty()) continue;
      text += before;
      appendReadable(text, part);
    }
    text += '\n';
    return;
  }
  text += notice.begins ? "{\"loss\": {" : "{\"recovered\": {";
  appendJsonPath(text, notice.path);
  if (notice.begins) {
    text += ", \"reason\": ";
    appendJsonText(text, notice.reason);
    text += ", \"remedy\": ";
    appendJsonText(text, notice.remedy);
  }
  text += "}}\n";
}

}  // namespace kestrine
