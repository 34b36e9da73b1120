#include "Engine/pipeline/QSToken.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "Engine/pipeline/QSPerUIDEnvironment.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "platform/NotificationCenter.h"

namespace {
class Delegate : public QSTokenDelegate {
 public:
  int calls = 0;
  int userCalls = 0;
  int destinationCalls = 0;
  std::shared_ptr<QSRunnable> current;
  void runPerDestination(QSToken&, QSUserEnvironment&) override {
    ++calls;
    ++userCalls;
    current = QSRunnable::currentRunnable();
  }
  void runPerDestination(QSToken&, QSPerUIDEnvironment&) override {
    ++calls;
    ++destinationCalls;
    current = QSRunnable::currentRunnable();
  }
  std::vector<QSBackupOutcome> outcomes;
  void tokenDidEnd(QSToken&, const QSBackupOutcome& outcome) override { outcomes.push_back(outcome); }
};
}  // namespace

TEST(QSTokenTest, WantsDestinationTallyOnlyWithBothPathAndUid) {
  auto t = QSToken::initWithDelegate(nullptr);
  EXPECT_FALSE(t->wantsDestinationTally());
  t->setDestinationPath_uid("/media/disk/qs skerrow.skstor/U", std::nullopt);
  EXPECT_FALSE(t->wantsDestinationTally());
  t->setDestinationPath_uid(std::nullopt, "U");
  EXPECT_FALSE(t->wantsDestinationTally());
  t->setDestinationPath_uid("/media/disk/qs skerrow.skstor/U", "U");
  EXPECT_TRUE(t->wantsDestinationTally());
  EXPECT_EQ(t->destinationPath(), "/media/disk/qs skerrow.skstor/U");
  EXPECT_EQ(t->uid(), "U");
}

TEST(QSTokenTest, TreeAndTallyTravelTogether) {
  auto t = QSToken::initWithDelegate(nullptr);
  auto tally = QSMutableTally::init();
  t->setTree_tally(nullptr, tally);
  std::shared_ptr<QSFSMutableNode> tree;
  std::shared_ptr<QSMutableTally> got;
  t->getTree_tally(&tree, &got);
  EXPECT_EQ(tree, nullptr);
  EXPECT_EQ(got, tally);
}

TEST(QSTokenTest, PlainFieldsAndContext) {
  Delegate d;
  auto t = QSToken::initWithDelegate(&d);
  t->setContext(std::set<std::string>{"Music"});
  t->setWantsBackup(true);
  t->setVersionDepth(4);
  EXPECT_TRUE(t->wantsBackup());
  EXPECT_EQ(t->versionDepth(), 4u);
  EXPECT_EQ(t->context(), std::set<std::string>{"Music"});
  auto user = QSUserEnvironment::initWithUserName_homeDirectory("ann", "/home/ann");
  t->runWithObject(*user);
  EXPECT_EQ(d.calls, 1);
}

TEST(QSTokenTest, EachStageReachesItsOwnDelegateCallWithTheTokenAsCurrentRunnable) {
  Delegate d;
  auto t = QSToken::initWithDelegate(&d);
  auto user = QSUserEnvironment::initWithUserName_homeDirectory("ann", "/home/ann");
  platform::NotificationCenter center;
  auto destination = QSPerUIDEnvironment::initWithUserEnvironment_uid(user, "U", nullptr, &center);
  t->runWithObject(*user);
  EXPECT_EQ(d.userCalls, 1);
  EXPECT_EQ(d.destinationCalls, 0);
  EXPECT_EQ(d.current, t);
  t->runWithObject(*destination);
  EXPECT_EQ(d.userCalls, 1);
  EXPECT_EQ(d.destinationCalls, 1);
  EXPECT_EQ(d.current, t);
  EXPECT_TRUE(t->isFinished());
  EXPECT_EQ(QSRunnable::currentRunnable(), nullptr);
}

TEST(QSTokenTest, ATokenWithoutDelegateStillFinishes) {
  auto t = QSToken::initWithDelegate(nullptr);
  auto user = QSUserEnvironment::initWithUserName_homeDirectory("ann", "/home/ann");
  t->runWithObject(*user);
  EXPECT_TRUE(t->isFinished());
}

TEST(QSTokenTest, ACountHasNoContext) {
  auto t = QSToken::initWithDelegate(nullptr);
  EXPECT_EQ(t->context(), std::nullopt);
  t->setContext(std::set<std::string>{"Mail"});
  t->setContext(std::nullopt);
  EXPECT_EQ(t->context(), std::nullopt);
}

TEST(QSTokenTest, LockedAccessorsFromManyThreads) {
  auto t = QSToken::initWithDelegate(nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&, i] {
      for (int j = 0; j < 2000; ++j) {
        if (i % 2)
          t->setDestinationPath_uid("/d" + std::to_string(j), "U" + std::to_string(j));
        else
          (void)t->wantsDestinationTally(), (void)t->uid();
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_TRUE(t->wantsDestinationTally());
}

TEST(QSTokenTest, ACancelledTokenWithAUidEndsAsACancelledOutcomeOfItsKind) {
  Delegate d;
  auto backup = QSToken::initWithDelegate(&d);
  backup->setDestinationPath_uid("/media/disk/qs skerrow.skstor/U", "U");
  backup->setWantsBackup(true);
  backup->endCancelled();
  auto count = QSToken::initWithDelegate(&d);
  count->setDestinationPath_uid("/media/disk/qs skerrow.skstor/V", "V");
  count->endCancelled();
  ASSERT_EQ(d.outcomes.size(), 2u);
  EXPECT_EQ(d.outcomes[0].uid, "U");
  EXPECT_EQ(d.outcomes[0].kind, QSBackupOutcome::Kind::Backup);
  EXPECT_EQ(d.outcomes[0].state, QSBackupOutcome::State::Cancelled);
  EXPECT_EQ(d.outcomes[1].uid, "V");
  EXPECT_EQ(d.outcomes[1].kind, QSBackupOutcome::Kind::Count);
}

TEST(QSTokenTest, ACountOfTheHomeFolderAloneReportsNoOutcome) {
  Delegate d;
  auto home = QSToken::initWithDelegate(&d);
  home->endCancelled();
  EXPECT_TRUE(d.outcomes.empty());
}
