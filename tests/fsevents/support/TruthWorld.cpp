#include "tests/fsevents/support/TruthWorld.h"

#include <sys/mman.h>

#include <cerrno>
#include <ctime>
#include <new>
#include <system_error>

namespace kestrine::test {

TruthWorld* TruthWorld::make() {
  void* memory = ::mmap(nullptr, sizeof(TruthWorld), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
  auto* world = new (memory) TruthWorld;
  pthread_rwlockattr_t attributes;
  ::pthread_rwlockattr_init(&attributes);
  ::pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  // Or those who share it would never let go of it all at once.
  ::pthread_rwlockattr_setkind_np(&attributes, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
  ::pthread_rwlock_init(&world->lock, &attributes);
  ::pthread_rwlockattr_destroy(&attributes);
  for (auto& semaphore : world->begin) ::sem_init(&semaphore, 1, 0);
  for (auto& semaphore : world->done) ::sem_init(&semaphore, 1, 0);
  world->lastNumber = kHiddenNumber;
  world->alive = kFirst;
  world->folders[kWatched].isAlive = world->folders[kOutside].isAlive = world->folders[kHidden].isAlive = true;
  world->folders[kWatched].number = kWatchedNumber;
  world->folders[kOutside].number = kOutsideNumber;
  world->folders[kOutside].owner = 1;
  world->folders[kHidden].number = kHiddenNumber;
  world->folders[kHidden].owner = kWorkers;
  return world;
}

void TruthWorld::destroy(TruthWorld* world) { ::munmap(world, sizeof(TruthWorld)); }

std::int64_t truthClock() {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNanoseconds + now.tv_nsec;
}

}  // namespace kestrine::test
