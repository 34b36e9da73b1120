// Continuous backup in a per-destination environment, on events made by
// hand (the watcher's side is QSFSWatcherTest; the kernel's is the
// integration tests).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "Engine/pipeline/QSPerUIDEnvironment.h"
#include "Engine/records/QSVersionName.h"
#include "platform/Log.h"
#include "platform/RegexPredicate.h"
#include "tests/support/Eventually.h"
#include "tests/support/PipelineTestSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::CallLogClient;

namespace {

constexpr std::chrono::milliseconds kStopWait{5000};

// The names in one folder, sorted ("name/" for a folder).
std::vector<std::string> entriesOf(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error))
    names.push_back(entry.path().filename().string() + (entry.is_directory() && !entry.is_symlink() ? "/" : ""));
  std::sort(names.begin(), names.end());
  return names;
}

std::shared_ptr<QSFSWatcherEvent> contentModified(const std::string& path) {
  auto e = QSFSWatcherEvent::initWithType(FSE_CONTENT_MODIFIED);
  e->addArgument(path);
  return e;
}

std::shared_ptr<QSFSWatcherEvent> renamed(const std::string& from, const std::string& to) {
  auto e = QSFSWatcherEvent::initWithType(FSE_RENAME);
  e->addArgument(from);
  e->addArgument(to);
  return e;
}

// The backup "U" of ann's home folder into "disk/U" (scheduled, every
// category, version depth 2), with a client attached and continuous backup
// on.  The environment's thread is started by the test when it wants the
// queued events processed.
class QSPerUIDEnvironmentRealtimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    skerrow_test::useShippedBlackList();
    user->setClient(client);
    host.continuous = true;
    environment->setDestinationDirectory(destination);
    environment->setScheduled(true);
    environment->setCategoryFilter(skerrow_test::allCategories());
    environment->setVersionDepth(2);
  }
  void TearDown() override { EXPECT_TRUE(environment->stopThread(kStopWait)); }

  void start() {
    if (!started) environment->start();
    started = true;
  }
  // Queues the change of `relative` (a file of the home folder) and waits
  // until the environment has stored it; false when it was not stored.
  bool storeMarker(const std::string& relative = "Documents/marker.txt") {
    dir.write("ann/" + relative, "marker " + std::to_string(++markers));
    environment->enqueueFSEvent(contentModified(home + "/" + relative));
    start();
    const std::filesystem::path p(relative);
    const std::string stored = destination + "/" + (p.parent_path() / QSVersionName(p.filename(), 0)).string();
    return skerrow_test::eventually([&] { return std::filesystem::exists(stored); });
  }
  // A stored copy made by hand, with the times of a copy made an hour ago.
  void writeStored(const std::string& relative, const std::string& text) const {
    const std::string path = dir.write("disk/U/" + relative, text);
    std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }
  std::vector<std::string> stored(const std::string& folder = "") const {
    return entriesOf(folder.empty() ? destination : destination + "/" + folder);
  }
  std::string storedText(const std::string& relative) const { return dir.read("disk/U/" + relative); }

  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  std::string destination = dir.mkdir("disk/U");
  std::shared_ptr<QSUserEnvironment> user = QSUserEnvironment::initWithUserName_homeDirectory("ann", home);
  std::shared_ptr<CallLogClient> client = std::make_shared<CallLogClient>();
  platform::NotificationCenter center;
  skerrow_test::TestPipelineHost host;
  std::shared_ptr<QSPerUIDEnvironment> environment =
      QSPerUIDEnvironment::initWithUserEnvironment_uid(user, "U", &host, &center);
  bool started = false;
  int markers = 0;
};

}  // namespace

