#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace platform {

/// A callback for something that may outlive `object`: it calls `call` with the object, held for the length of the call, and does nothing
/// once the object has gone. `call` is a member function, or anything that takes the object as its first argument:
///
///   timer_ = RunLoopTimer::create(1, 0, weakly(this, &Core::retry));
///   item_ = RunLoopDescriptor::create(socket, EPOLLIN, weakly(this, [](Core& core, unsigned) { core.accept(); }));
///
/// The object is one that a shared pointer owns (std::enable_shared_from_this); in its constructor there is none yet, and the callback
/// never does anything. The callback may be the last to hold the object, which is destroyed on its thread then.
template <class Object, class Call>
auto weakly(Object* object, Call call) {
  return [weak = object->weak_from_this(), call = std::move(call)](auto&&... arguments) -> void {
    if (const auto held = weak.lock()) std::invoke(call, static_cast<Object&>(*held), std::forward<decltype(arguments)>(arguments)...);
  };
}

}  // namespace platform
