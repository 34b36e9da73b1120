#include "Engine/files/FSDepthFirstTraversal.h"

#include "platform/FileManager.h"

void FSDepthFirstTraversal::kickOffRecursionWithPath_visitor(const std::string& path, FSVisitor& visitor) {
  currentThread_ = platform::OVThread::currentThread();
  visitor_ = &visitor;
  wasStopped_ = false;
  visitor.startTraversalOfPath(path);
  _recurse(nullptr, std::string(), path);
  visitor.finishTraversalOfPath(path);
  visitor_ = nullptr;
  currentThread_.reset();
}

bool FSDepthFirstTraversal::shouldStop() const {
  const bool stop = (currentThread_ && currentThread_->isCancelled()) ||
                    (isCancelled_ && isCancelled_->load(std::memory_order_relaxed));
  if (stop) wasStopped_ = true;
  return stop;
}

bool FSDepthFirstTraversal::attributesOf(platform::Directory* parent, const std::string& name, const std::string& path,
                                         platform::FileAttributes* attributes, bool preferStoredCreationDate) {
  if (parent) return parent->attributesOf(name, attributes, preferStoredCreationDate);
  return platform::FileManager::attributesAtPath(path, attributes, preferStoredCreationDate);
}

std::unique_ptr<platform::Directory> FSDepthFirstTraversal::openFolder(platform::Directory* parent,
                                                                       const std::string& name,
                                                                       const std::string& path) {
  return parent ? parent->openChild(name) : platform::Directory::open(path);
}

std::string FSDepthFirstTraversal::join(const std::string& folder, const std::string& name) {
  if (!folder.empty() && folder.back() == '/') return folder + name;
  return folder + "/" + name;
}
