#include "tools/skerrowctl/BackupFollower.h"

#include <algorithm>
#include <cmath>

#include <sdbus-c++/Error.h>

#include "tools/skerrowctl/Json.h"
#include "tools/skerrowctl/Wording.h"

namespace skerrowctl {

namespace {

constexpr double kRedrawInterval = 0.25;        // the line moves four times a second
constexpr double kProgressEventInterval = 1.0;  // JSON progress: at most once a second
constexpr double kPollInterval = 1.0;           // the engine is asked for the outcome each second
constexpr double kEndPollInterval = 0.05;       // and more often once the run's last callback came:
                                                // the outcome follows within moments (the final sync)
constexpr double kRateWindow = 5.0;             // the copy rate is measured over the last seconds

bool startsWith(const std::string& text, const std::string& prefix) { return text.rfind(prefix, 0) == 0; }
bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

Json totalsJson(const TallyTotals& totals) { return Json::object().set("files", totals.files).set("bytes", totals.bytes); }

}  // namespace

TallyTotals BackupFollower::totalsOf(const wire::TallyViewWire& view) {
  TallyTotals totals;
  for (const auto& [category, counters] : view) {
    if (counters.size() > 0) totals.files += std::get<0>(counters[0]);
    if (counters.size() > 1) totals.bytes += std::get<0>(counters[1]);
  }
  return totals;
}

BackupFollower::BackupFollower(std::vector<Target> targets, QSBackupOutcome::Kind kind, Output output,
                               std::ostream& out, std::ostream& err)
    : kind_(kind), output_(output), out_(out), err_(err) {
  for (auto& target : targets) {
    Followed& followed = followed_[target.uid];
    followed.uid = target.uid;
    followed.sequenceBefore = target.sequenceBefore;
  }
}

bool BackupFollower::allEnded() const {
  for (const auto& [uid, followed] : followed_)
    if (!followed.outcome) return false;
  return true;
}

bool BackupFollower::follow(std::chrono::seconds idle, const volatile int* interrupted) {
  const double start = engine_->now();
  lastNews_ = start;
  nextPoll_ = start + kPollInterval;
  auto stop = [&] { return interrupted && *interrupted; };
  while (!allEnded() && !stop()) {
    double now = engine_->now();
    if (now - lastNews_ > static_cast<double>(idle.count())) break;
    double next = nextPoll_;
    if (current_ && !current_->finished) next = std::min({next, nextRedraw_, output_.json ? nextProgressEvent_ : next});
    const double wait = std::clamp(next - now, 0.0, kRedrawInterval);
    // Rounded up: a wait cut short of the next deadline would only spin.
    engine_->serve(std::chrono::milliseconds(static_cast<int64_t>(std::ceil(wait * 1000))),
                   [&] { return pollSoon_ || stop(); });
    tick();
  }
  if (current_ && !current_->finished && !output_.json) redraw(true);
  endLine();
  return allEnded();
}

void BackupFollower::tick() {
  const double now = engine_->now();
  if (current_ && !current_->finished && now >= nextRedraw_) {
    nextRedraw_ = now + kRedrawInterval;
    std::optional<wire::TallyWire> tally;
    try {
      tally = engine_->readTally(current_->reference);
    } catch (const sdbus::Error&) {
      // Withdrawn (the engine lends a few at a time): the last snapshot stays.
    }
    if (tally) {
      if (!current_->tally || !(*tally == *current_->tally)) lastNews_ = now;
      current_->tally = std::move(tally);
      if (current_->uid && followed_.count(*current_->uid)) followed_[*current_->uid].tally = current_->tally;
    }
    if (current_->phase == Phase::Copy && current_->tally)
      noteCopyRate(now, totalsOf(std::get<2>(*current_->tally)).bytes);
    if (!output_.json) redraw(false);
  }
  if (output_.json && current_ && !current_->finished && now >= nextProgressEvent_) {
    nextProgressEvent_ = now + kProgressEventInterval;
    writeProgressEvent();
  }
  if (pollSoon_ || now >= nextPoll_) {
    pollSoon_ = false;
    pollOutcomes();
    bool ending = false;
    for (const auto& [uid, followed] : followed_) ending = ending || (followed.lastCallbackSeen && !followed.outcome);
    nextPoll_ = now + (ending ? kEndPollInterval : kPollInterval);
  }
}

void BackupFollower::pollOutcomes() {
  for (auto& [uid, followed] : followed_) {
    if (followed.outcome) continue;
    const auto outcome = engine_->outcomeForBackup(uid);
    if (!outcome || outcome->sequence <= followed.sequenceBefore || outcome->kind != kind_) continue;
    followed.outcome = outcome;
    lastNews_ = engine_->now();
  }
}

void BackupFollower::tallyCallback(const std::string& member, const QSTallyReference& reference,
                                   const std::optional<std::string>& uid) {
  const double now = engine_->now();
  lastNews_ = now;
  if (uid && !followed_.count(*uid)) return;  // another backup of the user's
  const Phase phase = endsWith(member, "SourceTally")                ? Phase::Source
                      : endsWith(member, "DestinationTally_withUID") ? Phase::Destination
                                                                     : Phase::Copy;
  const bool starts = startsWith(member, "started");
  const bool ends = startsWith(member, "finished");
  // Read by reference while the engine keeps counting.
  std::optional<wire::TallyWire> tally;
  try {
    tally = engine_->readTally(reference);
  } catch (const sdbus::Error& e) {
    endLine();
    err_ << "skerrowctl: could not read the engine's tally: " << e.getMessage() << "\n" << std::flush;
  }
  const bool samePhase = current_ && current_->phase == phase && current_->uid == uid;
  if (!samePhase || starts) {
    // The line of the phase before stays as it was last drawn.
    if (current_ && !current_->finished && !output_.json) redraw(true);
    endLine();
    current_ = Current{phase, uid, reference, now, false, std::nullopt};
    copySamples_.clear();
    nextRedraw_ = now;
    nextProgressEvent_ = now;
  }
  current_->reference = reference;
  if (tally) current_->tally = tally;
  current_->finished = ends;
  if (uid && current_->tally) followed_[*uid].tally = current_->tally;
  if (phase == Phase::Copy && current_->tally) noteCopyRate(now, totalsOf(std::get<2>(*current_->tally)).bytes);

  if (output_.json) {
    if ((starts || ends) && current_->tally) writePhaseEvent(member, uid, *current_->tally);
  } else if (ends || output_.terminal) {
    redraw(ends);
  }
  if (ends && uid && phase == Phase::Destination && kind_ == QSBackupOutcome::Kind::Backup && expectedHandler_ &&
      current_->tally)
    expectedHandler_(*uid, totalsOf(std::get<3>(*current_->tally)));
  const bool lastOfRun = ends && uid &&
                         (kind_ == QSBackupOutcome::Kind::Count ? phase == Phase::Destination : phase == Phase::Copy);
  if (lastOfRun) {
    followed_[*uid].lastCallbackSeen = true;
    pollSoon_ = true;
  }
}

void BackupFollower::noteCopyRate(double at, int64_t bytes) {
  copySamples_.emplace_back(at, bytes);
  while (copySamples_.size() > 2 && at - copySamples_.front().first > kRateWindow) copySamples_.pop_front();
}

ProgressSample BackupFollower::sampleOf(const Current& current) const {
  ProgressSample sample;
  sample.phase = current.phase;
  if (followed_.size() > 1 && current.uid) sample.who = current.uid->substr(0, 8);
  if (current.tally) {
    sample.source = totalsOf(std::get<0>(*current.tally));
    sample.destination = totalsOf(std::get<1>(*current.tally));
    sample.transferred = totalsOf(std::get<2>(*current.tally));
    sample.expected = totalsOf(std::get<3>(*current.tally));
  }
  sample.elapsed = engine_->now() - current.startedAt;
  sample.finished = current.finished;
  if (current.phase == Phase::Copy && copySamples_.size() >= 2) {
    const auto& [t0, b0] = copySamples_.front();
    const auto& [t1, b1] = copySamples_.back();
    if (t1 - t0 >= 0.5) sample.bytesPerSecond = static_cast<double>(b1 - b0) / (t1 - t0);
    if (sample.bytesPerSecond > 0)
      sample.secondsLeft = static_cast<double>(std::max<int64_t>(0, sample.expected.bytes - sample.transferred.bytes)) /
                           sample.bytesPerSecond;
  }
  return sample;
}

void BackupFollower::redraw(bool final) {
  if (!current_ || output_.json) return;
  ProgressSample sample = sampleOf(*current_);
  sample.finished = sample.finished || final;
  const std::string text = progressText(sample, output_.terminal ? output_.width : 100000);
  if (output_.terminal) {
    err_ << "\r\033[K" << text << std::flush;
    lineOpen_ = true;
    if (final) endLine();
  } else if (final) {
    err_ << text << "\n" << std::flush;
  }
  if (final) current_->finished = true;
}

void BackupFollower::endLine() {
  if (!lineOpen_) return;
  err_ << "\n" << std::flush;
  lineOpen_ = false;
}

void BackupFollower::writePhaseEvent(const std::string& member, const std::optional<std::string>& uid,
                                     const wire::TallyWire& tally) {
  Json line = Json::object().set("event", member);
  if (uid) line.set("uid", *uid);
  line.set("source", totalsJson(totalsOf(std::get<0>(tally))))
      .set("destination", totalsJson(totalsOf(std::get<1>(tally))))
      .set("transferred", totalsJson(totalsOf(std::get<2>(tally))))
      .set("expected", totalsJson(totalsOf(std::get<3>(tally))));
  out_ << line.dump() << "\n" << std::flush;
}

void BackupFollower::writeProgressEvent() {
  const ProgressSample sample = sampleOf(*current_);
  Json line = Json::object().set("event", "progress").set("phase", phaseName(sample.phase));
  if (current_->uid) line.set("uid", *current_->uid);
  line.set("source", totalsJson(sample.source))
      .set("destination", totalsJson(sample.destination))
      .set("transferred", totalsJson(sample.transferred))
      .set("expected", totalsJson(sample.expected))
      .set("percent", sample.phase == Phase::Copy ? Json(percentDone(sample)) : Json())
      .set("elapsed", std::round(sample.elapsed * 1000) / 1000)
      .set("bytesPerSecond", sample.phase == Phase::Copy ? Json(std::round(sample.bytesPerSecond)) : Json())
      .set("secondsLeft", sample.secondsLeft ? Json(std::round(*sample.secondsLeft * 10) / 10) : Json());
  out_ << line.dump() << "\n" << std::flush;
}

void BackupFollower::copyError(const wire::ErrorWire& error) {
  lastNews_ = engine_ ? engine_->now() : 0;
  const auto& uid = std::get<2>(error);
  if (!uid.empty() && followed_.count(uid.front())) ++followed_[uid.front()].errorsSeen;
  const auto& sourcePath = std::get<5>(error);
  const std::string path = sourcePath.empty() ? std::get<4>(error) : sourcePath.front();
  if (output_.json) {
    out_ << Json::object()
                .set("event", "error")
                .set("uid", uid.empty() ? Json() : Json(uid.front()))
                .set("code", std::get<0>(error))
                .set("path", path)
                .set("message", std::get<3>(error))
                .dump()
         << "\n"
         << std::flush;
    return;
  }
  ++errorLines_;
  if (errorLines_ > static_cast<int64_t>(output_.maximumErrorLines) + 1) return;
  endLine();
  if (errorLines_ == static_cast<int64_t>(output_.maximumErrorLines) + 1)
    err_ << "skerrowctl: more files could not be copied; the summary counts them\n" << std::flush;
  else
    err_ << "skerrowctl: could not copy " << path << ": " << std::get<3>(error) << "\n" << std::flush;
  if (output_.terminal) redraw(false);
}

void BackupFollower::stoppedDueToErrors(const std::string& uid) {
  lastNews_ = engine_ ? engine_->now() : 0;
  if (!followed_.count(uid)) return;
  followed_[uid].stopSeen = true;
  pollSoon_ = true;
  if (output_.json) {
    out_ << Json::object().set("event", "stoppedDueToErrorsForBackup").set("uid", uid).dump() << "\n" << std::flush;
  } else {
    endLine();
    err_ << "skerrowctl: the engine stopped the backup " << uid.substr(0, 8)
         << " after too many failed copies in a row\n"
         << std::flush;
  }
}

}  // namespace skerrowctl
