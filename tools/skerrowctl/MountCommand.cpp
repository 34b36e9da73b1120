// skerrowctl mount and umount: a read-only FUSE view of a backup (libfuse3,
// high-level API, one thread) showing the home folder as it was.  The view
// is built once, when the folder is mounted (see BackupView); reads go to
// the stored copies on the backup disk, opened without following links.
#define FUSE_USE_VERSION 31
#include <fuse3/fuse.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Path.h"
#include "tools/skerrowctl/BackupView.h"
#include "tools/skerrowctl/CommandsInternal.h"
#include "tools/skerrowctl/VersionBrowser.h"
#include "tools/skerrowctl/Wording.h"

extern char** environ;

namespace skerrowctl {

namespace {

struct Mounted {
  std::string backupFolder;
  BackupView view;
};

Mounted& mounted() { return *static_cast<Mounted*>(fuse_get_context()->private_data); }

timespec timeOf(const platform::FileTime& time) {
  return timespec{static_cast<time_t>(time.seconds), static_cast<long>(time.nanoseconds)};
}

void fill(const BackupView::Node& node, struct stat* st) {
  std::memset(st, 0, sizeof *st);
  // Read-only: no write bit, whatever the copy had.
  const uint32_t permissions = node.mode & 07555;
  st->st_mode = (node.folder ? S_IFDIR : node.link ? S_IFLNK : S_IFREG) | permissions;
  st->st_nlink = node.folder ? 2 : 1;
  st->st_uid = node.uid;
  st->st_gid = node.gid;
  st->st_size = static_cast<off_t>(node.folder ? 4096 : node.size);
  st->st_blocks = static_cast<blkcnt_t>((node.size + 511) / 512);
  st->st_mtim = timeOf(node.modificationTime);
  st->st_atim = timeOf(node.accessTime);
  st->st_ctim = st->st_mtim;
}

int viewGetattr(const char* path, struct stat* st, fuse_file_info*) {
  const auto* node = mounted().view.find(path);
  if (!node) return -ENOENT;
  fill(*node, st);
  return 0;
}

int viewReaddir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t, fuse_file_info*, fuse_readdir_flags) {
  const auto* node = mounted().view.find(path);
  if (!node) return -ENOENT;
  if (!node->folder) return -ENOTDIR;
  filler(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  filler(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  const std::string base = std::string(path) == "/" ? "" : std::string(path);
  for (const auto& name : node->children) {
    struct stat st;
    const auto* child = mounted().view.find(base + "/" + name);
    if (child) fill(*child, &st);
    if (filler(buffer, name.c_str(), child ? &st : nullptr, 0, static_cast<fuse_fill_dir_flags>(0))) break;
  }
  return 0;
}

int viewOpen(const char* path, fuse_file_info* info) {
  const auto* node = mounted().view.find(path);
  if (!node) return -ENOENT;
  if (node->folder) return -EISDIR;
  if ((info->flags & O_ACCMODE) != O_RDONLY) return -EROFS;
  const std::string stored = platform::appendingPathComponent(mounted().backupFolder, node->stored);
  const int fd = ::open(stored.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -errno;
  info->fh = static_cast<uint64_t>(fd);
  info->keep_cache = 1;
  return 0;
}

int viewRead(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* info) {
  const ssize_t n = ::pread(static_cast<int>(info->fh), buffer, size, offset);
  return n < 0 ? -errno : static_cast<int>(n);
}

int viewRelease(const char*, fuse_file_info* info) {
  ::close(static_cast<int>(info->fh));
  return 0;
}

int viewReadlink(const char* path, char* buffer, size_t size) {
  const auto* node = mounted().view.find(path);
  if (!node) return -ENOENT;
  if (!node->link) return -EINVAL;
  const std::string stored = platform::appendingPathComponent(mounted().backupFolder, node->stored);
  const ssize_t n = ::readlink(stored.c_str(), buffer, size > 0 ? size - 1 : 0);
  if (n < 0) return -errno;
  buffer[n] = '\0';
  return 0;
}

int viewAccess(const char* path, int mask) {
  const auto* node = mounted().view.find(path);
  if (!node) return -ENOENT;
  return (mask & W_OK) ? -EROFS : 0;
}

int runProgram(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int mountCommand(Context& c) {
  const std::string folder = c.line.arguments[0];
  std::optional<platform::Date> at;
  if (const auto text = c.line.value("--at")) {
    at = parseUserDate(*text);
    if (!at) fail("not a date: \"" + *text + "\" (say 2025-01-31, 2025-01-31 14:30 or 2025-01-31T14:30:00Z)", kExitUsage);
  }
  const auto entry = c.chosenBackup();
  if (entry->mountPoint().empty()) fail("the disk of backup " + entry->uid().substr(0, 8) + " is not mounted");
  auto state = std::make_unique<Mounted>();
  state->backupFolder = VersionBrowser::backupFolderPath(entry->mountPoint(), entry->uid());
  VersionError error;
  const auto listing = listBackupTree(state->backupFolder, "", &error);
  if (!listing) fail(error.message);
  state->view = BackupView::build(*listing, at);
  // The engine is not needed any more; a view that outlives this command keeps no bus connection.
  c.session.reset();

  static fuse_operations operations = [] {
    fuse_operations ops{};
    ops.getattr = viewGetattr;
    ops.readdir = viewReaddir;
    ops.open = viewOpen;
    ops.read = viewRead;
    ops.release = viewRelease;
    ops.readlink = viewReadlink;
    ops.access = viewAccess;
    return ops;
  }();
  const std::string options = "ro,default_permissions,fsname=skerrow:" + entry->uid().substr(0, 8) + ",subtype=skerrow";
  const char* argv[] = {"skerrowctl", "-o", options.c_str()};
  fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
  fuse* session = fuse_new(&args, &operations, sizeof operations, state.get());
  if (!session) fail("could not set up the view (FUSE)");
  if (fuse_mount(session, folder.c_str()) != 0) {
    fuse_destroy(session);
    fail("could not mount the view at " + folder + " (is it an empty folder of yours, and is /dev/fuse there?)");
  }
  const std::string what = countOf(static_cast<int64_t>(state->view.fileCount()), "file", "files");
  const std::string when = at ? "as it was at " + localDate(*at) : "at its newest";
  c.report("Backup " + entry->uid().substr(0, 8) + " is at " + folder + " (" + what + ", " + when +
               "); end with: skerrowctl umount " + folder,
           Json::object()
               .set("uid", entry->uid())
               .set("mountPoint", folder)
               .set("files", state->view.fileCount())
               .set("at", at ? Json(isoDate(*at)) : Json()));
  c.out.flush();
  if (fuse_daemonize(c.line.has("--foreground") ? 1 : 0) != 0) {
    fuse_unmount(session);
    fuse_destroy(session);
    fail("could not go on in the background");
  }
  fuse_set_signal_handlers(fuse_get_session(session));
  const int loop = fuse_loop(session);
  fuse_remove_signal_handlers(fuse_get_session(session));
  fuse_unmount(session);
  fuse_destroy(session);
  fuse_opt_free_args(&args);
  return loop == 0 ? kExitOK : kExitFailed;
}

int umountCommand(Context& c) {
  const std::string folder = c.line.arguments[0];
  const int status = ::geteuid() == 0 ? runProgram({"umount", folder}) : runProgram({"fusermount3", "-u", folder});
  if (status != 0) fail("could not unmount " + folder + (status < 0 ? " (fusermount3 is missing)" : ""));
  c.report("Unmounted " + folder, Json::object().set("unmounted", folder));
  return kExitOK;
}

}  // namespace skerrowctl
