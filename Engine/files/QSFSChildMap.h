// The children of a file-tree node, keyed by file name ignoring letter case.
//
// This is the node's case-insensitive map, laid out for memory: a home
// folder of 100,000 files becomes 100,000 nodes, so the key is not stored
// beside each child (it is the child's own file name) and a leaf node has no
// map at all.  Children enumerate in the order they were added; changing
// the map while it is enumerated raises ("NSGenericException").
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class QSFSNode;

class QSFSChildMap {
 public:
  using Node = std::shared_ptr<QSFSNode>;

  // Stores `node` under its file name, replacing a child of the same name in any letter case.
  void setNode(Node node);
  // The child of that name in any letter case, or nullptr.
  Node objectForKey(std::string_view name) const;
  void removeObjectForKey(const std::string& name);
  void removeAllObjects();
  uint32_t count() const { return static_cast<uint32_t>(entries_.size()); }

  // Calls `visit` with each child, in insertion order; raises if the map is
  // changed meanwhile.
  void enumerate(const std::function<void(const Node&)>& visit) const;
  // The lower-cased keys and the children, as lists.
  std::vector<std::string> keyEnumerator() const;
  std::vector<Node> objectEnumerator() const { return entries_; }

 private:
  // The hash of a name's lower-cased key.
  static uint64_t hashOf(std::string_view name);
  // Index slot of the name (with its hash): where it is, or where it would go.
  size_t probe(std::string_view name, uint64_t hash, bool* found) const;
  void rebuild(size_t capacity);

  std::vector<Node> entries_;
  // Open addressing: (hash high 32 bits << 32) | (entry index + 1); 0 is empty.
  std::vector<uint64_t> slots_;
  uint64_t mutations_ = 0;
};
