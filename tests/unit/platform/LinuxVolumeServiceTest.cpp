#include "platform/LinuxVolumeService.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>

#include "tests/support/VolumeFixture.h"

using platform::LinuxVolumeService;
using platform::MountedVolume;
using skerrow_test::VolumeFixture;

namespace {

dev_t deviceOf(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return 0;
  return st.st_dev;
}

}  // namespace

TEST(LinuxVolumeServiceTest, ReadsEveryMountInTableOrderWithItsFields) {
  VolumeFixture f;
  f.addDisk("sdb", 8, 16, "devices/pci0000:00/ata1", "Ultra Fit");
  f.addPartition("sdb", "sdb1", 8, 17);
  f.setLabel("sdb1", "Backups", "1234-ABCD");
  f.setMountTable({VolumeFixture::line(40, "8:17", "/media/ann/Backups", "ext4", "/dev/sdb1"),
                   VolumeFixture::line(31, "0:28", "/run", "tmpfs", "tmpfs")});
  const auto volumes = f.service()->mountedVolumes();
  ASSERT_EQ(volumes.size(), 2u);
  const MountedVolume& v = volumes[0];
  EXPECT_EQ(v.mountId, 40);
  EXPECT_EQ(v.mountPoint, "/media/ann/Backups");
  EXPECT_EQ(v.fsType, "ext4");
  EXPECT_EQ(v.source, "/dev/sdb1");
  EXPECT_EQ(v.device, static_cast<uint64_t>(makedev(8, 17)));
  EXPECT_EQ(v.bsdName, "sdb1");
  EXPECT_EQ(v.label, "Backups");
  EXPECT_EQ(v.uuid, "1234-ABCD");
  EXPECT_FALSE(v.isNetwork);
  EXPECT_EQ(v.serverAddress, "");
  EXPECT_EQ(v.mediaClass, 0);
  EXPECT_EQ(volumes[1].mountId, 31);
  EXPECT_EQ(volumes[1].mountPoint, "/run");
}

TEST(LinuxVolumeServiceTest, EscapedMountPointsAreUnescaped) {
  VolumeFixture f;
  f.addDisk("sdc", 8, 32);
  f.setMountTable({VolumeFixture::line(41, "8:32", "/media/My Disk\tTab\\Back", "vfat", "/dev/sdc")});
  const auto volumes = f.service()->mountedVolumes();
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0].mountPoint, "/media/My Disk\tTab\\Back");
}

TEST(LinuxVolumeServiceTest, MountsWithoutABlockDeviceHaveNoBsdNameAndMediaClassMinusOne) {
  VolumeFixture f;
  f.setMountTable({VolumeFixture::line(22, "0:21", "/proc", "proc", "proc"),
                   VolumeFixture::line(23, "0:45", "/var/lib/docker/overlay2/x/merged", "overlay", "overlay"),
                   VolumeFixture::line(24, "0:46", "/home/ann/remote", "fuse.gvfsd-fuse", "gvfsd-fuse")});
  for (const MountedVolume& v : f.service()->mountedVolumes()) {
    EXPECT_EQ(v.bsdName, "") << v.mountPoint;
    EXPECT_EQ(v.mediaClass, -1) << v.mountPoint;
    EXPECT_EQ(v.label, "") << v.mountPoint;
  }
}

TEST(LinuxVolumeServiceTest, FuseBlockMountGetsTheBlockDeviceOfItsSource) {
  VolumeFixture f;
  f.addDisk("loop1", 7, 1);
  f.setLabel("loop1", "STICK", "5F3A-1C2B");
  // exfat-fuse: an anonymous device number, the loop device as the source.
  f.setMountTable({VolumeFixture::line(50, "0:52", "/media/stick", "fuseblk", "/dev/loop1")});
  const auto volumes = f.service()->mountedVolumes();
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0].bsdName, "loop1");
  EXPECT_EQ(volumes[0].device, static_cast<uint64_t>(makedev(0, 52)));
  EXPECT_EQ(volumes[0].mediaClass, 0);
  EXPECT_EQ(volumes[0].label, "STICK");
  EXPECT_EQ(volumes[0].uuid, "5F3A-1C2B");
}

