// The converter of one volume: its thread, its run, its state.
#include "Engine/conversion/QSBackupConverter.h"

#include <gtest/gtest.h>

#include "platform/Log.h"
#include "platform/VolumeTree.h"
#include "tests/support/Eventually.h"
#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using namespace skerrow_test;

TEST(QSBackupConverter, ARunReportsTheNewBackupsOnceOnItsOwnThread) {
  useShippedBlackList();
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "10"}),
            std::vector<std::string>{});
  RecordingConversionDelegate delegate;
  auto converter = QSBackupConverter::initWithDelegate_forVolume(&delegate, dir / "volume", testEnvironment());
  EXPECT_EQ(converter->mountPoint(), dir / "volume");
  EXPECT_EQ(converter->converterState(), std::nullopt);
  converter->start();
  converter->start();
  ASSERT_TRUE(eventually([&] { return !delegate.finished().empty(); }));
  ASSERT_TRUE(converter->waitUntilFinished(std::chrono::seconds(10)));
  ASSERT_EQ(delegate.finished().size(), 1u);
  EXPECT_EQ(delegate.finished()[0].size(), 1u);
  EXPECT_EQ(converter->uids(), delegate.finished()[0]);
  EXPECT_EQ(delegate.finishedBy().get(), converter.get());
  // The run is over: no conversion runs any more.
  EXPECT_EQ(converter->converterState(), std::nullopt);
  converter->newUIDsWereAdopted(converter->uids());
  EXPECT_FALSE(exists(dir / "volume/qs skerrow.skstor/.vessaToQSConversionNewBackups"));
  converter->releaseThread();
}

TEST(QSBackupConverter, AVolumeWithNothingToConvertReportsNoBackups) {
  TempDir dir;
  RecordingConversionDelegate delegate;
  auto converter = QSBackupConverter::initWithDelegate_forVolume(&delegate, dir.path(), testEnvironment());
  converter->start();
  ASSERT_TRUE(eventually([&] { return !delegate.finished().empty(); }));
  EXPECT_TRUE(delegate.finished()[0].empty());
  EXPECT_TRUE(delegate.states().empty());
  ASSERT_TRUE(converter->waitUntilFinished(std::chrono::seconds(10)));
  converter->releaseThread();
}

TEST(QSBackupConverter, AMissingVolumeReportsNoBackups) {
  RecordingConversionDelegate delegate;
  auto converter =
      QSBackupConverter::initWithDelegate_forVolume(&delegate, "/nonexistent/skerrow-volume", testEnvironment());
  converter->start();
  ASSERT_TRUE(eventually([&] { return !delegate.finished().empty(); }));
  EXPECT_TRUE(delegate.finished()[0].empty());
  ASSERT_TRUE(converter->waitUntilFinished(std::chrono::seconds(10)));
}

// A renamer that holds the conversion at its first rename until told to go on.
struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  bool reached = false;
  bool open = false;
};

TEST(QSBackupConverter, TheStateCanBeAskedWhileItRunsAndACancelStopsIt) {
  useShippedBlackList();
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "10"}),
            std::vector<std::string>{});
  auto gate = std::make_shared<Gate>();
  QSVessaConversionEnvironment environment = testEnvironment();
  environment.renameFolder = [gate](platform::VolumeTree& volume, const std::string& from, const std::string& to) {
    std::unique_lock<std::mutex> lock(gate->mutex);
    gate->reached = true;
    gate->changed.notify_all();
    gate->changed.wait(lock, [&] { return gate->open; });
    return QSVessaConversionEnvironment::renameFolderOnVolume(volume, from, to);
  };
  RecordingConversionDelegate delegate;
  auto converter = QSBackupConverter::initWithDelegate_forVolume(&delegate, dir / "volume", environment);
  converter->start();
  {
    std::unique_lock<std::mutex> lock(gate->mutex);
    ASSERT_TRUE(gate->changed.wait_for(lock, std::chrono::seconds(10), [&] { return gate->reached; }));
  }
  EXPECT_EQ(converter->converterState(), platform::Value("QS Tidevault"));
  converter->cancel();
  {
    std::lock_guard<std::mutex> lock(gate->mutex);
    gate->open = true;
    gate->changed.notify_all();
  }
  ASSERT_TRUE(converter->waitUntilFinished(std::chrono::seconds(10)));
  ASSERT_EQ(delegate.finished().size(), 1u);
  EXPECT_TRUE(delegate.finished()[0].empty());
  // Stopped after its first rename: the next run resumes from there.
  EXPECT_TRUE(isFolder(dir / "volume/QS Tidevault - WillPerformPathExamination"));
  converter->releaseThread();
}

TEST(QSBackupConverter, AConversionWaitsWhileAnotherWorksOnTheSameVolume) {
  useShippedBlackList();
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "10"}),
            std::vector<std::string>{});
  platform::LogCapture log;
  auto other = platform::VolumeTree::open(dir / "volume");
  ASSERT_EQ(other->tryLock(), platform::VolumeTree::Lock::Held);
  RecordingConversionDelegate delegate;
  auto converter = QSBackupConverter::initWithDelegate_forVolume(&delegate, dir / "volume", testEnvironment());
  converter->start();
  ASSERT_TRUE(eventually([&] { return log.contains("Another conversion works on " + dir / "volume"); }));
  EXPECT_TRUE(delegate.states().empty());
  EXPECT_TRUE(isFolder(dir / "volume/QS Tidevault"));
  other.reset();
  ASSERT_TRUE(eventually([&] { return !delegate.finished().empty(); }));
  EXPECT_EQ(delegate.finished()[0].size(), 1u);
  ASSERT_TRUE(converter->waitUntilFinished(std::chrono::seconds(10)));
  converter->releaseThread();
}

}  // namespace
