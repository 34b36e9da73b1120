// A made-up system for the volume service: a mountinfo text and a sysfs
// tree in a temporary folder, laid out as Linux lays them out (block
// devices under devices/, reached through dev/block/MAJ:MIN, class/block/NAME
// and block/NAME links; partitions inside their disk's folder; the SCSI
// device's model and type behind block/NAME/device), and a block device
// probe answering labels and UUIDs from a table.
#pragma once

#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Engine/records/QSVolumeInfo.h"
#include "platform/BlockDeviceProbe.h"
#include "platform/LinuxVolumeService.h"
#include "tests/support/TempDir.h"

namespace skerrow_test {

// Labels and UUIDs by device node path ("<dev root>/sdb1").
class TableBlockDeviceProbe : public platform::BlockDeviceProbe {
 public:
  std::map<std::string, Identity> identities;
  std::optional<Identity> identify(const std::string& devicePath) const override {
    const auto it = identities.find(devicePath);
    if (it == identities.end()) return std::nullopt;
    return it->second;
  }
};

class VolumeFixture {
 public:
  VolumeFixture() {
    dir.mkdir("sys/dev/block");
    dir.mkdir("sys/class/block");
    dir.mkdir("sys/block");
    dir.mkdir("dev");
    setMountTable({});
  }

  TempDir dir;
  std::shared_ptr<TableBlockDeviceProbe> probe = std::make_shared<TableBlockDeviceProbe>();

  std::string sysfs() const { return dir / "sys"; }
  std::string devRoot() const { return dir / "dev"; }
  std::string mountInfoPath() const { return dir / "mountinfo"; }

  std::shared_ptr<platform::LinuxVolumeService> service() const {
    return std::make_shared<platform::LinuxVolumeService>(platform::LinuxVolumeService::Options{
        .mountInfoPath = mountInfoPath(), .sysfsRoot = sysfs(), .devRoot = devRoot(), .probe = probe});
  }

  // A whole disk at devices/<parent>/block/<name>.  With a model or a SCSI
  // type, a SCSI device folder beside it holds them, linked as block/<name>/device.
  void addDisk(const std::string& name, unsigned major, unsigned minor,
               const std::string& parent = "devices/virtual", const std::string& model = "",
               std::optional<int> scsiType = std::nullopt) {
    const std::string folder = parent + "/block/" + name;
    dir.write("sys/" + folder + "/dev", numbers(major, minor) + "\n");
    if (!model.empty() || scsiType) {
      const std::string scsi = parent + "/scsi-" + name;
      if (!model.empty()) dir.write("sys/" + scsi + "/model", model);
      if (scsiType) dir.write("sys/" + scsi + "/type", std::to_string(*scsiType) + "\n");
      link("../../scsi-" + name, "sys/" + folder + "/device");
    }
    link("../../" + folder, "sys/dev/block/" + numbers(major, minor));
    link("../../" + folder, "sys/class/block/" + name);
    link("../" + folder, "sys/block/" + name);
    disks_[name] = folder;
  }

  // A partition of a disk made with addDisk.
  void addPartition(const std::string& disk, const std::string& name, unsigned major, unsigned minor,
                    int number = 1) {
    const std::string folder = disks_.at(disk) + "/" + name;
    dir.write("sys/" + folder + "/dev", numbers(major, minor) + "\n");
    dir.write("sys/" + folder + "/partition", std::to_string(number) + "\n");
    link("../../" + folder, "sys/dev/block/" + numbers(major, minor));
    link("../../" + folder, "sys/class/block/" + name);
  }

  // A dev/block entry pointing at a device sysfs does not describe.
  void addDanglingDevice(const std::string& name, unsigned major, unsigned minor) {
    link("../../devices/gone/block/" + name, "sys/dev/block/" + numbers(major, minor));
  }

  void setLabel(const std::string& bsdName, const std::string& label, const std::string& uuid = "") {
    probe->identities[devRoot() + "/" + bsdName] = {label, uuid};
  }

  // One mountinfo line; the mount point is escaped as the kernel escapes it.
  static std::string line(int id, const std::string& majorMinor, const std::string& mountPoint,
                          const std::string& fsType, const std::string& source, int parent = 1) {
    return std::to_string(id) + " " + std::to_string(parent) + " " + majorMinor + " / " + escaped(mountPoint) +
           " rw,relatime shared:1 - " + fsType + " " + source + " rw";
  }
  static std::string line(int id, dev_t device, const std::string& mountPoint, const std::string& fsType,
                          const std::string& source, int parent = 1) {
    return line(id, numbers(major(device), minor(device)), mountPoint, fsType, source, parent);
  }

  void setMountTable(const std::vector<std::string>& lines) const {
    std::string text;
    for (const auto& l : lines) text += l + "\n";
    // Replaced in one step, as the kernel's table changes.
    const std::string next = dir.write("mountinfo.next", text);
    std::filesystem::rename(next, mountInfoPath());
  }

  static std::string numbers(unsigned major, unsigned minor) {
    return std::to_string(major) + ":" + std::to_string(minor);
  }

  static std::string escaped(const std::string& path) {
    std::string out;
    for (const char c : path) {
      switch (c) {
        case ' ': out += "\\040"; break;
        case '\t': out += "\\011"; break;
        case '\n': out += "\\012"; break;
        case '\\': out += "\\134"; break;
        default: out += c;
      }
    }
    return out;
  }

 private:
  void link(const std::string& target, const std::string& name) const {
    const std::string path = dir / name;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    if (::symlink(target.c_str(), path.c_str()) != 0) throw std::runtime_error("cannot link " + path);
  }

  std::map<std::string, std::string> disks_;
};

// Installs a volume service for the engine's functions for one test.
class VolumeServiceScope {
 public:
  explicit VolumeServiceScope(std::shared_ptr<platform::VolumeService> service) {
    QSVolumeInfo::setVolumeService(std::move(service));
  }
  ~VolumeServiceScope() { QSVolumeInfo::setVolumeService(nullptr); }
  VolumeServiceScope(const VolumeServiceScope&) = delete;
  VolumeServiceScope& operator=(const VolumeServiceScope&) = delete;
};

}  // namespace skerrow_test