TEST(LinuxVolumeServiceTest, SourceThatIsABlockDeviceNodeIsThatDevice) {
  // The real /dev: a loop device node, looked up by its device number in the fixture's sysfs.
  struct stat st;
  if (::stat("/dev/loop0", &st) != 0 || !S_ISBLK(st.st_mode)) GTEST_SKIP() << "no /dev/loop0 block device here";
  VolumeFixture f;
  f.addDisk("loop0", major(st.st_rdev), minor(st.st_rdev));
  f.setMountTable({VolumeFixture::line(51, "0:53", "/media/x", "fuseblk", "/dev/loop0")});
  const LinuxVolumeService service({.mountInfoPath = f.mountInfoPath(), .sysfsRoot = f.sysfs(), .devRoot = "/dev",
                                    .probe = f.probe});
  const auto volumes = service.mountedVolumes();
  ASSERT_EQ(volumes.size(), 1u);
  EXPECT_EQ(volumes[0].bsdName, "loop0");
}

TEST(LinuxVolumeServiceTest, MediaClassesOfDisksPartitionsAndOpticalDrives) {
  VolumeFixture f;
  f.addDisk("sr0", 11, 0, "devices/pci0000:00/ata2", "DVD-RW DRU-810A", 5);
  f.addDisk("sdd", 8, 48, "devices/pci0000:00/usb1", "USB CD Drive", 5);  // an optical drive named like a disk
  f.addDisk("sda", 8, 0, "devices/pci0000:00/ata1", "Samsung SSD", 0);
  f.addPartition("sda", "sda2", 8, 2, 2);
  f.addDisk("nvme0n1", 259, 0, "devices/pci0000:00/nvme0");
  f.addPartition("nvme0n1", "nvme0n1p2", 259, 2, 2);
  f.setMountTable({VolumeFixture::line(60, "11:0", "/media/cdrom", "iso9660", "/dev/sr0"),
                   VolumeFixture::line(61, "8:48", "/media/cdrom1", "udf", "/dev/sdd"),
                   VolumeFixture::line(62, "8:2", "/", "ext4", "/dev/sda2"),
                   VolumeFixture::line(63, "259:2", "/home", "ext4", "/dev/nvme0n1p2"),
                   VolumeFixture::line(64, "0:30", "/tmp", "tmpfs", "tmpfs")});
  const auto service = f.service();
  const auto volumes = service->mountedVolumes();
  ASSERT_EQ(volumes.size(), 5u);
  EXPECT_EQ(volumes[0].mediaClass, 1);
  EXPECT_EQ(volumes[1].mediaClass, 1);
  EXPECT_EQ(volumes[2].mediaClass, 0);
  EXPECT_EQ(volumes[3].mediaClass, 0);
  EXPECT_EQ(volumes[3].bsdName, "nvme0n1p2");
  EXPECT_EQ(volumes[4].mediaClass, -1);
  EXPECT_EQ(service->mediaClassForBSDName("sr0"), 1);
  EXPECT_EQ(service->mediaClassForBSDName("sda2"), 0);
  EXPECT_EQ(service->mediaClassForBSDName("sda"), 0);
  EXPECT_EQ(service->mediaClassForBSDName("sdq"), -1);
  EXPECT_EQ(service->mediaClassForBSDName("../sr0"), -1);
}

TEST(LinuxVolumeServiceTest, DiskInfoOfAPartitionIsItsWholeDiskAndTrimmedModel) {
  VolumeFixture f;
  f.addDisk("sdb", 8, 16, "devices/pci0000:00/usb2", "Ultra Fit       \n");
  f.addPartition("sdb", "sdb1", 8, 17);
  f.addDisk("loop0", 7, 0);
  const auto service = f.service();
  const auto part = service->diskInfoForBSDName("sdb1");
  ASSERT_TRUE(part);
  EXPECT_EQ(part->wholeDiskBSDName, "sdb");
  EXPECT_EQ(part->model, "Ultra Fit");
  const auto whole = service->diskInfoForBSDName("sdb");
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->wholeDiskBSDName, "sdb");
  const auto loop = service->diskInfoForBSDName("loop0");
  ASSERT_TRUE(loop);
  EXPECT_EQ(loop->wholeDiskBSDName, "loop0");
  EXPECT_EQ(loop->model, "");
  EXPECT_FALSE(service->diskInfoForBSDName("sdz"));
  EXPECT_FALSE(service->diskInfoForBSDName(""));
}

