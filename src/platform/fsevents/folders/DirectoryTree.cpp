#include "platform/fsevents/folders/DirectoryTree.h"

#include <cstring>
#include <functional>

namespace platform::fsevents {
namespace {

constexpr std::size_t kTextHeader = 3;

std::uint32_t hashBytes(std::string_view bytes, std::size_t seed) {
  // The multiplier spreads neighbouring seeds (node numbers) over the whole word.
  const std::size_t hash = std::hash<std::string_view>{}(bytes) ^ (seed * 0x9E3779B97F4A7C15ULL);
  return static_cast<std::uint32_t>(hash ^ (hash >> 32U));
}

}  // namespace

DirectoryTree::DirectoryTree() {
  const NodeId root = allocate();
  setText(root, "", "");
}

NodeId DirectoryTree::allocate() {
  ++size_;
  if (freeList_ != kNoNode) {
    const NodeId node = freeList_;
    freeList_ = at(node).next;
    at(node) = Node{};
    return node;
  }
  if ((fresh_ & (kChunkSize - 1)) == 0) chunks_.push_back(std::make_unique<Node[]>(kChunkSize));  // NOLINT(modernize-avoid-c-arrays)
  return fresh_++;
}

void DirectoryTree::release(NodeId node) {
  at(node) = Node{};
  at(node).next = freeList_;
  freeList_ = node;
  --size_;
}

void DirectoryTree::setText(NodeId node, std::string_view name, std::string_view key) {
  auto text = std::make_unique<char[]>(kTextHeader + key.size() + name.size());  // NOLINT(modernize-avoid-c-arrays)
  const auto length = static_cast<std::uint16_t>(name.size());
  std::memcpy(text.get(), &length, sizeof length);
  text[2] = static_cast<char>(key.size());
  // Either may be empty, and then without an address, which memcpy must not be given.
  key.copy(text.get() + kTextHeader, key.size());
  name.copy(text.get() + kTextHeader + key.size(), name.size());
  at(node).text = std::move(text);
}

std::string_view DirectoryTree::name(NodeId node) const {
  const char* text = at(node).text.get();
  std::uint16_t length = 0;
  std::memcpy(&length, text, sizeof length);
  return {text + kTextHeader + static_cast<unsigned char>(text[2]), length};
}

std::string_view DirectoryTree::key(NodeId node) const {
  const char* text = at(node).text.get();
  return {text + kTextHeader, static_cast<unsigned char>(text[2])};
}

std::uint32_t DirectoryTree::keyHash(NodeId node) const { return hashBytes(key(node), 0); }

std::uint32_t DirectoryTree::placeHash(NodeId node) const { return hashBytes(name(node), at(node).parent + 1); }

void DirectoryTree::link(NodeId node, NodeId parent) {
  Node& item = at(node);
  item.parent = parent;
  item.previous = kNoNode;
  item.next = at(parent).firstChild;
  if (item.next != kNoNode) at(item.next).previous = node;
  at(parent).firstChild = node;
}

void DirectoryTree::unlink(NodeId node) {
  Node& item = at(node);
  if (item.previous != kNoNode) {
    at(item.previous).next = item.next;
  } else {
    at(item.parent).firstChild = item.next;
  }
  if (item.next != kNoNode) at(item.next).previous = item.previous;
}

NodeId DirectoryTree::add(NodeId parent, std::string_view name, std::string_view key) {
  const NodeId node = allocate();
  setText(node, name, key);
  link(node, parent);
  byPlace_.insert(placeHash(node), node);
  if (!key.empty()) byKey_.insert(keyHash(node), node);
  return node;
}

void DirectoryTree::setKey(NodeId node, std::string_view newKey) {
  if (key(node) == newKey) return;
  if (!key(node).empty()) byKey_.erase(keyHash(node), node);
  const std::string keptName(name(node));
  setText(node, keptName, newKey);
  if (!newKey.empty()) byKey_.insert(keyHash(node), node);
}

void DirectoryTree::detach(NodeId node) {
  if (at(node).detached || node == kRoot) return;
  byPlace_.erase(placeHash(node), node);
  at(node).detached = true;
}

void DirectoryTree::move(NodeId node, NodeId newParent, std::string_view newName) {
  detach(node);
  unlink(node);
  const std::string keptName(newName);
  const std::string keptKey(key(node));
  setText(node, keptName, keptKey);
  link(node, newParent);
  at(node).detached = false;
  byPlace_.insert(placeHash(node), node);
}

void DirectoryTree::remove(NodeId top, const std::function<void(NodeId node)>& forgotten) {
  // Leaves first, without recursion: a tree may be deeper than any stack.
  NodeId node = top;
  while (true) {
    if (at(node).firstChild != kNoNode) {
      node = at(node).firstChild;
      continue;
    }
    const NodeId above = at(node).parent;
    if (forgotten) forgotten(node);
    if (!key(node).empty()) byKey_.erase(keyHash(node), node);
    if (node == kRoot) {
      setText(node, "", "");
      at(node).flags = 0;
      return;
    }
    if (!at(node).detached) byPlace_.erase(placeHash(node), node);
    unlink(node);
    release(node);
    if (node == top) return;
    node = above;
  }
}

NodeId DirectoryTree::findByKey(std::string_view wanted) const {
  if (wanted.empty()) return kNoNode;
  return byKey_.find(hashBytes(wanted, 0), [&](NodeId node) { return key(node) == wanted; });
}

NodeId DirectoryTree::child(NodeId parent, std::string_view wanted) const {
  return byPlace_.find(hashBytes(wanted, parent + 1), [&](NodeId node) { return at(node).parent == parent && name(node) == wanted; });
}

bool DirectoryTree::isBelowOrSame(NodeId node, NodeId ancestor) const {
  for (; node != kNoNode; node = at(node).parent) {
    if (node == ancestor) return true;
  }
  return false;
}

void DirectoryTree::appendPath(NodeId node, std::string& path) const {
  std::size_t length = 0;
  for (NodeId step = node; step != kRoot; step = at(step).parent) length += 1 + name(step).size();
  path.resize(path.size() + length);
  char* end = path.data() + path.size();
  for (NodeId step = node; step != kRoot; step = at(step).parent) {
    const std::string_view text = name(step);
    end -= text.size();
    std::memcpy(end, text.data(), text.size());
    *--end = '/';
  }
}

void DirectoryTree::forEach(const std::function<void(NodeId)>& visit) const {
  for (NodeId node = 0; node < fresh_; ++node) {
    if (at(node).text) visit(node);
  }
}

void DirectoryTree::forEachChild(NodeId node, const std::function<void(NodeId)>& visit) const {
  for (NodeId child = at(node).firstChild; child != kNoNode;) {
    const NodeId next = at(child).next;
    visit(child);
    child = next;
  }
}

void DirectoryTree::forEachBelow(NodeId top, const std::function<void(NodeId)>& visit) const {
  std::vector<NodeId> stack{top};
  while (!stack.empty()) {
    const NodeId node = stack.back();
    stack.pop_back();
    visit(node);
    forEachChild(node, [&](NodeId child) { stack.push_back(child); });
  }
}

}  // namespace platform::fsevents
