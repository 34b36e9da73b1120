#include "tools/skerrowctl/BackupFollower.h"

#include <unistd.h>

#include <cstdio>

#include "tools/skerrowctl/Json.h"

namespace skerrowctl {

namespace {

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool startsWith(const std::string& text, const std::string& prefix) { return text.compare(0, prefix.size(), prefix) == 0; }

Json totalsJson(const wire::TallyViewWire& view) {
  const TallyTotals totals = totalsOf(view);
  return Json::object().set("files", totals.files).set("bytes", totals.bytes);
}

std::string bar(int64_t done, int64_t total) {
  constexpr int kWidth = 24;
  const double fraction = total > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(total)) : 1.0;
  const int filled = static_cast<int>(fraction * kWidth);
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100));
  return "[" + std::string(filled, '#') + std::string(kWidth - filled, '-') + "] " + percent;
}

}  // namespace

TallyTotals totalsOf(const wire::TallyViewWire& view) {
  TallyTotals totals;
  for (const auto& [category, counters] : view) {
    if (counters.size() > 0) totals.files += std::get<0>(counters[0]);
    if (counters.size() > 1) totals.bytes += std::get<0>(counters[1]);
  }
  return totals;
}

std::string humanBytes(int64_t bytes) {
  const char* units[] = {"B", "kB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1000 && unit + 1 < std::size(units)) {
    value /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text;
}

BackupFollower::BackupFollower(std::set<std::string> uids, bool countOnly, bool json, std::ostream& out,
                               std::ostream& err)
    : countOnly_(countOnly), json_(json), terminal_(isatty(STDERR_FILENO) == 1), out_(out), err_(err) {
  for (const auto& uid : uids) followed_[uid];
  lastNews_ = std::chrono::steady_clock::now();
}

void BackupFollower::setSession(QSClientSession* session) { session_ = session; }

bool BackupFollower::allEnded() const {
  for (const auto& [uid, followed] : followed_)
    if (followed.outcome == Outcome::Running) return false;
  return true;
}

bool BackupFollower::waitUntilDone(std::chrono::seconds idle, const volatile int* interrupted) {
  while (!allEnded() && !(interrupted && *interrupted) && std::chrono::steady_clock::now() - lastNews_ <= idle)
    session_->pump(std::chrono::milliseconds(500), [&] { return allEnded() || (interrupted && *interrupted); });
  endProgressLine();
  return allEnded();
}

std::map<std::string, BackupFollower::Followed> BackupFollower::results() const { return followed_; }

void BackupFollower::tallyCallback(const std::string& member, const QSTallyReference& reference,
                                   const std::optional<std::string>& uid) {
  lastNews_ = std::chrono::steady_clock::now();
  if (uid && !followed_.count(*uid)) return;
  // Read by reference while the engine keeps counting.
  std::optional<wire::TallyWire> tally;
  if (session_) {
    try {
      tally = session_->tally(reference)->snapshot();
    } catch (const sdbus::Error& e) {
      err_ << "skerrowctl: could not read the tally: " << e.getMessage() << "\n";
    }
  }
  if (tally) {
    if (uid) followed_[*uid].tally = tally;
    showProgress(member, *tally, uid);
  }
  const bool ends = uid && (countOnly_ ? member == "finishedDestinationTally_withUID"
                                       : member == "finishedTransferTally_withUID");
  if (ends) followed_[*uid].outcome = Outcome::Finished;
}

void BackupFollower::showProgress(const std::string& member, const wire::TallyWire& tally,
                                  const std::optional<std::string>& uid) {
  if (json_) {
    Json line = Json::object().set("event", member);
    if (uid) line.set("uid", *uid);
    line.set("source", totalsJson(std::get<0>(tally)))
        .set("destination", totalsJson(std::get<1>(tally)))
        .set("transferred", totalsJson(std::get<2>(tally)))
        .set("expected", totalsJson(std::get<3>(tally)));
    out_ << line.dump() << "\n" << std::flush;
    return;
  }
  std::string text;
  const std::string who = uid ? uid->substr(0, 8) + " " : "";
  if (endsWith(member, "SourceTally")) {
    const TallyTotals source = totalsOf(std::get<0>(tally));
    text = "Counting your home folder: " + std::to_string(source.files) + " files, " + humanBytes(source.bytes);
  } else if (endsWith(member, "DestinationTally_withUID")) {
    const TallyTotals destination = totalsOf(std::get<1>(tally));
    const TallyTotals expected = totalsOf(std::get<3>(tally));
    text = who + "Comparing with the backup: " + std::to_string(destination.files) + " stored, " +
           std::to_string(expected.files) + " files (" + humanBytes(expected.bytes) + ") to copy";
  } else {
    const TallyTotals done = totalsOf(std::get<2>(tally));
    const TallyTotals expected = totalsOf(std::get<3>(tally));
    text = who + "Copying " + bar(done.bytes, expected.bytes) + " " + std::to_string(done.files) + "/" +
           std::to_string(expected.files) + " files, " + humanBytes(done.bytes) + "/" + humanBytes(expected.bytes);
  }
  const bool phaseEnds = startsWith(member, "finished");
  if (terminal_) {
    err_ << "\r\033[K" << text << std::flush;
    progressLineOpen_ = true;
    if (phaseEnds) endProgressLine();
  } else if (phaseEnds) {
    err_ << text << "\n" << std::flush;
  }
}

void BackupFollower::endProgressLine() {
  if (!progressLineOpen_) return;
  err_ << "\n" << std::flush;
  progressLineOpen_ = false;
}

void BackupFollower::copyError(const wire::ErrorWire& error) {
  lastNews_ = std::chrono::steady_clock::now();
  const auto& uid = std::get<2>(error);
  if (!uid.empty() && followed_.count(uid.front())) ++followed_[uid.front()].errors;
  const auto& sourcePath = std::get<5>(error);
  const std::string path = sourcePath.empty() ? std::get<4>(error) : sourcePath.front();
  if (json_) {
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
  endProgressLine();
  err_ << "error: " << path << ": " << std::get<3>(error) << "\n" << std::flush;
}

void BackupFollower::stoppedDueToErrors(const std::string& uid) {
  lastNews_ = std::chrono::steady_clock::now();
  if (followed_.count(uid)) followed_[uid].outcome = Outcome::StoppedDueToErrors;
  if (json_) {
    out_ << Json::object().set("event", "stoppedDueToErrorsForBackup").set("uid", uid).dump() << "\n" << std::flush;
  } else {
    endProgressLine();
    err_ << "The backup " << uid << " was stopped after too many errors in a row\n" << std::flush;
  }
}

}  // namespace skerrowctl
