// Everything at once: processes with threads that write, remove, exchange, fork, are killed and stopped, and a foreign writer that edits
// the same file. Every acknowledged value is accounted for.
#include "tests/foundation/UserDefaultsModel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <random>
#include <thread>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

/// Three times as many as notice a defect such as "writer-without-the-lock" ten times out of ten.
long operationsToDo() {
  const char* given = std::getenv("KESTRINE_STORE_OPERATIONS");
  return given != nullptr ? std::atol(given) : longOrShort(6000, 1500);
}

class Workers {
 public:
  Workers(std::string folder, StoreLedger& ledger) : folder_(std::move(folder)), ledger_(ledger) {
    for (int number = 0; number < StoreLedger::kProcesses; ++number) workers_.push_back(start(number));
  }

  [[nodiscard]] bool isAnyRunning() {
    return std::any_of(workers_.begin(), workers_.end(), [](const auto& worker) { return worker->isRunning(); });
  }

  /// Kills one and starts another in its place, or only stops it for a moment.
  void disturb() {
    const int number = static_cast<int>(random_() % StoreLedger::kProcesses);
    auto& worker = workers_[static_cast<std::size_t>(number)];
    if (!worker->isRunning()) return;
    worker->signal(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::microseconds(random_() % 3000));
    if (random_() % 2 == 0 || ledger_.editing[number] > 0) {
      worker->signal(SIGCONT);
      return;
    }
    worker->signal(SIGKILL);
    EXPECT_EQ(worker->wait(), 128 + SIGKILL);
    errors_ += worker->errorOutput();
    ++kills_;
    worker = start(number);
  }

  std::string wait() {
    for (auto& worker : workers_) {
      const auto status = worker->wait();
      EXPECT_EQ(status, 0) << worker->output();
      errors_ += worker->errorOutput();
    }
    return errors_;
  }
  [[nodiscard]] int kills() const { return kills_; }

 private:
  std::unique_ptr<Process> start(int number) { return startHelper({.name = "workOnTheModel", .folder = folder_, .count = number}); }

  const std::string folder_;
  StoreLedger& ledger_;
  std::vector<std::unique_ptr<Process>> workers_;
  std::minstd_rand random_{4711};
  std::string errors_;
  int kills_ = 0;
};

TEST(UserDefaultsModel, AccountsForEveryAcknowledgedValue) {
  useMemoryForTemporaryFolders();
  const TemporaryDirectory folder;
  StoreLedger& ledger = storeLedger(folder.path());
  ledger.goal = operationsToDo();
  Workers workers(folder.path(), ledger);
  long former = 0;
  auto lastProgress = std::chrono::steady_clock::now();
  while (workers.isAnyRunning() && ledger.faults == 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    workers.disturb();
    if (const long now = ledger.operations; now != former) {
      former = now;
      lastProgress = std::chrono::steady_clock::now();
    }
    ASSERT_LT(std::chrono::steady_clock::now() - lastProgress, 2 * kPatience) << "nothing goes on after " << former << " operations";
  }
  const std::string errors = workers.wait();
  checkTheModel(folder.path(), ledger);
  EXPECT_EQ(ledger.faults, 0) << ledger.fault << "\n" << errors;
  EXPECT_GE(ledger.operations, ledger.goal);
  EXPECT_GT(workers.kills(), 0);
  EXPECT_GT(ledger.edited.acknowledged, 0);
  std::printf("%ld operations, %ld checks (%ld of a file that was being edited), %d kills\n", ledger.operations.load(),
              ledger.checks.load(), ledger.unreadable.load(), workers.kills());
  // No editor's file was taken for damaged by anyone who could have moved it.
  EXPECT_THAT(namesIn(folder.path()), testing::Not(testing::Contains(testing::HasSubstr("corrupt"))));
}

}  // namespace
}  // namespace kestrine::test
