// skerrowctl's commands about the files in a backup: versions and restore,
// of one file or of a whole folder.
#include <unistd.h>

#include "platform/FileManager.h"
#include "platform/Path.h"
#include "tools/skerrowctl/BackupTree.h"
#include "tools/skerrowctl/CommandsInternal.h"
#include "tools/skerrowctl/VersionBrowser.h"
#include "tools/skerrowctl/Wording.h"

namespace skerrowctl {

namespace {

constexpr size_t kFailuresShown = 20;

VersionBrowser browserFor(Context& c) {
  const auto entry = c.chosenBackup();
  if (entry->mountPoint().empty()) fail("the disk of backup " + entry->uid().substr(0, 8) + " is not mounted");
  return VersionBrowser(VersionBrowser::backupFolderPath(entry->mountPoint(), entry->uid()), entry->userHome());
}

int statusFor(const VersionError& error) {
  return error.kind == VersionErrorKind::InvalidPath ? kExitUsage : kExitFailed;
}

platform::Date dateOf(const platform::FileTime& time) { return platform::Date(time.sinceReferenceDate()); }

Json versionJson(const StoredVersion& v) {
  return Json::object()
      .set("version", v.index)
      .set("size", v.size)
      .set("modified", isoDate(dateOf(v.modificationTime), true))
      .set("created", v.creationTime ? Json(isoDate(dateOf(*v.creationTime), true)) : Json())
      .set("stored", v.storedTime ? Json(isoDate(dateOf(*v.storedTime), true)) : Json())
      .set("link", v.isSymbolicLink)
      .set("path", v.path);
}

std::vector<std::string> versionRow(const std::string& file, const StoredVersion& v) {
  return {file, std::to_string(v.index), humanBytes(static_cast<int64_t>(v.size)), localDate(dateOf(v.modificationTime)),
          v.storedTime ? localDate(dateOf(*v.storedTime)) : "-", v.fileName};
}

std::optional<platform::Date> atDate(Context& c) {
  const auto text = c.line.value("--at");
  if (!text) return std::nullopt;
  const auto date = parseUserDate(*text);
  if (!date)
    fail("not a date: \"" + *text + "\" (say 2025-01-31, 2025-01-31 14:30, 2025-01-31T14:30:00Z or @SECONDS)",
         kExitUsage);
  return date;
}

// Redraws "Restoring 12/300 files" on a terminal, at most four times a second.
class RestoreProgress {
 public:
  RestoreProgress(std::ostream& err, size_t total) : err_(err), total_(total), terminal_(::isatty(STDERR_FILENO) == 1) {}
  void step(size_t done) {
    if (!terminal_) return;
    const auto now = std::chrono::steady_clock::now();
    if (done < total_ && now < next_) return;
    next_ = now + std::chrono::milliseconds(250);
    err_ << "\r\033[KRestoring " << grouped(static_cast<int64_t>(done)) << "/"
         << countOf(static_cast<int64_t>(total_), "file", "files") << std::flush;
    open_ = true;
  }
  void interrupt() {
    if (open_) err_ << "\r\033[K" << std::flush;
    open_ = false;
  }
  ~RestoreProgress() {
    if (open_) err_ << "\n" << std::flush;
  }

