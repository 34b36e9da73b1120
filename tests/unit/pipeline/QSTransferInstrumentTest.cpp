#include "Engine/pipeline/QSTransferInstrument.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Engine/files/QSDestinationTraits.h"
#include "Engine/files/QSFSDepthFirstTreeTraversal.h"
#include "tests/support/PipelineTestSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::Counts;
using skerrow_test::destinationCounts;
using skerrow_test::expectedCounts;
using skerrow_test::listing;
using skerrow_test::nodeAt;
using skerrow_test::sourceCounts;
using skerrow_test::transferredCounts;
using Listing = std::vector<std::string>;

namespace {

constexpr const char* kSameNameMessage = "Unable to create directory because a file with same name already exists";
constexpr const char* kCreateMessage = "Unable to create directory at %@";

}  // namespace

// A home folder "ann" and a backup folder "disk/U"; each walk runs a fresh
// instrument over the merged tree, as a backup's per-destination
// environment does.
class QSTransferInstrumentTest : public ::testing::Test {
 protected:
  void SetUp() override { skerrow_test::useShippedBlackList(); }

  std::shared_ptr<QSFSMutableNode> tree() const { return skerrow_test::mergedTreeOf(home, destination); }

  void walk(const std::shared_ptr<QSFSMutableNode>& root, bool dryRun, uint32_t depth = 2,
            std::optional<std::set<std::string>> categories = skerrow_test::allCategories(),
            const std::atomic<bool>* flag = nullptr, std::shared_ptr<const QSTransferPlan> plan = nullptr) {
    tally = QSMutableTally::init();
    recorder.failures.clear();
    instrument = std::make_unique<QSTransferInstrument>(home, destination, std::move(categories), tally, depth);
    instrument->setDryRun(dryRun);
    instrument->setDelegate(&recorder);
    instrument->setDestinationTraits(QSDestinationTraits::probe(destination));
    instrument->setTerminationFlag(flag);
    instrument->setPlan(std::move(plan));
    QSFSDepthFirstTreeTraversal(flag).traverseTree_withVisitor(root, *instrument);
  }

  // One real backup of the home folder as it is now.
  void backUp(uint32_t depth = 2) { walk(tree(), false, depth); }

  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  std::string destination = dir.mkdir("disk/U");
  skerrow_test::FailureRecorder recorder;
  std::shared_ptr<QSMutableTally> tally;
  std::unique_ptr<QSTransferInstrument> instrument;
};

TEST_F(QSTransferInstrumentTest, AFileWhoseNewestCopyHasTheSameSizeAndBothDatesIsNeitherCopiedNorCountedInADryRunEither) {
  dir.write("ann/Documents/a.txt", "hello");
  backUp();
  ASSERT_TRUE(recorder.failures.empty());
  ASSERT_EQ(listing(destination), (Listing{"Documents/", "Documents/a@0.txt"}));

  const auto root = tree();
  const auto node = nodeAt(root, "Documents/a.txt");
  ASSERT_NE(node, nullptr);
  ASSERT_TRUE(node->hasVersions());
  // The stored copy matches its source in size and both dates.
  const QSFSFileAttributes stored = node->latestVersion()->attributes();
  EXPECT_EQ(stored.size, node->sourceAttributes().size);
  EXPECT_EQ(stored.modificationDate, node->sourceAttributes().modificationDate);
  EXPECT_EQ(stored.creationDate, node->sourceAttributes().creationDate);

  walk(root, true);
  EXPECT_EQ(expectedCounts(*tally, "Documents"), (Counts{0, 0}));
  walk(root, false);
  EXPECT_TRUE(recorder.failures.empty());
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{0, 0}));
  EXPECT_EQ(destinationCounts(*tally, "Documents"), (Counts{0, 0}));
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/a@0.txt"}));
}

TEST_F(QSTransferInstrumentTest, FirstBackupStoresVersionZeroAsANewFileAndALaterChangeStoresVersionOneCountingTheSizeDifference) {
  dir.write("ann/Documents/a.txt", "hello");
  backUp();
  ASSERT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/a@0.txt"}));
  EXPECT_EQ(dir.read("disk/U/Documents/a@0.txt"), "hello");
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{1, 5}));
  EXPECT_EQ(destinationCounts(*tally, "Documents"), (Counts{1, 5}));
  EXPECT_EQ(expectedCounts(*tally, "Documents"), (Counts{0, 0}));

  dir.write("ann/Documents/a.txt", "hello, world");
  backUp();
  ASSERT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/a@0.txt", "Documents/a@1.txt"}));
  EXPECT_EQ(dir.read("disk/U/Documents/a@0.txt"), "hello");
  EXPECT_EQ(dir.read("disk/U/Documents/a@1.txt"), "hello, world");
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{1, 12}));
  EXPECT_EQ(destinationCounts(*tally, "Documents"), (Counts{0, 7}));
}

