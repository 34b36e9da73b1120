#include "Engine/files/QSChangeJournal.h"

#include <gtest/gtest.h>

namespace {

QSChangedFolders changesSince(const QSChangeJournal& journal, const std::string& root, QSChangeJournal::Mark mark) {
  auto changes = journal.changesSince(root, mark);
  EXPECT_TRUE(changes.has_value());
  return changes.value_or(QSChangedFolders());
}

}  // namespace

TEST(QSChangeJournalTest, AContentChangeMarksOnlyTheListingOfTheItemsFolder) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  const auto mark = journal.now();
  journal.noteContentChange("/home/ann/Documents/report.txt");
  const auto changes = changesSince(journal, "/home/ann", mark);
  EXPECT_TRUE(changes.listingChanged("/home/ann/Documents"));
  EXPECT_FALSE(changes.listingChanged("/home/ann"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/Documents/Drafts"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/Pictures"));
}

TEST(QSChangeJournalTest, ACreationMarksTheFolderItsFolderAndEverythingBelowTheNewItem) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  const auto mark = journal.now();
  journal.noteStructuralChange("/home/ann/Documents/Old/Inner");
  const auto changes = changesSince(journal, "/home/ann", mark);
  EXPECT_TRUE(changes.listingChanged("/home/ann/Documents/Old"));
  EXPECT_TRUE(changes.listingChanged("/home/ann/Documents"));
  EXPECT_TRUE(changes.listingChanged("/home/ann/Documents/Old/Inner"));
  EXPECT_TRUE(changes.listingChanged("/home/ann/Documents/Old/Inner/deeper/still"));
  EXPECT_FALSE(changes.listingChanged("/home/ann"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/Documents/Old/Inner2"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/Documents/Old/Inne"));
}

TEST(QSChangeJournalTest, ARenameMarksBothSides) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  const auto mark = journal.now();
  journal.noteStructuralChange("/home/ann/a/x");
  journal.noteStructuralChange("/home/ann/b/c/x");
  const auto changes = changesSince(journal, "/home/ann", mark);
  for (const char* path : {"/home/ann/a", "/home/ann", "/home/ann/a/x/y", "/home/ann/b/c", "/home/ann/b",
                           "/home/ann/b/c/x", "/home/ann/b/c/x/y"})
    EXPECT_TRUE(changes.listingChanged(path)) << path;
  EXPECT_FALSE(changes.listingChanged("/home/ann/b/d"));
}

TEST(QSChangeJournalTest, ChangesNotedBeforeTheMarkAreNotAnswered) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  journal.noteContentChange("/home/ann/Documents/report.txt");
  const auto mark = journal.now();
  journal.noteContentChange("/home/ann/Pictures/p.jpg");
  const auto changes = changesSince(journal, "/home/ann", mark);
  EXPECT_FALSE(changes.listingChanged("/home/ann/Documents"));
  EXPECT_TRUE(changes.listingChanged("/home/ann/Pictures"));
  EXPECT_EQ(changes.folderCount(), 1u);
  EXPECT_TRUE(changesSince(journal, "/home/ann", journal.now()).empty());
}

TEST(QSChangeJournalTest, OnlyTheAskedRootsChangesAreAnswered) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  journal.follow("/home/bob");
  const auto mark = journal.now();
  journal.noteContentChange("/home/bob/notes.txt");
  EXPECT_TRUE(changesSince(journal, "/home/ann", mark).empty());
  EXPECT_TRUE(changesSince(journal, "/home/bob", mark).listingChanged("/home/bob"));
}

TEST(QSChangeJournalTest, ChangesOutsideEveryRootAreIgnored) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  journal.noteContentChange("/home/annie/notes.txt");
  journal.noteStructuralChange("/tmp/x");
  EXPECT_EQ(journal.size(), 0u);
}

TEST(QSChangeJournalTest, ARootFollowedAfterTheMarkCannotTell) {
  QSChangeJournal journal;
  const auto mark = journal.now();
  journal.follow("/home/ann");
  EXPECT_FALSE(journal.changesSince("/home/ann", mark).has_value());
  EXPECT_FALSE(journal.changesSince("/home/bob", mark).has_value());
  EXPECT_TRUE(journal.changesSince("/home/ann", journal.now()).has_value());
}

TEST(QSChangeJournalTest, FollowingARootAgainCastsNoDoubt) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  const auto mark = journal.now();
  journal.follow("/home/ann");
  EXPECT_TRUE(journal.changesSince("/home/ann", mark).has_value());
}

