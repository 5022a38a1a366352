// Who is the service, who starts it, and waiting for a lock without standing in a loop's way. The locks belong to open files, so one
// process can play all the parts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <vector>

#include "platform/concurrency/loop/RunLoop.h"
#include "platform/xpc/launch/ServiceLocks.h"
#include "platform/xpc/service/LockWait.h"
#include "tests/support/KernelFilter.h"
#include "tests/xpc/ServiceEnvironment.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::RunLoop;
using platform::xpc::holderOfLifeLock;
using platform::xpc::LaunchError;
using platform::xpc::LockFile;
using platform::xpc::LockWait;
using platform::xpc::ServiceFolder;
using platform::xpc::takeLaunchLock;
using platform::xpc::takeLifeLock;

constexpr const char* kLockedService = "Test.Service";
constexpr const char* kLifeLock = ".Test.Service.lock";
constexpr const char* kLaunchLock = ".Test.Service.launch";

class ServiceLocks : public testing::Test {
 protected:
  [[nodiscard]] LockFile openFile(const char* file) const { return std::move(*LockFile::open(folder_.descriptor(), file, true)); }

  ServiceEnvironment environment_;
  ServiceFolder folder_ = std::move(*ServiceFolder::open(true));
};

TEST_F(ServiceLocks, TellWhichProcessIsTheServiceWhileItHasTheLifeLock) {
  EXPECT_FALSE(holderOfLifeLock(folder_, kLockedService).isAlive);
  {
    const auto lock = takeLifeLock(folder_, kLockedService, 0ms);
    ASSERT_TRUE(lock);
    const auto holder = holderOfLifeLock(folder_, kLockedService);
    EXPECT_TRUE(holder.isAlive);
    EXPECT_EQ(holder.processIdentifier, getpid());
  }
  EXPECT_FALSE(holderOfLifeLock(folder_, kLockedService).isAlive) << "the mark is still there, and means nothing without the lock";
}

TEST_F(ServiceLocks, MakeOneProcessTheServiceAndNameItToTheOther) {
  auto first = takeLifeLock(folder_, kLockedService, 0ms);
  ASSERT_TRUE(first);
  const auto second = takeLifeLock(folder_, kLockedService, 20ms);
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().kind, LaunchError::Kind::AlreadyServed);
  EXPECT_EQ(second.error().reason, "process " + std::to_string(getpid()) + " is the service Test.Service already");
  first->unlock();
  EXPECT_TRUE(takeLifeLock(folder_, kLockedService, 0ms));
}

TEST_F(ServiceLocks, BelieveNoMarkOfAProcessThatIsGone) {
  LockFile lock = openFile(kLifeLock);
  ASSERT_EQ(lock.tryLock(), 0);
  const std::string own = std::to_string(getpid());
  for (const std::string& mark : {std::string(), std::string("no number"), own, own + " 1", std::string("-1 1"), std::string("0 0")}) {
    ASSERT_EQ(lock.setText(mark), 0);
    const auto holder = holderOfLifeLock(folder_, kLockedService);
    EXPECT_TRUE(holder.isAlive) << mark;
    EXPECT_EQ(holder.processIdentifier, 0) << mark;
  }
}

TEST_F(ServiceLocks, LetOneLauncherWorkAtATime) {
  const auto first = takeLaunchLock(folder_, kLockedService, 0ms);
  ASSERT_TRUE(first);
  const auto second = takeLaunchLock(folder_, kLockedService, 20ms);
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().kind, LaunchError::Kind::Locked);
  EXPECT_EQ(second.error().reason, "somebody else has held the lock file " + (environment_ / "run/xpc/.Test.Service.launch") +
                                       " for too long; find out with lslocks(8)");
  EXPECT_TRUE(takeLaunchLock(folder_, "Another.Service", 0ms)) << "each service has its own";
}

TEST_F(ServiceLocks, TellWhyALockFileCannotBeOpened) {
  makeFolder(environment_ / "run/xpc/.Test.Service.launch");
  const auto lock = takeLaunchLock(folder_, kLockedService, 0ms);
  ASSERT_FALSE(lock);
  EXPECT_EQ(lock.error().kind, LaunchError::Kind::System);
  EXPECT_EQ(lock.error().reason, "the lock file " + (environment_ / "run/xpc/.Test.Service.launch") + " cannot be opened: Is a directory");
}

