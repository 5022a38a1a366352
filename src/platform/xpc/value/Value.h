#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/foundation/base/FileHandle.h"
#include "platform/foundation/value/Object.h"
#include "platform/foundation/value/UUID.h"

namespace platform::xpc {

/// A region of memory that two processes share: a descriptor that can be mapped, and the number of bytes that belong to the region. The
/// receiver checks the file's size itself before mapping, since a sender may shrink it (see memfd_create(2) on seals).
struct SharedMemory {
  std::shared_ptr<const FileHandle> handle;
  std::uint64_t size = 0;
  friend bool operator==(const SharedMemory&, const SharedMemory&) = default;
};

/// A typed value of the local channel: what messages are made of.
///
/// Immutable, cheap to copy (the large kinds share their representation) and compared by value: kinds differ even where numbers agree,
/// doubles compare by their bits, descriptors and shared memory are equal when they are the same handle. A value is made by the function of
/// its kind, so that no number silently becomes another kind. Asking for another kind than the value has throws
/// Exception(NSInvalidArgumentException).
///
/// Threads: a value like any other; copies may be used on different threads at once.
class Value {
 public:
  /// The numbers are the protocol's (docs/protocol.md) and never change: they are what stands before a value on the wire.
  enum class Kind : std::uint8_t {
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
  using Array = std::vector<Value>;
  /// Keys are text that ends at its first NUL on the wire, so a key that holds one is refused.
  using Dictionary = std::map<std::string, Value, std::less<>>;

  /// Null.
  Value() = default;
  static Value boolean(bool value);
  static Value int64(std::int64_t value);
  static Value uint64(std::uint64_t value);
  static Value real(double value);
  /// Nanoseconds since 1970-01-01 00:00:00 UTC.
  static Value date(std::int64_t nanoseconds);
  static Value data(Data bytes);
  /// Bytes without a NUL (throws otherwise); usually UTF-8, which is not checked here.
  static Value string(std::string text);
  static Value uuid(const platform::UUID::Bytes& bytes);
  /// A duplicate of `descriptor`, which stays the caller's. Throws when it cannot be duplicated.
  static Value fileDescriptor(int descriptor);
  /// Shares the handle (throws when it is empty).
  static Value fileDescriptor(std::shared_ptr<const FileHandle> handle);
  static Value sharedMemory(xpc::SharedMemory memory);
  static Value array(Array elements);
  static Value dictionary(Dictionary entries);

  [[nodiscard]] Kind kind() const noexcept { return static_cast<Kind>(value_.index()); }
  [[nodiscard]] bool isNull() const noexcept { return kind() == Kind::Null; }
  [[nodiscard]] bool isDictionary() const noexcept { return kind() == Kind::Dictionary; }

  [[nodiscard]] bool boolValue() const;
  [[nodiscard]] std::int64_t int64Value() const;
  [[nodiscard]] std::uint64_t uint64Value() const;
  [[nodiscard]] double doubleValue() const;
  [[nodiscard]] std::int64_t dateValue() const;
  // References stay valid while this value or a copy of it lives.
  [[nodiscard]] const Data& dataValue() const;
  [[nodiscard]] const std::string& stringValue() const;
  [[nodiscard]] const platform::UUID::Bytes& uuidValue() const;
  [[nodiscard]] const std::shared_ptr<const FileHandle>& fileDescriptorValue() const;
  /// A new descriptor for the same open file, close-on-exec. Throws Exception(NSInvalidArgumentException) when the process has no
  /// descriptor left.
  [[nodiscard]] FileHandle duplicateFileDescriptor() const;
  [[nodiscard]] const xpc::SharedMemory& sharedMemoryValue() const;
  [[nodiscard]] const Array& arrayValue() const;
  [[nodiscard]] const Dictionary& dictionaryValue() const;

  /// The value under `key` of a dictionary; nullptr when absent.
  [[nodiscard]] const Value* find(std::string_view key) const;

  friend bool operator==(const Value& a, const Value& b);

 private:
  template <class T>
  using Shared = std::shared_ptr<const T>;
  struct NullTag {};
  struct DateTag {
    std::int64_t nanoseconds;
  };
  /// What each kind holds, at the place of its number.
  using Representation = std::variant<NullTag, bool, std::int64_t, std::uint64_t, double, DateTag, Shared<Data>, Shared<std::string>,
                                      platform::UUID::Bytes, Shared<FileHandle>, xpc::SharedMemory, Shared<Array>, Shared<Dictionary>>;
  explicit Value(Representation value) : value_(std::move(value)) {}
  template <Kind Wanted, class T>
  static Value make(T content);
  template <Kind Wanted>
  [[nodiscard]] const auto& get() const;

  Representation value_;
};

/// The kind's name for people: "dictionary", "int64".
std::string_view kindName(Value::Kind kind);

}  // namespace platform::xpc
