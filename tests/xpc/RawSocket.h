#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/base/FileHandle.h"

namespace kestrine::test {

// A client of the channel written from its documentation, byte by byte, that shares nothing with the implementation and may break every
// rule.

/// The kinds of frames.
inline constexpr int kHello = 1;
inline constexpr int kStatusRequest = 2;
inline constexpr int kStatusReply = 3;
inline constexpr int kMessage = 4;

std::string little32(std::uint64_t value);
std::string little64(std::uint64_t value);
/// A string value; a dictionary value of string values; each as encoded bytes.
std::string encodedText(const std::string& text);
std::string encodedDictionary(const std::vector<std::pair<std::string, std::string>>& entries);
std::string frame(int kind, const std::string& payload = {}, int descriptors = 0);
/// The message {"command": text} as a frame.
std::string commandFrame(const std::string& text);

/// So many descriptors of /dev/null.
std::vector<platform::FileHandle> nullDescriptors(std::size_t count);
/// Two connected stream sockets; throws when there are none.
std::pair<platform::FileHandle, platform::FileHandle> socketPair();
/// A listening stream socket at `path`, and a socket connected to one.
platform::FileHandle listenAt(const std::string& path);
platform::FileHandle connectTo(const std::string& path);

/// Sends all of it, blocking; the descriptors go with the first byte. False when the other end has closed.
bool sendBytes(const platform::FileHandle& socket, const std::string& bytes, const std::vector<int>& descriptors = {},
               bool credentials = true);
/// Reads exactly `size` bytes; less when the stream ends or nothing comes for a minute.
std::string readBytes(const platform::FileHandle& socket, std::size_t size);
struct RawFrame {
  int kind = 0;
  std::string payload;
};
/// The next frame; nothing when the stream ends.
std::optional<RawFrame> readFrame(const platform::FileHandle& socket);
/// Whether the other end closes, whatever it sends before; waits for it.
bool isClosed(const platform::FileHandle& socket);

}  // namespace kestrine::test
