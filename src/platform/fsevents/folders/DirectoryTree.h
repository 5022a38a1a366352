#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fsevents/event/HashIndex.h"

namespace platform::fsevents {

using NodeId = std::uint32_t;
inline constexpr NodeId kNoNode = 0xFFFFFFFF;

/// The folders of one watched tree: who is whose parent, under which name, and by which key the kernel speaks of each. A rename is one
/// change of one node, so no path is ever stored; it is put together from the names when somebody asks.
///
/// Built for a hundred thousand folders and more: 32 bytes a node, one allocation for name and key, two indices of node numbers. Every
/// operation costs the length of the path or of the subtree that it touches, never the size of the tree.
///
/// Threads: owned and used by one thread.
class DirectoryTree {
 public:
  DirectoryTree();

  static constexpr NodeId kRoot = 0;

  /// A new folder below `parent`; the place must be free. No other folder may have the key; an empty one is none.
  NodeId add(NodeId parent, std::string_view name, std::string_view key = {});
  /// Gives the folder its key (replacing a former one). No other folder may have it.
  void setKey(NodeId node, std::string_view key);
  /// Moves the folder with everything below it; the place must be free. Attaches it again if it was detached. `newParent` is not below it.
  void move(NodeId node, NodeId newParent, std::string_view newName);
  /// Frees the folder's place for another while the folder itself stays known by its key (and its path stays what it was).
  void detach(NodeId node);
  /// Forgets the folder and everything below it; `forgotten` is told each before it goes. The root stays, without key and children.
  void remove(NodeId node, const std::function<void(NodeId node)>& forgotten);

  [[nodiscard]] NodeId findByKey(std::string_view key) const;
  [[nodiscard]] NodeId child(NodeId parent, std::string_view name) const;
  [[nodiscard]] NodeId parent(NodeId node) const { return at(node).parent; }
  [[nodiscard]] std::string_view name(NodeId node) const;
  [[nodiscard]] std::string_view key(NodeId node) const;
  [[nodiscard]] bool isDetached(NodeId node) const { return at(node).detached; }
  [[nodiscard]] bool isBelowOrSame(NodeId node, NodeId ancestor) const;
  /// Appends "/name" for every folder from below the root down to `node`; nothing for the root.
  void appendPath(NodeId node, std::string& path) const;

  /// Eight bits of the owner's own and a number of the owner's own.
  [[nodiscard]] std::uint8_t flags(NodeId node) const { return at(node).flags; }
  void setFlags(NodeId node, std::uint8_t flags) { at(node).flags = flags; }
  [[nodiscard]] std::uint16_t generation(NodeId node) const { return at(node).generation; }
  void setGeneration(NodeId node, std::uint16_t generation) { at(node).generation = generation; }

  /// Number of folders, the root included.
  [[nodiscard]] std::size_t size() const { return size_; }
  /// Calls `visit` for each folder in no particular order; it must not change the tree.
  void forEach(const std::function<void(NodeId)>& visit) const;
  /// The children of `node` in no particular order, detached ones included.
  void forEachChild(NodeId node, const std::function<void(NodeId)>& visit) const;
  /// `top` and every folder below it, each before what it holds, detached ones included; `visit` must not add, move or remove any.
  void forEachBelow(NodeId top, const std::function<void(NodeId)>& visit) const;

 private:
  struct Node {
    NodeId parent = kNoNode;
    NodeId firstChild = kNoNode;
    NodeId next = kNoNode;
    NodeId previous = kNoNode;
    /// Two bytes length of the name, one byte length of the key, the key, the name.
    std::unique_ptr<char[]> text;  // NOLINT(modernize-avoid-c-arrays): one allocation of run-time length
    std::uint16_t generation = 0;
    std::uint8_t flags = 0;
    bool detached = false;
  };

  static constexpr unsigned kChunkBits = 10;
  static constexpr std::size_t kChunkSize = std::size_t{1} << kChunkBits;

  [[nodiscard]] Node& at(NodeId node) { return chunks_[node >> kChunkBits][node & (kChunkSize - 1)]; }
  [[nodiscard]] const Node& at(NodeId node) const { return chunks_[node >> kChunkBits][node & (kChunkSize - 1)]; }
  NodeId allocate();
  void release(NodeId node);
  void setText(NodeId node, std::string_view name, std::string_view key);
  void link(NodeId node, NodeId parent);
  void unlink(NodeId node);
  [[nodiscard]] std::uint32_t keyHash(NodeId node) const;
  [[nodiscard]] std::uint32_t placeHash(NodeId node) const;

  std::vector<std::unique_ptr<Node[]>> chunks_;  // NOLINT(modernize-avoid-c-arrays): fixed chunks keep nodes in place
  NodeId fresh_ = 0;
  NodeId freeList_ = kNoNode;
  std::size_t size_ = 0;
  HashIndex byKey_;
  HashIndex byPlace_;
};

}  // namespace platform::fsevents
