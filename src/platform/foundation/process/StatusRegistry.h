#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/foundation/value/Object.h"

namespace platform {

/// What a process is doing, for people who ask from outside: each living part registers a section and a function that describes it. The
/// local channel answers a status frame with a snapshot of it. Threads: any thread may add, remove and take a snapshot. A describe function
/// runs on the asking thread, must not block and must not call the registry. On return of the registration's destructor its function is not
/// running and never runs again.
class StatusRegistry {
 public:
  class Registration {
   public:
    Registration() = default;
    Registration(StatusRegistry* registry, std::uint64_t key) : registry_(registry), key_(key) {}
    Registration(Registration&& other) noexcept;
    Registration& operator=(Registration&& other) noexcept;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration();

   private:
    StatusRegistry* registry_ = nullptr;
    std::uint64_t key_ = 0;
  };

  static StatusRegistry& shared();

  StatusRegistry();
  ~StatusRegistry();
  StatusRegistry(const StatusRegistry&) = delete;
  StatusRegistry& operator=(const StatusRegistry&) = delete;

  [[nodiscard]] Registration add(std::string section, std::function<Object()> describe);
  /// A dictionary: section name to the array of what its registrations describe, in the order in which they were added.
  [[nodiscard]] Object snapshot() const;

 private:
  friend class Registration;
  void remove(std::uint64_t key);
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace platform