// A file system without locks, or a security module that forbids them: nobody holds the lock, and nobody gets it.
TEST_F(ServiceLocks, TellARefusalOfTheSystemFromALockThatIsHeld) {
  const std::vector<RefusedCall> refused = {{.number = SYS_fcntl, .error = ENOLCK, .secondArgument = F_OFD_SETLK},
                                            {.number = SYS_fcntl, .error = ENOLCK, .secondArgument = F_OFD_GETLK}};
  const std::string folder = environment_ / "run/xpc/";
  const bool tried = withRefused(refused, [&] {
    // Told at once: nobody is waited for.
    const auto life = takeLifeLock(folder_, kLockedService, 1h);
    ASSERT_FALSE(life);
    EXPECT_EQ(life.error().kind, LaunchError::Kind::System);
    EXPECT_EQ(life.error().reason, "the lock file " + folder + kLifeLock + " cannot be locked: No locks available");
    const auto launch = takeLaunchLock(folder_, kLockedService, 1h);
    ASSERT_FALSE(launch);
    EXPECT_EQ(launch.error().kind, LaunchError::Kind::System);
    EXPECT_EQ(launch.error().reason, "the lock file " + folder + kLaunchLock + " cannot be locked: No locks available");
    const auto held = openFile(kLifeLock).isHeld();
    ASSERT_FALSE(held);
    EXPECT_EQ(held.error(), ENOLCK);
    EXPECT_FALSE(holderOfLifeLock(folder_, kLockedService).isAlive);
  });
  if (!tried) GTEST_SKIP() << "left out: a kernel that refuses locks, because this one takes no filter";
}

class LockWaiting : public ServiceLocks {
 protected:
  /// A wait for the launch lock that notes its end.
  std::unique_ptr<LockWait> makeWait(std::chrono::milliseconds limit) {
    return std::make_unique<LockWait>(openFile(kLaunchLock), limit, [this](int error) {
      EXPECT_FALSE(end_) << "told twice";
      end_ = error;
      isFreeMeanwhile_ = openFile(kLaunchLock).tryLock() == 0;
    });
  }
  /// What the end was, for which the loop is served.
  std::optional<int> waitForEnd() {
    while (!end_ && !RunLoop::current()->runFor(0.01)) {
    }
    return end_;
  }

  LockFile other_ = openFile(kLaunchLock);
  std::optional<int> end_;
  bool isFreeMeanwhile_ = false;
};

TEST_F(LockWaiting, EndsAtOnceWhenNobodyHasTheLock) {
  const auto wait = makeWait(0ms);
  wait->begin(*RunLoop::current());
  EXPECT_EQ(end_, 0);
  EXPECT_FALSE(isFreeMeanwhile_) << "locked while its owner is told";
  EXPECT_EQ(other_.tryLock(), 0) << "and released afterwards";
}

TEST_F(LockWaiting, LetsTheLoopServeOthersUntilTheLockIsFree) {
  ASSERT_EQ(other_.tryLock(), 0);
  const auto wait = makeWait(20s);
  wait->begin(*RunLoop::current());
  EXPECT_EQ(end_, std::nullopt);
  // Nobody would come to this if the wait kept the thread.
  RunLoop::current()->perform([this] { other_.unlock(); });
  EXPECT_EQ(waitForEnd(), 0);
  EXPECT_FALSE(isFreeMeanwhile_);
  EXPECT_EQ(other_.tryLock(), 0);
}

TEST_F(LockWaiting, IsGivenUpAfterItsLimit) {
  ASSERT_EQ(other_.tryLock(), 0);
  const auto wait = makeWait(20ms);
  wait->begin(*RunLoop::current());
  EXPECT_EQ(waitForEnd(), LockFile::kHeldBySomebodyElse);
  RunLoop::current()->run();  // returns, since nothing is left to be tried
}

TEST_F(LockWaiting, EndsAtOnceWhenTheSystemRefusesTheLock) {
  const auto wait = makeWait(1h);
  const bool tried =
      withRefused({{.number = SYS_fcntl, .error = ENOLCK, .secondArgument = F_OFD_SETLK}}, [&wait] { wait->begin(*RunLoop::current()); });
  if (!tried) GTEST_SKIP() << "left out: a kernel that refuses locks, because this one takes no filter";
  EXPECT_EQ(end_, ENOLCK);
}

TEST_F(LockWaiting, EndsWithItsOwner) {
  ASSERT_EQ(other_.tryLock(), 0);
  auto wait = makeWait(60s);
  wait->begin(*RunLoop::current());
  wait = nullptr;
  other_.unlock();
  RunLoop::current()->run();  // returns, since nothing is left to be tried
  EXPECT_EQ(end_, std::nullopt);
}

}  // namespace
