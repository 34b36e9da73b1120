#include "tools/skerrowctl/AgentWatch.h"

#include <gtest/gtest.h>

namespace {

using namespace skerrowctl;
using State = QSBackupOutcome::State;

struct Recorder : Notifier {
  std::vector<DesktopNotice> shown;
  bool notify(const DesktopNotice& notice) override {
    shown.push_back(notice);
    return true;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& n : shown) out.push_back(n.name);
    return out;
  }
};

AgentWatch::BackupState backup(const std::string& mountPoint, std::optional<QSBackupOutcome> outcome = {}) {
  return {"5E4B0C1A-0000-4000-8000-00000000A11E", "Backup", mountPoint, std::move(outcome)};
}

QSBackupOutcome outcome(State state, uint64_t sequence, QSBackupOutcome::Kind kind = QSBackupOutcome::Kind::Backup) {
  QSBackupOutcome o;
  o.kind = kind;
  o.state = state;
  o.sequence = sequence;
  o.filesCopied = 1003;
  o.filesExpected = 3800;
  o.bytesCopied = 52100000;
  o.failedFiles = 2797;
  o.commonFailure = "No space left on device";
  o.commonFailureCount = 2797;
  o.started = platform::Date(100);
  o.ended = platform::Date(172);
  return o;
}

TEST(AgentWatchTest, TheFirstLookAnnouncesNothingThatWasAlreadySo) {
  Recorder recorder;
  AgentWatch watch(recorder);
  watch.observe({backup("/mnt/b", outcome(State::Completed, 4))}, 0);
  EXPECT_TRUE(recorder.shown.empty());
}

TEST(AgentWatchTest, AFinishedBackupIsAnnouncedWithFilesAndBytes) {
  Recorder recorder;
  AgentWatch watch(recorder);
  watch.observe({backup("/mnt/b", outcome(State::Completed, 4))}, 0);
  watch.observe({backup("/mnt/b", outcome(State::Completed, 5))}, 2);
  ASSERT_EQ(recorder.names(), std::vector<std::string>{"Finished backup"});
  EXPECT_EQ(recorder.shown[0].body, "1,003 files (52.1 MB) copied to Backup in 1 min 12 s");
  EXPECT_FALSE(recorder.shown[0].failure);
}

TEST(AgentWatchTest, AFailedBackupSaysHowManyFilesAndWhy) {
  Recorder recorder;
  AgentWatch watch(recorder);
  watch.observe({backup("/mnt/b")}, 0);
  watch.observe({backup("/mnt/b", outcome(State::CompletedWithFailures, 1))}, 2);
  ASSERT_EQ(recorder.names(), std::vector<std::string>{"Backup failed"});
  EXPECT_TRUE(recorder.shown[0].failure);
  EXPECT_NE(recorder.shown[0].body.find("2,797 files could not be copied to Backup: No space left on device"),
            std::string::npos)
      << recorder.shown[0].body;
}

TEST(AgentWatchTest, StoppedAndCancelledBackupsAreToldAndCountsAreNot) {
  Recorder recorder;
  AgentWatch watch(recorder);
  watch.observe({backup("/mnt/b")}, 0);
  watch.observe({backup("/mnt/b", outcome(State::Completed, 1, QSBackupOutcome::Kind::Count))}, 100);
  EXPECT_TRUE(recorder.shown.empty());
  watch.observe({backup("/mnt/b", outcome(State::Stopped, 2))}, 200);
  watch.observe({backup("/mnt/b", outcome(State::Cancelled, 3))}, 300);
  EXPECT_EQ(recorder.names(), (std::vector<std::string>{"Backup stopped", "Backup cancelled"}));
}

TEST(AgentWatchTest, DisksMountedAndEjected) {
  Recorder recorder;
  AgentWatch watch(recorder);
  watch.observe({backup("")}, 0);
  watch.observe({backup("/media/ann/Backup")}, 100);
  watch.observe({backup("")}, 200);
  watch.observe({backup("/media/ann/Backup")}, 300);
  watch.observe({}, 400);  // the backup is gone from the user's list with its disk
  EXPECT_EQ(recorder.names(),
            (std::vector<std::string>{"Disk mounted", "Disk ejected", "Disk mounted", "Disk ejected"}));
  EXPECT_NE(recorder.shown[0].body.find("/media/ann/Backup"), std::string::npos);
}

TEST(AgentWatchTest, NothingMoreThanOnceAMinuteAboutTheSameBackupAndTheNewestWaits) {
  Recorder recorder;
  AgentWatch watch(recorder);
  watch.observe({backup("")}, 0);
  watch.observe({backup("/mnt/b")}, 10);                                     // said
  watch.observe({backup("/mnt/b", outcome(State::Completed, 1))}, 20);       // waits
  watch.observe({backup("/mnt/b", outcome(State::CompletedWithFailures, 2))}, 30);  // replaces it
  watch.tick(69);
  EXPECT_EQ(recorder.names(), std::vector<std::string>{"Disk mounted"});
  watch.tick(70);
  EXPECT_EQ(recorder.names(), (std::vector<std::string>{"Disk mounted", "Backup failed"}));
  watch.tick(200);
  EXPECT_EQ(recorder.shown.size(), 2u);
}

TEST(AgentWatchTest, TheEngineAwakeAndConversionNews) {
  Recorder recorder;
  AgentWatch watch(recorder);
  watch.engineAwake(0);
  watch.conversionChanged("QS Tidevault - Converting", "/mnt/b", 1);
  watch.conversionChanged("QS Tidevault - Converted", "/mnt/b", 2);
  watch.tick(61);
  EXPECT_EQ(recorder.names(), (std::vector<std::string>{"Awake", "Converting backups", "Converting backups"}));
  EXPECT_NE(recorder.shown[2].body.find("Converted"), std::string::npos);
}

}  // namespace
