#include "platform/xpc/value/Value.h"

#include <fcntl.h>

#include <bit>
#include <cerrno>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/foundation/base/Exception.h"
#include "platform/foundation/base/SystemError.h"

namespace platform::xpc {

namespace {

/// At the place of each kind's number.
constexpr auto kKindNames = std::to_array<std::string_view>({"null", "bool", "int64", "uint64", "double", "date", "data", "string", "uuid",
                                                             "file descriptor", "shared memory", "array", "dictionary"});

[[noreturn]] void misuse(const std::string& reason) { throw Exception(NSInvalidArgumentException, reason); }

void refuseNul(std::string_view text, const char* what) {
  if (text.find('\0') != std::string_view::npos) misuse(std::string("a message's ") + what + " cannot hold a NUL");
}

FileHandle duplicate(int descriptor) {
  const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) misuse("the descriptor cannot be duplicated: " + errnoText(errno));
  return FileHandle(copy);
}

}  // namespace

template <Value::Kind Wanted, class T>
Value Value::make(T content) {
  constexpr auto kPlace = static_cast<std::size_t>(Wanted);
  static_assert(std::variant_size_v<Representation> == kKindNames.size(), "a kind has no representation or no name");
  static_assert(static_cast<std::size_t>(Kind::Dictionary) + 1 == kKindNames.size(), "the last kind has another number");
  static_assert(std::is_same_v<T, std::variant_alternative_t<kPlace, Representation>>, "a kind's number leads to what another kind holds");
  return Value(Representation(std::in_place_index<kPlace>, std::move(content)));
}

template <Value::Kind Wanted>
const auto& Value::get() const {
  if (const auto* value = std::get_if<static_cast<std::size_t>(Wanted)>(&value_)) return *value;
  misuse("a value of the kind " + std::string(kindName(kind())) + " was asked for what another kind holds");
}

std::string_view kindName(Value::Kind kind) { return kKindNames.at(static_cast<std::size_t>(kind)); }

Value Value::boolean(bool value) { return make<Kind::Bool>(value); }
Value Value::int64(std::int64_t value) { return make<Kind::Int64>(value); }
Value Value::uint64(std::uint64_t value) { return make<Kind::UInt64>(value); }
Value Value::real(double value) { return make<Kind::Double>(value); }
Value Value::date(std::int64_t nanoseconds) { return make<Kind::Date>(DateTag{nanoseconds}); }
Value Value::data(Data bytes) { return make<Kind::Data>(std::make_shared<const Data>(std::move(bytes))); }
Value Value::uuid(const platform::UUID::Bytes& bytes) { return make<Kind::UUID>(bytes); }

Value Value::string(std::string text) {
  refuseNul(text, "text");
  return make<Kind::String>(std::make_shared<const std::string>(std::move(text)));
}

Value Value::fileDescriptor(int descriptor) { return fileDescriptor(std::make_shared<const FileHandle>(duplicate(descriptor))); }

Value Value::fileDescriptor(std::shared_ptr<const FileHandle> handle) {
  if (!handle || !handle->isOpen()) misuse("a message cannot hold a closed descriptor");
  return make<Kind::FileDescriptor>(std::move(handle));
}

Value Value::sharedMemory(xpc::SharedMemory memory) {
  if (!memory.handle || !memory.handle->isOpen()) misuse("a message cannot hold shared memory without a descriptor");
  return make<Kind::SharedMemory>(std::move(memory));
}

Value Value::array(Array elements) { return make<Kind::Array>(std::make_shared<const Array>(std::move(elements))); }

Value Value::dictionary(Dictionary entries) {
  for (const auto& [key, value] : entries) refuseNul(key, "key");
  return make<Kind::Dictionary>(std::make_shared<const Dictionary>(std::move(entries)));
}

bool Value::boolValue() const { return get<Kind::Bool>(); }
std::int64_t Value::int64Value() const { return get<Kind::Int64>(); }
std::uint64_t Value::uint64Value() const { return get<Kind::UInt64>(); }
double Value::doubleValue() const { return get<Kind::Double>(); }
std::int64_t Value::dateValue() const { return get<Kind::Date>().nanoseconds; }
const Data& Value::dataValue() const { return *get<Kind::Data>(); }
const std::string& Value::stringValue() const { return *get<Kind::String>(); }
const platform::UUID::Bytes& Value::uuidValue() const { return get<Kind::UUID>(); }
const std::shared_ptr<const FileHandle>& Value::fileDescriptorValue() const { return get<Kind::FileDescriptor>(); }
FileHandle Value::duplicateFileDescriptor() const { return duplicate(fileDescriptorValue()->fileDescriptor()); }
const xpc::SharedMemory& Value::sharedMemoryValue() const { return get<Kind::SharedMemory>(); }
const Value::Array& Value::arrayValue() const { return *get<Kind::Array>(); }
const Value::Dictionary& Value::dictionaryValue() const { return *get<Kind::Dictionary>(); }

const Value* Value::find(std::string_view key) const {
  const Dictionary& entries = dictionaryValue();
  const auto found = entries.find(key);
  return found == entries.end() ? nullptr : &found->second;
}

bool operator==(const Value& a, const Value& b) {
  if (a.value_.index() != b.value_.index()) return false;
  return std::visit(
      [&b](const auto& left) {
        using T = std::decay_t<decltype(left)>;
        const T& right = std::get<T>(b.value_);
        if constexpr (std::is_same_v<T, Value::NullTag>) {
          return true;
        } else if constexpr (std::is_same_v<T, Value::DateTag>) {
          return left.nanoseconds == right.nanoseconds;
        } else if constexpr (std::is_same_v<T, double>) {
          return std::bit_cast<std::uint64_t>(left) == std::bit_cast<std::uint64_t>(right);
        } else if constexpr (std::is_same_v<T, Value::Shared<FileHandle>>) {
          return left == right;
        } else if constexpr (requires { *left == *right; }) {
          return left == right || *left == *right;
        } else {
          return left == right;
        }
      },
      a.value_);
}

}  // namespace platform::xpc
