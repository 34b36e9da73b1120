#include "Engine/pipeline/QSDestinationPrefetch.h"

#include <chrono>

#include "Engine/files/FSDestinationTraversal.h"
#include "Engine/files/QSBackupFolderWrites.h"
#include "Engine/files/QSWarmWalk.h"
#include "platform/Date.h"
#include "platform/FileManager.h"
#include "platform/OVThread.h"

struct QSDestinationPrefetch::State {
  std::string path;
  uint64_t epoch = 0;
  std::atomic<bool> cancelled{false};
  std::mutex lock;
  std::condition_variable ended;
  bool done = false;                        // under lock
  std::shared_ptr<QSRecordedWalk> recording;  // under lock, once done
};

QSDestinationPrefetch::QSDestinationPrefetch(std::shared_ptr<State> state) : state_(std::move(state)) {}

QSDestinationPrefetch::~QSDestinationPrefetch() { cancel(); }

void QSDestinationPrefetch::cancel() { state_->cancelled.store(true); }

std::shared_ptr<QSDestinationPrefetch::State> QSDestinationPrefetch::stateFor(const std::string& path) {
  auto state = std::make_shared<State>();
  state->path = path;
  // Taken before the walk reads anything: a write that ends after this
  // moves the count, and the recording is then not used.
  state->epoch = QSBackupFolderWrites::epoch();
  return state;
}

std::shared_ptr<QSDestinationPrefetch> QSDestinationPrefetch::start(const std::string& path) {
  auto state = stateFor(path);
  platform::OVThread::detachNewThread([state] { walk(state); }, "backup folder prefetch");
  return std::shared_ptr<QSDestinationPrefetch>(new QSDestinationPrefetch(std::move(state)));
}

std::shared_ptr<QSDestinationPrefetch> QSDestinationPrefetch::runHere(const std::string& path) {
  auto state = stateFor(path);
  walk(state);
  return std::shared_ptr<QSDestinationPrefetch>(new QSDestinationPrefetch(std::move(state)));
}

void QSDestinationPrefetch::walk(const std::shared_ptr<State>& state) {
  auto recording = std::make_shared<QSRecordedWalk>();
  const auto cache = QSCreationDateCache::forBackupFolder(state->path);
  recording->reserveForCopies(cache->count());
  FSDestinationTraversal traversal(&state->cancelled);
  traversal.setCreationDateCache(cache);
  QSWarmWalk warm(traversal, state->path, platform::Date::now().timeIntervalSince1970());
  traversal.recurseAtDestinationPath_withVisitor(state->path, *recording);
  const bool stopped = state->cancelled.load();
  recording->setJournalMark(warm.mark());
  {
    std::lock_guard<std::mutex> lock(state->lock);
    state->done = true;
    if (!stopped) state->recording = std::move(recording);
  }
  state->ended.notify_all();
  // Kept and written once the second stage may go on.
  warm.finish();
  cache->keep();
}

std::shared_ptr<const QSRecordedWalk> QSDestinationPrefetch::take(const std::string& path,
                                                                  const std::atomic<bool>* stop, std::string* why) {
  auto refuse = [&](const char* reason) -> std::shared_ptr<const QSRecordedWalk> {
    if (why) *why = reason;
    return nullptr;
  };
  if (path != state_->path) return refuse("another backup folder");
  std::shared_ptr<QSRecordedWalk> recording;
  {
    std::unique_lock<std::mutex> lock(state_->lock);
    while (true) {
      if (stop && stop->load()) {
        lock.unlock();
        cancel();
        return refuse("stopped");
      }
      if (state_->cancelled.load()) return refuse("cancelled");
      if (state_->done) break;
      state_->ended.wait_for(lock, std::chrono::milliseconds(20));
    }
    recording = std::move(state_->recording);
  }
  if (!recording || !recording->isComplete()) return refuse("incomplete");
  if (QSBackupFolderWrites::epoch() != state_->epoch) return refuse("written since");
  const platform::FileAttributes* top = recording->topAttributes();
  platform::FileAttributes now;
  if (!top || !platform::FileManager::attributesAtPath(path, &now) || now.device != top->device ||
      now.inode != top->inode)
    return refuse("not the same folder");
  return recording;
}
