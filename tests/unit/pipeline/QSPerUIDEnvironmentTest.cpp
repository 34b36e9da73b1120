#include "Engine/pipeline/QSPerUIDEnvironment.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/Log.h"
#include "tests/support/Eventually.h"
#include "tests/support/PipelineTestSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::CallLogClient;
using skerrow_test::TokenDelegate;

namespace {

constexpr std::chrono::milliseconds kStopWait{5000};

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The sleeps of an environment's thread: when each came (the number of
// polls of the event queue so far) and how long it was to be.
struct SleepLog {
  std::mutex mutex;
  std::vector<std::pair<uint64_t, uint32_t>> sleeps;
  std::atomic<bool> done{false};
  void add(uint64_t polls, uint32_t microseconds) {
    std::lock_guard<std::mutex> lock(mutex);
    sleeps.emplace_back(polls, microseconds);
  }
  std::vector<std::pair<uint64_t, uint32_t>> all() {
    std::lock_guard<std::mutex> lock(mutex);
    return sleeps;
  }
};

// One backup "U" of the home folder "ann" into "disk/U", with a client
// attached to the user's environment.  The environment is not started
// unless a test starts it.
class QSPerUIDEnvironmentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    skerrow_test::useShippedBlackList();
    user->setClient(client);
  }
  void TearDown() override { EXPECT_TRUE(environment->stopThread(kStopWait)); }

  // A token for this backup carrying the first stage's tree and tally of the home folder now.
  std::shared_ptr<QSToken> token(bool wantsBackup) {
    auto t = delegate.token(destination, "U", wantsBackup, 2, std::set<std::string>{kDocumentsCategoryIdentifier});
    std::shared_ptr<QSMutableTally> tally;
    auto tree = skerrow_test::sourceTreeOf(home, &tally);
    t->setTree_tally(tree, tally->mutableCopy());
    return t;
  }

  // One job, as the environment's thread runs it.
  void runOneJob(const std::shared_ptr<QSToken>& t) {
    ASSERT_TRUE(environment->enqueue(t));
    environment->runJobWithToken(environment->currentToken());
  }

  // The stage seen at each client call and token run, in order ("name@stage").
  void recordStages() {
    client->onCall = [this](const std::string& name) { noteStage(name); };
    delegate.onRun = [this](const TokenDelegate::Run&) { noteStage("run"); };
  }
  void noteStage(const std::string& what) {
    const int32_t stage = environment->stage();
    std::lock_guard<std::mutex> lock(stagesMutex);
    stages.push_back(what + "@" + std::to_string(stage));
  }
  std::vector<std::string> seenStages() {
    std::lock_guard<std::mutex> lock(stagesMutex);
    return stages;
  }

  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  std::string destination = dir.mkdir("disk/U");
  std::shared_ptr<QSUserEnvironment> user = QSUserEnvironment::initWithUserName_homeDirectory("ann", home);
  std::shared_ptr<CallLogClient> client = std::make_shared<CallLogClient>();
  platform::NotificationCenter center;
  skerrow_test::TestPipelineHost host;
  std::shared_ptr<QSPerUIDEnvironment> environment =
      QSPerUIDEnvironment::initWithUserEnvironment_uid(user, "U", &host, &center);
  TokenDelegate delegate;
  std::mutex stagesMutex;
  std::vector<std::string> stages;

  using Sleeps = std::vector<std::pair<uint64_t, uint32_t>>;
  // Runs the thread until it has slept three times, then cancels it, and
  // answers each sleep: the poll count at that moment and its length.
  // `onSleep` runs after each recorded sleep with the number of sleeps so far.
  Sleeps firstThreeSleeps(const std::function<void(size_t sleeps)>& onSleep = {}) {
    SleepLog log;
    QSPerUIDEnvironment* const env = environment.get();
    environment->setSleepFunction([&log, env, &onSleep](uint32_t microseconds) {
      log.add(env->realtimePollCount(), microseconds);
      const size_t sleeps = log.all().size();
      if (onSleep) onSleep(sleeps);
      if (sleeps == 3) {
        env->cancel();
        log.done = true;
      }
    });
    environment->start();
    EXPECT_TRUE(skerrow_test::eventually([&] { return log.done.load(); }));
    EXPECT_TRUE(environment->stopThread(kStopWait));
    return log.all();
  }
};

}  // namespace

TEST_F(QSPerUIDEnvironmentTest, ASecondTokenWhileOneIsStillQueuedIsDroppedWithUnableToEnqueue) {
  platform::LogCapture log;
  const auto first = delegate.token(destination, "U");
  EXPECT_TRUE(environment->enqueue(first));
  EXPECT_FALSE(environment->enqueue(delegate.token(destination, "U", true)));
  EXPECT_EQ(environment->currentToken(), first);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("QSPerUIDEnvironment::enqueue("), std::string::npos) << lines[0];
  EXPECT_TRUE(endsWith(lines[0], ") Unable to enqueue")) << lines[0];
}

