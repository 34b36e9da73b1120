#include "Engine/records/QSVolumeInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>

#include "Engine/records/QSVolumeFunctions.h"
#include "tests/support/VolumeFixture.h"

using skerrow_test::VolumeFixture;
using skerrow_test::VolumeServiceScope;

namespace {

dev_t deviceOf(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return 0;
  return st.st_dev;
}

using VolumeMap = std::map<std::string, std::shared_ptr<QSVolumeInfo>>;

std::vector<std::string> keys(const VolumeMap& map) {
  std::vector<std::string> k;
  for (const auto& [key, value] : map) k.push_back(key);
  return k;
}

std::string pointer(const void* p) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%p", p);
  return buf;
}

// A desktop's worth of disks: the system disk, a labelled USB stick, an
// unlabelled one and a DVD drive.  Tests add the mount table.
struct Desktop {
  VolumeFixture f;
  Desktop() {
    f.addDisk("sda", 8, 0, "devices/pci0000:00/ata1", "Samsung SSD 860", 0);
    f.addPartition("sda", "sda2", 8, 2, 2);
    f.addDisk("sdb", 8, 16, "devices/pci0000:00/usb1", "Ultra Fit", 0);
    f.addPartition("sdb", "sdb1", 8, 17);
    f.addDisk("sdc", 8, 32, "devices/pci0000:00/usb2", "Flash Disk", 0);
    f.addPartition("sdc", "sdc1", 8, 33);
    f.addDisk("sr0", 11, 0, "devices/pci0000:00/ata2", "DVD-RW", 5);
    f.setLabel("sda2", "", "0a1b2c3d-0000-4000-8000-000000000001");
    f.setLabel("sdb1", "Backups", "1234-ABCD");
    f.setLabel("sr0", "HOLIDAY_2023");
  }
  static std::vector<std::string> usualTable() {
    return {VolumeFixture::line(22, "0:21", "/proc", "proc", "proc"),
            VolumeFixture::line(27, "8:2", "/", "ext4", "/dev/sda2"),
            VolumeFixture::line(30, "0:27", "/dev/shm", "tmpfs", "tmpfs"),
            VolumeFixture::line(40, "8:17", "/media/ann/Backups", "ext4", "/dev/sdb1"),
            VolumeFixture::line(41, "8:33", "/media/ann/Flash Disk", "vfat", "/dev/sdc1"),
            VolumeFixture::line(42, "11:0", "/media/ann/HOLIDAY_2023", "iso9660", "/dev/sr0"),
            VolumeFixture::line(43, "0:60", "/mnt/nfs", "nfs4", "10.0.0.1:/export"),
            VolumeFixture::line(44, "0:61", "/mnt/share", "cifs", "//192.168.1.2/share")};
  }
};

}  // namespace

TEST(QSVolumeInfoTest, RecordKeepsWhatItWasMadeWith) {
  const auto info = QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(40, "/media/ann/Backups", "Backups", "sdb1");
  EXPECT_EQ(info->ref(), 40);
  EXPECT_EQ(info->mountPoint(), "/media/ann/Backups");
  EXPECT_EQ(info->volumeName(), "Backups");
  EXPECT_EQ(info->bsdName(), "sdb1");
}

TEST(QSVolumeInfoTest, UrlIsThePercentEncodedMountPointAsAFolderAndIsKept) {
  const auto info = QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(41, "/media/ann/Flash Disk", "x", "sdc1");
  EXPECT_EQ(info->url(), "file:///media/ann/Flash%20Disk/");
  EXPECT_EQ(info->url(), "file:///media/ann/Flash%20Disk/");
  const auto accented = QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(1, "/media/été#1%", "x", "sdd1");
  EXPECT_EQ(accented->url(), "file:///media/%C3%A9t%C3%A9%231%25/");
  const auto root = QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(27, "/", "/", "sda2");
  EXPECT_EQ(root->url(), "file:///");
}

TEST(QSVolumeInfoTest, DescriptionOfARecordWhoseUrlWasNeverAskedHasNoUrlLine) {
  const auto info = QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(40, "/media/ann/Backups", "Backups", "sdb1");
  EXPECT_EQ(info->description(), "<QSVolumeInfo: " + pointer(info.get()) +
                                     ">{\n"
                                     "ref:      40\n"
                                     "path:     /media/ann/Backups\n"
                                     "name:     Backups\n"
                                     "bsd name: sdb1\n"
                                     "}");
}

