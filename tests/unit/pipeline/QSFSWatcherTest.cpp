#include "Engine/pipeline/QSFSWatcher.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "platform/FakeFileSystemEventSource.h"
#include "platform/Log.h"
#include "tests/support/Eventually.h"

namespace {

using platform::FileSystemEvent;
using Kind = platform::FileSystemEvent::Kind;

const char* kindName(Kind kind) {
  static const char* const names[] = {"created", "created-folder", "deleted", "attributes", "renamed",
                                      "closed-after-write", "modified", "dropped", "undecodable"};
  return names[static_cast<int>(kind)];
}

// What the delegate heard: each event's description ("nil" for the
// dropped-events event) and the devices named as having dropped events; and,
// in `calls`, both the changes seen and the events handled, in order.
class RecordingDelegate : public QSFSWatcherDelegate {
 public:
  void fsWatcherDidSeeChange(const FileSystemEvent& event) override {
    std::string line = std::string("seen ") + kindName(event.kind);
    for (const auto& path : event.paths) line += " " + path;
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(line);
  }
  void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!event) {
      heard_.push_back("nil");
      calls_.push_back("handled nil");
      return;
    }
    std::string line = std::to_string(event->type());
    for (const auto& path : event->arguments()) line += " " + path;
    heard_.push_back(line);
    calls_.push_back("handled " + line);
  }
  void fsWatcherDidDropEventsOnDevice(uint64_t device) override {
    std::lock_guard<std::mutex> lock(mutex_);
    heard_.push_back("dropped " + std::to_string(device));
  }
  std::vector<std::string> heard() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }
  std::vector<std::string> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> heard_;
  std::vector<std::string> calls_;
};

FileSystemEvent event(Kind kind, std::vector<std::string> paths, uint64_t device = 7) {
  FileSystemEvent e;
  e.kind = kind;
  e.paths = std::move(paths);
  e.device = device;
  return e;
}

class QSFSWatcherTest : public ::testing::Test {
 protected:
  QSFSWatcherTest() {
    auto fake = std::make_unique<platform::FakeFileSystemEventSource>();
    source = fake.get();
    QSFSWatcher::Process process;
    process.effectiveUID = [this] { return uid; };
    process.writeStandardOutput = [this](const std::string& text) { write(&out, text); };
    process.writeStandardError = [this](const std::string& text) { write(&err, text); };
    watcher = QSFSWatcher::initWithSource(std::move(fake), process);
    watcher->setDelegate(&delegate);
  }
  ~QSFSWatcherTest() override { EXPECT_TRUE(watcher->stop(std::chrono::seconds(5))); }

  void write(std::string* stream, const std::string& text) {
    std::lock_guard<std::mutex> lock(streamsMutex);
    *stream += text;
  }
  std::string standardOutput() {
    std::lock_guard<std::mutex> lock(streamsMutex);
    return out;
  }
  std::string standardError() {
    std::lock_guard<std::mutex> lock(streamsMutex);
    return err;
  }
  // Starts the reader and waits until it is reading.
  void startReading() {
    watcher->start();
    ASSERT_TRUE(skerrow_test::eventually([&] { return standardOutput().find("gamuliob ready") != std::string::npos; }));
  }

  uint32_t uid = 0;
  std::mutex streamsMutex;
  std::string out, err;
  platform::FakeFileSystemEventSource* source = nullptr;
  RecordingDelegate delegate;
  std::shared_ptr<QSFSWatcher> watcher;
};

}  // namespace

TEST_F(QSFSWatcherTest, StartStartsTheReaderAtMostOnce) {
  EXPECT_FALSE(watcher->didStart());
  startReading();
  watcher->start();
  watcher->start();
  EXPECT_TRUE(watcher->didStart());
  EXPECT_EQ(standardOutput(), "fsevents device cloned (fd 42)\ngamuliob ready\n");
}

TEST_F(QSFSWatcherTest, TheOneWatcherOfTheProcessIsAlwaysTheSame) {
  EXPECT_EQ(QSFSWatcher::instance(), QSFSWatcher::instance());
  EXPECT_FALSE(QSFSWatcher::instance()->didStart());  // nothing starts it but the server
}

TEST_F(QSFSWatcherTest, WhenNotRunAsRootTheReaderWritesTheRootMessageToStandardErrorAndEnds) {
  uid = 1000;
  watcher->start();
  ASSERT_TRUE(skerrow_test::eventually([&] { return !watcher->isReading(); }));
  EXPECT_EQ(standardError(), "You must be root to run this application. Try again using 'sudo'.\n");
  EXPECT_EQ(standardOutput(), "");
  EXPECT_FALSE(source->isOpen());
}

