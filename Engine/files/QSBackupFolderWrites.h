// A count, for the whole engine, of its own writes to backup folders.  Each
// piece of work that changes a backup folder (the transfer of a backup, a
// continuous-backup copy, a conversion) moves it when it starts and again
// when it has ended, through a Scope.  A reading of a backup folder made
// ahead of time still stands when the count has not moved since the
// reading began: no write of the engine's was under way or happened since.
//
// Each item the engine makes, writes, renames or removes in a backup folder
// is also told to the change journal (noteChangedItem), which the watcher
// cannot do: it never reports the engine's own changes.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "Engine/files/QSChangeJournal.h"

namespace QSBackupFolderWrites {

inline std::atomic<uint64_t> counter{0};

inline uint64_t epoch() { return counter.load(std::memory_order_acquire); }
inline void note() { counter.fetch_add(1, std::memory_order_acq_rel); }

// The engine made, wrote, renamed (either side) or removed the backup-folder item at `path`.
inline void noteChangedItem(const std::string& path) { QSChangeJournal::shared().noteStructuralChange(path); }

// Marks a piece of writing work: the count moves on entry and on exit.
struct Scope {
  Scope() { note(); }
  ~Scope() { note(); }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;
};

}  // namespace QSBackupFolderWrites
