// The server's side of the pipeline: the scheduling timer, clients'
// requests, tokens riding on a running count, cancelling and the record of
// a finished backup.  Stage threads are not started; the tests run the
// first stage's cycle and the second stage's job by hand.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/server/QSSkerrowServer.h"
#include "tests/support/RecordingClient.h"
#include "tests/support/ServerFixture.h"

using skerrow_test::RecordingClient;
using skerrow_test::ServerFixture;

namespace {

// A managed backup of ann's on a mounted disk, with its environments.
struct Managed : ServerFixture {
  std::string mount;
  std::shared_ptr<QSBackupEntry> entry;
  std::shared_ptr<RecordingClient> ann, bob;

  explicit Managed(Options options = Options(), std::set<std::string> categories = {"Documents"})
      : ServerFixture(std::move(options)) {
    mount = disk("Backup");
    entry = adoptBackup(mount, "UID-A", "ann", categories);
    entry->setPeriod(3600);
    entry->setVersionDepth(2);
    dir.write("home/ann/Documents/report.txt", "quarterly figures");
    dir.write("home/ann/Documents/notes.txt", "notes");
    server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", mount, "Backup");
    ann = std::make_shared<RecordingClient>("ann", annHome);
    bob = std::make_shared<RecordingClient>("bob", bobHome);
  }
  std::shared_ptr<QSUserEnvironment> user() const { return server->firstStage()->environmentForUser("ann"); }
  std::shared_ptr<QSPerUIDEnvironment> destination() const {
    return server->secondStage()->environmentForUID("UID-A");
  }
  std::string backupFolder() const { return storage(mount) + "/UID-A"; }
};

}  // namespace

TEST(QSSkerrowServerDispatchTest, ScheduledEntryDueExactlyNowIsNotStartedAndTheWaitIsLoggedAsZero) {
  Managed m;
  m.entry->setCompletionDate(m.clock.addingTimeInterval(-3600));
  m.server->callbackForJobSchedulingTimer();
  EXPECT_TRUE(m.log.contains("Will start backup UID-A in 0.000000 seconds"));
  EXPECT_FALSE(m.log.contains("Starting a scheduled backup"));
  EXPECT_EQ(m.user()->queueCount(), 0u);

  m.clock = m.clock.addingTimeInterval(0.5);
  m.server->callbackForJobSchedulingTimer();
  EXPECT_EQ(m.log.count("Starting a scheduled backup for UID-A"), 1u);
  EXPECT_EQ(m.user()->queueCount(), 1u);
}

TEST(QSSkerrowServerDispatchTest, EntryThatNeverCompletedIsDueAtOnceAndAWaitingOneLogsItsWait) {
  Managed m;
  m.server->callbackForJobSchedulingTimer();
  EXPECT_EQ(m.log.count("Starting a scheduled backup for UID-A"), 1u);
  m.entry->setCompletionDate(m.clock.addingTimeInterval(-600));
  m.server->callbackForJobSchedulingTimer();
  EXPECT_TRUE(m.log.contains("Will start backup UID-A in 3000.000000 seconds"));
}

TEST(QSSkerrowServerDispatchTest, WithNoScheduleAnUnscheduledEntryIsStillNeverStartedByTheTimer) {
  ServerFixture::Options options;
  options.arguments = {"-noRealtime", "-noSchedule"};
  Managed m(options);
  m.entry->setScheduled(false);
  m.server->callbackForJobSchedulingTimer();
  EXPECT_FALSE(m.log.contains("Starting UNSCHEDULED backup"));
  EXPECT_EQ(m.user()->queueCount(), 0u);
  m.entry->setScheduled(true);
  m.entry->setCompletionDate(m.clock);  // not due, but schedules are not followed
  m.server->callbackForJobSchedulingTimer();
  EXPECT_EQ(m.log.count("Starting UNSCHEDULED backup for UID-A"), 1u);
  EXPECT_EQ(m.user()->queueCount(), 1u);
}

TEST(QSSkerrowServerDispatchTest, BackupRequestWhileATallyOfTheSameUIDRunsUpgradesItAndMakesNoSecondToken) {
  Managed m;
  m.server->startTally_forClient("UID-A", m.ann);
  m.user()->runCycle();  // the count of the home folder hands the token to the destination
  const auto running = m.destination()->currentToken();
  ASSERT_NE(running, nullptr);
  EXPECT_FALSE(running->wantsBackup());

  m.server->startBackup_forClient("UID-A", m.ann);
  EXPECT_TRUE(m.log.contains("Will try to piggyback if possible"));
  EXPECT_EQ(m.log.count("Did piggiback onto source tally"), 1u);
  EXPECT_EQ(m.destination()->currentToken(), running);
  EXPECT_TRUE(running->wantsBackup());
  EXPECT_EQ(running->versionDepth(), 2u);
  EXPECT_EQ(running->context(), (std::set<std::string>{"Documents"}));
  EXPECT_EQ(m.user()->queueCount(), 0u);
}

