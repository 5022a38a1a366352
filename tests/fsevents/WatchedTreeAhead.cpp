#include <gtest/gtest.h>

#include "platform/fsevents/tree/WatchedTree.h"
#include "tests/fsevents/support/StreamTest.h"

// The disk ahead of the queue: what is on the disk when a change is looked into may be the work of changes that are still to be read. Told
// is what was, where it was.

namespace kestrine::test {
namespace {

namespace fsevents = platform::fsevents;

class WatchedTreeAhead : public StreamTest {
 protected:
  void watch() {
    fsevents::TreeOptions options;
    options.reportedPath = options.openPath = root_;
    options.fileEvents = true;
    options.source = GetParam();
    tree_ = std::make_unique<fsevents::WatchedTree>(0, options, coalescer_, status_);
    int error = 0;
    ASSERT_EQ(tree_->attach(0, std::nullopt, error), fsevents::WatchedTree::Attached::Standing);
  }
  // What has been read so far is applied, and only then what came after it.
  std::vector<std::string> told() {
    static_cast<void>(tree_->process());
    tree_->processAll();
    std::vector<std::string> paths;
    for (auto& event : coalescer_.take()) paths.push_back(event.path.substr(root_.size()));
    return paths;
  }
  // Everything comes to rest, and what is written then is told where it is.
  void expectToldAsWritten(const std::vector<std::string>& names) {
    tree_->processAll();
    static_cast<void>(coalescer_.take());
    std::vector<std::string> expected;
    for (const auto& name : names) {
      writeFile(in(name), "text");
      expected.push_back("/" + name);
    }
    tree_->drain();
    EXPECT_THAT(told(), testing::UnorderedElementsAreArray(expected));
    EXPECT_EQ(status_.foldersMarked.load(), static_cast<std::int64_t>(countFolders({root_})));
  }
  fsevents::Coalescer coalescer_;
  fsevents::StreamStatus status_;
  std::unique_ptr<fsevents::WatchedTree> tree_;
};
KESTRINE_PER_SOURCE(WatchedTreeAhead);

TEST_P(WatchedTreeAhead, AFolderOfTheSamePathInAnotherIsNotTakenForTheNewOne) {
  makeFolders(in("p"));
  watch();
  makeFolder(in("p/new"));
  tree_->drain();
  moveItem(in("p"), in("q"));
  makeFolders(in("p/new"));
  writeFile(in("p/new/inner"), "text");
  EXPECT_THAT(told(), testing::IsSubsetOf({"/p", "/p/new", "/p/new/inner", "/q", "/q/new"}));
  expectToldAsWritten({"p/new/a", "q/new/b"});
}

TEST_P(WatchedTreeAhead, AKnownFolderInThePlaceOfARemovedOneTellsWhatWasBeforeAtItsFormerPlace) {
  makeFolders(in("a"));
  makeFolders(in("known"));
  watch();
  makeFolder(in("a/d"));
  tree_->drain();
  removeItem(in("a/d"));
  writeFile(in("known/before"), "text");
  removeItem(in("known/before"));
  moveItem(in("known"), in("a/d"));
  const auto paths = told();
  EXPECT_THAT(paths, testing::IsSubsetOf({"/a/d", "/known", "/known/before"}));
  EXPECT_THAT(paths, testing::IsSupersetOf({"/a/d", "/known", "/known/before"}));
  expectToldAsWritten({"a/d/after"});
}

TEST_P(WatchedTreeAhead, WhatHappenedWhileAFolderWasOutsideIsNotToldWhereItCameBack) {
  makeFolders(in("x"));
  watch();
  makeFolder(in("new"));
  moveItem(in("x"), outside("x"));
  writeFile(outside("x/away"), "text");
  removeItem(outside("x/away"));
  tree_->drain();
  moveItem(outside("x"), in("new/x"));
  EXPECT_THAT(told(), testing::IsSubsetOf({"/new", "/new/x", "/x"}));
  expectToldAsWritten({"new/x/after"});
}

TEST_P(WatchedTreeAhead, ANewFolderThatBecomesAnothersPartnerInAnExchangeKeepsBothPaths) {
  makeFolders(in("one/inner"));
  watch();
  makeFolders(in("two"));
  tree_->drain();
  exchangeItems(in("one"), in("two"));
  writeFile(in("one/a"), "text");
  removeItem(in("one/a"));
  writeFile(in("two/inner/b"), "text");
  EXPECT_THAT(told(), testing::IsSubsetOf({"/one", "/two", "/one/inner", "/one/a", "/two/inner", "/two/inner/b"}));
  expectToldAsWritten({"one/c", "two/d", "two/inner/e"});
}

TEST_P(WatchedTreeAhead, AFolderMadeAndMovedOnWhileItsParentMovesIsFoundAtItsPlace) {
  makeFolders(in("p"));
  makeFolders(in("to"));
  watch();
  makeFolder(in("p/new"));
  tree_->drain();
  writeFile(in("p/new/first"), "text");
  moveItem(in("p/new"), in("p/second"));
  moveItem(in("p"), in("to/p"));
  moveItem(in("to/p/second"), in("third"));
  EXPECT_THAT(told(),
              testing::IsSubsetOf({"/p", "/p/new", "/p/second", "/p/new/first", "/to/p", "/to/p/second", "/third", "/third/first"}));
  expectToldAsWritten({"third/a", "to/p/b"});
}

// The kernel merges a rename into an equal one that was not read yet, so that the last of them is missing at the end of the queue.
TEST_P(WatchedTreeAhead, AFolderThatGoesToAndFroEndsWhereItIs) {
  makeFolders(in("a/inner"));
  watch();
  for (int i = 0; i < 3; ++i) {
    moveItem(in("a"), in("b"));
    moveItem(in("b"), in("a"));
  }
  moveItem(in("a"), in("b"));
  tree_->drain();
  const auto paths = told();
  EXPECT_THAT(paths, testing::UnorderedElementsAre("/a", "/b"));
  expectToldAsWritten({"b/x", "b/inner/y"});
}

}  // namespace
}  // namespace kestrine::test
