#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/fsevents/mounts/FileSystems.h"
#include "platform/fsevents/mounts/Mounts.h"
#include "tests/fsevents/support/FileSystemProbe.h"
#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/TestFuse.h"
#include "tests/support/Process.h"
#include "tests/support/TemporaryDirectory.h"

// Holds the table in docs/operations.md, and what the stream takes for granted of a type, against the file systems that this machine
// mounts. KESTRINE_REWRITE_TABLE=1 writes the table anew, a row for each of these tests.

namespace kestrine::test {
namespace {

using platform::fsevents::FileSystemPolicy;
using platform::fsevents::Mounts;
using platform::fsevents::policyOf;

constexpr const char* kDocument = KESTRINE_SOURCE_DIR "/docs/operations.md";
constexpr const char* kBegin = "<!-- file systems: begin -->";
constexpr const char* kEnd = "<!-- file systems: end -->";

struct FileSystem {
  /// As the table calls it, and as the test is called.
  const char* name;
  const char* test;
  const char* type;
  /// What makes it in a file; empty for one that needs none.
  std::vector<std::string> make = {};
  friend void PrintTo(const FileSystem& system, std::ostream* stream) { *stream << system.test; }
};

const std::vector<FileSystem> kFileSystems = {
    {"ext2", "ext2", "ext2", {"mkfs.ext2", "-q", "-F"}},
    {"ext3", "ext3", "ext3", {"mkfs.ext3", "-q", "-F"}},
    {"ext4", "ext4", "ext4", {"mkfs.ext4", "-q", "-F"}},
    {"ext4, inodes of 128 bytes", "ext4small", "ext4", {"mkfs.ext4", "-q", "-F", "-I", "128"}},
    {"xfs", "xfs", "xfs", {"mkfs.xfs", "-q", "-f"}},
    {"btrfs", "btrfs", "btrfs", {"mkfs.btrfs", "-q", "-f"}},
    {"btrfs, a subvolume beside others", "subvolume", "btrfs", {"mkfs.btrfs", "-q", "-f"}},
    {"vfat", "vfat", "vfat", {"mkfs.vfat"}},
    {"tmpfs", "tmpfs", "tmpfs"},
    {"ramfs", "ramfs", "ramfs"},
    {"overlay, of two tmpfs", "overlay", "overlay"},
    {"FUSE, before a tmpfs", "fuse", "fuse.kestrine-test"},
};

/// The document, cut into what is before the table's rows, the rows by their names, and the rest.
struct Document {
  std::string before;
  std::vector<std::pair<std::string, std::string>> rows;
  std::string after;
};

/// The table's head and the line below it are no rows.
constexpr int kHeadLines = 2;

Document readDocument() {
  Document document;
  std::istringstream text(readFile(kDocument));
  int part = 0;
  for (std::string line; std::getline(text, line);) {
    if (line == kEnd) part = 0x100;
    const bool isRow = part > kHeadLines && part < 0x100;
    if (isRow) {
      document.rows.emplace_back(line.substr(2, line.find(" |") - 2), line);
    } else {
      (part < 0x100 ? document.before : document.after) += line + "\n";
    }
    if (part > 0 || line == kBegin) ++part;
  }
  return document;
}

std::string rowOf(const std::string& name, const std::vector<std::string>& cells) {
  std::string row = "| " + name + " |";
  for (const std::string& cell : cells) row += " " + cell + " |";
  return row;
}

/// In the order in which they stand above.
void rewriteRow(const std::string& name, const std::string& row) {
  Document document = readDocument();
  std::map<std::string, std::string> rows(document.rows.begin(), document.rows.end());
  rows[name] = row;
  std::string text = document.before;
  for (const FileSystem& system : kFileSystems) {
    if (rows.contains(system.name)) text += rows[system.name] + "\n";
  }
  writeFile(kDocument, text + document.after);
}

class FileSystemAbilitiesOf : public testing::TestWithParam<FileSystem> {
 protected:
  /// Mounts it at "mounted" in the folder; what stood in the way, or nothing.
  std::string mountIn(const TemporaryDirectory& folder) {
    const std::string point = folder / "mounted";
    makeFolder(point);
    try {
      if (!GetParam().make.empty()) {
        if (access("/dev/loop-control", R_OK | W_OK) != 0) return "the user has not the rights to mount a file";
        return mountImage(folder / "image", point);
      }
      if (GetParam().test == std::string("fuse")) {
        makeFolder(folder / "behind");
        fuse_ = std::make_unique<TestFuse>(folder / "behind", point);
        return "";
      }
      mountAt(point, GetParam().type, optionsOf(folder));
    } catch (const std::runtime_error& refusal) {
      return reasonIn(refusal.what());
    }
    return "";
  }

