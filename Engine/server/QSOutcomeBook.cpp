#include "Engine/server/QSOutcomeBook.h"

#include "platform/Path.h"
#include "platform/PropertyList.h"

void QSOutcomeBook::loadFromFolder(const std::string& folder) {
  path_ = platform::appendingPathComponent(folder, kFileName);
  outcomes_.clear();
  const auto contents = platform::PropertyList::readFile(path_);
  const platform::Dictionary* root = contents ? contents->asDictionary() : nullptr;
  if (!root) return;
  for (const auto& [uid, value] : *root) {
    const platform::Dictionary* dictionary = value.asDictionary();
    if (!dictionary) continue;
    if (auto outcome = QSBackupOutcome::fromDictionary(uid, *dictionary)) {
      if (outcome->sequence > lastSequence_) lastSequence_ = outcome->sequence;
      outcomes_[uid] = std::move(*outcome);
    }
  }
}

const QSBackupOutcome& QSOutcomeBook::record(QSBackupOutcome outcome) {
  outcome.sequence = ++lastSequence_;
  const std::string uid = outcome.uid;
  const QSBackupOutcome& kept = outcomes_[uid] = std::move(outcome);
  save();
  return kept;
}

std::optional<QSBackupOutcome> QSOutcomeBook::outcomeForUID(const std::string& uid) const {
  const auto it = outcomes_.find(uid);
  if (it == outcomes_.end()) return std::nullopt;
  return it->second;
}

void QSOutcomeBook::forget(const std::string& uid) {
  if (outcomes_.erase(uid)) save();
}

bool QSOutcomeBook::save() const {
  if (path_.empty()) return false;
  platform::Dictionary root;
  for (const auto& [uid, outcome] : outcomes_) root.set(uid, platform::Value(outcome.dictionary()));
  return platform::PropertyList::writeFile(path_, platform::Value(std::move(root)));
}