TEST_F(QSTransferInstrumentTest, AChangedFileThatShrankAddsANegativeByteDifferenceToTheDestinationView) {
  dir.write("ann/a.txt", "hello, world");
  backUp();
  dir.write("ann/a.txt", "hi");
  backUp();
  ASSERT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), (Listing{"a@0.txt", "a@1.txt"}));
  EXPECT_EQ(transferredCounts(*tally, "Other"), (Counts{1, 2}));
  EXPECT_EQ(destinationCounts(*tally, "Other"), (Counts{0, -10}));
}

TEST_F(QSTransferInstrumentTest, WithVersionDepthTwoAChangeToAFileWithThreeCopiesStoresVersionThreeAndPrunesVersionZero) {
  const std::vector<std::string> contents = {"v0", "v1.", "v2..", "v3..."};
  for (size_t i = 0; i < 3; ++i) {
    dir.write("ann/Documents/a.txt", contents[i]);
    backUp(2);
    ASSERT_TRUE(recorder.failures.empty());
  }
  ASSERT_EQ(listing(destination),
            (Listing{"Documents/", "Documents/a@0.txt", "Documents/a@1.txt", "Documents/a@2.txt"}));

  dir.write("ann/Documents/a.txt", contents[3]);
  backUp(2);
  ASSERT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination),
            (Listing{"Documents/", "Documents/a@1.txt", "Documents/a@2.txt", "Documents/a@3.txt"}));
  EXPECT_EQ(dir.read("disk/U/Documents/a@1.txt"), "v1.");
  EXPECT_EQ(dir.read("disk/U/Documents/a@3.txt"), "v3...");
}

TEST_F(QSTransferInstrumentTest, PruningKeepsTheNewCopyAndVersionDepthOlderOnes) {
  // Depth 0: only the newest copy stays.
  dir.write("ann/a.txt", "1");
  backUp(0);
  dir.write("ann/a.txt", "22");
  backUp(0);
  EXPECT_EQ(listing(destination), (Listing{"a@1.txt"}));
  EXPECT_EQ(dir.read("disk/U/a@1.txt"), "22");

  // Depth 1: the newest and one older copy.
  dir.write("ann/b.txt", "1");
  for (const char* content : {"22", "333", "4444"}) {
    backUp(1);
    dir.write("ann/b.txt", content);
  }
  backUp(1);
  ASSERT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), (Listing{"a@1.txt", "b@2.txt", "b@3.txt"}));
  EXPECT_EQ(dir.read("disk/U/b@3.txt"), "4444");
}

TEST_F(QSTransferInstrumentTest, APlainFileWhereADestinationFolderBelongsIsReportedOnceAndEachFileBelowItFailsOnItsOwn) {
  dir.write("ann/Documents/Work/x.txt", "x");
  dir.write("ann/Documents/Work/y.txt", "yy");
  dir.write("disk/U/Documents/Work", "not a folder");
  backUp();

  ASSERT_EQ(recorder.failures.size(), 3u);
  const QSBackupError& folder = recorder.failures[0].error;
  EXPECT_EQ(folder.code(), 0);
  EXPECT_EQ(folder.message(), kSameNameMessage);
  EXPECT_EQ(folder.destinationPath(), destination + "/Documents/Work");
  EXPECT_EQ(folder.sourcePath(), std::nullopt);
  EXPECT_EQ(folder.uid(), std::nullopt);

  std::set<std::string> failedSources, failedDestinations;
  for (size_t i = 1; i < 3; ++i) {
    const QSBackupError& file = recorder.failures[i].error;
    EXPECT_EQ(file.code(), -1);
    EXPECT_NE(file.message(), kSameNameMessage);
    failedSources.insert(file.sourcePath().value_or(""));
    failedDestinations.insert(file.destinationPath());
  }
  EXPECT_EQ(failedSources, (std::set<std::string>{home + "/Documents/Work/x.txt", home + "/Documents/Work/y.txt"}));
  EXPECT_EQ(failedDestinations,
            (std::set<std::string>{destination + "/Documents/Work/x@0.txt", destination + "/Documents/Work/y@0.txt"}));
  // Each failure was judged with the failures before it.
  EXPECT_EQ(recorder.failures[0].contiguousCount, 0);
  EXPECT_EQ(recorder.failures[1].contiguousCount, 1);
  EXPECT_EQ(recorder.failures[2].contiguousCount, 2);
  EXPECT_EQ(dir.read("disk/U/Documents/Work"), "not a folder");
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{0, 0}));
}

