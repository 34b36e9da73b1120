#include "Engine/server/QSOutcomeBook.h"

#include "platform/Path.h"
#include "platform/PropertyList.h"

namespace {

constexpr const char* kLastCleanKey = "last-clean-backup";

bool isClean(const QSBackupOutcome& outcome) {
  return outcome.kind == QSBackupOutcome::Kind::Backup && outcome.state == QSBackupOutcome::State::Completed;
}

}  // namespace

void QSOutcomeBook::loadFromFolder(const std::string& folder) {
  path_ = platform::appendingPathComponent(folder, kFileName);
  outcomes_.clear();
  lastClean_.clear();
  const auto contents = platform::PropertyList::readFile(path_);
  const platform::Dictionary* root = contents ? contents->asDictionary() : nullptr;
  if (!root) return;
  for (const auto& [uid, value] : *root) {
    const platform::Dictionary* dictionary = value.asDictionary();
    if (!dictionary) continue;
    if (auto outcome = QSBackupOutcome::fromDictionary(uid, *dictionary)) {
      if (outcome->sequence > lastSequence_) lastSequence_ = outcome->sequence;
      if (isClean(*outcome)) lastClean_[uid] = *outcome;
      outcomes_[uid] = std::move(*outcome);
      const platform::Value* clean = dictionary->find(kLastCleanKey);
      if (const platform::Dictionary* cleanDictionary = clean ? clean->asDictionary() : nullptr)
        if (auto cleanOutcome = QSBackupOutcome::fromDictionary(uid, *cleanDictionary); cleanOutcome && isClean(*cleanOutcome))
          lastClean_[uid] = std::move(*cleanOutcome);
    }
  }
}

const QSBackupOutcome& QSOutcomeBook::record(QSBackupOutcome outcome) {
  outcome.sequence = ++lastSequence_;
  const std::string uid = outcome.uid;
  const QSBackupOutcome& kept = outcomes_[uid] = std::move(outcome);
  if (isClean(kept)) lastClean_[uid] = kept;
  save();
  return kept;
}

std::optional<QSBackupOutcome> QSOutcomeBook::outcomeForUID(const std::string& uid) const {
  const auto it = outcomes_.find(uid);
  if (it == outcomes_.end()) return std::nullopt;
  return it->second;
}

std::optional<QSBackupOutcome> QSOutcomeBook::lastCleanBackupForUID(const std::string& uid) const {
  const auto it = lastClean_.find(uid);
  if (it == lastClean_.end()) return std::nullopt;
  return it->second;
}

void QSOutcomeBook::forget(const std::string& uid) {
  lastClean_.erase(uid);
  if (outcomes_.erase(uid)) save();
}

bool QSOutcomeBook::save() const {
  if (path_.empty()) return false;
  platform::Dictionary root;
  for (const auto& [uid, outcome] : outcomes_) {
    platform::Dictionary dictionary = outcome.dictionary();
    const auto clean = lastClean_.find(uid);
    if (clean != lastClean_.end() && clean->second.sequence != outcome.sequence)
      dictionary.set(kLastCleanKey, platform::Value(clean->second.dictionary()));
    root.set(uid, platform::Value(std::move(dictionary)));
  }
  return platform::PropertyList::writeFile(path_, platform::Value(std::move(root)));
}
