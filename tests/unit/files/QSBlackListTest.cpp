#include "Engine/files/QSBlackList.h"

#include <gtest/gtest.h>

#include <random>

#include "platform/Log.h"
#include "platform/PropertyList.h"

using platform::Array;
using platform::Dictionary;
using platform::Value;

namespace {

Dictionary settings(Array extensions, Array files, Array suffixes) {
  Dictionary list;
  list.set("QSFileExtensions", Value(std::move(extensions)));
  list.set("QSSpecificFiles", Value(std::move(files)));
  list.set("QSHomeDirSuffixes", Value(std::move(suffixes)));
  return Dictionary{{"QSBlackList", Value(list)}};
}

// Puts the shipped list back for the tests that follow.
struct RestoreShippedList {
  ~RestoreShippedList() {
    auto shipped = platform::PropertyList::readFile(QSBlackList::settingsFilePath());
    QSBlackList::initializeWithInfoDictionary(shipped && shipped->isDictionary() ? *shipped->asDictionary() : Dictionary());
  }
};

}  // namespace

TEST(QSBlackListTest, PatternsAreBuiltAsDocumentedAndLogged) {
  RestoreShippedList restore;
  platform::LogCapture log;
  QSBlackList::initializeWithInfoDictionary(
      settings({Value("e1"), Value("e2")}, {Value("f1"), Value("f2")}, {Value("s1"), Value("s2")}));
  EXPECT_EQ(QSBlackList::fileNamePattern(), "((.+\\.)((e1)|(e2)))|(((f1)|(f2)))");
  EXPECT_EQ(QSBlackList::pathSuffixPattern(), "((s1)|(s2))");
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"Black list:", "file names: ((.+\\.)((e1)|(e2)))|(((f1)|(f2)))",
                                                   "path suffixes: ((s1)|(s2))", ""}));
}

TEST(QSBlackListTest, PhotoJPGIsBlackListedWhenJpgIsAnExtension) {
  RestoreShippedList restore;
  QSBlackList::initializeWithInfoDictionary(settings({Value("jpg")}, {}, {}));
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("photo.JPG"));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("photo.jpeg"));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("jpg"));
}

TEST(QSBlackListTest, WithNoExtensionsEveryNameEndingInADotIsBlackListed) {
  RestoreShippedList restore;
  QSBlackList::initializeWithInfoDictionary(settings({}, {Value("x")}, {}));
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("name."));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("name.txt"));
}

TEST(QSBlackListTest, WithNoSpecificFilesOnlyTheEmptyNameMatches) {
  RestoreShippedList restore;
  QSBlackList::initializeWithInfoDictionary(settings({Value("tmp")}, {}, {}));
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted(""));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("anything"));
}

TEST(QSBlackListTest, WithNoSuffixesOnlyTheEmptyPathIsBlackListed) {
  RestoreShippedList restore;
  QSBlackList::initializeWithInfoDictionary(settings({}, {}, {}));
  EXPECT_TRUE(QSBlackList::isPathSuffixBlacklisted(""));
  EXPECT_FALSE(QSBlackList::isPathSuffixBlacklisted("/Documents"));
  QSBlackList::initializeWithInfoDictionary({});  // no "QSBlackList" at all: the same
  EXPECT_TRUE(QSBlackList::isPathSuffixBlacklisted(""));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("a.txt"));
}

TEST(QSBlackListTest, UnescapedDotInASpecificFileMatchesAnyCharacter) {
  RestoreShippedList restore;
  QSBlackList::initializeWithInfoDictionary(settings({}, {Value("a.b"), Value("c\\.d")}, {}));
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("aXb"));
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("c.d"));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("cXd"));
}

TEST(QSBlackListTest, AnItemThatDoesNotCompileIsLeftOutAndLogged) {
  RestoreShippedList restore;
  platform::LogCapture log;
  QSBlackList::initializeWithInfoDictionary(settings({Value("tmp"), Value("(bad")}, {}, {}));
  EXPECT_TRUE(log.contains("does not compile"));
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("a.tmp"));
}

