#include "platform/AtomicFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "tests/support/TempDir.h"

using platform::AtomicFile;

TEST(AtomicFileTest, WritesAndReplaces) {
  skerrow_test::TempDir dir;
  const std::string path = dir / "f";
  ASSERT_TRUE(AtomicFile::write(path, "first"));
  EXPECT_EQ(dir.read("f"), "first");
  ASSERT_TRUE(AtomicFile::write(path, "second, longer"));
  EXPECT_EQ(*AtomicFile::read(path, 1024), "second, longer");
}

TEST(AtomicFileTest, KeepsTheModeOfAnExistingFile) {
  skerrow_test::TempDir dir;
  const std::string path = dir / "f";
  ASSERT_TRUE(AtomicFile::write(path, "x", 0600));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_TRUE(AtomicFile::write(path, "y"));
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST(AtomicFileTest, ReadRefusesOversizedAndNonRegularFiles) {
  skerrow_test::TempDir dir;
  dir.write("big", std::string(100, 'x'));
  EXPECT_FALSE(AtomicFile::read(dir / "big", 99).has_value());
  EXPECT_EQ(AtomicFile::read(dir / "big", 100)->size(), 100u);
  EXPECT_FALSE(AtomicFile::read(dir.path(), 100).has_value());
  EXPECT_FALSE(AtomicFile::read(dir / "missing", 100).has_value());
}

TEST(AtomicFileTest, ReadsAFileLongerThanItsStatedSizeUpToTheLimit) {
  // Files under /proc state a size of 0 and hold more.
  const auto status = AtomicFile::read("/proc/self/status", 1 << 20);
  ASSERT_TRUE(status.has_value());
  EXPECT_NE(status->find("VmRSS"), std::string::npos);
  errno = 0;
  EXPECT_FALSE(AtomicFile::read("/proc/self/status", 10).has_value());
  EXPECT_EQ(errno, EFBIG);
}

TEST(AtomicFileTest, ReadsAFileOfExactlyTheLimitAndOfNothing) {
  skerrow_test::TempDir dir;
  dir.write("four", "abcd");
  dir.write("empty", "");
  EXPECT_EQ(*AtomicFile::read(dir / "four", 4), "abcd");
  EXPECT_EQ(*AtomicFile::read(dir / "empty", 0), "");
  errno = 0;
  EXPECT_FALSE(AtomicFile::read(dir / "four", 3).has_value());
  EXPECT_EQ(errno, EFBIG);
}
