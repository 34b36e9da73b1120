// Free functions on files and accounts: the trash, the catalog information
// of an item (dates and Finder information), bundle folders, folders that
// replace a file, and user names and home folders.
//
// On Linux the catalog information maps onto: the creation date kept in the
// "user.com.qsc.creation-date" attribute (or the birth time), the
// modification time, and 32 bytes of Finder information kept in the
// "user.com.apple.FinderInfo" attribute.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Engine/support/QSDateAdditions.h"
#include "platform/Value.h"

using OSStatus = int32_t;
inline constexpr OSStatus noErr = 0;
inline constexpr OSStatus ioErr = -36;
inline constexpr OSStatus fnfErr = -43;
inline constexpr OSStatus paramErr = -50;

// Catalog-information bits.
inline constexpr uint32_t kFSCatInfoCreateDate = 0x20;
inline constexpr uint32_t kFSCatInfoContentMod = 0x40;
inline constexpr uint32_t kFSCatInfoFinderInfo = 0x800;
inline constexpr uint32_t kFSCatInfoSettableInfo = 0x1FE3;
// Finder flag of a folder shown as a single item (a bundle).
inline constexpr uint16_t kHasBundle = 0x2000;
inline constexpr const char* kMacDefaultUsersFolder = "/Users";
inline constexpr const char* kFinderInfoAttribute = "com.apple.FinderInfo";

struct FSCatalogInfo {
  UTCDateTime createDate;
  UTCDateTime contentModDate;
  uint8_t finderInfo[32] = {};  // bytes 8-9: the Finder flags, big-endian
  uint16_t finderFlags() const { return static_cast<uint16_t>(finderInfo[8] << 8 | finderInfo[9]); }
  void setFinderFlags(uint16_t flags) {
    finderInfo[8] = static_cast<uint8_t>(flags >> 8);
    finderInfo[9] = static_cast<uint8_t>(flags);
  }
};

// Moves the item to the trash; when that fails and `deleteIfFails`, removes it.
bool QSCMoveFileToTrash(const std::string& path, bool deleteIfFails);
OSStatus QSCGetCatalogInfo(const std::string& path, bool followLink, uint32_t whichInfo, FSCatalogInfo* info);
OSStatus QSCSetCatalogInfo(const std::string& path, bool followLink, uint32_t whichInfo, const FSCatalogInfo& info);
// Sets the has-bundle Finder flag of a folder; false unless the path is a folder.
bool QSCSetBundleBitOnFolder(const std::string& path);
// Makes a folder at `path`, removing a file that stands there; an existing
// folder is left as it is.  The attributes may give "NSFilePosixPermissions",
// "NSFileOwnerAccountID" and "NSFileGroupOwnerAccountID".
bool QSCCreateDirectoryIfNeededAndDeleteFileIfNamePresent(const std::string& path,
                                                          const platform::Dictionary* attributes,
                                                          const FSCatalogInfo* catalogInfo);
// The account's full name (GECOS), or the short name when there is no such account (or no full name).
std::string QSCFullUserNameForUser(const std::string& shortName);
// The account's home folder; else the users folder ("/home") joined with the name.
std::string QSCHomeDirectoryForUser(const std::string& shortName);

// The catalog UTC date-time of a point in time, and back.
UTCDateTime QSCUTCDateTimeFromDate(platform::Date date);
