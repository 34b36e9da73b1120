// What the engine server is started with: the process arguments, the
// invoking user's home folder (for "-userApp"), an optional root prefix for
// the permanent store, the main run loop and the workspace notification
// centre.  `current()` describes the running process; tests build their own.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Date.h"
#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"
#include "platform/UserDatabase.h"

class QSBackupConverterProtocol;
class QSFSWatcher;
class QSBackupConverterDelegate;

struct QSServerEnvironment {
  std::vector<std::string> arguments;        // the program path first
  std::string invokingUserHome;              // $HOME, else the account's home
  std::optional<std::string> storeRoot;      // $SKERROW_ROOT: prefixes the permanent store folder (packaging, tests)
  platform::RunLoop* runLoop = nullptr;      // the main loop
  platform::NotificationCenter* workspace = nullptr;
  // The accounts the first stage serves (the password database when null; must outlive the server).
  const platform::AccountDirectory* accounts = nullptr;
  // Makes the converter of a newly mounted volume; without one no converter is started.
  using ConverterFactory = std::function<std::shared_ptr<QSBackupConverterProtocol>(
      const std::string& mountPath, QSBackupConverterDelegate* delegate)>;
  ConverterFactory converterFactory;
  // Whether the pipeline stages run their threads (tests drive them by hand).
  bool startPipelineThreads = true;
  // The continuous-backup watcher: the process's own in current(); tests
  // give one on a fake source, or none (then nothing is watched).
  std::shared_ptr<QSFSWatcher> watcher;
  // The clock of the scheduler (the system clock when empty).
  std::function<platform::Date()> clock;

  static QSServerEnvironment current();
};
