#include "platform/FanotifyEventSource.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string_view>
#include <thread>

namespace platform {

namespace {

// What every mark reports (with FAN_MODIFY unless writes are left out).
// Folders are included (FAN_ONDIR) so that a folder's rename is seen: it
// changes the paths of everything below it.
constexpr uint64_t kMarkMask = FAN_CREATE | FAN_DELETE | FAN_ATTRIB | FAN_CLOSE_WRITE | FAN_RENAME | FAN_ONDIR;
// Every bit a record may carry.
constexpr uint64_t kKnownMask = kMarkMask | FAN_MODIFY;
// A read that returns less than this left the queue empty: the largest
// record (a rename: two handles and two names) is far smaller.
constexpr size_t kShortRead = 65536;
constexpr size_t kReadBytes = 131072;
// How long the reader lets events gather after the first one arrives (the
// kernel queues 16,384 events: far more than a busy file system makes in it).
constexpr std::chrono::milliseconds kBurstWait{2};

std::string errnoText(int error) { return std::strerror(error); }

// Handles are looked up by their bytes without making a string per event.
struct KeyHash {
  using is_transparent = void;
  size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
};
struct KeyEqual {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const { return a == b; }
};

// One directory-handle record of an event, as it lies in the read buffer.
struct HandleRecord {
  bool present = false;
  std::string_view key;   // handle type and handle bytes
  const char* handle = nullptr;  // the struct file_handle in the buffer
  size_t handleLength = 0;       // its whole length
  std::string_view name;  // empty for a record without a name
};

// Reads one fid record ([header][fsid][file_handle][name\0]); false when it is malformed.
bool parseHandleRecord(const char* record, size_t length, bool withName, HandleRecord* out) {
  const size_t fixed = sizeof(fanotify_event_info_header) + sizeof(__kernel_fsid_t);
  if (length < fixed + sizeof(file_handle)) return false;
  const char* handle = record + fixed;
  uint32_t handleBytes;
  std::memcpy(&handleBytes, handle, sizeof handleBytes);
  const size_t handleLength = sizeof(file_handle) + handleBytes;
  if (handleBytes > MAX_HANDLE_SZ || fixed + handleLength > length) return false;
  out->present = true;
  out->handle = handle;
  out->handleLength = handleLength;
  out->key = std::string_view(handle + sizeof(uint32_t), handleLength - sizeof(uint32_t));
  if (withName) {
    const char* name = handle + handleLength;
    const size_t room = length - fixed - handleLength;
    const size_t nameLength = strnlen(name, room);
    if (nameLength == room || nameLength == 0) return false;  // no terminator, or no name
    out->name = std::string_view(name, nameLength);
  }
  return true;
}

// An event about a folder itself names it "." in the folder's own record.
std::string joinPath(const std::string& folder, std::string_view name) {
  std::string path = folder;
  if (name.empty() || name == ".") return path;
  if (path.empty() || path.back() != '/') path.push_back('/');
  path.append(name);
  return path;
}

}  // namespace

struct FanotifyEventSource::Group {
  FileDescriptor fanotify;
  // A descriptor on the file system, for open_by_handle_at: opened by the
  // decoding of one read that needs it and closed after, so that the disk
  // can be unmounted between reads.
  FileDescriptor mount;
  bool mountTried = false;
  uint64_t device = 0;
  std::vector<Subtree> subtrees;
  std::unordered_map<std::string, Folder, KeyHash, KeyEqual> folders;
};

FanotifyEventSource::FanotifyEventSource() : FanotifyEventSource(Options()) {}

FanotifyEventSource::FanotifyEventSource(Options options) : options_(options), ownProcess_(::getpid()) {}

FanotifyEventSource::~FanotifyEventSource() = default;

namespace {

int newGroup() {
  return ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME,
                         O_RDONLY | O_LARGEFILE | O_CLOEXEC);
}

}  // namespace

bool FanotifyEventSource::open(std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (wake_) return true;
  FileDescriptor group(newGroup());
  if (!group) {
    if (error) *error = errnoText(errno);
    return false;
  }
  FileDescriptor wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake) {
    if (error) *error = errnoText(errno);
    return false;
  }
  spareNumber_ = group.get();
  spare_ = std::move(group);
  wake_ = std::move(wake);
  buffer_.resize(kReadBytes);
  return true;
}

