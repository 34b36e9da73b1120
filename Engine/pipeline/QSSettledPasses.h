// The last pass of each backup (home folder, backup folder) that found
// nothing to do, and the decision whether the pass about to start may
// stand on it instead of walking: the engine's warm pass when nothing at
// all changed.
//
// A pass may stand on the kept one when all of these hold:
//  - the settings are the same (QSSettledPass::Settings) and the backup
//    folder is the same folder (device and inode);
//  - both places still have a memo, and their last full walks began less
//    than the full-walk interval ago (the daily full walk is never skipped);
//  - the change journal, caught up with every change made so far, can tell
//    what changed in each place since the kept pass's walks began, and the
//    answer is nothing: no change seen by the watcher, none of the engine's
//    own writes, no doubt cast (lost events, a disk that went away, a
//    watcher that stopped or was never there).
// Anything else, and the pass walks as ever.  A pass that walks keeps its
// own record when it found nothing to do, and forgets the earlier one
// otherwise.
//
// Thread-safe; no call out while holding its lock.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "Engine/files/QSChangeJournal.h"
#include "Engine/files/QSWalkMemos.h"
#include "Engine/pipeline/QSSettledPass.h"

class QSSettledPasses {
 public:
  static QSSettledPasses& shared();

  void keep(std::shared_ptr<const QSSettledPass> pass);
  void forget(const std::string& home, const std::string& destination);
  void forgetAll();

  // The kept pass of (`home`, `destination`) that a pass starting `now`
  // (seconds since 1970) with `settings` may stand on, or nullptr (and why,
  // for the log).  Asks the journal to catch up first.
  std::shared_ptr<const QSSettledPass> standing(const std::string& home, const std::string& destination,
                                                const QSSettledPass::Settings& settings, double now,
                                                std::string* why = nullptr,
                                                QSChangeJournal& journal = QSChangeJournal::shared(),
                                                const QSWalkMemos& memos = QSWalkMemos::shared()) const;

 private:
  std::shared_ptr<const QSSettledPass> find(const std::string& home, const std::string& destination) const;

  mutable std::mutex lock_;
  std::map<std::pair<std::string, std::string>, std::shared_ptr<const QSSettledPass>> passes_;
};
