// One mounted volume as the engine knows it: the kernel's mount id (its
// reference number), where it is mounted, its name (the file system's label,
// else the mount point's last component) and the kernel name of its block
// device, or for a network volume its server's IPv4 address as a decimal
// number.
//
// A record is immutable but for its URL, made on the first call of url()
// and kept; description() shows the URL only once it has been made.  Records
// may be shared between threads.
//
// The engine's volume functions (Engine/QSVolumeFunctions.h) read the
// system through one process-wide platform::VolumeService, the system's
// own unless a test installs another with setVolumeService.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/VolumeService.h"

class QSVolumeInfo {
 public:
  static std::shared_ptr<QSVolumeInfo> initWithRef_mountPoint_volumeName_bsdName(int32_t ref,
                                                                                 const std::string& mountPoint,
                                                                                 const std::string& volumeName,
                                                                                 const std::string& bsdName);

  QSVolumeInfo(const QSVolumeInfo&) = delete;
  QSVolumeInfo& operator=(const QSVolumeInfo&) = delete;

  int32_t ref() const { return ref_; }
  const std::string& mountPoint() const { return mountPoint_; }
  const std::string& volumeName() const { return volumeName_; }
  const std::string& bsdName() const { return bsdName_; }
  // "file://" + the mount point, percent-encoded, + "/" (made once, then kept).
  std::string url() const;

  std::string description() const;

  // The service the volume functions read; nullptr puts back the system's own.
  static void setVolumeService(std::shared_ptr<platform::VolumeService> service);
  static std::shared_ptr<platform::VolumeService> volumeService();

  struct Passkey {
    explicit Passkey() = default;
  };
  QSVolumeInfo(Passkey, int32_t ref, std::string mountPoint, std::string volumeName, std::string bsdName);

 private:
  int32_t ref_;
  std::string mountPoint_;
  std::string volumeName_;
  std::string bsdName_;
  mutable std::mutex urlMutex_;
  mutable std::optional<std::string> url_;
};
