#include "platform/xpc/value/Value.h"

#include <fcntl.h>

#include <bit>
#include <cerrno>
#include <system_error>
#include <type_traits>
#include <utility>

#include "platform/foundation/base/Exception.h"

namespace platform::xpc {

namespace {

constexpr std::array<std::string_view, 13> kKindNames = {"null",          "bool",  "int64",     "uint64", "double",
                                                         "date",          "data",  "string",    "uuid",   "file descriptor",
                                                         "shared memory", "array", "dictionary"};

[[noreturn]] void misuse(const std::string& reason) { throw Exception(NSInvalidArgumentException, reason); }

void refuseNul(std::string_view text, const char* what) {
  if (text.find('\0') != std::string_view::npos) misuse(std::string("a message's ") + what + " cannot hold a NUL");
}

FileHandle duplicate(int descriptor) {
  const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) misuse("the descriptor cannot be duplicated: " + std::generic_category().message(errno));
  return FileHandle(copy);
}

}  // namespace

std::string_view kindName(Value::Kind kind) { return kKindNames.at(static_cast<std::size_t>(kind)); }

Value Value::boolean(bool value) { return Value(Representation(value)); }
Value Value::int64(std::int64_t value) { return Value(Representation(value)); }
Value Value::uint64(std::uint64_t value) { return Value(Representation(value)); }
Value Value::real(double value) { return Value(Representation(value)); }
Value Value::date(std::int64_t nanoseconds) { return Value(Representation(DateTag{nanoseconds})); }
Value Value::data(Data bytes) { return Value(Representation(std::make_shared<const Data>(std::move(bytes)))); }
Value Value::uuid(const platform::UUID::Bytes& bytes) { return Value(Representation(bytes)); }

Value Value::string(std::string text) {
  refuseNul(text, "text");
  return Value(Representation(std::make_shared<const std::string>(std::move(text))));
}

Value Value::fileDescriptor(int descriptor) { return fileDescriptor(std::make_shared<const FileHandle>(duplicate(descriptor))); }

Value Value::fileDescriptor(std::shared_ptr<const FileHandle> handle) {
  if (!handle || !handle->isOpen()) misuse("a message cannot hold a closed descriptor");
  return Value(Representation(std::move(handle)));
}

Value Value::sharedMemory(xpc::SharedMemory memory) {
  if (!memory.handle || !memory.handle->isOpen()) misuse("a message cannot hold shared memory without a descriptor");
  return Value(Representation(std::move(memory)));
}

Value Value::array(Array elements) { return Value(Representation(std::make_shared<const Array>(std::move(elements)))); }

Value Value::dictionary(Dictionary entries) {
  for (const auto& [key, value] : entries) refuseNul(key, "key");
  return Value(Representation(std::make_shared<const Dictionary>(std::move(entries))));
}

template <class T>
const T& Value::get() const {
  if (const T* value = std::get_if<T>(&value_)) return *value;
  misuse("a value of the kind " + std::string(kindName(kind())) + " was asked for what another kind holds");
}

bool Value::boolValue() const { return get<bool>(); }
std::int64_t Value::int64Value() const { return get<std::int64_t>(); }
std::uint64_t Value::uint64Value() const { return get<std::uint64_t>(); }
double Value::doubleValue() const { return get<double>(); }
std::int64_t Value::dateValue() const { return get<DateTag>().nanoseconds; }
const Data& Value::dataValue() const { return *get<Shared<Data>>(); }
const std::string& Value::stringValue() const { return *get<Shared<std::string>>(); }
const platform::UUID::Bytes& Value::uuidValue() const { return get<platform::UUID::Bytes>(); }
const std::shared_ptr<const FileHandle>& Value::fileDescriptorValue() const { return get<Shared<FileHandle>>(); }
FileHandle Value::duplicateFileDescriptor() const { return duplicate(fileDescriptorValue()->fileDescriptor()); }
const xpc::SharedMemory& Value::sharedMemoryValue() const { return get<xpc::SharedMemory>(); }
const Value::Array& Value::arrayValue() const { return *get<Shared<Array>>(); }
const Value::Dictionary& Value::dictionaryValue() const { return *get<Shared<Dictionary>>(); }

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
