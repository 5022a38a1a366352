#pragma once

#include <atomic>
#include <string>
#include <thread>

#include "tests/xpc/InProcessService.h"

namespace kestrine::test {

/// An honest client of a service whose other clients are not: asks, waits for the answer, and asks again, on a thread of its own, until it
/// is told to end. It must be the service's first peer, and the service made with `answersTheFirst`.
class Bystander {
 public:
  /// For InProcessService: the first peer's messages are sent back to it, the others' go to their event logs.
  static std::function<void(InProcessService::Peer&)> answersTheFirst();

  explicit Bystander(InProcessService& service);
  ~Bystander();
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

  /// Waits for as many more answers as show that it is served now. False when one was missing or wrong.
  [[nodiscard]] bool isServed() const;

 private:
  void ask();

  platform::FileHandle socket_;
  std::atomic<bool> over_{false};
  std::atomic<bool> failed_{false};
  std::atomic<int> answered_{0};
  std::thread thread_;
};

/// Threads and descriptors of this process, to be compared with what they were before.
class Footprint {
 public:
  Footprint();
  /// Waits until there is no descriptor more than before, and no thread beyond those that a pool parks.
  [[nodiscard]] bool isBack() const;
  /// Before and now, for people.
  [[nodiscard]] std::string description() const;

 private:
  int descriptors_;
  int threads_;
};

int countOwnThreads();

}  // namespace kestrine::test
