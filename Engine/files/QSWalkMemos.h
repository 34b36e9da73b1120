// The memo of the last complete walk of each place walked warm (a home
// folder, a backup folder), by the place's path, for the engine's life.
// Thread-safe; memos are shared, never changed once kept.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "Engine/files/QSWalkMemo.h"

class QSWalkMemos {
 public:
  static QSWalkMemos& shared();

  std::shared_ptr<const QSWalkMemo> memoFor(const std::string& root) const;
  void keep(const std::string& root, std::shared_ptr<const QSWalkMemo> memo);
  // Forgets the memos of `root` and of every place below it.
  void forget(const std::string& root);
  void forgetAll();
  size_t count() const;
  size_t byteCount() const;
  // A walk under way that will keep a memo marked `mark` (once for each
  // such walk; `unpin` when it ends, kept or not).
  void pin(uint64_t mark);
  void unpin(uint64_t mark);
  // The oldest mark a kept memo, or a walk under way, may still ask the
  // change journal about; nothing when there is neither.
  std::optional<uint64_t> oldestMark() const;

 private:
  mutable std::mutex lock_;
  std::map<std::string, std::shared_ptr<const QSWalkMemo>> memos_;
  std::multiset<uint64_t> pinned_;
};
