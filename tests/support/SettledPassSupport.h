// Test helpers for passes that stand on a kept pass without work: the
// memos and the kept pass that such a pass needs, made as the engine's
// walks and dry run would have left them.
#pragma once

#include <memory>
#include <string>

#include "Engine/files/QSWalkMemos.h"
#include "Engine/pipeline/QSSettledPass.h"
#include "platform/FileManager.h"

namespace skerrow_test {

// Keeps in `memos` a memo of `home` and one of `backup`, of walks begun at
// journal mark `mark` and full at `fullWalkDate` (seconds since 1970).
inline void keepMemosOf(QSWalkMemos& memos, const std::string& home, const std::string& backup, uint64_t mark,
                        double fullWalkDate) {
  for (const std::string* place : {&home, &backup}) {
    auto memo = std::make_shared<QSWalkMemo>();
    memo->setMark(mark);
    memo->setFullWalkDate(fullWalkDate);
    memos.keep(*place, memo);
  }
}

// A pass without work of (home, backup) whose two walks began at `mark`,
// for the backup folder as it is now (its device and inode).
inline std::shared_ptr<QSSettledPass> settledPassOf(const std::string& home, const std::string& backup, uint64_t mark,
                                                    QSSettledPass::Settings settings,
                                                    std::shared_ptr<const QSTally> tally) {
  platform::FileAttributes folder;
  platform::FileManager::attributesAtPath(backup, &folder);
  auto pass = std::make_shared<QSSettledPass>();
  pass->home = home;
  pass->destination = backup;
  pass->homeMark = pass->destinationMark = mark;
  pass->device = folder.device;
  pass->inode = folder.inode;
  pass->settings = std::move(settings);
  pass->tally = std::move(tally);
  return pass;
}

}  // namespace skerrow_test
