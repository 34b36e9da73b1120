#include "Engine/files/QSFSName.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

TEST(QSFSNameTest, KeepsAnyBytesWithTheirLengthAndANulAfterThem) {
  EXPECT_TRUE(QSFSName().empty());
  EXPECT_EQ(QSFSName().view(), "");
  EXPECT_STREQ(QSFSName().c_str(), "");
  EXPECT_TRUE(QSFSName("").empty());

  const std::string withNul("a\0b", 3);
  const std::string long_(300, 'x');
  for (const std::string& text : {std::string("a"), std::string("report.txt"), withNul, long_}) {
    const QSFSName name(text);
    EXPECT_FALSE(name.empty());
    EXPECT_EQ(name.view(), text);
    EXPECT_EQ(name.str(), text);
    EXPECT_EQ(name.c_str()[text.size()], '\0');
  }
  EXPECT_EQ(sizeof(QSFSName), sizeof(void*));
}

TEST(QSFSNameTest, CopiesAreTheirOwnAndMovesLeaveTheSourceEmpty) {
  QSFSName a("Documents");
  QSFSName b(a);
  EXPECT_NE(a.c_str(), b.c_str());
  EXPECT_EQ(b.view(), "Documents");
  QSFSName c("old");
  c = a;
  EXPECT_EQ(c.view(), "Documents");
  c = c;  // self-assignment keeps the name
  EXPECT_EQ(c.view(), "Documents");
  QSFSName d(std::move(a));
  EXPECT_EQ(d.view(), "Documents");
  EXPECT_TRUE(a.empty());  // NOLINT(bugprone-use-after-move): a moved-from name is empty
  b = std::move(d);
  EXPECT_EQ(b.view(), "Documents");
  EXPECT_TRUE(d.empty());  // NOLINT(bugprone-use-after-move)
}