TEST(QSVolumeInfoTest, DescriptionShowsTheUrlOnceItWasAsked) {
  const auto info = QSVolumeInfo::initWithRef_mountPoint_volumeName_bsdName(-3, "/media/ann/My Disk", "My Disk", "sdc1");
  info->url();
  EXPECT_EQ(info->description(), "<QSVolumeInfo: " + pointer(info.get()) +
                                     ">{\n"
                                     "ref:      -3\n"
                                     "url:      file:///media/ann/My%20Disk/\n"
                                     "path:     /media/ann/My Disk\n"
                                     "name:     My Disk\n"
                                     "bsd name: sdc1\n"
                                     "}");
}

TEST(QSVolumeInfoTest, LocalVolumesAreTheMountedNonOpticalDisksByBsdName) {
  Desktop d;
  d.f.setMountTable(Desktop::usualTable());
  VolumeServiceScope scope(d.f.service());
  const auto local = QSVolumeInfoForLocalVolumes();
  EXPECT_EQ(keys(local), (std::vector<std::string>{"sda2", "sdb1", "sdc1"}));
  EXPECT_EQ(local.at("sdb1")->ref(), 40);
  EXPECT_EQ(local.at("sdb1")->mountPoint(), "/media/ann/Backups");
  EXPECT_EQ(local.at("sdb1")->bsdName(), "sdb1");
}

TEST(QSVolumeInfoTest, LabelsBecomeVolumeNames) {
  Desktop d;
  d.f.setLabel("sdb1", "Time Capsule", "1234-ABCD");
  d.f.setMountTable(Desktop::usualTable());
  VolumeServiceScope scope(d.f.service());
  EXPECT_EQ(QSVolumeInfoForLocalVolumes().at("sdb1")->volumeName(), "Time Capsule");
}

TEST(QSVolumeInfoTest, UnlabelledVolumesAreNamedAfterTheirMountPointsLastComponent) {
  Desktop d;
  d.f.setMountTable(Desktop::usualTable());
  VolumeServiceScope scope(d.f.service());
  const auto local = QSVolumeInfoForLocalVolumes();
  EXPECT_EQ(local.at("sdc1")->volumeName(), "Flash Disk");
  EXPECT_EQ(local.at("sda2")->volumeName(), "/");
}

TEST(QSVolumeInfoTest, EscapedMountPointsAreUnescaped) {
  Desktop d;
  d.f.setMountTable({VolumeFixture::line(41, "8:33", "/media/ann/Flash Disk\\2", "vfat", "/dev/sdc1")});
  ASSERT_NE(d.f.dir.read("mountinfo").find("/media/ann/Flash\\040Disk\\1342"), std::string::npos);
  VolumeServiceScope scope(d.f.service());
  const auto local = QSVolumeInfoForLocalVolumes();
  ASSERT_EQ(local.count("sdc1"), 1u);
  EXPECT_EQ(local.at("sdc1")->mountPoint(), "/media/ann/Flash Disk\\2");
  EXPECT_EQ(local.at("sdc1")->volumeName(), "Flash Disk\\2");
}

TEST(QSVolumeInfoTest, MountedOpticalDiscIsNotLocal) {
  Desktop d;
  d.f.setMountTable(Desktop::usualTable());
  VolumeServiceScope scope(d.f.service());
  EXPECT_EQ(QSVolumeInfoForLocalVolumes().count("sr0"), 0u);
  EXPECT_EQ(QSVolumeInfoForRefNum(42), nullptr);
  // It is still a mounted volume.
  const auto all = QSVolumeInfoForAllVolumes();
  ASSERT_EQ(all.count("sr0"), 1u);
  EXPECT_EQ(all.at("sr0")->volumeName(), "HOLIDAY_2023");
}

// In these two, the volume's mount point is a real folder and its device
// the folder's own, so the path is looked up as on a real system.
TEST(QSVolumeInfoTest, PathOnAMountedOpticalDiscHasNoVolumeInfo) {
  VolumeFixture f;
  const std::string cdrom = f.dir.mkdir("media/cdrom");
  const std::string file = f.dir.write("media/cdrom/photos/beach.jpg", "b");
  const dev_t device = deviceOf(file);
  f.addDisk("sr1", major(device), minor(device), "devices/pci0000:00/ata3", "BD-RE", 5);
  f.setLabel("sr1", "PHOTOS");
  f.setMountTable({VolumeFixture::line(50, device, cdrom, "iso9660", "/dev/sr1")});
  VolumeServiceScope scope(f.service());
  ASSERT_TRUE(f.service()->volumeForPath(file));  // the service finds it...
  EXPECT_EQ(QSVolumeInfoForPath(file), nullptr);  // ...but it is not a local volume
  EXPECT_EQ(QSVolumeInfoForPath(cdrom), nullptr);
  EXPECT_TRUE(QSVolumeInfoForLocalVolumes().empty());
}

