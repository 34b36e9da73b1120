// Follows the conversions of older backups on disks while the engine runs
// them: every state a conversion reaches (as the engine tells the client,
// and as asked of it), once each, in order.  With JSON output every state is
// one JSON line on standard output.
//
// Single-threaded, like the session: callbacks arrive while `follow` pumps
// the session.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "client/QSClientCallbacks.h"
#include "client/QSClientSession.h"

namespace skerrowctl {

class ConversionFollower : public QSClientCallbacks {
 public:
  // Asks the engine for the state of the conversion on a disk ("" when none runs).
  using StateQuery = std::function<std::string(const std::string& mountPath)>;

  ConversionFollower(std::set<std::string> mountPaths, bool json, std::ostream& out, StateQuery query);

  // Serves the session until a conversion has run on every followed disk
  // and ended, `interrupted` turns true, or, while none has begun, `wait`
  // passes; answers the disks whose conversion was seen to end.
  std::set<std::string> follow(QSClientSession& session, std::chrono::milliseconds wait,
                               const volatile int* interrupted);
  // The states each disk went through, in order.
  const std::map<std::string, std::vector<std::string>>& states() const { return states_; }
  // The last state of the disk, if any was seen.
  std::optional<std::string> lastState(const std::string& mountPath) const;

  void conversionChanged(const std::string& state, const std::string& mountPath) override;

 private:
  void note(const std::string& state, const std::string& mountPath);

  const std::set<std::string> mountPaths_;
  const bool json_;
  std::ostream& out_;
  StateQuery query_;
  std::map<std::string, std::vector<std::string>> states_;
  std::set<std::string> running_;
};

}  // namespace skerrowctl
