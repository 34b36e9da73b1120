// A count, for the whole engine, of its own writes to backup folders.  Each
// piece of work that changes a backup folder (the transfer of a backup, a
// continuous-backup copy, a conversion) moves it when it starts and again
// when it has ended, through a Scope.  A reading of a backup folder made
// ahead of time still stands when the count has not moved since the
// reading began: no write of the engine's was under way or happened since.
#pragma once

#include <atomic>
#include <cstdint>

namespace QSBackupFolderWrites {

inline std::atomic<uint64_t> counter{0};

inline uint64_t epoch() { return counter.load(std::memory_order_acquire); }
inline void note() { counter.fetch_add(1, std::memory_order_acq_rel); }

// Marks a piece of writing work: the count moves on entry and on exit.
struct Scope {
  Scope() { note(); }
  ~Scope() { note(); }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
};

}  // namespace QSBackupFolderWrites
