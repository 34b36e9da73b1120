// Sets one walk of a place (a home folder, a backup folder) up with what
// the engine knows of it, and keeps what the walk read for the next one.
//
// When the change journal can catch up with every change made so far (the
// watcher runs and is synchronized), the walk records a memo of what it
// reads.  It is warm — it takes the listing of every folder the journal
// says is unchanged from the memo of the last complete walk of the place —
// when there is such a memo, the journal can tell what changed since that
// walk began, and the last walk that read everything began less than the
// full-walk interval ago (a day unless changed).  Otherwise it reads
// everything.  A full walk that follows warm ones compares what it read
// with what the memo held for the folders the journal called unchanged,
// and logs whether the warm walks had missed anything.
//
// Without a synchronized journal nothing is recorded, and the place's memo
// is forgotten.  One object per walk, on the walk's thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Engine/files/FSDepthFirstTraversal.h"
#include "Engine/files/QSChangeJournal.h"
#include "Engine/files/QSWalkMemos.h"

class QSWarmWalk {
 public:
  static constexpr double kDefaultFullWalkInterval = 24 * 60 * 60;
  // The interval, in seconds, for every place (the engine's setting).
  static void setFullWalkInterval(double seconds);
  static double fullWalkInterval();

  // Prepares `traversal` for a walk of `root` at `now` (seconds since 1970).
  QSWarmWalk(FSDepthFirstTraversal& traversal, std::string root, double now,
             QSChangeJournal& journal = QSChangeJournal::shared(), QSWalkMemos& memos = QSWalkMemos::shared());

  bool isWarm() const { return warm_; }
  // Whether the walk records a memo (the journal was synchronized).
  bool isRecorded() const { return recorded_; }
  // After the walk: keeps its memo when the walk went to its end (and logs
  // how much of a warm walk was read).  Answers
  // the number of folders a full walk found changed that the journal had
  // called unchanged (0 otherwise).
  size_t finish();
  // The journal's clock when the walk began (caught up with every change
  // made before it), when the walk records a memo; nothing otherwise.
  std::optional<QSChangeJournal::Mark> mark() const { return mark_; }
  ~QSWarmWalk();
  QSWarmWalk(const QSWarmWalk&) = delete;
  QSWarmWalk& operator=(const QSWarmWalk&) = delete;

 private:
  void unpin();
  FSDepthFirstTraversal& traversal_;
  const std::string root_;
  QSChangeJournal& journal_;
  QSWalkMemos& memos_;
  std::shared_ptr<const QSWalkMemo> earlier_;
  std::shared_ptr<const QSChangedFolders> changes_;
  std::shared_ptr<QSWalkMemo> next_;
  bool warm_ = false;
  bool recorded_ = false;
  std::optional<QSChangeJournal::Mark> pinned_;  // the new memo's mark, while the walk is under way
  std::optional<QSChangeJournal::Mark> mark_;
};
