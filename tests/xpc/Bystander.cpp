#include "tests/xpc/Bystander.h"

#include <sys/socket.h>

#include <filesystem>
#include <iterator>

#include "tests/support/Eventually.h"

namespace kestrine::test {

using platform::xpc::Event;
using platform::xpc::Value;

namespace {

/// The idle threads that the pool keeps, and one on its way there.
constexpr int kParkedThreads = 5;

}  // namespace

std::function<void(InProcessService::Peer&)> Bystander::answersTheFirst() {
  return [first = std::make_shared<std::atomic<bool>>(true)](InProcessService::Peer& peer) {
    if (!first->exchange(false)) return;
    peer.connection->setEventHandler([weak = std::weak_ptr(peer.connection)](const Event& event) {
      const auto connection = weak.lock();
      if (const auto* message = std::get_if<Value>(&event); message != nullptr && connection) connection->send(*message);
    });
  };
}

Bystander::Bystander(InProcessService& service) : socket_(service.connectPeer()), thread_([this] { ask(); }) {}

Bystander::~Bystander() {
  over_ = true;
  thread_.join();
}

void Bystander::ask() {
  for (int number = 0; !over_; ++number) {
    const std::string question = commandFrame(std::to_string(number));
    const auto answer = sendBytes(socket_, question) ? readFrame(socket_) : std::nullopt;
    if (!answer || answer->kind != kMessage || answer->payload != question.substr(8)) {
      failed_ = true;
      return;
    }
    ++answered_;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // not to be a flood itself
  }
}

bool Bystander::isServed() const {
  const int already = answered_;
  return eventually([&] { return failed_ || answered_ >= already + 3; }, std::chrono::seconds(60)) && !failed_;
}

int countOwnThreads() {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator()));
}

Footprint::Footprint() : descriptors_(countOwnDescriptors()), threads_(countOwnThreads()) {}

bool Footprint::isBack() const {
  return eventually([&] { return countOwnDescriptors() <= descriptors_ && countOwnThreads() <= threads_ + kParkedThreads; },
                    std::chrono::seconds(60));
}

std::string Footprint::description() const {
  return std::to_string(descriptors_) + " descriptors and " + std::to_string(threads_) + " threads before, now " +
         std::to_string(countOwnDescriptors()) + " and " + std::to_string(countOwnThreads());
}

}  // namespace kestrine::test
