#include "tests/fsevents/support/MountNamespace.h"
#include "tests/fsevents/support/WorldTest.h"

// Mounts at places of every kind: names that a table of mounts has to escape, folders that are new, paths that are watched twice.

namespace kestrine::test {
namespace {

class WorldMountPlaces : public WorldTest {};
KESTRINE_PER_SOURCE(WorldMountPlaces);

TEST_P(WorldMountPlaces, OfAnyNameAreToldAndWatched) {
  inMountNamespace([this] {
    const std::vector<std::string> names = {"with blank", "new\nline", "tab\t", "back\\slash", "\\040", "#", "\xff\xfe", "- none", "(x)"};
    for (const auto& name : names) makeFolders(in(name));
    const auto stream = watchRoot();
    for (const auto& name : names) {
      mountAt(in(name), "tmpfs");
      ASSERT_TRUE(stream->waitFor(in(name), kMount)) << stream->describe();
      makeFolders(in(name) + "/" + name);
      EXPECT_TRUE(isWatched(*stream, in(name) + "/" + name, "file"));
    }
    for (const auto& name : names) {
      unmountAt(in(name));
      ASSERT_TRUE(stream->waitFor(in(name), kUnmount)) << stream->describe();
      EXPECT_TRUE(isWatched(*stream, in(name), "underneath"));
    }
    EXPECT_TRUE(nothingIsLost(*stream));
    EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
  });
}

TEST_P(WorldMountPlaces, WhoseNamesBeginAlikeAreKeptApart) {
  inMountNamespace([this] {
    for (const auto* name : {"a", "ab", "a.b", "a/b"}) makeFolders(in(name));
    const auto stream = watchRoot();
    mountAt(in("ab"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("ab"), kMount)) << stream->describe();
    mountAt(in("a/b"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("a/b"), kMount)) << stream->describe();
    for (const auto* name : {"a", "ab", "a.b", "a/b"}) EXPECT_TRUE(isWatched(*stream, in(name), "file"));
    moveItem(in("a"), in("c"));
    stream->flush();
    for (const auto* name : {"c", "ab", "a.b", "c/b"}) EXPECT_TRUE(isWatched(*stream, in(name), "again"));
    EXPECT_EQ(told(*stream, in("ab"), kMount | kUnmount), 1U) << stream->describe();
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountPlaces, ThatAreNewAreToldAndWatched) {
  inMountNamespace([this] {
    const auto stream = watchRoot();
    for (int turn = 0; turn < 20; ++turn) {
      // At once, before anybody can have seen the folder.
      const auto point = in("new" + std::to_string(turn) + "/deep");
      makeFolders(point);
      mountAt(point, "tmpfs");
      makeFolders(point + "/a");
      ASSERT_TRUE(stream->waitFor(point, kMount)) << turn << stream->describe();
      EXPECT_TRUE(isWatched(*stream, point + "/a", "file"));
      if (turn % 2 == 0) continue;
      unmountAt(point);
      removeTree(in("new" + std::to_string(turn)));
      ASSERT_TRUE(stream->waitFor(point, kUnmount)) << turn << stream->describe();
      ASSERT_TRUE(stream->waitFor(in("new" + std::to_string(turn)), kRemoved)) << turn << stream->describe();
    }
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountPlaces, WatchedThemselvesAndFromAboveAreToldToBoth) {
  inMountNamespace([this] {
    makeFolders(in("mnt"));
    const auto stream = watch({.paths = {root_, in("mnt")}, .flags = kFileEvents | kWatchRoot});
    mountAt(in("mnt"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount | kRootChanged)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "file"));
    EXPECT_EQ(told(*stream, root_, kRootChanged), 0U) << stream->describe();
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, in("mnt"), "underneath"));
    EXPECT_TRUE(nothingIsLost(*stream));
  });
}

TEST_P(WorldMountPlaces, BelowALinkAreToldAsItIsSpelled) {
  inMountNamespace([this] {
    makeFolders(in("mnt"));
    makeFolders(in("beside"));
    const auto link = base_ / "link";
    makeLink(root_, link);
    const auto stream = watch({.paths = {link}});
    mountAt(in("mnt"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(link + "/mnt", kMount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, link + "/mnt", "file"));
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(link + "/mnt", kUnmount)) << stream->describe();
    EXPECT_TRUE(isWatched(*stream, link + "/mnt", "underneath"));
    EXPECT_FALSE(stream->tellsAtOrBelow(root_)) << stream->describe();
  });
}

TEST_P(WorldMountPlaces, AreToldWithoutEventsOfItemsToo) {
  inMountNamespace([this] {
    makeFolders(in("mnt/under"));
    const auto stream = watch({.paths = {root_}, .flags = 0});
    mountAt(in("mnt"), "tmpfs");
    ASSERT_TRUE(stream->waitFor(in("mnt"), kMount)) << stream->describe();
    makeFolders(in("mnt/a"));
    writeFile(in("mnt/a/file"), "text");
    stream->flush();
    EXPECT_TRUE(stream->tells(in("mnt/a"))) << stream->describe();
    unmountAt(in("mnt"));
    ASSERT_TRUE(stream->waitFor(in("mnt"), kUnmount)) << stream->describe();
    writeFile(in("mnt/under/file"), "text");
    stream->flush();
    EXPECT_TRUE(stream->tells(in("mnt/under"))) << stream->describe();
  });
}

TEST_P(WorldMountPlaces, InGreatNumberLeaveNothingBehind) {
  inMountNamespace([this] {
    constexpr int kMounts = 60;
    const auto point = [this](int index) { return in("m" + std::to_string(index)); };
    for (int i = 0; i < kMounts; ++i) makeFolders(point(i));
    const auto stream = watchRoot();
    stream->flush();  // from now on this thread has what it waits with
    const auto before = openDescriptors();
    for (int turn = 0; turn < 3; ++turn) {
      for (int i = 0; i < kMounts; ++i) mountAt(point(i), "tmpfs");
      for (int i = 0; i < kMounts; ++i) {
        ASSERT_TRUE(stream->waitFor(point(i), kMount)) << i << stream->describe();
        EXPECT_TRUE(isWatched(*stream, point(i), "file"));
      }
      for (int i = 0; i < kMounts; ++i) unmountAt(point(i));
      for (int i = 0; i < kMounts; ++i) ASSERT_TRUE(stream->waitFor(point(i), kUnmount)) << i << stream->describe();
      EXPECT_TRUE(marksAreThoseOf(*stream, {root_}));
      EXPECT_TRUE(eventually([&] { return openDescriptors() <= before; })) << openDescriptors() << " instead of " << before;
      EXPECT_TRUE(nothingIsLost(*stream));
      stream->clear();
    }
    EXPECT_TRUE(isWatched(*stream, point(7), "underneath"));
  });
}

}  // namespace
}  // namespace kestrine::test
