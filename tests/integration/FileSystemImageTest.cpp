// The mounted-image fixture itself: each kind mounts for real, takes a file,
// unmounts cleanly and leaves nothing behind; a lazy unmount under an open
// file leaves an ordinary empty folder where the volume was.
#include "tests/support/FileSystemImage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace skerrow_test {
namespace {

using Kind = FileSystemImage::Kind;

constexpr std::uint64_t kMiB = 1024 * 1024;

// Skips the calling test, with the reason, when `kind` cannot be mounted here.
#define SKIP_UNLESS_AVAILABLE(kind)                                                      \
  do {                                                                                   \
    if (auto reason = FileSystemImage::unavailableReason(kind)) GTEST_SKIP() << *reason; \
  } while (false)

dev_t deviceOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st.st_dev;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Checked independently of the fixture: any mountinfo line naming the path.
bool mountinfoMentions(const std::string& mountPoint) {
  return readFile("/proc/self/mountinfo").find(" " + mountPoint + " ") != std::string::npos;
}

bool loopDeviceReleased(const std::string& device) {
  const std::string name = std::filesystem::path(device).filename().string();
  return !std::filesystem::exists("/sys/block/" + name + "/loop/backing_file");
}

std::vector<std::string> checkCommand(Kind kind, const std::string& image) {
  switch (kind) {
    case Kind::Ext4: return {"e2fsck", "-f", "-n", image};
    case Kind::ExFat: return {"fsck.exfat", "-n", image};
    case Kind::Vfat: return {"fsck.vfat", "-n", image};
  }
  return {};
}

void mountWriteReadUnmount(Kind kind, const std::string& expectedFsType) {
  std::string folder, loopDevice;
  {
    FileSystemImage fs(kind, 64 * kMiB);
    folder = fs.folder();
    loopDevice = fs.loopDevice();
    EXPECT_EQ(kind == Kind::Vfat, loopDevice.empty());

    EXPECT_EQ(fs.fsType(), expectedFsType);
    ASSERT_TRUE(fs.isMounted());
    EXPECT_TRUE(mountinfoMentions(fs.mountPoint()));
    EXPECT_EQ(deviceOf(fs.mountPoint()), fs.device());
    EXPECT_NE(fs.device(), deviceOf(std::filesystem::path(fs.mountPoint()).parent_path()));

    const std::string file = fs.mountPoint() + "/hello.txt";
    const std::string contents = "written through " + expectedFsType + "\n";
    {
      std::ofstream out(file, std::ios::binary);
      out << contents;
      ASSERT_TRUE(out.good());
    }
    EXPECT_EQ(readFile(file), contents);
    EXPECT_EQ(deviceOf(file), fs.device());

    fs.unmount();
    EXPECT_FALSE(fs.isMounted());
    EXPECT_FALSE(mountinfoMentions(fs.mountPoint()));
    EXPECT_FALSE(std::filesystem::exists(file));

    // Unmounting returns only once the image is complete and consistent.
    const CommandResult fsck = runCommand(checkCommand(kind, fs.imagePath()));
    EXPECT_EQ(fsck.exitCode, 0) << fsck.output;
  }
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(loopDevice.empty() || loopDeviceReleased(loopDevice)) << loopDevice;
}

void destructorCleansUpMounted(Kind kind) {
  std::string folder, mountPoint, loopDevice;
  {
    FileSystemImage fs(kind, 4 * kMiB);
    folder = fs.folder();
    mountPoint = fs.mountPoint();
    loopDevice = fs.loopDevice();
    std::ofstream(mountPoint + "/left-behind.txt") << "x";
  }
  EXPECT_FALSE(mountinfoMentions(mountPoint));
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(loopDevice.empty() || loopDeviceReleased(loopDevice)) << loopDevice;
}

TEST(FileSystemImageTest, Ext4MountsWritesAndUnmounts) {
  SKIP_UNLESS_AVAILABLE(Kind::Ext4);
  mountWriteReadUnmount(Kind::Ext4, "ext4");
}

TEST(FileSystemImageTest, ExFatMountsWritesAndUnmounts) {
  SKIP_UNLESS_AVAILABLE(Kind::ExFat);
  mountWriteReadUnmount(Kind::ExFat, "fuseblk");
}

TEST(FileSystemImageTest, VfatMountsWritesAndUnmounts) {
  SKIP_UNLESS_AVAILABLE(Kind::Vfat);
  mountWriteReadUnmount(Kind::Vfat, "fuse.fusefat");
}

TEST(FileSystemImageTest, Ext4DestructorUnmountsAndCleansUp) {
  SKIP_UNLESS_AVAILABLE(Kind::Ext4);
  destructorCleansUpMounted(Kind::Ext4);
}

TEST(FileSystemImageTest, ExFatDestructorUnmountsAndCleansUp) {
  SKIP_UNLESS_AVAILABLE(Kind::ExFat);
  destructorCleansUpMounted(Kind::ExFat);
}

TEST(FileSystemImageTest, VfatDestructorUnmountsAndCleansUp) {
  SKIP_UNLESS_AVAILABLE(Kind::Vfat);
  destructorCleansUpMounted(Kind::Vfat);
}

// Writes more than a 4 MiB volume holds; answers the errno that stopped it
// (0 when everything fitted).
int errnoWhenFilling(const std::string& path) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  const std::string chunk(64 * 1024, 'x');
  int error = 0;
  for (std::uint64_t written = 0; written < 8 * kMiB && error == 0;) {
    // A write cut short by a full volume is followed by one that fails.
    const ssize_t n = ::write(fd, chunk.data(), chunk.size());
    if (n < 0) {
      error = errno;
    } else {
      written += static_cast<std::uint64_t>(n);
    }
  }
  if (error == 0 && ::fsync(fd) != 0) error = errno;
  ::close(fd);
  return error;
}