TEST(LinuxVolumeServiceTest, NetworkVolumesCarryTheirServersIPv4AddressAsADecimalNumber) {
  VolumeFixture f;
  f.setMountTable({VolumeFixture::line(70, "0:60", "/mnt/nfs", "nfs4", "10.0.0.1:/export"),
                   VolumeFixture::line(71, "0:61", "/mnt/share", "cifs", "//192.168.1.2/share"),
                   VolumeFixture::line(72, "0:62", "/mnt/ssh", "fuse.sshfs", "ann@172.16.0.9:/home/ann"),
                   VolumeFixture::line(73, "0:63", "/mnt/v6", "nfs", "[fe80::1]:/export"),
                   VolumeFixture::line(74, "0:64", "/mnt/local", "nfs", "localhost:/srv"),
                   VolumeFixture::line(75, "0:65", "/mnt/ceph", "ceph", "10.1.2.3:6789,10.1.2.4:6789:/"),
                   VolumeFixture::line(76, "0:66", "/mnt/dav", "davfs", "https://10.9.8.7:8443/dav")});
  const auto volumes = f.service()->mountedVolumes();
  ASSERT_EQ(volumes.size(), 7u);
  for (const auto& v : volumes) {
    EXPECT_TRUE(v.isNetwork) << v.mountPoint;
    EXPECT_EQ(v.bsdName, "") << v.mountPoint;
    EXPECT_EQ(v.mediaClass, -1) << v.mountPoint;
  }
  EXPECT_EQ(volumes[0].serverAddress, "167772161");
  EXPECT_EQ(volumes[1].serverAddress, "3232235778");
  EXPECT_EQ(volumes[2].serverAddress, "2886729737");
  EXPECT_EQ(volumes[3].serverAddress, "");
  EXPECT_EQ(volumes[4].serverAddress, "2130706433");
  EXPECT_EQ(volumes[5].serverAddress, "167838211");
  EXPECT_EQ(volumes[6].serverAddress, "168364039");
}

TEST(LinuxVolumeServiceTest, ServerHostIsReadFromEachKindOfNetworkSource) {
  EXPECT_EQ(LinuxVolumeService::serverHostOfSource("nas.local:/export/home"), "nas.local");
  EXPECT_EQ(LinuxVolumeService::serverHostOfSource("//nas/Public"), "nas");
  EXPECT_EQ(LinuxVolumeService::serverHostOfSource("\\\\nas\\Public"), "nas");
  EXPECT_EQ(LinuxVolumeService::serverHostOfSource("ann@nas:/home/ann"), "nas");
  EXPECT_EQ(LinuxVolumeService::serverHostOfSource("https://ann@dav.example.com:8443/x"), "dav.example.com");
  EXPECT_EQ(LinuxVolumeService::serverHostOfSource("[fe80::1]:/export"), "fe80::1");
  EXPECT_EQ(LinuxVolumeService::serverHostOfSource("hostshare"), "");
  EXPECT_EQ(LinuxVolumeService::ipv4AddressNumberOfHost("10.0.0.1"), "167772161");
  EXPECT_EQ(LinuxVolumeService::ipv4AddressNumberOfHost("255.255.255.255"), "4294967295");
  EXPECT_EQ(LinuxVolumeService::ipv4AddressNumberOfHost("fe80::1"), "");
  EXPECT_EQ(LinuxVolumeService::ipv4AddressNumberOfHost(""), "");
  EXPECT_TRUE(LinuxVolumeService::isNetworkFileSystemType("nfs4"));
  EXPECT_TRUE(LinuxVolumeService::isNetworkFileSystemType("fuse.s3fs"));
  EXPECT_FALSE(LinuxVolumeService::isNetworkFileSystemType("fuseblk"));
  EXPECT_FALSE(LinuxVolumeService::isNetworkFileSystemType("ext4"));
}

