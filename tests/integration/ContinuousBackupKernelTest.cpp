// Continuous backup against the real kernel: the fanotify event source on a
// loop-mounted ext4 file system that holds the homes, and the watcher with a
// per-destination environment copying onto a second loop-mounted ext4 disk.
// Needs root and loop devices; skipped otherwise.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "Engine/pipeline/QSFSWatcher.h"
#include "Engine/pipeline/QSSecondStage.h"
#include "Engine/records/QSVersionName.h"
#include "platform/FanotifyEventSource.h"
#include "platform/Log.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"
#include "tests/support/PipelineTestSupport.h"

using platform::FileSystemEvent;
using skerrow_test::FileSystemImage;
using Kind = platform::FileSystemEvent::Kind;

namespace {

void writeFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string describe(const FileSystemEvent& e) {
  static const char* const names[] = {"created", "created-folder", "deleted", "attributes", "renamed",
                                      "closed-after-write", "modified", "dropped", "undecodable"};
  std::string text = names[static_cast<int>(e.kind)];
  for (const auto& path : e.paths) text += " " + path;
  return text;
}

// The homes disk ("homes", with ann's home and a folder outside every home)
// and, for the tests that copy, a backup disk.
class KernelFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the kernel tests need root";
    if (auto reason = FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4)) GTEST_SKIP() << *reason;
    homes = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, 64u << 20);
    home = homes->mountPoint() + "/ann";
    outside = homes->mountPoint() + "/outside";
    std::filesystem::create_directories(home + "/Documents");
    std::filesystem::create_directories(outside);
  }

  // Events read until `done` holds for them (or 10 s pass).
  std::vector<FileSystemEvent> readUntil(platform::FanotifyEventSource& source,
                                         const std::function<bool(const std::vector<FileSystemEvent>&)>& done) {
    std::vector<FileSystemEvent> events;
    std::thread closer;
    std::atomic<bool> finished{false};
    closer = std::thread([&] {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (!finished.load() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      source.close();  // ends a read that would wait for ever
    });
    while (!done(events) && source.readEvents(&events)) {
    }
    finished.store(true);
    closer.join();
    return events;
  }
  static bool has(const std::vector<FileSystemEvent>& events, const std::string& text) {
    for (const auto& e : events)
      if (describe(e) == text) return true;
    return false;
  }

  std::unique_ptr<FileSystemImage> homes;
  std::string home, outside;
};

std::unique_ptr<platform::FanotifyEventSource> openSource(bool ignoreOwnProcess = false) {
  auto source = std::make_unique<platform::FanotifyEventSource>(
      platform::FanotifyEventSource::Options{.ignoreOwnProcess = ignoreOwnProcess});
  std::string error;
  EXPECT_TRUE(source->open(&error)) << error;
  return source;
}

}  // namespace

TEST_F(KernelFixture, ARenameIsReportedWithItsOldAndNewPathInOneEvent) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  writeFile(home + "/Documents/a.txt", "x");
  std::filesystem::create_directories(home + "/Other");
  std::filesystem::rename(home + "/Documents/a.txt", home + "/Other/b.txt");
  const std::string expected = "renamed " + home + "/Documents/a.txt " + home + "/Other/b.txt";
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, expected); });
  EXPECT_TRUE(has(events, expected));
}

TEST_F(KernelFixture, AFileMovedOutOfAFolderRemovedBeforeTheEventIsReadIsReportedAsCreatedWhereItWent) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  std::filesystem::create_directories(home + "/Inbox");
  writeFile(home + "/Inbox/a.txt", "x");
  // Nothing is read before the folder is gone: its path is never known to the source.
  std::filesystem::rename(home + "/Inbox/a.txt", home + "/Documents/a.txt");
  std::filesystem::remove(home + "/Inbox");
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, "deleted " + home + "/Inbox"); });
  std::string told;
  for (const auto& e : events) told += describe(e) + "\n";
  EXPECT_TRUE(has(events, "created " + home + "/Documents/a.txt")) << told;
  for (const auto& e : events) EXPECT_NE(e.kind, FileSystemEvent::Kind::Dropped) << told;
}

