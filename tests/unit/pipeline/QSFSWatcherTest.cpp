#include "Engine/pipeline/QSFSWatcher.h"

#include <gtest/gtest.h>

#include <mutex>

#include "platform/FakeFileSystemEventSource.h"
#include "platform/Log.h"
#include "tests/support/Eventually.h"

namespace {

using platform::FileSystemEvent;
using Kind = platform::FileSystemEvent::Kind;

// What the delegate heard: each event's description ("nil" for the
// dropped-events event) and the devices named as having dropped events.
class RecordingDelegate : public QSFSWatcherDelegate {
 public:
  void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!event) {
      heard_.push_back("nil");
      return;
    }
    std::string line = std::to_string(event->type());
    for (const auto& path : event->arguments()) line += " " + path;
    heard_.push_back(line);
  }
  void fsWatcherDidDropEventsOnDevice(uint64_t device) override {
    std::lock_guard<std::mutex> lock(mutex_);
    heard_.push_back("dropped " + std::to_string(device));
  }
  std::vector<std::string> heard() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> heard_;
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
