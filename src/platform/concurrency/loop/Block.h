#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace platform {

/// What a loop, a queue or a thread runs once: anything that can be called without arguments, and that may own what can only be moved:
///
///   loop.perform([socket = std::move(socket)]() mutable { use(std::move(socket)); });
///
/// Can be moved and not copied. Made from null or from an empty std::function it is empty, and does nothing when it is called. Used by one
/// thread at a time.
class Block {
 public:
  Block() = default;
  Block(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): where a std::function may stand
  template <class Call>
  requires(!std::same_as<std::remove_cvref_t<Call>, Block> && std::invocable<std::decay_t<Call>&>)
      // Stands where a std::function may, and by what it requires leaves the moving of a Block alone.
      // NOLINTNEXTLINE(google-explicit-constructor,bugprone-forwarding-reference-overload): both are meant
      Block(Call&& call) {
    if constexpr (std::is_constructible_v<bool, const std::decay_t<Call>&>) {
      if (!static_cast<bool>(call)) return;
    }
    held_ = std::make_unique<Holding<std::decay_t<Call>>>(std::in_place, std::forward<Call>(call));
  }

  explicit operator bool() const { return held_ != nullptr; }
  void operator()() {
    if (held_) held_->run();
  }

 private:
  struct Held {
    Held() = default;
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    virtual ~Held() = default;
    virtual void run() = 0;
  };
  template <class Call>
  struct Holding final : Held {
    template <class From>
    Holding(std::in_place_t, From&& from) : call(std::forward<From>(from)) {}
    void run() override { std::invoke(call); }
    Call call;
  };

  std::unique_ptr<Held> held_;
};

}  // namespace platform
