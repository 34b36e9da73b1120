#include "Engine/files/FSDepthFirstTraversal.h"

#include "platform/FileManager.h"

void FSDepthFirstTraversal::kickOffRecursionWithPath_visitor(const std::string& path, FSVisitor& visitor) {
  currentThread_ = platform::OVThread::currentThread();
  visitor_ = &visitor;
  wasStopped_ = false;
  foldersRead_ = 0;
  foldersReused_ = 0;
  visitor.startTraversalOfPath(path);
  _recurse(path);
  visitor.finishTraversalOfPath(path);
  visitor_ = nullptr;
  currentThread_.reset();
}

void FSDepthFirstTraversal::setMemos(std::shared_ptr<const QSWalkMemo> earlier,
                                     std::shared_ptr<const QSChangedFolders> changed,
                                     std::shared_ptr<QSWalkMemo> next) {
  if (!earlier || !changed) {
    earlier.reset();
    changed.reset();
  }
  earlier_ = std::move(earlier);
  changed_ = std::move(changed);
  next_ = std::move(next);
}

bool FSDepthFirstTraversal::shouldStop() const {
  const bool stop = (currentThread_ && currentThread_->isCancelled()) ||
                    (isCancelled_ && isCancelled_->load(std::memory_order_relaxed));
  if (stop) wasStopped_ = true;
  return stop;
}

bool FSDepthFirstTraversal::topAttributes(const std::string& path, platform::FileAttributes* attributes,
                                          bool preferStoredCreationDate) {
  return platform::FileManager::attributesAtPath(path, attributes, preferStoredCreationDate);
}

platform::Directory* FSDepthFirstTraversal::Folder::open() {
  if (!tried_) {
    tried_ = true;
    if (!parent_) {
      directory_ = platform::Directory::open(path_);
    } else if (platform::Directory* parent = parent_->open()) {
      directory_ = parent->openChild(name_);
    }
  }
  return directory_.get();
}

std::optional<QSWalkMemo::Listing> FSDepthFirstTraversal::reusableListing(const std::string& path) const {
  if (!earlier_ || changed_->listingChanged(path)) return std::nullopt;
  return earlier_->listingOf(path);
}

namespace {
std::atomic<size_t> bound{65536};
}

size_t FSDepthFirstTraversal::listingBound() { return bound.load(std::memory_order_relaxed); }
void FSDepthFirstTraversal::setListingBound(size_t entries) { bound.store(entries < 1 ? 1 : entries); }

std::string FSDepthFirstTraversal::join(const std::string& folder, const std::string& name) {
  std::string path;
  joinInto(&path, folder, name);
  return path;
}

void FSDepthFirstTraversal::joinInto(std::string* path, const std::string& folder, const std::string& name) {
  path->assign(folder);
  if (folder.empty() || folder.back() != '/') path->push_back('/');
  path->append(name);
}