TEST_F(KernelFixture, AFileMovedIntoAFolderRemovedBeforeTheEventIsReadIsReportedAsDeletedWhereItWas) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  std::filesystem::create_directories(home + "/Trash");
  writeFile(home + "/Documents/b.txt", "x");
  std::filesystem::rename(home + "/Documents/b.txt", home + "/Trash/b.txt");
  std::filesystem::remove_all(home + "/Trash");
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, "deleted " + home + "/Trash"); });
  std::string told;
  for (const auto& e : events) told += describe(e) + "\n";
  EXPECT_TRUE(has(events, "deleted " + home + "/Documents/b.txt")) << told;
  for (const auto& e : events) EXPECT_NE(e.kind, FileSystemEvent::Kind::Dropped) << told;
}

TEST_F(KernelFixture, AFileClosedAfterWritingIsReportedAsAContentChangeWithItsPath) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  writeFile(home + "/Documents/a.txt", "x");
  const std::string expected = "closed-after-write " + home + "/Documents/a.txt";
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, expected); });
  EXPECT_TRUE(has(events, expected));
  EXPECT_TRUE(has(events, "created " + home + "/Documents/a.txt"));
}

TEST_F(KernelFixture, CreationsDeletionsAndAttributeChangesAreReportedWithTheirKinds) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  std::filesystem::create_directories(home + "/New");
  ASSERT_EQ(::symlink("target", (home + "/link").c_str()), 0);
  ASSERT_EQ(::chmod((home + "/New").c_str(), 0700), 0);
  ASSERT_EQ(::unlink((home + "/link").c_str()), 0);
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, "deleted " + home + "/link"); });
  EXPECT_TRUE(has(events, "created-folder " + home + "/New"));
  EXPECT_TRUE(has(events, "created " + home + "/link"));
  EXPECT_TRUE(has(events, "attributes " + home + "/New"));
  EXPECT_TRUE(has(events, "deleted " + home + "/link"));
}

TEST_F(KernelFixture, ChangesOutsideEveryHomeAreDroppedWithoutAPathOnceTheirFolderIsKnown) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  for (int i = 0; i < 2000; ++i) {
    const std::string path = outside + "/f" + std::to_string(i);
    writeFile(path, "churn");
    ::unlink(path.c_str());
  }
  writeFile(home + "/Documents/marker.txt", "m");
  const std::string marker = "closed-after-write " + home + "/Documents/marker.txt";
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, marker); });
  ASSERT_TRUE(has(events, marker));
  for (const auto& e : events)
    for (const auto& path : e.paths) EXPECT_EQ(path.rfind(home, 0), 0u) << describe(e);
  // 6,000 events outside, one folder looked up for them; one more for the home's folder.
  EXPECT_LE(source->folderLookups(), 3u);
}

TEST_F(KernelFixture, AFolderMovedIntoTheHomeIsReportedAtItsNewPath) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  writeFile(outside + "/project/a.txt", "before");  // known as outside
  std::filesystem::rename(outside + "/project", home + "/Documents/project");
  writeFile(home + "/Documents/project/a.txt", "after");
  const std::string expected = "closed-after-write " + home + "/Documents/project/a.txt";
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, expected); });
  EXPECT_TRUE(has(events, expected));
  EXPECT_TRUE(has(events, "renamed " + outside + "/project " + home + "/Documents/project"));
}

TEST_F(KernelFixture, ChangesMadeByTheWatchingProcessItselfAreNotReported) {
  auto source = openSource(true);
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  writeFile(home + "/Documents/ours.txt", "written by the engine's own process");
  const auto result = skerrow_test::runCommand({"sh", "-c", "echo theirs > '" + home + "/Documents/theirs.txt'"});
  ASSERT_EQ(result.exitCode, 0) << result.output;
  const std::string theirs = "closed-after-write " + home + "/Documents/theirs.txt";
  const auto events = readUntil(*source, [&](const auto& e) { return has(e, theirs); });
  EXPECT_TRUE(has(events, theirs));
  for (const auto& e : events)
    for (const auto& path : e.paths) EXPECT_EQ(path.find("ours.txt"), std::string::npos) << describe(e);
}

TEST_F(KernelFixture, AFullQueueIsReportedAsDroppedEventsOfThatFileSystem) {
  auto source = openSource();
  std::string why;
  ASSERT_TRUE(source->watchFolder(home, &why)) << why;
  // Nobody reads while more events happen than the kernel queues (16,384).
  // (Each file is removed again: the small disk has fewer inodes than that.)
  for (int i = 0; i < 20000; ++i) {
    const std::string path = home + "/f" + std::to_string(i);
    writeFile(path, "x");
    ::unlink(path.c_str());
  }
  const auto events = readUntil(*source, [&](const auto& e) {
    for (const auto& one : e)
      if (one.kind == Kind::Dropped) return true;
    return false;
  });
  bool dropped = false;
  for (const auto& e : events)
    if (e.kind == Kind::Dropped) {
      dropped = true;
      EXPECT_EQ(e.device, static_cast<uint64_t>(homes->device()));
    }
  EXPECT_TRUE(dropped) << events.size() << " events, the last: " << (events.empty() ? "" : describe(events.back()));
}