  void unmountIn(const TemporaryDirectory& folder) {
    if (fuse_) {
      fuse_.reset();
    } else {
      detachAt(folder / "mounted");
    }
  }

 private:
  /// The last part of "mount: <a path that is another each time>: unknown filesystem type".
  static std::string reasonIn(const std::string& complaint) {
    const std::string line = complaint.substr(0, complaint.find('\n'));
    const std::size_t colon = line.rfind(": ");
    return colon == std::string::npos ? line : line.substr(colon + 2);
  }

  static std::string mountImage(const std::string& image, const std::string& point) {
    // Nothing but holes: what is written is a few megabytes. The smallest that mkfs.xfs makes is 300 of them.
    constexpr std::uintmax_t kSize = 512U << 20U;
    writeFile(image, "");
    std::filesystem::resize_file(image, kSize);
    std::vector<std::string> make = GetParam().make;
    make.push_back(image);
    if (const Outcome made = runToEnd(make); made.status != 0) return make[0] + ": " + made.errorOutput;
    const Outcome mounted = runToEnd({"mount", "-o", "loop", "-t", GetParam().type, image, point});
    return mounted.status == 0 ? "" : reasonIn(mounted.errorOutput);
  }

  /// An overlay has its layers beside it.
  static std::string optionsOf(const TemporaryDirectory& folder) {
    if (GetParam().type != std::string("overlay")) return "";
    makeFolder(folder / "layers");
    mountAt(folder / "layers", "tmpfs");
    for (const char* const name : {"lower", "lower/folder", "upper", "work"}) makeFolder(folder / ("layers/" + std::string(name)));
    const std::string layers = folder / "layers/";
    return "lowerdir=" + layers + "lower,upperdir=" + layers + "upper,workdir=" + layers + "work";
  }

  std::unique_ptr<TestFuse> fuse_;
};
INSTANTIATE_TEST_SUITE_P(, FileSystemAbilitiesOf, testing::ValuesIn(kFileSystems),
                         [](const testing::TestParamInfo<FileSystem>& parameter) { return std::string(parameter.param.test); });

TEST_P(FileSystemAbilitiesOf, AreWhatTheTableSaysAndTheStreamTakesForGranted) {
  inMountNamespace([this] {
    const TemporaryDirectory folder;
    if (const std::string why = mountIn(folder); !why.empty()) {
      GTEST_SKIP() << "left out: what " << GetParam().name << " lets a watcher do, because it cannot be had here: " << why;
    }
    std::string root = folder / "mounted";
    std::string former;
    if (GetParam().test == std::string("subvolume")) {
      former = root;
      root += "/volume";
      const Outcome made = runToEnd({"btrfs", "subvolume", "create", root});
      ASSERT_EQ(made.status, 0) << made.errorOutput;
    }
    const FileSystemAbilities found = probeFileSystem(root, former);

    const Mounts mounts;
    const auto* const mount = mounts.table().covering(root);
    ASSERT_NE(mount, nullptr);
    EXPECT_EQ(mount->type, GetParam().type);
    const FileSystemPolicy policy = policyOf(*mount);
    // Less may be taken for granted than is there, never more.
    EXPECT_THAT(found.countsLinks, testing::AnyOf("yes", policy.countsLinks ? "yes" : "no"));
    EXPECT_THAT(found.stampsRenames, testing::AnyOf("yes", policy.stampsRenames ? "yes" : "no"));
    EXPECT_LE(found.timeStep, policy.timeStep);
    EXPECT_TRUE(tellsApart(root, policy.timeStep));

    const std::string row = rowOf(GetParam().name, found.cells());
    if (std::getenv("KESTRINE_REWRITE_TABLE") != nullptr) rewriteRow(GetParam().name, row);
    std::string told;
    for (const auto& [name, text] : readDocument().rows) told += name == GetParam().name ? text : "";
    EXPECT_EQ(told, row);
    unmountIn(folder);
  });
}

TEST(FileSystemAbilities, AreToldOfNoOtherFileSystemThanThoseTried) {
  std::set<std::string> known;
  for (const FileSystem& system : kFileSystems) known.insert(system.name);
  const Document document = readDocument();
  EXPECT_GE(document.rows.size(), 5U);
  for (const auto& [name, row] : document.rows) {
    EXPECT_TRUE(known.contains(name)) << row;
    EXPECT_EQ(std::count(row.begin(), row.end(), '|'), 9) << row;
  }
}

}  // namespace
}  // namespace kestrine::test
