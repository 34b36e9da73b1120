#include "Engine/pipeline/QSUserEnvironment.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Engine/files/QSChangeJournal.h"
#include "Engine/files/QSWalkMemos.h"
#include "Engine/pipeline/QSSettledPasses.h"
#include "Engine/records/QSCategoryIdentifiers.h"
#include "platform/Date.h"
#include "tests/support/Eventually.h"
#include "tests/support/PipelineTestSupport.h"
#include "tests/support/SettledPassSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::CallLogClient;
using skerrow_test::TokenDelegate;

namespace {

// A user environment that lets a test act in the middle of its walk: `afterNode`
// runs after each node is made, with the number of nodes so far.
class HookedUserEnvironment : public QSUserEnvironment {
 public:
  HookedUserEnvironment(std::string name, std::string home)
      : QSUserEnvironment(Passkey(), std::move(name), std::move(home)) {}

  std::function<void(size_t nodes)> afterNode;
  size_t nodes = 0;

  std::shared_ptr<QSFSNode> nodeAtPath_attributes(const std::string& path,
                                                  const platform::FileAttributes& attributes) override {
    auto node = QSUserEnvironment::nodeAtPath_attributes(path, attributes);
    ++nodes;
    if (afterNode) afterNode(nodes);
    return node;
  }
};

constexpr int kFiles = 20;

class QSUserEnvironmentTest : public ::testing::Test {
 protected:
  void SetUp() override {
    skerrow_test::useShippedBlackList();
    for (int i = 0; i < kFiles; ++i) dir.write("ann/Documents/f" + std::to_string(i) + ".txt", "x");
    environment->setClient(client);
  }

  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("ann");
  std::shared_ptr<HookedUserEnvironment> environment = std::make_shared<HookedUserEnvironment>("ann", home);
  std::shared_ptr<CallLogClient> client = std::make_shared<CallLogClient>();
  TokenDelegate delegate;
};

}  // namespace

TEST_F(QSUserEnvironmentTest, TwoTokensForTheSameUidQueuedDuringOneWalkAreDispatchedOnceWithTheSecondTokensSettingsAndCategories) {
  const auto first = delegate.token("/disk/old", "U", false, 1, std::set<std::string>{"Music"});
  const auto second = delegate.token("/disk/new", "U", true, 5, std::set<std::string>{"Documents", "Pictures"});
  environment->afterNode = [&](size_t nodes) {
    if (nodes == 3) environment->enqueue(first);
    if (nodes == 6) environment->enqueue(second);
  };
  environment->runCycle();

  const auto runs = delegate.runs();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].token, first);  // the queued token absorbed the new one
  EXPECT_EQ(runs[0].destinationPath, "/disk/new");
  EXPECT_EQ(runs[0].uid, "U");
  EXPECT_TRUE(runs[0].wantsBackup);
  EXPECT_EQ(runs[0].versionDepth, 5u);
  EXPECT_EQ(runs[0].categories, (std::set<std::string>{"Documents", "Pictures"}));
  EXPECT_EQ(runs[0].object, environment);
  // It rode on the whole walk: tree and tally of every file.
  ASSERT_NE(runs[0].tree, nullptr);
  ASSERT_NE(runs[0].tally, nullptr);
  EXPECT_EQ(skerrow_test::totalSourceFiles(*runs[0].tally), kFiles);
  EXPECT_EQ(runs[0].tree->childWithName("Documents")->children().count(), static_cast<uint32_t>(kFiles));
  EXPECT_EQ(environment->queueCount(), 0u);
}

TEST_F(QSUserEnvironmentTest, ASecondTokenForTheSameUidWithoutBackupWishKeepsTheQueuedTokensCategories) {
  const auto first = delegate.token("/disk/old", "U", true, 1, std::set<std::string>{"Music"});
  const auto second = delegate.token("/disk/new", "U", false, 3, std::set<std::string>{"Pictures"});
  environment->afterNode = [&](size_t nodes) {
    if (nodes == 2) environment->enqueue(first);
    if (nodes == 4) environment->enqueue(second);
  };
  environment->runCycle();

  const auto runs = delegate.runs();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].destinationPath, "/disk/new");
  EXPECT_FALSE(runs[0].wantsBackup);
  EXPECT_EQ(runs[0].versionDepth, 3u);
  EXPECT_EQ(runs[0].categories, (std::set<std::string>{"Music"}));
}

