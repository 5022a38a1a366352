#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "platform/foundation/base/FileHandle.h"

// What a child made by fork(2) finds of its parent's store. Its threads are gone, and what they held stays held for ever; so nothing of it
// is used again: the child makes everything anew with its first use, and the descriptors that hold locks are closed in it at once.
//
// A process made by another call than fork (clone(2) itself, vfork) is taken for one that is about to run another program.
namespace platform {

/// Another number in a child than in its parent. Any thread; costs a load.
unsigned forkGeneration() noexcept;

/// Keeps what nobody may use or destroy any more where a leak checker finds it. Any thread.
void keepForEver(const void* forgotten);

/// A descriptor that no child gets. Threads: a value of one thread.
class UnsharedDescriptor {
 public:
  /// Owns what `open` returns, which may be called several times. Not open, with errno, when that was not.
  explicit UnsharedDescriptor(const std::function<FileHandle()>& open);
  UnsharedDescriptor(UnsharedDescriptor&& other) noexcept;
  UnsharedDescriptor& operator=(UnsharedDescriptor&& other) noexcept;
  UnsharedDescriptor(const UnsharedDescriptor&) = delete;
  UnsharedDescriptor& operator=(const UnsharedDescriptor&) = delete;
  ~UnsharedDescriptor() { close(); }

  [[nodiscard]] bool isOpen() const noexcept { return file_.isOpen(); }
  [[nodiscard]] int descriptor() const noexcept { return file_.fileDescriptor(); }
  /// False in a child: it is closed there, and its number may be somebody else's.
  [[nodiscard]] bool isOfThisProcess() const noexcept { return generation_ == forkGeneration(); }

  struct Slot;

 private:
  void close() noexcept;

  FileHandle file_;
  Slot* slot_ = nullptr;
  unsigned generation_ = 0;
};

/// One `Value` for each process: made with its first use, and anew in a child, which leaves its parent's as it is. Any thread.
template <class Value>
class PerProcess {
 public:
  constexpr PerProcess() = default;
  PerProcess(const PerProcess&) = delete;
  PerProcess& operator=(const PerProcess&) = delete;
  /// Does not destroy the value: what is shared by the whole process lives for ever.
  ~PerProcess() = default;
  /// Does, unless it is a parent's.
  void destroy() {
    const Held* held = held_.exchange(nullptr);
    if (held == nullptr) return;
    if (held->generation == forkGeneration()) {
      delete held;
    } else {
      keepForEver(held);
    }
  }

  /// `make` returns a new Value, which is owned here.
  template <class Make>
  Value& get(const Make& make) {
    Held* held = held_.load(std::memory_order_acquire);
    const unsigned generation = forkGeneration();
    if (held != nullptr && held->generation == generation) return *held->value;
    auto* mine = new Held{generation, make()};
    if (!held_.compare_exchange_strong(held, mine)) {
      delete mine;
      return *held->value;
    }
    if (held != nullptr) keepForEver(held);
    return *mine->value;
  }

 private:
  struct Held {
    const unsigned generation;
    const std::unique_ptr<Value> value;
  };
  std::atomic<Held*> held_ = nullptr;
};

}  // namespace platform
