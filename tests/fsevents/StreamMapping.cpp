#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/foundation/base/FileHandle.h"
#include "tests/fsevents/support/StreamTest.h"

// A store through a shared mapping is seen by nobody until the mapping ends; then it is told.

namespace kestrine::test {
namespace {

constexpr std::size_t kLength = 4096;

class StreamMapping : public StreamTest {
 protected:
  void SetUp() override {
    StreamTest::SetUp();
    if (IsSkipped()) return;
    writeFile(in("file"), std::string(kLength, 'a'));
    stream_ = watchRoot();
    platform::FileHandle file(::open(in("file").c_str(), O_RDWR | O_CLOEXEC));
    memory_ = static_cast<char*>(::mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_SHARED, file.fileDescriptor(), 0));
    ASSERT_NE(memory_, MAP_FAILED);
    file.closeFile();
    stream_->flush();
    stream_->clear();
  }
  std::unique_ptr<WatchedStream> stream_;
  char* memory_ = nullptr;
};
KESTRINE_PER_SOURCE(StreamMapping);

TEST_P(StreamMapping, IsToldWhenItEnds) {
  memory_[0] = 'b';
  ASSERT_EQ(::munmap(memory_, kLength), 0);
  stream_->flush();
  EXPECT_NE(stream_->flagsOf(in("file")) & kModified, 0U) << stream_->describe();
}

TEST_P(StreamMapping, IsToldWhenItsProcessEnds) {
  // The child holds the last mapping of the file, and goes without a word.
  memory_[0] = 'b';
  int gate[2];
  ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    char byte = 0;
    ::close(gate[1]);
    static_cast<void>(::read(gate[0], &byte, 1));
    ::_exit(0);
  }
  ::close(gate[0]);
  ASSERT_EQ(::munmap(memory_, kLength), 0);
  ::close(gate[1]);
  EXPECT_TRUE(stream_->waitFor(in("file"), kModified)) << stream_->describe();
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}

}  // namespace
}  // namespace kestrine::test
