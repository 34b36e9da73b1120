#include "Engine/files/QSDestinationTraits.h"

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

namespace {
QSFSFileAttributes file(int64_t size, double created, double modified) {
  return QSFSFileAttributes{
      .size = size, .type = kQSFSTypeFile, .fileTypeIsARegularFile = true, .creationDate = created, .modificationDate = modified};
}
}  // namespace

TEST(QSDestinationTraitsTest, ExactDestinationComparesEverythingExactly) {
  const QSDestinationTraits exact;
  EXPECT_TRUE(QSIsUnchangedCopy(file(10, 1.5, 2.25), file(10, 1.5, 2.25), exact));
  EXPECT_FALSE(QSIsUnchangedCopy(file(10, 1.5, 2.25), file(11, 1.5, 2.25), exact));
  EXPECT_FALSE(QSIsUnchangedCopy(file(10, 1.5, 2.25), file(10, 1.5, 2.250000001), exact));
  EXPECT_FALSE(QSIsUnchangedCopy(file(10, 1.5, 2.25), file(10, 1.6, 2.25), exact));
}

TEST(QSDestinationTraitsTest, CoarseTimesAndLostCreationDatesCountAsEqual) {
  const QSDestinationTraits fat{2.0, false};
  EXPECT_TRUE(QSIsUnchangedCopy(file(10, 1.5, 101.9), file(10, 0, 100.0), fat));
  EXPECT_FALSE(QSIsUnchangedCopy(file(10, 1.5, 102.1), file(10, 0, 100.0), fat));
  EXPECT_FALSE(QSIsUnchangedCopy(file(10, 1.5, 101.9), file(9, 0, 100.0), fat));
}

TEST(QSDestinationTraitsTest, ProbeOfTheTemporaryFolder) {
  skerrow_test::TempDir dir;
  const auto traits = QSDestinationTraits::probe(dir.path());
  EXPECT_EQ(traits.timeGranularity, 0.0);  // ext4 and tmpfs keep nanoseconds
  const auto unwritable = QSDestinationTraits::probe(dir / "missing");
  EXPECT_EQ(unwritable.timeGranularity, 0.0);
  EXPECT_TRUE(unwritable.keepsCreationDate);
}

TEST(QSDestinationTraitsTest, AStoredCopyWithoutCreationDateAttributeCountsAsEqualInCreationDate) {
  const QSDestinationTraits exact;
  QSFSFileAttributes converted = file(10, 999, 200);  // created when the older product wrote its copy
  converted.creationDateKnown = false;
  EXPECT_TRUE(QSIsUnchangedCopy(file(10, 100, 200), converted, exact));
  converted.modificationDate = 201;
  EXPECT_FALSE(QSIsUnchangedCopy(file(10, 100, 200), converted, exact));
  EXPECT_FALSE(QSIsUnchangedCopy(file(10, 100, 200), file(10, 999, 200), exact));
}

TEST(QSDestinationTraitsTest, OnlyACopysOwnAttributeMakesItsCreationDateKnown) {
  platform::FileAttributes a;
  a.type = platform::FileAttributes::Type::Regular;
  a.creationSource = platform::FileAttributes::CreationSource::BirthTime;
  EXPECT_FALSE(QSFSFileAttributes::fromStoredCopyAttributes(a).creationDateKnown);
  a.creationSource = platform::FileAttributes::CreationSource::StoredAttribute;
  EXPECT_TRUE(QSFSFileAttributes::fromStoredCopyAttributes(a).creationDateKnown);
  a.creationSource = platform::FileAttributes::CreationSource::BirthTime;
  EXPECT_TRUE(QSFSFileAttributes::fromFileAttributes(a).creationDateKnown);
}
