#include "Engine/clients/QSSkerrowClientProxy.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Engine/records/QSTally.h"
#include "platform/Log.h"
#include "tests/support/PipelineTestSupport.h"

using skerrow_test::CallLogClient;

namespace {

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Every relayed callback once, in the order of the protocol.
void callEveryRelayedMethod(QSSkerrowClientProxy& proxy, const std::shared_ptr<QSTally>& tally) {
  proxy.startedSourceTally(tally);
  proxy.computingSourceTally(tally);
  proxy.finishedSourceTally(tally);
  proxy.startedDestinationTally_withUID(tally, "U");
  proxy.computingDestinationTally_withUID(tally, "U");
  proxy.finishedDestinationTally_withUID(tally, "U");
  proxy.startedTransferTally_withUID(tally, "U");
  proxy.computingTransferTally_withUID(tally, "U");
  proxy.finishedTransferTally_withUID(tally, "U");
  proxy.startedRealtimeTransferOfFile_to("/home/ann/a.txt", "/disk/U/a@0.txt");
  proxy.finishedRealtimeTransferOfFile_to_withResult("/home/ann/a.txt", "/disk/U/a@0.txt", true);
  proxy.error(*QSBackupError::initWithUID_sourcePath_destinationPath_message_code("U", "/s", "/d", "m", -1));
  proxy.stoppedDueToErrorsForBackup("U");
  proxy.conversionChangedState_forMountPath("converting", "/media/disk");
}

// A client whose source-count start raises something other than the platform's exception.
class BrokenClient : public CallLogClient {
 public:
  void startedSourceTally(const Tally&) override { throw std::runtime_error("a bug in the client"); }
};

// A client that notices when two callbacks run at once.
class OverlapDetectingClient : public CallLogClient {
 public:
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::atomic<int> calls{0};
  void computingSourceTally(const Tally&) override {
    if (inside.fetch_add(1) != 0) overlapped.store(true);
    for (int i = 0; i < 50; ++i) std::this_thread::yield();
    calls.fetch_add(1);
    inside.fetch_sub(1);
  }
};

}  // namespace

TEST(QSSkerrowClientProxyTest, WithNoClientEveryRelayedCallbackReturnsAtOnceLogsNothingAndTheErrorLimitIsZero) {
  platform::LogCapture log;
  QSSkerrowClientProxy proxy;
  EXPECT_EQ(proxy.proxiedObject(), nullptr);
  callEveryRelayedMethod(proxy, QSTally::init());
  EXPECT_EQ(proxy.maximumContiguousErrorsClientWants(), 0u);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(proxy.userHome(), "");
  EXPECT_EQ(proxy.shortUserName(), "");
  EXPECT_EQ(proxy.longUserName(), "");
}

