// The volume functions and the mount monitor on the real system, with
// loop-mounted images: an ext4 image through the kernel, an exFAT image
// through FUSE (fuseblk on the loop device).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <mutex>
#include <optional>
#include <vector>

#include "Engine/records/QSVolumeFunctions.h"
#include "Engine/records/QSVolumeInfo.h"
#include "platform/LinuxVolumeService.h"
#include "platform/MountMonitor.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"
#include "tests/support/LoopThread.h"
#include "tests/support/TempDir.h"

using platform::MountChange;
using platform::MountMonitor;
using skerrow_test::FileSystemImage;

namespace {

constexpr uint64_t kMiB = 1024 * 1024;

#define SKIP_IF_UNAVAILABLE(kind)                                                   \
  if (auto reason = FileSystemImage::unavailableReason(kind)) GTEST_SKIP() << *reason

std::string loopName(const FileSystemImage& image) {
  const std::string& device = image.loopDevice();
  return device.substr(device.rfind('/') + 1);
}

// The changes a monitor reported, read from the test's thread.
class ChangeLog {
 public:
  void add(const MountChange& c) {
    std::lock_guard<std::mutex> lock(mutex_);
    changes_.push_back(c);
  }
  bool has(MountChange::Kind kind, const std::string& mountPoint) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::any_of(changes_.begin(), changes_.end(),
                       [&](const MountChange& c) { return c.kind == kind && c.mountPoint == mountPoint; });
  }
  size_t count(const std::string& mountPoint) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<size_t>(std::count_if(changes_.begin(), changes_.end(),
                                             [&](const MountChange& c) { return c.mountPoint == mountPoint; }));
  }

 private:
  mutable std::mutex mutex_;
  std::vector<MountChange> changes_;
};

}  // namespace

TEST(QSVolumeInfoTest, LoopMountedExt4ImageIsALocalVolumeUnderItsLoopDeviceWithItsLabel) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::Ext4);
  QSVolumeInfo::setVolumeService(nullptr);
  FileSystemImage image(FileSystemImage::Kind::Ext4, 16 * kMiB, {.label = "SkerrowVol"});
  const std::string bsd = loopName(image);
  ASSERT_FALSE(bsd.empty());

  const auto local = QSVolumeInfoForLocalVolumes();
  ASSERT_EQ(local.count(bsd), 1u) << "no local volume " << bsd;
  const auto& info = local.at(bsd);
  EXPECT_EQ(info->bsdName(), bsd);
  EXPECT_EQ(info->volumeName(), "SkerrowVol");
  EXPECT_EQ(info->mountPoint(), image.mountPoint());
  EXPECT_EQ(QSVolumeInfoForAllVolumes().count(bsd), 1u);

  ASSERT_EQ(::mkdir((image.mountPoint() + "/Documents").c_str(), 0755), 0);
  const std::string file = image.mountPoint() + "/Documents/report.txt";
  std::ofstream(file) << "report";
  ASSERT_TRUE(std::ifstream(file).good());
  const auto forPath = QSVolumeInfoForPath(file);
  ASSERT_NE(forPath, nullptr);
  EXPECT_EQ(forPath->ref(), info->ref());
  EXPECT_EQ(forPath->bsdName(), bsd);
  EXPECT_EQ(forPath->mountPoint(), image.mountPoint());
  EXPECT_EQ(forPath->volumeName(), "SkerrowVol");
  const auto forRef = QSVolumeInfoForRefNum(info->ref());
  ASSERT_NE(forRef, nullptr);
  EXPECT_EQ(forRef->mountPoint(), image.mountPoint());

  std::string path, name;
  std::optional<std::string> uuid;
  ASSERT_TRUE(VolumeInfoForBSDName(bsd, &path, &name, &uuid));
  EXPECT_EQ(path, image.mountPoint());
  EXPECT_EQ(name, "SkerrowVol");
  EXPECT_TRUE(uuid.has_value() && uuid->size() == 36) << NilSafeString(uuid);
  std::string whole, model;
  ASSERT_TRUE(DiskInfoForVolumeBSDName(bsd, &whole, &model, nullptr, nullptr));
  EXPECT_EQ(whole, bsd);
  EXPECT_EQ(GetAdditionalVolumeInfo(bsd), 0);

  image.unmount();
  EXPECT_EQ(QSVolumeInfoForLocalVolumes().count(bsd), 0u);
}

TEST(QSVolumeInfoTest, FuseExFatImageOnALoopDeviceIsALocalVolumeUnderTheLoopDevice) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::ExFat);
  QSVolumeInfo::setVolumeService(nullptr);
  FileSystemImage image(FileSystemImage::Kind::ExFat, 16 * kMiB, {.label = "STICK"});
  ASSERT_EQ(image.fsType(), "fuseblk");
  const std::string bsd = loopName(image);
  const auto local = QSVolumeInfoForLocalVolumes();
  ASSERT_EQ(local.count(bsd), 1u) << "no local volume " << bsd;
  EXPECT_EQ(local.at(bsd)->mountPoint(), image.mountPoint());
  EXPECT_EQ(local.at(bsd)->volumeName(), "STICK");
  const auto forPath = QSVolumeInfoForPath(image.mountPoint());
  ASSERT_NE(forPath, nullptr);
  EXPECT_EQ(forPath->bsdName(), bsd);
}

TEST(MountMonitorTest, ReportsTheMountAndUnmountOfARealImageWithinASecondEach) {
  SKIP_IF_UNAVAILABLE(FileSystemImage::Kind::Ext4);
  ChangeLog log;
  skerrow_test::LoopThread thread;
  std::unique_ptr<MountMonitor> monitor;
  ASSERT_TRUE(thread.loop().postAndWait([&] {
    monitor = std::make_unique<MountMonitor>(thread.loop(), platform::VolumeService::system(),
                                             [&](const MountChange& c) { log.add(c); });
  }));
  ASSERT_TRUE(monitor->isWatching());

  {
    FileSystemImage image(FileSystemImage::Kind::Ext4, 16 * kMiB, {.label = "Watched"});
    const std::string mountPoint = image.mountPoint();
    EXPECT_TRUE(skerrow_test::eventually([&] { return log.has(MountChange::Mounted, mountPoint); },
                                         std::chrono::milliseconds(1000)))
        << "no mount reported for " << mountPoint;
    image.unmount();
    EXPECT_TRUE(skerrow_test::eventually([&] { return log.has(MountChange::Unmounted, mountPoint); },
                                         std::chrono::milliseconds(1000)))
        << "no unmount reported for " << mountPoint;
    EXPECT_EQ(log.count(mountPoint), 2u);
  }

  ASSERT_TRUE(thread.loop().postAndWait([&] { monitor.reset(); }));
  thread.stopAndJoin();
}
