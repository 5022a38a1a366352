#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/fsevents/support/PolledWorld.h"

// Random work on a tree, between the looks and during them, against what is on the disk.

namespace kestrine::test {
namespace {

namespace fs = std::filesystem;

/// Random changes below a folder, each by one or a few system calls that may fail when another way leads to the same state.
class RandomWork {
 public:
  RandomWork(std::string root, unsigned seed) : root_(std::move(root)), random_(seed) { refresh(); }

  void change() {
    static constexpr Operation kOperations[] = {
        &RandomWork::create,     &RandomWork::create,     &RandomWork::create,       &RandomWork::append,     &RandomWork::append,
        &RandomWork::overwrite,  &RandomWork::overwrite,  &RandomWork::chmodItem,    &RandomWork::chmodItem,  &RandomWork::removeFile,
        &RandomWork::removeFile, &RandomWork::renameFile, &RandomWork::renameFile,   &RandomWork::renameFile, &RandomWork::saveFile,
        &RandomWork::again,      &RandomWork::link,       &RandomWork::symbolicLink, &RandomWork::makeOne,    &RandomWork::makeDeep,
        &RandomWork::removeOne,  &RandomWork::renameOne,  &RandomWork::renameOne,    &RandomWork::exchange,   &RandomWork::folderForFile,
    };
    if (++changes_ % 8 == 0) refresh();
    (this->*kOperations[pick(std::size(kOperations))])();
  }

  /// Every path that was there at some time.
  [[nodiscard]] const std::set<std::string>& existed() const { return existed_; }
  /// Paths that were changed since the last call, and the inodes of what was.
  std::pair<std::set<std::string>, std::set<std::uint64_t>> takeTouched() {
    return {std::exchange(touched_, {}), std::exchange(inodes_, {})};
  }

 private:
  using Operation = void (RandomWork::*)();

  std::size_t pick(std::size_t below) { return random_() % below; }
  std::string folder() { return folders_[pick(folders_.size())]; }
  std::string file() { return files_.empty() ? root_ + "/none" : files_[pick(files_.size())]; }
  std::string fresh() { return folder() + "/" + std::to_string(++names_ % 40); }

  /// To be called before and after a change: what is at a path, with everything below it.
  void touch(const std::string& path) {
    struct stat status {};
    touched_.insert(path);
    if (::lstat(path.c_str(), &status) != 0) return;
    existed_.insert(path);
    inodes_.insert(status.st_ino);
    if (!S_ISDIR(status.st_mode)) return;
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
      existed_.insert(entry.path());
      touched_.insert(entry.path());
      if (::lstat(entry.path().c_str(), &status) == 0) inodes_.insert(status.st_ino);
    }
  }
  void touchBoth(const std::string& one, const std::string& other) {
    touch(one);
    touch(other);
  }
  void refresh() {
    folders_ = {root_};
    files_.clear();
    for (const auto& entry : fs::recursive_directory_iterator(root_)) {
      (entry.is_directory() && !entry.is_symlink() ? folders_ : files_).push_back(entry.path());
    }
  }