 private:
  std::ostream& err_;
  size_t total_;
  bool terminal_;
  bool open_ = false;
  std::chrono::steady_clock::time_point next_;
};

int versionsOfFolder(Context& c, const VersionBrowser& browser, const HomeRelativePath& folder) {
  VersionError error;
  const auto listing = listBackupTree(browser.backupFolder(), folder.path(), &error);
  if (!listing) fail(error.message, statusFor(error));
  const size_t prefix = folder.path().size() + 1;
  if (c.line.json) {
    Json all = Json::array();
    for (const auto& file : listing->files) {
      Json versions = Json::array();
      for (const auto& v : file.versions) versions.push(versionJson(v));
      all.push(Json::object().set("file", file.path).set("versions", versions));
    }
    c.out << all.dump() << "\n";
    return kExitOK;
  }
  std::vector<std::vector<std::string>> rows{{"FILE", "VERSION", "SIZE", "MODIFIED", "STORED", "STORED AS"}};
  for (const auto& file : listing->files)
    for (const auto& v : file.versions) rows.push_back(versionRow(file.path.substr(prefix), v));
  printTable(c.out, rows);
  if (listing->files.empty()) c.out << "No stored files below " << folder.path() << "\n";
  return kExitOK;
}

struct Planned {
  std::string storedRelative;  // the copy, below the backup folder
  std::string destination;     // below the destination root: folder and name
  std::string label;           // the file, below the home folder
};

int restoreFolder(Context& c, const VersionBrowser& browser, const HomeRelativePath& folder,
                  std::optional<platform::Date> at) {
  VersionError error;
  const auto listing = listBackupTree(browser.backupFolder(), folder.path(), &error);
  if (!listing) fail(error.message, statusFor(error));
  // Where the folder goes: in place, into an existing folder under its own name, or as a new folder.
  std::string root, top;
  if (const auto to = c.line.value("--to")) {
    bool isDirectory = false;
    if (platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(*to, &isDirectory, true) && isDirectory) {
      root = *to;
      top = folder.fileName();
    } else {
      std::string target = *to;
      while (target.size() > 1 && target.back() == '/') target.pop_back();
      root = platform::deletingLastPathComponent(target);
      if (root.empty()) root = ".";
      top = platform::lastPathComponent(target);
      if (!platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(root, &isDirectory, true) || !isDirectory)
        fail("no folder " + root + " to restore into");
    }
  } else {
    root = browser.home();
    top = folder.path();
  }
  const size_t prefix = folder.path().size() + 1;
  std::vector<Planned> plan;
  for (const auto& file : listing->files) {
    const StoredVersion* v = versionAt(file.versions, at);
    if (!v) continue;  // the file did not exist yet at that date
    const std::string below = file.path.substr(prefix);
    const std::string storedFolder = platform::deletingLastPathComponent(file.path);
    plan.push_back({storedFolder.empty() ? v->fileName : storedFolder + "/" + v->fileName, top + "/" + below, file.path});
  }
  std::vector<std::pair<std::string, std::string>> failures;
  size_t restored = 0;
  {
    RestoreProgress progress(c.err, plan.size());
    // Folders first, with the modes they have in the backup.
    for (const auto& f : listing->folders) {
      const std::string below = f.path.size() > folder.path().size() ? f.path.substr(prefix) : "";
      VersionError made;
      if (!VersionBrowser::makeFoldersBeneath(root, below.empty() ? top : top + "/" + below, f.mode ? f.mode : 0700,
                                              &made))
        failures.emplace_back(f.path, made.message);
    }
    for (size_t i = 0; i < plan.size(); ++i) {
      const Planned& p = plan[i];
      VersionError copied;
      const std::string destinationFolder = platform::deletingLastPathComponent(p.destination);
      if (VersionBrowser::copyStored(browser.backupFolder(), p.storedRelative, root, destinationFolder,
                                     platform::lastPathComponent(p.destination), c.line.has("--overwrite"), p.label,
                                     &copied))
        ++restored;
      else
        failures.emplace_back(p.label, copied.message);
      progress.step(i + 1);
    }
  }
  const std::string where = platform::appendingPathComponent(root, top);
  if (c.line.json) {
    Json failed = Json::array();
    for (const auto& [path, why] : failures) failed.push(Json::object().set("path", path).set("error", why));
    c.out << Json::object()
                 .set("restored", restored)
                 .set("files", plan.size())
                 .set("to", where)
                 .set("at", at ? Json(isoDate(*at)) : Json())
                 .set("failed", failed)
                 .dump()
          << "\n";
  } else {
    for (size_t i = 0; i < failures.size() && i < kFailuresShown; ++i)
      c.err << "skerrowctl: could not restore " << failures[i].first << ": " << failures[i].second << "\n";
    if (failures.size() > kFailuresShown)
      c.err << "skerrowctl: " << grouped(static_cast<int64_t>(failures.size() - kFailuresShown))
            << " more could not be restored\n";
    c.out << "Restored " << grouped(static_cast<int64_t>(restored)) << " of "
          << countOf(static_cast<int64_t>(plan.size()), "file", "files") << " to " << where
          << (at ? " as they were at " + localDate(*at) : std::string()) << "\n";
    if (!failures.empty())
      c.out << countOf(static_cast<int64_t>(failures.size()), "item", "items")
            << " could not be restored (an existing file is replaced only with --overwrite)\n";
  }
  return failures.empty() ? kExitOK : kExitFailed;
}

}  // namespace

int versionsCommand(Context& c) {
  const VersionBrowser browser = browserFor(c);
  VersionError error;
  const auto file = browser.resolve(c.line.arguments[0], &error);
  if (!file) fail(error.message, statusFor(error));
  if (isBackupFolder(browser.backupFolder(), file->path())) return versionsOfFolder(c, browser, *file);
  const auto found = browser.versionsOf(*file, &error);
  if (!error.empty()) fail(error.message, statusFor(error));
  if (c.line.json) {
    Json all = Json::array();
    for (const auto& v : found) all.push(versionJson(v));
    c.out << all.dump() << "\n";
    return kExitOK;
  }
  std::vector<std::vector<std::string>> rows{{"VERSION", "SIZE", "MODIFIED", "STORED", "STORED AS"}};
  for (const auto& v : found) {
    auto row = versionRow("", v);
    rows.push_back({row.begin() + 1, row.end()});
  }
  printTable(c.out, rows);
  return kExitOK;
}

int restoreCommand(Context& c) {
  const VersionBrowser browser = browserFor(c);
  const auto at = atDate(c);
  if (at && c.line.value("--version")) fail("say --at DATE or --version N, not both", kExitUsage);
  VersionError error;
  const auto file = browser.resolve(c.line.arguments[0], &error);
  if (!file) fail(error.message, statusFor(error));
  if (isBackupFolder(browser.backupFolder(), file->path())) {
    if (c.line.value("--version")) fail("--version names a version of one file; for a folder say --at DATE", kExitUsage);
    return restoreFolder(c, browser, *file, at);
  }
  RestoreOptions options;
  if (const auto version = c.line.value("--version")) options.version = parseWhole(*version, "--version");
  if (at) {
    const auto stored = browser.versionsOf(*file, &error);
    if (stored.empty()) fail(error.message, statusFor(error));
    const StoredVersion* v = versionAt(stored, at);
    if (!v) fail("no version of " + file->path() + " is as old as " + localDate(*at) + " (the oldest was modified " +
                 localDate(dateOf(stored.front().modificationTime)) + ")");
    options.version = v->index;
  }
  options.destination = c.line.value("--to");
  options.overwrite = c.line.has("--overwrite");
  const auto restored = browser.restore(c.line.arguments[0], options, &error);
  if (!restored) fail(error.message, statusFor(error));
  c.report("Restored version " + std::to_string(restored->version.index) + " of " + file->path() + " (modified " +
               localDate(dateOf(restored->version.modificationTime)) + ") to " + restored->destinationPath,
           Json::object()
               .set("version", restored->version.index)
               .set("modified", isoDate(dateOf(restored->version.modificationTime), true))
               .set("path", restored->destinationPath));
  return kExitOK;
}

}  // namespace skerrowctl
