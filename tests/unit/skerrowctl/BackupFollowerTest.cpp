#include "tools/skerrowctl/BackupFollower.h"

#include <sstream>

#include <gtest/gtest.h>

namespace {

using namespace skerrowctl;
using Kind = QSBackupOutcome::Kind;
using State = QSBackupOutcome::State;

constexpr const char* kUID = "5E4B0C1A-0000-4000-8000-00000000A11E";

wire::TallyViewWire view(int64_t files, int64_t bytes) {
  return {{"Documents", {wire::CounterWire(files), wire::CounterWire(bytes)}}};
}

// An engine on a fake clock: `serve` runs the scripted events due by the
// time it is asked to wait for, then moves the clock on.
class FakeEngine : public FollowedEngine {
 public:
  struct Event {
    double at;
    std::function<void()> run;
  };
  double clock = 100;
  wire::TallyWire tally{view(0, 0), view(0, 0), view(0, 0), view(0, 0)};
  std::optional<QSBackupOutcome> outcome;
  std::vector<Event> events;
  int tallyReads = 0;
  int outcomeQuestions = 0;

  std::optional<wire::TallyWire> readTally(const QSTallyReference&) override {
    ++tallyReads;
    return tally;
  }
  std::optional<QSBackupOutcome> outcomeForBackup(const std::string&) override {
    ++outcomeQuestions;
    return outcome;
  }
  void serve(std::chrono::milliseconds timeout, const std::function<bool()>& done) override {
    const double until = clock + static_cast<double>(timeout.count()) / 1000;
    for (auto it = events.begin(); it != events.end();) {
      if (it->at > until) {
        ++it;
        continue;
      }
      clock = std::max(clock, it->at);
      auto run = std::move(it->run);
      it = events.erase(it);
      run();
      if (done()) return;
    }
    clock = std::max(clock, until);
    if (events.empty() && timeout.count() == 0) clock += 0.001;
  }
  double now() override { return clock; }
};

QSBackupOutcome outcomeOf(State state, uint64_t sequence, Kind kind = Kind::Backup) {
  QSBackupOutcome o;
  o.uid = kUID;
  o.kind = kind;
  o.state = state;
  o.sequence = sequence;
  o.filesCopied = 3000;
  o.filesExpected = 3000;
  return o;
}

struct Harness {
  FakeEngine engine;
  std::ostringstream out, err;
  BackupFollower follower;
  explicit Harness(BackupFollower::Output output, uint64_t before = 7, Kind kind = Kind::Backup)
      : follower({{kUID, before}}, kind, output, out, err) {
    follower.setEngine(&engine);
  }
  void callback(double at, const std::string& member, bool withUID = true) {
    engine.events.push_back({at, [this, member, withUID] {
                               follower.tallyCallback(member, {":1.1", "/com/qsc/skerrow/tally/1"},
                                                      withUID ? std::optional<std::string>(kUID) : std::nullopt);
                             }});
  }
};

TEST(BackupFollowerTest, TheRunEndsWithItsOwnOutcomeNotAnOlderOne) {
  Harness h({});
  h.engine.outcome = outcomeOf(State::Completed, 7);  // the run before
  h.callback(100.1, "startedTransferTally_withUID");
  h.callback(101.0, "finishedTransferTally_withUID");
  h.engine.events.push_back({101.5, [&] { h.engine.outcome = outcomeOf(State::CompletedWithFailures, 8); }});
  EXPECT_TRUE(h.follower.follow(std::chrono::seconds(300), nullptr));
  const auto& followed = h.follower.results().at(kUID);
  ASSERT_TRUE(followed.outcome);
  EXPECT_EQ(followed.outcome->sequence, 8u);
  EXPECT_EQ(followed.outcome->state, State::CompletedWithFailures);
  EXPECT_LT(h.engine.clock, 103);
}

TEST(BackupFollowerTest, AnOutcomeThatFollowsTheLastCallbackIsLearntWithinATenthOfASecond) {
  Harness h({});
  h.callback(100.1, "startedTransferTally_withUID");
  h.callback(101.0, "finishedTransferTally_withUID");
  // The engine records the outcome once its final sync is done.
  h.engine.events.push_back({101.33, [&] { h.engine.outcome = outcomeOf(State::Completed, 8); }});
  EXPECT_TRUE(h.follower.follow(std::chrono::seconds(300), nullptr));
  EXPECT_EQ(h.follower.results().at(kUID).outcome->sequence, 8u);
  EXPECT_LE(h.engine.clock, 101.43);
}

TEST(BackupFollowerTest, ACancelByAnyoneIsLearntWithinTwoSecondsWithoutAnyCallback) {
  Harness h({});
  h.callback(100.1, "startedTransferTally_withUID");
  // Cancelled from another shell: no callback follows, only the outcome.
  h.engine.events.push_back({105.0, [&] { h.engine.outcome = outcomeOf(State::Cancelled, 9); }});
  EXPECT_TRUE(h.follower.follow(std::chrono::seconds(300), nullptr));
  EXPECT_EQ(h.follower.results().at(kUID).outcome->state, State::Cancelled);
  EXPECT_LE(h.engine.clock, 107.0);
}

TEST(BackupFollowerTest, AnOutcomeOfAnotherKindIsNotTheEndOfTheFollowedRun) {
  Harness h({});
  h.engine.events.push_back({101.0, [&] { h.engine.outcome = outcomeOf(State::Completed, 8, Kind::Count); }});
  h.engine.events.push_back({104.0, [&] { h.engine.outcome = outcomeOf(State::Completed, 9); }});
  EXPECT_TRUE(h.follower.follow(std::chrono::seconds(300), nullptr));
  EXPECT_EQ(h.follower.results().at(kUID).outcome->sequence, 9u);
}

TEST(BackupFollowerTest, SilenceEndsTheWaitWithoutAnOutcome) {
  Harness h({});
  EXPECT_FALSE(h.follower.follow(std::chrono::seconds(3), nullptr));
  EXPECT_FALSE(h.follower.results().at(kUID).outcome);
  EXPECT_GE(h.engine.outcomeQuestions, 3);
}

TEST(BackupFollowerTest, JsonProgressEventsAtMostOnceASecondWithRisingCounts) {
  BackupFollower::Output output;
  output.json = true;
  Harness h(output);
  h.callback(100.0, "startedTransferTally_withUID");
  for (int i = 1; i <= 20; ++i)
    h.engine.events.push_back({100.0 + i * 0.25, [&h, i] {
                                 h.engine.tally = {view(3000, 300000), view(0, 0), view(i * 100, i * 10000),
                                                   view(3000, 300000)};
                               }});
  h.callback(105.2, "finishedTransferTally_withUID");
  h.engine.events.push_back({105.3, [&] { h.engine.outcome = outcomeOf(State::Completed, 8); }});
  EXPECT_TRUE(h.follower.follow(std::chrono::seconds(300), nullptr));
  std::istringstream lines(h.out.str());
  std::vector<int64_t> copied;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("\"event\":\"progress\"") == std::string::npos) continue;
    const auto at = line.find("\"transferred\":{\"files\":");
    ASSERT_NE(at, std::string::npos) << line;
    copied.push_back(std::stoll(line.substr(at + std::string("\"transferred\":{\"files\":").size())));
    EXPECT_NE(line.find("\"phase\":\"copy\""), std::string::npos) << line;
  }
  // 5.2 s of copying: one event at its start, then one a second.
  EXPECT_GE(copied.size(), 5u) << h.out.str();
  EXPECT_LE(copied.size(), 6u) << h.out.str();
  for (size_t i = 1; i < copied.size(); ++i) EXPECT_GT(copied[i], copied[i - 1]) << h.out.str();
  EXPECT_NE(h.out.str().find("\"event\":\"startedTransferTally_withUID\""), std::string::npos);
  EXPECT_NE(h.out.str().find("\"event\":\"finishedTransferTally_withUID\""), std::string::npos);
}