TEST_F(QSFSWatcherTest, ASourceThatCannotBeOpenedIsReportedWithThePrefixOpenAndEndsTheReader) {
  source->failOpen("Operation not permitted");
  watcher->start();
  ASSERT_TRUE(skerrow_test::eventually([&] { return !watcher->isReading(); }));
  EXPECT_EQ(standardError(), "open: Operation not permitted\n");
}

TEST_F(QSFSWatcherTest, EventsReachTheDelegateWithTheirTypesAndPathsInOrder) {
  startReading();
  source->push({event(Kind::Created, {"/h/ann/a"}), event(Kind::CreatedFolder, {"/h/ann/d"}),
                event(Kind::AttributesChanged, {"/h/ann/a"}), event(Kind::ClosedAfterWrite, {"/h/ann/a"}),
                event(Kind::Renamed, {"/h/ann/a", "/h/ann/d/b"}), event(Kind::Deleted, {"/h/ann/d/b"})});
  ASSERT_TRUE(skerrow_test::eventually([&] { return delegate.heard().size() == 6; }));
  EXPECT_EQ(delegate.heard(), (std::vector<std::string>{"0 /h/ann/a", "7 /h/ann/d", "2 /h/ann/a", "4 /h/ann/a",
                                                        "3 /h/ann/a /h/ann/d/b", "1 /h/ann/d/b"}));
}

TEST_F(QSFSWatcherTest, DroppedEventsBecomeANilEventAfterTheFileSystemIsNamed) {
  startReading();
  FileSystemEvent dropped;
  dropped.kind = Kind::Dropped;
  dropped.device = 2049;
  source->push({dropped, event(Kind::ClosedAfterWrite, {"/h/ann/a"})});
  ASSERT_TRUE(skerrow_test::eventually([&] { return delegate.heard().size() == 3; }));
  EXPECT_EQ(delegate.heard(), (std::vector<std::string>{"dropped 2049", "nil", "4 /h/ann/a"}));
}

TEST_F(QSFSWatcherTest, ARecordWithATypeAbove10EndsTheReaderThreadAfterTheMessage) {
  platform::LogCapture log;
  startReading();
  FileSystemEvent strange;
  strange.kind = Kind::Undecodable;
  strange.rawType = 4096;
  source->push({event(Kind::ClosedAfterWrite, {"/h/ann/a"}), strange, event(Kind::ClosedAfterWrite, {"/h/ann/b"})});
  ASSERT_TRUE(skerrow_test::eventually([&] { return !watcher->isReading(); }));
  EXPECT_EQ(log.count("This may be a program bug (type = 4096)."), 1u);
  // The event before it was delivered; nothing after it.
  EXPECT_EQ(delegate.heard(), (std::vector<std::string>{"4 /h/ann/a"}));
  EXPECT_TRUE(source->isClosed());
  source->push(event(Kind::ClosedAfterWrite, {"/h/ann/c"}));
  EXPECT_EQ(delegate.heard().size(), 1u);
}

TEST_F(QSFSWatcherTest, HomesNamedBeforeTheStartAreWatchedWhenTheReaderOpensAndLaterOnesAtOnce) {
  watcher->watchHomeFolder("/h/ann");
  watcher->watchHomeFolder("/h/ann");
  EXPECT_TRUE(source->watchedFolders().empty());
  startReading();
  EXPECT_EQ(source->watchedFolders(), (std::vector<std::string>{"/h/ann"}));
  watcher->watchHomeFolder("/h/bob");
  EXPECT_EQ(source->watchedFolders(), (std::vector<std::string>{"/h/ann", "/h/bob"}));
  EXPECT_EQ(watcher->homeFolders(), (std::vector<std::string>{"/h/ann", "/h/bob"}));
}

TEST_F(QSFSWatcherTest, AHomeWhoseFileSystemCannotBeWatchedIsLoggedOnceWithTheReason) {
  platform::LogCapture log;
  source->refuseFolder("/fuse/carl", "fanotify cannot mark its file system: No such device");
  startReading();
  watcher->watchHomeFolder("/fuse/carl");
  watcher->watchHomeFolder("/fuse/carl");
  EXPECT_EQ(log.count("Continuous backup is off for the home folder /fuse/carl: its changes cannot be watched "
                      "(fanotify cannot mark its file system: No such device); scheduled backups go on"),
            1u);
}