TEST(QSChangeJournalTest, DoubtCastAfterTheMarkCannotTell) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  journal.follow("/media/disk/Backups");
  const auto mark = journal.now();
  journal.noteDoubtAbout("/media/disk/Backups");
  EXPECT_TRUE(journal.changesSince("/home/ann", mark).has_value());
  EXPECT_FALSE(journal.changesSince("/media/disk/Backups", mark).has_value());
  const auto later = journal.now();
  EXPECT_TRUE(journal.changesSince("/media/disk/Backups", later).has_value());
  journal.noteDoubt();
  EXPECT_FALSE(journal.changesSince("/home/ann", later).has_value());
  EXPECT_FALSE(journal.changesSince("/media/disk/Backups", later).has_value());
}

TEST(QSChangeJournalTest, AnUnfollowedRootCannotTellForAnyMark) {
  QSChangeJournal journal;
  journal.follow("/media/disk/Backups");
  const auto mark = journal.now();
  journal.unfollow("/media/disk/Backups");
  EXPECT_FALSE(journal.isFollowing("/media/disk/Backups"));
  EXPECT_FALSE(journal.changesSince("/media/disk/Backups", mark).has_value());
  journal.follow("/media/disk/Backups");
  EXPECT_FALSE(journal.changesSince("/media/disk/Backups", mark).has_value());
}

TEST(QSChangeJournalTest, PastItsCapacityTheJournalForgetsAndCannotTell) {
  QSChangeJournal journal(10);
  journal.follow("/home/ann");
  const auto mark = journal.now();
  for (int i = 0; i < 11; ++i) journal.noteContentChange("/home/ann/d" + std::to_string(i) + "/f");
  EXPECT_EQ(journal.size(), 0u);
  EXPECT_FALSE(journal.changesSince("/home/ann", mark).has_value());
  const auto later = journal.now();
  journal.noteContentChange("/home/ann/d1/f");
  EXPECT_TRUE(changesSince(journal, "/home/ann", later).listingChanged("/home/ann/d1"));
}

TEST(QSChangeJournalTest, ChangesUnderTheResolvedPathCountUnderTheRoot) {
  QSChangeJournal journal;
  journal.follow("/home/ann", std::string("/data/home/ann"));
  const auto mark = journal.now();
  journal.noteContentChange("/data/home/ann/Documents/report.txt");
  journal.noteStructuralChange("/data/home/ann/Pictures/new.jpg");
  const auto changes = changesSince(journal, "/home/ann", mark);
  EXPECT_TRUE(changes.listingChanged("/home/ann/Documents"));
  EXPECT_TRUE(changes.listingChanged("/home/ann/Pictures"));
  EXPECT_TRUE(changes.listingChanged("/home/ann"));
  EXPECT_FALSE(changes.listingChanged("/data/home/ann/Documents"));
}

TEST(QSChangeJournalTest, TheRootItselfGoingAwayMarksEverythingBelowIt) {
  QSChangeJournal journal;
  journal.follow("/media/disk/Backups/1000");
  const auto mark = journal.now();
  journal.noteStructuralChange("/media/disk/Backups/1000");
  const auto changes = changesSince(journal, "/media/disk/Backups/1000", mark);
  EXPECT_TRUE(changes.listingChanged("/media/disk/Backups/1000"));
  EXPECT_TRUE(changes.listingChanged("/media/disk/Backups/1000/Documents"));
}

TEST(QSChangeJournalTest, AFolderBelowAFollowedRootIsAnsweredForWithItsOwnChanges) {
  QSChangeJournal journal;
  journal.follow("/media/disk/Backups");
  const auto mark = journal.now();
  journal.noteContentChange("/media/disk/Backups/1000/Documents/a@0.txt");
  journal.noteContentChange("/media/disk/Backups/1001/b@0.txt");
  const auto changes = changesSince(journal, "/media/disk/Backups/1000", mark);
  EXPECT_TRUE(changes.listingChanged("/media/disk/Backups/1000/Documents"));
  EXPECT_EQ(changes.folderCount(), 1u);
  EXPECT_FALSE(journal.changesSince("/media/disk", mark).has_value());
}

