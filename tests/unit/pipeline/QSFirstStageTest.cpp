#include "Engine/pipeline/QSFirstStage.h"

#include <gtest/gtest.h>

#include <chrono>

#include "platform/Log.h"
#include "tests/support/Eventually.h"
#include "tests/support/PipelineTestSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::CallLogClient;
using skerrow_test::TokenDelegate;

namespace {

constexpr std::chrono::milliseconds kStopWait{5000};

// Accounts at the edges of the admitted ranges, with real home folders.
class QSFirstStageTest : public ::testing::Test {
 protected:
  void SetUp() override { skerrow_test::useShippedBlackList(); }
  void TearDown() override {
    if (stage) {
      EXPECT_TRUE(stage->stopAll(kStopWait));
    }
  }

  platform::UserAccount account(const std::string& name, uint32_t uid) {
    return platform::UserAccount{name, name, dir.mkdir(name), uid, uid == 0 ? 0u : 20u};
  }

  void makeStage() {
    accounts = std::make_unique<platform::FixedAccountDirectory>(std::vector<platform::UserAccount>{
        account("root", 0), account("daemon", 1), account("sys499", 499), account("ann", 500),
        account("last", 4294967194u), account("first-nobody", 4294967195u), account("nobody", 4294967294u),
        account("max", 4294967295u)});
    stage = std::make_unique<QSFirstStage>(accounts.get());
  }

  skerrow_test::TempDir dir;
  platform::LogCapture log;
  std::unique_ptr<platform::FixedAccountDirectory> accounts;
  std::unique_ptr<QSFirstStage> stage;
};

}  // namespace

TEST_F(QSFirstStageTest, UserIdZeroGetsAnEnvironmentWhileIds1To499AndTheTop101ValuesOfThe32BitRangeDoNot) {
  makeStage();
  EXPECT_TRUE(stage->managesUserName("root"));
  EXPECT_TRUE(stage->managesUserName("ann"));
  EXPECT_TRUE(stage->managesUserName("last"));
  for (const char* refused : {"daemon", "sys499", "first-nobody", "nobody", "max"})
    EXPECT_FALSE(stage->managesUserName(refused)) << refused;
  EXPECT_EQ(stage->userNames(), (std::vector<std::string>{"ann", "last", "root"}));

  EXPECT_TRUE(QSFirstStage::isAdmissibleUID(0));
  for (uint32_t uid = 1; uid <= 499; ++uid) EXPECT_FALSE(QSFirstStage::isAdmissibleUID(uid)) << uid;
  EXPECT_TRUE(QSFirstStage::isAdmissibleUID(500));
  EXPECT_TRUE(QSFirstStage::isAdmissibleUID(4294967194u));
  for (uint64_t uid = 4294967195u; uid <= 4294967295u; ++uid)
    EXPECT_FALSE(QSFirstStage::isAdmissibleUID(static_cast<uint32_t>(uid))) << uid;

  // Each admitted account is logged once.
  EXPECT_EQ(log.count("User:root | home:" + (dir / "root") + " | uid:0 | gid:0"), 1u);
  EXPECT_EQ(log.count("User:ann | home:" + (dir / "ann") + " | uid:500 | gid:20"), 1u);
  EXPECT_EQ(log.count("User:last | home:" + (dir / "last") + " | uid:4294967194 | gid:20"), 1u);
  EXPECT_FALSE(log.contains("User:daemon"));
  EXPECT_FALSE(log.contains("User:max"));

  const auto ann = stage->environmentForUser("ann");
  ASSERT_NE(ann, nullptr);
  EXPECT_EQ(ann->userName(), "ann");
  EXPECT_EQ(ann->userHome(), dir / "ann");
  EXPECT_EQ(stage->environmentForUser("daemon"), nullptr);
}

TEST_F(QSFirstStageTest, AddNewUserRefusesNothingUnknownAndIneligibleNamesAndReplacesAnExistingEnvironment) {
  makeStage();
  EXPECT_FALSE(stage->addNewUser(std::nullopt));
  EXPECT_FALSE(stage->addNewUser(std::string()));
  EXPECT_FALSE(stage->addNewUser(std::string("nosuchuser")));
  EXPECT_FALSE(stage->addNewUser(std::string("daemon")));
  EXPECT_FALSE(stage->managesUserName("daemon"));

  const auto before = stage->environmentForUser("ann");
  ASSERT_NE(before, nullptr);
  EXPECT_TRUE(stage->addNewUser(std::string("ann")));
  const auto after = stage->environmentForUser("ann");
  ASSERT_NE(after, nullptr);
  EXPECT_NE(after, before);
  // The replaced environment's thread was ended.
  EXPECT_TRUE(before->isCancelled());
  EXPECT_FALSE(after->isCancelled());
}

TEST_F(QSFirstStageTest, ATokenQueuedForAUserIsServedByThatUsersThread) {
  makeStage();
  TokenDelegate delegate;
  EXPECT_FALSE(stage->enqueue_forUser(delegate.token("/disk/U", "U"), "nosuchuser"));
  dir.write("ann/Documents/a.txt", "a");
  ASSERT_TRUE(stage->enqueue_forUser(delegate.token("/disk/U", "U"), "ann"));
  ASSERT_TRUE(skerrow_test::eventually([&] { return delegate.count() == 1; }));
  const auto run = delegate.runs()[0];
  EXPECT_EQ(run.object, stage->environmentForUser("ann"));
  ASSERT_NE(run.tally, nullptr);
  EXPECT_EQ(skerrow_test::totalSourceFiles(*run.tally), 1);
}

TEST_F(QSFirstStageTest, SetClientReachesTheNamedUsersEnvironmentOnly) {
  makeStage();
  auto client = std::make_shared<CallLogClient>(9);
  EXPECT_FALSE(stage->setClient_forUser(client, "nosuchuser"));
  ASSERT_TRUE(stage->setClient_forUser(client, "ann"));
  EXPECT_EQ(stage->environmentForUser("ann")->client()->proxiedObject(), client);
  EXPECT_EQ(stage->environmentForUser("ann")->maximumContiguousErrorsClientWants(), 9u);
  EXPECT_EQ(stage->environmentForUser("root")->client()->proxiedObject(), nullptr);
  EXPECT_EQ(stage->environmentForUser("root")->maximumContiguousErrorsClientWants(), 100u);
}

TEST_F(QSFirstStageTest, ConversionNoticesReachTheClientOfEveryEnvironment) {
  makeStage();
  auto annClient = std::make_shared<CallLogClient>();
  auto rootClient = std::make_shared<CallLogClient>();
  stage->setClient_forUser(annClient, "ann");
  stage->setClient_forUser(rootClient, "root");
  stage->conversionChangedState_forMountPath("finished", "/media/disk");
  EXPECT_EQ(annClient->lines().back(), "conversionChangedState finished,/media/disk");
  EXPECT_EQ(rootClient->lines().back(), "conversionChangedState finished,/media/disk");
}

TEST_F(QSFirstStageTest, StopAllEndsEveryEnvironmentsThread) {
  makeStage();
  const auto ann = stage->environmentForUser("ann");
  EXPECT_TRUE(stage->stopAll(kStopWait));
  EXPECT_TRUE(ann->isCancelled());
  stage.reset();
}
