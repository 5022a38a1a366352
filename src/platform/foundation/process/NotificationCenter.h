#pragma once

#include <any>
#include <functional>
#include <memory>
#include <string>

namespace platform {

/// A posted notification: its name and the object that it is about (any value; usually a shared pointer).
struct Notification {
  std::string name;
  std::any object;
};

/// How a notification centre hands a block to another thread: runs it there and returns after it ran (at once when already there). A queue
/// offers one; see concurrency/SynchronousExecutor.h.
using SynchronousExecutor = std::function<void(const std::function<void()>&)>;

/// Delivers notifications by name within the process.
/// Threads: any thread may observe, post and remove. A post returns after every observer's block ran, in the order of registration; a block
/// may post, observe and remove itself.
class NotificationCenter {
 public:
  /// Ends the observation when destroyed or when `remove` is called; `detach` leaves it in force for the life of the centre.
  class Observation {
   public:
    struct Impl;
    Observation() = default;
    explicit Observation(std::shared_ptr<Impl> impl);
    Observation(Observation&&) noexcept = default;
    Observation& operator=(Observation&& other) noexcept;
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;
    ~Observation();
    void remove();
    void detach();

   private:
    std::shared_ptr<Impl> impl_;
  };

  NotificationCenter();
  ~NotificationCenter();
  NotificationCenter(const NotificationCenter&) = delete;
  NotificationCenter& operator=(const NotificationCenter&) = delete;

  /// The process's own centre; never destroyed.
  static NotificationCenter& defaultCenter();

  /// Calls `block` for each notification of `name`, on the poster's thread or, when `queue` is given, through it.
  [[nodiscard]] Observation addObserver(std::string name, SynchronousExecutor queue, std::function<void(const Notification&)> block);
  void postNotification(const Notification& notification);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace platform
