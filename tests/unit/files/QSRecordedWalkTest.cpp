#include "Engine/files/QSRecordedWalk.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>

#include "tests/support/TempDir.h"
#include "tests/support/WalkLog.h"


namespace {

// A backup folder with nested folders, copies in several versions, names
// that differ only in case, a link, a file that is not a stored copy and an
// empty folder.
std::string makeBackupFolder(const skerrow_test::TempDir& dir) {
  const std::string backup = dir.mkdir("U");
  dir.write("U/Report@0.txt", "a");
  dir.write("U/report@1.txt", "ab");
  dir.write("U/plain.txt", "not a copy");
  dir.write("U/Documents/a@0.txt", "a");
  dir.write("U/Documents/Deep/er/b@4", "bbbb");
  dir.write("U/Documents/Deep/er/b@5", "bbbbb");
  dir.mkdir("U/Empty");
  dir.write("U/Pictures/x@0.jpg", "x");
  ::setxattr((backup + "/Pictures/x@0.jpg").c_str(), "user.com.qsc.creation-date", "978307260.500000000", 19, 0);
  EXPECT_EQ(::symlink("target", (backup + "/Documents/l@0").c_str()), 0);
  return backup;
}



}  // namespace

TEST(QSRecordedWalkTest, APlayedRecordingMakesTheSameCallsAsTheWalkItRecorded) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  QSRecordedWalk recording;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, recording);
  ASSERT_TRUE(recording.isComplete());
  const auto expected = skerrow_test::destinationWalkCalls(backup);
  ASSERT_GT(expected.size(), 20u);
  EXPECT_EQ(skerrow_test::playedCalls(recording), expected);
  // It can be played again, with the same result.
  EXPECT_EQ(skerrow_test::playedCalls(recording), expected);
}

TEST(QSRecordedWalkTest, AFolderTheReceiverDeclinesIsSkippedButFinishedAsTheWalkDoes) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  QSRecordedWalk recording;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, recording);
  const std::vector<std::string> declined{backup + "/Documents/Deep"};
  const auto expected = skerrow_test::destinationWalkCalls(backup, nullptr, declined);
  EXPECT_EQ(skerrow_test::playedCalls(recording, declined), expected);
  const auto top = skerrow_test::playedCalls(recording, {backup});
  EXPECT_EQ(top, skerrow_test::destinationWalkCalls(backup, nullptr, {backup}));
  EXPECT_EQ(top.size(), 4u);  // begin, start, finish, end
}

TEST(QSRecordedWalkTest, AWalkOfATrailingSlashPathAndOfASingleFilePlayBackTheSame) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  for (const std::string& path : {backup + "/", backup + "/Report@0.txt", backup + "/missing"}) {
    QSRecordedWalk recording;
    FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(path, recording);
    ASSERT_TRUE(recording.isComplete()) << path;
    EXPECT_EQ(skerrow_test::playedCalls(recording), skerrow_test::destinationWalkCalls(path)) << path;
  }
}

TEST(QSRecordedWalkTest, AStopEndsThePlayAtOnceWithTheEndOfTheTraversal) {
  skerrow_test::TempDir dir;
  const std::string backup = makeBackupFolder(dir);
  QSRecordedWalk recording;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, recording);
  std::atomic<bool> stop{true};
  EXPECT_EQ(skerrow_test::playedCalls(recording, {}, &stop), (std::vector<std::string>{"begin " + backup, "end " + backup}));
}

TEST(QSRecordedWalkTest, AnUnfinishedOrMisshapenRecordingIsNotPlayed) {
  QSRecordedWalk unfinished;
  unfinished.startTraversalOfPath("/b");
  platform::FileAttributes folder;
  folder.type = platform::FileAttributes::Type::Directory;
  EXPECT_TRUE(unfinished.startVisitAtPath_attributes("/b", folder));
  EXPECT_FALSE(unfinished.isComplete());
  EXPECT_TRUE(skerrow_test::playedCalls(unfinished).empty());

  QSRecordedWalk stray;  // an item that is not below the open folder
  stray.startTraversalOfPath("/b");
  stray.startVisitAtPath_attributes("/b", folder);
  EXPECT_FALSE(stray.startVisitAtPath_attributes("/elsewhere/x", folder));
  stray.finishVisitAtPath_attributes("/b", folder);
  stray.finishTraversalOfPath("/b");
  EXPECT_FALSE(stray.isComplete());
  EXPECT_TRUE(skerrow_test::playedCalls(stray).empty());

  // A group of copies is kept as one step, so its finish must follow its
  // start at once, with the same copies and path.
  const QSFSVersionArray copies{QSFSVersion::initWithFileName_attributes_index("a@0.txt", QSFSFileAttributes{}, 0)};
  auto withGroup = [&](const std::function<void(QSRecordedWalk&)>& between, const std::string& finishPath,
                       const QSFSVersionArray& finishCopies) {
    auto walk = std::make_unique<QSRecordedWalk>();
    walk->startTraversalOfPath("/b");
    walk->startVisitAtPath_attributes("/b", folder);
    walk->startVisitOfGroup_atPath(copies, "/b/a.txt");
    between(*walk);
    walk->finishVisitOfGroup_atPath(finishCopies, finishPath);
    walk->finishVisitAtPath_attributes("/b", folder);
    walk->finishTraversalOfPath("/b");
    return walk;
  };
  const auto nothing = [](QSRecordedWalk&) {};
  EXPECT_TRUE(withGroup(nothing, "/b/a.txt", copies)->isComplete());
  EXPECT_EQ(skerrow_test::playedCalls(*withGroup(nothing, "/b/a.txt", copies)).size(), 6u);
  EXPECT_FALSE(withGroup(nothing, "/b/other.txt", copies)->isComplete());
  EXPECT_FALSE(withGroup(nothing, "/b/a.txt", QSFSVersionArray{})->isComplete());
  const auto anotherGroup = [&](QSRecordedWalk& walk) { walk.startVisitOfGroup_atPath(copies, "/b/c.txt"); };
  EXPECT_FALSE(withGroup(anotherGroup, "/b/a.txt", copies)->isComplete());
  const auto aFolder = [&](QSRecordedWalk& walk) {
    walk.startVisitAtPath_attributes("/b/d", folder);
    walk.finishVisitAtPath_attributes("/b/d", folder);
  };
  EXPECT_FALSE(withGroup(aFolder, "/b/a.txt", copies)->isComplete());
}
