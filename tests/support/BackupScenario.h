// A managed backup for the real engine: a fake user with a synthetic home
// folder (made by skerrow_make_home and owned by the user), a loop-mounted
// ext4 backup disk holding the user's backup folder with its metadata, and
// a database in the engine's store naming the backup persistent and
// scheduled with every category.  Helpers read the backup folder back.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "Engine/files/QSBlackList.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSBackupEntry.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSVersionName.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/PropertyList.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FileSystemImage.h"

namespace skerrow_test {

struct StoredFile {
  ino_t inode = 0;
  off_t size = 0;
};

// Every regular file below `folder` (links not followed), by path relative to it.
inline std::map<std::string, StoredFile> regularFilesBelow(const std::string& folder) {
  namespace fs = std::filesystem;
  std::map<std::string, StoredFile> files;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (error) break;
    if (it->is_symlink(error) || !it->is_regular_file(error)) continue;
    struct stat st {};
    if (::lstat(it->path().c_str(), &st) != 0) continue;
    files[fs::relative(it->path(), folder).string()] = {st.st_ino, st.st_size};
  }
  return files;
}

// The stored name of a home file: its versioned name at `index` in the same folder.
inline std::string versionedPath(const std::string& relative, uint64_t index) {
  const std::filesystem::path p(relative);
  const std::string name = QSVersionName(p.filename().string(), index);
  return p.has_parent_path() ? (p.parent_path() / name).string() : name;
}

// Whether the black list lets a home-relative path into a backup.
inline bool admittedByBlackList(const std::string& relative) {
  const std::filesystem::path p(relative);
  std::filesystem::path prefix;
  for (const auto& part : p) {
    if (QSBlackList::isFilenameBlacklisted(part.string())) return false;
    prefix /= part;
    if (QSBlackList::isPathSuffixBlacklisted("/" + prefix.string())) return false;
  }
  return true;
}

class BackupScenario {
 public:
  static constexpr const char* kUID = "5E4B0C1A-0000-4000-8000-00000000A11E";
  static constexpr const char* kSaved = "Server did save to permanent store: 1";

  // Why the scenario cannot run here, or nothing.
  static std::optional<std::string> unavailableReason() {
    if (auto reason = EngineFixture::unavailableReason()) return reason;
    return FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4);
  }

  BackupScenario(const std::vector<std::string>& makeHomeArguments, uint64_t diskBytes, uint32_t versionDepth) {
    QSBlackList::initialize();
    const auto& ann = fixture.users().addUser("ann", 1500, 1500, "Ann Example");
    home = ann.home;
    std::filesystem::remove(home);
    std::vector<std::string> command = {SKERROW_MAKE_HOME, "-q"};
    command.insert(command.end(), makeHomeArguments.begin(), makeHomeArguments.end());
    command.push_back(home);
    if (runCommand(command).exitCode != 0) throw std::runtime_error("skerrow_make_home failed");
    runCommand({"chown", "-R", "-h", "1500:1500", home});

    disk = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, diskBytes,
                                             FileSystemImageOptions{.label = "Backup"});
    auto entry = QSBackupEntry::initWithUID(kUID);
    entry->setShortUserName("ann");
    entry->setLongUserName("Ann Example");
    entry->setUserHome(home);
    for (const char* category : kAllCategories) entry->categoryWithIdentifier(category)->setScheduled(true);
    entry->setVersionDepth(versionDepth);
    entry->setPeriod(3600);
    backup = disk->mountPoint() + "/" + kBackupDestinationDirectoryName + "/" + kUID;
    std::filesystem::create_directories(backup);
    platform::PropertyList::writeFile(backup + "/" + kMetadataFileName, platform::Value(entry->metadataForBackupDir()));
    entry->setPersistent(true);
    entry->setScheduled(true);
    store = fixture.storeRoot() + "/Library/Application Support/Vornhalden/";
    std::filesystem::create_directories(store);
    platform::PropertyList::writeFile(store + kBackupDatabaseFile,
                                      platform::Value(QSSkerrowServer::databaseContents({entry}, {})));
  }

  DaemonProcess& start() { return *(engine = &fixture.startEngine({"-noSchedule", "-noRealtime"})); }

  // Waits until the engine's log holds `count` lines containing `text`.
  bool waitForCount(const std::string& text, size_t count, std::chrono::seconds timeout) const {
    const auto until = std::chrono::steady_clock::now() + timeout;
    while (countContaining(text) < count) {
      if (std::chrono::steady_clock::now() > until) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
  }
  size_t countContaining(const std::string& text) const {
    size_t n = 0;
    for (const auto& line : engine->logLines()) n += line.find(text) != std::string::npos;
    return n;
  }

  EngineFixture fixture;
  std::string home;
  std::unique_ptr<FileSystemImage> disk;
  std::string backup;
  std::string store;
  DaemonProcess* engine = nullptr;
};

}  // namespace skerrow_test