TEST(QSVolumeInfoTest, PathOnALocalDiskHasItsVolumeInfo) {
  VolumeFixture f;
  const std::string stick = f.dir.mkdir("media/stick");
  const std::string file = f.dir.write("media/stick/Documents/report.txt", "r");
  const dev_t device = deviceOf(file);
  f.addDisk("sdx", 4095, 4095, "devices/pci0000:00/usb3", "Stick", 0);
  f.addPartition("sdx", "sdx1", major(device), minor(device));
  f.setLabel("sdx1", "Stick");
  f.setMountTable({VolumeFixture::line(51, device, stick, "ext4", "/dev/sdx1")});
  VolumeServiceScope scope(f.service());
  const auto info = QSVolumeInfoForPath(file);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->ref(), 51);
  EXPECT_EQ(info->mountPoint(), stick);
  EXPECT_EQ(info->volumeName(), "Stick");
  EXPECT_EQ(info->bsdName(), "sdx1");
  EXPECT_EQ(QSVolumeInfoForPath(f.dir / "media/stick/missing"), nullptr);
}

TEST(QSVolumeInfoTest, NetworkVolumesAreListedOnlyAmongAllVolumesUnderTheirServerAddress) {
  Desktop d;
  d.f.setMountTable(Desktop::usualTable());
  VolumeServiceScope scope(d.f.service());
  const auto local = QSVolumeInfoForLocalVolumes();
  EXPECT_EQ(local.count("167772161"), 0u);
  EXPECT_EQ(local.count("3232235778"), 0u);
  const auto all = QSVolumeInfoForAllVolumes();
  EXPECT_EQ(keys(all), (std::vector<std::string>{"167772161", "3232235778", "sda2", "sdb1", "sdc1", "sr0"}));
  EXPECT_EQ(all.at("167772161")->bsdName(), "167772161");
  EXPECT_EQ(all.at("167772161")->mountPoint(), "/mnt/nfs");
  EXPECT_EQ(all.at("167772161")->volumeName(), "nfs");
  EXPECT_EQ(all.at("167772161")->ref(), 43);
  EXPECT_EQ(all.at("3232235778")->mountPoint(), "/mnt/share");
  EXPECT_EQ(QSVolumeInfoForRefNum(43), nullptr);
}

TEST(QSVolumeInfoTest, NetworkVolumeWhoseServerCannotBeResolvedIsInNoMap) {
  Desktop d;
  d.f.setMountTable({VolumeFixture::line(45, "0:62", "/mnt/v6", "nfs4", "[fe80::1]:/export")});
  VolumeServiceScope scope(d.f.service());
  EXPECT_TRUE(QSVolumeInfoForAllVolumes().empty());
  EXPECT_TRUE(QSVolumeInfoForLocalVolumes().empty());
}

TEST(QSVolumeInfoTest, VolumesWithoutADeviceOrServerAreInNoMap) {
  Desktop d;
  d.f.setMountTable({VolumeFixture::line(22, "0:21", "/proc", "proc", "proc"),
                     VolumeFixture::line(30, "0:27", "/dev/shm", "tmpfs", "tmpfs"),
                     VolumeFixture::line(31, "0:45", "/merged", "overlay", "overlay")});
  VolumeServiceScope scope(d.f.service());
  EXPECT_TRUE(QSVolumeInfoForAllVolumes().empty());
  EXPECT_TRUE(QSVolumeInfoForLocalVolumes().empty());
  EXPECT_EQ(QSVolumeInfoForRefNum(30), nullptr);
}

TEST(QSVolumeInfoTest, VolumeWithAMountPointOf4096BytesOrMoreIsSkippedSilently) {
  Desktop d;
  const std::string longest = "/" + std::string(4094, 'k');    // 4095 bytes: kept
  const std::string tooLong = "/" + std::string(4095, 'x');    // 4096 bytes: skipped
  const std::string wayTooLong = "/" + std::string(6000, 'y');
  d.f.addDisk("sdd", 8, 48);
  d.f.addDisk("sde", 8, 64);
  d.f.addDisk("sdf", 8, 80);
  d.f.setMountTable({VolumeFixture::line(60, "8:48", tooLong, "ext4", "/dev/sdd"),
                     VolumeFixture::line(61, "8:64", wayTooLong, "ext4", "/dev/sde"),
                     VolumeFixture::line(62, "0:70", tooLong + "/nfs", "nfs", "10.0.0.2:/x"),
                     VolumeFixture::line(63, "8:80", longest, "ext4", "/dev/sdf"),
                     VolumeFixture::line(40, "8:17", "/media/ann/Backups", "ext4", "/dev/sdb1")});
  VolumeServiceScope scope(d.f.service());
  EXPECT_EQ(keys(QSVolumeInfoForLocalVolumes()), (std::vector<std::string>{"sdb1", "sdf"}));
  EXPECT_EQ(keys(QSVolumeInfoForAllVolumes()), (std::vector<std::string>{"sdb1", "sdf"}));
  EXPECT_EQ(QSVolumeInfoForRefNum(60), nullptr);
  ASSERT_NE(QSVolumeInfoForRefNum(63), nullptr);
  EXPECT_EQ(QSVolumeInfoForRefNum(63)->mountPoint(), longest);
  std::string path;
  EXPECT_FALSE(VolumeInfoForBSDName("sdd", &path, nullptr, nullptr));
}

