#include "Engine/files/QSPathFilter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "Engine/files/QSBlackList.h"
#include "platform/FileManager.h"
#include "tests/support/TempDir.h"

namespace {

platform::FileAttributes regularFile(uint32_t creator = 0, uint32_t type = 0) {
  platform::FileAttributes a;
  a.type = platform::FileAttributes::Type::Regular;
  a.creatorCode = creator;
  a.typeCode = type;
  return a;
}

std::shared_ptr<const std::set<std::string>> filter(std::set<std::string> s) {
  return std::make_shared<const std::set<std::string>>(std::move(s));
}

}  // namespace

TEST(QSPathFilterTest, LiveMailDatabaseIsRefusedAnyOtherDatabaseIsAdmittedDespiteTheBlackList) {
  platform::Dictionary info{{"QSBlackList", platform::Value(platform::Dictionary{
                                                {"QSSpecificFiles", platform::Value(platform::Array{platform::Value("Database")})}})}};
  QSBlackList::initializeWithInfoDictionary(info);
  const auto live = regularFile(kQSMailDatabaseCreator, kQSMailDatabaseType);
  const auto other = regularFile(kQSMailDatabaseCreator, 0);
  EXPECT_FALSE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Library/Mail/Database", &live, nullptr, nullptr));
  EXPECT_TRUE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Library/Mail/Database", &other, nullptr, nullptr));
  EXPECT_TRUE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Library/Mail/database", nullptr, nullptr, nullptr));
  platform::FileAttributes folder;
  folder.type = platform::FileAttributes::Type::Directory;
  folder.creatorCode = kQSMailDatabaseCreator;
  folder.typeCode = kQSMailDatabaseType;
  EXPECT_TRUE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Database", &folder, nullptr, nullptr));
  // The black list itself still refuses the name elsewhere.
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("Database"));
  QSBlackList::initializeWithInfoDictionary({});
}

TEST(QSPathFilterTest, CategoryFilterRefusesBeforeThePredicateOrTheBlackListIsAsked) {
  QSBlackList::initializeWithInfoDictionary({});
  // An exclusion predicate that cannot be evaluated without the engine hanging would show up as a slow test;
  // here a predicate that matches everything proves it is not consulted for a refused category.
  auto everything = platform::RegexPredicate::selfMatchesCaseInsensitive(".*");
  EXPECT_FALSE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Documents/a.txt", nullptr, filter({"Music"}),
                                                                       everything));
  EXPECT_FALSE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Music/a.mp3", nullptr, filter({"Music"}),
                                                                       everything));  // admitted by category, refused by the predicate
  EXPECT_TRUE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Music/a.mp3", nullptr, filter({"Music"}), nullptr));
}

TEST(QSPathFilterTest, ExclusionPredicateAndBlackListOnSuffixAndName) {
  platform::Dictionary info{{"QSBlackList", platform::Value(platform::Dictionary{
                                                {"QSFileExtensions", platform::Value(platform::Array{platform::Value("tmp")})},
                                                {"QSHomeDirSuffixes", platform::Value(platform::Array{platform::Value("/\\.cache(/.*)?")})}})}};
  QSBlackList::initializeWithInfoDictionary(info);
  EXPECT_FALSE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Documents/a.TMP", nullptr, nullptr, nullptr));
  EXPECT_FALSE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/.cache/x/y", nullptr, nullptr, nullptr));
  EXPECT_TRUE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Documents/a.txt", nullptr, nullptr, nullptr));
  auto noDrafts = platform::RegexPredicate::selfMatchesCaseInsensitive("/Documents/Drafts(/.*)?");
  EXPECT_FALSE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/documents/drafts/a.txt", nullptr, nullptr, noDrafts));
  EXPECT_TRUE(QSPathFilter::shouldProceedForPathSuffix_withAttributes("/Documents/a.txt", nullptr, nullptr, noDrafts));
  QSBlackList::initializeWithInfoDictionary({});
}

TEST(QSPathFilterTest, NormalizedPathResolvesTheParentButNotTheLastComponent) {
  skerrow_test::TempDir dir;
  const std::string real = dir.mkdir("real");
  ASSERT_EQ(::symlink(real.c_str(), (dir / "alias").c_str()), 0);
  ASSERT_EQ(::symlink("target", (real + "/link").c_str()), 0);
  const auto resolvedReal = *platform::FileManager::resolvingSymlinksInPath(real);
  EXPECT_EQ(QSPathFilter::normalizedPath(dir / "alias/link"), resolvedReal + "/link");
  EXPECT_EQ(QSPathFilter::normalizedPath("file"), "file");
  EXPECT_EQ(QSPathFilter::normalizedPath("/"), "/");
  EXPECT_EQ(QSPathFilter::normalizedPath(dir / "missing/x"), dir / "missing/x");
}
