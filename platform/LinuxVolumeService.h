// The volume service over Linux's own files: the mount table read with
// libmount from a mountinfo file, block devices looked up in sysfs, device
// nodes under /dev, and labels and UUIDs read by a BlockDeviceProbe.
//
// Each of those roots can be moved, so tests run the same code on a fixture
// mountinfo text and a fixture sysfs tree.  How a mount's block device is found:
//  - a source that is a block device node (under the /dev root) is that device;
//  - a source "/dev/NAME" whose node cannot be examined is the device sysfs
//    lists as class/block/NAME;
//  - otherwise the table's major:minor, when sysfs has dev/block/MAJ:MIN.
// So a FUSE file system served from a block device ("fuseblk" from
// /dev/loop1) gets that device, while tmpfs, overlay or sshfs get none.  A
// device's name is the last component of where dev/block/MAJ:MIN points;
// a partition's whole disk is the folder holding class/block/NAME once
// resolved; a disk is optical when its name starts with "sr" or its SCSI
// type (block/WHOLE/device/type) is 5.
//
// Network sources ("server:/export", "//host/share", "user@host:/path",
// "https://host/path", "mon1,mon2:/") name their server; its IPv4 address
// is read as a number when written as one, else resolved with getaddrinfo
// (IPv4 only).  Instances are immutable and safe from any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/BlockDeviceProbe.h"
#include "platform/VolumeService.h"

namespace platform {

// Where the service reads.  Declared outside the class so it can be a
// defaulted constructor argument with designated initializers.
struct LinuxVolumeServiceOptions {
  std::string mountInfoPath = "/proc/self/mountinfo";
  std::string sysfsRoot = "/sys";
  std::string devRoot = "/dev";
  std::shared_ptr<BlockDeviceProbe> probe = {};  // BlockDeviceProbe::libblkid() when empty
};

class LinuxVolumeService : public VolumeService {
 public:
  using Options = LinuxVolumeServiceOptions;

  explicit LinuxVolumeService(Options options = {});

  std::vector<MountedVolume> mountedVolumes() const override;
  std::optional<MountedVolume> volumeForPath(const std::string& path) const override;
  std::optional<DiskInfo> diskInfoForBSDName(const std::string& bsdName) const override;
  int mediaClassForBSDName(const std::string& bsdName) const override;

  const Options& options() const { return options_; }

  // Whether a file system type is served over the network.
  static bool isNetworkFileSystemType(const std::string& fsType);
  // The server named by a network mount's source ("" when none can be read).
  static std::string serverHostOfSource(const std::string& source);
  // The IPv4 address of `host` (a dotted address or a name) as one decimal
  // number in host byte order; "" when it cannot be resolved.
  static std::string ipv4AddressNumberOfHost(const std::string& host);

 private:
  // The block device name of a mount, "" without one.
  std::string blockDeviceName(const std::string& source, uint64_t device) const;
  std::string blockDeviceNameForNumbers(unsigned major, unsigned minor) const;
  // The whole disk's name of a block device; nothing when sysfs has no such device.
  std::optional<std::string> wholeDiskName(const std::string& bsdName) const;

  Options options_;
};

}  // namespace platform
