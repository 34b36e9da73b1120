#include "tools/skerrowctl/Commands.h"

#include <map>

#include <fmt/format.h>
#include <sdbus-c++/Error.h>

#include "platform/Version.h"
#include "tools/skerrowctl/CommandsInternal.h"

namespace skerrowctl {

namespace {

using Runner = int (*)(Context&);
const std::map<std::string, Runner>& runners() {
  static const std::map<std::string, Runner> table{
      {"list", listCommand},           {"manage", manageCommand},         {"adopt", adoptCommand},
      {"forget", forgetCommand},       {"pause", pauseCommand},           {"activate", activateCommand},
      {"backup", backupCommand},       {"count", countCommand},           {"cancel", cancelCommand},
      {"set", setCommand},             {"filter", filterCommand},         {"heartbeat", heartbeatCommand},
      {"conversion", conversionCommand}, {"versions", versionsCommand},   {"restore", restoreCommand},
      {"mount", mountCommand},         {"umount", umountCommand},         {"agent", agentCommand},
  };
  return table;
}

void printUsage(std::ostream& out) {
  out << "Usage: skerrowctl [--json] [--session] [--user NAME] [--max-errors N] COMMAND [ARGUMENTS]\n\n"
         "Talks to the Skerrow backup engine (skerrowd) for the user running it.\n"
         "A backup's UID may be shortened to any prefix that names only one of yours.\n\nCommands:\n";
  for (const auto& entry : commandTable()) {
    const std::string head = std::string(entry.name) + " " + entry.synopsis;
    if (head.size() < 36)
      out << fmt::format("  {:<36}{}\n", head, entry.summary);
    else
      out << "  " << head << "\n" << std::string(38, ' ') << entry.summary << "\n";
  }
  out << "\nOptions (before or after the command):\n"
         "  --json           machine-readable output (one JSON document or event per line)\n"
         "  --session        talk to an engine on the session bus (skerrowd -userApp)\n"
         "  --user NAME      act for NAME (only root may act for another user)\n"
         "  --max-errors N   stop a backup after N failed copies in a row\n"
         "                   (default " << kDefaultMaximumErrors << ", as the engine's own; 0: never stop)\n"
         "  --version        print the version and exit\n\n"
         "Exit status:\n";
  for (const auto& status : kExitStatusTexts) out << fmt::format("  {:<5}{}\n", status.status, status.meaning);
  out << "\nskerrowctl COMMAND --help explains one command.\n";
}

// A failure said the same way everywhere: "skerrowctl: ..." on standard
// error, or a JSON object on standard output with --json.
int reportFailure(bool json, std::ostream& out, std::ostream& err, int status, const std::string& message) {
  if (json)
    out << Json::object().set("error", message).set("status", status).dump() << "\n";
  else
    err << "skerrowctl: " << message << "\n";
  return status;
}

}  // namespace

const std::vector<CommandEntry>& commandTable() {
  static const std::vector<CommandEntry> table{
      {"list", "", "list your backups on mounted disks",
       "Shows each backup's uid (shortened), disk, schedule, how many versions of each file it keeps, the last good "
       "backup (one that completed without a failed copy) and how the last run ended: completed, N failed (it "
       "completed but N files could not be copied), cancelled, or stopped (after too many failed copies in a row).",
       0, 0, {}, {}},
      {"manage", "DISK [--keep N | --depth N] [--period SECONDS] [--categories LIST]", "start backing up onto a disk",
       "DISK is the kernel name of a mounted disk (sdb1) or a path on it (/media/backup). The engine makes the folder "
       "\"qs skerrow.skstor/<uid>\" on it, owned by you, and prints the new backup's uid. --keep N keeps N versions "
       "of each file (the newest and N-1 older ones); --depth N is the engine's own measure, N older versions beside "
       "the newest (--depth 3 is --keep 4). --period schedules the backup at that interval (and so turns on the copying "
       "of each changed file as it is saved); without it the backup runs when asked (skerrowctl backup) until "
       "\"skerrowctl set UID scheduled on\". --categories backs up only the "
       "categories listed (comma-separated; default: all of Pictures, Music, Movies, Mail, Documents, Other).",
       1, 1, {"--depth", "--keep", "--period", "--categories"}, {}},
      {"adopt", "UID", "make a backup found on a disk yours",
       "A backup of yours found on a disk the engine does not manage becomes managed again.", 1, 1, {}, {}},
      {"forget", "UID", "stop managing a backup", "The engine forgets the backup; its files stay on the disk.", 1, 1,
       {}, {}},
      {"pause", "", "cancel and unschedule your backups",
       "Running backups are cancelled and the schedule stops until activate.", 0, 0, {}, {}},
      {"activate", "[UID] [--now]", "schedule your backups again", "With --now, back up at once too (all, or only UID).",
       0, 1, {}, {"--now"}},
      {"backup", "[UID] [--no-follow] [--tally]", "back up now and follow the progress",
       "Starts a backup of UID (or of each of your backups on a mounted disk) and follows it: the count of your home "
       "folder, the comparison with the backup, the copy, on one line redrawn four times a second (files, bytes, "
       "rate, time taken and left). At the end it says how the backup ended, what was copied, how many files failed "
       "and why, and the free space left on the disk; --tally adds the counts per category. It says at once when the "
       "backup needs more space than the disk has. Exits 0 when every file was copied, 3 when some failed, 5 when "
       "the backup was cancelled (by anyone), 130 when interrupted (the backup is then cancelled).",
       0, 1, {}, {"--no-follow", "--tally"}},
      {"count", "UID [--no-follow]", "count what a backup would copy",
       "Counts files and bytes per category in your home folder, in the backup and still to copy, without copying.",
       1, 1, {}, {"--no-follow"}},
      {"cancel", "UID", "cancel a running backup or count",
       "Stops what runs for the backup within about a second; a skerrowctl following it says so and exits 5. "
       "Anyone may cancel a running backup: another user's is named by its full uid.",
       1, 1, {}, {}},
      {"set", "UID period SECONDS | keep N | depth N | scheduled on|off | category NAME on|off",
       "change a backup's settings",
       "keep N keeps N versions of each file (depth N-1). Categories: Pictures, Music, Movies, Mail, Documents, Other.",
       3, 4, {}, {}},
      {"filter", "[EXPRESSION | --clear]", "show or set your exclusion filter",
       "Paths of your home folder matching the regular expression (case-insensitive) are not backed up.", 0, 1, {},
       {"--clear"}},
      {"heartbeat", "", "ask the engine for its clock", "Shows that the engine answers.", 0, 0, {}, {}},
      {"conversion", "[MOUNTPATH] [--wait SECONDS]", "follow the conversion of older backups on a disk",
       "Shows each state the conversion of the older product's backups (\"QS Tidevault\") on the disk, or on every "
       "mounted disk, goes through, and when it ends the new backups it made. --wait waits up to SECONDS for a "
       "conversion to begin (plug the disk in meanwhile). With none running: \"No conversion runs on ...\". Exits 1 "
       "when the disk could not be converted (the state says why).",
       0, 1, {"--wait"}, {}},
      {"versions", "PATH [--backup UID]", "list the stored versions of a file or folder",
       "PATH is a file or folder of your home folder (absolute, or relative to your home). Lists each stored version: "
       "number (higher is newer), size, modification date, when it was stored, and its name on the disk; for a "
       "folder, the versions of every file below it.",
       1, 1, {"--backup"}, {}},
      {"restore", "PATH [--at DATE | --version N] [--to DEST] [--overwrite] [--backup UID]",
       "copy stored versions back",
       "Restores a file or a whole folder: each file's newest version, or with --at DATE each file as it was at that "
       "date (the newest version modified not after DATE; files with none are left out), or version N of one file. "
       "DATE is 2025-01-31 (the end of that day), 2025-01-31 14:30, 2025-01-31T14:30:00Z or @SECONDS. Without --to "
       "files go back to their place in your home folder; with --to DEST a folder DEST receives them under their "
       "own name (a folder that does not exist becomes the restored folder), missing folders are made. Times and "
       "mode are kept. An existing file is never replaced unless --overwrite is given; what could not be restored "
       "is listed and the exit status is 1.",
       1, 1, {"--at", "--version", "--to", "--backup"}, {"--overwrite"}},
      {"mount", "DIR [--at DATE] [--backup UID] [--foreground]", "browse a backup as a folder",
       "Shows the backup as a read-only folder at DIR (FUSE): your home folder as it was, each file under its own "
       "name at its newest version (or as it was at DATE), so any file manager can browse and copy from it. Ends "
       "with: skerrowctl umount DIR. Without --foreground it returns once the folder is ready.",
       1, 1, {"--at", "--backup"}, {"--foreground"}},
      {"umount", "DIR", "end a view made by mount", "Unmounts the folder.", 1, 1, {}, {}},
      {"agent", "", "tell the desktop about your backups",
       "Runs in your desktop session (started by its systemd user unit or the autostart entry) and shows desktop "
       "notifications: a backup finished, failed, stopped or was cancelled (and why), a disk of your backups was "
       "mounted or ejected, a conversion of older backups made progress or ended. It reconnects when the engine "
       "restarts and says nothing more than once a minute about the same backup.",
       0, 0, {}, {}},
  };
  return table;
}

int run(const std::vector<std::string>& argv, std::ostream& out, std::ostream& err) {
  std::string why;
  const auto line = CommandLine::parse(argv, commandTable(), &why);
  if (!line) {
    const bool json = CommandLine::wantsJson(argv);
    reportFailure(json, out, err, kExitUsage, why);
    if (!json) err << "Try: skerrowctl --help\n";
    return kExitUsage;
  }
  if (line->version) {
    out << "skerrowctl " << platform::projectVersion() << "\n";
    return kExitOK;
  }
  if (line->help) {
    if (!line->command) {
      printUsage(out);
    } else {
      out << "Usage: skerrowctl " << line->command->name << " " << line->command->synopsis << "\n\n"
          << line->command->summary << ".\n" << line->command->details << "\n";
    }
    return kExitOK;
  }
  Context context(*line, out, err);
  try {
    return runners().at(line->command->name)(context);
  } catch (const Failure& failure) {
    return reportFailure(line->json, out, err, failure.status, failure.message);
  } catch (const sdbus::Error& e) {
    const std::string& name = e.getName();
    if (name == "org.freedesktop.DBus.Error.AccessDenied")
      return reportFailure(line->json, out, err, kExitNoEngine, "the engine refused: " + e.getMessage());
    if (name == "org.freedesktop.DBus.Error.ServiceUnknown" || name == "org.freedesktop.DBus.Error.FileNotFound" ||
        name == "org.freedesktop.DBus.Error.NoServer" || name == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
        name == "org.freedesktop.DBus.Error.Disconnected")
      return reportFailure(line->json, out, err, kExitNoEngine, "the engine is not running (" + e.getMessage() + ")");
    return reportFailure(line->json, out, err, kExitFailed, name + ": " + e.getMessage());
  }
}

}  // namespace skerrowctl