TEST_F(QSFSWatcherTest, StopEndsTheReaderAndItNeverStartsAgain) {
  startReading();
  EXPECT_TRUE(watcher->stop(std::chrono::seconds(5)));
  EXPECT_FALSE(watcher->isReading());
  watcher->start();
  EXPECT_FALSE(watcher->isReading());
}

TEST(QSFSWatcherEventTest, DescriptionNamesTheObjectTheTypeAndThePath) {
  auto e = QSFSWatcherEvent::initWithType(FSE_RENAME);
  e->addArgument("/h/ann/a");
  e->addArgument("/h/ann/b");
  const std::string text = e->description();
  EXPECT_EQ(text.rfind("<<QSFSWatcherEvent: 0x", 0), 0u) << text;
  EXPECT_NE(text.find(">>, type: FSE_RENAME, path: /h/ann/a"), std::string::npos) << text;
  EXPECT_NE(QSFSWatcherEvent::initWithType(FSE_CONTENT_MODIFIED)->description().find("type: FSE_CONTENT_MODIFIED, path: (null)"),
            std::string::npos);
  EXPECT_STREQ(kfseNames[0], "FSE_CREATE_FILE");
  EXPECT_STREQ(kfseNames[10], "FSE_XATTR_REMOVED");
}

// --- Every change, and the barrier ---

TEST_F(QSFSWatcherTest, AWriteReachesOnlyTheCallForEveryChangeAndNeverTheRealtimeCopyPath) {
  startReading();
  source->push(event(Kind::Modified, {"/h/ann/log.txt"}));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(delegate.calls(), (std::vector<std::string>{"seen modified /h/ann/log.txt"}));
  EXPECT_TRUE(delegate.heard().empty());
}

TEST_F(QSFSWatcherTest, EveryOtherKindReachesBothCallsTheCallForEveryChangeFirst) {
  startReading();
  source->push({event(Kind::Created, {"/h/ann/a"}), event(Kind::CreatedFolder, {"/h/ann/d"}),
                event(Kind::AttributesChanged, {"/h/ann/a"}), event(Kind::ClosedAfterWrite, {"/h/ann/a"}),
                event(Kind::Renamed, {"/h/ann/a", "/h/ann/d/b"}), event(Kind::Deleted, {"/h/ann/d/b"})});
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(delegate.calls(),
            (std::vector<std::string>{"seen created /h/ann/a", "handled 0 /h/ann/a", "seen created-folder /h/ann/d",
                                      "handled 7 /h/ann/d", "seen attributes /h/ann/a", "handled 2 /h/ann/a",
                                      "seen closed-after-write /h/ann/a", "handled 4 /h/ann/a",
                                      "seen renamed /h/ann/a /h/ann/d/b", "handled 3 /h/ann/a /h/ann/d/b",
                                      "seen deleted /h/ann/d/b", "handled 1 /h/ann/d/b"}));
}

TEST_F(QSFSWatcherTest, DroppedEventsAreNotAChangeSeen) {
  startReading();
  FileSystemEvent dropped;
  dropped.kind = Kind::Dropped;
  dropped.device = 2049;
  source->push(dropped);
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(delegate.calls(), (std::vector<std::string>{"handled nil"}));
  EXPECT_EQ(delegate.heard(), (std::vector<std::string>{"dropped 2049", "nil"}));
}

TEST_F(QSFSWatcherTest, SynchronizeWaitsForAHeldBackBatchAndAnswersTrueOnceItWasDelivered) {
  startReading();
  source->holdBatches();
  source->push({event(Kind::Modified, {"/h/ann/db"}), event(Kind::Created, {"/h/ann/new"})});
  // What the delegate had heard at the moment synchronize answered.
  auto answer = std::async(std::launch::async, [&] {
    const bool synchronized = watcher->synchronize(std::chrono::seconds(30));
    return std::make_pair(synchronized, delegate.calls());
  });
  ASSERT_TRUE(skerrow_test::eventually([&] { return source->drainsRequested() == 1; }));
  EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  EXPECT_TRUE(delegate.calls().empty());
  source->releaseBatches();
  const auto [synchronized, calls] = answer.get();
  EXPECT_TRUE(synchronized);
  EXPECT_EQ(calls, (std::vector<std::string>{"seen modified /h/ann/db", "seen created /h/ann/new",
                                             "handled 0 /h/ann/new"}));
}

TEST_F(QSFSWatcherTest, SynchronizeWithNothingQueuedAnswersTrue) {
  startReading();
  EXPECT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(source->drainsRequested(), 2u);
}

