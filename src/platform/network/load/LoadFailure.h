#pragma once

#include <cstdint>
#include <string>

// Internal to the network room.
namespace platform::network {

/// Why a load comes to nothing, before it is an Error with the task's address: NSURLError..., and what to say besides. A value.
struct LoadFailure {
  std::int64_t code = 0;
  std::string detail = {};
};

}  // namespace platform::network
