// The system journal for a test: the running journald when one answers on
// /run/systemd/journal/socket, otherwise a private systemd-journald started
// for the test (as root, writing to /run/log/journal) and stopped, with the
// sockets it made, when the object goes.  Entries are read back with
// journalctl.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/DaemonProcess.h"

namespace skerrow_test {

class JournalDaemon {
 public:
  // Why no journal can be had here, or nothing.
  static std::optional<std::string> unavailableReason();

  JournalDaemon();
  ~JournalDaemon();
  JournalDaemon(const JournalDaemon&) = delete;
  JournalDaemon& operator=(const JournalDaemon&) = delete;

  // The entries whose field `match` ("SKERROW_BACKUP_UID=...") holds, each
  // one line of journalctl's JSON output, oldest first.
  std::vector<std::string> entries(const std::string& match) const;

 private:
  std::unique_ptr<DaemonProcess> own_;
};

}  // namespace skerrow_test
