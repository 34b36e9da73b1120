#include "platform/Directory.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>

#include "tests/support/TempDir.h"

namespace {

// Stores `value` as the copy's creation date; false where the file system keeps no user attributes.
bool storeCreationDate(const std::string& file, const char* value) {
  return ::setxattr(file.c_str(), "user.com.qsc.creation-date", value, std::strlen(value), 0) == 0;
}

platform::FileAttributes attributesIn(const std::string& folder, const std::string& name, bool preferStored) {
  auto directory = platform::Directory::open(folder);
  EXPECT_NE(directory, nullptr);
  platform::FileAttributes a;
  EXPECT_TRUE(directory->attributesOf(name, &a, preferStored));
  return a;
}

}  // namespace

TEST(DirectoryTest, StoredCreationDateWinsOverTheBirthTimeWhenAsked) {
  skerrow_test::TempDir dir;
  const std::string file = dir.write("a@0.txt", "x");
  if (!storeCreationDate(file, "978307260.500000001")) GTEST_SKIP() << "no user attributes on " << dir.path();
  const auto stored = attributesIn(dir.path(), "a@0.txt", true);
  EXPECT_EQ(stored.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);
  EXPECT_EQ(stored.creationTime.seconds, 978307260);
  EXPECT_EQ(stored.creationTime.nanoseconds, 500000001u);
  const auto plain = attributesIn(dir.path(), "a@0.txt", false);
  EXPECT_NE(plain.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);
}

TEST(DirectoryTest, AShortFractionIsReadAsTenthsAndHundredths) {
  skerrow_test::TempDir dir;
  const std::string file = dir.write("a@0.txt", "x");
  if (!storeCreationDate(file, "5.25")) GTEST_SKIP() << "no user attributes on " << dir.path();
  const auto a = attributesIn(dir.path(), "a@0.txt", true);
  EXPECT_EQ(a.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);
  EXPECT_EQ(a.creationTime.seconds, 5);
  EXPECT_EQ(a.creationTime.nanoseconds, 250000000u);
}

TEST(DirectoryTest, AMalformedStoredCreationDateIsIgnored) {
  skerrow_test::TempDir dir;
  for (const char* bad : {"abc", "5.", ".5", "5.1234567890", "5.5x", "5", "-", "1.2.3"}) {
    const std::string file = dir.write("bad@0.txt", "x");
    if (!storeCreationDate(file, bad)) GTEST_SKIP() << "no user attributes on " << dir.path();
    const auto a = attributesIn(dir.path(), "bad@0.txt", true);
    EXPECT_NE(a.creationSource, platform::FileAttributes::CreationSource::StoredAttribute) << bad;
  }
}

TEST(DirectoryTest, ALinkIsNotFollowedToItsTargetsStoredCreationDate) {
  skerrow_test::TempDir dir;
  const std::string file = dir.write("target@0.txt", "x");
  if (!storeCreationDate(file, "100.000000000")) GTEST_SKIP() << "no user attributes on " << dir.path();
  ASSERT_EQ(::symlink("target@0.txt", (dir / "link@0.txt").c_str()), 0);
  const auto link = attributesIn(dir.path(), "link@0.txt", true);
  EXPECT_EQ(link.type, platform::FileAttributes::Type::SymbolicLink);
  EXPECT_NE(link.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);
}

TEST(DirectoryTest, TheFolderItselfIsReadThroughItsOwnDescriptor) {
  skerrow_test::TempDir dir;
  const std::string folder = dir.mkdir("F");
  if (!storeCreationDate(folder, "42.000000007")) GTEST_SKIP() << "no user attributes on " << dir.path();
  auto directory = platform::Directory::open(folder);
  ASSERT_NE(directory, nullptr);
  platform::FileAttributes a;
  ASSERT_TRUE(platform::statAt(directory->fd(), "", &a, true));
  EXPECT_EQ(a.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);
  EXPECT_EQ(a.creationTime.seconds, 42);
  EXPECT_EQ(a.creationTime.nanoseconds, 7u);
}
