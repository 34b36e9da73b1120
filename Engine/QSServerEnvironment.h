// What the engine server is started with: the process arguments, the
// invoking user's home folder (for "-userApp"), an optional root prefix for
// the permanent store, the main run loop and the workspace notification
// centre.  `current()` describes the running process; tests build their own.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/NotificationCenter.h"
#include "platform/RunLoop.h"

struct QSServerEnvironment {
  std::vector<std::string> arguments;        // the program path first
  std::string invokingUserHome;              // $HOME, else the account's home
  std::optional<std::string> storeRoot;      // $SKERROW_ROOT: prefixes the permanent store folder (packaging, tests)
  platform::RunLoop* runLoop = nullptr;      // the main loop
  platform::NotificationCenter* workspace = nullptr;

  static QSServerEnvironment current();
};
