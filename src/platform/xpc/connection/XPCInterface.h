#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <vector>

namespace platform {

/// The operations that one end of a connection offers to the other: a name and a table from selector to member function. Only one-way
/// operations without arguments cross the channel at object level.
///
///     auto interface = XPCInterface::interfaceWithProtocol<Greeter>("Greeter", {{"greet", &Greeter::greet}});
///
/// A value; different copies may be used on different threads at once.
class XPCInterface {
 public:
  /// An interface without a name and operations.
  XPCInterface() = default;

  template <class Protocol>
  static XPCInterface interfaceWithProtocol(std::string name, std::vector<std::pair<std::string, void (Protocol::*)()>> operations) {
    XPCInterface interface(std::move(name), typeid(Protocol));
    for (auto& [selector, operation] : operations) {
      interface.operations_.emplace(std::move(selector),
                                    [function = operation](void* object) { (static_cast<Protocol*>(object)->*function)(); });
    }
    return interface;
  }

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] bool hasOperation(std::string_view selector) const { return operations_.contains(selector); }
  /// The protocol that the table was made for; `void` for the empty interface.
  [[nodiscard]] std::type_index protocolType() const noexcept { return protocolType_; }
  /// Calls `selector` on `object`, which points to the interface's protocol. Throws Exception(NSInvalidArgumentException) for an unknown
  /// selector, and whatever the operation throws.
  void call(std::string_view selector, void* object) const;

 private:
  XPCInterface(std::string name, std::type_index protocolType) : name_(std::move(name)), protocolType_(protocolType) {}

  std::string name_;
  std::type_index protocolType_{typeid(void)};
  std::map<std::string, std::function<void(void*)>, std::less<>> operations_;
};

}  // namespace platform
