// skerrowctl's exit statuses: the one list the commands, --help and the
// README take them from.  Each status says one thing only.
#pragma once

namespace skerrowctl {

enum ExitStatus : int {
  kExitOK = 0,            // done: a backup completed and every copy succeeded
  kExitFailed = 1,        // refused or failed: the engine or the file system said no (why is printed)
  kExitUsage = 2,         // a mistake on the command line
  kExitCopiesFailed = 3,  // a backup ran but some files could not be copied (or it was stopped for that)
  kExitNoEngine = 4,      // the engine is not running, or refused this client
  kExitCancelled = 5,     // the backup or count was cancelled (skerrowctl cancel, another client, pause)
  kExitInterrupted = 130  // interrupted (Ctrl-C): what skerrowctl followed was cancelled
};

// The statuses with their meaning, in order, for --help.
struct ExitStatusText {
  int status;
  const char* meaning;
};
inline constexpr ExitStatusText kExitStatusTexts[] = {
    {kExitOK, "done (a backup completed and every file was copied)"},
    {kExitFailed, "refused or failed; the message says why"},
    {kExitUsage, "a mistake on the command line"},
    {kExitCopiesFailed, "a backup ran but some files could not be copied"},
    {kExitNoEngine, "the engine is not running or refused this client"},
    {kExitCancelled, "the backup or count was cancelled"},
    {kExitInterrupted, "interrupted; what was followed has been cancelled"},
};

}  // namespace skerrowctl
