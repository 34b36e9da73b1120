#include "Engine/server/QSServerEnvironment.h"

#include "Engine/pipeline/QSFSWatcher.h"
#include "platform/Process.h"
#include "platform/UserDatabase.h"
#include "platform/Workspace.h"

QSServerEnvironment QSServerEnvironment::current() {
  QSServerEnvironment env;
  env.arguments = platform::Process::arguments();
  if (auto home = platform::Process::environmentVariable("HOME"); home && !home->empty())
    env.invokingUserHome = *home;
  else if (auto account = platform::UserDatabase::accountWithUID(platform::UserDatabase::currentUID()))
    env.invokingUserHome = account->home;
  if (auto root = platform::Process::environmentVariable("SKERROW_ROOT"); root && !root->empty()) env.storeRoot = *root;
  env.runLoop = platform::RunLoop::main();
  env.workspace = &platform::workspaceNotificationCenter();
  env.watcher = QSFSWatcher::instance();
  return env;
}
