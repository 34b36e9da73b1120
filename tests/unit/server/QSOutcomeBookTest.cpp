#include "Engine/server/QSOutcomeBook.h"

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

namespace {

using State = QSBackupOutcome::State;
using Kind = QSBackupOutcome::Kind;

QSBackupOutcome run(State state, Kind kind = Kind::Backup) {
  QSBackupOutcome o;
  o.uid = "5E4B0C1A-0000-4000-8000-00000000A11E";
  o.kind = kind;
  o.state = state;
  o.started = platform::Date(1000);
  o.ended = platform::Date(1060);
  return o;
}

TEST(QSOutcomeBookTest, TheLastCleanBackupOutlivesLaterFailedRunsAndCounts) {
  skerrow_test::TempDir dir;
  QSOutcomeBook book;
  book.loadFromFolder(dir.path());
  const uint64_t clean = book.record(run(State::Completed)).sequence;
  book.record(run(State::CompletedWithFailures));
  book.record(run(State::Cancelled));
  book.record(run(State::Completed, Kind::Count));
  const std::string uid = run(State::Completed).uid;
  EXPECT_EQ(book.outcomeForUID(uid)->kind, Kind::Count);
  ASSERT_TRUE(book.lastCleanBackupForUID(uid));
  EXPECT_EQ(book.lastCleanBackupForUID(uid)->sequence, clean);
  // And after a restart.
  QSOutcomeBook again;
  again.loadFromFolder(dir.path());
  ASSERT_TRUE(again.lastCleanBackupForUID(uid));
  EXPECT_EQ(again.lastCleanBackupForUID(uid)->sequence, clean);
  EXPECT_EQ(again.outcomeForUID(uid)->kind, Kind::Count);
}

TEST(QSOutcomeBookTest, ABackupThatNeverCompletedCleanlyHasNoLastCleanRun) {
  skerrow_test::TempDir dir;
  QSOutcomeBook book;
  book.loadFromFolder(dir.path());
  book.record(run(State::CompletedWithFailures));
  book.record(run(State::Stopped));
  EXPECT_FALSE(book.lastCleanBackupForUID(run(State::Completed).uid));
  book.forget(run(State::Completed).uid);
  EXPECT_FALSE(book.outcomeForUID(run(State::Completed).uid));
}

TEST(QSOutcomeBookTest, ACleanRunThatIsTheLastIsNotKeptTwiceInTheFile) {
  skerrow_test::TempDir dir;
  QSOutcomeBook book;
  book.loadFromFolder(dir.path());
  book.record(run(State::Completed));
  EXPECT_EQ(dir.read(QSOutcomeBook::kFileName).find("last-clean-backup"), std::string::npos);
  book.record(run(State::CompletedWithFailures));
  EXPECT_NE(dir.read(QSOutcomeBook::kFileName).find("last-clean-backup"), std::string::npos);
}

}  // namespace
