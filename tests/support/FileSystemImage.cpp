#include "tests/support/FileSystemImage.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/support/Eventually.h"

extern char** environ;

namespace skerrow_test {

namespace {

using namespace std::chrono_literals;

// How long a FUSE mount may take to show up, and a FUSE server to go away.
constexpr auto kMountTimeout = std::chrono::milliseconds(10s);
constexpr auto kServerExitTimeout = std::chrono::milliseconds(10s);
// How long the destructor waits for a loop device or a FUSE server to be let
// go of; files a test still holds open on a lazily unmounted file system keep
// them busy.
constexpr auto kReleaseTimeout = std::chrono::milliseconds(3s);
// How much of a FUSE server's chatter we keep for error messages.
constexpr std::size_t kServerOutputTail = 64 * 1024;

std::string errnoText(const std::string& what, int error) {
  return what + ": " + std::strerror(error);
}

int exitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

int waitFor(pid_t pid, int options, bool* exited) {
  int status = 0;
  pid_t r;
  do {
    r = ::waitpid(pid, &status, options);
  } while (r < 0 && errno == EINTR);
  *exited = r == pid;
  return *exited ? exitCodeOf(status) : -1;
}

// Starts argv with stdin from /dev/null and stdout/stderr on the given
// descriptors; the child gets no other descriptor of ours.
pid_t spawn(const std::vector<std::string>& argv, int stdoutFd, int stderrFd) {
  if (argv.empty()) throw std::invalid_argument("runCommand: empty argv");
  // Bare names are looked up here rather than by posix_spawnp so that the
  // sbin folders count even when PATH leaves them out.
  const std::string program =
      argv[0].find('/') == std::string::npos ? findProgram(argv[0]).value_or("") : argv[0];
  if (program.empty()) throw std::runtime_error("cannot start " + argv[0] + ": not found");
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, stdoutFd, 1);
  posix_spawn_file_actions_adddup2(&actions, stderrFd, 2);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error(errnoText("cannot start " + argv[0], error));
  return pid;
}

std::string readWhole(int fd) {
  std::string out;
  char buf[8192];
  off_t offset = 0;
  for (;;) {
    const ssize_t n = ::pread(fd, buf, sizeof buf, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    offset += n;
  }
  return out;
}

std::string joined(const std::vector<std::string>& argv) {
  std::string s;
  for (const auto& a : argv) s += (s.empty() ? "" : " ") + a;
  return s;
}

// Runs a command that must succeed; answers its output.
std::string check(const std::vector<std::string>& argv) {
  const CommandResult r = runCommand(argv);
  if (r.exitCode != 0) {
    throw std::runtime_error("`" + joined(argv) + "` failed with exit code " +
                             std::to_string(r.exitCode) + ": " + r.output);
  }
  return r.output;
}

// mountinfo escapes space, tab, newline and backslash as \ooo.
std::string unescapeMountField(const std::string& field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const std::string digits = field.substr(i + 1, 3);
      if (digits.find_first_not_of("01234567") == std::string::npos) {
        out.push_back(static_cast<char>(std::stoi(digits, nullptr, 8)));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

// The fstype of the topmost mount on `mountPoint`, if any.
std::optional<std::string> mountedFsType(const std::string& mountPoint) {
  std::ifstream in("/proc/self/mountinfo");
  std::optional<std::string> found;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, majorMinor, root, point;
    if (!(fields >> id >> parent >> majorMinor >> root >> point)) continue;
    if (unescapeMountField(point) != mountPoint) continue;
    std::string field;
    while (fields >> field && field != "-") {
    }
    std::string fsType;
    if (fields >> fsType) found = unescapeMountField(fsType);
  }
  return found;
}

std::string trimmed(const std::string& s) {
  const auto begin = s.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return {};
  const auto end = s.find_last_not_of(" \t\r\n");
  return s.substr(begin, end - begin + 1);
}

std::optional<std::string> loopDeviceProblem() {
  const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  if (control < 0) return errnoText("cannot open /dev/loop-control", errno);
  const int index = ::ioctl(control, LOOP_CTL_GET_FREE);
  const int error = errno;
  ::close(control);
  if (index < 0) return errnoText("no free loop device", error);
  const std::string node = "/dev/loop" + std::to_string(index);
  if (::access(node.c_str(), F_OK) != 0) return "free loop device " + node + " has no device node";
  return std::nullopt;
}

std::optional<std::string> fuseProblem() {
  const int fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) return errnoText("cannot open /dev/fuse", errno);
  ::close(fd);
  return std::nullopt;
}

std::optional<std::string> firstProgram(std::initializer_list<const char*> names) {
  for (const char* n : names) {
    if (auto p = findProgram(n)) return p;
  }
  return std::nullopt;
}

std::optional<std::string> exfatServer() { return firstProgram({"mount.exfat-fuse", "exfat-fuse"}); }
std::optional<std::string> fuseUnmounter() { return firstProgram({"fusermount3", "fusermount"}); }

std::string mkfsProgram(FileSystemImage::Kind kind) {
  switch (kind) {
    case FileSystemImage::Kind::Ext4: return "mkfs.ext4";
    case FileSystemImage::Kind::ExFat: return "mkfs.exfat";
    case FileSystemImage::Kind::Vfat: return "mkfs.vfat";
  }
  return {};
}

std::string require(const std::optional<std::string>& program, const std::string& what) {
  if (!program) throw std::runtime_error(what + " not found");
  return *program;
}

}  // namespace

CommandResult runCommand(const std::vector<std::string>& argv) {
  const int output = ::memfd_create("skerrow-command-output", MFD_CLOEXEC);
  if (output < 0) throw std::runtime_error(errnoText("memfd_create", errno));
  CommandResult result;
  try {
    const pid_t pid = spawn(argv, output, output);
    bool exited = false;
    result.exitCode = waitFor(pid, 0, &exited);
  } catch (...) {
    ::close(output);
    throw;
  }
  result.output = readWhole(output);
  ::close(output);
  return result;
}

std::optional<std::string> findProgram(const std::string& name) {
  std::string path;
  if (const char* env = std::getenv("PATH")) path = env;
  path += ":/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  std::istringstream dirs(path);
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    const std::string candidate = dir + "/" + name;
    struct stat st {};
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

// A foreground FUSE server: our child, its standard error drained by a thread
// that keeps the last part for error messages (both servers write a line or
// more for every request, so keeping all of it would grow without bound).
class FileSystemImage::Server {
 public:
  explicit Server(const std::vector<std::string>& argv)
      : name_(std::filesystem::path(argv.at(0)).filename().string()) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(errnoText("pipe2", errno));
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    try {
      if (devNull < 0) throw std::runtime_error(errnoText("open /dev/null", errno));
      pid_ = spawn(argv, devNull, fds[1]);
    } catch (...) {
      if (devNull >= 0) ::close(devNull);
      ::close(fds[0]);
      ::close(fds[1]);
      throw;
    }
    ::close(devNull);
    ::close(fds[1]);
    readFd_ = fds[0];
    reader_ = std::thread([this] { drain(); });
  }

  ~Server() {
    if (!exited_) kill();
    if (reader_.joinable()) reader_.join();
    ::close(readFd_);
  }

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  bool exited() {
    if (!exited_) exitCode_ = waitFor(pid_, WNOHANG, &exited_);
    return exited_;
  }

  bool waitForExit(std::chrono::milliseconds timeout) {
    return eventually([this] { return exited(); }, timeout);
  }

  void kill() {
    if (exited()) return;
    ::kill(pid_, SIGKILL);
    exitCode_ = waitFor(pid_, 0, &exited_);
  }

  int exitCode() const { return exitCode_; }
  const std::string& name() const { return name_; }

  // Once the server has exited, everything it wrote (up to the tail size).
  std::string output() {
    if (exited_ && reader_.joinable()) reader_.join();
    std::lock_guard lock(mutex_);
    return tail_;
  }

 private:
  void drain() {
    char buf[4096];
    for (;;) {
      const ssize_t n = ::read(readFd_, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      std::lock_guard lock(mutex_);
      tail_.append(buf, static_cast<std::size_t>(n));
      if (tail_.size() > kServerOutputTail) tail_.erase(0, tail_.size() - kServerOutputTail);
    }
  }

  std::string name_;
  pid_t pid_ = -1;
  bool exited_ = false;
  int exitCode_ = -1;
  int readFd_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::string tail_;
};

const char* FileSystemImage::name(Kind kind) {
  switch (kind) {
    case Kind::Ext4: return "ext4";
    case Kind::ExFat: return "exFAT";
    case Kind::Vfat: return "FAT";
  }
  return "?";
}

std::string FileSystemImage::expectedFsType(Kind kind) {
  switch (kind) {
    case Kind::Ext4: return "ext4";
    case Kind::ExFat: return "fuseblk";  // exfat-fuse serves a block device
    case Kind::Vfat: return "fuse.fusefat";
  }
  return {};
}

std::optional<std::string> FileSystemImage::unavailableReason(Kind kind) {
  const std::string what = std::string(name(kind)) + " images: ";
  if (::geteuid() != 0) return what + "mounting needs root";
  if (!findProgram(mkfsProgram(kind))) {
    const char* package = kind == Kind::Ext4 ? "e2fsprogs" : kind == Kind::ExFat ? "exfatprogs" : "dosfstools";
    return what + mkfsProgram(kind) + " not found (package " + package + ")";
  }
  if (kind == Kind::Ext4 || kind == Kind::ExFat) {
    if (!findProgram("losetup")) return what + "losetup not found (package mount)";
    if (auto problem = loopDeviceProblem()) return what + *problem;
  }
  if (kind == Kind::Ext4) {
    if (!findProgram("mount") || !findProgram("umount")) return what + "mount/umount not found (package mount)";
    return std::nullopt;
  }
  if (auto problem = fuseProblem()) return what + *problem;
  if (kind == Kind::ExFat && !exfatServer()) return what + "mount.exfat-fuse not found (package exfat-fuse)";
  if (kind == Kind::Vfat && !findProgram("fusefat")) return what + "fusefat not found (package fusefat)";
  if (!fuseUnmounter() && !findProgram("umount")) return what + "neither fusermount nor umount found (package fuse3)";
  return std::nullopt;
}

FileSystemImage::FileSystemImage(Kind kind, std::uint64_t sizeBytes, Options options) : kind_(kind) {
  try {
    create(sizeBytes, options);
  } catch (...) {
    cleanUp();
    throw;
  }
}

FileSystemImage::~FileSystemImage() { cleanUp(); }

void FileSystemImage::create(std::uint64_t sizeBytes, const Options& options) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/skerrow-fs-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (!::mkdtemp(buf.data())) throw std::runtime_error(errnoText("mkdtemp " + pattern, errno));
  folder_ = buf.data();
  // mountinfo shows resolved paths, so compare against the resolved one.
  folder_ = std::filesystem::canonical(folder_).string();
  imagePath_ = folder_ + "/image.img";
  mountPoint_ = folder_ + "/mnt";

  const int fd = ::open(imagePath_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error(errnoText("create " + imagePath_, errno));
  const int truncated = ::ftruncate(fd, static_cast<off_t>(sizeBytes));
  const int error = errno;
  ::close(fd);
  if (truncated != 0) throw std::runtime_error(errnoText("size " + imagePath_, error));
  if (::mkdir(mountPoint_.c_str(), 0755) != 0) throw std::runtime_error(errnoText("mkdir " + mountPoint_, errno));

  makeFileSystem(options);
  if (kind_ != Kind::Vfat) attachLoopDevice();
  mount();
}

void FileSystemImage::makeFileSystem(const Options& options) {
  std::vector<std::string> argv{require(findProgram(mkfsProgram(kind_)), mkfsProgram(kind_))};
  switch (kind_) {
    case Kind::Ext4:
      argv.insert(argv.end(), {"-q", "-F", "-m", "0"});
      if (!options.label.empty()) argv.insert(argv.end(), {"-L", options.label});
      break;
    case Kind::ExFat:
      if (!options.label.empty()) argv.insert(argv.end(), {"-L", options.label});
      break;
    case Kind::Vfat:
      if (!options.label.empty()) argv.insert(argv.end(), {"-n", options.label});
      break;
  }
  argv.insert(argv.end(), options.extraMkfsArguments.begin(), options.extraMkfsArguments.end());
  argv.push_back(imagePath_);
  check(argv);
}

void FileSystemImage::attachLoopDevice() {
  const std::string output = check({require(findProgram("losetup"), "losetup"), "--find", "--show", imagePath_});
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line)) {
    line = trimmed(line);
    if (line.rfind("/dev/loop", 0) == 0) loopDevice_ = line;
  }
  if (loopDevice_.empty()) throw std::runtime_error("losetup named no loop device: " + output);
}

