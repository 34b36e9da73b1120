// The walk of a backup folder made ahead of time.  The first stage starts
// one for each backup it is about to count the home folder for, on a
// thread of its own, so that the backup folder's kernel work overlaps the
// home folder's; the second stage then plays the recording to its visitor
// instead of walking the folder itself.  What the second stage sees is
// what its own walk would have seen, read earlier: the recording is used
// only when it is complete, of the same folder (same path, device and
// inode), and the engine wrote to no backup folder from the moment it
// began (QSBackupFolderWrites); otherwise the second stage walks as ever.
//
// The walk keeps and renews the folder's creation-date cache, and is warm
// when it can be (QSWarmWalk).  Dropping the
// prefetch stops its walk at the next item.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "Engine/files/QSRecordedWalk.h"

class QSDestinationPrefetch {
 public:
  // Starts the walk of the backup folder at `path` on a new thread.
  static std::shared_ptr<QSDestinationPrefetch> start(const std::string& path);
  // The same, walked on the calling thread (for tests).
  static std::shared_ptr<QSDestinationPrefetch> runHere(const std::string& path);

  ~QSDestinationPrefetch();
  QSDestinationPrefetch(const QSDestinationPrefetch&) = delete;
  QSDestinationPrefetch& operator=(const QSDestinationPrefetch&) = delete;

  // Stops the walk; its recording will not be served.
  void cancel();

  // Waits for the walk to end, or for `stop` to be set, and answers the
  // recording when it may stand for a walk of `path` made now; nothing
  // otherwise.  `why` (when given) says why not.
  std::shared_ptr<const QSRecordedWalk> take(const std::string& path, const std::atomic<bool>* stop,
                                             std::string* why = nullptr);

 private:
  struct State;
  explicit QSDestinationPrefetch(std::shared_ptr<State> state);
  static std::shared_ptr<State> stateFor(const std::string& path);
  static void walk(const std::shared_ptr<State>& state);

  std::shared_ptr<State> state_;
};
