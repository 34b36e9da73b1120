// The server's side of continuous backup, with a watcher on a fake event source.
#include <gtest/gtest.h>

#include "Engine/server/QSSkerrowServer.h"
#include "platform/FakeFileSystemEventSource.h"
#include "platform/FileManager.h"
#include "tests/support/Eventually.h"
#include "tests/support/ServerFixture.h"

using skerrow_test::ServerFixture;

namespace {

struct WithWatcher {
  WithWatcher() {
    auto fake = std::make_unique<platform::FakeFileSystemEventSource>();
    source = fake.get();
    QSFSWatcher::Process process = QSFSWatcher::Process::current();
    process.effectiveUID = [] { return 0u; };
    process.writeStandardOutput = [](const std::string&) {};
    watcher = QSFSWatcher::initWithSource(std::move(fake), process);
  }
  platform::FakeFileSystemEventSource* source = nullptr;
  std::shared_ptr<QSFSWatcher> watcher;
};

ServerFixture::Options realtimeOptions(const std::shared_ptr<QSFSWatcher>& watcher) {
  ServerFixture::Options options;
  options.arguments = {};
  options.watcher = watcher;
  return options;
}

// A managed backup of ann's on a mounted disk, with the watcher started by the server.
struct Realtime : WithWatcher, ServerFixture {
  Realtime() : ServerFixture(realtimeOptions(watcher)) {
    mount = disk("Backup");
    entry = adoptBackup(mount, "UID-A", "ann", {"Documents"});
    entry->setPeriod(3600);
    entry->setCompletionDate(clock);  // not due for an hour
    server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", mount, "Backup");
  }
  ~Realtime() { server->stopPipeline(std::chrono::seconds(5)); }
  std::shared_ptr<QSPerUIDEnvironment> destination() const {
    return server->secondStage()->environmentForUID("UID-A");
  }
  uint64_t homeDevice() const {
    platform::FileAttributes a;
    platform::FileManager::attributesAtPath(annHome, &a);
    return a.device;
  }
  std::string mount;
  std::shared_ptr<QSBackupEntry> entry;
};

}  // namespace

TEST(QSSkerrowServerRealtimeTest, StartUpMakesTheServerTheWatchersDelegateStartsItAndWatchesEveryAdmittedHome) {
  Realtime r;
  EXPECT_EQ(r.server->watcher(), r.watcher);
  EXPECT_EQ(r.watcher->delegate(), r.server.get());
  EXPECT_TRUE(r.watcher->didStart());
  ASSERT_TRUE(skerrow_test::eventually([&] { return r.source->watchedFolders().size() == 2; }));
  auto watched = r.source->watchedFolders();
  std::sort(watched.begin(), watched.end());
  EXPECT_EQ(watched, (std::vector<std::string>{r.annHome, r.bobHome}));
}

TEST(QSSkerrowServerRealtimeTest, WithNoRealtimeTheWatcherIsNeitherStartedNorGivenADelegate) {
  WithWatcher w;
  ServerFixture::Options options;
  options.watcher = w.watcher;  // arguments: "-noRealtime"
  ServerFixture f(options);
  EXPECT_EQ(f.server->watcher(), nullptr);
  EXPECT_FALSE(w.watcher->didStart());
  EXPECT_EQ(w.watcher->delegate(), nullptr);
}

TEST(QSSkerrowServerRealtimeTest, AnEventIsHandedToTheBackupsOfItsHome) {
  Realtime r;
  r.dir.write("home/ann/Documents/a.txt", "x");
  auto event = QSFSWatcherEvent::initWithType(FSE_CONTENT_MODIFIED);
  event->addArgument(r.annHome + "/Documents/a.txt");
  r.server->handleFSEvent(event);
  EXPECT_EQ(r.destination()->pendingFSEventCount(), 1u);
  auto bobs = QSFSWatcherEvent::initWithType(FSE_CONTENT_MODIFIED);
  bobs->addArgument(r.bobHome + "/a.txt");
  r.server->handleFSEvent(bobs);
  r.server->handleFSEvent(nullptr);
  EXPECT_EQ(r.destination()->pendingFSEventCount(), 1u);
}

TEST(QSSkerrowServerRealtimeTest, AfterDroppedEventsTheNextTickBacksUpEveryScheduledBackupWhoseHomeIsOnThatFileSystem) {
  Realtime r;
  r.server->fsWatcherDidDropEventsOnDevice(r.homeDevice());
  EXPECT_EQ(r.server->firstStage()->environmentForUser("ann")->queueCount(), 0u);
  r.server->callbackForJobSchedulingTimer();
  EXPECT_EQ(r.log.count("Starting a backup of UID-A: changes in its home folder went unrecorded"), 1u);
  EXPECT_FALSE(r.log.contains("Will start backup UID-A"));  // not also judged by its schedule in that tick
  EXPECT_EQ(r.server->firstStage()->environmentForUser("ann")->queueCount(), 1u);
  // Once: the following tick goes by the schedule again.
  r.server->callbackForJobSchedulingTimer();
  EXPECT_EQ(r.log.count("Starting a backup of UID-A: changes in its home folder went unrecorded"), 1u);
  EXPECT_TRUE(r.log.contains("Will start backup UID-A"));
}

TEST(QSSkerrowServerRealtimeTest, DroppedEventsOfAnotherFileSystemOrOfAnUnscheduledBackupStartNothing) {
  Realtime r;
  r.server->fsWatcherDidDropEventsOnDevice(r.homeDevice() + 1);
  r.server->callbackForJobSchedulingTimer();
  r.entry->setScheduled(false);
  r.server->fsWatcherDidDropEventsOnDevice(r.homeDevice());
  r.server->callbackForJobSchedulingTimer();
  EXPECT_FALSE(r.log.contains("Starting a backup of UID-A"));
  EXPECT_EQ(r.server->firstStage()->environmentForUser("ann")->queueCount(), 0u);
}
