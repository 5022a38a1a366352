#include "tests/fsevents/support/MountNamespace.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/RunAgain.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrine::test {

namespace {

namespace fs = std::filesystem;

// Holds the name of the namespace outside, so that the second process can see that it is in another one.
constexpr const char* kOutside = "KESTRINE_TEST_MOUNTS_OUTSIDE";
constexpr unsigned kNobody = 65534;

constexpr const char* kOfRoot = "unshare --mount --propagation private";
constexpr const char* kOfNobody = "setpriv --reuid=65534 --regid=65534 --clear-groups --inh-caps=-all --bounding-set=-all";
// Its root is the ordinary user outside, and has not the rights to pass over permission bits.
constexpr const char* kOfUser =
    "unshare --user --map-root-user --mount --propagation private setpriv --bounding-set=-dac_override,-dac_read_search";

std::string namespaceOfThisProcess() { return fs::read_symlink("/proc/self/ns/mnt").string(); }

bool isInOwnNamespace() {
  // Asked once, since a test may hide /proc; nobody goes back to the namespace outside.
  static const bool own = std::getenv(kOutside) != nullptr && namespaceOfThisProcess() != std::getenv(kOutside);
  return own;
}

bool isNobodyNeeded(Rights rights) { return rights == Rights::OfAnOrdinaryUser && geteuid() == 0; }

std::vector<std::string> wayIn(Rights rights) {
  std::vector<std::string> way = isNobodyNeeded(rights) ? wordsOf(kOfNobody) : std::vector<std::string>{};
  const std::vector<std::string> rest = wordsOf(rights == Rights::OfThisUser && geteuid() == 0 ? kOfRoot : kOfUser);
  way.insert(way.end(), rest.begin(), rest.end());
  return way;
}

void giveToNobody(const std::string& path) {
  if (chown(path.c_str(), kNobody, kNobody) != 0) throw std::runtime_error("chown " + path + ": " + std::strerror(errno));
}

/// What the second process has for itself: temporary folders, a home, and this program where its user can read it.
class Home {
 public:
  explicit Home(Rights rights) {
    makeFolder(folder_ / "tmp");
    makeFolder(folder_ / "home");
    program_ = fs::read_symlink("/proc/self/exe").string();
    if (!isNobodyNeeded(rights)) return;
    fs::permissions(folder_.path(), fs::perms(0755));
    for (const char* const name : {"tmp", "home"}) giveToNobody(folder_ / name);
    std::vector<std::string> probe = wordsOf(kOfNobody);
    probe.insert(probe.end(), {"test", "-x", program_});
    if (runToEnd(probe).status != 0) copyPrograms();
  }

  [[nodiscard]] const std::string& program() const { return program_; }
  [[nodiscard]] std::map<std::string, std::string> environment() const {
    return {{kOutside, namespaceOfThisProcess()}, {"KESTRINE_TEST_FOLDER", folder_ / "tmp"}, {"HOME", folder_ / "home"}};
  }

 private:
  /// With the helpers beside it.
  void copyPrograms() {
    const fs::path from = program_;
    for (const auto& entry : fs::directory_iterator(from.parent_path())) {
      const std::string name = entry.path().filename();
      if (name != from.filename() && !name.ends_with("_helper")) continue;
      fs::copy_file(entry.path(), folder_ / name);
      fs::permissions(folder_ / name, fs::perms(0755));
    }
    program_ = folder_ / from.filename().string();
  }

  TemporaryDirectory folder_;
  std::string program_;
};

void mustBeInOwnNamespace() {
  if (!isInOwnNamespace()) throw std::runtime_error("not in a mount namespace of the test's own");
}

void check(int result, const std::string& what) {
  if (result != 0) throw std::runtime_error(fmt::format("{}: {}", what, std::strerror(errno)));
}

}  // namespace

std::string nameOfRights(const testing::TestParamInfo<Rights>& parameter) {
  return parameter.param == Rights::OfThisUser ? "thisUser" : "ordinaryUser";
}

std::string refusalOfMountNamespaces(Rights rights) {
  if (isInOwnNamespace()) return "";
  const TemporaryDirectory folder;
  fs::permissions(folder.path(), fs::perms(0777));
  std::vector<std::string> command = wayIn(rights);
  command.insert(command.end(), {"mount", "-t", "tmpfs", "none", folder.path()});
  try {
    const Outcome outcome = runToEnd(command);
    return outcome.status == 0 ? "" : fmt::format("status {}, {}", outcome.status, outcome.errorOutput);
  } catch (const std::runtime_error& noProgram) {
    return noProgram.what();
  }
}

void inMountNamespace(const std::function<void()>& body, Rights rights) {
  if (std::getenv(kOutside) != nullptr) {
    ASSERT_TRUE(isInOwnNamespace()) << "not in a namespace of its own";
    body();
    return;
  }
  if (const std::string why = refusalOfMountNamespaces(rights); !why.empty()) {
    GTEST_SKIP() << "left out: a mount namespace of its own, because the machine refuses one: " << why;
  }
  const Home home(rights);
  runTestAgain(wayIn(rights), home.program(), home.environment());
}

void mountAt(const std::string& point, const std::string& type, const std::string& options, const std::string& source) {
  mustBeInOwnNamespace();
  check(::mount(source.c_str(), point.c_str(), type.c_str(), 0, options.c_str()), fmt::format("mount {} at {}", type, point));
}

void bindAt(const std::string& point, const std::string& what, Below below) {
  mustBeInOwnNamespace();
  const unsigned long flags = below == Below::With ? MS_BIND | MS_REC : MS_BIND;
  check(::mount(what.c_str(), point.c_str(), nullptr, flags, nullptr), fmt::format("bind {} at {}", what, point));
}

void unmountAt(const std::string& point) {
  mustBeInOwnNamespace();
  check(::umount2(point.c_str(), UMOUNT_NOFOLLOW), "unmount " + point);
}

void detachAt(const std::string& point) {
  mustBeInOwnNamespace();
  check(::umount2(point.c_str(), UMOUNT_NOFOLLOW | MNT_DETACH), "detach " + point);
}

void moveMount(const std::string& from, const std::string& to) {
  mustBeInOwnNamespace();
  check(::mount(from.c_str(), to.c_str(), nullptr, MS_MOVE, nullptr), fmt::format("move the mount at {} to {}", from, to));
}

void bindAllAt(const std::string& point, const std::string& what) {
  mustBeInOwnNamespace();
  check(::mount(what.c_str(), point.c_str(), nullptr, MS_BIND | MS_REC, nullptr), fmt::format("bind all of {} at {}", what, point));
}

void remountAt(const std::string& point, bool readOnly) {
  mustBeInOwnNamespace();
  unsigned long flags = MS_REMOUNT | MS_BIND;
  if (readOnly) flags |= MS_RDONLY;
  check(::mount(nullptr, point.c_str(), nullptr, flags, nullptr), fmt::format("remount {}", point));
}

void inFurtherNamespace(const std::string& shell) {
  mustBeInOwnNamespace();
  const Outcome outcome = runToEnd({"unshare", "--mount", "--propagation", "private", "sh", "-e", "-c", shell});
  if (outcome.status != 0) throw std::runtime_error(fmt::format("{}: {}", shell, outcome.errorOutput));
}

}  // namespace kestrine::test
