#include "Engine/files/QSWarmWalk.h"

#include <gtest/gtest.h>

#include "Engine/files/FSSourceTraversal.h"
#include "tests/support/TempDir.h"

namespace {

class NullVisitor : public FSVisitor {
 public:
  size_t items = 0;
  void startTraversalOfPath(const std::string&) override {}
  void finishTraversalOfPath(const std::string&) override {}
  bool startVisitAtPath_attributes(const std::string&, const platform::FileAttributes&) override {
    ++items;
    return true;
  }
  void finishVisitAtPath_attributes(const std::string&, const platform::FileAttributes&) override {}
  void startVisitOfGroup_atPath(const QSFSVersionArray&, const std::string&) override {}
  void finishVisitOfGroup_atPath(const QSFSVersionArray&, const std::string&) override {}
};

struct Place {
  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  QSChangeJournal journal;
  QSWalkMemos memos;
  double now = 1.8e9;

  Place() {
    for (int i = 0; i < 4; ++i) dir.write("ann/d" + std::to_string(i) + "/a.txt", "a");
    journal.follow(home);
    journal.setSynchronizer([] { return true; });
  }

  struct Walked {
    bool warm;
    bool recorded;
    size_t read;
    size_t reused;
    size_t missed;
    size_t items;
  };
  Walked walk(const std::atomic<bool>* stop = nullptr) {
    FSSourceTraversal traversal(stop);
    NullVisitor visitor;
    QSWarmWalk warm(traversal, home, now, journal, memos);
    traversal.recurseAtUserHome_withExclusionPredicate_visitor(home, nullptr, visitor);
    const size_t missed = warm.finish();
    return {warm.isWarm(), warm.isRecorded(), traversal.foldersRead(), traversal.foldersReused(), missed,
            visitor.items};
  }
};

}  // namespace

TEST(QSWarmWalkTest, TheFirstWalkReadsEverythingAndKeepsWhatItRead) {
  Place place;
  const auto walked = place.walk();
  EXPECT_FALSE(walked.warm);
  EXPECT_TRUE(walked.recorded);
  EXPECT_EQ(walked.read, 5u);
  ASSERT_NE(place.memos.memoFor(place.home), nullptr);
  EXPECT_EQ(place.memos.memoFor(place.home)->folderCount(), 5u);
}

TEST(QSWarmWalkTest, TheNextWalkReadsOnlyWhatChanged) {
  Place place;
  place.walk();
  place.dir.write("ann/d2/b.txt", "b");
  place.journal.noteStructuralChange(place.home + "/d2/b.txt");
  const auto walked = place.walk();
  EXPECT_TRUE(walked.warm);
  // d2 and the home folder above it.
  EXPECT_EQ(walked.read, 2u);
  EXPECT_EQ(walked.reused, 3u);
  EXPECT_EQ(walked.items, 10u);
}

TEST(QSWarmWalkTest, WithoutASynchronizedJournalEveryWalkReadsEverythingAndNothingIsKept) {
  Place place;
  place.walk();
  place.journal.setSynchronizer([] { return false; });
  const auto walked = place.walk();
  EXPECT_FALSE(walked.warm);
  EXPECT_FALSE(walked.recorded);
  EXPECT_EQ(walked.read, 5u);
  EXPECT_EQ(place.memos.memoFor(place.home), nullptr);
}

TEST(QSWarmWalkTest, DoubtSendsTheNextWalkToTheDisk) {
  Place place;
  place.walk();
  place.journal.noteDoubt();
  const auto walked = place.walk();
  EXPECT_FALSE(walked.warm);
  EXPECT_EQ(walked.read, 5u);
  EXPECT_TRUE(place.walk().warm);
}

TEST(QSWarmWalkTest, AStoppedWalkLeavesTheLastCompleteWalksMemo) {
  Place place;
  place.walk();
  const auto kept = place.memos.memoFor(place.home);
  std::atomic<bool> stop{true};
  place.walk(&stop);
  EXPECT_EQ(place.memos.memoFor(place.home), kept);
}