TEST_F(QSTransferInstrumentTest, ADryRunCreatesNothingReportsNothingAndCountsEveryNewOrChangedFileAsExpectedOnly) {
  dir.write("ann/Documents/same.txt", "same");
  dir.write("ann/Documents/changed.txt", "before");
  backUp();
  ASSERT_TRUE(recorder.failures.empty());

  dir.write("ann/Documents/changed.txt", "after!!");  // 7 bytes
  dir.write("ann/Documents/New/new.txt", "new");      // 3 bytes, in a folder missing at the destination
  dir.write("ann/Documents/gone.txt", "gone");        // 4 bytes, removed before the walk
  dir.write("ann/Pictures/p.jpg", "jpeg");            // 4 bytes, where a file blocks the folder
  dir.write("disk/U/Pictures", "a file where a folder belongs");
  const Listing before = listing(destination);
  const auto root = tree();
  std::filesystem::remove(home + "/Documents/gone.txt");

  walk(root, true);
  EXPECT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), before);
  EXPECT_EQ(expectedCounts(*tally, "Documents"), (Counts{3, 7 + 3 + 4}));
  EXPECT_EQ(expectedCounts(*tally, "Pictures"), (Counts{1, 4}));
  for (const char* category : kAllCategories) {
    EXPECT_EQ(transferredCounts(*tally, category), (Counts{0, 0})) << category;
    EXPECT_EQ(destinationCounts(*tally, category), (Counts{0, 0})) << category;
    EXPECT_EQ(sourceCounts(*tally, category), (Counts{0, 0})) << category;
  }

  // Copied for real, the same tree meets the failures the dry run could not.
  walk(root, false);
  EXPECT_EQ(recorder.failures.size(), 3u);
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{2, 7 + 3}));
}

TEST_F(QSTransferInstrumentTest, ACopyThatFailsOnANearlyFullDiskCarriesCodeMinus1429) {
  const std::string disk = dir.mkdir("small");
  skerrow_test::SmallFileSystem small(disk, "64k");
  if (!small.mounted()) GTEST_SKIP() << "a tmpfs cannot be mounted here: " << std::strerror(errno);
  destination = dir.mkdir("small/U");
  dir.write("ann/Documents/small.txt", "fits");
  dir.write("ann/Documents/big.bin", std::string(256 * 1024, 'b'));
  backUp();

  ASSERT_EQ(recorder.failures.size(), 1u);
  const QSBackupError& error = recorder.failures[0].error;
  EXPECT_EQ(error.code(), -1429);
  EXPECT_EQ(error.sourcePath(), home + "/Documents/big.bin");
  EXPECT_EQ(error.destinationPath(), destination + "/Documents/big@0.bin");
  EXPECT_EQ(error.sourceBytes(), 256 * 1024);
  EXPECT_EQ(instrument->copyError().code, ENOSPC);
  EXPECT_EQ(error.message(), instrument->copyError().localizedFailureReason());
  // The small file went through; nothing is left of the big one.
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/small@0.txt"}));
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{1, 4}));
}

TEST_F(QSTransferInstrumentTest, ACopyThatFailsWithRoomToSpareCarriesCodeMinusOneAndThePlatformsReason) {
  dir.write("ann/Documents/a.txt", "hello");
  const auto root = tree();
  const QSFSFileAttributes source = nodeAt(root, "Documents/a.txt")->sourceAttributes();
  std::filesystem::remove(home + "/Documents/a.txt");
  walk(root, false);

  ASSERT_EQ(recorder.failures.size(), 1u);
  const QSBackupError& error = recorder.failures[0].error;
  EXPECT_EQ(error.code(), -1);
  EXPECT_EQ(error.uid(), std::nullopt);
  EXPECT_EQ(error.sourcePath(), home + "/Documents/a.txt");
  EXPECT_EQ(error.destinationPath(), destination + "/Documents/a@0.txt");
  EXPECT_EQ(error.message(), instrument->copyError().localizedFailureReason());
  EXPECT_NE(error.message().find(std::strerror(ENOENT)), std::string::npos) << error.message();
  EXPECT_EQ(error.sourceBytes(), 5);
  ASSERT_TRUE(error.sourceModificationDate().has_value());
  EXPECT_EQ(*error.sourceModificationDate(), platform::Date(source.modificationDate));
  EXPECT_EQ(listing(destination), (Listing{"Documents/"}));
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{0, 0}));
  EXPECT_EQ(destinationCounts(*tally, "Documents"), (Counts{0, 0}));
}