TEST(FileSystemImageTest, SmallExt4ImageRunsOutOfSpace) {
  SKIP_UNLESS_AVAILABLE(Kind::Ext4);
  FileSystemImage fs(Kind::Ext4, 4 * kMiB);
  EXPECT_EQ(errnoWhenFilling(fs.mountPoint() + "/big.bin"), ENOSPC);
}

TEST(FileSystemImageTest, SmallExFatImageRunsOutOfSpace) {
  SKIP_UNLESS_AVAILABLE(Kind::ExFat);
  FileSystemImage fs(Kind::ExFat, 4 * kMiB);
  EXPECT_EQ(errnoWhenFilling(fs.mountPoint() + "/big.bin"), ENOSPC);
}

TEST(FileSystemImageTest, SmallVfatImageRunsOutOfSpace) {
  SKIP_UNLESS_AVAILABLE(Kind::Vfat);
  FileSystemImage fs(Kind::Vfat, 4 * kMiB);
  // fusefat answers a full volume with EPERM rather than ENOSPC.
  const int error = errnoWhenFilling(fs.mountPoint() + "/big.bin");
  EXPECT_TRUE(error == ENOSPC || error == EPERM) << std::strerror(error);
}

TEST(FileSystemImageTest, Ext4TakesALabel) {
  SKIP_UNLESS_AVAILABLE(Kind::Ext4);
  FileSystemImage fs(Kind::Ext4, 4 * kMiB, {.label = "skerrow-dest"});
  const CommandResult label = runCommand({"e2label", fs.imagePath()});
  EXPECT_EQ(label.exitCode, 0) << label.output;
  EXPECT_EQ(label.output, "skerrow-dest\n");
}

