// The engine's questions about volumes, answered from the volume service
// installed with QSVolumeInfo::setVolumeService (the system's by default).
//
// A volume is local when it is not served over the network and lives on a
// disk that is not optical (or a partition of one).  Walks over the mount
// table leave out, silently, volumes whose mount point is 4096 bytes or
// longer and entries that cannot be examined (a block device sysfs does not
// describe), and go on with the next entry.  Volumes with neither a block
// device nor a server address (tmpfs, proc, overlay...) are in no map.
// When several mounts share a key, the first in the table is kept.  Every
// function may be called from any thread and never raises.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Engine/records/QSVolumeInfo.h"

// The local volume with that mount id, or nullptr.
std::shared_ptr<QSVolumeInfo> QSVolumeInfoForRefNum(int32_t ref);
// The volume holding `path` (links followed), or nullptr when there is none
// or it is not local.
std::shared_ptr<QSVolumeInfo> QSVolumeInfoForPath(const std::string& path);
// Every mounted local volume, by the kernel name of its block device.
std::map<std::string, std::shared_ptr<QSVolumeInfo>> QSVolumeInfoForLocalVolumes();
// Every mounted volume, local or not, by the kernel name of its block
// device; network volumes by their server's IPv4 address as a decimal
// number, which is also their record's bsd name.
std::map<std::string, std::shared_ptr<QSVolumeInfo>> QSVolumeInfoForAllVolumes();

// The media class of a block device: 0 a disk that is not optical (or a
// partition of one), 1 optical, -1 none or unknown.
int GetAdditionalVolumeInfo(const std::string& bsdName);
// The whole disk and model of a block device.  The icon outputs are always
// cleared: Linux disks have no icons.  Every given output is set, cleared
// on failure; false when the device is unknown.
bool DiskInfoForVolumeBSDName(const std::string& bsdName, std::string* wholeDisk, std::string* model,
                              std::string* iconBundle, std::string* iconFile);
// The mounted volume on the block device `bsdName` (or, for a network
// volume, with that server address): its mount point, name and file system
// UUID (nothing when it has none).  False, with the outputs cleared, when no
// mounted volume has that name.
bool VolumeInfoForBSDName(const std::string& bsdName, std::string* mountPath, std::string* volumeName,
                          std::optional<std::string>* uuid);

// The URL of the public share a host offers to guests over AFP, found by
// Bonjour: "afp://;AUTH=No%20User%20Authent@<host>._afpovertcp._tcp.local/Public",
// with the host's UTF-8 bytes percent-escaped where a URL cannot hold them.
std::string HiddenShareURLForHost(const std::string& host);

// The string, or "" for nothing.
std::string NilSafeString(const std::optional<std::string>& text);