  void write(const std::string& path, int flags) {
    touch(path);
    const platform::FileHandle opened(::open(path.c_str(), flags | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0644));
    const char text = static_cast<char>('a' + pick(26));
    if (opened.isOpen()) static_cast<void>(!::write(opened.fileDescriptor(), &text, 1));
    touch(path);
  }
  void create() { write(fresh(), O_CREAT | O_EXCL); }
  void append() { write(file(), O_APPEND); }
  void overwrite() { write(file(), 0); }
  void chmodItem() {
    const std::string path = pick(3) == 0 ? folder() : file();
    touch(path);
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISLNK(status.st_mode)) ::chmod(path.c_str(), status.st_mode ^ 011);
  }
  void removeFile() {
    const std::string path = file();
    touch(path);
    ::unlink(path.c_str());
  }
  void renameFile() { rename(file(), fresh()); }
  void rename(const std::string& from, const std::string& to) {
    touchBoth(from, to);
    ::rename(from.c_str(), to.c_str());
    touchBoth(from, to);
  }
  void saveFile() {
    const std::string path = file();
    const std::string draft = path + "~";
    write(draft, O_CREAT);
    rename(draft, path);
  }
  void again() {
    const std::string path = file();
    touch(path);
    ::unlink(path.c_str());
    write(path, O_CREAT);
  }
  void link() {
    const std::string from = file();
    const std::string to = fresh();
    touchBoth(from, to);
    static_cast<void>(!::link(from.c_str(), to.c_str()));
    touchBoth(from, to);
  }
  void symbolicLink() {
    const std::string path = fresh();
    touch(path);
    static_cast<void>(!::symlink("nowhere", path.c_str()));
    touch(path);
  }
  void makeFolderAt(const std::string& path) {
    touch(path);
    ::mkdir(path.c_str(), 0755);
    touch(path);
  }
  void makeOne() { makeFolderAt(fresh()); }
  void makeDeep() {
    std::string path = fresh();
    for (int level = 0; level < 3; ++level) {
      makeFolderAt(path);
      write(path + "/f", O_CREAT);
      path += "/d";
    }
  }
  void removeOne() {
    const std::string path = folder();
    if (path == root_ || folders_.size() < 6) return;
    touch(path);
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  void renameOne() {
    const std::string path = folder();
    if (path != root_) rename(path, fresh());
  }
  void exchange() {
    const std::string one = pick(2) == 0 ? folder() : file();
    const std::string other = pick(2) == 0 ? folder() : file();
    if (one == root_ || other == root_) return;
    touchBoth(one, other);
    ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
    touchBoth(one, other);
  }
  void folderForFile() {
    const std::string path = file();
    touch(path);
    ::unlink(path.c_str());
    makeFolderAt(path);
  }

  std::string root_;
  std::mt19937 random_;
  int names_ = 0;
  int changes_ = 0;
  std::vector<std::string> folders_;
  std::vector<std::string> files_;
  std::set<std::string> existed_;
  std::set<std::string> touched_;
  std::set<std::uint64_t> inodes_;
};

class PolledRegionModel : public testing::TestWithParam<unsigned> {
 protected:
  TemporaryDirectory base_;
};

std::uint64_t inodeOf(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

TEST_P(PolledRegionModel, BetweenTheLooksTellsWhatChangedAndNothingElse) {
  RandomWork work(base_.path(), GetParam());
  for (int i = 0; i < 100; ++i) work.change();
  PolledWorld world(base_.path());
  world.settle();
  work.takeTouched();
  std::set<std::uint64_t> before;
  const int rounds = longOrShort(60, 12);
  for (int round = 0; round < rounds; ++round) {
    for (int i = 0; i < 1 + round % 25; ++i) work.change();
    // Twice: what is below a folder that moved is looked at in its new place by the second pass.
    world.pass();
    world.pass();
    ASSERT_EQ(world.differences(), std::vector<std::string>{}) << "seed " << GetParam() << ", round " << round;
    const auto [paths, inodes] = work.takeTouched();
    for (const auto& [path, flags] : world.log()) {
      const bool isRepeat = before.contains(inodeOf(path)) && (flags & (kModified | kMetadata)) != 0;
      ASSERT_TRUE(paths.contains(path) || inodes.contains(inodeOf(path)) || isRepeat)
          << "seed " << GetParam() << ", round " << round << ": nothing happened to " << path << " " << flags
          << (inodeOf(path) != 0 ? ", which is there" : ", which is not there")
          << (work.existed().contains(path) ? " and was" : " and never was");
      ASSERT_TRUE(work.existed().contains(path)) << "seed " << GetParam() << ", round " << round << ": there never was " << path;
    }
    before = inodes;
    world.take();
    PolledWorld::letStampsGoOn();
  }
}

TEST_P(PolledRegionModel, DuringTheLooksMissesNothingAndInventsNoPath) {
  RandomWork work(base_.path(), GetParam());
  for (int i = 0; i < 200; ++i) work.change();
  PolledWorld world(base_.path(), {.slice = std::chrono::microseconds(20)});
  world.isDeferred = true;
  const int rounds = longOrShort(25, 5);
  for (int round = 0; round < rounds; ++round) {
    std::atomic<bool> isOver = false;
    std::thread worker([&] {
      for (int i = 0; i < 300; ++i) work.change();
      isOver = true;
    });
    while (!isOver) world.pass();
    worker.join();
    // More than a few while folders are not found in their places, as whoever waits for the region has to.
    constexpr int kFewLooks = 4;
    constexpr int kMostLooks = 40;
    bool hasSeenAll = false;
    for (int looks = 1; looks <= kFewLooks || (!hasSeenAll && looks <= kMostLooks); ++looks) {
      PolledWorld::letStampsGoOn();
      const auto asked = world.region().hasten();
      world.pass();
      hasSeenAll = world.region().isOver(asked);
    }
    ASSERT_TRUE(hasSeenAll) << "seed " << GetParam() << ", round " << round;
    world.bringUpToDateNow();
    ASSERT_EQ(world.differences(), std::vector<std::string>{}) << "seed " << GetParam() << ", round " << round;
    for (const auto& [path, flags] : world.take())
      ASSERT_TRUE(work.existed().contains(path)) << "seed " << GetParam() << ", round " << round << ": there never was " << path;
  }
}

INSTANTIATE_TEST_SUITE_P(, PolledRegionModel, testing::Range(1U, 5U));

}  // namespace
}  // namespace kestrine::test
