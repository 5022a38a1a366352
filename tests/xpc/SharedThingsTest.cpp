// What two processes have in common after a message: open files and memory, each end with descriptors of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "tests/support/Eventually.h"
#include "tests/xpc/Bystander.h"

namespace {

using namespace kestrine::test;
using namespace std::chrono_literals;
using platform::FileHandle;
using platform::xpc::Value;

/// {"k": the frame's first descriptor}, or {"k": shared memory of that size}.
std::string descriptorFrame() { return frame(kMessage, "\x0c" + little32(1) + little32(1) + "k" + "\x09", 1); }
std::string memoryFrame(std::uint64_t size) {
  return frame(kMessage, "\x0c" + little32(1) + little32(1) + "k" + "\x0a" + little64(size), 1);
}

FileHandle memory(std::size_t size) {
  FileHandle made(memfd_create("shared", MFD_CLOEXEC));
  if (ftruncate(made.fileDescriptor(), static_cast<off_t>(size)) != 0) throw std::runtime_error("no memory");
  return made;
}

/// A shared mapping of the first `size` bytes.
class Mapping {
 public:
  Mapping(const FileHandle& handle, std::size_t size)
      : size_(size), place_(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, handle.fileDescriptor(), 0)) {
    if (place_ == MAP_FAILED) throw std::runtime_error("cannot be mapped");
  }
  ~Mapping() { munmap(place_, size_); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  [[nodiscard]] const char* text() const { return static_cast<const char*>(place_); }
  /// Puts a text and its end there.
  void write(const std::string& text, std::size_t at = 0) const {
    std::memcpy(static_cast<char*>(place_) + at, text.c_str(), text.size() + 1);
  }

 private:
  std::size_t size_;
  void* place_;
};

TEST(SharedThings, DescriptorsArriveAsDuplicatesForTheSameOpenFile) {
  InProcessService service;
  const FileHandle socket = service.connectPeer();
  const auto peer = service.peer(0);
  FileHandle file(open((TemporaryDirectory() / "").c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (!file.isOpen()) file = memory(0);
  ASSERT_EQ(write(file.fileDescriptor(), "0123456789", 10), 10);
  ASSERT_TRUE(sendBytes(socket, descriptorFrame(), {file.fileDescriptor()}));
  const Value message = messageOf(peer.events.at(0));
  const int arrived = message.find("k")->fileDescriptorValue()->fileDescriptor();
  EXPECT_NE(arrived, file.fileDescriptor());
  EXPECT_NE(fcntl(arrived, F_GETFD) & FD_CLOEXEC, 0);
  // One open file has one offset.
  ASSERT_EQ(lseek(arrived, 4, SEEK_SET), 4);
  EXPECT_EQ(lseek(file.fileDescriptor(), 0, SEEK_CUR), 4);

  // The sender's end is closed; the receiver's works on, and so does a duplicate of it when the value is gone.
  file.closeFile();
  FileHandle copy = message.find("k")->duplicateFileDescriptor();
  EXPECT_NE(copy.fileDescriptor(), arrived);
  EXPECT_NE(fcntl(copy.fileDescriptor(), F_GETFD) & FD_CLOEXEC, 0);
  std::array<char, 3> read{};
  EXPECT_EQ(pread(copy.fileDescriptor(), read.data(), read.size(), 7), 3);
  EXPECT_EQ(std::string(read.data(), read.size()), "789");
}

TEST(SharedThings, ADescriptorLivesExactlyAsLongAsTheLastCopyOfItsValue) {
  InProcessService service;
  const FileHandle socket = service.connectPeer();
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const FileHandle reading(ends[0]);
  {
    const FileHandle writing(ends[1]);
    ASSERT_TRUE(sendBytes(socket, descriptorFrame(), {writing.fileDescriptor()}));
  }
  Value kept;
  {
    const auto peer = service.peer(0);
    kept = Value::array({*messageOf(peer.events.at(0)).find("k")});
  }
  service.peer(0).connection->cancel();
  service.forgetPeers();
  char byte = 0;
  EXPECT_EQ(read(reading.fileDescriptor(), &byte, 1), -1) << "the value still has it";
  EXPECT_EQ(write(kept.arrayValue()[0].fileDescriptorValue()->fileDescriptor(), "x", 1), 1);
  EXPECT_EQ(read(reading.fileDescriptor(), &byte, 1), 1);
  kept = Value();
  EXPECT_TRUE(eventually([&] { return read(reading.fileDescriptor(), &byte, 1) == 0; }));
}

TEST(SharedThings, MemoryIsTheSameAtBothEnds) {
  InProcessService service;
  const FileHandle socket = service.connectPeer();
  const auto peer = service.peer(0);
  FileHandle mine = memory(8192);
  const Mapping here(mine, 8192);
  here.write("from the client");
  ASSERT_TRUE(sendBytes(socket, memoryFrame(8192), {mine.fileDescriptor()}));
  mine.closeFile();
  const Value message = messageOf(peer.events.at(0));
  const auto& arrived = message.find("k")->sharedMemoryValue();
  ASSERT_EQ(arrived.size, 8192U);
  EXPECT_NE(fcntl(arrived.handle->fileDescriptor(), F_GETFD) & FD_CLOEXEC, 0);
  const Mapping there(*arrived.handle, 8192);
  EXPECT_STREQ(there.text(), "from the client");
  there.write("from the service", 4096);
  EXPECT_STREQ(here.text() + 4096, "from the service");
}

// Nothing is mapped by the channel, so what a sender claims harms nobody; the receiver sees what the file has.
TEST(SharedThings, MemoryThatIsNoneOrSmallerThanClaimedIsOnlyAClaim) {
  InProcessService service(Bystander::answersTheFirst());
  const Bystander bystander(service);
  const Footprint before;
  {
    const FileHandle socket = service.connectPeer();
    const auto peer = service.peer(1);
    const FileHandle small = memory(1);
    const FileHandle null(open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::size_t number = 0;
    for (const std::uint64_t claimed : {std::uint64_t{0}, std::uint64_t{1} << 40U, ~std::uint64_t{0}}) {
      for (const FileHandle* handle : {&small, &null}) {
        ASSERT_TRUE(sendBytes(socket, memoryFrame(claimed), {handle->fileDescriptor()}));
        const Value message = messageOf(peer.events.at(number++));
        EXPECT_EQ(message.find("k")->sharedMemoryValue().size, claimed);
        struct stat about {};
        ASSERT_EQ(fstat(message.find("k")->sharedMemoryValue().handle->fileDescriptor(), &about), 0);
        EXPECT_EQ(about.st_size, handle == &small ? 1 : 0);
      }
    }
    // The descriptor that it takes must be there.
    ASSERT_TRUE(sendBytes(socket, memoryFrame(1)));
    EXPECT_TRUE(isClosed(socket));
  }
  EXPECT_TRUE(bystander.isServed());
  service.forgetPeers();
  EXPECT_TRUE(before.isBack()) << before.description();
}

}  // namespace
