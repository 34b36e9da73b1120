// Which folders changed, and since when: the record that lets a walk take
// a folder's listing from what an earlier walk read (QSWalkMemo) instead of
// reading it again.
//
// The journal follows roots (home folders, backup folders).  Changes are
// noted by path as they happen — by the file-system watcher for everybody
// else's changes, by the engine itself for its own writes to backup
// folders, which the watcher does not report.  Each note moves the
// journal's clock; `now()` reads it.  A walk that reads the clock before it
// starts can later ask `changesSince(root, mark)` for every folder whose
// listing (its entries' names and attributes) may differ from what it read.
//
// What a change makes stale, for a change at path P:
//  - a change of an item's content or attributes: the listing of P's folder;
//  - a creation, a deletion, or either side of a rename: the listings of
//    P's folder and of that folder's folder (whose entry for it changed its
//    times), and everything at or below P (a folder put in the place of
//    another has nothing in common with it).
//
// The answer is "cannot tell" (nothing: walk everything) when the root was
// not followed from before the mark on, when doubt was cast on it since (a
// notice of lost events, the watcher stopping, a disk going away), or when
// the journal had to forget changes because it held too many.
//
// Paths are compared as given, so a root must be named as the walks name it;
// `follow` also takes the root's path with symbolic links resolved, so that
// changes reported under that path are taken as changes under the root.
//
// Thread-safe; no call out while holding its lock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Engine/files/QSChangedFolders.h"
#include "platform/FileSystemEventSource.h"

class QSChangeJournal {
 public:
  using Mark = uint64_t;
  // Changes kept before the journal forgets them all and casts doubt on every root.
  static constexpr size_t kDefaultCapacity = 100000;

  explicit QSChangeJournal(size_t capacity = kDefaultCapacity) : capacity_(capacity) {}

  // The engine's one journal.
  static QSChangeJournal& shared();

  // Changes at and below `root` are noted from now on.  `resolvedRoot`, when
  // given and different, is the same folder with links resolved: changes
  // noted under it count as changes under `root`.  Following a root again
  // does not cast doubt.
  void follow(const std::string& root, const std::optional<std::string>& resolvedRoot = std::nullopt);
  // Nothing more is known about `root` (its disk went away): any question
  // about it, for any mark, answers "cannot tell" until it is followed again.
  void unfollow(const std::string& root);
  bool isFollowing(const std::string& root) const;

  // The engine writes at and below `folder` itself without telling (its
  // own store, when it lies in a home): the folder, everything below it and
  // the folder above it count as changed whatever the mark.
  void noteOwnFolder(const std::string& folder);
  // One change the watcher reported: creations, deletions and both sides of
  // renames are structural changes; writes and attribute changes are
  // content changes; a notice of lost events casts doubt on every root.
  void noteEvent(const platform::FileSystemEvent& event);
  // A change of an item's content or attributes at `path`.
  void noteContentChange(const std::string& path);
  // A creation or deletion at `path`, or one side of a rename.
  void noteStructuralChange(const std::string& path);
  // Every root is in doubt from now on.
  void noteDoubt();
  // `root` (and everything below it) is in doubt from now on.
  void noteDoubtAbout(const std::string& root);

  Mark now() const;

  // What catches the journal up with every change made so far (the
  // watcher's barrier): answers false when it cannot.  None by default.
  // Setting or clearing it casts doubt on every root.
  void setSynchronizer(std::function<bool()> synchronize);
  // The clock once the journal has caught up with every change made before
  // the call; nothing when there is no synchronizer or it failed.
  std::optional<Mark> synchronizedMark();

  // Whether changesSince(root, mark) would answer (without gathering the changes).
  bool canTell(const std::string& root, Mark mark) const;
  // The listings changed at and below `root` (a followed root or a folder
  // below one) since `mark`; nothing when that cannot be told.
  std::optional<QSChangedFolders> changesSince(const std::string& root, Mark mark) const;

  // Forgets the changes noted at or before `mark` (once no walk will ask
  // about them): a question about an earlier mark cannot be told any more.
  void forgetChangesUpTo(Mark mark);
  // Changes noted and not yet forgotten (tests, the engine's log).
  size_t size() const;

 private:
  struct Root {
    Mark followedAt = 0;
    Mark doubtAt = 0;
    std::string resolved;
  };
  bool canTellLocked(const std::string& root, Mark mark) const;
  // The root `path` lies at or below, and `path` in that root's naming; false when none.
  bool place(const std::string& path, std::string* placed) const;
  void stamp(std::unordered_map<std::string, Mark>& into, const std::string& path);
  void forgetIfFull();

  const size_t capacity_;
  mutable std::mutex lock_;
  Mark clock_ = 1;
  Mark forgottenAt_ = 0;
  std::map<std::string, Root> roots_;
  std::shared_ptr<const std::function<bool()>> synchronize_;
  std::unordered_map<std::string, Mark> folders_;   // listing changed
  std::unordered_map<std::string, Mark> subtrees_;  // everything at and below changed
  std::vector<std::string> ownFolders_;
};
