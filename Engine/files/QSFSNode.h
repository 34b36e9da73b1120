// A node of an in-memory file tree: one file or folder, with its attributes
// as seen in the source (the user's home) and in the destination (the
// backup folder), and, for a file with stored copies, its stored versions,
// newest first.
//
// The root node's path is the full path of the tree's top folder; every
// other node's path is its own file name.  Parents own their children; a
// child's parent is a plain back reference.  Trees are built and read by one
// thread at a time; another thread gets a deepCopy.  Every node is made as
// a QSFSMutableNode, so `QSFSMutableNode::from` may be applied to any node.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Engine/files/QSFSChildMap.h"
#include "Engine/files/QSFSFileAttributes.h"
#include "Engine/files/QSFSName.h"
#include "Engine/files/QSFSVersion.h"

class QSFSNodeVisitor;
class QSFSMutableNode;

class QSFSNode {
 public:
  // A node with no path, no children and no versions.
  static std::shared_ptr<QSFSNode> init();
  static std::shared_ptr<QSFSNode> initWithPath(std::string_view path);
  // With versions, keeps a copy of them sorted newest first.
  static std::shared_ptr<QSFSNode> initWithFileName_versions(std::string_view fileName,
                                                             const QSFSVersionArray* versions);

  QSFSNode(const QSFSNode&) = delete;
  QSFSNode& operator=(const QSFSNode&) = delete;

  const QSFSChildMap& children() const;
  // The stored copies, newest first (a list made for the asking).
  QSFSVersionArray versions() const;
  size_t versionCount() const { return firstVersion_ ? 1 + (moreVersions_ ? moreVersions_->size() : 0) : 0; }
  QSFSNode* parent() const { return parent_; }
  std::string_view path() const { return path_.view(); }
  QSFSFileAttributes sourceAttributes() const { return src_; }
  // The attributes set for the stored item; for a file whose stored copies
  // are known and that has none set, those of its newest copy (kept once, in
  // the version, since a backup folder holds as many copies as files).
  QSFSFileAttributes destinationAttributes() const;
  // The last path component of `path`.
  std::string fileName() const { return std::string(fileNameView()); }
  // The same without a copy (valid while the node's path is unchanged).
  std::string_view fileNameView() const;
  // Whether a versions list exists, even an empty one.
  bool hasVersions() const { return firstVersion_ || moreVersions_; }
  std::shared_ptr<QSFSNode> childWithName(std::string_view name) const;
  // The children in the map's order.
  std::vector<std::shared_ptr<QSFSNode>> childEnumerator() const;
  const std::shared_ptr<QSFSVersion>& latestVersion() const;
  std::shared_ptr<QSFSVersion> oldestVersion() const;
  // Parent's full path joined with the version's file name; nothing without a
  // parent or version.  An index past the end raises "NSRangeException".
  std::optional<std::string> fullPathToVersionAtIndex(uint32_t index) const;
  std::optional<std::string> fullPathToLatestVersion() const { return fullPathToVersionAtIndex(0); }
  // Paths of the nodes from here up to (not including) the root; "" for the root.
  std::string relativePath() const;
  // The same chain including the root's path.
  std::string fullPath() const;
  // Deletes stored copies so that, with the copy about to be written, `keep`
  // remain: with n versions and n >= keep, the n - keep + 1 oldest go.  The
  // versions list is left as it was.  With keep = 0 it raises after deleting all.
  void removeOldestVersionsOfFile_fromBackupFolder(uint32_t keep, const std::string& folder) const;
  // The same, for copies in `relativeFolder` below the trusted `root`: no
  // link or mount point on the way is crossed (the backup engine prunes
  // folders on a disk that users can write to).
  void removeOldestVersionsOfFile_beneath_inFolder(uint32_t keep, const std::string& root,
                                                   const std::string& relativeFolder) const;
  // Walks this node and everything below it (the visitor's start answers are ignored).
  void depthFirstTraverseWith(QSFSNodeVisitor& visitor);

  std::string description() const;

 protected:
  QSFSNode() = default;
  friend class QSFSMutableNode;

  // Laid out for memory (a tree has a node for every item of a home
  // folder): 88 bytes, so that a node and its shared count fill one 112-byte
  // heap block.  Most files have one stored copy, which the node holds
  // itself; a list is made only for the others.  A versions list that
  // exists but is empty is an empty `moreVersions_`.
  QSFSName path_;
  QSFSNode* parent_ = nullptr;
  std::unique_ptr<QSFSChildMap> children_;  // made on the first child
  std::shared_ptr<QSFSVersion> firstVersion_;          // the newest copy
  std::unique_ptr<QSFSVersionArray> moreVersions_;     // the older ones, newest first
  QSFSFileAttributes src_;
  std::unique_ptr<QSFSFileAttributes> dst_;  // made when first set

  const std::shared_ptr<QSFSVersion>& versionAt(size_t index) const {
    return index == 0 ? firstVersion_ : (*moreVersions_)[index - 1];
  }
  // Keeps `sorted` (newest first) as the node's versions list.
  void keepVersions(const QSFSVersionArray& sorted);

 private:
  void removeOldestVersions(uint32_t keep, const std::function<void(const std::string&)>& remove) const;
  void visit(const std::shared_ptr<QSFSNode>& self, QSFSNodeVisitor& visitor);
};

class QSFSMutableNode : public QSFSNode {
 public:
  static std::shared_ptr<QSFSMutableNode> init();
  static std::shared_ptr<QSFSMutableNode> initWithPath(std::string_view path);
  static std::shared_ptr<QSFSMutableNode> initWithFileName_versions(std::string_view fileName,
                                                                    const QSFSVersionArray* versions);
  // Any node as a mutable node (every node is made as one).
  static std::shared_ptr<QSFSMutableNode> from(const std::shared_ptr<QSFSNode>& node) {
    return std::static_pointer_cast<QSFSMutableNode>(node);
  }

  void setParent(QSFSNode* parent) { parent_ = parent; }
  void setSourceAttributes(const QSFSFileAttributes& a) { src_ = a; }
  void setDestinationAttributes(const QSFSFileAttributes& a);
  // Stores the node under its file name (replacing a child of that name in
  // any letter case) and makes this node its parent.
  void addNode(const std::shared_ptr<QSFSNode>& node);
  // Keeps a copy sorted newest first.
  void setVersions(const QSFSVersionArray& versions);
  // Keeps the given list in its own order.
  void _setVersions(const QSFSVersionArray& versions) { keepVersions(versions); }
  // A free-standing copy of this node and everything below it; the copies
  // share the stored-copy objects.
  std::shared_ptr<QSFSMutableNode> deepCopy() const;

  struct Passkey {
    explicit Passkey() = default;
  };
  explicit QSFSMutableNode(Passkey) {}

 private:
  std::shared_ptr<QSFSMutableNode> copyBelow(QSFSNode* parent) const;
};