int FanotifyEventSource::descriptor() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return spareNumber_;
}

uint64_t FanotifyEventSource::folderLookups() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return folderLookups_;
}

uint64_t FanotifyEventSource::recordsRead() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return recordsRead_;
}

uint64_t FanotifyEventSource::readsMade() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return readsMade_;
}

uint64_t FanotifyEventSource::markMask() const { return kMarkMask | (options_.reportWrites ? FAN_MODIFY : 0); }

bool FanotifyEventSource::watchFolder(const std::string& folder, std::string* why) {
  char resolved[PATH_MAX];
  if (!::realpath(folder.c_str(), resolved)) {
    if (why) *why = errnoText(errno);
    return false;
  }
  struct stat st {};
  if (::stat(resolved, &st) != 0 || !S_ISDIR(st.st_mode)) {
    if (why) *why = S_ISDIR(st.st_mode) ? errnoText(errno) : "not a folder";
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (!wake_ || closed_) {
    if (why) *why = "the event source is not open";
    return false;
  }
  for (auto& group : groups_) {
    if (group->device != static_cast<uint64_t>(st.st_dev)) continue;
    // Marked again: the file system may have been unmounted and mounted
    // again (same device, new mark needed); for a live mark it changes nothing.
    if (::fanotify_mark(group->fanotify.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, markMask(), AT_FDCWD, resolved) !=
        0) {
      if (why) *why = "fanotify cannot mark its file system: " + errnoText(errno);
      return false;
    }
    const bool known = std::any_of(group->subtrees.begin(), group->subtrees.end(),
                                   [&](const Subtree& s) { return s.given == folder && s.resolved == resolved; });
    if (!known) group->subtrees.push_back({folder, resolved});
    group->folders.clear();  // verdicts made before may change
    return true;
  }
  FileDescriptor fanotify = spare_ ? std::move(spare_) : FileDescriptor(newGroup());
  if (!fanotify) {
    if (why) *why = errnoText(errno);
    return false;
  }
  if (::fanotify_mark(fanotify.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, markMask(), AT_FDCWD, resolved) != 0) {
    const int error = errno;
    if (why) *why = "fanotify cannot mark its file system: " + errnoText(error);
    // The group is unmarked and can serve the next file system.
    if (!spare_) spare_ = std::move(fanotify);
    return false;
  }
  auto group = std::make_shared<Group>();
  group->fanotify = std::move(fanotify);
  group->device = st.st_dev;
  group->subtrees.push_back({folder, resolved});
  groups_.push_back(std::move(group));
  wakeReader();  // the reader waits on the groups it knew
  return true;
}

bool FanotifyEventSource::unwatchFolder(const std::string& folder) {
  char resolved[PATH_MAX];
  // A folder on a disk that is gone no longer resolves: it is known by its given name.
  const std::string real = ::realpath(folder.c_str(), resolved) ? std::string(resolved) : folder;
  std::lock_guard<std::mutex> lock(mutex_);
  bool found = false;
  for (auto it = groups_.begin(); it != groups_.end();) {
    Group& group = **it;
    const auto removed = std::remove_if(group.subtrees.begin(), group.subtrees.end(), [&](const Subtree& s) {
      return s.given == folder || s.resolved == folder || s.resolved == real;
    });
    if (removed == group.subtrees.end()) {
      ++it;
      continue;
    }
    found = true;
    group.subtrees.erase(removed, group.subtrees.end());
    group.folders.clear();  // "inside" verdicts made before are wrong now
    // With nothing left to watch there, the group goes, and its mark with
    // its descriptor (once the reader, which may hold it, lets go).
    it = group.subtrees.empty() ? groups_.erase(it) : it + 1;
  }
  if (found) wakeReader();  // the reader stops waiting on a group that went
  return found;
}

uint64_t FanotifyEventSource::requestDrain() {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t ticket = ++requested_;
  wakeReader();
  return ticket;
}

uint64_t FanotifyEventSource::drained() const { return drained_.load(); }

void FanotifyEventSource::wakeReader() {
  const uint64_t one = 1;
  if (wake_) [[maybe_unused]] const ssize_t n = ::write(wake_.get(), &one, sizeof one);
}

void FanotifyEventSource::close() {
  std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  wakeReader();
}

bool FanotifyEventSource::readEvents(std::vector<FileSystemEvent>* events) {
  const size_t before = events->size();
  for (;;) {
    std::vector<pollfd> fds;
    std::vector<std::shared_ptr<Group>> polled;
    uint64_t drainTo;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (closed_ || !wake_) return false;
      // Every ticket up to here was handed out before the reads below begin.
      drainTo = requested_;
      fds.push_back({wake_.get(), POLLIN, 0});
      for (auto& group : groups_) {
        fds.push_back({group->fanotify.get(), POLLIN, 0});
        polled.push_back(group);
      }
    }
    // A drain asked for reads at once (its wake-up may have been taken already).
    const bool draining = drainTo > drained_.load();
    if (::poll(fds.data(), fds.size(), draining ? 0 : -1) < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    // Events come in bursts (a save is several events, a build thousands a
    // second): waiting a moment after the first lets one read take the
    // burst, instead of waking the reader and reading once per event.  A
    // drain does not wait: what it must take is queued already.
    if (!draining && std::any_of(fds.begin() + 1, fds.end(), [](const pollfd& p) { return p.revents & POLLIN; }))
      std::this_thread::sleep_for(kBurstWait);
    if (fds[0].revents) {
      uint64_t count;
      [[maybe_unused]] const ssize_t n = ::read(fds[0].fd, &count, sizeof count);
    }
    for (size_t i = 0; i < polled.size(); ++i) {
      if (!draining && !(fds[i + 1].revents & POLLIN)) continue;
      // Everything queued now, in buffers of kReadBytes, until a read finds
      // the queue empty (nothing, or a short read).
      for (;;) {
        const ssize_t n = ::read(fds[i + 1].fd, buffer_.data(), buffer_.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        std::lock_guard<std::mutex> lock(mutex_);
        ++readsMade_;
        decode(*polled[i], buffer_.data(), static_cast<size_t>(n), events);
        if (static_cast<size_t>(n) < kShortRead) break;
      }
    }
    if (draining) {
      drained_.store(drainTo);
      return true;
    }
    if (events->size() != before) return true;
  }
}

std::vector<FileSystemEvent> FanotifyEventSource::decodeRecords(const char* buffer, size_t length, uint64_t device) {
  FanotifyEventSource source(Options{.ignoreOwnProcess = false});
  source.ownsEventDescriptors_ = false;
  Group group;  // no watched subtree, so no mount: every folder is unknown, and so outside
  group.device = device;
  std::vector<FileSystemEvent> events;
  std::lock_guard<std::mutex> lock(source.mutex_);
  source.decode(group, buffer, length, &events);
  return events;
}

bool FanotifyEventSource::isInside(const Group& group, const std::string& path) const {
  for (const Subtree& s : group.subtrees) {
    const std::string& subtree = s.resolved;
    if (path.size() < subtree.size() || path.compare(0, subtree.size(), subtree) != 0) continue;
    if (path.size() == subtree.size() || subtree == "/" || path[subtree.size()] == '/') return true;
  }
  return false;
}

const FanotifyEventSource::Folder* FanotifyEventSource::folderFor(Group& group, const std::string& key,
                                                                  const void* handle) {
  if (const auto it = group.folders.find(std::string_view(key)); it != group.folders.end()) return &it->second;
  if (group.folders.size() >= options_.folderCacheLimit) group.folders.clear();
  if (!openMount(group)) {
    unknown_ = Folder();
    return &unknown_;
  }
  ++folderLookups_;
  Folder folder;
  FileDescriptor fd(::open_by_handle_at(group.mount.get(), static_cast<file_handle*>(const_cast<void*>(handle)),
                                        O_PATH | O_CLOEXEC));
  if (fd) {
    char link[64];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd.get());
    char path[PATH_MAX];
    const ssize_t n = ::readlink(link, path, sizeof path - 1);
    if (n > 0) {
      folder.path.assign(path, static_cast<size_t>(n));
      static constexpr std::string_view kDeleted = " (deleted)";
      const bool deleted = folder.path.size() > kDeleted.size() &&
                           std::string_view(folder.path).substr(folder.path.size() - kDeleted.size()) == kDeleted;
      folder.known = !deleted && folder.path.front() == '/';
      folder.gone = deleted;
      folder.inside = folder.known && isInside(group, folder.path);
    }
  } else if (errno != ESTALE) {
    // Perhaps only for now (no memory, too many files): not remembered.
    unknown_ = Folder();
    return &unknown_;
  } else {
    folder.gone = true;
  }
  return &group.folders.emplace(key, std::move(folder)).first->second;
}

bool FanotifyEventSource::openMount(Group& group) {
  if (group.mount) return true;
  if (group.mountTried) return false;
  group.mountTried = true;
  // Any watched subtree that still lies on the file system (a disk mounted
  // elsewhere since, or gone, leaves another file system at the path).
  for (const Subtree& subtree : group.subtrees) {
    FileDescriptor fd(::open(subtree.resolved.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat st {};
    if (fd && ::fstat(fd.get(), &st) == 0 && static_cast<uint64_t>(st.st_dev) == group.device) {
      group.mount = std::move(fd);
      return true;
    }
  }
  return false;
}

void FanotifyEventSource::decode(Group& group, const char* buffer, size_t length,
                                 std::vector<FileSystemEvent>* events) {
  // The descriptor made for this read's look-ups is closed after it.
  struct LetGo {
    Group& group;
    ~LetGo() {
      group.mount.reset();
      group.mountTried = false;
    }
  } letGo{group};
  constexpr uint64_t kKnown = kKnownMask;
  size_t offset = 0;
  std::string key;
  // Handles are copied into aligned storage before the kernel is given them.
  alignas(file_handle) char handleCopy[sizeof(file_handle) + MAX_HANDLE_SZ];
  auto undecodable = [&](int64_t raw) {
    FileSystemEvent event;
    event.kind = FileSystemEvent::Kind::Undecodable;
    event.rawType = raw;
    event.device = group.device;
    events->push_back(std::move(event));
  };
  while (offset + sizeof(fanotify_event_metadata) <= length) {
    fanotify_event_metadata meta;
    std::memcpy(&meta, buffer + offset, sizeof meta);
    if (meta.event_len < sizeof meta || offset + meta.event_len > length) return;
    const char* record = buffer + offset;
    offset += meta.event_len;
    ++recordsRead_;
    // Reports by handle carry no descriptor (FAN_NOFD); one that does is closed.
    if (meta.fd >= 0 && ownsEventDescriptors_) ::close(meta.fd);
    if (meta.vers != FANOTIFY_METADATA_VERSION) {
      undecodable(static_cast<int64_t>(meta.mask));
      return;
    }
    if (meta.mask & FAN_Q_OVERFLOW) {
      FileSystemEvent event;
      event.kind = FileSystemEvent::Kind::Dropped;
      event.device = group.device;
      events->push_back(std::move(event));
      continue;
    }
    // The engine's own work (its copies, its reads) is never a user's change.
    if (options_.ignoreOwnProcess && meta.pid == ownProcess_) {
      if ((meta.mask & FAN_RENAME) && (meta.mask & FAN_ONDIR)) group.folders.clear();
      continue;
    }
    if (meta.mask & ~kKnown) {
      undecodable(static_cast<int64_t>(meta.mask));
      return;
    }
    HandleRecord plain, from, to;
    bool bad = false;
    for (size_t at = meta.metadata_len; at + sizeof(fanotify_event_info_header) <= meta.event_len;) {
      fanotify_event_info_header header;
      std::memcpy(&header, record + at, sizeof header);
      if (header.len < sizeof header || at + header.len > meta.event_len) {
        bad = true;
        break;
      }
      const char* info = record + at;
      switch (header.info_type) {
        case FAN_EVENT_INFO_TYPE_DFID_NAME: bad = !parseHandleRecord(info, header.len, true, &plain); break;
        case FAN_EVENT_INFO_TYPE_DFID: bad = !parseHandleRecord(info, header.len, false, &plain); break;
        case FAN_EVENT_INFO_TYPE_OLD_DFID_NAME: bad = !parseHandleRecord(info, header.len, true, &from); break;
        case FAN_EVENT_INFO_TYPE_NEW_DFID_NAME: bad = !parseHandleRecord(info, header.len, true, &to); break;
        default: bad = true;
      }
      if (bad) break;
      at += header.len;
    }
    const bool rename = meta.mask & FAN_RENAME;
    if (bad || (rename ? !(from.present && to.present) : !plain.present)) {
      undecodable(static_cast<int64_t>(meta.mask));
      return;
    }
    auto folderOf = [&](const HandleRecord& r) {
      std::memcpy(handleCopy, r.handle, r.handleLength);
      key.assign(r.key);
      return folderFor(group, key, handleCopy);
    };
    // A change in a folder whose path cannot be read now (and that is not
    // gone) cannot be placed: it is told as lost, so that nothing relies on
    // having heard of every change.
    auto unplaceable = [&] {
      FileSystemEvent event;
      event.kind = FileSystemEvent::Kind::Dropped;
      event.device = group.device;
      events->push_back(std::move(event));
    };
    auto single = [&](FileSystemEvent::Kind kind, std::string path) {
      FileSystemEvent event;
      event.kind = kind;
      event.device = group.device;
      event.paths = {std::move(path)};
      events->push_back(std::move(event));
    };
    if (rename) {
      const Folder* oldFolder = folderOf(from);
      const bool oldInside = oldFolder->inside, oldKnown = oldFolder->known, oldGone = oldFolder->gone;
      const std::string oldPath = oldKnown ? joinPath(oldFolder->path, from.name) : std::string();
      const Folder* newFolder = folderOf(to);
      const bool isFolder = meta.mask & FAN_ONDIR;
      if ((!oldKnown && !oldGone) || (!newFolder->known && !newFolder->gone)) {
        unplaceable();
      } else if (oldKnown && newFolder->known) {
        if (oldInside || newFolder->inside) {
          FileSystemEvent event;
          event.kind = FileSystemEvent::Kind::Renamed;
          event.device = group.device;
          event.paths = {oldPath, joinPath(newFolder->path, to.name)};
          events->push_back(std::move(event));
        }
      } else if (newFolder->known && newFolder->inside) {
        // Moved out of a folder removed since: for what is watched, a creation.
        single(isFolder ? FileSystemEvent::Kind::CreatedFolder : FileSystemEvent::Kind::Created,
               joinPath(newFolder->path, to.name));
      } else if (oldKnown && oldInside) {
        // Moved into a folder removed since: for what is watched, a deletion.
        single(FileSystemEvent::Kind::Deleted, oldPath);
      }
      // A folder moved: every path below it changed.
      if (meta.mask & FAN_ONDIR) group.folders.clear();
      continue;
    }
    const Folder* folder = folderOf(plain);
    if (!folder->known && !folder->gone) {
      unplaceable();
      continue;
    }
    if (!folder->inside) continue;
    const std::string path = joinPath(folder->path, plain.name);
    const bool isFolder = meta.mask & FAN_ONDIR;
    auto add = [&](FileSystemEvent::Kind kind) {
      FileSystemEvent event;
      event.kind = kind;
      event.device = group.device;
      event.paths = {path};
      events->push_back(std::move(event));
    };
    // A merged event keeps no order of its own: it is told in the order things happen to a file.
    if (meta.mask & FAN_CREATE) add(isFolder ? FileSystemEvent::Kind::CreatedFolder : FileSystemEvent::Kind::Created);
    if (meta.mask & FAN_MODIFY) add(FileSystemEvent::Kind::Modified);
    if (meta.mask & FAN_ATTRIB) add(FileSystemEvent::Kind::AttributesChanged);
    if (meta.mask & FAN_CLOSE_WRITE) add(FileSystemEvent::Kind::ClosedAfterWrite);
    if (meta.mask & FAN_DELETE) add(FileSystemEvent::Kind::Deleted);
  }
}

}  // namespace platform
