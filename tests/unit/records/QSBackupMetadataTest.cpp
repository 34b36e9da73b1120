#include "Engine/records/QSBackupMetadata.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "Engine/records/QSUUID.h"
#include "tests/support/TempDir.h"

using platform::Dictionary;
using platform::Value;

namespace {
bool userAttributesSupported(const std::string& path) {
  if (::lsetxattr(path.c_str(), "user.skerrow.probe", "1", 1, 0) != 0) return false;
  ::lremovexattr(path.c_str(), "user.skerrow.probe");
  return true;
}
#define SKIP_WITHOUT_USER_ATTRIBUTES(dir) \
  if (!userAttributesSupported((dir).path())) GTEST_SKIP() << "the temporary folder's file system has no user attributes"
}  // namespace

TEST(QSBackupMetadataTest, BackupAttributesRoundTrip) {
  skerrow_test::TempDir dir;
  SKIP_WITHOUT_USER_ATTRIBUTES(dir);
  Dictionary attributes{{"backup-uid", Value("U")}, {"period", Value::real(60)}};
  ASSERT_TRUE(CreateBackupAttributesMetadata(dir.path(), attributes));
  EXPECT_EQ(GetBakcupAttributesMetadata(dir.path()), attributes);
  char buf[4];
  EXPECT_GT(::lgetxattr(dir.path().c_str(), "user.com.qsc.backup.attributes.v1", buf, 0), 0);
}

TEST(QSBackupMetadataTest, CreatingEitherAttributeTwiceFailsAndKeepsTheFirstValue) {
  skerrow_test::TempDir dir;
  SKIP_WITHOUT_USER_ATTRIBUTES(dir);
  Dictionary first{{"n", Value::integer(1)}};
  ASSERT_TRUE(CreateBackupAttributesMetadata(dir.path(), first));
  EXPECT_FALSE(CreateBackupAttributesMetadata(dir.path(), Dictionary{{"n", Value::integer(2)}}));
  EXPECT_EQ(GetBakcupAttributesMetadata(dir.path()), first);

  std::string uid;
  ASSERT_TRUE(CreateUIDMetadata(dir.path(), &uid));
  std::string second = "untouched";
  EXPECT_FALSE(CreateUIDMetadata(dir.path(), &second));
  EXPECT_EQ(second, "untouched");
  EXPECT_EQ(GetUIDMetadata(dir.path()), uid);
}

TEST(QSBackupMetadataTest, UIDMetadataHoldsTheSixteenRawBytes) {
  skerrow_test::TempDir dir;
  SKIP_WITHOUT_USER_ATTRIBUTES(dir);
  std::string uid;
  ASSERT_TRUE(CreateUIDMetadata(dir.path(), &uid));
  unsigned char raw[32];
  ASSERT_EQ(::lgetxattr(dir.path().c_str(), "user.com.qsc.backup.uid", raw, sizeof raw), 16);
  QSUUIDBytes bytes;
  std::copy(raw, raw + 16, bytes.begin());
  EXPECT_EQ(stringWithUUID(bytes), uid);
}

TEST(QSBackupMetadataTest, GetUIDMetadataOfOtherThanSixteenBytesAnswersNothing) {
  skerrow_test::TempDir dir;
  SKIP_WITHOUT_USER_ATTRIBUTES(dir);
  ASSERT_EQ(::lsetxattr(dir.path().c_str(), "user.com.qsc.backup.uid", "0123456789abcde", 15, 0), 0);
  EXPECT_FALSE(GetUIDMetadata(dir.path()));
  ASSERT_EQ(::lsetxattr(dir.path().c_str(), "user.com.qsc.backup.uid", "0123456789abcdefg", 17, 0), 0);
  EXPECT_FALSE(GetUIDMetadata(dir.path()));
}

TEST(QSBackupMetadataTest, MissingOrGarbageAttributesReadAsEmpty) {
  skerrow_test::TempDir dir;
  SKIP_WITHOUT_USER_ATTRIBUTES(dir);
  EXPECT_TRUE(GetBakcupAttributesMetadata(dir.path()).empty());
  EXPECT_FALSE(GetUIDMetadata(dir.path()));
  ASSERT_EQ(::lsetxattr(dir.path().c_str(), "user.com.qsc.backup.attributes.v1", "garbage", 7, 0), 0);
  EXPECT_TRUE(GetBakcupAttributesMetadata(dir.path()).empty());
}

TEST(QSBackupMetadataTest, SymbolicLinkAtThePathIsNotFollowed) {
  skerrow_test::TempDir dir;
  SKIP_WITHOUT_USER_ATTRIBUTES(dir);
  const std::string target = dir.mkdir("target");
  const std::string link = dir / "link";
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
  std::string uid;
  EXPECT_FALSE(CreateUIDMetadata(link, &uid));  // user attributes cannot be set on a link itself
  EXPECT_FALSE(GetUIDMetadata(target));
}

TEST(QSBackupMetadataTest, FileSystemWithoutUserAttributesFailsCleanly) {
  std::string uid = "untouched";
  EXPECT_FALSE(CreateUIDMetadata("/proc/self/status", &uid));
  EXPECT_EQ(uid, "untouched");
  EXPECT_FALSE(CreateBackupAttributesMetadata("/proc/self/status", Dictionary{{"a", Value("b")}}));
  EXPECT_TRUE(GetBakcupAttributesMetadata("/proc/self/status").empty());
  EXPECT_FALSE(GetUIDMetadata("/proc/self/status"));
}