TEST(QSSkerrowServerDispatchTest, TallyRequestWhileAnythingOfTheSameUIDRunsIsEnqueuedAsANewToken) {
  Managed m;
  m.server->startBackup_forClient("UID-A", m.ann);
  m.user()->runCycle();
  const auto running = m.destination()->currentToken();
  ASSERT_NE(running, nullptr);
  m.server->startTally_forClient("UID-A", m.ann);
  EXPECT_EQ(m.user()->queueCount(), 1u);
  EXPECT_EQ(m.destination()->currentToken(), running);
  EXPECT_FALSE(m.log.contains("Did piggiback onto source tally"));
}

TEST(QSSkerrowServerDispatchTest, ClientOfAnotherUserCannotStartScheduleOrUnscheduleTheBackupButCanCancelIt) {
  Managed m;
  m.server->startBackup_forClient("UID-A", m.bob);
  m.server->startTally_forClient("UID-A", m.bob);
  EXPECT_EQ(m.user()->queueCount(), 0u);

  m.entry->setScheduled(false);
  m.server->rescheduleBackupsForClient_uid_startImmediately(m.bob, "UID-A", true);
  m.server->rescheduleBackupsForClient_startImmediately(m.bob, true);
  EXPECT_FALSE(m.entry->isScheduled());
  EXPECT_EQ(m.user()->queueCount(), 0u);

  m.entry->setScheduled(true);
  m.server->cancelAndUnscheduleJobsForClient(m.bob);
  EXPECT_TRUE(m.entry->isScheduled());

  m.server->startBackup_forClient("UID-A", m.ann);
  ASSERT_EQ(m.user()->queueCount(), 1u);
  m.server->cancelPipe_forClient("UID-A", m.bob);
  EXPECT_EQ(m.user()->queueCount(), 0u);
  EXPECT_TRUE(m.user()->isPipeCancelled());
  EXPECT_TRUE(m.destination()->isPipeCancelled());
}

TEST(QSSkerrowServerDispatchTest, OwnerCanRescheduleStartAndUnscheduleTheBackup) {
  Managed m;
  m.entry->setScheduled(false);
  m.server->rescheduleBackupsForClient_uid_startImmediately(m.ann, "UID-A", true);
  EXPECT_TRUE(m.entry->isScheduled());
  EXPECT_EQ(m.user()->queueCount(), 1u);
  m.server->cancelAndUnscheduleJobsForClient(m.ann);
  EXPECT_FALSE(m.entry->isScheduled());
  EXPECT_TRUE(m.user()->isPipeCancelled());
  EXPECT_FALSE(m.log.contains("Server did save to permanent store"));
}

TEST(QSSkerrowServerDispatchTest, ClientThatHasGoneAwayStartsNothing) {
  Managed m;
  m.ann->goAway();
  m.server->startBackup_forClient("UID-A", m.ann);
  m.server->startTally_forClient("", m.ann);
  m.server->rescheduleBackupsForClient_startImmediately(m.ann, true);
  EXPECT_EQ(m.user()->queueCount(), 0u);
  EXPECT_FALSE(m.log.contains("Will try to piggyback if possible"));
}

TEST(QSSkerrowServerDispatchTest, TallyWithAnEmptyUIDGoesToTheClientsUserFirstStageOnly) {
  Managed m;
  m.server->startTally_forClient("", m.ann);
  EXPECT_EQ(m.user()->queueCount(), 1u);
  EXPECT_FALSE(m.log.contains("Will try to piggyback if possible"));
  m.user()->setClient(m.ann);
  m.user()->runCycle();
  EXPECT_EQ(m.destination()->currentToken(), nullptr);
  EXPECT_EQ(m.ann->names(), (std::vector<std::string>{"startedSourceTally", "finishedSourceTally"}));
  EXPECT_EQ(m.ann->calls().back().sourceFiles, 2);
}

TEST(QSSkerrowServerDispatchTest, BackupOfAnEntryWithNoScheduledCategoryIsNeverEnqueued) {
  ServerFixture::Options options;
  Managed m(options, {});
  m.server->startBackup_forClient("UID-A", m.ann);
  m.server->startBackup_forClient("UID-A", nullptr);
  EXPECT_EQ(m.user()->queueCount(), 0u);
  // A tally of the same backup still goes ahead.
  m.server->startTally_forClient("UID-A", m.ann);
  EXPECT_EQ(m.user()->queueCount(), 1u);
}

TEST(QSSkerrowServerDispatchTest, BackupOfAnUnmountedEntryIsDropped) {
  Managed m;
  m.server->diskDidDisapperAtMountPoint(m.mount);
  m.server->startBackup_forClient("UID-A", nullptr);
  EXPECT_EQ(m.user()->queueCount(), 0u);
}

