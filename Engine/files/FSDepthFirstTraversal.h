// The common driver of the walks of real folders.  A walk runs wholly on
// the calling thread and stops when the thread is cancelled or the caller's
// flag is set (the thread is asked first), tested before each item and
// before each entry of a listing.  Walks never follow symbolic links: items
// are examined and folders opened relative to their parent folder's
// descriptor, without following a final link.  Unreadable items are skipped
// silently; a folder that cannot be listed counts as empty.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Engine/files/FSVisitor.h"
#include "platform/Directory.h"
#include "platform/OVThread.h"

class FSDepthFirstTraversal {
 public:
  explicit FSDepthFirstTraversal(const std::atomic<bool>* terminationFlag) : isCancelled_(terminationFlag) {}
  virtual ~FSDepthFirstTraversal() = default;
  FSDepthFirstTraversal(const FSDepthFirstTraversal&) = delete;
  FSDepthFirstTraversal& operator=(const FSDepthFirstTraversal&) = delete;

  // startTraversalOfPath, the walk of `path`, finishTraversalOfPath.
  void kickOffRecursionWithPath_visitor(const std::string& path, FSVisitor& visitor);

 protected:
  // Walks the item `name` of `parent` (the walk's top item when `parent` is null) at `path`.
  virtual void _recurse(platform::Directory* parent, const std::string& name, const std::string& path) = 0;
  bool shouldStop() const;
  // Whether the last walk was stopped before its end (shouldStop answered true).
  bool wasStopped() const { return wasStopped_; }
  // The attributes of the item (not followed).
  static bool attributesOf(platform::Directory* parent, const std::string& name, const std::string& path,
                           platform::FileAttributes* attributes, bool preferStoredCreationDate);
  static std::unique_ptr<platform::Directory> openFolder(platform::Directory* parent, const std::string& name,
                                                         const std::string& path);
  static std::string join(const std::string& folder, const std::string& name);

  FSVisitor* visitor_ = nullptr;

 private:
  std::shared_ptr<platform::OVThread> currentThread_;
  mutable bool wasStopped_ = false;
  const std::atomic<bool>* isCancelled_;
};