TEST_F(QSPerUIDEnvironmentTest, ATokenWithoutBackupWishGoesThroughStagesOneTwoAndFiveOnly) {
  dir.write("ann/Documents/a.txt", "a");
  recordStages();
  environment->setSleepFunction([](uint32_t) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
  environment->start();
  ASSERT_TRUE(environment->enqueue(token(false)));
  ASSERT_TRUE(skerrow_test::eventually([&] { return delegate.count() == 1; }));
  ASSERT_TRUE(skerrow_test::eventually([&] { return environment->stage() == QSPerUIDEnvironment::kStageFinished; }));
  ASSERT_TRUE(environment->stopThread(kStopWait));

  // Housekeeping (0) when the job starts, 1 while the destination is
  // counted, 2 once it is counted and the token runs again, then 5.
  EXPECT_EQ(seenStages(), (std::vector<std::string>{"startedDestinationTally@0", "finishedDestinationTally@1", "run@2"}));
  EXPECT_EQ(client->lines(), (std::vector<std::string>{"maximumContiguousErrors", "startedDestinationTally U",
                                                       "finishedDestinationTally U"}));
  EXPECT_EQ(environment->currentToken(), nullptr);
  EXPECT_TRUE(skerrow_test::listing(destination).empty());
  // The dry run counted what a backup would copy.
  const auto tally = client->lastTally("finishedDestinationTally");
  ASSERT_NE(tally, nullptr);
  EXPECT_EQ(skerrow_test::expectedCounts(*tally, "Documents"), (skerrow_test::Counts{1, 1}));
}

TEST_F(QSPerUIDEnvironmentTest, ABackupJobGoesThroughStagesOneToFiveTellingTheClientEachStep) {
  dir.write("ann/Documents/a.txt", "abc");
  recordStages();
  runOneJob(token(true));
  EXPECT_EQ(seenStages(), (std::vector<std::string>{"startedDestinationTally@5", "finishedDestinationTally@1",
                                                    "startedTransferTally@2", "finishedTransferTally@3", "run@4"}));
  EXPECT_EQ(environment->stage(), QSPerUIDEnvironment::kStageFinished);
  EXPECT_EQ(skerrow_test::listing(destination), (std::vector<std::string>{"Documents/", "Documents/a@0.txt"}));
  const auto tally = client->lastTally("finishedTransferTally");
  ASSERT_NE(tally, nullptr);
  EXPECT_EQ(skerrow_test::transferredCounts(*tally, "Documents"), (skerrow_test::Counts{1, 3}));
  EXPECT_EQ(environment->tally(), nullptr);
}

TEST_F(QSPerUIDEnvironmentTest, WithAnErrorLimitOfThreeFourFailuresInARowAreReportedAndTheFifthStopsTheBackup) {
  skerrow_test::VanishingFilesBackup backup(6);
  auto limited = std::make_shared<CallLogClient>(3);
  backup.user->setClient(limited);
  backup.run();

  // The first failure is judged with a count of 0, the fifth with 4 > 3.
  EXPECT_EQ(limited->errors().size(), 4u);
  EXPECT_EQ(limited->count("stoppedDueToErrors"), 1u);
  const auto lines = limited->lines();
  const auto stop = std::find(lines.begin(), lines.end(), "stoppedDueToErrors U");
  ASSERT_NE(stop, lines.end());
  EXPECT_EQ(std::count_if(lines.begin(), stop, [](const std::string& l) { return l.rfind("error ", 0) == 0; }), 4);
  EXPECT_EQ(std::count_if(stop, lines.end(), [](const std::string& l) { return l.rfind("error ", 0) == 0; }), 0);
  // The backup was cancelled: the token is not run again and the queue is empty.
  EXPECT_TRUE(backup.environment->isPipeCancelled());
  EXPECT_EQ(backup.delegate.count(), 0u);
  EXPECT_EQ(backup.environment->currentToken(), nullptr);
  EXPECT_EQ(backup.environment->stage(), QSPerUIDEnvironment::kStageFinished);
}

TEST_F(QSPerUIDEnvironmentTest, AnErrorLimitOfZeroNeverStopsTheBackup) {
  skerrow_test::VanishingFilesBackup backup(6);
  auto unlimited = std::make_shared<CallLogClient>(0);
  backup.user->setClient(unlimited);
  backup.run();
  EXPECT_EQ(unlimited->errors().size(), 6u);
  EXPECT_EQ(unlimited->count("stoppedDueToErrors"), 0u);
  EXPECT_EQ(backup.delegate.count(), 1u);
}

TEST_F(QSPerUIDEnvironmentTest, WithContinuousBackupAndNoEventsTheThreadPolls101TimesWithoutPauseAndThenPausesEveryPoll) {
  host.continuous = true;
  EXPECT_EQ(firstThreeSleeps(), (Sleeps{{101, 100000}, {102, 100000}, {103, 100000}}));
}

TEST_F(QSPerUIDEnvironmentTest, AnEventStartsANewRunOfPollsWithoutPause) {
  host.continuous = true;
  QSPerUIDEnvironment* const env = environment.get();
  const Sleeps sleeps = firstThreeSleeps([env](size_t sleeps) {
    if (sleeps == 1) {
      auto event = QSFSWatcherEvent::initWithType(FSE_CONTENT_MODIFIED);
      event->addArgument(env->perUserEnvironment()->userHome() + "/a.txt");
      env->enqueueFSEvent(event);
    }
  });
  // Poll 102 takes the event; 100 empty polls follow before the next pause.
  EXPECT_EQ(sleeps, (Sleeps{{101, 100000}, {203, 100000}, {204, 100000}}));
}

TEST_F(QSPerUIDEnvironmentTest, WithoutContinuousBackupTheIdleThreadPausesBeforeEveryLookAtItsQueue) {
  EXPECT_EQ(firstThreeSleeps(), (Sleeps{{0, 100000}, {0, 100000}, {0, 100000}}));
}

TEST_F(QSPerUIDEnvironmentTest, AfterABackupJobThatWasNotCancelledTheTokenIsRunOnceMoreBeforeTheQueueIsEmptied) {
  dir.write("ann/Documents/a.txt", "a");
  const auto t = token(true);
  std::shared_ptr<QSToken> queuedDuringRun;
  int32_t stageDuringRun = -1;
  delegate.onRun = [&](const TokenDelegate::Run& run) {
    queuedDuringRun = environment->currentToken();
    stageDuringRun = environment->stage();
    EXPECT_EQ(run.object, environment);
  };
  runOneJob(t);
  ASSERT_EQ(delegate.count(), 1u);
  EXPECT_EQ(delegate.runs()[0].token, t);
  EXPECT_EQ(queuedDuringRun, t);
  EXPECT_EQ(stageDuringRun, QSPerUIDEnvironment::kStageTransferDone);
  EXPECT_EQ(environment->currentToken(), nullptr);
  EXPECT_EQ(environment->stage(), QSPerUIDEnvironment::kStageFinished);
}

TEST_F(QSPerUIDEnvironmentTest, ACancelledBackupJobDoesNotRunTheTokenAgain) {
  dir.write("ann/Documents/a.txt", "a");
  client->onCall = [&](const std::string& name) {
    if (name == "startedTransferTally") environment->cancelPipe();
  };
  runOneJob(token(true));
  EXPECT_EQ(delegate.count(), 0u);
  EXPECT_EQ(environment->currentToken(), nullptr);
  EXPECT_EQ(environment->stage(), QSPerUIDEnvironment::kStageFinished);
  EXPECT_TRUE(skerrow_test::listing(destination).empty());
  EXPECT_EQ(client->count("finishedTransferTally"), 1u);
}

TEST_F(QSPerUIDEnvironmentTest, AClientThatAttachesDuringACountGetsTheRunningCountAtOnce) {
  const auto tally = QSMutableTally::init();
  environment->setTally(tally);
  auto duringDestination = std::make_shared<CallLogClient>();
  auto duringTransfer = std::make_shared<CallLogClient>();
  auto idle = std::make_shared<CallLogClient>();

  environment->setStage(QSPerUIDEnvironment::kStageDestinationTally);
  user->setClient(duringDestination);
  environment->setStage(QSPerUIDEnvironment::kStageTransfer);
  user->setClient(duringTransfer);
  // In the other stages a new client gets nothing.
  for (int32_t stage : {0, 2, 4, 5}) {
    environment->setStage(stage);
    user->setClient(idle);
  }

  EXPECT_EQ(duringDestination->lines(), (std::vector<std::string>{"maximumContiguousErrors", "computingDestinationTally U"}));
  EXPECT_EQ(duringDestination->lastTally("computingDestinationTally"), tally);
  EXPECT_EQ(duringTransfer->lines(), (std::vector<std::string>{"maximumContiguousErrors", "computingTransferTally U"}));
  EXPECT_EQ(duringTransfer->lastTally("computingTransferTally"), tally);
  EXPECT_EQ(idle->lines(), std::vector<std::string>(4, "maximumContiguousErrors"));
}