TEST_F(QSUserEnvironmentTest, ASourceTallyOnlyRequestIsDroppedWhileAnyTokenIsQueued) {
  environment->enqueue(delegate.token("/disk/U", "U"));
  environment->enqueue(delegate.token(std::nullopt, std::nullopt));
  EXPECT_EQ(environment->queueCount(), 1u);
  environment->runCycle();
  const auto runs = delegate.runs();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].uid, "U");

  // Into an empty queue it is taken, and it gets no tree of its own.
  environment->enqueue(delegate.token(std::nullopt, std::nullopt));
  EXPECT_EQ(environment->queueCount(), 1u);
  environment->runCycle();
  ASSERT_EQ(delegate.count(), 2u);
  EXPECT_EQ(delegate.runs()[1].uid, std::nullopt);
  EXPECT_EQ(delegate.runs()[1].tree, nullptr);
}

TEST_F(QSUserEnvironmentTest, CancellingTheOnlyQueuedTokenDuringTheWalkStopsTheWalkDispatchesNothingAndEmptiesTheQueue) {
  environment->enqueue(delegate.token("/disk/U", "U"));
  environment->afterNode = [&](size_t nodes) {
    if (nodes == 3) environment->cancelPipeForUID("U");
  };
  environment->runCycle();

  EXPECT_EQ(delegate.count(), 0u);
  EXPECT_EQ(environment->queueCount(), 0u);
  EXPECT_TRUE(environment->isPipeCancelled());
  // The walk stopped: far fewer items than the home folder holds were counted.
  EXPECT_LT(environment->nodes, static_cast<size_t>(kFiles));
  const auto tally = client->lastTally("finishedSourceTally");
  ASSERT_NE(tally, nullptr);
  EXPECT_LT(skerrow_test::totalSourceFiles(*tally), kFiles);
}

TEST_F(QSUserEnvironmentTest, CancellingOneOfTwoQueuedTokensDuringTheWalkLetsTheWalkFinishAndDispatchesTheOther) {
  environment->enqueue(delegate.token("/disk/U1", "U1"));
  environment->enqueue(delegate.token("/disk/U2", "U2"));
  ASSERT_EQ(environment->queueCount(), 2u);
  environment->afterNode = [&](size_t nodes) {
    if (nodes == 3) environment->cancelPipeForUID("U1");
  };
  environment->runCycle();

  const auto runs = delegate.runs();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].uid, "U2");
  EXPECT_EQ(environment->queueCount(), 0u);
  EXPECT_EQ(environment->nodes, static_cast<size_t>(kFiles + 2));  // home, Documents and the files
  ASSERT_NE(runs[0].tally, nullptr);
  EXPECT_EQ(skerrow_test::totalSourceFiles(*runs[0].tally), kFiles);
}

TEST_F(QSUserEnvironmentTest, SettingNoClientSetsTheErrorLimitTo100) {
  environment->setClient(std::make_shared<CallLogClient>(7));
  EXPECT_EQ(environment->maximumContiguousErrorsClientWants(), 7u);
  environment->setClient(nullptr);
  EXPECT_EQ(environment->maximumContiguousErrorsClientWants(), 100u);
  EXPECT_EQ(environment->client()->proxiedObject(), nullptr);
  // The proxy itself is never replaced.
  const auto proxy = environment->client();
  environment->setClient(client);
  EXPECT_EQ(environment->client(), proxy);
  EXPECT_EQ(proxy->proxiedObject(), client);
}

TEST_F(QSUserEnvironmentTest, AClientThatAttachesDuringTheWalkGetsOneIntermediateCountAtOnce) {
  const auto late = std::make_shared<CallLogClient>();
  environment->enqueue(delegate.token("/disk/U", "U"));
  environment->afterNode = [&](size_t nodes) {
    if (nodes == 5) environment->setClient(late);
  };
  // The late client's registration time must differ from the first one's:
  // let the clock move on past it first.
  double registered = 0;
  environment->getClient_registrationTime(nullptr, &registered);
  ASSERT_TRUE(skerrow_test::eventually(
      [&] { return platform::Date::now().timeIntervalSinceReferenceDate() > registered; }));
  environment->runCycle();

  EXPECT_EQ(late->lines(), (std::vector<std::string>{"maximumContiguousErrors", "computingSourceTally",
                                                     "finishedSourceTally"}));
  EXPECT_EQ(client->lines(), (std::vector<std::string>{"maximumContiguousErrors", "startedSourceTally"}));
}

