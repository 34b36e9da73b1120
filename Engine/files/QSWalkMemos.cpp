#include "Engine/files/QSWalkMemos.h"

#include "platform/Path.h"

QSWalkMemos& QSWalkMemos::shared() {
  static QSWalkMemos& memos = *new QSWalkMemos();
  return memos;
}

std::shared_ptr<const QSWalkMemo> QSWalkMemos::memoFor(const std::string& root) const {
  std::lock_guard<std::mutex> lock(lock_);
  const auto it = memos_.find(root);
  return it == memos_.end() ? nullptr : it->second;
}

void QSWalkMemos::keep(const std::string& root, std::shared_ptr<const QSWalkMemo> memo) {
  std::shared_ptr<const QSWalkMemo> replaced;
  std::lock_guard<std::mutex> lock(lock_);
  auto& slot = memos_[root];
  // The replaced memo is freed by whoever holds it last, after the lock.
  replaced = std::move(slot);
  slot = std::move(memo);
}

void QSWalkMemos::forget(const std::string& root) {
  std::lock_guard<std::mutex> lock(lock_);
  for (auto it = memos_.begin(); it != memos_.end();) {
    it = platform::isAtOrBelow(it->first, root) ? memos_.erase(it) : std::next(it);
  }
}

void QSWalkMemos::forgetAll() {
  std::lock_guard<std::mutex> lock(lock_);
  memos_.clear();
}

size_t QSWalkMemos::count() const {
  std::lock_guard<std::mutex> lock(lock_);
  return memos_.size();
}

size_t QSWalkMemos::byteCount() const {
  std::lock_guard<std::mutex> lock(lock_);
  size_t bytes = 0;
  for (const auto& [root, memo] : memos_) bytes += memo->byteCount();
  return bytes;
}

void QSWalkMemos::pin(uint64_t mark) {
  std::lock_guard<std::mutex> lock(lock_);
  pinned_.insert(mark);
}

void QSWalkMemos::unpin(uint64_t mark) {
  std::lock_guard<std::mutex> lock(lock_);
  if (const auto it = pinned_.find(mark); it != pinned_.end()) pinned_.erase(it);
}

std::optional<uint64_t> QSWalkMemos::oldestMark() const {
  std::lock_guard<std::mutex> lock(lock_);
  std::optional<uint64_t> oldest;
  if (!pinned_.empty()) oldest = *pinned_.begin();
  for (const auto& [root, memo] : memos_)
    if (!oldest || memo->mark() < *oldest) oldest = memo->mark();
  return oldest;
}
