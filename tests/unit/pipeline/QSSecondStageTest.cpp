#include "Engine/pipeline/QSSecondStage.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/Eventually.h"
#include "tests/support/PipelineTestSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::CallLogClient;
using skerrow_test::TokenDelegate;

namespace {

constexpr std::chrono::milliseconds kStopWait{5000};

class QSSecondStageTest : public ::testing::Test {
 protected:
  void SetUp() override { skerrow_test::useShippedBlackList(); }
  void TearDown() override { EXPECT_TRUE(stage.stopAll(kStopWait)); }

  skerrow_test::TempDir dir;
  std::shared_ptr<QSUserEnvironment> ann = QSUserEnvironment::initWithUserName_homeDirectory("ann", dir.mkdir("ann"));
  std::shared_ptr<QSUserEnvironment> bob = QSUserEnvironment::initWithUserName_homeDirectory("bob", dir.mkdir("bob"));
  platform::NotificationCenter center;
  skerrow_test::TestPipelineHost host;
  TokenDelegate delegate;
  QSSecondStage stage{&host, &center};
};

}  // namespace

TEST_F(QSSecondStageTest, AnEnvironmentIsCreatedOncePerUidAndForgottenWhenTerminated) {
  stage.createEnvironmentForUID_withUserEnvironment("U1", ann);
  const auto first = stage.environmentForUID("U1");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->uid(), "U1");
  EXPECT_EQ(first->stage(), QSPerUIDEnvironment::kStageFinished);
  stage.createEnvironmentForUID_withUserEnvironment("U1", bob);
  EXPECT_EQ(stage.environmentForUID("U1"), first);
  EXPECT_EQ(stage.userEnvironmentForUID("U1"), ann);
  stage.createEnvironmentForUID_withUserEnvironment("U2", nullptr);
  EXPECT_EQ(stage.environmentForUID("U2"), nullptr);
  EXPECT_EQ(stage.uids(), (std::vector<std::string>{"U1"}));

  stage.terminateEnvironmentForUID("U1");
  EXPECT_EQ(stage.environmentForUID("U1"), nullptr);
  EXPECT_EQ(stage.userEnvironmentForUID("U1"), nullptr);
  EXPECT_TRUE(stage.uids().empty());
}

TEST_F(QSSecondStageTest, ATokenForAKnownUidIsServedByItsEnvironmentsThread) {
  stage.createEnvironmentForUID_withUserEnvironment("U1", ann);
  const std::string destination = dir.mkdir("disk/U1");
  EXPECT_FALSE(stage.enqueue_forUID(delegate.token(destination, "U9"), "U9"));
  ASSERT_TRUE(stage.enqueue_forUID(delegate.token(destination, "U1"), "U1"));
  ASSERT_TRUE(skerrow_test::eventually([&] { return delegate.count() == 1; }));
  EXPECT_EQ(delegate.runs()[0].object, stage.environmentForUID("U1"));
  EXPECT_EQ(delegate.runs()[0].uid, "U1");
}

TEST_F(QSSecondStageTest, CancellingAUsersPipeCancelsOnlyThatUsersEnvironments) {
  host.continuous = true;  // the idle threads count their polls, so a test can see them waiting
  stage.createEnvironmentForUID_withUserEnvironment("A1", ann);
  stage.createEnvironmentForUID_withUserEnvironment("A2", ann);
  stage.createEnvironmentForUID_withUserEnvironment("B1", bob);
  for (const char* uid : {"A1", "A2", "B1"})
    ASSERT_TRUE(skerrow_test::eventually([&] { return stage.environmentForUID(uid)->realtimePollCount() > 0; }));
  stage.cancelPipeForUser("ann");
  EXPECT_TRUE(stage.environmentForUID("A1")->isPipeCancelled());
  EXPECT_TRUE(stage.environmentForUID("A2")->isPipeCancelled());
  EXPECT_FALSE(stage.environmentForUID("B1")->isPipeCancelled());
}

TEST_F(QSSecondStageTest, ConversionNoticesReachTheUserOfEveryEnvironment) {
  auto annClient = std::make_shared<CallLogClient>();
  auto bobClient = std::make_shared<CallLogClient>();
  ann->setClient(annClient);
  bob->setClient(bobClient);
  stage.createEnvironmentForUID_withUserEnvironment("A1", ann);
  stage.createEnvironmentForUID_withUserEnvironment("B1", bob);
  stage.conversionChangedState_forMountPath("converting", "/media/disk");
  EXPECT_EQ(annClient->count("conversionChangedState"), 1u);
  EXPECT_EQ(bobClient->count("conversionChangedState"), 1u);
  EXPECT_EQ(bobClient->lines().back(), "conversionChangedState converting,/media/disk");
}

TEST_F(QSSecondStageTest, StopAllEndsTheThreadsOfLiveAndTerminatedEnvironments) {
  stage.createEnvironmentForUID_withUserEnvironment("A1", ann);
  stage.createEnvironmentForUID_withUserEnvironment("B1", bob);
  const auto a1 = stage.environmentForUID("A1");
  const auto b1 = stage.environmentForUID("B1");
  stage.terminateEnvironmentForUID("A1");
  EXPECT_TRUE(stage.stopAll(kStopWait));
  // Both threads have ended: waiting for them again returns at once.
  EXPECT_TRUE(a1->stopThread(std::chrono::milliseconds(0)));
  EXPECT_TRUE(b1->stopThread(std::chrono::milliseconds(0)));
}