TEST_F(QSFSWatcherTest, SynchronizeAnswersFalseWhenTheTimeRunsOut) {
  startReading();
  source->holdBatches();
  source->push(event(Kind::Created, {"/h/ann/a"}));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(watcher->synchronize(std::chrono::milliseconds(50)));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(50));
  source->releaseBatches();
  EXPECT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(delegate.heard(), (std::vector<std::string>{"0 /h/ann/a"}));
}

TEST_F(QSFSWatcherTest, SynchronizeAnswersFalseBeforeTheStart) {
  EXPECT_FALSE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(source->drainsRequested(), 0u);
}

TEST_F(QSFSWatcherTest, SynchronizeAnswersFalseWhenNotRunAsRoot) {
  uid = 1000;
  watcher->start();
  EXPECT_FALSE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_FALSE(watcher->isReading());
}

TEST_F(QSFSWatcherTest, SynchronizeAnswersFalseWhenTheSourceCouldNotBeOpened) {
  source->failOpen("Operation not permitted");
  watcher->start();
  EXPECT_FALSE(watcher->synchronize(std::chrono::seconds(10)));
}

TEST_F(QSFSWatcherTest, SynchronizeAnswersFalseAfterStop) {
  startReading();
  ASSERT_TRUE(watcher->stop(std::chrono::seconds(5)));
  EXPECT_FALSE(watcher->synchronize(std::chrono::seconds(10)));
}

TEST_F(QSFSWatcherTest, SynchronizeAnswersFalseAfterTheSourceWasClosed) {
  startReading();
  source->close();
  ASSERT_TRUE(skerrow_test::eventually([&] { return !watcher->isReading(); }));
  EXPECT_FALSE(watcher->synchronize(std::chrono::seconds(10)));
}

TEST_F(QSFSWatcherTest, SynchronizeAnswersFalseAfterAnUndecodableEventEndedTheReader) {
  platform::LogCapture log;
  startReading();
  FileSystemEvent strange;
  strange.kind = Kind::Undecodable;
  strange.rawType = 4096;
  source->push(strange);
  EXPECT_FALSE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(log.count("This may be a program bug (type = 4096)."), 1u);
}

TEST_F(QSFSWatcherTest, StopWakesEveryWaitingCallerWithFalse) {
  startReading();
  source->holdBatches();
  source->push(event(Kind::Created, {"/h/ann/a"}));
  std::vector<std::future<bool>> waiting;
  for (int i = 0; i < 3; ++i)
    waiting.push_back(std::async(std::launch::async, [&] { return watcher->synchronize(std::chrono::minutes(10)); }));
  ASSERT_TRUE(skerrow_test::eventually([&] { return source->drainsRequested() == 3; }));
  ASSERT_TRUE(watcher->stop(std::chrono::seconds(5)));
  for (auto& answer : waiting) {
    ASSERT_EQ(answer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_FALSE(answer.get());
  }
}

TEST_F(QSFSWatcherTest, CloseWakesAWaitingCallerWithFalse) {
  startReading();
  source->holdBatches();
  source->push(event(Kind::Created, {"/h/ann/a"}));
  auto answer = std::async(std::launch::async, [&] { return watcher->synchronize(std::chrono::minutes(10)); });
  ASSERT_TRUE(skerrow_test::eventually([&] { return source->drainsRequested() == 1; }));
  source->close();
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_FALSE(answer.get());
}

TEST_F(QSFSWatcherTest, SeveralCallersAtOnceEachSeeWhatWasPushedBeforeThem) {
  startReading();
  std::vector<std::thread> callers;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t)
    callers.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const std::string path = "/h/ann/t" + std::to_string(t) + "-" + std::to_string(i);
        source->push(event(Kind::Created, {path}));
        const bool synchronized = watcher->synchronize(std::chrono::seconds(30));
        const auto heard = delegate.heard();
        if (!synchronized || std::find(heard.begin(), heard.end(), "0 " + path) == heard.end()) ++failures;
      }
    });
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(delegate.heard().size(), 200u);
}

TEST_F(QSFSWatcherTest, SynchronizeFromTheDelegatesOwnCallAnswersFalseAtOnce) {
  struct Reentrant : QSFSWatcherDelegate {
    QSFSWatcher* watcher = nullptr;
    std::atomic<int> answers{-1};
    void fsWatcherDidSeeChange(const FileSystemEvent&) override {
      answers.store(watcher->synchronize(std::chrono::minutes(10)) ? 1 : 0);
    }
    void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>&) override {}
    void fsWatcherDidDropEventsOnDevice(uint64_t) override {}
  } reentrant;
  reentrant.watcher = watcher.get();
  watcher->setDelegate(&reentrant);
  startReading();
  source->push(event(Kind::Created, {"/h/ann/a"}));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(reentrant.answers.load(), 0);
  ASSERT_TRUE(watcher->stop(std::chrono::seconds(5)));
}

