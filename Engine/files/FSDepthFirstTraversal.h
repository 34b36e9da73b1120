// The common driver of the walks of real folders.  A walk runs wholly on
// the calling thread and stops when the thread is cancelled or the caller's
// flag is set (the thread is asked first), tested before each item and
// before each entry of a listing.  Walks never follow symbolic links: items
// are examined and folders opened relative to their parent folder's
// descriptor, without following a final link.  Unreadable items are skipped
// silently; a folder that cannot be listed counts as empty.
//
// A walk reads each folder's listing whole — every entry's name and
// attributes — before it visits the entries in the order they were read.
// Given memos (setMemos), it records each listing it uses in the new memo
// and takes a folder's listing from the earlier memo, without reading the
// folder, when the earlier walk listed it and the folder is not among those
// changed since; the folder is then opened only if an entry below it must
// be read.  The walk's top item is always examined on the disk.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Engine/files/FSVisitor.h"
#include "Engine/files/QSChangedFolders.h"
#include "Engine/files/QSWalkMemo.h"
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

  // The memo this walk fills (`next`, may be null) and the one it may take
  // listings from (`earlier`, with the folders changed since it began; both
  // or neither).  Kept for the walks that follow until changed.
  void setMemos(std::shared_ptr<const QSWalkMemo> earlier, std::shared_ptr<const QSChangedFolders> changed,
                std::shared_ptr<QSWalkMemo> next);
  // Folders of the last walk whose listing was read from the disk, and taken from the earlier memo.
  size_t foldersRead() const { return foldersRead_; }
  size_t foldersReused() const { return foldersReused_; }
  // Whether the last walk was stopped before its end (shouldStop answered true).
  bool wasStopped() const { return wasStopped_; }
  // The most entries of one folder a walk holds at once (65,536 unless changed; tests lower it).
  static size_t listingBound();
  static void setListingBound(size_t entries);

 protected:
  // A folder of the walk, opened when first needed: relative to its
  // parent's descriptor (the parent opened in turn if need be), or by its
  // path for the walk's top item.
  class Folder {
   public:
    Folder(Folder* parent, std::string name, std::string path)
        : parent_(parent), name_(std::move(name)), path_(std::move(path)) {}
    // Nothing when the folder cannot be opened (tried once).
    platform::Directory* open();
    const std::string& path() const { return path_; }

   private:
    Folder* parent_;
    std::string name_;
    std::string path_;
    std::unique_ptr<platform::Directory> directory_;
    bool tried_ = false;
  };

  // Walks the walk's top item at `path`.
  virtual void _recurse(const std::string& path) = 0;
  bool shouldStop() const;
  // The attributes of the walk's top item (not followed).
  static bool topAttributes(const std::string& path, platform::FileAttributes* attributes, bool preferStoredCreationDate);
  // Calls `each(name, attributes)` for every entry of `folder`, in listing
  // order: taken from the earlier memo when it may stand, otherwise read
  // whole with `read(directory, items, limit)` (which adds at most `limit`
  // entries read from the open folder and answers whether the folder has
  // no more) before the first is visited; recorded in the new memo either
  // way.  A folder of more than listingBound() entries is visited in
  // chunks as it is read and not recorded (a later walk reads it again), so
  // that a walk never holds more than that many entries of one folder.  A
  // folder that cannot be opened has no entries.
  template <typename Read, typename Each>
  void forEachEntry(Folder& folder, Read read, Each each);
  static std::string join(const std::string& folder, const std::string& name);
  // The same into `path`, whose storage is reused (one buffer serves all the entries of a folder).
  static void joinInto(std::string* path, const std::string& folder, const std::string& name);

  FSVisitor* visitor_ = nullptr;

 private:
  std::optional<QSWalkMemo::Listing> reusableListing(const std::string& path) const;

  std::shared_ptr<platform::OVThread> currentThread_;
  mutable bool wasStopped_ = false;
  const std::atomic<bool>* isCancelled_;
  std::shared_ptr<const QSWalkMemo> earlier_;
  std::shared_ptr<const QSChangedFolders> changed_;
  std::shared_ptr<QSWalkMemo> next_;
  size_t foldersRead_ = 0;
  size_t foldersReused_ = 0;
};

template <typename Read, typename Each>
void FSDepthFirstTraversal::forEachEntry(Folder& folder, Read read, Each each) {
  if (const auto listing = reusableListing(folder.path())) {
    ++foldersReused_;
    if (next_) next_->addListing(folder.path(), *listing);
    std::string name;
    std::string_view read;
    platform::FileAttributes attributes;
    QSWalkMemo::Listing::Reader reader(*listing);
    while (reader.next(&read, &attributes)) {
      if (shouldStop()) return;
      name.assign(read);
      each(name, attributes);
    }
    return;
  }
  platform::Directory* directory = folder.open();
  if (!directory) return;
  ++foldersRead_;
  std::vector<QSWalkMemo::Item> items;
  const size_t bound = listingBound();
  bool whole = read(*directory, &items, bound);
  // A listing cut short by a stop is not a listing of the folder.
  if (shouldStop()) return;
  if (whole && next_) next_->addListing(folder.path(), items);
  for (;;) {
    for (const auto& item : items) {
      if (shouldStop()) return;
      each(item.name, item.attributes);
    }
    if (whole) return;
    items.clear();
    whole = read(*directory, &items, bound);
  }
}