TEST_F(QSTransferInstrumentTest, FolderFailuresCarryCodeZeroAndTheirTwoFixedMessages) {
  // The backup's "Documents" is a link to a folder elsewhere: it is not a
  // folder of the backup, and nothing may be created through it.
  const std::string elsewhere = dir.mkdir("elsewhere");
  ASSERT_EQ(::symlink(elsewhere.c_str(), (destination + "/Documents").c_str()), 0);
  dir.write("ann/Documents/Sub/f.txt", "f");
  backUp();

  ASSERT_EQ(recorder.failures.size(), 3u);
  const QSBackupError& blocked = recorder.failures[0].error;
  EXPECT_EQ(blocked.code(), 0);
  EXPECT_EQ(blocked.message(), kSameNameMessage);
  EXPECT_EQ(blocked.destinationPath(), destination + "/Documents");
  const QSBackupError& uncreated = recorder.failures[1].error;
  EXPECT_EQ(uncreated.code(), 0);
  EXPECT_EQ(uncreated.message(), kCreateMessage);  // passed as it stands
  EXPECT_EQ(uncreated.destinationPath(), destination + "/Documents/Sub");
  EXPECT_EQ(uncreated.sourcePath(), std::nullopt);
  EXPECT_EQ(uncreated.uid(), std::nullopt);
  EXPECT_EQ(uncreated.sourceBytes(), 0);
  // The file below then fails to copy; the disk has room, so it is not a full-disk failure.
  EXPECT_EQ(recorder.failures[2].error.code(), -1);
  EXPECT_EQ(recorder.failures[2].error.sourcePath(), home + "/Documents/Sub/f.txt");
  EXPECT_EQ(recorder.failures[2].error.destinationPath(), destination + "/Documents/Sub/f@0.txt");
  EXPECT_TRUE(listing(elsewhere).empty());
}

TEST_F(QSTransferInstrumentTest, FailuresSeparatedOnlyBySuccessfulCopiesStillCountAsContiguous) {
  dir.write("ann/Documents/good.txt", "good");
  dir.write("ann/Documents/bad1.txt", "1");
  dir.write("ann/Documents/bad2.txt", "2");
  const auto root = tree();
  std::filesystem::remove(home + "/Documents/bad1.txt");
  std::filesystem::remove(home + "/Documents/bad2.txt");
  walk(root, false);

  ASSERT_EQ(recorder.failures.size(), 2u);
  EXPECT_EQ(recorder.failures[0].contiguousCount, 0);
  EXPECT_EQ(recorder.failures[1].contiguousCount, 1);
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/good@0.txt"}));
  // The count is back to 0 once the walk has ended.
  EXPECT_EQ(instrument->contiguousFailedCopyCount(), 0);
}

TEST_F(QSTransferInstrumentTest, ATerminationFlagSetBeforeTheWalkCopiesAndCountsNothing) {
  dir.write("ann/Documents/a.txt", "a");
  dir.write("ann/b.txt", "b");
  const std::atomic<bool> stop{true};
  walk(tree(), false, 2, skerrow_test::allCategories(), &stop);
  EXPECT_TRUE(listing(destination).empty());
  EXPECT_TRUE(recorder.failures.empty());
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{0, 0}));
  EXPECT_EQ(transferredCounts(*tally, "Other"), (Counts{0, 0}));
}

TEST_F(QSTransferInstrumentTest, ATerminationFlagSetByTheDelegateStopsTheCopiesThatFollow) {
  // The same layout as the blocked-folder case, which reports three
  // failures; stopping at the first leaves the files below unattempted.
  dir.write("ann/Documents/Work/x.txt", "x");
  dir.write("ann/Documents/Work/y.txt", "yy");
  dir.write("disk/U/Documents/Work", "not a folder");
  std::atomic<bool> stop{false};
  recorder.onFailure = [&stop](const QSBackupError&) { stop.store(true); };
  walk(tree(), false, 2, skerrow_test::allCategories(), &stop);
  ASSERT_EQ(recorder.failures.size(), 1u);
  EXPECT_EQ(recorder.failures[0].error.message(), kSameNameMessage);
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/Work"}));
}

