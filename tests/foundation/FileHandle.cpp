#include "platform/foundation/base/FileHandle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <utility>

namespace platform {
namespace {

int newDescriptor() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }
bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) >= 0; }

TEST(FileHandle, OwnsNothingAtFirst) {
  FileHandle handle;
  EXPECT_FALSE(handle.isOpen());
  EXPECT_EQ(handle.fileDescriptor(), -1);
  handle.closeFile();
  EXPECT_EQ(handle.release(), -1);
}

TEST(FileHandle, ClosesWhenItGoes) {
  const int descriptor = newDescriptor();
  {
    const FileHandle handle(descriptor);
    EXPECT_TRUE(handle.isOpen());
    EXPECT_TRUE(isOpen(descriptor));
  }
  EXPECT_FALSE(isOpen(descriptor));
}

TEST(FileHandle, ClosesWhenTold) {
  FileHandle handle(newDescriptor());
  const int descriptor = handle.fileDescriptor();
  handle.closeFile();
  EXPECT_FALSE(handle.isOpen());
  EXPECT_FALSE(isOpen(descriptor));
}

TEST(FileHandle, GivesItsDescriptorUp) {
  const int descriptor = newDescriptor();
  {
    FileHandle handle(descriptor);
    EXPECT_EQ(handle.release(), descriptor);
    EXPECT_FALSE(handle.isOpen());
  }
  EXPECT_TRUE(isOpen(descriptor));
  close(descriptor);
}

TEST(FileHandle, MovesAndClosesWhatItReplaces) {
  FileHandle a(newDescriptor());
  FileHandle b(newDescriptor());
  const int first = a.fileDescriptor();
  const int second = b.fileDescriptor();
  a = std::move(b);
  EXPECT_FALSE(isOpen(first));
  EXPECT_EQ(a.fileDescriptor(), second);
  FileHandle& same = a;
  a = std::move(same);
  EXPECT_EQ(a.fileDescriptor(), second);
  const FileHandle c(std::move(a));
  EXPECT_EQ(c.fileDescriptor(), second);
}

}  // namespace
}  // namespace platform
