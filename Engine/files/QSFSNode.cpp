#include "Engine/files/QSFSNode.h"

#include <cinttypes>
#include <cstdio>

#include "Engine/files/QSBackupFolderWrites.h"
#include "Engine/files/QSFSNodeVisitor.h"
#include "platform/Date.h"
#include "platform/Exception.h"
#include "platform/FileCopier.h"
#include "platform/FileManager.h"
#include "platform/Format.h"
#include "platform/Path.h"

namespace {

const QSFSChildMap& emptyChildren() {
  static const QSFSChildMap empty;
  return empty;
}

}  // namespace

static_assert(sizeof(QSFSMutableNode) == 88, "a node and its shared count fill one 112-byte heap block");

std::shared_ptr<QSFSNode> QSFSNode::init() { return QSFSMutableNode::init(); }
std::shared_ptr<QSFSNode> QSFSNode::initWithPath(std::string_view path) { return QSFSMutableNode::initWithPath(path); }
std::shared_ptr<QSFSNode> QSFSNode::initWithFileName_versions(std::string_view fileName,
                                                              const QSFSVersionArray* versions) {
  return QSFSMutableNode::initWithFileName_versions(fileName, versions);
}

std::shared_ptr<QSFSMutableNode> QSFSMutableNode::init() { return std::make_shared<QSFSMutableNode>(Passkey()); }

std::shared_ptr<QSFSMutableNode> QSFSMutableNode::initWithPath(std::string_view path) {
  auto node = init();
  node->path_ = QSFSName(path);
  return node;
}

std::shared_ptr<QSFSMutableNode> QSFSMutableNode::initWithFileName_versions(std::string_view fileName,
                                                                            const QSFSVersionArray* versions) {
  auto node = initWithPath(fileName);
  if (versions) node->setVersions(*versions);
  return node;
}

const QSFSChildMap& QSFSNode::children() const { return children_ ? *children_ : emptyChildren(); }

std::string_view QSFSNode::fileNameView() const {
  std::string_view p = path_.view();
  while (p.size() > 1 && p.back() == '/') p.remove_suffix(1);
  const auto slash = p.find_last_of('/');
  if (slash == std::string_view::npos || p.size() == 1) return p;
  return p.substr(slash + 1);
}

std::shared_ptr<QSFSNode> QSFSNode::childWithName(std::string_view name) const {
  return children_ ? children_->objectForKey(name) : nullptr;
}

std::vector<std::shared_ptr<QSFSNode>> QSFSNode::childEnumerator() const { return children().objectEnumerator(); }

QSFSVersionArray QSFSNode::versions() const {
  QSFSVersionArray all;
  all.reserve(versionCount());
  for (size_t i = 0; i < versionCount(); ++i) all.push_back(versionAt(i));
  return all;
}

const std::shared_ptr<QSFSVersion>& QSFSNode::latestVersion() const { return firstVersion_; }

std::shared_ptr<QSFSVersion> QSFSNode::oldestVersion() const {
  const size_t count = versionCount();
  return count ? versionAt(count - 1) : nullptr;
}

void QSFSNode::keepVersions(const QSFSVersionArray& sorted) {
  firstVersion_.reset();
  moreVersions_.reset();
  for (const auto& version : sorted) {
    if (!version) continue;  // no copy: nothing to keep
    if (!firstVersion_) {
      firstVersion_ = version;
      continue;
    }
    if (!moreVersions_) {
      moreVersions_ = std::make_unique<QSFSVersionArray>();
      moreVersions_->reserve(sorted.size() - 1);
    }
    moreVersions_->push_back(version);
  }
  // A list, with nothing in it.
  if (!firstVersion_) moreVersions_ = std::make_unique<QSFSVersionArray>();
}

std::optional<std::string> QSFSNode::fullPathToVersionAtIndex(uint32_t index) const {
  const size_t count = versionCount();
  if (index >= count)
    platform::Exception::raise("NSRangeException", "index %u beyond bounds [0 .. %zu]", index, count ? count - 1 : 0);
  const auto& version = versionAt(index);
  if (!version || !parent_) return std::nullopt;
  return platform::appendingPathComponent(parent_->fullPath(), version->fileName());
}

std::string QSFSNode::relativePath() const {
  if (!parent_) return "";
  const std::string above = parent_->relativePath();
  return above.empty() ? path_.str() : platform::appendingPathComponent(above, path_.str());
}

std::string QSFSNode::fullPath() const {
  if (!parent_) return path_.str();
  return platform::appendingPathComponent(parent_->fullPath(), path_.str());
}

void QSFSNode::removeOldestVersionsOfFile_fromBackupFolder(uint32_t keep, const std::string& folder) const {
  removeOldestVersions(keep, [&](const std::string& name) {
    platform::FileManager::removeItemAtPath(platform::appendingPathComponent(folder, name));
  });
}

