#pragma once

#include <cstdint>

// Internal to the channel: how the kinds are written. The numbers are the protocol's and never change; docs/protocol.md lists them.
namespace platform::xpc {

enum class WireTag : std::uint8_t {
  Null = 0,
  Bool = 1,
  Int64 = 2,
  UInt64 = 3,
  Double = 4,
  Date = 5,
  Data = 6,
  String = 7,
  UUID = 8,
  FileDescriptor = 9,
  SharedMemory = 10,
  Array = 11,
  Dictionary = 12,
};

}  // namespace platform::xpc
