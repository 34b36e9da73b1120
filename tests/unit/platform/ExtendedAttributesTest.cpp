#include "platform/ExtendedAttributes.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include "tests/support/TempDir.h"

using platform::ExtendedAttributes;

namespace {
bool userAttributesSupported(const std::string& path) {
  if (::lsetxattr(path.c_str(), "user.skerrow.probe", "1", 1, 0) != 0) return false;
  ::lremovexattr(path.c_str(), "user.skerrow.probe");
  return true;
}
}  // namespace

TEST(ExtendedAttributesTest, SetGetRemoveWithUserPrefix) {
  skerrow_test::TempDir dir;
  if (!userAttributesSupported(dir.path())) GTEST_SKIP() << "the temporary folder's file system has no user attributes";
  ASSERT_TRUE(ExtendedAttributes::set(dir.path(), "com.example.a", {1, 2, 3}, false));
  char buf[8];
  EXPECT_EQ(::lgetxattr(dir.path().c_str(), "user.com.example.a", buf, sizeof buf), 3);
  EXPECT_EQ(*ExtendedAttributes::size(dir.path(), "com.example.a"), 3u);
  EXPECT_EQ(*ExtendedAttributes::get(dir.path(), "com.example.a"), (platform::Bytes{1, 2, 3}));
  EXPECT_FALSE(ExtendedAttributes::set(dir.path(), "com.example.a", {9}, true));
  EXPECT_EQ(*ExtendedAttributes::get(dir.path(), "com.example.a"), (platform::Bytes{1, 2, 3}));
  EXPECT_TRUE(ExtendedAttributes::remove(dir.path(), "com.example.a"));
  EXPECT_FALSE(ExtendedAttributes::get(dir.path(), "com.example.a"));
}

TEST(ExtendedAttributesTest, MissingPathFailsCleanly) {
  EXPECT_FALSE(ExtendedAttributes::get("/nonexistent/skerrow", "a"));
  EXPECT_FALSE(ExtendedAttributes::set("/nonexistent/skerrow", "a", {1}, false));
}

TEST(ExtendedAttributesTest, FileSystemWithoutUserAttributesFailsCleanly) {
  // procfs keeps no user attributes.
  EXPECT_FALSE(ExtendedAttributes::set("/proc/self/status", "com.example.a", {1}, true));
  EXPECT_FALSE(ExtendedAttributes::get("/proc/self/status", "com.example.a"));
  EXPECT_FALSE(ExtendedAttributes::size("/proc/self/status", "com.example.a"));
}
