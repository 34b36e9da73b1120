#include "Engine/pipeline/QSDestinationPrefetch.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "Engine/files/QSBackupFolderWrites.h"
#include "tests/support/TempDir.h"
#include "tests/support/WalkLog.h"


namespace {

std::string makeBackupFolder(const skerrow_test::TempDir& dir) {
  const std::string backup = dir.mkdir("U");
  for (int i = 0; i < 50; ++i) dir.write("U/f" + std::to_string(i % 7) + "/n" + std::to_string(i) + "@0.txt", "x");
  dir.write("U/n0@1.txt", "y");
  return backup;
}


}  // namespace

TEST(QSDestinationPrefetchTest, AWalkMadeAheadOfTimePlaysBackAsTheWalkMadeNow) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  auto prefetch = QSDestinationPrefetch::start(backup);
  std::string why;
  const auto recording = prefetch->take(backup, nullptr, &why);
  ASSERT_TRUE(recording) << why;
  EXPECT_EQ(skerrow_test::playedCalls(*recording), skerrow_test::destinationWalkCalls(backup));
}

TEST(QSDestinationPrefetchTest, AWriteOfTheEngineSinceTheWalkBeganMakesItStale) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  auto prefetch = QSDestinationPrefetch::runHere(backup);
  { const QSBackupFolderWrites::Scope writing; }
  std::string why;
  EXPECT_FALSE(prefetch->take(backup, nullptr, &why));
  EXPECT_EQ(why, "written since");
}

TEST(QSDestinationPrefetchTest, AWriteUnderWayWhenTheWalkBeganMakesItStale) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  std::shared_ptr<QSDestinationPrefetch> prefetch;
  {
    const QSBackupFolderWrites::Scope writing;
    prefetch = QSDestinationPrefetch::runHere(backup);
  }
  EXPECT_FALSE(prefetch->take(backup, nullptr));
}

TEST(QSDestinationPrefetchTest, AnotherPathOrAFolderPutInPlaceOfTheWalkedOneIsNotServed) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  std::string why;
  EXPECT_FALSE(QSDestinationPrefetch::runHere(backup)->take(backup + "x", nullptr, &why));
  EXPECT_EQ(why, "another backup folder");

  auto prefetch = QSDestinationPrefetch::runHere(backup);
  std::filesystem::rename(backup, dir / "old");
  std::filesystem::create_directory(backup);
  EXPECT_FALSE(prefetch->take(backup, nullptr, &why));
  EXPECT_EQ(why, "not the same folder");
}

TEST(QSDestinationPrefetchTest, ACancelledPrefetchOrAStoppedWaitServesNothing) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  std::string why;
  auto cancelled = QSDestinationPrefetch::start(backup);
  cancelled->cancel();
  EXPECT_FALSE(cancelled->take(backup, nullptr, &why));
  EXPECT_EQ(why, "cancelled");

  std::atomic<bool> stop{true};
  EXPECT_FALSE(QSDestinationPrefetch::runHere(backup)->take(backup, &stop, &why));
  EXPECT_EQ(why, "stopped");
}
