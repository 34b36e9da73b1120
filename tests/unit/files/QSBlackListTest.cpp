#include "Engine/files/QSBlackList.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <random>

#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "tests/support/TempDir.h"

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
    auto shipped = platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath());
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
  auto shipped = platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath());
  ASSERT_TRUE(shipped && shipped->isDictionary()) << QSBlackList::defaultSettingsFilePath();
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
      *platform::PropertyList::readFile(QSBlackList::defaultSettingsFilePath())->asDictionary(),
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
      // Names about as long as a name can be, and longer.
      if (rng() % 50 == 0) text.insert(0, std::string(244 + rng() % 24, "aB"[rng() % 2]));
      ASSERT_EQ(QSBlackList::isFilenameBlacklisted(text), QSBlackList::isFilenameBlacklistedByExpression(text))
          << QSBlackList::fileNamePattern() << " on " << text;
      ASSERT_EQ(QSBlackList::isPathSuffixBlacklisted(text), QSBlackList::isPathSuffixBlacklistedByExpression(text))
          << QSBlackList::pathSuffixPattern() << " on " << text;
    }
  }
}

// Where the settings come from: the administrator's file first, the shipped
// defaults when it is missing or unreadable.
namespace {

std::string settingsText(const std::string& extension) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict><key>QSBlackList</key><dict>"
         "<key>QSFileExtensions</key><array><string>" + extension + "</string></array>"
         "</dict></dict></plist>\n";
}

}  // namespace

TEST(QSBlackListSettingsTest, TheAdministratorsFileIsReadBeforeTheShippedDefaults) {
  RestoreShippedList restore;
  skerrow_test::TempDir dir;
  const std::string etc = dir.write("etc/skerrow/Info.plist", settingsText("iso"));
  const std::string shipped = dir.write("share/skerrow/Info.plist", settingsText("tmp"));
  platform::LogCapture log;
  EXPECT_EQ(QSBlackList::initializeFromSettingsFiles({etc, shipped}), etc);
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("disk.iso"));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("a.tmp"));  // the whole file wins, not a merge
  EXPECT_TRUE(log.contains("Black list settings from " + etc));
}

TEST(QSBlackListSettingsTest, WithoutTheAdministratorsFileTheShippedDefaultsAreRead) {
  RestoreShippedList restore;
  skerrow_test::TempDir dir;
  const std::string shipped = dir.write("share/skerrow/Info.plist", settingsText("tmp"));
  EXPECT_EQ(QSBlackList::initializeFromSettingsFiles({dir / "etc/skerrow/Info.plist", shipped}), shipped);
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("a.tmp"));
}

TEST(QSBlackListSettingsTest, AnUnreadableAdministratorsFileIsPassedOverAndLogged) {
  RestoreShippedList restore;
  skerrow_test::TempDir dir;
  const std::string etc = dir.write("etc/skerrow/Info.plist", "<plist><dict><key>QSBlackList</key>");  // cut short
  const std::string shipped = dir.write("share/skerrow/Info.plist", settingsText("tmp"));
  platform::LogCapture log;
  EXPECT_EQ(QSBlackList::initializeFromSettingsFiles({etc, shipped}), shipped);
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("a.tmp"));
  EXPECT_TRUE(log.contains("The settings at " + etc + " cannot be read as a property list; they are passed over"));
}

TEST(QSBlackListSettingsTest, AnAdministratorsFileThatIsNotADictionaryIsPassedOver) {
  RestoreShippedList restore;
  skerrow_test::TempDir dir;
  const std::string etc = dir.write("Info.plist", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>");
  const std::string shipped = dir.write("defaults.plist", settingsText("part"));
  EXPECT_EQ(QSBlackList::initializeFromSettingsFiles({etc, shipped}), shipped);
  EXPECT_TRUE(QSBlackList::isFilenameBlacklisted("film.part"));
}

TEST(QSBlackListSettingsTest, WithNoSettingsFileTheListIsEmptyAndTheLogSaysSo) {
  RestoreShippedList restore;
  skerrow_test::TempDir dir;
  platform::LogCapture log;
  EXPECT_EQ(QSBlackList::initializeFromSettingsFiles({dir / "none.plist", dir / "neither.plist"}), "");
  EXPECT_TRUE(log.contains("No settings file found: the black list is empty"));
  EXPECT_FALSE(QSBlackList::isFilenameBlacklisted("a.tmp"));
  EXPECT_FALSE(QSBlackList::isPathSuffixBlacklisted("/.cache"));
}

TEST(QSBlackListSettingsTest, TheAdministratorsFileLiesInTheConfigurationFolderBelowSkerrowRoot) {
  const char* saved = std::getenv("SKERROW_ROOT");
  const std::string before = saved ? saved : "";
  ::unsetenv("SKERROW_ROOT");
  EXPECT_EQ(QSBlackList::administratorSettingsFilePath(), SKERROW_TEST_SYSCONFDIR "/skerrow/Info.plist");
  ::setenv("SKERROW_ROOT", "/tmp/skerrow-root", 1);
  EXPECT_EQ(QSBlackList::administratorSettingsFilePath(), "/tmp/skerrow-root" SKERROW_TEST_SYSCONFDIR "/skerrow/Info.plist");
  if (saved) ::setenv("SKERROW_ROOT", before.c_str(), 1);
  else ::unsetenv("SKERROW_ROOT");
}

// The shipped defaults file is the one in this source tree's data/ folder.
TEST(QSBlackListSettingsTest, TheShippedDefaultsAreTheSourceTreesSettings) {
  std::ifstream built(QSBlackList::defaultSettingsFilePath()), source(SKERROW_SOURCE_DIR "/data/Info.plist");
  std::stringstream a, b;
  a << built.rdbuf();
  b << source.rdbuf();
  EXPECT_FALSE(a.str().empty());
  EXPECT_EQ(a.str(), b.str());
}
