#include "tests/fsevents/support/TruthRun.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/fsevents/support/TruthWorker.h"

namespace kestrine::test {

namespace {

unsigned chosenSeed() {
  const char* given = std::getenv("KESTRINE_TRUTH_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::stoul(given)) : std::random_device()();
  std::printf("the seed of this workload is %u\n", seed);
  std::fflush(stdout);
  return seed;
}

}  // namespace

TruthRun::TruthRun(Options options)
    : seed_(chosenSeed()),
      random_(seed_),
      watched_(options.folder + "/watched"),
      outside_(options.folder + "/outer"),
      world_(TruthWorld::make()),
      judge_(watched_, options.exclusions) {
  for (const auto& path : options.exclusions) exclusions_.push_back(watched_ + path);
  makeFolder(watched_);
  makeFolder(outside_);
  makeFolder(watched_ + TruthJudge::kFlood);
  startWorkers();
  process_ = std::make_unique<StreamProcess>(StreamProcess::Options{.paths = {watched_},
                                                                    .exclusions = exclusions_,
                                                                    .source = options.source,
                                                                    .latency = options.latency,
                                                                    .inNamespace = options.inNamespace});
  mirror_ = std::make_unique<TruthMirror>(watched_, exclusions_);
}

TruthRun::~TruthRun() {
  endWorkers();
  process_.reset();
  TruthWorld::destroy(world_);
}

std::size_t TruthRun::operations(std::size_t otherwise) {
  const char* given = std::getenv("KESTRINE_TRUTH_OPERATIONS");
  return given != nullptr ? std::stoul(given) : otherwise;
}

void TruthRun::startWorkers() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    const pid_t process = ::fork();
    if (process < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (process == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      TruthWorker(*world_, i, seed_, watched_, outside_).run();
    }
    workers_[i] = process;
  }
}

void TruthRun::endWorkers() {
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    if (workers_[i] <= 0) continue;
    // One that has not come to its end by itself is in the middle of something.
    ::kill(workers_[i], SIGKILL);
    ::waitpid(workers_[i], nullptr, 0);
  }
}

// A worker that has ended leaves the others waiting for the world, so each of them is looked after.
std::string TruthRun::waitForWorkers() {
  const auto limit = truthClock() + std::chrono::nanoseconds(kPatience).count();
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    while (::sem_trywait(&world_->done[i]) != 0) {
      for (std::size_t k = 0; k < workers_.size(); ++k) {
        if (workers_[k] <= 0 || ::waitpid(workers_[k], nullptr, WNOHANG) != workers_[k]) continue;
        workers_[k] = -1;
        return "worker " + std::to_string(k) + " ended: " + world_->fault[k].data();
      }
      if (truthClock() > limit) return "the workers do not come to an end";
      constexpr long kPause = 500'000;
      const timespec pause{0, kPause};
      ::nanosleep(&pause, nullptr);
    }
  }
  return {};
}

std::vector<TruthRecord> TruthRun::takeRecords() {
  std::vector<TruthRecord> records;
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    const auto* first = world_->records[i].data();
    records.insert(records.end(), first, first + world_->recorded[i].exchange(0));
  }
  return records;
}

std::vector<std::string> TruthRun::window(std::size_t changes, const Window& how) {
  const auto share = static_cast<std::uint32_t>(std::max<std::size_t>(changes / workers_.size(), 1));
  if (how.isUnread) process_->halt();
  world_->hides = how.hides;
  world_->mounts = how.mounts;
  for (std::size_t i = 0; i < workers_.size(); ++i) {
    world_->quota[i] = share;
    ::sem_post(&world_->begin[i]);
  }
  if (how.meanwhile) how.meanwhile();
  const auto fault = waitForWorkers();
  if (how.isUnread) process_->goOn();
  if (!fault.empty()) return {fault};
  const auto events = process_->flushTimed();
  auto records = takeRecords();
  done_ += records.size();
  told_ += events.size();
  auto faults = judge_.judge(std::move(records), events, how.rules);
  mirror_->follow(events);
  const auto differences = mirror_->differences();
  if (differences.empty()) return faults;
  for (const auto& line : differences) faults.push_back(line);
  // What was told of the first of them, of what is above it, and of what has its name.
  const auto path = differences.front().substr(0, differences.front().find(' '));
  for (const auto& told : events) {
    if (isAtOrBelow(path, told.event.path) || told.event.path.ends_with(path.substr(path.rfind('/')))) {
      faults.push_back("  told " + describeEvent(told.event));
    }
  }
  return faults;
}

void TruthRun::flood() const {
  // One file under ever other names, so that nothing can be merged with what is in the queue.
  constexpr int kMoreThanTheQueueHolds = 18000;
  const auto folder = watched_ + TruthJudge::kFlood + "/";
  writeFile(folder + "0", "text");
  for (int i = 0; i < kMoreThanTheQueueHolds; ++i) moveItem(folder + std::to_string(i), folder + std::to_string(i + 1));
  removeItem(folder + std::to_string(kMoreThanTheQueueHolds));
}

void TruthRun::starve() {
  rlimit before{};
  if (::prlimit(process_->pid(), RLIMIT_NOFILE, nullptr, &before) != 0) throw std::system_error(errno, std::generic_category(), "prlimit");
  // Below what it has open now: nothing can be opened.
  const rlimit none{0, before.rlim_max};
  ::prlimit(process_->pid(), RLIMIT_NOFILE, &none, nullptr);
  constexpr long kLongest = 20'000'000;
  const timespec pause{0, static_cast<long>(random_() % kLongest)};
  ::nanosleep(&pause, nullptr);
  ::prlimit(process_->pid(), RLIMIT_NOFILE, &before, nullptr);
}

std::vector<std::string> TruthRun::windows(std::size_t changes, const Window& how) {
  std::vector<std::string> faults;
  for (const auto end = done_ + changes; done_ < end && faults.empty();) {
    const auto longest = random_() % 4 == 0 ? kLongestWindow : kLongestWindow / 10;
    faults = window(1 + random_() % longest, how);
  }
  if (!faults.empty()) faults.insert(faults.begin(), "after " + std::to_string(done_) + " changes, seed " + std::to_string(seed_));
  return faults;
}

std::string TruthRun::differenceOfAllMarks() {
  namespace fs = std::filesystem;
  // A folder that has moved out may keep its mark until the queue is made anew, which takes its time.
  std::set<std::string> outer;
  for (const auto& entry : fs::recursive_directory_iterator(outside_)) {
    struct stat info {};
    if (::lstat(entry.path().c_str(), &info) == 0) outer.insert("inode " + std::to_string(info.st_ino));
  }
  std::string difference;
  static_cast<void>(eventually([&] {
    difference.clear();
    std::istringstream lines(differenceOfMarks(kernelMarks(process_->pid()), {watched_}, exclusions_));
    for (std::string line; std::getline(lines, line);) {
      const bool isOuter = line.starts_with("1 marks") && outer.contains(line.substr(std::min(line.size(), line.rfind("inode "))));
      if (!isOuter) difference += line + "\n";
    }
    return difference.empty();
  }));
  return difference;
}

}  // namespace kestrine::test