void FileSystemImage::mount() {
  const std::string expected = expectedFsType(kind_);
  auto mountedAsExpected = [&] {
    const auto seen = mountedFsType(mountPoint_);
    if (seen) fsType_ = *seen;
    return seen == expected;
  };
  auto serverGone = [&] { return server_ && server_->exited(); };
  std::string output;

  // The FUSE servers run in the foreground as our children, so that we can
  // wait for them to finish after unmounting, and so that no orphaned server
  // is left for an init that might not reap it.
  std::vector<std::string> serverArgv;
  switch (kind_) {
    case Kind::Ext4:
      output = check({require(findProgram("mount"), "mount"), "-t", "ext4", loopDevice_, mountPoint_});
      break;
    case Kind::ExFat:
      // Its only way to stay in the foreground is debug mode ("-d"); the
      // chatter goes to the server's bounded output tail.
      serverArgv = {require(exfatServer(), "mount.exfat-fuse"), "-d", loopDevice_, mountPoint_};
      break;
    case Kind::Vfat:
      // fusefat mounts read-only unless told "rw+".
      serverArgv = {require(findProgram("fusefat"), "fusefat"), "-f", "-o", "rw+", imagePath_, mountPoint_};
      break;
  }
  if (!serverArgv.empty()) server_ = std::make_unique<Server>(serverArgv);

  eventually([&] { return mountedAsExpected() || serverGone(); }, kMountTimeout);
  if (serverGone()) {
    throw std::runtime_error(server_->name() + " exited with code " + std::to_string(server_->exitCode()) +
                             " while mounting " + mountPoint_ + ": " + server_->output());
  }
  if (!mountedAsExpected()) {
    const auto seen = mountedFsType(mountPoint_);
    if (server_) output = server_->output();
    throw std::runtime_error("no " + expected + " mount on " + mountPoint_ + " (found " +
                             (seen ? *seen : std::string("none")) + "): " + output);
  }
  struct stat st {};
  if (::stat(mountPoint_.c_str(), &st) != 0) throw std::runtime_error(errnoText("stat " + mountPoint_, errno));
  device_ = st.st_dev;
}

