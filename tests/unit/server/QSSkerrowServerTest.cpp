#include "Engine/server/QSSkerrowServer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "platform/Log.h"
#include "platform/ManualRunLoop.h"
#include "platform/Workspace.h"
#include "tests/support/TempDir.h"

namespace {

struct Started {
  skerrow_test::TempDir dir;
  platform::ManualRunLoop loop;
  platform::NotificationCenter workspace;
  platform::LogCapture log;
  platform::FixedAccountDirectory accounts{{}};
  std::shared_ptr<QSSkerrowServer> server;

  explicit Started(std::vector<std::string> options) {
    QSServerEnvironment env;
    env.arguments = {"/usr/sbin/skerrowd"};
    env.arguments.insert(env.arguments.end(), options.begin(), options.end());
    env.invokingUserHome = dir.mkdir("home/ann");
    env.storeRoot = dir.mkdir("root");
    env.runLoop = &loop;
    env.workspace = &workspace;
    env.accounts = &accounts;
    server = QSSkerrowServer::initWithEnvironment(env);
  }
};

}  // namespace

TEST(QSSkerrowServerTest, NoScheduleInAnyLetterCaseHasTheSameEffectAndIsLoggedPerOccurrence) {
  Started s({"-NOSCHEDULE", "-noschedule"});
  EXPECT_FALSE(s.server->followSchedule());
  EXPECT_EQ(s.log.count("Backup engine configured NOT to follow schedule; will schedule backups one after another"), 2u);
  Started plain({});
  EXPECT_TRUE(plain.server->followSchedule());
}

TEST(QSSkerrowServerTest, EachArgumentAppliesTheFirstMatchingOptionOnly) {
  Started s({"-UserApp", "-skipTransfer", "unknown", "-noRealtimeX"});
  EXPECT_EQ(s.log.count("Backup engine configured with the database at " + (s.dir / "home/ann") +
                        "/Library/Application Support/Vornhalden/"),
            1u);
  EXPECT_EQ(s.log.count("Backup engine configured to skip actual file transfer (copy)"), 1u);
  EXPECT_TRUE(s.server->skipTransfer());
  EXPECT_TRUE(s.server->followSchedule());            // "-UserApp" set nothing else
  EXPECT_TRUE(s.server->supportsContinuousBackup());  // "-noRealtimeX" matched nothing
}

TEST(QSSkerrowServerTest, TimerFiresEveryTenSecondsWithNoScheduleAndEverySixtyWithout) {
  Started fast({"-noSchedule"});
  Started slow({});
  EXPECT_EQ(fast.server->jobSchedulingInterval(), 10.0);
  EXPECT_EQ(slow.server->jobSchedulingInterval(), 60.0);
  EXPECT_EQ(QSSkerrowServer::jobSchedulingTimerPeriod(), 60.0);
  fast.loop.advanceBy(59.9);
  slow.loop.advanceBy(59.9);
  EXPECT_EQ(fast.server->jobSchedulingTimerTicks(), 5u);
  EXPECT_EQ(slow.server->jobSchedulingTimerTicks(), 0u);
  fast.loop.advanceBy(0.2);
  slow.loop.advanceBy(0.2);
  EXPECT_EQ(fast.server->jobSchedulingTimerTicks(), 6u);
  EXPECT_EQ(slow.server->jobSchedulingTimerTicks(), 1u);
}

TEST(QSSkerrowServerTest, NoRealtimeStartsNoWatcherAndAnswersFalse) {
  Started s({"-noRealtime"});
  EXPECT_FALSE(s.server->supportsContinuousBackup());
  EXPECT_EQ(s.log.count("Backup engine configured NOT to run realtime backup"), 1u);
  EXPECT_FALSE(s.log.contains("continuous-backup watcher"));
}

TEST(QSSkerrowServerTest, SetSupportsContinuousBackupAfterNoRealtimeChangesOnlyTheAnswer) {
  Started s({"-noRealtime"});
  const size_t linesBefore = s.log.lines().size();
  s.server->setSupportsContinuousBackup(true);
  EXPECT_TRUE(s.server->supportsContinuousBackup());
  EXPECT_EQ(s.log.lines().size(), linesBefore);  // nothing started, nothing said
  s.server->setSupportsContinuousBackup(false);
  EXPECT_FALSE(s.server->supportsContinuousBackup());
}

