#include "Engine/pipeline/QSSettledPasses.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Engine/files/QSWarmWalk.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "tests/support/SettledPassSupport.h"
#include "tests/support/TempDir.h"

namespace {

// A home folder and a backup folder followed by a private journal, each
// with a memo of a walk that began at the journal's clock, and a kept pass
// without work made by those walks.
struct Backup {
  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  std::string backup = dir.mkdir("disk/backup");
  QSChangeJournal journal;
  QSWalkMemos memos;
  QSSettledPasses passes;
  double now = 1.8e9;
  QSSettledPass::Settings settings{std::nullopt, std::set<std::string>{kDocumentsCategoryIdentifier}, 3};

  Backup() {
    journal.follow(home);
    journal.follow(dir.path() + "/disk");
    journal.setSynchronizer([] { return true; });
    const auto mark = *journal.synchronizedMark();
    skerrow_test::keepMemosOf(memos, home, backup, mark, now - 60);
    auto tally = QSMutableTally::init();
    tally->increaseBytesBy_filesBy_forSourceCategory(300, 3, kDocumentsCategoryIdentifier);
    tally->increaseBytesBy_filesBy_forDestinationCategory(200, 2, kDocumentsCategoryIdentifier);
    tally->increaseBytesBy_filesBy_forExpectedCategory(0, 0, kMusicCategoryIdentifier);
    passes.keep(skerrow_test::settledPassOf(home, backup, mark, settings, tally));
  }

  std::string why;
  bool stands(const QSSettledPass::Settings& with) {
    why.clear();
    return passes.standing(home, backup, with, now, &why, journal, memos) != nullptr;
  }
  bool stands() { return stands(settings); }
};

}  // namespace

TEST(QSSettledPassesTest, APassStandsOnTheKeptOneWhenNothingChangedOnEitherSide) {
  Backup b;
  EXPECT_TRUE(b.stands()) << b.why;
  // Standing changes nothing: the next pass may stand on it too.
  EXPECT_TRUE(b.stands()) << b.why;
}

TEST(QSSettledPassesTest, AChangeInTheHomeFolderEndsIt) {
  Backup b;
  b.journal.noteContentChange(b.home + "/Documents/report.txt");
  EXPECT_FALSE(b.stands());
  EXPECT_EQ(b.why, "home folder changed");
}

TEST(QSSettledPassesTest, AChangeInTheBackupFolderEvenByTheEngineItselfEndsIt) {
  Backup b;
  b.journal.noteStructuralChange(b.backup + "/Documents/report@1.txt");
  EXPECT_FALSE(b.stands());
  EXPECT_EQ(b.why, "backup folder changed");
}

TEST(QSSettledPassesTest, AChangeBesideTheBackupFolderOnTheSameDiskDoesNotEndIt) {
  Backup b;
  b.journal.noteStructuralChange(b.dir.path() + "/disk/other/file.txt");
  EXPECT_TRUE(b.stands()) << b.why;
}

TEST(QSSettledPassesTest, LostEventsOrADiskThatWentAwayEndIt) {
  Backup lost;
  lost.journal.noteDoubt();
  EXPECT_FALSE(lost.stands());
  EXPECT_EQ(lost.why, "home folder in doubt");
  Backup gone;
  gone.journal.noteDoubtAbout(gone.dir.path() + "/disk");
  EXPECT_FALSE(gone.stands());
  EXPECT_EQ(gone.why, "backup folder in doubt");
}

TEST(QSSettledPassesTest, AJournalThatCannotCatchUpEndsIt) {
  Backup b;
  b.journal.setSynchronizer([] { return false; });
  EXPECT_FALSE(b.stands());
  EXPECT_EQ(b.why, "watcher not synchronized");
}

TEST(QSSettledPassesTest, OtherSettingsEndIt) {
  Backup b;
  auto depth = b.settings;
  depth.versionDepth = 4;
  EXPECT_FALSE(b.stands(depth));
  EXPECT_EQ(b.why, "settings changed");
  auto categories = b.settings;
  categories.categories = std::set<std::string>{kMusicCategoryIdentifier};
  EXPECT_FALSE(b.stands(categories));
  auto excluded = b.settings;
  excluded.exclusionExpression = ".*\\.tmp";
  EXPECT_FALSE(b.stands(excluded));
  EXPECT_TRUE(b.stands()) << b.why;
}

TEST(QSSettledPassesTest, ABackupFolderPutInPlaceOfTheOldOneEndsIt) {
  Backup b;
  ASSERT_EQ(::rename(b.backup.c_str(), (b.backup + ".old").c_str()), 0);
  ASSERT_EQ(::mkdir(b.backup.c_str(), 0755), 0);
  EXPECT_FALSE(b.stands());
  EXPECT_EQ(b.why, "not the same backup folder");
}

TEST(QSSettledPassesTest, TheDailyFullWalkIsNeverSkipped) {
  Backup b;
  b.now += QSWarmWalk::fullWalkInterval();
  EXPECT_FALSE(b.stands());
  EXPECT_EQ(b.why, "full walk due");
}

TEST(QSSettledPassesTest, APlaceWhoseMemoWasForgottenEndsIt) {
  Backup b;
  b.memos.forget(b.home);
  EXPECT_FALSE(b.stands());
  EXPECT_EQ(b.why, "no memo");
}

TEST(QSSettledPassesTest, AForgottenPassOrAnotherBackupHasNothingToStandOn) {
  Backup b;
  EXPECT_EQ(b.passes.standing(b.home, b.backup + "2", b.settings, b.now, &b.why, b.journal, b.memos), nullptr);
  EXPECT_EQ(b.why, "no pass without work kept");
  b.passes.forget(b.home, b.backup);
  EXPECT_FALSE(b.stands());
  EXPECT_EQ(b.why, "no pass without work kept");
}

TEST(QSSettledPassesTest, TheCountsComeBackAsTheWalksAndTheDryRunMadeThem) {
  Backup b;
  const auto pass = b.passes.standing(b.home, b.backup, b.settings, b.now, nullptr, b.journal, b.memos);
  ASSERT_NE(pass, nullptr);
  auto tally = QSMutableTally::init();
  pass->addSourceCountsTo(*tally);
  int64_t files = -1, bytes = -1;
  tally->getSourceFileCount_byteCount_forCategory(&files, &bytes, kDocumentsCategoryIdentifier);
  EXPECT_EQ(files, 3);
  EXPECT_EQ(bytes, 300);
  EXPECT_EQ(tally->dstMap()->count(), 0u);  // the backup folder is counted later, in its own stage
  pass->addDestinationCountsTo(*tally);
  tally->getDestinationFileCount_byteCount_forCategory(&files, &bytes, kDocumentsCategoryIdentifier);
  EXPECT_EQ(files, 2);
  EXPECT_EQ(bytes, 200);
  // A category present at zero stays present.
  EXPECT_EQ(tally->expectedMap()->count(), 1u);
  EXPECT_EQ(tally->transferMap()->count(), 0u);
}
