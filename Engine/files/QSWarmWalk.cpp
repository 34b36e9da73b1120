#include "Engine/files/QSWarmWalk.h"

#include <atomic>

#include "platform/Log.h"

namespace {
std::atomic<double> interval{QSWarmWalk::kDefaultFullWalkInterval};
}

void QSWarmWalk::setFullWalkInterval(double seconds) { interval.store(seconds); }
double QSWarmWalk::fullWalkInterval() { return interval.load(); }

QSWarmWalk::QSWarmWalk(FSDepthFirstTraversal& traversal, std::string root, double now, QSChangeJournal& journal,
                       QSWalkMemos& memos)
    : traversal_(traversal), root_(std::move(root)), journal_(journal), memos_(memos) {
  // No warm walks at all (a full-walk interval of 0): nothing to keep.
  const auto mark = fullWalkInterval() > 0 ? journal.synchronizedMark() : std::nullopt;
  // A place the journal does not follow (or doubts now) could never be walked warm.
  if (!mark || !journal.canTell(root_, *mark)) {
    memos_.forget(root_);
    traversal_.setMemos(nullptr, nullptr, nullptr);
    return;
  }
  next_ = std::make_shared<QSWalkMemo>();
  recorded_ = true;
  next_->setMark(*mark);
  // The journal keeps what this walk's memo will be asked about.
  memos_.pin(*mark);
  pinned_ = *mark;
  mark_ = *mark;
  next_->setFullWalkDate(now);
  earlier_ = memos_.memoFor(root_);
  if (earlier_) {
    if (auto changes = journal.changesSince(root_, earlier_->mark()))
      changes_ = std::make_shared<const QSChangedFolders>(std::move(*changes));
  }
  warm_ = earlier_ && changes_ && now - earlier_->fullWalkDate() < fullWalkInterval();
  const auto more = [](size_t n) { return n + n / 16; };
  if (warm_) {
    // What the walk takes as the last walk left it is borrowed, not copied.
    next_->borrowFrom(earlier_);
    next_->reserveFolders(more(earlier_->folderCount()));
    next_->setFullWalkDate(earlier_->fullWalkDate());
    traversal_.setMemos(earlier_, changes_, next_);
  } else {
    if (earlier_) next_->reserveFolders(more(earlier_->folderCount()));
    traversal_.setMemos(nullptr, nullptr, next_);
  }
}

QSWarmWalk::~QSWarmWalk() { unpin(); }

void QSWarmWalk::unpin() {
  if (!pinned_) return;
  memos_.unpin(*pinned_);
  pinned_.reset();
  // Changes older than every memo kept and every walk under way will never
  // be asked about again.
  if (const auto oldest = memos_.oldestMark()) journal_.forgetChangesUpTo(*oldest);
}

size_t QSWarmWalk::finish() {
  traversal_.setMemos(nullptr, nullptr, nullptr);
  if (!next_ || traversal_.wasStopped()) {
    unpin();
    return 0;
  }
  size_t missed = 0;
  // A full walk in place of a warm one: what would a warm walk have taken
  // wrongly?  Changes noted while the walk ran count as told.
  const auto told = !warm_ && earlier_ && changes_ ? journal_.changesSince(root_, earlier_->mark()) : std::nullopt;
  if (told) {
    next_->enumerateFolders([&](const std::string& folder) {
      if (told->listingChanged(folder)) return;
      const auto before = earlier_->listingOf(folder);
      if (before && !(*before == *next_->listingOf(folder))) ++missed;
    });
    if (missed)
      platform::Log::format("Full walk of %s: %zu folders had changed without the watcher telling", root_.c_str(),
                            missed);
    else
      platform::Log::format("Full walk of %s: nothing the warm walks had missed", root_.c_str());
  }
  next_->shrinkToFit();
  if (warm_)
    platform::Log::format(
        "Walked %s warm: %zu folders read, %zu as the last walk left them (kept: %zu items, %zu of them lent by an "
        "earlier walk, %zu KiB)",
        root_.c_str(), traversal_.foldersRead(), traversal_.foldersReused(), next_->itemCount(),
        next_->borrowedItemCount(), next_->byteCount() / 1024);
  memos_.keep(root_, std::move(next_));
  unpin();
  return missed;
}