// The defaults shipped in data/Info.plist, found beside the executable's folder.
TEST(QSBlackListTest, ShippedDefaultsCatchCachesAndTemporariesButNoRealDocument) {
  auto shipped = platform::PropertyList::readFile(QSBlackList::settingsFilePath());
  ASSERT_TRUE(shipped && shipped->isDictionary()) << QSBlackList::settingsFilePath();
  QSBlackList::initializeWithInfoDictionary(*shipped->asDictionary());
  for (const char* name : {".DS_Store", "Thumbs.db", ".directory", ".xsession-errors", ".xsession-errors.old",
                           ".Xauthority", ".ICEauthority", "x.tmp", ".notes.txt.swp", ".a.swo", "film.mkv.part",
                           "setup.exe.crdownload", "THUMBS.DB"})
    EXPECT_TRUE(QSBlackList::isFilenameBlacklisted(name)) << name;
  for (const char* name : {"DS_Store", "xDS_Store", "Thumbs.dbx", "Thumbsxdb", "directory", "report.txt", "tmp",
                           "template.odt", "partition.txt", "swp.c", "my.directory.txt", ".Xauthority.bak"})
    EXPECT_FALSE(QSBlackList::isFilenameBlacklisted(name)) << name;
  for (const char* suffix : {"/.cache", "/.cache/mozilla/x", "/.local/share/Trash", "/.local/share/Trash/files/a",
                             "/.thumbnails/large/a.png", "/.gvfs", "/Library/Caches", "/Library/Caches/x",
                             "/.var/app/org.gimp.GIMP/cache", "/.var/app/org.gimp.GIMP/cache/x",
                             "/snap/firefox/1234/.cache", "/snap/firefox/1234/.cache/a"})
    EXPECT_TRUE(QSBlackList::isPathSuffixBlacklisted(suffix)) << suffix;
  for (const char* suffix : {"/Documents/.cache", "/cache", "/.cachex", "/Documents/Library/Caches",
                             "/.local/share/Trashcan", "/.var/app/org.gimp.GIMP/config", "/snap/firefox/common/x",
                             "/.var/app/cache", "/Library/CachesOld", ""})
    EXPECT_FALSE(QSBlackList::isPathSuffixBlacklisted(suffix)) << suffix;
}

// The exact shortcuts for ASCII text must answer what the full expressions answer.
TEST(QSBlackListTest, ShortcutsAgreeWithTheFullExpressions) {
  RestoreShippedList restore;
  const std::vector<Dictionary> lists = {
      *platform::PropertyList::readFile(QSBlackList::settingsFilePath())->asDictionary(),
      settings({Value("tmp"), Value("a.b")}, {Value("x[0-9]"), Value("\\.DS_Store")}, {Value("/a+b/c"), Value("/x|/y")}),
      settings({}, {}, {}),
      settings({Value("")}, {Value("q")}, {Value("/\\.cache(/.*)?"), Value("/snap/[^/]+/\\.cache")}),
  };
  const std::string alphabet = "./aAbBcCtTmMpPxXsS_D0129\n\r-";
  std::mt19937 rng(424242);
  for (const auto& list : lists) {
    QSBlackList::initializeWithInfoDictionary(list);
    for (int i = 0; i < 20000; ++i) {
      std::string text;
      const int length = static_cast<int>(rng() % 12);
      for (int j = 0; j < length; ++j) text += alphabet[rng() % alphabet.size()];
      if (rng() % 4 == 0) text = "/" + text;
      if (rng() % 5 == 0) text = "/.cache" + text;
      if (rng() % 7 == 0) text += ".TMP";
      ASSERT_EQ(QSBlackList::isFilenameBlacklisted(text), QSBlackList::isFilenameBlacklistedByExpression(text))
          << QSBlackList::fileNamePattern() << " on " << text;
      ASSERT_EQ(QSBlackList::isPathSuffixBlacklisted(text), QSBlackList::isPathSuffixBlacklistedByExpression(text))
          << QSBlackList::pathSuffixPattern() << " on " << text;
    }
  }
}
