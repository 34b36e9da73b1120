#include "platform/MountMonitor.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <vector>

#include "platform/ManualRunLoop.h"
#include "tests/support/VolumeFixture.h"

using platform::MountChange;
using platform::MountMonitor;
using skerrow_test::VolumeFixture;

namespace {

// A manual loop that remembers the io sources given to it.
class RecordingLoop : public platform::ManualRunLoop {
 public:
  std::vector<SourceId> ioSources;
  std::vector<IoPrepare> prepares;
  std::vector<SourceId> removed;
  SourceId addIoSource(int fd, IoPrepare prepare, IoHandler handler) override {
    const SourceId id = ManualRunLoop::addIoSource(fd, prepare, std::move(handler));
    ioSources.push_back(id);
    prepares.push_back(std::move(prepare));
    return id;
  }
  void removeSource(SourceId id) override {
    removed.push_back(id);
    ManualRunLoop::removeSource(id);
  }
};

std::string describe(const MountChange& c) {
  return (c.kind == MountChange::Mounted ? "mounted " : "unmounted ") + c.mountPoint;
}

struct Fixture {
  VolumeFixture f;
  RecordingLoop loop;
  std::vector<std::string> changes;
  std::unique_ptr<MountMonitor> monitor;

  explicit Fixture(const std::vector<std::string>& table) {
    f.setMountTable(table);
    monitor = std::make_unique<MountMonitor>(loop, f.service(),
                                             [this](const MountChange& c) { changes.push_back(describe(c)); });
  }
  // Wakes the monitor as the kernel's table would.
  void wake() {
    ASSERT_EQ(loop.ioSources.size(), 1u);
    loop.triggerIo(loop.ioSources[0], POLLIN);
  }
};

const std::string kRoot = VolumeFixture::line(27, "8:2", "/", "ext4", "/dev/sda2");
const std::string kStick = VolumeFixture::line(40, "8:17", "/media/ann/Backups", "ext4", "/dev/sdb1");
const std::string kDisc = VolumeFixture::line(41, "11:0", "/media/ann/DVD", "iso9660", "/dev/sr0");
const std::string kShare = VolumeFixture::line(42, "0:60", "/mnt/nfs", "nfs4", "10.0.0.1:/export");

}  // namespace

TEST(MountMonitorTest, WatchesOneDescriptorForReadingWithNoDeadlineAndNoTimer) {
  Fixture t({kRoot});
  ASSERT_TRUE(t.monitor->isWatching());
  ASSERT_EQ(t.loop.prepares.size(), 1u);
  const auto interest = t.loop.prepares[0]();
  EXPECT_EQ(interest.events, static_cast<uint32_t>(POLLIN));
  EXPECT_FALSE(interest.deadline.has_value());
  EXPECT_EQ(t.loop.timerCount(), 0u);
}

TEST(MountMonitorTest, MountsAlreadyThereAreNotReported) {
  Fixture t({kRoot, kStick});
  t.monitor->rescan();
  t.wake();
  EXPECT_TRUE(t.changes.empty());
}

TEST(MountMonitorTest, NothingIsReportedWhenNothingChanged) {
  Fixture t({kRoot, kStick});
  t.f.setMountTable({kRoot, kStick});  // rewritten, the same
  t.wake();
  t.wake();
  EXPECT_TRUE(t.changes.empty());
}

TEST(MountMonitorTest, NewMountIsReported) {
  Fixture t({kRoot});
  t.f.setMountTable({kRoot, kStick});
  t.wake();
  EXPECT_EQ(t.changes, (std::vector<std::string>{"mounted /media/ann/Backups"}));
  t.wake();
  EXPECT_EQ(t.changes.size(), 1u);
}

TEST(MountMonitorTest, UnmountIsReported) {
  Fixture t({kRoot, kStick});
  t.f.setMountTable({kRoot});
  t.wake();
  EXPECT_EQ(t.changes, (std::vector<std::string>{"unmounted /media/ann/Backups"}));
}

TEST(MountMonitorTest, SeveralChangesInOneWakeUpAreReportedUnmountsFirst) {
  Fixture t({kRoot, kStick, kDisc});
  t.f.setMountTable({kRoot, kShare, kDisc, VolumeFixture::line(43, "8:33", "/media/ann/My Stick", "vfat", "/dev/sdc1")});
  t.wake();
  EXPECT_EQ(t.changes, (std::vector<std::string>{"unmounted /media/ann/Backups", "mounted /mnt/nfs",
                                                 "mounted /media/ann/My Stick"}));
}

TEST(MountMonitorTest, RemountAtTheSameMountPointIsAnUnmountAndAMount) {
  Fixture t({kRoot, kStick});
  t.f.setMountTable({kRoot, VolumeFixture::line(57, "8:17", "/media/ann/Backups", "ext4", "/dev/sdb1")});
  t.monitor->rescan();
  EXPECT_EQ(t.changes, (std::vector<std::string>{"unmounted /media/ann/Backups", "mounted /media/ann/Backups"}));
}

TEST(MountMonitorTest, MountMovedToAnotherPointIsAnUnmountAndAMount) {
  Fixture t({kRoot, kStick});
  t.f.setMountTable({kRoot, VolumeFixture::line(40, "8:17", "/srv/backups", "ext4", "/dev/sdb1")});
  t.monitor->rescan();
  EXPECT_EQ(t.changes, (std::vector<std::string>{"unmounted /media/ann/Backups", "mounted /srv/backups"}));
}

TEST(MountMonitorTest, RescanReportsTheChangesSinceTheLastLookOnly) {
  Fixture t({kRoot});
  t.f.setMountTable({kRoot, kStick});
  t.monitor->rescan();
  t.f.setMountTable({kRoot, kStick, kDisc});
  t.monitor->rescan();
  t.monitor->rescan();
  EXPECT_EQ(t.changes, (std::vector<std::string>{"mounted /media/ann/Backups", "mounted /media/ann/DVD"}));
}

TEST(MountMonitorTest, DestructionRemovesTheIoSource) {
  Fixture t({kRoot});
  const auto id = t.loop.ioSources.at(0);
  t.monitor.reset();
  EXPECT_EQ(t.loop.removed, (std::vector<platform::RunLoop::SourceId>{id}));
  // A late wake-up reaches nothing.
  t.f.setMountTable({kRoot, kStick});
  t.loop.triggerIo(id, POLLIN);
  EXPECT_TRUE(t.changes.empty());
}

TEST(MountMonitorTest, CallbackMayEndTheMonitor) {
  VolumeFixture f;
  f.setMountTable({kRoot});
  RecordingLoop loop;
  std::vector<std::string> changes;
  std::unique_ptr<MountMonitor> monitor;
  monitor = std::make_unique<MountMonitor>(loop, f.service(), [&](const MountChange& c) {
    changes.push_back(describe(c));
    monitor.reset();
  });
  f.setMountTable({kStick, kDisc});
  loop.triggerIo(loop.ioSources.at(0), POLLIN);
  EXPECT_EQ(monitor, nullptr);
  EXPECT_EQ(changes.size(), 3u);
}
