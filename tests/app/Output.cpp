#include "app/cli/Output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "platform/foundation/base/FileHandle.h"

namespace kestrine::test {
namespace {

using platform::FileHandle;

struct Pipe {
  FileHandle readEnd;
  FileHandle writeEnd;
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    readEnd = FileHandle(ends[0]);
    writeEnd = FileHandle(ends[1]);
    signal(SIGPIPE, SIG_IGN);
  }
};

TEST(Output, WritesMoreThanAPipeHoldsWhileTheReaderReads) {
  Pipe pipe;
  std::string sent;
  for (int i = 0; i < 100'000; ++i) sent += std::to_string(i) + "\n";
  std::string received;
  std::thread reader([&] {
    char buffer[5000];
    for (ssize_t size; (size = read(pipe.readEnd.fileDescriptor(), buffer, sizeof buffer)) > 0;)
      received.append(buffer, static_cast<std::size_t>(size));
  });
  Output output(pipe.writeEnd.fileDescriptor());
  EXPECT_TRUE(output.write(sent));
  pipe.writeEnd.closeFile();
  reader.join();
  EXPECT_EQ(received, sent);
  EXPECT_FALSE(output.isClosed());
}

TEST(Output, IsClosedWhenTheReaderHasGone) {
  Pipe pipe;
  pipe.readEnd.closeFile();
  Output output(pipe.writeEnd.fileDescriptor());
  EXPECT_FALSE(output.write("text"));
  EXPECT_TRUE(output.readerHasGone());
  EXPECT_FALSE(output.write("more"));
}

TEST(Output, GivesUpOnAReaderThatDoesNotReadWhenInterrupted) {
  Pipe pipe;
  const FileHandle interrupt(eventfd(0, EFD_CLOEXEC));
  Output output(pipe.writeEnd.fileDescriptor(), interrupt.fileDescriptor());
  std::thread interrupter([&] { EXPECT_EQ(eventfd_write(interrupt.fileDescriptor(), 1), 0); });
  EXPECT_FALSE(output.write(std::string(1 << 20, 'x')));
  interrupter.join();
  EXPECT_TRUE(output.isClosed());
  EXPECT_FALSE(output.readerHasGone());
  EXPECT_EQ(output.reason(), "its reader does not read");
}

TEST(Output, StillWritesToAReaderThatReadsWhenInterrupted) {
  Pipe pipe;
  const FileHandle interrupt(eventfd(1, EFD_CLOEXEC));
  Output output(pipe.writeEnd.fileDescriptor(), interrupt.fileDescriptor());
  EXPECT_TRUE(output.write("the last words"));
}

TEST(Output, NamesTheErrorOfAFullDevice) {
  const FileHandle full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  Output output(full.fileDescriptor());
  EXPECT_FALSE(output.write("text"));
  EXPECT_FALSE(output.readerHasGone());
  EXPECT_EQ(output.reason(), "No space left on device");
}

}  // namespace
}  // namespace kestrine::test
