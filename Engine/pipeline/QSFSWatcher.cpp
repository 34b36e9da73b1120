#include "Engine/pipeline/QSFSWatcher.h"

#include <algorithm>

#include "platform/FanotifyEventSource.h"
#include "platform/Format.h"
#include "platform/Log.h"
#include "platform/Path.h"
#include "platform/Process.h"

namespace {

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

void remove(std::vector<std::string>* list, const std::string& item) {
  list->erase(std::remove(list->begin(), list->end(), item), list->end());
}

int32_t typeOf(platform::FileSystemEvent::Kind kind) {
  using Kind = platform::FileSystemEvent::Kind;
  switch (kind) {
    case Kind::Created: return FSE_CREATE_FILE;
    case Kind::CreatedFolder: return FSE_CREATE_DIR;
    case Kind::Deleted: return FSE_DELETE;
    case Kind::AttributesChanged: return FSE_STAT_CHANGED;
    case Kind::Renamed: return FSE_RENAME;
    case Kind::ClosedAfterWrite: return FSE_CONTENT_MODIFIED;
    case Kind::Modified:  // never made into a QSFSWatcherEvent
    case Kind::Dropped:
    case Kind::Undecodable: break;
  }
  return -1;
}

}  // namespace

QSFSWatcher::Process QSFSWatcher::Process::current() {
  return {[] { return platform::Process::effectiveUID(); },
          [](const std::string& text) { platform::Log::writeStandardOutput(text); },
          [](const std::string& text) { platform::Log::writeStandardError(text); }};
}

std::shared_ptr<QSFSWatcher> QSFSWatcher::instance() {
  // Made once and never freed: its thread may read until the process ends.
  static std::shared_ptr<QSFSWatcher>& watcher =
      *new std::shared_ptr<QSFSWatcher>(initWithSource(std::make_unique<platform::FanotifyEventSource>()));
  return watcher;
}

std::shared_ptr<QSFSWatcher> QSFSWatcher::initWithSource(std::unique_ptr<platform::FileSystemEventSource> source,
                                                         Process process) {
  return std::make_shared<QSFSWatcher>(Passkey(), std::move(source), std::move(process));
}

QSFSWatcher::QSFSWatcher(Passkey, std::unique_ptr<platform::FileSystemEventSource> source, Process process)
    : source_(std::move(source)), process_(std::move(process)) {}

QSFSWatcher::~QSFSWatcher() = default;

void QSFSWatcher::start() {
  std::lock_guard<std::mutex> lock(lock_);
  if (didStart_) return;
  didStart_ = true;
  reading_.store(true);
  thread_ = platform::OVThread::detachNewThread([self = self<QSFSWatcher>()] { self->run(); }, "fs watcher");
}

bool QSFSWatcher::didStart() const {
  std::lock_guard<std::mutex> lock(lock_);
  return didStart_;
}

bool QSFSWatcher::isReading() const { return reading_.load(); }

std::vector<std::string> QSFSWatcher::homeFolders() const {
  std::lock_guard<std::mutex> lock(lock_);
  return homes_;
}

void QSFSWatcher::watchHomeFolder(const std::string& home) { addFolder(&homes_, home); }

void QSFSWatcher::watchFolder(const std::string& folder) { addFolder(&folders_, folder); }

void QSFSWatcher::addFolder(std::vector<std::string>* list, const std::string& folder) {
  if (folder.empty()) return;
  {
    std::lock_guard<std::mutex> lock(lock_);
    if (contains(*list, folder)) return;
    list->push_back(folder);
    remove(&unwatched_, folder);
    anyUnwatched_.store(!unwatched_.empty());
    if (!opened_) return;  // the reader watches it when it starts
  }
  watch(folder, list == &homes_);
}

void QSFSWatcher::watch(const std::string& folder, bool isHome) {
  std::string why;
  if (source_->watchFolder(folder, &why)) {
    std::lock_guard<std::mutex> lock(lock_);
    // Still wanted (an unwatchFolder may have come meanwhile).
    if ((contains(homes_, folder) || contains(folders_, folder)) && !contains(accepted_, folder))
      accepted_.push_back(folder);
    return;
  }
  if (isHome)
    platform::Log::format(
        "Continuous backup is off for the home folder %s: its changes cannot be watched (%s); scheduled backups go on",
        folder.c_str(), why.c_str());
  else
    platform::Log::format("The changes in %s cannot be watched (%s)", folder.c_str(), why.c_str());
}

void QSFSWatcher::unwatchFolder(const std::string& folder) {
  bool tellSource = false;
  {
    std::lock_guard<std::mutex> lock(lock_);
    const bool known = contains(homes_, folder) || contains(folders_, folder);
    remove(&homes_, folder);
    remove(&folders_, folder);
    remove(&accepted_, folder);
    if (!known) return;
    if (!contains(unwatched_, folder)) unwatched_.push_back(folder);
    anyUnwatched_.store(true);
    tellSource = opened_;
  }
  if (tellSource) source_->unwatchFolder(folder);
}