TEST_F(QSUserEnvironmentTest, TreeAndTallyCanBeCopiedWhileATokenIsBeingRunAndNotAfterTheCycle) {
  // Asked while the first of two tokens runs.  (The last token of a cycle
  // is handed the cycle's own tree, so none is left to copy while it runs.)
  std::shared_ptr<QSFSMutableNode> duringTree;
  std::shared_ptr<QSMutableTally> duringTally;
  delegate.onRun = [&](const TokenDelegate::Run& run) {
    if (run.uid == "U1") environment->getDeepCopyOfSourceTree_copyOfSourceTally(&duringTree, &duringTally);
  };
  environment->enqueue(delegate.token("/disk/U1", "U1"));
  environment->enqueue(delegate.token("/disk/U2", "U2"));
  environment->runCycle();
  ASSERT_EQ(delegate.count(), 2u);
  ASSERT_NE(duringTree, nullptr);
  ASSERT_NE(duringTally, nullptr);
  EXPECT_EQ(skerrow_test::totalSourceFiles(*duringTally), kFiles);
  EXPECT_EQ(duringTree->childWithName("Documents")->children().count(), static_cast<uint32_t>(kFiles));
  // A copy of its own: not the tree either token was given.
  EXPECT_NE(duringTree, delegate.runs()[0].tree);
  EXPECT_NE(duringTree, delegate.runs()[1].tree);

  std::shared_ptr<QSFSMutableNode> afterTree = QSFSMutableNode::init();
  std::shared_ptr<QSMutableTally> afterTally = QSMutableTally::init();
  environment->getDeepCopyOfSourceTree_copyOfSourceTally(&afterTree, &afterTally);
  EXPECT_EQ(afterTree, nullptr);
  EXPECT_EQ(afterTally, nullptr);
}

TEST_F(QSUserEnvironmentTest, TheClientHearsTheStartAndEndOfEachSourceCount) {
  environment->enqueue(delegate.token("/disk/U", "U"));
  environment->runCycle();
  const auto calls = client->calls();
  ASSERT_EQ(client->lines(), (std::vector<std::string>{"maximumContiguousErrors", "startedSourceTally",
                                                       "finishedSourceTally"}));
  // Both name the cycle's tally, which holds the whole count at the end.
  EXPECT_EQ(calls[1].tally, calls[2].tally);
  EXPECT_EQ(skerrow_test::totalSourceFiles(*calls[2].tally), kFiles);
}

TEST_F(QSUserEnvironmentTest, ATokenQueuedByRunningAnotherIsServedInTheSameCycleAndNotLost) {
  delegate.onRun = [&](const TokenDelegate::Run& run) {
    if (run.uid == "U1") environment->enqueue(delegate.token("/disk/U2", "U2"));
  };
  environment->enqueue(delegate.token("/disk/U1", "U1"));
  environment->runCycle();
  const auto runs = delegate.runs();
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[1].uid, "U2");
  EXPECT_EQ(environment->queueCount(), 0u);
}

// The engine's journal, memos and kept passes, set up so that a pass of
// (home, backup) may stand on a kept one; put back as they were after.
class SettledBackup {
 public:
  SettledBackup(const std::string& home, const std::string& backup) : home_(home), backup_(backup) {
    auto& journal = QSChangeJournal::shared();
    journal.follow(home);
    journal.follow(backup);
    journal.setSynchronizer([] { return true; });
    const auto mark = *journal.synchronizedMark();
    skerrow_test::keepMemosOf(QSWalkMemos::shared(), home, backup, mark,
                              platform::Date::now().timeIntervalSince1970());
    auto tally = QSMutableTally::init();
    tally->increaseBytesBy_filesBy_forSourceCategory(kFiles, kFiles, kDocumentsCategoryIdentifier);
    QSSettledPasses::shared().keep(skerrow_test::settledPassOf(home, backup, mark, {}, tally));
  }
  ~SettledBackup() {
    auto& journal = QSChangeJournal::shared();
    journal.setSynchronizer(nullptr);
    journal.unfollow(home_);
    journal.unfollow(backup_);
    QSWalkMemos::shared().forgetAll();
    QSSettledPasses::shared().forgetAll();
  }

