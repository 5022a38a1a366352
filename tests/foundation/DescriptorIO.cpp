#include "platform/foundation/base/DescriptorIO.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <thread>

#include "platform/foundation/base/FileHandle.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

namespace platform {
namespace {

using kestrine::test::eventually;
using kestrine::test::readFile;
using kestrine::test::TemporaryDirectory;
using kestrine::test::writeFile;

struct Pipe {
  explicit Pipe(int flags = 0) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | flags), 0);
    reading = FileHandle(ends[0]);
    writing = FileHandle(ends[1]);
  }
  FileHandle reading;
  FileHandle writing;
};

/// Fills a pipe until it takes nothing more. How many bytes that were.
std::size_t fill(const FileHandle& writing) {
  const int flags = fcntl(writing.fileDescriptor(), F_GETFL);
  fcntl(writing.fileDescriptor(), F_SETFL, flags | O_NONBLOCK);
  std::size_t filled = 0;
  while (::write(writing.fileDescriptor(), "x", 1) == 1) ++filled;
  fcntl(writing.fileDescriptor(), F_SETFL, flags);
  return filled;
}

std::atomic<int> interruptions = 0;

/// Interrupts a thread that waits in a system call: sends it a signal with a handler that restarts nothing.
class Interrupted {
 public:
  explicit Interrupted(std::function<void()> block)
      : thread_([this, block = std::move(block)] {
          id_ = gettid();
          block();
        }) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++interruptions; };
    sigaction(SIGUSR1, &action, &former_);
  }
  ~Interrupted() {
    thread_.join();
    sigaction(SIGUSR1, &former_, nullptr);
  }
  Interrupted(const Interrupted&) = delete;
  Interrupted& operator=(const Interrupted&) = delete;

  void interrupt() {
    EXPECT_TRUE(eventually([this] { return id_ != 0 && sleeps(); }));
    const int before = interruptions;
    pthread_kill(thread_.native_handle(), SIGUSR1);
    EXPECT_TRUE(eventually([&] { return interruptions > before && sleeps(); }));
  }

 private:
  [[nodiscard]] bool sleeps() const {
    const std::string status = readFile("/proc/self/task/" + std::to_string(id_) + "/stat");
    return status.substr(status.rfind(')') + 1, 2) == " S";
  }

  struct sigaction former_ {};
  std::atomic<pid_t> id_ = 0;
  std::thread thread_;
};

TEST(DescriptorIO, ReadsFromThePlaceToTheEnd) {
  const TemporaryDirectory folder;
  const std::string bytes = std::string("\0\n", 2) + std::string(300'000, 'x');
  writeFile(folder / "file", "skipped" + bytes);
  const FileHandle file(open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(lseek(file.fileDescriptor(), 7, SEEK_SET), 7);
  const auto read = readAll(file.fileDescriptor(), 1U << 20U);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, bytes);
  EXPECT_EQ(*readAll(file.fileDescriptor(), 1U << 20U), "");
}

TEST(DescriptorIO, StopsBehindTheLimit) {
  const TemporaryDirectory folder;
  writeFile(folder / "file", std::string(1'000'000, 'x'));
  const FileHandle file(open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC));
  const auto read = readAll(file.fileDescriptor(), 100'000);
  ASSERT_TRUE(read);
  EXPECT_GT(read->size(), 100'000U);
  EXPECT_LT(read->size(), 200'000U);
  writeFile(folder / "file", std::string(100'000, 'x'));
  ASSERT_EQ(lseek(file.fileDescriptor(), 0, SEEK_SET), 0);
  EXPECT_EQ(readAll(file.fileDescriptor(), 100'000)->size(), 100'000U);
}

TEST(DescriptorIO, GoesOnReadingAfterASignal) {
  Pipe pipe;
  std::string read;
  {
    Interrupted reader([&] { read = readAll(pipe.reading.fileDescriptor(), 100).value(); });
    reader.interrupt();
    EXPECT_EQ(writeAll(pipe.writing.fileDescriptor(), "first "), 0);
    reader.interrupt();
    EXPECT_EQ(writeAll(pipe.writing.fileDescriptor(), "second"), 0);
    pipe.writing.closeFile();
  }
  EXPECT_EQ(read, "first second");
}

TEST(DescriptorIO, GoesOnWritingAfterASignal) {
  Pipe pipe;
  const std::size_t filled = fill(pipe.writing);
  const std::string bytes(200'000, 'y');
  std::string read;
  int error = -1;
  {
    Interrupted writer([&] {
      error = writeAll(pipe.writing.fileDescriptor(), bytes);
      pipe.writing.closeFile();
    });
    writer.interrupt();
    read = readAll(pipe.reading.fileDescriptor(), 1U << 20U).value();
  }
  EXPECT_EQ(error, 0);
  EXPECT_EQ(read, std::string(filled, 'x') + bytes);
}

TEST(DescriptorIO, SaysThatADescriptorWouldWait) {
  Pipe pipe(O_NONBLOCK);
  EXPECT_EQ(readAll(pipe.reading.fileDescriptor(), 100).error(), EAGAIN);
  fill(pipe.writing);
  EXPECT_EQ(writeAll(pipe.writing.fileDescriptor(), "more"), EAGAIN);
}

TEST(DescriptorIO, SaysWhatIsWrongWithADescriptor) {
  const TemporaryDirectory folder;
  EXPECT_EQ(readAll(-1, 100).error(), EBADF);
  EXPECT_EQ(writeAll(-1, "text"), EBADF);
  EXPECT_EQ(writeAll(-1, ""), 0);
  const FileHandle opened(open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(readAll(opened.fileDescriptor(), 100).error(), EISDIR);
}

}  // namespace
}  // namespace platform
