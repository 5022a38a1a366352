#include "platform/fsevents/folders/DirectoryTree.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Eventually.h"

namespace kestrine::test {
namespace {

using platform::fsevents::DirectoryTree;
using platform::fsevents::kNoNode;
using platform::fsevents::NodeId;

std::string pathOf(const DirectoryTree& tree, NodeId node) {
  std::string path;
  tree.appendPath(node, path);
  return path;
}

TEST(DirectoryTree, BeginsWithTheRootWhosePathIsEmpty) {
  const DirectoryTree tree;
  EXPECT_EQ(tree.size(), 1U);
  EXPECT_EQ(pathOf(tree, DirectoryTree::kRoot), "");
  EXPECT_EQ(tree.parent(DirectoryTree::kRoot), kNoNode);
}

TEST(DirectoryTree, FindsAFolderByItsPlaceAndByItsKey) {
  DirectoryTree tree;
  const NodeId a = tree.add(DirectoryTree::kRoot, "a");
  const NodeId b = tree.add(a, "b");
  tree.setKey(b, "key of b");
  EXPECT_EQ(tree.child(DirectoryTree::kRoot, "a"), a);
  EXPECT_EQ(tree.child(a, "b"), b);
  EXPECT_EQ(tree.child(DirectoryTree::kRoot, "b"), kNoNode);
  EXPECT_EQ(tree.findByKey("key of b"), b);
  EXPECT_EQ(tree.findByKey("key of a"), kNoNode);
  EXPECT_EQ(tree.findByKey(""), kNoNode);
  EXPECT_EQ(pathOf(tree, b), "/a/b");
}

TEST(DirectoryTree, ChangesEveryPathBelowAFolderThatMoves) {
  DirectoryTree tree;
  const NodeId a = tree.add(DirectoryTree::kRoot, "a");
  const NodeId b = tree.add(a, "b");
  const NodeId c = tree.add(b, "c");
  const NodeId d = tree.add(DirectoryTree::kRoot, "d");
  tree.setKey(b, "kb");
  tree.move(b, d, "new name");
  EXPECT_EQ(pathOf(tree, c), "/d/new name/c");
  EXPECT_EQ(tree.child(a, "b"), kNoNode);
  EXPECT_EQ(tree.child(d, "new name"), b);
  EXPECT_EQ(tree.findByKey("kb"), b);
}

TEST(DirectoryTree, KeepsADetachedFolderKnownWhileAnotherTakesItsPlace) {
  DirectoryTree tree;
  const NodeId old = tree.add(DirectoryTree::kRoot, "x");
  tree.setKey(old, "old");
  tree.detach(old);
  const NodeId fresh = tree.add(DirectoryTree::kRoot, "x");
  EXPECT_EQ(tree.child(DirectoryTree::kRoot, "x"), fresh);
  EXPECT_EQ(tree.findByKey("old"), old);
  EXPECT_EQ(pathOf(tree, old), "/x");
  tree.move(old, fresh, "inside");
  EXPECT_EQ(pathOf(tree, old), "/x/inside");
  EXPECT_FALSE(tree.isDetached(old));
}

TEST(DirectoryTree, TellsTheKeysOfEverythingThatItForgets) {
  DirectoryTree tree;
  const NodeId a = tree.add(DirectoryTree::kRoot, "a");
  const NodeId b = tree.add(a, "b");
  const NodeId detached = tree.add(a, "c");
  tree.setKey(a, "ka");
  tree.setKey(b, "kb");
  tree.setKey(detached, "kc");
  tree.setFlags(b, 7);
  tree.detach(detached);
  std::set<std::string> keys;
  tree.remove(a, [&](NodeId node) {
    keys.emplace(tree.key(node));
    EXPECT_EQ(tree.flags(node), node == b ? 7 : 0);
  });
  EXPECT_EQ(keys, (std::set<std::string>{"ka", "kb", "kc"}));
  EXPECT_EQ(tree.size(), 1U);
  EXPECT_EQ(tree.findByKey("kb"), kNoNode);
}

TEST(DirectoryTree, KeepsTheRootWhenEverythingIsForgotten) {
  DirectoryTree tree;
  tree.setKey(DirectoryTree::kRoot, "root");
  tree.add(DirectoryTree::kRoot, "a");
  tree.remove(DirectoryTree::kRoot, nullptr);
  EXPECT_EQ(tree.size(), 1U);
  EXPECT_EQ(tree.findByKey("root"), kNoNode);
  EXPECT_NE(tree.add(DirectoryTree::kRoot, "a"), kNoNode);
}

TEST(DirectoryTree, HoldsNamesOfAnyBytesAndKeysOfTheLongestHandles) {
  DirectoryTree tree;
  const std::string name("\n\xFF \x01", 4);
  const std::string key(130, '\0');
  const NodeId node = tree.add(DirectoryTree::kRoot, name);
  tree.setKey(node, key);
  EXPECT_EQ(tree.name(node), name);
  EXPECT_EQ(tree.key(node), key);
  EXPECT_EQ(tree.findByKey(key), node);
  EXPECT_EQ(tree.findByKey(std::string(129, '\0')), kNoNode);
}

TEST(DirectoryTree, ForgetsATreeDeeperThanAnyStack) {
  DirectoryTree tree;
  const NodeId top = tree.add(DirectoryTree::kRoot, "d");
  NodeId deepest = top;
  for (int i = 0; i < 200'000; ++i) deepest = tree.add(deepest, "d");
  EXPECT_EQ(pathOf(tree, deepest).size(), 2U * 200'001U);
  tree.remove(top, nullptr);
  EXPECT_EQ(tree.size(), 1U);
}

/// The same operations on a map of paths, which is slow and plainly right.
TEST(DirectoryTree, AgreesWithAMapOfPathsUnderRandomOperations) {
  std::mt19937 random(20261121);
  DirectoryTree tree;
  std::map<std::string, NodeId> model{{"", DirectoryTree::kRoot}};
  int number = 0;
  const auto pick = [&] { return *std::next(model.begin(), static_cast<long>(random() % model.size())); };
  const int steps = longOrShort(20000, 5000);
  for (int step = 0; step < steps; ++step) {
    const auto [path, node] = pick();
    switch (random() % 4) {
      case 0:
      case 1: {
        const std::string name = "n" + std::to_string(++number);
        const NodeId child = tree.add(node, name);
        tree.setKey(child, "k" + name);
        model[path + "/" + name] = child;
        break;
      }
      case 2: {
        const auto [target, parent] = pick();
        if (node == DirectoryTree::kRoot || target == path || target.starts_with(path + "/")) break;
        const std::string name = "m" + std::to_string(++number);
        tree.move(node, parent, name);
        std::map<std::string, NodeId> moved;
        for (const auto& [each, id] : model) {
          const bool below = each == path || each.starts_with(path + "/");
          moved[below ? target + "/" + name + each.substr(path.size()) : each] = id;
        }
        model = std::move(moved);
        break;
      }
      default:
        if (node == DirectoryTree::kRoot || model.size() < 200) break;
        tree.remove(node, nullptr);
        std::erase_if(model, [&path = path](const auto& entry) { return entry.first == path || entry.first.starts_with(path + "/"); });
    }
  }
  ASSERT_EQ(tree.size(), model.size());
  for (const auto& [path, node] : model) {
    ASSERT_EQ(pathOf(tree, node), path);
    if (node == DirectoryTree::kRoot) continue;
    ASSERT_EQ(tree.findByKey(tree.key(node)), node);
    ASSERT_EQ(tree.child(tree.parent(node), tree.name(node)), node);
  }
}

}  // namespace
}  // namespace kestrine::test
