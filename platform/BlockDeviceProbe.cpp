#include "platform/BlockDeviceProbe.h"

#include <blkid/blkid.h>

namespace platform {

BlockDeviceProbe::~BlockDeviceProbe() = default;

namespace {

class LibblkidProbe final : public BlockDeviceProbe {
 public:
  std::optional<Identity> identify(const std::string& devicePath) const override {
    blkid_probe probe = blkid_new_probe_from_filename(devicePath.c_str());
    if (!probe) return std::nullopt;
    // Only the superblock values we use; partition tables are not read.
    blkid_probe_enable_superblocks(probe, 1);
    blkid_probe_set_superblocks_flags(probe, BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE);
    std::optional<Identity> identity;
    // 0: one file system found; 1: none; -2: ambiguous (several signatures).
    if (blkid_do_safeprobe(probe) == 0) {
      identity.emplace();
      const char* value = nullptr;
      size_t length = 0;
      if (blkid_probe_lookup_value(probe, "LABEL", &value, &length) == 0 && value) identity->label = value;
      if (blkid_probe_lookup_value(probe, "UUID", &value, &length) == 0 && value) identity->uuid = value;
    }
    blkid_free_probe(probe);
    return identity;
  }
};

}  // namespace

std::shared_ptr<BlockDeviceProbe> BlockDeviceProbe::libblkid() {
  static const std::shared_ptr<BlockDeviceProbe> probe = std::make_shared<LibblkidProbe>();
  return probe;
}

}  // namespace platform