TEST(QSVolumeInfoTest, EntryThatCannotBeExaminedInTheMiddleOfTheTableDoesNotEndTheWalk) {
  Desktop d;
  d.f.addDanglingDevice("sdz1", 65, 1);  // sysfs lists the device number but not the device
  d.f.setMountTable({VolumeFixture::line(27, "8:2", "/", "ext4", "/dev/sda2"),
                     VolumeFixture::line(70, "65:1", "/media/gone", "ext4", "/dev/sdz1"),
                     "garbage that is no mount",
                     VolumeFixture::line(40, "8:17", "/media/ann/Backups", "ext4", "/dev/sdb1"),
                     VolumeFixture::line(43, "0:60", "/mnt/nfs", "nfs4", "10.0.0.1:/export")});
  VolumeServiceScope scope(d.f.service());
  EXPECT_EQ(keys(QSVolumeInfoForLocalVolumes()), (std::vector<std::string>{"sda2", "sdb1"}));
  EXPECT_EQ(keys(QSVolumeInfoForAllVolumes()), (std::vector<std::string>{"167772161", "sda2", "sdb1"}));
  EXPECT_EQ(QSVolumeInfoForRefNum(70), nullptr);
}

TEST(QSVolumeInfoTest, FuseBlockMountOnALoopDeviceIsLocalUnderTheLoopDevice) {
  VolumeFixture f;
  f.addDisk("loop1", 7, 1);
  f.setLabel("loop1", "STICK");
  f.setMountTable({VolumeFixture::line(80, "0:52", "/media/ann/STICK", "fuseblk", "/dev/loop1")});
  VolumeServiceScope scope(f.service());
  const auto local = QSVolumeInfoForLocalVolumes();
  ASSERT_EQ(local.count("loop1"), 1u);
  EXPECT_EQ(local.at("loop1")->bsdName(), "loop1");
  EXPECT_EQ(local.at("loop1")->volumeName(), "STICK");
  EXPECT_EQ(local.at("loop1")->ref(), 80);
}

TEST(QSVolumeInfoTest, RefNumFindsTheLocalVolumeOfThatMountId) {
  Desktop d;
  d.f.setMountTable(Desktop::usualTable());
  VolumeServiceScope scope(d.f.service());
  const auto info = QSVolumeInfoForRefNum(41);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->bsdName(), "sdc1");
  EXPECT_EQ(info->mountPoint(), "/media/ann/Flash Disk");
  EXPECT_EQ(QSVolumeInfoForRefNum(999), nullptr);
  EXPECT_EQ(QSVolumeInfoForRefNum(22), nullptr);
}

TEST(QSVolumeInfoTest, FirstMountOfADeviceInTheTableIsKept) {
  Desktop d;
  d.f.setMountTable({VolumeFixture::line(40, "8:17", "/media/ann/Backups", "ext4", "/dev/sdb1"),
                     VolumeFixture::line(90, "8:17", "/srv/backups", "ext4", "/dev/sdb1")});
  VolumeServiceScope scope(d.f.service());
  EXPECT_EQ(QSVolumeInfoForLocalVolumes().at("sdb1")->ref(), 40);
  EXPECT_EQ(QSVolumeInfoForAllVolumes().at("sdb1")->ref(), 40);
}