TEST_F(KernelFixture, AHomeOnAFuseFileSystemIsRefusedWithTheKernelsReason) {
  if (auto reason = FileSystemImage::unavailableReason(FileSystemImage::Kind::ExFat)) GTEST_SKIP() << *reason;
  FileSystemImage fuse(FileSystemImage::Kind::ExFat, 32u << 20);
  std::filesystem::create_directories(fuse.mountPoint() + "/carl");
  auto source = openSource();
  std::string why;
  EXPECT_FALSE(source->watchFolder(fuse.mountPoint() + "/carl", &why));
  EXPECT_EQ(why.rfind("fanotify cannot mark its file system: ", 0), 0u) << why;
  // The ext4 home is still watched by the same source.
  EXPECT_TRUE(source->watchFolder(home, &why)) << why;
}

TEST(FanotifyRecordsTest, ARecordWithUnknownEventBitsIsUndecodableWithItsRawType) {
  // One record as the kernel lays it out: metadata, then a folder handle with a name.
  struct alignas(8) {
    fanotify_event_metadata meta;
    fanotify_event_info_header header;
    __kernel_fsid_t fsid;
    uint32_t handleBytes;
    int32_t handleType;
    uint64_t handle;
    char name[8];
  } record{};
  record.meta.event_len = sizeof record;
  record.meta.vers = FANOTIFY_METADATA_VERSION;
  record.meta.metadata_len = sizeof record.meta;
  record.meta.mask = 0x00100000;  // a bit nobody asked for
  record.meta.fd = FAN_NOFD;
  record.header.info_type = FAN_EVENT_INFO_TYPE_DFID_NAME;
  record.header.len = sizeof record - sizeof record.meta;
  record.handleBytes = 8;
  std::memcpy(record.name, "a.txt", 6);
  const auto events =
      platform::FanotifyEventSource::decodeRecords(reinterpret_cast<const char*>(&record), sizeof record, 5);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].kind, Kind::Undecodable);
  EXPECT_EQ(events[0].rawType, 0x00100000);
  // Truncated and garbled buffers decode to nothing, without reading past their end.
  EXPECT_TRUE(platform::FanotifyEventSource::decodeRecords(reinterpret_cast<const char*>(&record), 20, 5).empty());
  record.meta.event_len = 4;
  EXPECT_TRUE(
      platform::FanotifyEventSource::decodeRecords(reinterpret_cast<const char*>(&record), sizeof record, 5).empty());
}

