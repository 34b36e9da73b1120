#include "Engine/files/QSFSNodeStack.h"

#include <gtest/gtest.h>

#include "Engine/files/QSPathFilter.h"

namespace {

// The stack of ancestors of the item at `relative` (its folders below the home).
QSFSNodeStack stackFor(const std::vector<std::string>& folders) {
  QSFSNodeStack s;
  s.push(QSFSMutableNode::initWithPath("/home/ann"));
  for (const auto& f : folders) s.push(QSFSMutableNode::initWithPath(f));
  return s;
}

using Set = std::set<std::string>;

}  // namespace

TEST(QSFSNodeStackTest, PushPopTopSize) {
  QSFSNodeStack s;
  EXPECT_EQ(s.top(), nullptr);
  auto a = QSFSMutableNode::initWithPath("a");
  s.push(a);
  EXPECT_EQ(s.top(), a);
  EXPECT_EQ(s.size(), 1u);
  s.pop();
  s.pop();  // popping an empty stack does nothing
  EXPECT_EQ(s.size(), 0u);
}

TEST(QSFSNodeStackTest, FirstFolderDecidesIgnoringCase) {
  EXPECT_EQ(stackFor({"PICTURES"}).applicableCategories("a.jpg"), Set{"Pictures"});
  EXPECT_EQ(stackFor({}).applicableCategories("a.jpg"), Set{"Other"});
  EXPECT_EQ(stackFor({"Pictures", "Sub"}).applicableCategories("b.jpg"), Set{"Pictures"});
  EXPECT_EQ(stackFor({"music"}).applicableCategories("x"), Set{"Music"});
  EXPECT_EQ(stackFor({"Movies"}).applicableCategories("x"), Set{"Movies"});
  EXPECT_EQ(stackFor({"Documents", "a", "b"}).applicableCategories("x"), Set{"Documents"});
  EXPECT_EQ(stackFor({"Desktop"}).applicableCategories("x"), Set{"Other"});
  // File extensions play no part.
  EXPECT_EQ(stackFor({"Documents"}).applicableCategories("song.mp3"), Set{"Documents"});
}

TEST(QSFSNodeStackTest, FileDirectlyInLibraryIsMailAndOtherForTheWalkButOtherForRealTime) {
  EXPECT_EQ(stackFor({"Library"}).applicableCategories("x.plist"), (Set{"Mail", "Other"}));
  EXPECT_EQ(QSPathFilter::categoryForPathSuffix("/Library/x.plist"), "Other");
}

TEST(QSFSNodeStackTest, MailPreferencesFileIsMailOneFolderDeeperOnlyForTheWalk) {
  EXPECT_EQ(stackFor({"Library", "Preferences"}).applicableCategories("com.apple.mail.plist"), Set{"Mail"});
  EXPECT_EQ(QSPathFilter::categoryForPathSuffix("/Library/Preferences/com.apple.mail.plist"), "Mail");
  EXPECT_EQ(stackFor({"Library", "Preferences", "x"}).applicableCategories("com.apple.mail.plist"), Set{"Mail"});
  EXPECT_EQ(QSPathFilter::categoryForPathSuffix("/Library/Preferences/x/com.apple.mail.plist"), "Other");
  EXPECT_EQ(stackFor({"Library", "Preferences"}).applicableCategories("other.plist"), Set{"Other"});
  EXPECT_EQ(QSPathFilter::categoryForPathSuffix("/Library/Preferences/other.plist"), "Other");
  // Without a name (a folder in Preferences) both Mail and Other apply.
  EXPECT_EQ(stackFor({"Library", "Preferences"}).applicableCategories(std::nullopt), (Set{"Mail", "Other"}));
}

TEST(QSFSNodeStackTest, AnythingBelowLibraryMailIsMail) {
  EXPECT_EQ(stackFor({"Library", "Mail"}).applicableCategories("m"), Set{"Mail"});
  EXPECT_EQ(stackFor({"Library", "MAIL", "a", "b", "c"}).applicableCategories("m"), Set{"Mail"});
  EXPECT_EQ(QSPathFilter::categoryForPathSuffix("/Library/Mail/a/b/c/m"), "Mail");
  EXPECT_EQ(stackFor({"Library", "Caches", "a"}).applicableCategories("m"), Set{"Other"});
}

TEST(QSFSNodeStackTest, MaskMatchesTheSet) {
  EXPECT_EQ(stackFor({"Library"}).applicableCategoryMask("x"), kQSMailMask | kQSOtherMask);
  EXPECT_EQ(QSCategoriesOfMask(kQSPicturesMask | kQSDocumentsMask), (Set{"Pictures", "Documents"}));
}
