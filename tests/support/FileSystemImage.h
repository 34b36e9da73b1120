// A real file system for one integration test: an image file in a private
// temporary folder, formatted and mounted on a folder next to it.
//
//  - ext4 goes through a loop device (losetup + mount).  exFAT also goes
//    through a loop device but is served by FUSE (mount.exfat-fuse, which
//    insists on a block device when run as root).  FAT is served by FUSE
//    straight from the image (fusefat in read-write mode).  Both FUSE servers
//    run in the foreground as our child processes, so unmount() returns only
//    once the server has finished writing the image and exited.  There is no
//    fallback to in-kernel FAT drivers.
//  - After mounting, /proc/self/mountinfo must show the mount point with the
//    file system type expected for the kind ("ext4", "fuseblk" for exFAT,
//    "fuse.fusefat" for FAT); the constructor waits (with a
//    deadline) for FUSE mounts to appear, and throws std::runtime_error with
//    the commands' output when formatting or mounting fails.
//  - The loop device stays attached until the object goes away.  The
//    destructor never throws: it unmounts if still mounted (lazily when a
//    normal unmount fails), detaches the loop device, waits a little for the
//    kernel and the FUSE server to let go (files still open on a lazily
//    unmounted volume hold them; close those first) and removes the folder
//    with the image.
//  - Needs root; tests ask unavailableReason() first and skip with its answer.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skerrow_test {

struct CommandResult {
  int exitCode = -1;   // the exit status; 128 + signal number when killed
  std::string output;  // standard output and standard error, interleaved
};

// Runs a program (argv[0] is looked up with findProgram when it has no
// slash) with no shell in between, waits for it and answers its exit code and output.  The
// output goes to an anonymous file rather than a pipe so a daemon that keeps
// the descriptor after its parent exits cannot hold us up.  Throws
// std::runtime_error only when the program cannot be started at all.
CommandResult runCommand(const std::vector<std::string>& argv);

// The absolute path of a program found in PATH or the usual sbin/bin
// folders, or nothing.
std::optional<std::string> findProgram(const std::string& name);

// How to make the file system.  Declared outside the class so it can have
// default member initializers (which keep designated initializers such as
// {.label = "x"} free of missing-initializer warnings) and still be a
// defaulted constructor argument.
struct FileSystemImageOptions {
  std::string label = {};                            // volume label, empty for none
  std::vector<std::string> extraMkfsArguments = {};  // passed to mkfs before the image
};

class FileSystemImage {
 public:
  enum class Kind { Ext4, ExFat, Vfat };

  using Options = FileSystemImageOptions;

  // Nothing when `kind` can be made and mounted here; otherwise why not.
  static std::optional<std::string> unavailableReason(Kind kind);

  // The fstype /proc/self/mountinfo shows for a mounted `kind`.
  static std::string expectedFsType(Kind kind);
  static const char* name(Kind kind);

  FileSystemImage(Kind kind, std::uint64_t sizeBytes, Options options = {});
  ~FileSystemImage();
  FileSystemImage(const FileSystemImage&) = delete;
  FileSystemImage& operator=(const FileSystemImage&) = delete;

  Kind kind() const { return kind_; }
  const std::string& mountPoint() const { return mountPoint_; }
  const std::string& imagePath() const { return imagePath_; }
  const std::string& folder() const { return folder_; }
  // The loop device ("/dev/loopN") for ext4 and exFAT, empty for FAT.
  const std::string& loopDevice() const { return loopDevice_; }
  // As read from /proc/self/mountinfo right after mounting.
  const std::string& fsType() const { return fsType_; }
  // st_dev of the mount point right after mounting.
  dev_t device() const { return device_; }

  // Unmounts; throws std::runtime_error with the command's output on failure.
  void unmount();
  // Detaches the mount now even while files in it are open (umount -l,
  // fusermount -u -z); the mount point becomes an ordinary empty folder.
  void lazyUnmount();
  // Mounts the file system again on the same mount point after unmount()
  // or lazyUnmount() (the disk plugged back in); throws as the constructor.
  void mountAgain();
  // Whether /proc/self/mountinfo has an entry for the mount point.
  bool isMounted() const;

 private:
  void create(std::uint64_t sizeBytes, const Options& options);
  void makeFileSystem(const Options& options);
  void attachLoopDevice();
  void mount();
  void unmountWith(bool lazy);
  void cleanUp() noexcept;

  // A foreground FUSE server, our own child process.
  class Server;

  Kind kind_;
  std::string folder_;
  std::string imagePath_;
  std::string mountPoint_;
  std::string loopDevice_;
  std::string fsType_;
  dev_t device_ = 0;
  std::unique_ptr<Server> server_;
};

}  // namespace skerrow_test
