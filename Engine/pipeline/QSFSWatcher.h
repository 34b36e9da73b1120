// The file-system watcher of continuous backup: one reader thread that
// turns the system's change events into QSFSWatcherEvents and hands each to
// its delegate (the server), which distributes them to the backups.
//
// The process has one watcher (`instance`, on the system's event source);
// tests make their own on a fake source.  `start` starts the reader at most
// once.  The reader first checks that the process runs as root: otherwise it
// writes "You must be root to run this application. Try again using
// 'sudo'.\n" to standard error and ends.  When the source cannot be opened
// it writes "open: <reason>\n" to standard error and ends.  Otherwise it
// prints "fsevents device cloned (fd N)\ngamuliob ready\n" to standard
// output, watches the folders given so far, and reads for ever: each
// event goes to the delegate, first as it is (fsWatcherDidSeeChange), then,
// unless it is a write to a file that may still be open, as a
// QSFSWatcherEvent (handleFSEvent); a dropped-events notice goes as
// fsWatcherDidDropEventsOnDevice and then a nullptr event; an event it
// cannot decode is logged as "This may be a program bug (type = N)." and
// ends the reader.
//
// Folders: `watchHomeFolder` names the home of an admitted user,
// `watchFolder` any other folder whose changes matter (a backup folder on a
// disk); the reader reports only events at or below such folders.  A folder
// whose file system cannot be watched is logged once ("Continuous backup is
// off for the home folder ..." for a home) with the reason; scheduled
// backups are not affected.  `unwatchFolder` ends the watching of a folder
// (a disk that went away): no event below it is delivered after it returns,
// unless another watched folder holds it.
//
// `synchronize` is a barrier: once it answers true, every change the system
// had queued for the watcher before the call has been handed to the
// delegate, and the delegate's calls for it have returned.
//
// Types: a file created 0, deleted 1, attributes changed 2, renamed 3 (old
// and new path), closed after writing 4, a folder created 7.
//
// Thread-safe.  The delegate is not owned and must outlive the reader (stop
// it first).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Engine/pipeline/QSFSWatcherDelegate.h"
#include "Engine/pipeline/QSFSWatcherEvent.h"
#include "platform/FileSystemEventSource.h"
#include "platform/OVThread.h"
#include "platform/Object.h"

class QSFSWatcher : public platform::Object {
 public:
  // How the reader writes to the standard streams and asks who it runs as (tests replace them).
  struct Process {
    std::function<uint32_t()> effectiveUID;
    std::function<void(const std::string&)> writeStandardOutput;
    std::function<void(const std::string&)> writeStandardError;
    static Process current();
  };

  // The one watcher of the process, on the system's event source; made on
  // first use and never freed.
  static std::shared_ptr<QSFSWatcher> instance();
  // A watcher of its own on `source` (tests).
  static std::shared_ptr<QSFSWatcher> initWithSource(std::unique_ptr<platform::FileSystemEventSource> source,
                                                     Process process = Process::current());

  struct Passkey {
    explicit Passkey() = default;
  };
  QSFSWatcher(Passkey, std::unique_ptr<platform::FileSystemEventSource> source, Process process);
  ~QSFSWatcher() override;

  void setDelegate(QSFSWatcherDelegate* delegate) { delegate_.store(delegate); }
  QSFSWatcherDelegate* delegate() const { return delegate_.load(); }

  // Starts the reader thread unless it was started before.
  void start();
  bool didStart() const;
  // Watches `home` (once per folder): now when the reader runs, else when it starts.
  void watchHomeFolder(const std::string& home);
  // The homes named so far (and not unwatched).
  std::vector<std::string> homeFolders() const;
  // Watches `folder` as watchHomeFolder does a home, without making it a home.
  void watchFolder(const std::string& folder);
  // Stops watching `folder` (a home or another folder), named as it was
  // given: events at or below it are no longer delivered, unless they lie in
  // a folder still watched.  A folder on a disk that was unmounted may be
  // unwatched (its mark went with its file system).
  void unwatchFolder(const std::string& folder);
  // Whether the changes of `folder` (as it was given) are being reported:
  // the reader runs and the system accepted the folder.
  bool isWatching(const std::string& folder) const;

  // Waits until every change the system queued for this watcher before the
  // call has been delivered to the delegate (its calls returned), and
  // answers true; false when the reader is not running (never started, not
  // root, the source could not be opened, it was closed or stopped, or it
  // ended on an undecodable event) or `timeout` passed first.  Any thread
  // but the reader's own (there it answers false at once: the reader would
  // wait for itself); several callers at once are fine.
  bool synchronize(std::chrono::milliseconds timeout);

  // Ends the reader and answers whether it ended within `timeout` (engine
  // teardown, tests).  A stopped watcher does not start again.
  bool stop(std::chrono::milliseconds timeout);
  // Whether the reader thread is running now.
  bool isReading() const;

  // The reader's body.
  void run();

 private:
  void addFolder(std::vector<std::string>* list, const std::string& folder);
  void watch(const std::string& folder, bool isHome);
  void deliver(platform::FileSystemEvent& event);
  // Whether every path of `event` lies below an unwatched folder (and none in a watched one).
  bool isUnwatched(const platform::FileSystemEvent& event) const;
  void readerDidEnd();

  const std::unique_ptr<platform::FileSystemEventSource> source_;
  const Process process_;
  std::atomic<QSFSWatcherDelegate*> delegate_{nullptr};
  bool didStart_ = false;
  bool opened_ = false;
  std::atomic<bool> reading_{false};
  std::vector<std::string> homes_;
  std::vector<std::string> folders_;    // watched, but not homes
  std::vector<std::string> accepted_;   // the folders the source took
  std::vector<std::string> unwatched_;  // unwatched and not watched again
  std::atomic<bool> anyUnwatched_{false};
  std::shared_ptr<platform::OVThread> thread_;
  mutable std::mutex lock_;

  // The barrier: the drain ticket whose events have all been delivered.
  std::mutex syncLock_;
  std::condition_variable synced_;
  uint64_t delivered_ = 0;
  bool stopping_ = false;
  std::atomic<std::thread::id> readerThread_{};
};
