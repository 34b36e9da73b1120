// The engine daemon on a private bus.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tests/support/EngineFixture.h"
#include "tests/support/FileSystemImage.h"

using namespace std::chrono_literals;
using skerrow_test::EngineFixture;

namespace {

#define SKIP_WITHOUT_ENGINE()                                                         \
  if (auto reason = EngineFixture::unavailableReason()) GTEST_SKIP() << *reason

const std::vector<std::string> kServer = {"com.qsc.skerrow", "/com/qsc/skerrow",
                                          "com.qsc.skerrow.QSSkerrowServerProtocol"};

std::vector<std::string> call(const std::string& method, std::vector<std::string> arguments = {}) {
  std::vector<std::string> out = {"call"};
  out.insert(out.end(), kServer.begin(), kServer.end());
  out.push_back(method);
  out.insert(out.end(), arguments.begin(), arguments.end());
  return out;
}

}  // namespace

TEST(QSSkerrowServerTest, StartsOnThePrivateBusAndShowsTheServerInterface) {
  SKIP_WITHOUT_ENGINE();
  EngineFixture f;
  auto& engine = f.startEngine();
  EXPECT_EQ(engine.countLogLines("server is launching..."), 1u);
  auto r = f.busctl({"introspect", "com.qsc.skerrow", "/com/qsc/skerrow"});
  ASSERT_EQ(r.exitCode, 0) << r.output;
  EXPECT_NE(r.output.find("com.qsc.skerrow.QSSkerrowServerProtocol"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find(".supportsContinuousBackup"), std::string::npos);
  EXPECT_NE(r.output.find("a{s(bbsssssssssa{s(bsa{sv})}dduas)}"), std::string::npos);
  // An engine without backups: an empty database, no conversion, no jobs.
  r = f.busctl(call("db2"));
  EXPECT_EQ(r.output, "a{s(bbsssssssssa{s(bsa{sv})}dduas)} 0\n") << r.output;
  r = f.busctl(call("conversionStateForMountPath", {"s", "/media/nothing"}));
  EXPECT_EQ(r.output, "as 0\n") << r.output;
  r = f.busctl(call("jobs"));
  EXPECT_EQ(r.output, "a{sv} 0\n");
}

TEST(QSSkerrowServerTest, SupportsContinuousBackupAnswersPerNoRealtime) {
  SKIP_WITHOUT_ENGINE();
  {
    EngineFixture f;
    f.startEngine();
    EXPECT_EQ(f.busctl(call("supportsContinuousBackup")).output, "b true\n");
  }
  EngineFixture f;
  f.startEngine({"-NoRealtime"});
  EXPECT_EQ(f.busctl(call("supportsContinuousBackup")).output, "b false\n");
  // The caller waits for the answer: the engine asks the bus who is calling,
  // which it can only learn while the caller is still connected.
  EXPECT_EQ(f.busctl({"call", "com.qsc.skerrow", "/com/qsc/skerrow",
                      "com.qsc.skerrow.QSSkerrowServerProtocol", "setSupportsContinuousBackup", "b", "true"})
                .exitCode,
            0);
  EXPECT_EQ(f.busctl(call("supportsContinuousBackup")).output, "b true\n");
}

TEST(QSSkerrowServerTest, ExitEndsTheEngineAtOnceWithStatusZero) {
  SKIP_WITHOUT_ENGINE();
  EngineFixture f;
  auto& engine = f.startEngine();
  // The caller stays connected until the engine has gone (no answer comes):
  // the engine checks who is asking before it obeys.
  f.busctl({"call", "com.qsc.skerrow", "/com/qsc/skerrow", "com.qsc.skerrow.QSSkerrowServerProtocol", "exit"});
  EXPECT_EQ(engine.waitForExit(10s), 0);
  EXPECT_EQ(engine.countLogLines("exiting..."), 0u);  // at once: no goodbye
}

TEST(QSSkerrowServerTest, SigtermEndsTheEngineWithStatusZeroAfterSayingSo) {
  SKIP_WITHOUT_ENGINE();
  EngineFixture f;
  auto& engine = f.startEngine();
  EXPECT_EQ(engine.stop(10s), 0);
  EXPECT_EQ(engine.countLogLines("exiting..."), 1u);
}

TEST(QSSkerrowServerTest, ASecondEngineKeepsRunningWithoutTheName) {
  SKIP_WITHOUT_ENGINE();
  EngineFixture f;
  auto& first = f.startEngine();
  auto& second = f.startEngine();
  EXPECT_TRUE(second.waitForLogLine("Unable to register the name com.qsc.skerrow", 10s)) << second.logText();
  EXPECT_TRUE(second.waitForLogLine("sconnection configured...", 10s));
  EXPECT_TRUE(second.isRunning());
  EXPECT_TRUE(first.isRunning());
  EXPECT_EQ(f.busctl(call("supportsContinuousBackup")).output, "b true\n");  // the first one answers
}

TEST(QSSkerrowServerTest, AnEngineThatIsNotRootCannotTakeTheName) {
  SKIP_WITHOUT_ENGINE();
  EngineFixture f;
  auto& engine = f.startEngine({}, skerrow_test::RunAs{65534, 65534});
  EXPECT_TRUE(engine.waitForLogLine("Unable to register the name com.qsc.skerrow", 10s)) << engine.logText();
  EXPECT_TRUE(engine.isRunning());
  auto r = f.busctl(call("supportsContinuousBackup"));
  EXPECT_NE(r.exitCode, 0) << r.output;  // nobody answers under the name
}

TEST(QSSkerrowServerTest, MountAndUnmountReachTheDiskOperationsWithinASecond) {
  SKIP_WITHOUT_ENGINE();
  if (auto reason = skerrow_test::FileSystemImage::unavailableReason(skerrow_test::FileSystemImage::Kind::Ext4))
    GTEST_SKIP() << *reason;
  EngineFixture f;
  auto& engine = f.startEngine();
  auto image = std::make_unique<skerrow_test::FileSystemImage>(skerrow_test::FileSystemImage::Kind::Ext4, 32 << 20,
                                                               skerrow_test::FileSystemImageOptions{.label = "Backup"});
  const std::string mountPoint = image->mountPoint();
  const std::string loop = image->loopDevice().substr(image->loopDevice().rfind('/') + 1);
  EXPECT_TRUE(engine.waitForLogLine("Disk " + loop + " appeared at " + mountPoint + " (Backup)", 1s)) << engine.logText();
  image->unmount();
  EXPECT_TRUE(engine.waitForLogLine("Disk at " + mountPoint + " disappeared", 1s)) << engine.logText();
}

// The engine idles with its 10-second timer: mount notices and the bus must cost nothing meanwhile.
// What idling does cost is the stage threads' polls, every 100 ms for each of the two users here
// (root, nobody): 1,200 wake-ups a minute, measured at 50-85 us each on a virtual machine
// (0.06-0.10 s a minute).  The bound allows those and catches anything more: a third polling
// thread, a faster poll or a busy loop.
TEST(QSSkerrowServerTest, IdleEngineUsesUnderAFifthOfASecondOfProcessorTimeInAMinute) {
  SKIP_WITHOUT_ENGINE();
  EngineFixture f;
  auto& engine = f.startEngine({"-noSchedule"});
  const double before = engine.cpuSeconds();
  std::this_thread::sleep_for(60s);  // the measurement itself: a minute of idling
  const double used = engine.cpuSeconds() - before;
  std::printf("[ idle ] processor time over 60 s idle: %.3f s\n", used);
  EXPECT_LT(used, 0.2);
  EXPECT_TRUE(engine.isRunning());
}