// The watcher on the real kernel handing events to one backup's
// per-destination environment, which copies onto the backup disk.
class RealtimeKernelTest : public KernelFixture {
 protected:
  struct Forward : QSFSWatcherDelegate {
    QSSecondStage* stage = nullptr;
    std::mutex mutex;
    std::vector<std::string> seen;  // every change, as described
    void fsWatcherDidSeeChange(const FileSystemEvent& event) override {
      std::lock_guard<std::mutex> lock(mutex);
      seen.push_back(describe(event));
    }
    bool saw(const std::string& text) {
      std::lock_guard<std::mutex> lock(mutex);
      return std::find(seen.begin(), seen.end(), text) != seen.end();
    }
    void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) override {
      stage->distributeFSEvent(event);
    }
    void fsWatcherDidDropEventsOnDevice(uint64_t) override {}
  };

  void SetUp() override {
    KernelFixture::SetUp();
    if (IsSkipped()) return;
    skerrow_test::useShippedBlackList();
    backupDisk = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, 64u << 20);
    destination = backupDisk->mountPoint() + "/U";
    std::filesystem::create_directories(destination);
    host.continuous = true;
    stage = std::make_unique<QSSecondStage>(&host, &center, false);
    user = QSUserEnvironment::initWithUserName_homeDirectory("ann", home);
    user->setClient(client);
    stage->createEnvironmentForUID_withUserEnvironment("U", user);
    environment = stage->environmentForUID("U");
    environment->setDestinationDirectory(destination);
    environment->setScheduled(true);
    environment->setCategoryFilter(skerrow_test::allCategories());
    environment->setVersionDepth(3);
    forward.stage = stage.get();
    QSFSWatcher::Process process = QSFSWatcher::Process::current();
    process.writeStandardOutput = [this](const std::string& text) {
      if (text.find("gamuliob ready") != std::string::npos) ready.store(true);
    };
    watcher = QSFSWatcher::initWithSource(std::make_unique<platform::FanotifyEventSource>(
                                              platform::FanotifyEventSource::Options{.ignoreOwnProcess = false}),
                                          process);
    watcher->setDelegate(&forward);
    watcher->watchHomeFolder(home);
    watcher->start();
    // Ready once the home's file system is marked: changes from now on are seen.
    ASSERT_TRUE(skerrow_test::eventually([&] { return ready.load(); }));
  }
  void TearDown() override {
    if (watcher) {
      EXPECT_TRUE(watcher->stop(std::chrono::seconds(5)));
    }
    if (stage) {
      EXPECT_TRUE(stage->stopAll(std::chrono::seconds(5)));
    }
  }
  void startCopying() {
    if (!copying) environment->start();
    copying = true;
  }
  // Writes a marker file in the home and waits until its copy is stored:
  // every event before it has then been taken and processed.
  bool storeMarker() {
    const std::string name = "marker" + std::to_string(++markers) + ".txt";
    writeFile(home + "/Documents/" + name, "m");
    startCopying();
    return skerrow_test::eventually(
        [&] { return std::filesystem::exists(destination + "/Documents/" + QSVersionName(name, 0)); });
  }
  // Waits until the environment holds `count` queued events.
  bool queued(size_t count) {
    return skerrow_test::eventually([&] { return environment->pendingFSEventCount() == count; });
  }
  std::vector<std::string> stored(const std::string& folder) const {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(destination + "/" + folder))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  std::unique_ptr<FileSystemImage> backupDisk;
  std::string destination;
  skerrow_test::TestPipelineHost host;
  platform::NotificationCenter center;
  std::unique_ptr<QSSecondStage> stage;
  std::shared_ptr<QSUserEnvironment> user;
  std::shared_ptr<skerrow_test::CallLogClient> client = std::make_shared<skerrow_test::CallLogClient>();
  std::shared_ptr<QSPerUIDEnvironment> environment;
  Forward forward;
  std::atomic<bool> ready{false};
  std::shared_ptr<QSFSWatcher> watcher;
  bool copying = false;
  int markers = 0;
};

TEST_F(RealtimeKernelTest, ARenameToAnotherFolderCopiesTheFileAtItsNewPathAsANewVersion) {
  writeFile(home + "/Documents/a.txt", "moving bytes");
  ASSERT_TRUE(storeMarker());
  std::filesystem::create_directories(home + "/Documents/Archive");
  std::filesystem::rename(home + "/Documents/a.txt", home + "/Documents/Archive/a.txt");
  ASSERT_TRUE(skerrow_test::eventually([&] { return std::filesystem::exists(destination + "/Documents/Archive/a@0.txt"); }));
  EXPECT_EQ(readFile(destination + "/Documents/Archive/a@0.txt"), "moving bytes");
}

TEST_F(RealtimeKernelTest, ARenameThatOnlyChangesLetterCaseInTheSameFolderSetsTheRenameFlag) {
  writeFile(home + "/Documents/report.txt", "v1");
  ASSERT_TRUE(storeMarker());
  ASSERT_EQ(stored("Documents"), (std::vector<std::string>{"marker1@0.txt", "report@0.txt"}));
  const size_t copiesBefore = client->count("startedRealtimeTransfer");
  std::filesystem::rename(home + "/Documents/report.txt", home + "/Documents/Report.txt");
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"Report@0.txt", "marker1@0.txt", "marker2@0.txt"}));
  EXPECT_EQ(client->count("startedRealtimeTransfer"), copiesBefore + 1);  // the marker only
}

