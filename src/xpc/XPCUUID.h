#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "platform/foundation/value/Object.h"
#include "platform/foundation/value/UUID.h"
#include "platform/xpc/value/Value.h"

namespace kestrine {

/// A UUID on its way through messages: what a uuid value of the channel becomes. In a platform::Object it is the kind UUID.
/// Immutable; a value. Threads: any.
class XPCUUID {
 public:
  /// A new random one.
  static XPCUUID uuid();
  /// The same 16 bytes in the same order. The kind is not looked at here; the value's own accessor throws
  /// platform::Exception(NSInvalidArgumentException) when it is no uuid.
  static XPCUUID uuidWithXPCObject(const platform::xpc::Value& object);

  explicit XPCUUID(const platform::UUID& UUIDRef) : uuidRef_(UUIDRef) {}

  [[nodiscard]] platform::xpc::Value newXPCObject() const;
  /// 36 characters, hexadecimal in upper case with hyphens.
  [[nodiscard]] std::string string() const;
  /// "<XPCUUID 9E7F...>": the class's name and `string`.
  [[nodiscard]] std::string description() const;
  /// Whether the other one's description is the same text, of whatever class it is.
  template <class Other>
  [[nodiscard]] bool isEqual(const Other& other) const {
    return description() == other.description();
  }
  /// The same for an object; one that holds a UUID is described as an XPCUUID.
  [[nodiscard]] bool isEqual(const platform::Object& other) const;
  /// Of the description, so that what is equal hashes alike.
  [[nodiscard]] std::size_t hash() const { return std::hash<std::string>()(description()); }
  [[nodiscard]] const platform::UUID& uuidRef() const noexcept { return uuidRef_; }

  friend bool operator==(const XPCUUID& a, const XPCUUID& b) { return a.isEqual(b); }

 private:
  platform::UUID uuidRef_;
};

}  // namespace kestrine