TEST(QSWarmWalkTest, AfterTheIntervalAWalkReadsEverythingAndCountsTheFoldersTheWarmWalksHadMissed) {
  Place place;
  place.walk();
  place.now += 60;
  EXPECT_TRUE(place.walk().warm);
  // Changed without the journal being told: a warm walk cannot see it.
  place.dir.write("ann/d1/untold.txt", "u");
  place.dir.write("ann/d3/told.txt", "t");
  place.journal.noteStructuralChange(place.home + "/d3/told.txt");
  place.now += QSWarmWalk::fullWalkInterval();
  const auto full = place.walk();
  EXPECT_FALSE(full.warm);
  EXPECT_EQ(full.read, 5u);
  EXPECT_EQ(full.missed, 1u);
  // The interval starts again from that walk.
  place.now += 60;
  const auto next = place.walk();
  EXPECT_TRUE(next.warm);
  EXPECT_EQ(next.missed, 0u);
}

TEST(QSWarmWalkTest, AFullWalkThatFindsWhatItWasToldCountsNothingMissed) {
  Place place;
  place.walk();
  place.dir.write("ann/d0/told.txt", "t");
  place.journal.noteStructuralChange(place.home + "/d0/told.txt");
  place.now += QSWarmWalk::fullWalkInterval() + 1;
  const auto full = place.walk();
  EXPECT_FALSE(full.warm);
  EXPECT_EQ(full.missed, 0u);
}

TEST(QSWarmWalkTest, APlaceTheJournalDoesNotFollowIsWalkedWholeAndNotRecorded) {
  Place place;
  place.journal.unfollow(place.home);
  const auto first = place.walk();
  EXPECT_FALSE(first.recorded);
  const auto second = place.walk();
  EXPECT_FALSE(second.warm);
  EXPECT_EQ(second.read, 5u);
  EXPECT_EQ(place.memos.count(), 0u);
}

TEST(QSWarmWalkTest, ChangesOlderThanEveryKeptMemoAreForgottenOnceAWalkEnds) {
  Place place;
  place.walk();
  for (int round = 0; round < 20; ++round) {
    const std::string name = "ann/d" + std::to_string(round % 4) + "/new" + std::to_string(round) + ".txt";
    place.dir.write(name, "n");
    place.journal.noteStructuralChange(place.dir / name);
    const auto walked = place.walk();
    EXPECT_TRUE(walked.warm) << round;
    EXPECT_EQ(walked.read, 2u) << round;
    // Only what came after the kept memo's mark is held: nothing.
    EXPECT_EQ(place.journal.size(), 0u) << round;
  }
  // A walk under way keeps what it will be asked about.
  place.memos.pin(place.journal.now());
  place.dir.write("ann/d1/late.txt", "l");
  place.journal.noteStructuralChange(place.home + "/d1/late.txt");
  const auto walked = place.walk();
  EXPECT_TRUE(walked.warm);
  EXPECT_EQ(place.journal.size(), 3u);
  place.memos.unpin(place.memos.oldestMark().value());
}

TEST(QSWarmWalkTest, TheOldestMarkIsThatOfTheOldestMemoOrWalkUnderWay) {
  QSWalkMemos memos;
  EXPECT_FALSE(memos.oldestMark().has_value());
  auto memo = std::make_shared<QSWalkMemo>();
  memo->setMark(40);
  memos.keep("/home/ann", memo);
  EXPECT_EQ(memos.oldestMark(), 40u);
  memos.pin(30);
  memos.pin(30);
  EXPECT_EQ(memos.oldestMark(), 30u);
  memos.unpin(30);
  EXPECT_EQ(memos.oldestMark(), 30u);
  memos.unpin(30);
  EXPECT_EQ(memos.oldestMark(), 40u);
  memos.forgetAll();
  EXPECT_FALSE(memos.oldestMark().has_value());
}