bool QSFSWatcher::isWatching(const std::string& folder) const {
  std::lock_guard<std::mutex> lock(lock_);
  return reading_.load() && contains(accepted_, folder);
}

bool QSFSWatcher::isUnwatched(const platform::FileSystemEvent& event) const {
  if (!anyUnwatched_.load() || event.paths.empty()) return false;
  std::lock_guard<std::mutex> lock(lock_);
  for (const std::string& path : event.paths) {
    auto below = [&](const std::string& folder) { return platform::isAtOrBelow(path, folder); };
    const bool unwatched = std::any_of(unwatched_.begin(), unwatched_.end(), below);
    const bool watched = std::any_of(homes_.begin(), homes_.end(), below) ||
                         std::any_of(folders_.begin(), folders_.end(), below);
    if (!unwatched || watched) return false;  // this path still matters
  }
  return true;
}

bool QSFSWatcher::synchronize(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  if (readerThread_.load() == std::this_thread::get_id()) return false;
  {
    std::lock_guard<std::mutex> lock(syncLock_);
    if (!reading_.load() || stopping_) return false;
  }
  const uint64_t ticket = source_->requestDrain();
  std::unique_lock<std::mutex> lock(syncLock_);
  synced_.wait_until(lock, deadline, [&] { return delivered_ >= ticket || !reading_.load() || stopping_; });
  return delivered_ >= ticket;
}

bool QSFSWatcher::stop(std::chrono::milliseconds timeout) {
  std::shared_ptr<platform::OVThread> thread;
  {
    std::lock_guard<std::mutex> lock(lock_);
    didStart_ = true;  // never starts after this
    thread = thread_;
  }
  {
    std::lock_guard<std::mutex> lock(syncLock_);
    stopping_ = true;
  }
  synced_.notify_all();
  source_->close();
  return !thread || thread->waitUntilFinished(timeout);
}

void QSFSWatcher::readerDidEnd() {
  {
    std::lock_guard<std::mutex> lock(syncLock_);
    reading_.store(false);
  }
  synced_.notify_all();
}

void QSFSWatcher::run() {
  struct Done {
    QSFSWatcher& watcher;
    ~Done() { watcher.readerDidEnd(); }
  } done{*this};
  readerThread_.store(std::this_thread::get_id());
  if (process_.effectiveUID() != 0) {
    process_.writeStandardError("You must be root to run this application. Try again using 'sudo'.\n");
    return;
  }
  std::string error;
  if (!source_->open(&error)) {
    process_.writeStandardError("open: " + error + "\n");
    return;
  }
  std::vector<std::pair<std::string, bool>> folders;
  {
    std::lock_guard<std::mutex> lock(lock_);
    opened_ = true;
    for (const auto& home : homes_) folders.emplace_back(home, true);
    for (const auto& folder : folders_) folders.emplace_back(folder, false);
  }
  for (const auto& [folder, isHome] : folders) watch(folder, isHome);
  // Ready once the folders named so far are watched.
  process_.writeStandardOutput(
      platform::format("fsevents device cloned (fd %d)\ngamuliob ready\n", source_->descriptor()));

  std::vector<platform::FileSystemEvent> events;
  while (source_->readEvents(&events)) {
    // What this read drained up to: its events are delivered below.
    const uint64_t drained = source_->drained();
    for (auto& event : events) {
      if (event.kind == platform::FileSystemEvent::Kind::Undecodable) {
        platform::Log::format("This may be a program bug (type = %d).", static_cast<int>(event.rawType));
        source_->close();
        return;
      }
      deliver(event);
    }
    events.clear();
    {
      std::lock_guard<std::mutex> lock(syncLock_);
      if (drained <= delivered_) continue;
      delivered_ = drained;
    }
    synced_.notify_all();
  }
}

void QSFSWatcher::deliver(platform::FileSystemEvent& event) {
  QSFSWatcherDelegate* const delegate = delegate_.load();
  if (event.kind == platform::FileSystemEvent::Kind::Dropped) {
    if (delegate) {
      delegate->fsWatcherDidDropEventsOnDevice(event.device);
      delegate->handleFSEvent(nullptr);
    }
    return;
  }
  if (isUnwatched(event)) return;
  if (!delegate) return;
  delegate->fsWatcherDidSeeChange(event);
  // A file being written is copied once it is closed.
  if (event.kind == platform::FileSystemEvent::Kind::Modified) return;
  auto watcherEvent = QSFSWatcherEvent::initWithType(typeOf(event.kind));
  for (auto& path : event.paths) watcherEvent->addArgument(std::move(path));
  delegate->handleFSEvent(watcherEvent);
}