TEST(QSSkerrowClientProxyTest, AfterOneFailedCallLaterCallbacksAreSilentlyDroppedUntilAClientIsSetAgain) {
  auto client = std::make_shared<CallLogClient>(7);
  QSSkerrowClientProxy proxy;
  proxy.setProxiedObject(client);
  proxy.startedDestinationTally_withUID(QSTally::init(), "U");
  ASSERT_EQ(client->lines(), (std::vector<std::string>{"startedDestinationTally U"}));

  platform::LogCapture log;
  client->failCalls(1);  // the next call fails; the client would answer the ones after it
  EXPECT_NO_THROW(proxy.computingDestinationTally_withUID(QSTally::init(), "U"));
  EXPECT_EQ(proxy.proxiedObject(), nullptr);
  callEveryRelayedMethod(proxy, QSTally::init());
  EXPECT_EQ(proxy.maximumContiguousErrorsClientWants(), 0u);
  EXPECT_EQ(client->lines(), (std::vector<std::string>{"startedDestinationTally U"}));
  EXPECT_TRUE(log.lines().empty());

  proxy.setProxiedObject(client);
  proxy.finishedDestinationTally_withUID(QSTally::init(), "U");
  EXPECT_EQ(proxy.maximumContiguousErrorsClientWants(), 7u);
  EXPECT_EQ(client->lines(), (std::vector<std::string>{"startedDestinationTally U", "finishedDestinationTally U",
                                                       "maximumContiguousErrors"}));
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(QSSkerrowClientProxyTest, WithALimitOfThreeFourFailedCopiesInARowArriveAsErrorsAndTheFifthStopsTheBackupWithoutAnError) {
  skerrow_test::useShippedBlackList();
  skerrow_test::VanishingFilesBackup backup(6);
  auto client = std::make_shared<CallLogClient>(3);
  backup.user->setClient(client);
  backup.run();

  std::vector<std::string> reports;
  for (const auto& line : client->lines())
    if (line.rfind("error", 0) == 0 || line.rfind("stoppedDueToErrors", 0) == 0)
      reports.push_back(line.substr(0, line.find(' ')));
  EXPECT_EQ(reports, (std::vector<std::string>{"error", "error", "error", "error", "stoppedDueToErrors"}));
  EXPECT_EQ(client->count("stoppedDueToErrors"), 1u);
  EXPECT_EQ(client->lines().back(), "finishedTransferTally U");
  // Each reported failure carries the backup's uid and names a different file.
  std::set<std::string> files;
  for (const auto& error : client->errors()) {
    EXPECT_EQ(error.uid(), "U");
    EXPECT_EQ(error.code(), -1);
    files.insert(error.destinationPath());
  }
  EXPECT_EQ(files.size(), 4u);
}

TEST(QSSkerrowClientProxyTest, EachSuccessfulCallbackIsTracedWithTheRelayingSignatureAndItsArguments) {
  auto client = std::make_shared<CallLogClient>();
  QSSkerrowClientProxy proxy;
  proxy.setProxiedObject(client);
  platform::LogCapture log;
  callEveryRelayedMethod(proxy, QSTally::init());
  EXPECT_EQ(client->calls().size(), 14u);

  const auto lines = log.lines();
  // error: and stoppedDueToErrorsForBackup: leave no trace.
  ASSERT_EQ(lines.size(), 12u);
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"QSSkerrowClientProxy::startedSourceTally(", ")"},
      {"QSSkerrowClientProxy::computingSourceTally(", ")"},
      {"QSSkerrowClientProxy::finishedSourceTally(", ")"},
      {"QSSkerrowClientProxy::startedDestinationTally_withUID(", ") (U)"},
      {"QSSkerrowClientProxy::computingDestinationTally_withUID(", ") (U)"},
      {"QSSkerrowClientProxy::finishedDestinationTally_withUID(", ") (U)"},
      {"QSSkerrowClientProxy::startedTransferTally_withUID(", ") (U)"},
      {"QSSkerrowClientProxy::computingTransferTally_withUID(", ") (U)"},
      {"QSSkerrowClientProxy::finishedTransferTally_withUID(", ") (U)"},
      {"QSSkerrowClientProxy::startedRealtimeTransferOfFile_to(", ") (/home/ann/a.txt,/disk/U/a@0.txt)"},
      {"QSSkerrowClientProxy::finishedRealtimeTransferOfFile_to_withResult(",
       std::string(") (/home/ann/a.txt,/disk/U/a@0.txt,") + '\x01' + ")"},
      {"QSSkerrowClientProxy::conversionChangedState_forMountPath(", ") (converting,/media/disk)"},
  };
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NE(lines[i].find(expected[i].first), std::string::npos) << lines[i];
    EXPECT_TRUE(endsWith(lines[i], expected[i].second)) << lines[i];
  }
  // The source counts carry no argument in their trace.
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(lines[i].find(" ("), std::string::npos) << lines[i];
}

TEST(QSSkerrowClientProxyTest, TheErrorLimitQueryIsAnsweredByTheClientAndLeavesNoTrace) {
  auto client = std::make_shared<CallLogClient>(42);
  QSSkerrowClientProxy proxy;
  proxy.setProxiedObject(client);
  platform::LogCapture log;
  EXPECT_EQ(proxy.maximumContiguousErrorsClientWants(), 42u);
  EXPECT_TRUE(log.lines().empty());
}

TEST(QSSkerrowClientProxyTest, AFailureOfAnotherKindPassesThroughKeepsTheClientAndReleasesTheLock) {
  auto client = std::make_shared<BrokenClient>();
  QSSkerrowClientProxy proxy;
  proxy.setProxiedObject(client);
  platform::LogCapture log;
  EXPECT_THROW(proxy.startedSourceTally(QSTally::init()), std::runtime_error);
  EXPECT_EQ(proxy.proxiedObject(), client);
  EXPECT_TRUE(log.lines().empty());
  // Another thread can still get through: the lock was released.
  std::thread other([&proxy] { proxy.finishedSourceTally(QSTally::init()); });
  other.join();
  EXPECT_EQ(client->lines(), (std::vector<std::string>{"finishedSourceTally"}));
}

TEST(QSSkerrowClientProxyTest, CallbacksFromSeveralThreadsReachTheClientOneAtATime) {
  auto client = std::make_shared<OverlapDetectingClient>();
  QSSkerrowClientProxy proxy;
  proxy.setProxiedObject(client);
  platform::LogCapture log;
  const auto tally = QSTally::init();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) proxy.computingSourceTally(tally);
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(client->calls.load(), 800);
  EXPECT_FALSE(client->overlapped.load());
  EXPECT_EQ(log.lines().size(), 800u);
}

TEST(QSSkerrowClientProxyTest, TheUserQuestionsAreAskedOfTheClientDirectly) {
  auto client = std::make_shared<CallLogClient>();
  QSSkerrowClientProxy proxy;
  proxy.setProxiedObject(client);
  EXPECT_EQ(proxy.userHome(), "/home/ann");
  EXPECT_EQ(proxy.shortUserName(), "ann");
  EXPECT_EQ(proxy.longUserName(), "Ann Example");
  proxy.setProxiedObject(nullptr);
  EXPECT_EQ(proxy.shortUserName(), "");
}