void QSFSNode::removeOldestVersionsOfFile_beneath_inFolder(uint32_t keep, const std::string& root,
                                                          const std::string& relativeFolder) const {
  removeOldestVersions(keep, [&](const std::string& name) {
    const std::string relative = platform::appendingPathComponent(relativeFolder, name);
    platform::FileCopier::removeItemBeneath(root, relative);
    QSBackupFolderWrites::noteChangedItem(platform::appendingPathComponent(root, relative));
  });
}

void QSFSNode::removeOldestVersions(uint32_t keep, const std::function<void(const std::string&)>& remove) const {
  const size_t n = versionCount();
  if (n == 0 || n < keep) return;
  const size_t toDelete = n - keep + 1;
  for (size_t j = 0; j < toDelete; ++j) {
    if (j >= n)  // keep = 0: one more than there is
      platform::Exception::raise("NSRangeException", "index -1 beyond bounds [0 .. %zu]", n - 1);
    const auto& version = versionAt(n - 1 - j);
    if (version && !version->fileName().empty()) remove(version->fileName());
  }
}

void QSFSNode::depthFirstTraverseWith(QSFSNodeVisitor& visitor) {
  // The walk needs this node as a shared pointer: every node is owned by one,
  // and the root is passed in by its owner, so an aliasing pointer serves.
  const std::shared_ptr<QSFSNode> self(std::shared_ptr<QSFSNode>(), this);
  visitor.startTraversalOfRoot(self);
  visit(self, visitor);
  visitor.finishTraversalOfRoot(self);
}

void QSFSNode::visit(const std::shared_ptr<QSFSNode>& self, QSFSNodeVisitor& visitor) {
  visitor.startVisit(self);
  children().enumerate([&](const std::shared_ptr<QSFSNode>& child) { child->visit(child, visitor); });
  visitor.finishVisit(self);
}

std::string QSFSNode::description() const {
  std::string versions = "(null)";
  if (hasVersions()) {
    versions = "(\n";
    const size_t count = versionCount();
    for (size_t i = 0; i < count; ++i) {
      versions += "    \"" + versionAt(i)->description() + "\"";
      versions += i + 1 < count ? ",\n" : "\n";
    }
    versions += ")";
  }
  char children[64];
  std::snprintf(children, sizeof children, "<QSCaseInsensitiveMap: %p>", static_cast<const void*>(&this->children()));
  const QSFSFileAttributes dst = destinationAttributes();
  return platform::format(
      "path=%s\n\tsrcAttributes.size=%llu\n\tsrcAttributes.type=%ld\n\tsrcAttributes.creationDate=%s\n\tsrcAttributes=%"
      "s\n\tdstAttributes.size=%llu\n\tdstAttributes.type=%ld\n\tdstAttributes.creationDate=%s\n\tdstAttributes."
      "modificationDate=%s\n\tversions=%s\n\tchildren=%s",
      path_.c_str(), static_cast<unsigned long long>(src_.size), static_cast<long>(src_.type),
      platform::Date(src_.creationDate).description().c_str(),
      platform::Date(src_.modificationDate).description().c_str(), static_cast<unsigned long long>(dst.size),
      static_cast<long>(dst.type), platform::Date(dst.creationDate).description().c_str(),
      platform::Date(dst.modificationDate).description().c_str(), versions.c_str(), children);
}

QSFSFileAttributes QSFSNode::destinationAttributes() const {
  if (dst_) return *dst_;
  if (firstVersion_) return firstVersion_->attributes();
  return QSFSFileAttributes();
}

void QSFSMutableNode::setDestinationAttributes(const QSFSFileAttributes& a) {
  if (dst_)
    *dst_ = a;
  else
    dst_ = std::make_unique<QSFSFileAttributes>(a);
}

void QSFSMutableNode::addNode(const std::shared_ptr<QSFSNode>& node) {
  if (!node) return;
  if (!children_) children_ = std::make_unique<QSFSChildMap>();
  children_->setNode(node);
  node->parent_ = this;
}

void QSFSMutableNode::setVersions(const QSFSVersionArray& versions) {
  if (versions.size() <= 1) {  // already in order, and the usual case: no sorted copy is made
    keepVersions(versions);
    return;
  }
  keepVersions(*QSSortedVersions(versions));
}

std::shared_ptr<QSFSMutableNode> QSFSMutableNode::copyBelow(QSFSNode* parent) const {
  auto copy = init();
  copy->path_ = path_;
  copy->src_ = src_;
  if (dst_) copy->dst_ = std::make_unique<QSFSFileAttributes>(*dst_);
  copy->parent_ = parent;
  if (children_) {
    copy->children_ = std::make_unique<QSFSChildMap>();
    children_->enumerate([&](const std::shared_ptr<QSFSNode>& child) {
      auto childCopy = static_cast<const QSFSMutableNode&>(*child).copyBelow(copy.get());
      copy->children_->setNode(childCopy);
    });
  }
  copy->firstVersion_ = firstVersion_;
  if (moreVersions_) copy->moreVersions_ = std::make_unique<QSFSVersionArray>(*moreVersions_);
  return copy;
}

std::shared_ptr<QSFSMutableNode> QSFSMutableNode::deepCopy() const { return copyBelow(nullptr); }