TEST(LinuxVolumeServiceTest, MalformedLineInTheMiddleIsLeftOutAndTheRestIsRead) {
  VolumeFixture f;
  f.setMountTable({VolumeFixture::line(80, "0:30", "/a", "tmpfs", "tmpfs"), "this is not a mount",
                   VolumeFixture::line(81, "0:31", "/b", "tmpfs", "tmpfs")});
  const auto volumes = f.service()->mountedVolumes();
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[0].mountPoint, "/a");
  EXPECT_EQ(volumes[1].mountPoint, "/b");
}

TEST(LinuxVolumeServiceTest, MissingMountTableReadsAsNoMounts) {
  VolumeFixture f;
  const LinuxVolumeService service({.mountInfoPath = f.dir / "nothing-here", .sysfsRoot = f.sysfs(),
                                    .devRoot = f.devRoot(), .probe = f.probe});
  EXPECT_TRUE(service.mountedVolumes().empty());
  EXPECT_FALSE(service.volumeForPath(f.dir.path()));
}

TEST(LinuxVolumeServiceTest, VeryLongMountPointIsReadWhole) {
  VolumeFixture f;
  const std::string longPoint = "/" + std::string(5000, 'x');
  f.setMountTable({VolumeFixture::line(90, "0:30", longPoint, "tmpfs", "tmpfs"),
                   VolumeFixture::line(91, "0:31", "/after", "tmpfs", "tmpfs")});
  const auto volumes = f.service()->mountedVolumes();
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[0].mountPoint, longPoint);
  EXPECT_EQ(volumes[1].mountPoint, "/after");
}

TEST(LinuxVolumeServiceTest, VolumeForPathPicksTheLongestMountPointHoldingThePathAmongMountsOfItsDevice) {
  VolumeFixture f;
  const std::string outer = f.dir.mkdir("outer");
  const std::string inner = f.dir.mkdir("outer/inner");
  const std::string file = f.dir.write("outer/inner/deep/file.txt", "x");
  const dev_t device = deviceOf(file);
  f.setMountTable({VolumeFixture::line(100, device, outer, "ext4", "/dev/sdb1"),
                   VolumeFixture::line(101, device, inner, "ext4", "/dev/sdb1"),
                   VolumeFixture::line(102, device, f.dir / "elsewhere", "ext4", "/dev/sdb1"),
                   VolumeFixture::line(103, makedev(0, 99), f.dir / "outer/inner/deep", "tmpfs", "tmpfs")});
  const auto service = f.service();
  const auto v = service->volumeForPath(file);
  ASSERT_TRUE(v);
  EXPECT_EQ(v->mountId, 101);
  const auto o = service->volumeForPath(outer);
  ASSERT_TRUE(o);
  EXPECT_EQ(o->mountId, 100);
  EXPECT_FALSE(service->volumeForPath(f.dir / "no-such-file"));
}

TEST(LinuxVolumeServiceTest, VolumeForPathFollowsLinks) {
  VolumeFixture f;
  const std::string inner = f.dir.mkdir("data/inner");
  f.dir.write("data/inner/file.txt", "x");
  ASSERT_EQ(::symlink((inner + "/file.txt").c_str(), (f.dir / "link").c_str()), 0);
  const dev_t device = deviceOf(inner);
  f.setMountTable({VolumeFixture::line(110, device, f.dir.path(), "ext4", "/dev/sdb1"),
                   VolumeFixture::line(111, device, inner, "ext4", "/dev/sdb1")});
  const auto v = f.service()->volumeForPath(f.dir / "link");
  ASSERT_TRUE(v);
  EXPECT_EQ(v->mountId, 111);
}

TEST(LinuxVolumeServiceTest, TheSystemsTableHasARootMount) {
  const auto volumes = platform::VolumeService::system()->mountedVolumes();
  ASSERT_FALSE(volumes.empty());
  EXPECT_TRUE(std::any_of(volumes.begin(), volumes.end(), [](const auto& v) { return v.mountPoint == "/"; }));
  const auto root = platform::VolumeService::system()->volumeForPath("/");
  ASSERT_TRUE(root);
  EXPECT_EQ(root->mountPoint, "/");
}
