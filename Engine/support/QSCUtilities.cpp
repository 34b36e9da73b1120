#include "Engine/support/QSCUtilities.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "platform/ExtendedAttributes.h"
#include "platform/FileAttributes.h"
#include "platform/FileManager.h"
#include "platform/Trash.h"
#include "platform/UserDatabase.h"

namespace {

// The path whose attributes are read or written: the link's target when following.
std::optional<std::string> targetPath(const std::string& path, bool followLink) {
  if (!followLink) return path;
  return platform::FileManager::resolvingSymlinksInPath(path);
}

platform::FileTime fileTimeOf(const UTCDateTime& value) {
  const double since2001 = initWithUTCDateTime(value).timeIntervalSinceReferenceDate();
  const double unix = since2001 + platform::Date::kTimeIntervalBetween1970AndReferenceDate;
  platform::FileTime t;
  t.seconds = static_cast<int64_t>(std::floor(unix));
  t.nanoseconds = static_cast<uint32_t>(std::llround((unix - std::floor(unix)) * 1e9) % 1000000000);
  return t;
}

}  // namespace

UTCDateTime QSCUTCDateTimeFromDate(platform::Date date) {
  const double since1904 = date.timeIntervalSinceReferenceDate() + platform::Date::kTimeIntervalBetween1904AndReferenceDate;
  UTCDateTime out;
  if (!(since1904 > 0)) return out;
  const double whole = std::floor(since1904);
  const auto seconds = static_cast<uint64_t>(whole);
  out.highSeconds = static_cast<uint16_t>(seconds >> 32);
  out.lowSeconds = static_cast<uint32_t>(seconds);
  out.fraction = static_cast<uint16_t>(std::floor((since1904 - whole) * 65536.0));
  return out;
}

bool QSCMoveFileToTrash(const std::string& path, bool deleteIfFails) {
  if (platform::Trash::moveToTrash(path)) return true;
  if (deleteIfFails) return platform::FileManager::removeItemAtPath(path);
  return false;
}

OSStatus QSCGetCatalogInfo(const std::string& path, bool followLink, uint32_t whichInfo, FSCatalogInfo* info) {
  const auto target = targetPath(path, followLink);
  platform::FileAttributes a;
  if (!target || !platform::FileManager::attributesAtPath(*target, &a, true)) return errno == ENOENT || !target ? fnfErr : ioErr;
  if (whichInfo & kFSCatInfoCreateDate)
    info->createDate = QSCUTCDateTimeFromDate(platform::Date(a.creationTime.sinceReferenceDate()));
  if (whichInfo & kFSCatInfoContentMod)
    info->contentModDate = QSCUTCDateTimeFromDate(platform::Date(a.modificationTime.sinceReferenceDate()));
  if (whichInfo & kFSCatInfoFinderInfo) {
    std::memset(info->finderInfo, 0, sizeof info->finderInfo);
    if (auto stored = platform::ExtendedAttributes::get(*target, kFinderInfoAttribute))
      std::memcpy(info->finderInfo, stored->data(), std::min(stored->size(), sizeof info->finderInfo));
  }
  return noErr;
}

OSStatus QSCSetCatalogInfo(const std::string& path, bool followLink, uint32_t whichInfo, const FSCatalogInfo& info) {
  const auto target = targetPath(path, followLink);
  if (!target || !platform::FileManager::fileExistsAtPath_traverseLink(*target, false)) return fnfErr;
  bool ok = true;
  if (whichInfo & kFSCatInfoCreateDate) {
    const platform::FileTime t = fileTimeOf(info.createDate);
    char text[48];
    const int n = std::snprintf(text, sizeof text, "%lld.%09u", static_cast<long long>(t.seconds), t.nanoseconds);
    ok = platform::ExtendedAttributes::set(*target, platform::kCreationDateAttribute,
                                           platform::Bytes(text, text + n), false) && ok;
  }
  if (whichInfo & kFSCatInfoContentMod) {
    const platform::FileTime t = fileTimeOf(info.contentModDate);
    ok = platform::FileManager::setTimes(*target, nullptr, &t, false) && ok;
  }
  if (whichInfo & kFSCatInfoFinderInfo)
    ok = platform::ExtendedAttributes::set(*target, kFinderInfoAttribute,
                                           platform::Bytes(info.finderInfo, info.finderInfo + sizeof info.finderInfo),
                                           false) && ok;
  return ok ? noErr : ioErr;
}

bool QSCSetBundleBitOnFolder(const std::string& path) {
  bool isDirectory = false;
  if (!platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(path, &isDirectory, true) || !isDirectory)
    return false;
  FSCatalogInfo info;
  if (QSCGetCatalogInfo(path, true, kFSCatInfoFinderInfo, &info) != noErr) return false;
  info.setFinderFlags(info.finderFlags() | kHasBundle);
  return QSCSetCatalogInfo(path, true, kFSCatInfoFinderInfo, info) == noErr;
}

bool QSCCreateDirectoryIfNeededAndDeleteFileIfNamePresent(const std::string& path,
                                                          const platform::Dictionary* attributes,
                                                          const FSCatalogInfo* catalogInfo) {
  bool isDirectory = false;
  if (platform::FileManager::fileExistsAtPath_isDirectory_traverseLink(path, &isDirectory, false)) {
    if (isDirectory) return true;
    if (!platform::FileManager::removeItemAtPath(path)) return false;
  }
  uint32_t mode = 0755;
  if (attributes)
    if (const platform::Value* v = attributes->find("NSFilePosixPermissions")) mode = v->uint32Value();
  if (!platform::FileManager::createDirectoryAtPath(path, true, mode, nullptr)) return false;
  if (attributes) {
    const platform::Value* uid = attributes->find("NSFileOwnerAccountID");
    const platform::Value* gid = attributes->find("NSFileGroupOwnerAccountID");
    if (uid || gid)
      platform::FileManager::setOwner(path, uid ? uid->uint32Value() : static_cast<uint32_t>(-1),
                                      gid ? gid->uint32Value() : static_cast<uint32_t>(-1), false);
    platform::FileManager::setPermissions(path, mode);  // not narrowed by the umask
  }
  if (catalogInfo) QSCSetCatalogInfo(path, false, kFSCatInfoSettableInfo, *catalogInfo);
  return true;
}

std::string QSCFullUserNameForUser(const std::string& shortName) {
  const auto account = platform::UserDatabase::accountNamed(shortName);
  if (!account || account->fullName.empty()) return shortName;
  return account->fullName;
}

std::string QSCHomeDirectoryForUser(const std::string& shortName) {
  if (const auto account = platform::UserDatabase::accountNamed(shortName); account && !account->home.empty())
    return account->home;
  const std::string usersFolder = platform::UserDatabase::kUsersFolder;
  return (usersFolder.empty() ? std::string(kMacDefaultUsersFolder) : usersFolder) + "/" + shortName;
}
