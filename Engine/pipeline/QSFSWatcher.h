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
// output, watches the home folders given so far, and reads for ever: each
// event goes to the delegate (a dropped-events notice as
// fsWatcherDidDropEventsOnDevice and then a nullptr event); an event it
// cannot decode is logged as "This may be a program bug (type = N)." and
// ends the reader.
//
// Home folders: `watchHomeFolder` names the home of an admitted user; the
// reader reports only events at or below such homes.  A home whose file
// system cannot be watched is logged once ("Continuous backup is off for
// the home folder ...") with the reason; scheduled backups are not affected.
//
// Types: a file created 0, deleted 1, attributes changed 2, renamed 3 (old
// and new path), closed after writing 4, a folder created 7.
//
// Thread-safe.  The delegate is not owned and must outlive the reader (stop
// it first).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
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
  // The homes named so far.
  std::vector<std::string> homeFolders() const;

  // Ends the reader and answers whether it ended within `timeout` (engine
  // teardown, tests).  A stopped watcher does not start again.
  bool stop(std::chrono::milliseconds timeout);
  // Whether the reader thread is running now.
  bool isReading() const;

  // The reader's body.
  void run();

 private:
  void watch(const std::string& home);
  void deliver(platform::FileSystemEvent& event);

  const std::unique_ptr<platform::FileSystemEventSource> source_;
  const Process process_;
  std::atomic<QSFSWatcherDelegate*> delegate_{nullptr};
  bool didStart_ = false;
  bool opened_ = false;
  std::atomic<bool> reading_{false};
  std::vector<std::string> homes_;
  std::shared_ptr<platform::OVThread> thread_;
  mutable std::mutex lock_;
};