TEST(BackupFollowerTest, OnATerminalTheLineIsRedrawnFourTimesASecondFromTheLentTally) {
  BackupFollower::Output output;
  output.terminal = true;
  output.width = 80;
  Harness h(output);
  h.callback(100.0, "startedTransferTally_withUID");
  h.engine.events.push_back({102.0, [&] { h.engine.outcome = outcomeOf(State::Completed, 8); }});
  const int before = h.engine.tallyReads;
  EXPECT_TRUE(h.follower.follow(std::chrono::seconds(300), nullptr));
  // Two seconds: eight reads of the tally (and redraws), give or take the edges.
  EXPECT_GE(h.engine.tallyReads - before, 7);
  size_t redraws = 0;
  for (size_t at = h.err.str().find("\r\033[K"); at != std::string::npos; at = h.err.str().find("\r\033[K", at + 1))
    ++redraws;
  EXPECT_GE(redraws, 7u);
  std::istringstream lines(h.err.str());
  for (std::string line; std::getline(lines, line, '\r');) EXPECT_LT(line.size(), 80u + 4) << line;
}

TEST(BackupFollowerTest, ErrorsAreShownOneByOneThenOnlyCounted) {
  BackupFollower::Output output;
  output.maximumErrorLines = 3;
  Harness h(output);
  for (int i = 0; i < 10; ++i)
    h.follower.copyError(wire::ErrorWire(-1, 10, std::vector<std::string>{kUID}, "No space left on device",
                                         "/mnt/x", std::vector<std::string>{"/home/ann/f" + std::to_string(i)},
                                         std::vector<double>{}));
  EXPECT_EQ(h.follower.results().at(kUID).errorsSeen, 10);
  const std::string text = h.err.str();
  EXPECT_NE(text.find("could not copy /home/ann/f2: No space left on device"), std::string::npos) << text;
  EXPECT_EQ(text.find("/home/ann/f3"), std::string::npos) << text;
  EXPECT_NE(text.find("the summary counts them"), std::string::npos) << text;
}

TEST(BackupFollowerTest, TheExpectedBytesAreHandedOverWhenTheComparisonEnds) {
  Harness h({});
  h.engine.tally = {view(10, 1000), view(0, 0), view(0, 0), view(10, 5000000)};
  std::optional<TallyTotals> expected;
  h.follower.setExpectedHandler([&](const std::string& uid, const TallyTotals& totals) {
    EXPECT_EQ(uid, kUID);
    expected = totals;
  });
  h.callback(100.1, "finishedDestinationTally_withUID");
  h.engine.events.push_back({100.5, [&] { h.engine.outcome = outcomeOf(State::Completed, 8); }});
  EXPECT_TRUE(h.follower.follow(std::chrono::seconds(300), nullptr));
  ASSERT_TRUE(expected);
  EXPECT_EQ(expected->bytes, 5000000);
}

}  // namespace
