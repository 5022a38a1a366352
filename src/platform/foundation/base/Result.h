#pragma once

#include <utility>
#include <variant>

namespace platform {

/// What a function that can fail for reasons outside the program hands out: what was asked for, or why it was not to be had. A value.
///
///   const Result<FileHandle, LaunchError> socket = connect(name);
///   if (!socket) return socket.error();
template <class Value, class Failure>
class [[nodiscard]] Result {
 public:
  Result(Value value) : state_(std::in_place_index<0>, std::move(value)) {}        // NOLINT(google-explicit-constructor): return value;
  Result(Failure failure) : state_(std::in_place_index<1>, std::move(failure)) {}  // NOLINT(google-explicit-constructor): return error;

  [[nodiscard]] bool isOk() const noexcept { return state_.index() == 0; }
  explicit operator bool() const noexcept { return isOk(); }

  /// Only of a success; throws std::bad_variant_access else.
  [[nodiscard]] Value& value() & { return std::get<0>(state_); }
  [[nodiscard]] const Value& value() const& { return std::get<0>(state_); }
  [[nodiscard]] Value&& value() && { return std::get<0>(std::move(state_)); }
  Value& operator*() & { return value(); }
  const Value& operator*() const& { return value(); }
  Value&& operator*() && { return std::move(*this).value(); }
  Value* operator->() { return &value(); }
  const Value* operator->() const { return &value(); }

  /// Only of a failure; throws std::bad_variant_access else.
  [[nodiscard]] const Failure& error() const& { return std::get<1>(state_); }
  [[nodiscard]] Failure&& error() && { return std::get<1>(std::move(state_)); }

 private:
  std::variant<Value, Failure> state_;
};

}  // namespace platform