TEST(FileSystemImageTest, LazyUnmountUnderAnOpenFileLeavesAnEmptyFolderOnTheParentDevice) {
  SKIP_UNLESS_AVAILABLE(Kind::Ext4);
  std::string loopDevice;
  {
    FileSystemImage fs(Kind::Ext4, 16 * kMiB);
    loopDevice = fs.loopDevice();
    const std::string parent = std::filesystem::path(fs.mountPoint()).parent_path();
    ASSERT_NE(deviceOf(fs.mountPoint()), deviceOf(parent));

    const std::string file = fs.mountPoint() + "/held-open.bin";
    const int fd = ::open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "before", 6), 6);

    fs.lazyUnmount();
    EXPECT_FALSE(fs.isMounted());
    EXPECT_FALSE(mountinfoMentions(fs.mountPoint()));
    EXPECT_EQ(deviceOf(fs.mountPoint()), deviceOf(parent));
    EXPECT_NE(deviceOf(fs.mountPoint()), fs.device());
    EXPECT_TRUE(std::filesystem::is_empty(fs.mountPoint()));

    // The detached file system lives on for whoever still has files open.
    EXPECT_EQ(::write(fd, "after", 5), 5);
    struct stat st {};
    ASSERT_EQ(::fstat(fd, &st), 0);
    EXPECT_EQ(st.st_dev, fs.device());
    EXPECT_FALSE(loopDeviceReleased(loopDevice));
    ASSERT_EQ(::close(fd), 0);
  }
  EXPECT_TRUE(loopDeviceReleased(loopDevice)) << loopDevice;
}

std::set<std::string> fixtureFolders() {
  const char* base = std::getenv("TMPDIR");
  std::set<std::string> found;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(base && *base ? base : "/tmp", ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("skerrow-fs-", 0) == 0) found.insert(name);
  }
  return found;
}

TEST(FileSystemImageTest, FailingToFormatThrowsWithTheOutputAndLeavesNothingBehind) {
  SKIP_UNLESS_AVAILABLE(Kind::Ext4);
  const auto before = fixtureFolders();
  try {
    FileSystemImage fs(Kind::Ext4, 4 * kMiB, {.extraMkfsArguments = {"-O", "skerrow_no_such_feature"}});
    ADD_FAILURE() << "formatting with an unknown feature succeeded";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("mkfs.ext4"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("skerrow_no_such_feature"), std::string::npos) << e.what();
  }
  EXPECT_EQ(fixtureFolders(), before);
}

void lazyUnmountOfFuseUnderAnOpenFile(Kind kind) {
  std::string folder, loopDevice;
  {
    FileSystemImage fs(kind, 16 * kMiB);
    folder = fs.folder();
    loopDevice = fs.loopDevice();
    const int fd = ::open((fs.mountPoint() + "/held-open.bin").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);

    fs.lazyUnmount();
    EXPECT_FALSE(fs.isMounted());
    EXPECT_EQ(deviceOf(fs.mountPoint()), deviceOf(fs.folder()));
    EXPECT_TRUE(std::filesystem::is_empty(fs.mountPoint()));
    EXPECT_EQ(::write(fd, "after", 5), 5);
    ASSERT_EQ(::close(fd), 0);
  }
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_TRUE(loopDevice.empty() || loopDeviceReleased(loopDevice)) << loopDevice;
}

TEST(FileSystemImageTest, ExFatLazyUnmountUnderAnOpenFile) {
  SKIP_UNLESS_AVAILABLE(Kind::ExFat);
  lazyUnmountOfFuseUnderAnOpenFile(Kind::ExFat);
}

TEST(FileSystemImageTest, VfatLazyUnmountUnderAnOpenFile) {
  SKIP_UNLESS_AVAILABLE(Kind::Vfat);
  lazyUnmountOfFuseUnderAnOpenFile(Kind::Vfat);
}

TEST(FileSystemImageTest, RunCommandCapturesExitCodeAndBothOutputs) {
  const CommandResult r = runCommand({"sh", "-c", "echo to-stdout; echo to-stderr >&2; exit 3"});
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_NE(r.output.find("to-stdout"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("to-stderr"), std::string::npos) << r.output;
}

TEST(FileSystemImageTest, RunCommandPassesArgumentsWithoutAShell) {
  const CommandResult r = runCommand({"printf", "%s|", "a b", "$HOME", "'q'"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.output, "a b|$HOME|'q'|");
}

TEST(FileSystemImageTest, RunCommandThrowsForAMissingProgram) {
  EXPECT_THROW(runCommand({"skerrow-no-such-program"}), std::runtime_error);
}

}  // namespace
}  // namespace skerrow_test
