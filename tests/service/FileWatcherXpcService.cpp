#include "service/FileWatcherXpcService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/support/Process.h"
#include "tests/watcher/WatcherFixture.h"
#include "watcher/FileWatcherServiceXPC.h"

namespace kestrine::test {
namespace {

using platform::Object;
using testing::IsEmpty;
using testing::SizeIs;

class FileWatcherXpcServiceTest : public WatcherTest {
 protected:
  /// A call in progress on a thread of its own, as the channel makes them.
  class Call {
   public:
    explicit Call(FileWatcherXpcService& service)
        : thread_([this, &service] {
            service.callToFileWatcher();
            returned_ = true;
          }) {}
    ~Call() { thread_.join(); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    [[nodiscard]] bool hasReturned() const { return returned_; }

   private:
    std::atomic<bool> returned_ = false;
    std::thread thread_;
  };

  /// Waits until exactly the watches with these numbers stand.
  static bool eventuallyStanding(const std::vector<std::uint64_t>& numbers) {
    return eventually([&] {
      std::vector<std::uint64_t> standing;
      for (const Object& watch : statusSection("watches")) {
        if (watch.objectForKey("state") == Object("standing")) standing.push_back(watch.objectForKey("number").unsignedLongLongValue());
      }
      return standing == numbers;
    });
  }

  /// The number that the next controller gets.
  static std::uint64_t nextNumber() {
    const FileWatcherServiceXPC controller;
    return statusSection("watches").back().objectForKey("number").unsignedLongLongValue() + 1;
  }
};

TEST_F(FileWatcherXpcServiceTest, HasNoControllerBeforeTheFirstCall) {
  const FileWatcherXpcService service;
  EXPECT_EQ(service.fileWatcherController(), nullptr);
}

TEST_F(FileWatcherXpcServiceTest, ReturnsAtOnceWhenNoWatchCanBeStarted) {
  setBasePath("/Users/a b");
  FileWatcherXpcService service;
  service.callToFileWatcher();
  EXPECT_NE(service.fileWatcherController(), nullptr) << "the controller stays, without a stream";
  EXPECT_THAT(statusSection("streams"), IsEmpty());
}

TEST_F(FileWatcherXpcServiceTest, StaysInTheCallWhileItWatches) {
  setBasePath(base_.path());
  const std::uint64_t number = nextNumber();
  FileWatcherXpcService service;
  const Call call(service);
  ASSERT_TRUE(eventuallyStanding({number}));
  ASSERT_EQ(runToEnd({"touch", watchedFolder() + "/file"}).status, 0);
  EXPECT_TRUE(eventually([] { return statusOnDisk() == Object("1"); }));
  EXPECT_FALSE(call.hasReturned());
  service.setFileWatcherController(nullptr);
}

TEST_F(FileWatcherXpcServiceTest, ReplacesTheFirstControllerOnASecondCallAndEndsTheFirstCall) {
  setBasePath(base_.path());
  const std::uint64_t number = nextNumber();
  FileWatcherXpcService service;
  const Call first(service);
  ASSERT_TRUE(eventuallyStanding({number}));
  const std::weak_ptr<FileWatcherServiceXPC> controller = service.fileWatcherController();
  const Call second(service);
  ASSERT_TRUE(eventuallyStanding({number + 1}));
  EXPECT_TRUE(eventually([&] { return controller.expired(); }));
  EXPECT_TRUE(eventually([&] { return first.hasReturned(); }));
  EXPECT_FALSE(second.hasReturned());
  EXPECT_THAT(statusSection("streams"), SizeIs(1));
  service.setFileWatcherController(nullptr);
}

TEST_F(FileWatcherXpcServiceTest, EndsWithOneWatchAfterManyCallsAtOnce) {
  setBasePath(base_.path());
  FileWatcherXpcService service;
  const int count = longOrShort(20, 6);
  std::vector<std::unique_ptr<Call>> calls;
  calls.reserve(count);
  for (int index = 0; index < count; ++index) calls.push_back(std::make_unique<Call>(service));
  EXPECT_TRUE(eventually([&] { return std::ranges::count_if(calls, [](const auto& call) { return call->hasReturned(); }) == count - 1; }));
  EXPECT_THAT(statusSection("streams"), SizeIs(1));
  service.setFileWatcherController(nullptr);
}

TEST_F(FileWatcherXpcServiceTest, EndsItsCallWhenTheControllerIsTakenAway) {
  setBasePath(base_.path());
  const std::uint64_t number = nextNumber();
  auto service = std::make_unique<FileWatcherXpcService>();
  std::thread thread([&service] { service->callToFileWatcher(); });
  ASSERT_TRUE(eventuallyStanding({number}));
  service->setFileWatcherController(nullptr);
  thread.join();
  service.reset();
  EXPECT_THAT(statusSection("streams"), IsEmpty());
}

}  // namespace
}  // namespace kestrine::test
