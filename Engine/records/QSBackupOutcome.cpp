#include "Engine/records/QSBackupOutcome.h"

#include <array>
#include <utility>

namespace {

constexpr std::array<std::pair<QSBackupOutcome::State, const char*>, 4> kStates = {{
    {QSBackupOutcome::State::Completed, "completed"},
    {QSBackupOutcome::State::CompletedWithFailures, "completed-with-failures"},
    {QSBackupOutcome::State::Cancelled, "cancelled"},
    {QSBackupOutcome::State::Stopped, "stopped"},
}};

constexpr std::array<std::pair<QSBackupOutcome::Kind, const char*>, 2> kKinds = {{
    {QSBackupOutcome::Kind::Backup, "backup"},
    {QSBackupOutcome::Kind::Count, "count"},
}};

template <class Table, class Enum>
const char* nameIn(const Table& table, Enum value) {
  for (const auto& [v, name] : table)
    if (v == value) return name;
  return "";
}

template <class Enum, class Table>
std::optional<Enum> valueIn(const Table& table, const std::string& name) {
  for (const auto& [v, n] : table)
    if (name == n) return v;
  return std::nullopt;
}

const platform::Value* numberFor(const platform::Dictionary& d, const char* key) {
  const platform::Value* value = d.find(key);
  return value && value->isNumber() ? value : nullptr;
}

}  // namespace

const char* QSBackupOutcome::stateName(State state) { return nameIn(kStates, state); }

std::optional<QSBackupOutcome::State> QSBackupOutcome::stateNamed(const std::string& name) {
  return valueIn<State>(kStates, name);
}

const char* QSBackupOutcome::kindName(Kind kind) { return nameIn(kKinds, kind); }

std::optional<QSBackupOutcome::Kind> QSBackupOutcome::kindNamed(const std::string& name) {
  return valueIn<Kind>(kKinds, name);
}

platform::Dictionary QSBackupOutcome::dictionary() const {
  return platform::Dictionary{
      {"kind", platform::Value(kindName(kind))},
      {"state", platform::Value(stateName(state))},
      {"started", platform::Value(started)},
      {"ended", platform::Value(ended)},
      {"files-copied", platform::Value::integer(filesCopied)},
      {"bytes-copied", platform::Value::integer(bytesCopied)},
      {"files-expected", platform::Value::integer(filesExpected)},
      {"bytes-expected", platform::Value::integer(bytesExpected)},
      {"failed-files", platform::Value::integer(failedFiles)},
      {"common-failure", platform::Value(commonFailure)},
      {"common-failure-count", platform::Value::integer(commonFailureCount)},
      {"sequence", platform::Value::unsignedInteger(sequence)},
  };
}

std::optional<QSBackupOutcome> QSBackupOutcome::fromDictionary(const std::string& uid,
                                                               const platform::Dictionary& d) {
  QSBackupOutcome outcome;
  outcome.uid = uid;
  const platform::Value* kind = d.find("kind");
  const platform::Value* state = d.find("state");
  const platform::Value* started = d.find("started");
  const platform::Value* ended = d.find("ended");
  const platform::Value* failure = d.find("common-failure");
  if (!kind || !kind->asString() || !state || !state->asString() || !started || !started->asDate() || !ended ||
      !ended->asDate() || !failure || !failure->asString())
    return std::nullopt;
  const auto k = kindNamed(*kind->asString());
  const auto s = stateNamed(*state->asString());
  if (!k || !s) return std::nullopt;
  outcome.kind = *k;
  outcome.state = *s;
  outcome.started = *started->asDate();
  outcome.ended = *ended->asDate();
  outcome.commonFailure = *failure->asString();
  const std::pair<const char*, int64_t*> counts[] = {
      {"files-copied", &outcome.filesCopied},     {"bytes-copied", &outcome.bytesCopied},
      {"files-expected", &outcome.filesExpected}, {"bytes-expected", &outcome.bytesExpected},
      {"failed-files", &outcome.failedFiles},     {"common-failure-count", &outcome.commonFailureCount},
  };
  for (const auto& [key, field] : counts) {
    const platform::Value* value = numberFor(d, key);
    if (!value) return std::nullopt;
    *field = value->int64Value();
  }
  const platform::Value* sequence = numberFor(d, "sequence");
  if (!sequence) return std::nullopt;
  outcome.sequence = sequence->uint64Value();
  return outcome;
}
