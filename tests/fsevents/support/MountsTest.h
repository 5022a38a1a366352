#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/fsevents/mounts/Mounts.h"
#include "tests/fsevents/support/MountNamespace.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

using platform::fsevents::Mount;
using platform::fsevents::Mounts;

inline bool isTold(const Mounts& mounts, int milliseconds = 0) {
  pollfd poller{mounts.descriptor(), POLLPRI, 0};
  return ::poll(&poller, 1, milliseconds) == 1 && (poller.revents & POLLPRI) != 0;
}

inline std::vector<std::string> pointsSeenBelow(const Mounts& mounts, const std::string& path) {
  std::vector<std::string> points;
  for (const Mount& mount : mounts.table().below(path)) points.push_back(mount.point);
  return points;
}

inline std::string typeAt(const Mounts& mounts, const std::string& path) {
  const Mount* const mount = mounts.table().covering(path);
  return mount == nullptr ? "" : mount->type;
}

inline std::vector<std::string> bindMany(int count, const std::string& folder, const std::string& what) {
  constexpr int kFirst = 10000;
  std::vector<std::string> points;
  for (int i = 0; i < count; ++i) {
    points.push_back(folder + "/m" + std::to_string(kFirst + i));
    makeFolder(points.back());
    bindAt(points.back(), what);
  }
  return points;
}

/// Tests with real mounts, each in a namespace of its own and once with each kind of rights.
class MountsTest : public testing::TestWithParam<Rights> {
 protected:
  static void inside(const std::function<void(const TemporaryDirectory&)>& body) {
    inMountNamespace(
        [&body] {
          const TemporaryDirectory folder;
          // Everything in memory of the test's own, whatever the folder is on.
          mountAt(folder.path(), "tmpfs");
          body(folder);
          detachAt(folder.path());
        },
        GetParam());
  }
};

}  // namespace kestrine::test