// --- Folders other than homes ---

TEST_F(QSFSWatcherTest, WatchFolderWatchesAFolderWithoutMakingItAHome) {
  watcher->watchHomeFolder("/h/ann");
  watcher->watchFolder("/media/disk/Backups");
  watcher->watchFolder("/media/disk/Backups");
  EXPECT_FALSE(watcher->isWatching("/media/disk/Backups"));  // not reading yet
  startReading();
  EXPECT_EQ(source->watchedFolders(), (std::vector<std::string>{"/h/ann", "/media/disk/Backups"}));
  watcher->watchFolder("/media/other/Backups");
  EXPECT_EQ(source->watchedFolders(),
            (std::vector<std::string>{"/h/ann", "/media/disk/Backups", "/media/other/Backups"}));
  EXPECT_EQ(watcher->homeFolders(), (std::vector<std::string>{"/h/ann"}));
  EXPECT_TRUE(watcher->isWatching("/media/disk/Backups"));
  EXPECT_TRUE(watcher->isWatching("/h/ann"));
  source->push(event(Kind::Modified, {"/media/disk/Backups/U/a@0.txt"}));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(delegate.calls(), (std::vector<std::string>{"seen modified /media/disk/Backups/U/a@0.txt"}));
}

TEST_F(QSFSWatcherTest, AFolderWhoseFileSystemCannotBeWatchedIsLoggedOnceAndNotWatching) {
  platform::LogCapture log;
  source->refuseFolder("/fuse/Backups", "fanotify cannot mark its file system: No such device");
  startReading();
  watcher->watchFolder("/fuse/Backups");
  watcher->watchFolder("/fuse/Backups");
  EXPECT_EQ(log.count("The changes in /fuse/Backups cannot be watched (fanotify cannot mark its file system: No "
                      "such device)"),
            1u);
  EXPECT_FALSE(watcher->isWatching("/fuse/Backups"));
}

TEST_F(QSFSWatcherTest, UnwatchFolderStopsTheEventsBelowIt) {
  watcher->watchHomeFolder("/h/ann");
  watcher->watchFolder("/media/disk/Backups");
  startReading();
  source->push(event(Kind::Created, {"/media/disk/Backups/U/a@0.txt"}));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  ASSERT_EQ(delegate.calls().size(), 2u);
  watcher->unwatchFolder("/media/disk/Backups");
  EXPECT_EQ(source->unwatchedFolders(), (std::vector<std::string>{"/media/disk/Backups"}));
  EXPECT_FALSE(watcher->isWatching("/media/disk/Backups"));
  // Events the source had read already are not delivered either.
  source->push({event(Kind::Created, {"/media/disk/Backups/U/b@0.txt"}), event(Kind::Created, {"/h/ann/c"}),
                event(Kind::Renamed, {"/media/disk/Backups/x", "/h/ann/x"}),
                event(Kind::Deleted, {"/media/disk/Backups"}), event(Kind::Modified, {"/media/disk/BackupsOld/y"})});
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(delegate.calls(),
            (std::vector<std::string>{"seen created /media/disk/Backups/U/a@0.txt",
                                      "handled 0 /media/disk/Backups/U/a@0.txt", "seen created /h/ann/c",
                                      "handled 0 /h/ann/c", "seen renamed /media/disk/Backups/x /h/ann/x",
                                      "handled 3 /media/disk/Backups/x /h/ann/x",
                                      "seen modified /media/disk/BackupsOld/y"}));
  // Watched again (the disk came back): its events come again.
  watcher->watchFolder("/media/disk/Backups");
  source->push(event(Kind::Modified, {"/media/disk/Backups/U/d@0.txt"}));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(delegate.calls().back(), "seen modified /media/disk/Backups/U/d@0.txt");
}

TEST_F(QSFSWatcherTest, UnwatchingAHomeLeavesItOutOfTheHomes) {
  watcher->watchHomeFolder("/h/ann");
  watcher->watchHomeFolder("/h/bob");
  startReading();
  watcher->unwatchFolder("/h/ann");
  watcher->unwatchFolder("/h/nobody");
  EXPECT_EQ(watcher->homeFolders(), (std::vector<std::string>{"/h/bob"}));
  EXPECT_EQ(source->unwatchedFolders(), (std::vector<std::string>{"/h/ann"}));
}