TEST_F(RealtimeKernelTest, AContentChangeOutsideTheHomeOrAnEventOfAnotherTypeIsNeverQueued) {
  writeFile(home + "/Documents/a.txt", "x");
  ASSERT_TRUE(storeMarker());  // the environment now copies; stop it looking at the queue
  ASSERT_TRUE(environment->stopThread(std::chrono::seconds(5)));
  writeFile(outside + "/elsewhere.txt", "outside");
  std::filesystem::create_directories(home + "/NewFolder");                         // type 7
  ASSERT_EQ(::chmod((home + "/Documents/a.txt").c_str(), 0600), 0);                 // type 2
  ASSERT_EQ(::symlink("a.txt", (home + "/Documents/link").c_str()), 0);             // type 0
  ASSERT_EQ(::unlink((home + "/Documents/link").c_str()), 0);                       // type 1
  writeFile(home + "/Documents/last.txt", "the one that counts");                   // types 0 and 4
  // Events come in order: once the last change is queued, every one before it was judged.
  ASSERT_TRUE(queued(1));
  EXPECT_EQ(environment->pendingFSEventCount(), 1u);
}

TEST_F(RealtimeKernelTest, AChangeWhileTheBackupIsUnscheduledIsDroppedAtProcessingTime) {
  writeFile(home + "/Documents/a.txt", "a");
  ASSERT_TRUE(queued(1));  // queued: the schedule is looked at when it is processed
  environment->setScheduled(false);
  startCopying();
  ASSERT_TRUE(queued(0));
  environment->setScheduled(true);
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker1@0.txt"}));
}

TEST_F(RealtimeKernelTest, AChangeWhileTheBackupHasNoDestinationFolderIsDroppedAtProcessingTime) {
  writeFile(home + "/Documents/a.txt", "a");
  ASSERT_TRUE(queued(1));
  environment->setDestinationDirectory(std::nullopt);
  startCopying();
  ASSERT_TRUE(queued(0));
  environment->setDestinationDirectory(destination);
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker1@0.txt"}));
}

TEST_F(RealtimeKernelTest, AnEditorSaveThroughATemporaryFileStoresExactlyOneNewVersion) {
  writeFile(home + "/Documents/x.txt", "old");
  ASSERT_TRUE(storeMarker());
  writeFile(home + "/Documents/.x.txt.tmp", "new");
  std::filesystem::rename(home + "/Documents/.x.txt.tmp", home + "/Documents/x.txt");
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker1@0.txt", "marker2@0.txt", "x@0.txt", "x@1.txt"}));
  EXPECT_EQ(readFile(destination + "/Documents/x@1.txt"), "new");
}

TEST_F(RealtimeKernelTest, TheEnginesOwnReadsOfTheHomeAndCopiesOntoTheBackupDiskCauseNoCopies) {
  writeFile(home + "/Documents/a.txt", "x");
  ASSERT_TRUE(storeMarker());
  const size_t copies = client->count("startedRealtimeTransfer");
  // Reading every file of the home (as a backup does) and writing on the backup disk.
  for (const auto& e : std::filesystem::recursive_directory_iterator(home))
    if (e.is_regular_file()) readFile(e.path());
  writeFile(destination + "/Documents/stray.txt", "on the backup disk");
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(client->count("startedRealtimeTransfer"), copies + 1);  // the marker only
}

TEST_F(RealtimeKernelTest, AChangeInAWatchedBackupFolderIsSeenButNeverCopied) {
  watcher->watchFolder(destination);
  writeFile(home + "/Documents/a.txt", "x");
  ASSERT_TRUE(storeMarker());
  const size_t copies = client->count("startedRealtimeTransfer");
  // Something other than the engine changes the backup folder.
  const auto result = skerrow_test::runCommand(
      {"sh", "-c", "mkdir -p '" + destination + "/Documents' && echo planted > '" + destination + "/Documents/planted.txt'"});
  ASSERT_EQ(result.exitCode, 0) << result.output;
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_TRUE(forward.saw("closed-after-write " + destination + "/Documents/planted.txt"));
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(client->count("startedRealtimeTransfer"), copies + 1);  // the marker only
  EXPECT_EQ(stored("Documents"),
            (std::vector<std::string>{"a@0.txt", "marker1@0.txt", "marker2@0.txt", "planted.txt"}));
}

TEST_F(RealtimeKernelTest, AFileWrittenAndKeptOpenIsQueuedForCopyingOnlyOnceItIsClosed) {
  writeFile(home + "/Documents/a.txt", "x");
  ASSERT_TRUE(storeMarker());
  ASSERT_TRUE(environment->stopThread(std::chrono::seconds(5)));
  const std::string log = home + "/Documents/app.log";
  const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::write(fd, "line\n", 5), 5);
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_TRUE(forward.saw("modified " + log));
  EXPECT_EQ(environment->pendingFSEventCount(), 0u);  // seen, but nothing to copy yet
  ::close(fd);
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(environment->pendingFSEventCount(), 1u);
}