TEST_F(QSPerUIDEnvironmentRealtimeTest, AChangedFileIsStoredAsItsNextVersionAndTheClientIsTold) {
  platform::LogCapture log;
  dir.write("ann/Documents/report.txt", "new bytes");
  writeStored("Documents/report@0.txt", "old bytes");
  environment->enqueueFSEvent(contentModified(home + "/Documents/report.txt"));
  start();
  const std::string source = home + "/Documents/report.txt";
  const std::string target = destination + "/Documents/report@1.txt";
  // The client is told before the copy is logged: both are waited for.
  ASSERT_TRUE(skerrow_test::eventually([&] {
    return client->count("finishedRealtimeTransfer") == 1 && log.contains("++++++ did backup: " + source);
  }));
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"report@0.txt", "report@1.txt"}));
  EXPECT_EQ(storedText("Documents/report@1.txt"), "new bytes");
  auto lines = client->lines();
  std::erase(lines, "maximumContiguousErrors");  // asked when the client was attached
  EXPECT_EQ(lines, (std::vector<std::string>{"startedRealtimeTransfer " + source + "," + target,
                                                       "finishedRealtimeTransfer " + source + "," + target + ",yes"}));
  EXPECT_EQ(log.count("++++++ might backup: " + source + " to " + destination + "/Documents"), 1u);
  EXPECT_EQ(log.count("++++++ did backup: " + source + " to " + target), 1u);
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, ARenameToAnotherFolderCopiesTheFileAtItsNewPathAsANewVersion) {
  dir.write("ann/Documents/new/a.txt", "moved");
  environment->enqueueFSEvent(renamed(home + "/Documents/a.txt", home + "/Documents/new/a.txt"));
  start();
  ASSERT_TRUE(skerrow_test::eventually([&] { return client->count("finishedRealtimeTransfer") == 1; }));
  EXPECT_EQ(storedText("Documents/new/a@0.txt"), "moved");
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, ARenameThatOnlyChangesLetterCaseInTheSameFolderRenamesTheNewestVersion) {
  dir.write("ann/Documents/Report.txt", "same bytes");
  writeStored("Documents/report@0.txt", "v0");
  writeStored("Documents/report@1.txt", "v1");
  environment->enqueueFSEvent(renamed(home + "/Documents/report.txt", home + "/Documents/Report.txt"));
  ASSERT_TRUE(storeMarker());
  // The rename flag was set: the newest copy was renamed, nothing was copied.
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"Report@1.txt", "marker@0.txt", "report@0.txt"}));
  EXPECT_EQ(storedText("Documents/Report@1.txt"), "v1");
  EXPECT_EQ(client->count("startedRealtimeTransfer"), 1u);  // the marker's
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, AContentChangeOutsideTheUsersHomeFolderIsNeverQueued) {
  dir.write("bob/a.txt", "x");
  dir.write("anna/a.txt", "x");  // "ann" is a prefix of its name, not its folder
  environment->enqueueFSEvent(contentModified(dir.path() + "/bob/a.txt"));
  environment->enqueueFSEvent(contentModified(dir.path() + "/anna/a.txt"));
  environment->enqueueFSEvent(renamed(home + "/a.txt", dir.path() + "/bob/a.txt"));
  EXPECT_EQ(environment->pendingFSEventCount(), 0u);
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, EventsOfTypesOtherThan3And4AreNeverQueued) {
  dir.write("ann/a.txt", "x");
  for (int32_t type = 0; type < kFSEventTypeCount; ++type) {
    if (type == FSE_RENAME || type == FSE_CONTENT_MODIFIED) continue;
    auto e = QSFSWatcherEvent::initWithType(type);
    e->addArgument(home + "/a.txt");
    environment->enqueueFSEvent(e);
  }
  environment->enqueueFSEvent(nullptr);
  // Types 3 and 4 with the wrong number of paths are not either.
  environment->enqueueFSEvent(renamed(home + "/a.txt", home + "/b.txt"));
  auto one = QSFSWatcherEvent::initWithType(FSE_RENAME);
  one->addArgument(home + "/a.txt");
  environment->enqueueFSEvent(one);
  auto two = QSFSWatcherEvent::initWithType(FSE_CONTENT_MODIFIED);
  two->addArgument(home + "/a.txt");
  two->addArgument(home + "/b.txt");
  environment->enqueueFSEvent(two);
  EXPECT_EQ(environment->pendingFSEventCount(), 1u);  // only the proper rename
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, WithoutContinuousBackupNothingIsQueued) {
  host.continuous = false;
  dir.write("ann/a.txt", "x");
  environment->enqueueFSEvent(contentModified(home + "/a.txt"));
  EXPECT_EQ(environment->pendingFSEventCount(), 0u);
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, AChangeWhileTheBackupIsUnscheduledIsDroppedAtProcessingTime) {
  platform::LogCapture log;
  dir.write("ann/Documents/a.txt", "x");
  environment->enqueueFSEvent(contentModified(home + "/Documents/a.txt"));
  EXPECT_EQ(environment->pendingFSEventCount(), 1u);  // queued: the schedule is looked at later
  environment->setScheduled(false);
  start();
  // Dealt with (not only taken off the queue) before the backup is scheduled again.
  ASSERT_TRUE(skerrow_test::eventually(
      [&] { return log.contains("++++++ not scheduled, not backed up now: " + home + "/Documents/a.txt"); }));
  EXPECT_EQ(environment->pendingFSEventCount(), 0u);
  environment->setScheduled(true);
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker@0.txt"}));
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, AChangeWhileTheBackupHasNoDestinationFolderIsDroppedAtProcessingTime) {
  dir.write("ann/Documents/a.txt", "x");
  environment->setDestinationDirectory(std::nullopt);
  environment->enqueueFSEvent(contentModified(home + "/Documents/a.txt"));
  EXPECT_EQ(environment->pendingFSEventCount(), 1u);
  start();
  // Dealt with (not only taken off the queue) before the folder is back.
  ASSERT_TRUE(skerrow_test::eventually([&] { return environment->processedFSEventCount() == 1; }));
  EXPECT_EQ(environment->pendingFSEventCount(), 0u);
  environment->setDestinationDirectory(destination);
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker@0.txt"}));
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, ChangesInAnUnscheduledCategoryAnExcludedFolderOrOnTheBlackListAreNotCopied) {
  environment->setCategoryFilter({kDocumentsCategoryIdentifier});
  user->setExclusionFilter(platform::RegexPredicate::selfMatchesCaseInsensitive("/Documents/private(/.*)?"));
  dir.write("ann/Music/song.mp3", "x");
  dir.write("ann/Documents/private/diary.txt", "x");
  dir.write("ann/Documents/.report.txt.swp", "x");
  for (const char* relative : {"Music/song.mp3", "Documents/private/diary.txt", "Documents/.report.txt.swp"})
    environment->enqueueFSEvent(contentModified(home + "/" + relative));
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored(), (std::vector<std::string>{"Documents/"}));
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker@0.txt"}));
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, ABurstOfSavesWhoseCopyIsStillQueuedIsCopiedOnceWithTheLastBytes) {
  const std::string path = home + "/Documents/a.txt";
  for (int i = 0; i < 20; ++i) {
    dir.write("ann/Documents/a.txt", "save " + std::to_string(i));
    environment->enqueueFSEvent(contentModified(path));
  }
  EXPECT_EQ(environment->pendingFSEventCount(), 1u);
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"a@0.txt", "marker@0.txt"}));
  EXPECT_EQ(storedText("Documents/a@0.txt"), "save 19");
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, AFileThatChangesWhileItIsCopiedIsCopiedAgainSoTheNewestVersionIsWhole) {
  platform::LogCapture log;
  dir.write("ann/Documents/a.txt", "first");
  // The file changes after it was looked at and before the copy ends (here,
  // while the client is told that the copy starts).
  bool changed = false;
  client->onCall = [&](const std::string& name) {
    if (name != "startedRealtimeTransfer" || changed) return;
    changed = true;
    dir.write("ann/Documents/a.txt", "second, longer");
  };
  environment->enqueueFSEvent(contentModified(home + "/Documents/a.txt"));
  start();
  ASSERT_TRUE(skerrow_test::eventually([&] { return client->count("finishedRealtimeTransfer") == 1; }));
  EXPECT_EQ(log.count("++++++ changed while copied, copying again: " + home + "/Documents/a.txt"), 1u);
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"a@0.txt"}));
  EXPECT_EQ(storedText("Documents/a@0.txt"), "second, longer");
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, AnEditorSaveByRenameOverTheFileStoresExactlyOneNewVersion) {
  dir.write("ann/Documents/x.txt", "old");
  writeStored("Documents/x@0.txt", "old");
  // The editor writes ".x.txt.tmp", closes it and renames it over "x.txt".
  dir.write("ann/Documents/.x.txt.tmp", "new");
  environment->enqueueFSEvent(contentModified(home + "/Documents/.x.txt.tmp"));
  ASSERT_EQ(::rename((home + "/Documents/.x.txt.tmp").c_str(), (home + "/Documents/x.txt").c_str()), 0);
  environment->enqueueFSEvent(renamed(home + "/Documents/.x.txt.tmp", home + "/Documents/x.txt"));
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker@0.txt", "x@0.txt", "x@1.txt"}));
  EXPECT_EQ(storedText("Documents/x@1.txt"), "new");
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, AFileWhoseNewestVersionAlreadyMatchesGetsNoNewVersion) {
  dir.write("ann/Documents/a.txt", "bytes");
  environment->enqueueFSEvent(contentModified(home + "/Documents/a.txt"));
  ASSERT_TRUE(storeMarker("Documents/m1.txt"));
  environment->enqueueFSEvent(contentModified(home + "/Documents/a.txt"));  // nothing changed since
  ASSERT_TRUE(storeMarker("Documents/m2.txt"));
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"a@0.txt", "m1@0.txt", "m2@0.txt"}));
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, EachNewVersionPrunesTheOldestSoTheDepthPlusTheNewestRemain) {
  const std::string path = home + "/Documents/a.txt";
  start();
  for (int i = 0; i < 5; ++i) {
    dir.write("ann/Documents/a.txt", "save " + std::to_string(i) + std::string(static_cast<size_t>(i), '!'));
    const size_t before = client->count("finishedRealtimeTransfer");
    environment->enqueueFSEvent(contentModified(path));
    ASSERT_TRUE(skerrow_test::eventually([&] { return client->count("finishedRealtimeTransfer") > before; }));
  }
  // The client hears of the copy before the oldest version is pruned.
  const std::vector<std::string> expected{"a@2.txt", "a@3.txt", "a@4.txt"};
  EXPECT_TRUE(skerrow_test::eventually([&] { return stored("Documents") == expected; }));
  EXPECT_EQ(stored("Documents"), expected);
  EXPECT_EQ(storedText("Documents/a@4.txt"), "save 4!!!!");
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, AFolderOrAVanishedFileIsNotCopied) {
  dir.mkdir("ann/Documents/folder");
  environment->enqueueFSEvent(contentModified(home + "/Documents/folder"));
  environment->enqueueFSEvent(contentModified(home + "/Documents/gone.txt"));
  ASSERT_TRUE(storeMarker());
  EXPECT_EQ(stored("Documents"), (std::vector<std::string>{"marker@0.txt"}));
}

TEST_F(QSPerUIDEnvironmentRealtimeTest, ALinkPlantedInTheBackupFolderIsNotFollowed) {
  const std::string elsewhere = dir.mkdir("elsewhere");
  ASSERT_EQ(::symlink(elsewhere.c_str(), (destination + "/Documents").c_str()), 0);
  dir.write("ann/Documents/a.txt", "x");
  environment->enqueueFSEvent(contentModified(home + "/Documents/a.txt"));
  ASSERT_TRUE(storeMarker("b.txt"));
  EXPECT_TRUE(entriesOf(elsewhere).empty());
}