TEST(QSSkerrowServerTest, SecondAllocAnswersNothingAndCopyRetainReleaseKeepTheInstance) {
  // On a thread of its own, so that the process-long loop never becomes the
  // current loop of the test runner's main thread.
  std::thread([] {
    static platform::ManualRunLoop processLoop;  // the singleton's timer lives as long as the process
    platform::RunLoop::setMain(&processLoop);
    auto instance = QSSkerrowServer::instance();
    ASSERT_NE(instance, nullptr);
    EXPECT_EQ(QSSkerrowServer::instance(), instance);
    EXPECT_EQ(QSSkerrowServer::allocWithZone(), nullptr);
    EXPECT_EQ(instance->copy(), instance);
    EXPECT_EQ(instance->retain(), instance);
    EXPECT_EQ(instance->autorelease(), instance);
    instance->release();
    EXPECT_EQ(QSSkerrowServer::instance(), instance);
    EXPECT_EQ(instance->retainCount(), 4294967295u);
    platform::RunLoop::setMain(nullptr);
  }).join();
}

TEST(QSSkerrowServerTest, UserAppKeepsTheDatabaseInTheInvokingUsersLibraryAndMakesTheFolder) {
  Started s({"-userApp"});
  const std::string expected = s.dir / "home/ann/Library/Application Support/Vornhalden/";
  EXPECT_EQ(s.server->permanentStoreDir(), expected);
  EXPECT_TRUE(std::filesystem::is_directory(expected));
}

TEST(QSSkerrowServerTest, DefaultStoreFolderUnderTheRootPrefix) {
  Started s({});
  EXPECT_EQ(s.server->permanentStoreDir(), (s.dir / "root") + "/Library/Application Support/Vornhalden/");
  EXPECT_TRUE(std::filesystem::is_directory(s.server->permanentStoreDir()));
}

TEST(QSSkerrowServerTest, GrowlAnswers) {
  Started s({});
  EXPECT_EQ(s.server->applicationNameForGrowl(), "Skerrow");
  const platform::Array names = {platform::Value("Awake"), platform::Value("Disk mounted"),
                                 platform::Value("Disk ejected"), platform::Value("Finished backup")};
  const platform::Dictionary d = s.server->registrationDictionaryForGrowl();
  EXPECT_EQ(d.size(), 2u);
  EXPECT_EQ(*d.find("AllNotifications"), platform::Value(names));
  EXPECT_EQ(*d.find("DefaultNotifications"), platform::Value(names));
  s.server->growlIsReady();
  EXPECT_TRUE(s.server->jobs().empty());
}

TEST(QSSkerrowServerTest, WorkspaceNoticesReachTheDiskOperations) {
  Started s({});
  auto entry = QSBackupEntry::initWithUID("UID-T");
  entry->setMountPoint("/media/ann/Backup");
  entry->setBSDName("sdb1");
  entry->setVolumeName("Backup");
  s.server->setBackupEntry_forUID(entry, "UID-T");
  // Without a path, or for a path on no local volume, nothing happens.
  platform::Notification empty;
  empty.name = platform::NSWorkspaceDidUnmountNotification;
  s.workspace.post(empty);
  platform::Notification mount;
  mount.name = platform::NSWorkspaceDidMountNotification;
  mount.userInfo.set(platform::kNSDevicePathKey, platform::Value("/proc"));
  s.workspace.post(mount);
  EXPECT_EQ(s.server->backupUIDs(), std::vector<std::string>{"UID-T"});
  // The unmount notice of its disk forgets the transient entry.
  platform::Notification unmount;
  unmount.name = platform::NSWorkspaceDidUnmountNotification;
  unmount.userInfo.set(platform::kNSDevicePathKey, platform::Value("/media/ann/Backup"));
  s.workspace.post(unmount);
  EXPECT_TRUE(s.server->backupUIDs().empty());
}
