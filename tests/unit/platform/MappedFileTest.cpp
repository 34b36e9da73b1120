#include "platform/MappedFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/support/TempDir.h"

using platform::MappedFile;

TEST(MappedFileTest, MapsAFileWholeOnAPageBoundary) {
  skerrow_test::TempDir dir;
  const std::string bytes = std::string(5000, 'a') + "end";
  dir.write("f", bytes);
  const auto file = MappedFile::open(dir / "f", 1 << 20);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(file->size(), bytes.size());
  EXPECT_EQ(std::string(file->data(), file->size()), bytes);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(file->data()) % 4096, 0u);
}

TEST(MappedFileTest, KeepsTheBytesOfTheFileItMappedWhenAnotherIsRenamedOverIt) {
  skerrow_test::TempDir dir;
  dir.write("f", "first");
  const auto file = MappedFile::open(dir / "f", 100);
  ASSERT_NE(file, nullptr);
  dir.write("g", "second, longer");
  std::filesystem::rename(dir / "g", dir / "f");
  EXPECT_EQ(std::string(file->data(), file->size()), "first");
}

TEST(MappedFileTest, AnEmptyFileMapsToNoBytes) {
  skerrow_test::TempDir dir;
  dir.write("empty", "");
  const auto file = MappedFile::open(dir / "empty", 100);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->size(), 0u);
}

TEST(MappedFileTest, RefusesMissingOversizedAndNonRegularFiles) {
  skerrow_test::TempDir dir;
  dir.write("big", std::string(100, 'x'));
  errno = 0;
  EXPECT_EQ(MappedFile::open(dir / "big", 99), nullptr);
  EXPECT_EQ(errno, EFBIG);
  EXPECT_NE(MappedFile::open(dir / "big", 100), nullptr);
  errno = 0;
  EXPECT_EQ(MappedFile::open(dir.path(), 100), nullptr);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  errno = 0;
  EXPECT_EQ(MappedFile::open(dir / "fifo", 100), nullptr);  // refused at once, never waited on
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(MappedFile::open(dir / "missing", 100), nullptr);
}
