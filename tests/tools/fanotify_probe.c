/* Shows that the calling process may use what continuous backup needs: a
 * fanotify mark on a whole file system (FAN_MARK_FILESYSTEM) reporting the
 * folder's file handle and the name (FAN_REPORT_DFID_NAME), and
 * open_by_handle_at to turn that handle back into a folder.
 *
 *   fanotify_probe FOLDER
 *
 * Marks FOLDER's file system, writes FOLDER/fanotify-probe-<pid>, waits (at
 * most 10 s) for the close-after-write event of that file, resolves its
 * folder handle and prints "fanotify: <folder>/<name>".  Exits 0 when that
 * is the file it wrote, 1 with the failing call's error otherwise. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fanotify.h>
#include <unistd.h>

static int fail(const char* what) {
  fprintf(stderr, "fanotify_probe: %s: %s\n", what, strerror(errno));
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: fanotify_probe FOLDER\n");
    return 2;
  }
  char folder[PATH_MAX];
  if (!realpath(argv[1], folder)) return fail("realpath");
  const int fan = fanotify_init(FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_CLOEXEC, O_RDONLY | O_CLOEXEC);
  if (fan < 0) return fail("fanotify_init");
  if (fanotify_mark(fan, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_CLOSE_WRITE, AT_FDCWD, folder) != 0)
    return fail("fanotify_mark FAN_MARK_FILESYSTEM");
  const int mountFd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (mountFd < 0) return fail("open folder");

  char name[64];
  snprintf(name, sizeof name, "fanotify-probe-%d", (int)getpid());
  char path[PATH_MAX + 64];
  snprintf(path, sizeof path, "%s/%s", folder, name);
  const int out = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (out < 0) return fail("create the probe file");
  if (write(out, "probe\n", 6) != 6) return fail("write the probe file");
  close(out);

  int status = 1;
  char buffer[8192] __attribute__((aligned(__alignof__(struct fanotify_event_metadata))));
  struct pollfd ready = {fan, POLLIN, 0};
  while (status != 0) {
    const int n = poll(&ready, 1, 10000);
    if (n <= 0) {
      fprintf(stderr, "fanotify_probe: no event for %s within 10 s\n", path);
      break;
    }
    ssize_t length = read(fan, buffer, sizeof buffer);
    if (length <= 0) return fail("read events");
    for (struct fanotify_event_metadata* event = (struct fanotify_event_metadata*)buffer; FAN_EVENT_OK(event, length);
         event = FAN_EVENT_NEXT(event, length)) {
      struct fanotify_event_info_fid* info = (struct fanotify_event_info_fid*)(event + 1);
      if (info->hdr.info_type != FAN_EVENT_INFO_TYPE_DFID_NAME) continue;
      struct file_handle* handle = (struct file_handle*)info->handle;
      const char* eventName = (const char*)(handle->f_handle + handle->handle_bytes);
      if (strcmp(eventName, name) != 0) continue;
      const int dir = open_by_handle_at(mountFd, handle, O_RDONLY | O_PATH | O_CLOEXEC);
      if (dir < 0) return fail("open_by_handle_at");
      char link[64], resolved[PATH_MAX];
      snprintf(link, sizeof link, "/proc/self/fd/%d", dir);
      const ssize_t r = readlink(link, resolved, sizeof resolved - 1);
      if (r < 0) return fail("readlink of the folder handle");
      resolved[r] = '\0';
      printf("fanotify: %s/%s\n", resolved, eventName);
      status = strcmp(resolved, folder) == 0 ? 0 : 1;
      close(dir);
    }
  }
  unlink(path);
  return status;
}