bool FileSystemImage::isMounted() const { return mountedFsType(mountPoint_).has_value(); }

void FileSystemImage::unmount() { unmountWith(false); }

void FileSystemImage::mountAgain() {
  if (server_) {
    server_->waitForExit(kServerExitTimeout);
    server_.reset();
  }
  mount();
}

void FileSystemImage::lazyUnmount() { unmountWith(true); }

void FileSystemImage::unmountWith(bool lazy) {
  std::vector<std::string> argv;
  const auto fusermount = kind_ == Kind::Ext4 ? std::nullopt : fuseUnmounter();
  if (fusermount) {
    argv = {*fusermount, "-u"};
    if (lazy) argv.push_back("-z");
  } else {
    argv = {require(findProgram("umount"), "umount")};
    if (lazy) argv.push_back("-l");
  }
  argv.push_back(mountPoint_);
  check(argv);
  if (server_ && !lazy && !server_->waitForExit(kServerExitTimeout)) {
    throw std::runtime_error(server_->name() + " still running after unmounting " + mountPoint_);
  }
}

void FileSystemImage::cleanUp() noexcept {
  bool stillMounted = true;
  try {
    if (!folder_.empty() && isMounted()) {
      try {
        unmountWith(false);
      } catch (...) {
      }
      if (isMounted()) {
        try {
          unmountWith(true);
        } catch (...) {
        }
      }
    }
    stillMounted = !folder_.empty() && isMounted();
    if (server_ && !server_->waitForExit(kReleaseTimeout)) server_->kill();
    server_.reset();
    if (!loopDevice_.empty()) {
      runCommand({findProgram("losetup").value_or("losetup"), "-d", loopDevice_});
      // With files still open on a lazily unmounted file system the kernel
      // only marks the device for release; it goes when they are closed.
      const std::string backing =
          "/sys/block/" + std::filesystem::path(loopDevice_).filename().string() + "/loop/backing_file";
      eventually([&] { return !std::filesystem::exists(backing); }, kReleaseTimeout);
    }
  } catch (...) {
  }
  if (folder_.empty()) return;
  std::error_code ec;
  if (stillMounted) {
    // Never recurse into a file system we failed to unmount.
    std::filesystem::remove(imagePath_, ec);
  } else {
    std::filesystem::remove_all(folder_, ec);
  }
}

}  // namespace skerrow_test
