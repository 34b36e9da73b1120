#include "tools/skerrowctl/ConversionFollower.h"

#include "tools/skerrowctl/Json.h"

namespace skerrowctl {

namespace {
constexpr std::chrono::milliseconds kPollInterval{100};
constexpr std::chrono::milliseconds kLateNews{300};
}

ConversionFollower::ConversionFollower(std::set<std::string> mountPaths, bool json, std::ostream& out,
                                       StateQuery query)
    : mountPaths_(std::move(mountPaths)), json_(json), out_(out), query_(std::move(query)) {}

void ConversionFollower::note(const std::string& state, const std::string& mountPath) {
  if (state.empty() || !mountPaths_.count(mountPath)) return;
  auto& seen = states_[mountPath];
  // The engine tells a client through each of its stages: show a state once.
  if (!seen.empty() && seen.back() == state) return;
  seen.push_back(state);
  if (json_)
    out_ << Json::object().set("event", "state").set("mountPath", mountPath).set("state", state).dump() << "\n";
  else
    out_ << mountPath << ": " << state << "\n";
  out_.flush();
}

void ConversionFollower::conversionChanged(const std::string& state, const std::string& mountPath) {
  note(state, mountPath);
}

std::optional<std::string> ConversionFollower::lastState(const std::string& mountPath) const {
  const auto it = states_.find(mountPath);
  if (it == states_.end() || it->second.empty()) return std::nullopt;
  return it->second.back();
}

std::set<std::string> ConversionFollower::follow(QSClientSession& session, std::chrono::milliseconds wait,
                                                 const volatile int* interrupted) {
  std::set<std::string> ended;
  const auto giveUp = std::chrono::steady_clock::now() + wait;
  while (!(interrupted && *interrupted)) {
    for (const std::string& mountPath : mountPaths_) {
      const std::string state = query_(mountPath);
      if (!state.empty()) {
        running_.insert(mountPath);
        note(state, mountPath);
      } else if (running_.erase(mountPath) || states_.count(mountPath)) {
        // It ran (seen asking, or heard of) and no longer does.
        ended.insert(mountPath);
      }
    }
    if (ended.size() == mountPaths_.size()) break;
    if (running_.empty() && std::chrono::steady_clock::now() >= giveUp) break;
    session.pump(kPollInterval);
  }
  // News sent before the end was seen come over another connection: let them arrive.
  session.pump(kLateNews);
  return ended;
}

}  // namespace skerrowctl
