#include "platform/fsevents/source/ChangeSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <ostream>
#include <thread>

#include "tests/fsevents/support/FileOperations.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

// A queue of the kernel's by itself, below the streams.

namespace kestrine::test {
namespace {

using platform::FileHandle;
using platform::fsevents::ChangeSource;
using platform::fsevents::KernelKey;
using platform::fsevents::RawChange;

struct SourceCase {
  const char* name;
  std::unique_ptr<ChangeSource> (*make)(int& error);
};

void PrintTo(const SourceCase& source, std::ostream* out) { *out << source.name; }

class ChangeSourceOf : public testing::TestWithParam<SourceCase> {};
INSTANTIATE_TEST_SUITE_P(, ChangeSourceOf,
                         testing::Values(SourceCase{"fanotify", platform::fsevents::makeFanotifySource},
                                         SourceCase{"inotify", platform::fsevents::makeInotifySource}),
                         [](const auto& source) { return std::string(source.param.name); });

TEST_P(ChangeSourceOf, LosesNothingWhileItsFolderIsMarkedAgainAndAgain) {
  int error = 0;
  const auto source = GetParam().make(error);
  if (!source) GTEST_SKIP() << "left out: " << GetParam().name << ", because the kernel refuses it: " << std::strerror(error);
  const TemporaryDirectory directory;
  const FileHandle folder(::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  KernelKey key;
  if (const int refused = source->mark(folder.fileDescriptor(), true, key); refused != 0) {
    GTEST_SKIP() << "left out: marks of " << GetParam().name << ", because the kernel refuses them: " << std::strerror(refused);
  }
  const int files = longOrShort(100000, 10000);
  std::atomic<int> made{0};
  std::atomic<int> told{0};
  std::thread writer([&] {
    for (int i = 0; i < files; ++i, ++made) {
      const auto path = directory.path() + "/" + std::to_string(i);
      writeFile(path, {});
      removeItem(path);
      while (made - told > 2000) std::this_thread::yield();  // well within the queue
    }
  });
  const auto visit = [&](const RawChange& change) {
    EXPECT_EQ(change.bits & RawChange::kOverflow, 0U);
    if ((change.bits & RawChange::kCreated) != 0) ++told;
  };
  bool done = false;
  while (!done) {
    done = made == files;
    for (int i = 0; i < 50; ++i) ASSERT_EQ(source->mark(folder.fileDescriptor(), true, key), 0);
    source->drain();
    static_cast<void>(source->dispatch(visit));
  }
  writer.join();
  source->leaveFolders();
  EXPECT_EQ(told, files);
}

}  // namespace
}  // namespace kestrine::test