TEST(QSSkerrowServerDispatchTest, FinishedBackupCopiesTheFilesRecordsTheCompletionDateAndSaves) {
  Managed m;
  m.user()->setClient(m.ann);
  m.server->startBackup_forClient("UID-A", nullptr);
  m.user()->runCycle();
  const auto token = m.destination()->currentToken();
  ASSERT_NE(token, nullptr);
  m.destination()->runJobWithToken(token);
  EXPECT_EQ(m.destination()->stage(), QSPerUIDEnvironment::kStageFinished);
  EXPECT_EQ(m.destination()->currentToken(), nullptr);
  EXPECT_TRUE(m.ann->errors().empty());
  EXPECT_EQ(m.ann->names(), (std::vector<std::string>{"startedSourceTally", "finishedSourceTally",
                                                       "startedDestinationTally", "finishedDestinationTally",
                                                       "startedTransferTally", "finishedTransferTally"}));
  const auto calls = m.ann->calls();
  EXPECT_EQ(calls[1].sourceFiles, 2);       // both files of Documents
  EXPECT_EQ(calls[3].destinationFiles, 0);  // nothing stored yet
  EXPECT_EQ(calls[3].expectedFiles, 2);     // the dry run: both would be copied
  EXPECT_EQ(calls[5].transferredFiles, 2);
  EXPECT_EQ(calls[5].destinationFiles, 2);
  EXPECT_TRUE(std::filesystem::is_regular_file(m.backupFolder() + "/Documents/report@0.txt"));
  EXPECT_TRUE(std::filesystem::is_regular_file(m.backupFolder() + "/Documents/notes@0.txt"));

  EXPECT_EQ(m.entry->completionDate(), platform::Date::distantPast());  // recorded on the main loop
  m.clock = m.clock.addingTimeInterval(42);
  m.loop.runPending();
  EXPECT_EQ(m.entry->completionDate(), m.clock);
  EXPECT_EQ(m.log.count("Server did save to permanent store: 1"), 1u);

  ServerFixture again(ServerFixture::Options::atRoot(m.dir / "root"));
  ASSERT_NE(again.server->backupEntryWithUID("UID-A"), nullptr);
  EXPECT_EQ(again.server->backupEntryWithUID("UID-A")->completionDate(), m.clock);
}

TEST(QSSkerrowServerDispatchTest, FinishedTallyRecordsNoCompletionDate) {
  Managed m;
  m.server->startTally_forClient("UID-A", m.ann);
  m.user()->runCycle();
  m.destination()->runJobWithToken(m.destination()->currentToken());
  m.loop.runPending();
  EXPECT_EQ(m.entry->completionDate(), platform::Date::distantPast());
  EXPECT_FALSE(std::filesystem::exists(m.backupFolder() + "/Documents"));
}

TEST(QSSkerrowServerDispatchTest, BackupServiceForClientAdmitsTheUserAndAttachesTheClientAtTheNextPass) {
  Managed m;
  EXPECT_TRUE(m.server->backupServiceForClient(m.ann));
  EXPECT_EQ(m.user()->client()->proxiedObject(), nullptr);
  m.loop.runPending();
  EXPECT_EQ(m.user()->client()->proxiedObject(), m.ann);
  auto stranger = std::make_shared<RecordingClient>("nobody-here", "/");
  EXPECT_FALSE(m.server->backupServiceForClient(stranger));
  auto system = std::make_shared<RecordingClient>("daemon", "/");
  EXPECT_FALSE(m.server->backupServiceForClient(system));
}

TEST(QSSkerrowServerDispatchTest, ChangesOfTheEntryReachItsDestinationEnvironmentAndOnlyItsOwn) {
  Managed m;
  auto other = m.adoptBackup(m.mount, "UID-B", "ann");
  m.server->diskDidAppearWithBSDName_mountPath_onVolume("sdb1", m.mount, "Backup");
  m.entry->setVersionDepth(7);
  m.entry->setScheduled(false);
  m.entry->categoryWithIdentifier(kMusicCategoryIdentifier)->setScheduled(true);
  EXPECT_EQ(m.destination()->versionDepth(), 7u);
  EXPECT_FALSE(m.destination()->isScheduled());
  EXPECT_EQ(*m.destination()->categoryFilter(), (std::set<std::string>{"Documents", "Music"}));
  const auto b = m.server->secondStage()->environmentForUID("UID-B");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->versionDepth(), 0u);
  EXPECT_TRUE(b->isScheduled());
  // A new mount point is taken only where the storage folder exists.
  const std::string elsewhere = m.disk("Elsewhere");
  m.entry->setMountPoint(elsewhere);
  EXPECT_EQ(*m.destination()->destinationPath(), m.storage(m.mount) + "/UID-A");
  std::filesystem::create_directories(m.storage(elsewhere));
  m.entry->setMountPoint(elsewhere);
  EXPECT_EQ(*m.destination()->destinationPath(), m.storage(elsewhere) + "/UID-A");
}
