// Reads the label and UUID of the file system on a block device.
//
// `libblkid()` is the real probe: it opens the device node read-only and
// looks for a file system's superblock with libblkid, without its cache or
// udev, so it works wherever the node can be read (for most devices, as
// root only).  Tests give the volume service a fake instead.  Probes are
// stateless and safe from any thread; they never raise.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace platform {

class BlockDeviceProbe {
 public:
  struct Identity {
    std::string label;  // "" when the file system has none
    std::string uuid;   // "" when the file system has none
  };

  virtual ~BlockDeviceProbe();

  // The identity of the file system on the device node `devicePath`
  // ("/dev/sdb1"); nothing when the node cannot be read or holds no
  // recognised file system.
  virtual std::optional<Identity> identify(const std::string& devicePath) const = 0;

  // The probe over libblkid.
  static std::shared_ptr<BlockDeviceProbe> libblkid();
};

}  // namespace platform