TEST_F(QSTransferInstrumentTest, FoldersAndFilesOutsideTheCategoryFilterAreSkippedWithoutAReport) {
  dir.write("ann/Documents/d.txt", "doc");
  dir.write("ann/Pictures/p.jpg", "pic");
  dir.write("disk/U/Pictures", "a file where a folder belongs");
  backUp(2);  // all categories: the blocked Pictures folder is reported
  EXPECT_FALSE(recorder.failures.empty());

  std::filesystem::remove_all(destination + "/Documents");
  walk(tree(), false, 2, std::set<std::string>{"Documents"});
  EXPECT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/d@0.txt", "Pictures"}));
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{1, 3}));
  EXPECT_EQ(transferredCounts(*tally, "Pictures"), (Counts{0, 0}));

  // A filter of nothing meets no category.
  std::filesystem::remove_all(destination + "/Documents");
  walk(tree(), false, 2, std::nullopt);
  EXPECT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), (Listing{"Pictures"}));
}

TEST_F(QSTransferInstrumentTest, ADryRunPlansTheFoldersOnTheWayToWorkAndATransferFollowingThePlanOpensNoOther) {
  dir.write("ann/Documents/a/b/changed.txt", "one");
  dir.write("ann/Documents/x/y/same.txt", "same");
  dir.write("ann/Pictures/p.jpg", "pic");
  backUp();
  ASSERT_TRUE(recorder.failures.empty());
  dir.write("ann/Documents/a/b/changed.txt", "one, longer now");
  std::filesystem::create_directories(home + "/Music/new/empty");

  const auto root = tree();
  walk(root, true);
  const auto plan = instrument->plan();
  ASSERT_NE(plan, nullptr);
  for (const char* folder : {"Documents", "Documents/a", "Documents/a/b", "Music", "Music/new", "Music/new/empty"})
    EXPECT_TRUE(plan->opens(nodeAt(root, folder).get())) << folder;
  EXPECT_TRUE(plan->opens(root.get()));
  for (const char* folder : {"Documents/x", "Documents/x/y", "Pictures"})
    EXPECT_FALSE(plan->opens(nodeAt(root, folder).get())) << folder;
  EXPECT_EQ(plan->folderCount(), 7u);

  // A folder the dry run saw in the backup folder, away from any work, is
  // not looked at again: taken away now, it is not made again by this transfer.
  std::filesystem::remove_all(destination + "/Documents/x");
  walk(root, false, 2, skerrow_test::allCategories(), nullptr, plan);
  EXPECT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination),
            (Listing{"Documents/", "Documents/a/", "Documents/a/b/", "Documents/a/b/changed@0.txt",
                     "Documents/a/b/changed@1.txt", "Music/", "Music/new/", "Music/new/empty/", "Pictures/",
                     "Pictures/p@0.jpg"}));
  EXPECT_EQ(transferredCounts(*tally, "Documents"), (Counts{1, 15}));

  // Without a plan the same transfer opens every folder and makes the missing one again.
  walk(tree(), false);
  EXPECT_TRUE(std::filesystem::is_directory(destination + "/Documents/x/y"));
}

TEST_F(QSTransferInstrumentTest, APlanMadeWithAnotherCategoryFilterIsIgnoredByTheTransfer) {
  dir.write("ann/Documents/d.txt", "doc");
  dir.write("ann/Pictures/p.jpg", "pic");
  const auto root = tree();
  walk(root, true, 2, std::set<std::string>{"Documents"});
  const auto plan = instrument->plan();
  ASSERT_NE(plan, nullptr);
  EXPECT_FALSE(plan->opens(nodeAt(root, "Pictures").get()));
  // Pictures joined the backup between its dry run and its transfer.
  walk(root, false, 2, skerrow_test::allCategories(), nullptr, plan);
  EXPECT_TRUE(recorder.failures.empty());
  EXPECT_EQ(listing(destination), (Listing{"Documents/", "Documents/d@0.txt", "Pictures/", "Pictures/p@0.jpg"}));
}

TEST_F(QSTransferInstrumentTest, ADryRunThatWasStoppedLeavesNoPlan) {
  dir.write("ann/Documents/d.txt", "doc");
  std::atomic<bool> stop{true};
  walk(tree(), true, 2, skerrow_test::allCategories(), &stop);
  EXPECT_EQ(instrument->plan(), nullptr);
  walk(tree(), true);
  EXPECT_NE(instrument->plan(), nullptr);
}