 private:
  const std::string home_;
  const std::string backup_;
};

TEST_F(QSUserEnvironmentTest, ACycleStandingOnASettledPassWalksNothingAndARequestQueuedMeanwhileWaitsForTheNextCycle) {
  const std::string backup = dir.mkdir("disk/U");
  const SettledBackup settled(home, backup);
  const auto token = delegate.token(backup, "U");
  // A request for the same backup identifier made while the token runs
  // would take it to another folder: it waits for a cycle of its own.
  delegate.onRun = [&](const TokenDelegate::Run& run) {
    if (run.token == token) environment->enqueue(delegate.token(dir.path() + "/elsewhere", "U", true));
  };
  environment->enqueue(token);
  environment->runCycle();
  EXPECT_EQ(environment->nodes, 0u);
  auto runs = delegate.runs();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].destinationPath, backup);
  EXPECT_FALSE(runs[0].wantsBackup);
  EXPECT_NE(token->settledPass(), nullptr);
  ASSERT_NE(runs[0].tree, nullptr);
  EXPECT_EQ(runs[0].tree->children().count(), 0u);
  EXPECT_EQ(skerrow_test::totalSourceFiles(*runs[0].tally), kFiles);
  EXPECT_EQ(client->count("startedSourceTally"), 1u);
  EXPECT_EQ(client->count("finishedSourceTally"), 1u);
  EXPECT_EQ(environment->queueCount(), 1u);

  // The next cycle has nothing to stand on for that folder: it walks.
  environment->runCycle();
  runs = delegate.runs();
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[1].destinationPath, dir.path() + "/elsewhere");
  EXPECT_EQ(runs[1].token->settledPass(), nullptr);
  EXPECT_GT(environment->nodes, static_cast<size_t>(kFiles));
  EXPECT_EQ(runs[1].tree->childWithName("Documents")->children().count(), static_cast<uint32_t>(kFiles));
  EXPECT_EQ(environment->queueCount(), 0u);
}

TEST_F(QSUserEnvironmentTest, ACycleWithTwoTokensNeverStandsOnASettledPass) {
  const std::string backup = dir.mkdir("disk/U");
  const SettledBackup settled(home, backup);
  environment->enqueue(delegate.token(backup, "U"));
  environment->enqueue(delegate.token(dir.mkdir("disk/V"), "V"));
  environment->runCycle();
  const auto runs = delegate.runs();
  ASSERT_EQ(runs.size(), 2u);
  for (const auto& run : runs) {
    EXPECT_EQ(run.token->settledPass(), nullptr);
    EXPECT_EQ(run.tree->childWithName("Documents")->children().count(), static_cast<uint32_t>(kFiles));
  }
}

TEST_F(QSUserEnvironmentTest, TheThreadServesAQueuedTokenAndEndsWhenStopped) {
  std::vector<uint32_t> pauses;
  std::mutex pausesMutex;
  environment->setSleepFunction([&](uint32_t microseconds) {
    {
      std::lock_guard<std::mutex> lock(pausesMutex);
      pauses.push_back(microseconds);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  });
  environment->start();
  environment->enqueue(delegate.token("/disk/U", "U"));
  ASSERT_TRUE(skerrow_test::eventually([&] { return delegate.count() == 1; }));
  EXPECT_TRUE(environment->stopThread(std::chrono::milliseconds(5000)));
  std::lock_guard<std::mutex> lock(pausesMutex);
  for (uint32_t pause : pauses) EXPECT_EQ(pause, QSUserEnvironment::kIdleSleepMicroseconds);
}

TEST_F(QSUserEnvironmentTest, ConversionNoticesGoToTheClient) {
  environment->conversionChangedState_forMountPath("converting", "/media/disk");
  EXPECT_EQ(client->lines().back(), "conversionChangedState converting,/media/disk");
}
