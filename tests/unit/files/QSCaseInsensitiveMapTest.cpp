#include "Engine/files/QSCaseInsensitiveMap.h"

#include <gtest/gtest.h>

TEST(QSCaseInsensitiveMapTest, KeysAreLowerCased) {
  QSCaseInsensitiveMap<int> m;
  m.setObject_forKey(1, "Report.TXT");
  m.setObject_forKey(2, "report.txt");
  EXPECT_EQ(m.count(), 1u);
  EXPECT_EQ(*m.objectForKey("REPORT.txt"), 2);
  EXPECT_EQ(m.keyEnumerator(), std::vector<std::string>{"report.txt"});
  // Lower-casing, not case folding: "STRASSE" is another name than "Straße".
  m.setObject_forKey(3, "Straße");
  EXPECT_EQ(*m.objectForKey("STRAßE"), 3);
  EXPECT_FALSE(m.objectForKey("STRASSE").has_value());
  m.setObject_forKey(4, "École");
  ASSERT_TRUE(m.objectForKey("ÉCOLE").has_value());
  EXPECT_EQ(*m.objectForKey("ÉCOLE"), 4);
}

TEST(QSCaseInsensitiveMapTest, RemoveAndEnumerate) {
  QSCaseInsensitiveMap<int> m;
  m.setObject_forKey(1, "a");
  m.setObject_forKey(2, "B");
  m.setObject_forKey(3, "c");
  m.removeObjectForKey("A");
  EXPECT_EQ(m.keyEnumerator(), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(m.objectEnumerator(), (std::vector<int>{2, 3}));
  EXPECT_EQ(*m.objectForKey("C"), 3);
  m.removeAllObjects();
  EXPECT_EQ(m.count(), 0u);
}

TEST(QSCaseInsensitiveMultiMapTest, KeepsObjectsInOrderWithDuplicates) {
  QSCaseInsensitiveMultiMap<int> m;
  m.addObject_forKey(1, "Report.txt");
  m.addObject_forKey(2, "report.TXT");
  m.addObject_forKey(2, "REPORT.txt");
  m.addObject_forKey(9, "notes.txt");
  ASSERT_NE(m.objectsForKey("report.txt"), nullptr);
  EXPECT_EQ(*m.objectsForKey("report.txt"), (std::vector<int>{1, 2, 2}));
  EXPECT_EQ(*m.objectEnumeratorForKey("NOTES.TXT"), std::vector<int>{9});
  EXPECT_FALSE(m.objectEnumeratorForKey("missing").has_value());
  EXPECT_EQ(m.keyEnumerator(), (std::vector<std::string>{"report.txt", "notes.txt"}));
  m.removeAllObjectsForKey("Report.Txt");
  EXPECT_EQ(m.objectsForKey("report.txt"), nullptr);
  EXPECT_EQ(*m.objectsForKey("notes.txt"), std::vector<int>{9});
}
