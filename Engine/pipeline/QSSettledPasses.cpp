#include "Engine/pipeline/QSSettledPasses.h"

#include "Engine/files/QSWarmWalk.h"
#include "platform/FileManager.h"

QSSettledPasses& QSSettledPasses::shared() {
  static QSSettledPasses passes;
  return passes;
}

void QSSettledPasses::keep(std::shared_ptr<const QSSettledPass> pass) {
  if (!pass) return;
  auto key = std::make_pair(pass->home, pass->destination);
  std::lock_guard<std::mutex> lock(lock_);
  passes_[std::move(key)] = std::move(pass);
}

void QSSettledPasses::forget(const std::string& home, const std::string& destination) {
  std::shared_ptr<const QSSettledPass> dropped;  // released outside the lock
  std::lock_guard<std::mutex> lock(lock_);
  const auto it = passes_.find({home, destination});
  if (it == passes_.end()) return;
  dropped = std::move(it->second);
  passes_.erase(it);
}

void QSSettledPasses::forgetAll() {
  decltype(passes_) dropped;
  std::lock_guard<std::mutex> lock(lock_);
  dropped.swap(passes_);
}

std::shared_ptr<const QSSettledPass> QSSettledPasses::find(const std::string& home,
                                                           const std::string& destination) const {
  std::lock_guard<std::mutex> lock(lock_);
  const auto it = passes_.find({home, destination});
  return it == passes_.end() ? nullptr : it->second;
}

std::shared_ptr<const QSSettledPass> QSSettledPasses::standing(const std::string& home, const std::string& destination,
                                                               const QSSettledPass::Settings& settings, double now,
                                                               std::string* why, QSChangeJournal& journal,
                                                               const QSWalkMemos& memos) const {
  const auto refuse = [&](const char* reason) -> std::shared_ptr<const QSSettledPass> {
    if (why) *why = reason;
    return nullptr;
  };
  const auto pass = find(home, destination);
  if (!pass) return refuse("no pass without work kept");
  if (!(pass->settings == settings)) return refuse("settings changed");
  platform::FileAttributes folder;
  if (!platform::FileManager::attributesAtPath(destination, &folder) || folder.device != pass->device ||
      folder.inode != pass->inode)
    return refuse("not the same backup folder");
  const double interval = QSWarmWalk::fullWalkInterval();
  for (const std::string* place : {&home, &destination}) {
    const auto memo = memos.memoFor(*place);
    if (!memo) return refuse("no memo");
    if (!(interval > 0) || now - memo->fullWalkDate() >= interval) return refuse("full walk due");
  }
  if (!journal.synchronizedMark()) return refuse("watcher not synchronized");
  const auto homeChanges = journal.changesSince(home, pass->homeMark);
  if (!homeChanges) return refuse("home folder in doubt");
  if (!homeChanges->empty()) return refuse("home folder changed");
  const auto destinationChanges = journal.changesSince(destination, pass->destinationMark);
  if (!destinationChanges) return refuse("backup folder in doubt");
  if (!destinationChanges->empty()) return refuse("backup folder changed");
  return pass;
}