TEST(QSVolumeInfoTest, MediaClassesOfDisksPartitionsOpticalDrivesAndUnknownNames) {
  Desktop d;
  d.f.addDisk("sdg", 8, 96, "devices/pci0000:00/usb4", "USB DVD", 5);
  d.f.addDisk("loop3", 7, 3);
  VolumeServiceScope scope(d.f.service());
  EXPECT_EQ(GetAdditionalVolumeInfo("sda2"), 0);
  EXPECT_EQ(GetAdditionalVolumeInfo("sda"), 0);
  EXPECT_EQ(GetAdditionalVolumeInfo("loop3"), 0);
  EXPECT_EQ(GetAdditionalVolumeInfo("sr0"), 1);
  EXPECT_EQ(GetAdditionalVolumeInfo("sdg"), 1);
  EXPECT_EQ(GetAdditionalVolumeInfo("nothing9"), -1);
  EXPECT_EQ(GetAdditionalVolumeInfo(""), -1);
}

TEST(QSVolumeInfoTest, DiskInfoOfAPartitionIsItsWholeDiskAndModelWithNoIcon) {
  Desktop d;
  VolumeServiceScope scope(d.f.service());
  std::string whole = "x", model = "x", bundle = "x", icon = "x";
  EXPECT_TRUE(DiskInfoForVolumeBSDName("sdb1", &whole, &model, &bundle, &icon));
  EXPECT_EQ(whole, "sdb");
  EXPECT_EQ(model, "Ultra Fit");
  EXPECT_EQ(bundle, "");
  EXPECT_EQ(icon, "");
  EXPECT_TRUE(DiskInfoForVolumeBSDName("sr0", &whole, &model, nullptr, nullptr));
  EXPECT_EQ(whole, "sr0");
  EXPECT_EQ(model, "DVD-RW");
  EXPECT_FALSE(DiskInfoForVolumeBSDName("sdq9", &whole, &model, &bundle, &icon));
  EXPECT_EQ(whole, "");
  EXPECT_EQ(model, "");
}

TEST(QSVolumeInfoTest, VolumeInfoForBsdNameAnswersTheMountedVolumeOnThatDevice) {
  Desktop d;
  d.f.setMountTable(Desktop::usualTable());
  VolumeServiceScope scope(d.f.service());
  std::string path, name;
  std::optional<std::string> uuid;
  EXPECT_TRUE(VolumeInfoForBSDName("sdb1", &path, &name, &uuid));
  EXPECT_EQ(path, "/media/ann/Backups");
  EXPECT_EQ(name, "Backups");
  EXPECT_EQ(uuid, std::optional<std::string>("1234-ABCD"));
  EXPECT_TRUE(VolumeInfoForBSDName("sdc1", &path, &name, &uuid));
  EXPECT_EQ(path, "/media/ann/Flash Disk");
  EXPECT_EQ(name, "Flash Disk");
  EXPECT_EQ(uuid, std::nullopt);
  EXPECT_TRUE(VolumeInfoForBSDName("167772161", &path, &name, &uuid));
  EXPECT_EQ(path, "/mnt/nfs");
  EXPECT_FALSE(VolumeInfoForBSDName("sdc", &path, &name, &uuid));
  EXPECT_EQ(path, "");
  EXPECT_EQ(name, "");
  EXPECT_EQ(uuid, std::nullopt);
}

TEST(QSVolumeInfoTest, HiddenShareUrlEscapesTheBlanksAndTheHost) {
  EXPECT_EQ(HiddenShareURLForHost("annsmac"), "afp://;AUTH=No%20User%20Authent@annsmac._afpovertcp._tcp.local/Public");
  EXPECT_EQ(HiddenShareURLForHost("Ann's Mac mini"),
            "afp://;AUTH=No%20User%20Authent@Ann's%20Mac%20mini._afpovertcp._tcp.local/Public");
  EXPECT_EQ(HiddenShareURLForHost("Café"), "afp://;AUTH=No%20User%20Authent@Caf%C3%A9._afpovertcp._tcp.local/Public");
  EXPECT_EQ(HiddenShareURLForHost("50%"), "afp://;AUTH=No%20User%20Authent@50%25._afpovertcp._tcp.local/Public");
}

TEST(QSVolumeInfoTest, NilSafeStringOfNothingIsTheEmptyString) {
  const std::string none = NilSafeString(std::nullopt);
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(NilSafeString(std::optional<std::string>("Backups")), "Backups");
  EXPECT_EQ(NilSafeString(std::optional<std::string>("")), "");
}

TEST(QSVolumeInfoTest, WithoutAnInstalledServiceTheSystemsIsUsed) {
  QSVolumeInfo::setVolumeService(nullptr);
  EXPECT_EQ(QSVolumeInfo::volumeService(), platform::VolumeService::system());
  Desktop d;
  {
    VolumeServiceScope scope(d.f.service());
    EXPECT_NE(QSVolumeInfo::volumeService(), platform::VolumeService::system());
  }
  EXPECT_EQ(QSVolumeInfo::volumeService(), platform::VolumeService::system());
}
