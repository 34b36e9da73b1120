#include "platform/VolumeService.h"

#include "platform/LinuxVolumeService.h"

namespace platform {

VolumeService::~VolumeService() = default;

int VolumeService::mediaClassForBSDName(const std::string& bsdName) const {
  if (bsdName.empty()) return -1;
  for (const MountedVolume& v : mountedVolumes())
    if (v.bsdName == bsdName) return v.mediaClass;
  return -1;
}

std::shared_ptr<VolumeService> VolumeService::system() {
  static const std::shared_ptr<VolumeService> service = std::make_shared<LinuxVolumeService>();
  return service;
}

}  // namespace platform
