#include "Engine/pipeline/QSFSWatcher.h"

#include "platform/FanotifyEventSource.h"
#include "platform/Format.h"
#include "platform/Log.h"
#include "platform/Process.h"

namespace {

int32_t typeOf(platform::FileSystemEvent::Kind kind) {
  using Kind = platform::FileSystemEvent::Kind;
  switch (kind) {
    case Kind::Created: return FSE_CREATE_FILE;
    case Kind::CreatedFolder: return FSE_CREATE_DIR;
    case Kind::Deleted: return FSE_DELETE;
    case Kind::AttributesChanged: return FSE_STAT_CHANGED;
    case Kind::Renamed: return FSE_RENAME;
    case Kind::ClosedAfterWrite: return FSE_CONTENT_MODIFIED;
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

void QSFSWatcher::watchHomeFolder(const std::string& home) {
  if (home.empty()) return;
  {
    std::lock_guard<std::mutex> lock(lock_);
    for (const auto& known : homes_)
      if (known == home) return;
    homes_.push_back(home);
    if (!opened_) return;  // the reader watches it when it starts
  }
  watch(home);
}

void QSFSWatcher::watch(const std::string& home) {
  std::string why;
  if (!source_->watchFolder(home, &why))
    platform::Log::format(
        "Continuous backup is off for the home folder %s: its changes cannot be watched (%s); scheduled backups go on",
        home.c_str(), why.c_str());
}

bool QSFSWatcher::stop(std::chrono::milliseconds timeout) {
  std::shared_ptr<platform::OVThread> thread;
  {
    std::lock_guard<std::mutex> lock(lock_);
    didStart_ = true;  // never starts after this
    thread = thread_;
  }
  source_->close();
  return !thread || thread->waitUntilFinished(timeout);
}

void QSFSWatcher::run() {
  struct Done {
    std::atomic<bool>& reading;
    ~Done() { reading.store(false); }
  } done{reading_};
  if (process_.effectiveUID() != 0) {
    process_.writeStandardError("You must be root to run this application. Try again using 'sudo'.\n");
    return;
  }
  std::string error;
  if (!source_->open(&error)) {
    process_.writeStandardError("open: " + error + "\n");
    return;
  }
  std::vector<std::string> homes;
  {
    std::lock_guard<std::mutex> lock(lock_);
    opened_ = true;
    homes = homes_;
  }
  for (const auto& home : homes) watch(home);
  // Ready once the homes named so far are watched.
  process_.writeStandardOutput(
      platform::format("fsevents device cloned (fd %d)\ngamuliob ready\n", source_->descriptor()));

  std::vector<platform::FileSystemEvent> events;
  while (source_->readEvents(&events)) {
    for (auto& event : events) {
      if (event.kind == platform::FileSystemEvent::Kind::Undecodable) {
        platform::Log::format("This may be a program bug (type = %d).", static_cast<int>(event.rawType));
        source_->close();
        return;
      }
      deliver(event);
    }
    events.clear();
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
  auto watcherEvent = QSFSWatcherEvent::initWithType(typeOf(event.kind));
  for (auto& path : event.paths) watcherEvent->addArgument(std::move(path));
  if (delegate) delegate->handleFSEvent(watcherEvent);
}
