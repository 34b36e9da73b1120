// What the system knows of its mounted volumes: the mount table with, for
// each mount, its block device, the file system's label and UUID, whether it
// is a network share (and its server's IPv4 address), and whether it sits on
// an optical disc; and, for a block device, its whole disk and model.
//
// Every answer is read afresh from the system: nothing is cached, so two
// calls may disagree when something was mounted in between.  The methods
// are safe from any thread and never raise; what cannot be found is left
// empty ("", nothing).  `system()` is the service over the running system;
// tests make a LinuxVolumeService over fixture files, or a fake.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

struct MountedVolume {
  int32_t mountId = 0;         // the kernel's mount id: a small number, stable while mounted
  std::string mountPoint;      // unescaped ("\040" in the table is a blank here)
  std::string fsType;          // "ext4", "fuseblk", "nfs4", ...
  std::string source;          // "/dev/sdb1", "server:/export", "//host/share", "tmpfs"
  uint64_t device = 0;         // st_dev of the files on it
  std::string bsdName;         // kernel name of its block device ("sdb1", "loop0"), "" without one
  std::string label;           // the file system's label, "" when unknown
  std::string uuid;            // the file system's UUID, "" when unknown
  bool isNetwork = false;      // served over the network (nfs, cifs, sshfs, ...)
  std::string serverAddress;   // network volumes: the server's IPv4 address as one decimal number
                               // (10.0.0.1 -> "167772161"); "" otherwise or when unresolvable
  int mediaClass = -1;         // 0: a disk that is not optical, or a partition of one; 1: optical;
                               // -1: no block device, or one that cannot be examined
};

struct DiskInfo {
  std::string wholeDiskBSDName;  // "sdb" for "sdb1"; the device itself when it is a whole disk
  std::string model;             // as the disk reports it, blanks trimmed; "" when it has none
};

class VolumeService {
 public:
  virtual ~VolumeService();

  // Every mount, in the order of the mount table.
  virtual std::vector<MountedVolume> mountedVolumes() const = 0;
  // The volume holding `path` (links followed): the mount whose device is
  // the path's st_dev; when several mounts share that device, the one with
  // the longest mount point that contains the resolved path.  Nothing when
  // the path does not exist or no mount has its device.
  virtual std::optional<MountedVolume> volumeForPath(const std::string& path) const = 0;
  // The whole disk of a block device and the disk's model; nothing when the
  // system has no block device of that name or it cannot be examined.
  virtual std::optional<DiskInfo> diskInfoForBSDName(const std::string& bsdName) const = 0;
  // The media class (as in MountedVolume) of a block device by name; -1 for
  // an unknown name.  By default, that of the first mounted volume on it.
  virtual int mediaClassForBSDName(const std::string& bsdName) const;

  // The service over the running system (/proc/self/mountinfo, /sys, /dev,
  // libblkid); one instance shared by the process.
  static std::shared_ptr<VolumeService> system();
};

}  // namespace platform