TEST(QSChangeJournalTest, AMarkIsGivenOnlyOnceTheSynchronizerHasCaughtUp) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  EXPECT_FALSE(journal.synchronizedMark().has_value());
  bool catchesUp = true;
  journal.setSynchronizer([&] {
    journal.noteContentChange("/home/ann/late/x");
    return catchesUp;
  });
  const auto mark = journal.synchronizedMark();
  ASSERT_TRUE(mark.has_value());
  // The change the synchronizer brought in lies before the mark.
  EXPECT_TRUE(changesSince(journal, "/home/ann", *mark).empty());
  catchesUp = false;
  EXPECT_FALSE(journal.synchronizedMark().has_value());
}

TEST(QSChangeJournalTest, SettingOrClearingTheSynchronizerCastsDoubt) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  const auto mark = journal.now();
  journal.setSynchronizer([] { return true; });
  EXPECT_FALSE(journal.changesSince("/home/ann", mark).has_value());
  const auto later = journal.now();
  journal.setSynchronizer(nullptr);
  EXPECT_FALSE(journal.changesSince("/home/ann", later).has_value());
  EXPECT_FALSE(journal.synchronizedMark().has_value());
}

TEST(QSChangeJournalTest, TheWatchersEventsAreNotedByKind) {
  using Kind = platform::FileSystemEvent::Kind;
  QSChangeJournal journal;
  journal.follow("/home/ann");
  const auto mark = journal.now();
  journal.noteEvent({Kind::ClosedAfterWrite, {"/home/ann/a/f"}, 0, 0});
  journal.noteEvent({Kind::AttributesChanged, {"/home/ann/b/f"}, 0, 0});
  journal.noteEvent({Kind::Modified, {"/home/ann/m/f"}, 0, 0});
  journal.noteEvent({Kind::Created, {"/home/ann/c/d/f"}, 0, 0});
  journal.noteEvent({Kind::Renamed, {"/home/ann/e/f", "/home/ann/g/h/i"}, 0, 0});
  const auto changes = changesSince(journal, "/home/ann", mark);
  for (const char* path : {"/home/ann/a", "/home/ann/b", "/home/ann/m", "/home/ann/c/d", "/home/ann/c", "/home/ann/e", "/home/ann/g/h",
                           "/home/ann/g", "/home/ann/g/h/i"})
    EXPECT_TRUE(changes.listingChanged(path)) << path;
  EXPECT_EQ(changes.subtreeCount(), 3u);
  journal.noteEvent({Kind::Dropped, {}, 0, 0});
  EXPECT_FALSE(journal.changesSince("/home/ann", mark).has_value());
}


TEST(QSChangeJournalTest, TheEnginesOwnFolderInAHomeCountsAsChangedWhateverTheMark) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  journal.noteOwnFolder("/home/ann/Library/Application Support/Vornhalden/");
  const auto changes = changesSince(journal, "/home/ann", journal.now());
  EXPECT_TRUE(changes.listingChanged("/home/ann/Library/Application Support/Vornhalden"));
  EXPECT_TRUE(changes.listingChanged("/home/ann/Library/Application Support/Vornhalden/caches"));
  EXPECT_TRUE(changes.listingChanged("/home/ann/Library/Application Support"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/Library"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/Documents"));
  journal.follow("/home/bob");
  EXPECT_TRUE(changesSince(journal, "/home/bob", journal.now()).empty());
}

TEST(QSChangeJournalTest, ChangesUpToAMarkCanBeForgottenAndAnEarlierMarkThenCannotTell) {
  QSChangeJournal journal;
  journal.follow("/home/ann");
  const auto start = journal.now();
  journal.noteContentChange("/home/ann/a/x");
  journal.noteStructuralChange("/home/ann/b/y");
  const auto middle = journal.now();
  journal.noteContentChange("/home/ann/c/z");
  EXPECT_EQ(journal.size(), 5u);  // a; b, the home folder and b/y below; c
  journal.forgetChangesUpTo(middle);
  EXPECT_EQ(journal.size(), 1u);
  EXPECT_FALSE(journal.canTell("/home/ann", start));
  EXPECT_FALSE(journal.changesSince("/home/ann", start).has_value());
  const auto changes = changesSince(journal, "/home/ann", middle);
  EXPECT_TRUE(changes.listingChanged("/home/ann/c"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/a"));
  EXPECT_FALSE(changes.listingChanged("/home/ann/b/y"));
  // Forgetting up to an earlier mark again changes nothing.
  journal.forgetChangesUpTo(start);
  EXPECT_TRUE(journal.canTell("/home/ann", middle));
  EXPECT_EQ(journal.size(), 1u);
}
