#include "tools/skerrowctl/BackupTree.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>
#include <sstream>

#include "Engine/files/QSFSVersion.h"
#include "Engine/records/QSBackupAttributes.h"
#include "Engine/records/QSVersionName.h"
#include "platform/Directory.h"
#include "platform/FileError.h"
#include "platform/Path.h"
#include "platform/UnicodeText.h"

namespace skerrowctl {

namespace {

std::vector<std::string> componentsOf(const std::string& relative) {
  std::vector<std::string> parts;
  std::stringstream stream(relative);
  for (std::string part; std::getline(stream, part, '/');)
    if (!part.empty() && part != ".") parts.push_back(part);
  return parts;
}

std::string joined(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

// The folder `relative` below the backup folder, one component at a time, never through a link.
std::unique_ptr<platform::Directory> openFolder(const std::string& backupFolder, const std::string& relative) {
  auto folder = platform::Directory::open(backupFolder);
  for (const auto& part : componentsOf(relative)) {
    if (!folder) return nullptr;
    folder = folder->openChild(part);
  }
  return folder;
}

// The stored copy `entry` of `folder`, or nothing when it is not one.
std::optional<StoredVersion> storedVersion(const platform::Directory& folder, const std::string& entry,
                                           const std::string& folderPath) {
  const auto version = QSFSVersion::versionWithFileName_attributes(entry, QSFSFileAttributes());
  if (!version) return std::nullopt;
  platform::FileAttributes a;
  if (!folder.attributesOf(entry, &a, /*preferStoredCreationDate=*/true)) return std::nullopt;
  if (!a.isRegularFile() && !a.isSymbolicLink()) return std::nullopt;
  StoredVersion v;
  v.index = version->index();
  v.size = a.size;
  v.mode = a.mode;
  v.uid = a.uid;
  v.gid = a.gid;
  v.modificationTime = a.modificationTime;
  v.accessTime = a.accessTime;
  if (a.creationSource == platform::FileAttributes::CreationSource::StoredAttribute) v.creationTime = a.creationTime;
  // When the copy was made: its own birth time on the disk.
  platform::FileAttributes own;
  if (folder.attributesOf(entry, &own, false) && own.creationSource == platform::FileAttributes::CreationSource::BirthTime)
    v.storedTime = own.creationTime;
  v.isSymbolicLink = a.isSymbolicLink();
  v.fileName = entry;
  v.path = platform::appendingPathComponent(folderPath, entry);
  return v;
}

}  // namespace

bool isBackupFolder(const std::string& backupFolder, const std::string& relative) {
  return openFolder(backupFolder, relative) != nullptr;
}

std::optional<BackupTreeListing> listBackupTree(const std::string& backupFolder, const std::string& relativeFolder,
                                                VersionError* error) {
  BackupTreeListing listing;
  std::deque<std::string> pending{[&] {
    std::string start;
    for (const auto& part : componentsOf(relativeFolder)) start = joined(start, part);
    return start;
  }()};
  bool first = true;
  while (!pending.empty()) {
    const std::string relative = pending.front();
    pending.pop_front();
    auto folder = openFolder(backupFolder, relative);
    const std::string folderPath = relative.empty() ? backupFolder : platform::appendingPathComponent(backupFolder, relative);
    if (!folder) {
      if (first) {
        const int code = errno;
        if (code == ENOENT || code == ENOTDIR || code == ELOOP)
          *error = {VersionErrorKind::NoStoredVersions, "No stored folder " + (relative.empty() ? "~" : relative) +
                                                            " in " + backupFolder};
        else
          *error = {VersionErrorKind::IOError,
                    platform::posixError(code, folderPath, "Unable to open").localizedFailureReason()};
        return std::nullopt;
      }
      continue;  // removed or replaced meanwhile
    }
    first = false;
    BackupFolder info;
    info.path = relative;
    platform::FileAttributes own;
    if (folder->attributes(&own)) {
      info.mode = own.mode;
      info.modificationTime = own.modificationTime;
    }
    listing.folders.push_back(info);
    const auto entries = platform::listEntries(folder->fd());
    if (!entries) continue;
    std::map<std::string, BackupFile> groups;  // by lower-case plain name
    std::vector<std::string> children;
    for (const auto& entry : *entries) {
      if (relative.empty() && entry == kMetadataFileName) continue;
      platform::FileAttributes a;
      if (!folder->attributesOf(entry, &a)) continue;
      if (a.isDirectory()) {
        children.push_back(joined(relative, entry));
        continue;
      }
      const auto parsed = QSParseFileName(entry);
      if (!parsed) continue;
      auto version = storedVersion(*folder, entry, folderPath);
      if (!version) continue;
      groups[platform::lowercase((*parsed)[0])].versions.push_back(std::move(*version));
    }
    for (auto& [name, group] : groups) {
      std::sort(group.versions.begin(), group.versions.end(), [](const StoredVersion& a, const StoredVersion& b) {
        return a.index != b.index ? a.index < b.index : a.fileName < b.fileName;
      });
      group.path = joined(relative, QSParseFileName(group.versions.back().fileName)->at(0));
      listing.files.push_back(std::move(group));
    }
    std::sort(children.begin(), children.end());
    pending.insert(pending.end(), children.begin(), children.end());
  }
  std::sort(listing.files.begin(), listing.files.end(),
            [](const BackupFile& a, const BackupFile& b) { return a.path < b.path; });
  std::sort(listing.folders.begin() + 1, listing.folders.end(),
            [](const BackupFolder& a, const BackupFolder& b) { return a.path < b.path; });
  return listing;
}

const StoredVersion* versionAt(const std::vector<StoredVersion>& versions, std::optional<platform::Date> date) {
  if (versions.empty()) return nullptr;
  if (!date) return &versions.back();
  for (auto it = versions.rbegin(); it != versions.rend(); ++it)
    if (it->modificationTime.sinceReferenceDate() <= date->timeIntervalSinceReferenceDate()) return &*it;
  return nullptr;
}

}  // namespace skerrowctl
