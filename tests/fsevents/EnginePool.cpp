#include "platform/fsevents/engine/EnginePool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/NoDescriptors.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {
namespace {

using platform::fsevents::EnginePlace;
using platform::fsevents::EnginePool;
using platform::fsevents::EngineShared;
using platform::fsevents::HangWatch;
using platform::fsevents::StreamMailbox;
using platform::fsevents::StreamStatus;

TEST(EnginePool, SaysWhyThereIsNoFurtherEngineAndHasOneLater) {
  TemporaryDirectory folder;
  auto shared = std::make_shared<EngineShared>(
      EngineShared{{}, std::make_shared<StreamStatus>(), std::make_shared<StreamMailbox>([] {}), std::make_shared<HangWatch>()});
  const auto pool = std::make_shared<EnginePool>(shared);
  const auto place = [&] {
    EnginePlace made;
    made.options.reportedPath = made.options.openPath = folder.path();
    made.isMount = true;
    return made;
  };
  std::string error;
  {
    const NoDescriptors scarce;
    EXPECT_EQ(pool->begin(place(), error), nullptr);
    EXPECT_FALSE(pool->start());
  }
  EXPECT_THAT(error, testing::HasSubstr("Too many open files"));
  EXPECT_THAT(shared->status->error(), testing::HasSubstr("Too many open files"));
  EXPECT_NE(pool->begin(place(), error), nullptr);
  EXPECT_EQ(error, "");
  pool->stop();
  EXPECT_EQ(pool->begin(place(), error), nullptr);
  EXPECT_EQ(error, "");
}

}  // namespace
}  // namespace kestrine::test
