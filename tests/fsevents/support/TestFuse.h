#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "platform/foundation/base/FileHandle.h"

namespace kestrine::test {

/// A file system in user space (FUSE) that shows the folder `backing` at the folder `point`, and fails as it is told. It is served by a
/// second process (FuseHelper.cpp beside the tests), so that it can hang and die without this one. What is changed in `backing` itself is
/// what another machine changes on a network file system: the kernel tells nobody.
///
/// Only inside `inMountNamespace`. Each call throws std::runtime_error when the second process does not answer or cannot mount. When
/// destroyed, the process has ended, whatever it was told, and nothing is mounted at `point` by it. Threads: one.
class TestFuse {
 public:
  TestFuse(std::string backing, std::string point);
  ~TestFuse();
  TestFuse(const TestFuse&) = delete;
  TestFuse& operator=(const TestFuse&) = delete;

  /// Why there can be no such file system here, as a user of the namespace that this process is in; empty when there can.
  static std::string whyNot();

  /// Whoever asks waits, until `answer` or the end of this object. Must not be called with a question of this thread's own to follow.
  void hang();
  void answer();
  /// The operations are those of FuseFaults.h; `path` is relative to `point`, "" is its root.
  void fail(const std::string& operation, const std::string& path, int error);
  void heal();
  [[nodiscard]] std::uint64_t asked(const std::string& operation, const std::string& path);

  /// The server dies: every access answers ENOTCONN, and the file system stays mounted.
  void die();
  /// The server dies, and what it served is unmounted.
  void leave();
  /// The same where that has not been done yet; then it is served and mounted anew.
  void comeBack();
  /// Unmounts it, as umount(8) does: fails (errno) where it is busy.
  int unmount();

 private:
  void start();
  std::string ask(const std::string& line);

  std::string backing_;
  std::string point_;
  pid_t server_ = -1;
  platform::FileHandle input_;
  platform::FileHandle output_;
  bool mounted_ = false;
};

}  // namespace kestrine::test
