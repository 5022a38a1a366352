#include "platform/foundation/preferences/Forks.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace platform {

/// Never freed, used again: a child goes through them while nobody can hold a lock for it.
struct UnsharedDescriptor::Slot {
  std::atomic<int> descriptor;
  Slot* next;
};

namespace {

using Slot = UnsharedDescriptor::Slot;
constexpr int kFree = -1;
constexpr int kTaken = -2;

struct Forgotten {
  const void* what;
  Forgotten* next;
};

constinit std::atomic<unsigned> generation = 0;
constinit std::atomic<unsigned> begunForks = 0;
constinit std::atomic<Slot*> slots = nullptr;
constinit std::atomic<Forgotten*> forgottenThings = nullptr;

void aboutToFork() { begunForks.fetch_add(1); }

void inTheChild() {
  generation.fetch_add(1);
  for (Slot* slot = slots.load(); slot != nullptr; slot = slot->next) {
    if (const int descriptor = slot->descriptor.exchange(kFree); descriptor >= 0) ::close(descriptor);
  }
}

/// Before everything that could use preferences.
[[gnu::constructor(200)]] void lookAfterForks() { pthread_atfork(aboutToFork, nullptr, inTheChild); }

Slot* takeSlot() {
  for (Slot* slot = slots.load(); slot != nullptr; slot = slot->next) {
    int found = kFree;
    if (slot->descriptor.compare_exchange_strong(found, kTaken)) return slot;
  }
  auto* slot = new Slot{kTaken, slots.load()};
  while (!slots.compare_exchange_weak(slot->next, slot)) {
  }
  return slot;
}

}  // namespace

unsigned forkGeneration() noexcept { return generation.load(std::memory_order_acquire); }

void keepForEver(const void* forgotten) {
  auto* entry = new Forgotten{forgotten, forgottenThings.load()};
  while (!forgottenThings.compare_exchange_weak(entry->next, entry)) {
  }
}

UnsharedDescriptor::UnsharedDescriptor(const std::function<FileHandle()>& open) {
  while (true) {
    const unsigned before = begunForks.load();
    generation_ = forkGeneration();
    file_ = open();
    if (!file_.isOpen()) return;
    slot_ = takeSlot();
    slot_->descriptor.store(file_.fileDescriptor());
    // A child that was made in between may have it without knowing that: then it is not used, and nothing is held by it.
    if (begunForks.load() == before) return;
    close();
  }
}

UnsharedDescriptor::UnsharedDescriptor(UnsharedDescriptor&& other) noexcept
    : file_(std::move(other.file_)), slot_(std::exchange(other.slot_, nullptr)), generation_(other.generation_) {}

UnsharedDescriptor& UnsharedDescriptor::operator=(UnsharedDescriptor&& other) noexcept {
  if (this == &other) return *this;
  close();
  file_ = std::move(other.file_);
  slot_ = std::exchange(other.slot_, nullptr);
  generation_ = other.generation_;
  return *this;
}

void UnsharedDescriptor::close() noexcept {
  if (!file_.isOpen()) return;
  if (isOfThisProcess()) {
    if (slot_ != nullptr) slot_->descriptor.store(kFree);
    file_.closeFile();
  } else {
    file_.release();
  }
  slot_ = nullptr;
}

}  // namespace platform
