#include "tools/skerrowctl/VersionBrowser.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "Engine/files/QSFSDepthFirstTreeTraversal.h"
#include "Engine/pipeline/QSTransferInstrument.h"
#include "platform/FileManager.h"
#include "tests/support/PipelineTestSupport.h"
#include "tests/support/TempDir.h"
#include "tools/skerrowctl/RenameIntoPlace.h"

using skerrowctl::HomeRelativePath;
using skerrowctl::RestoredVersion;
using skerrowctl::RestoreOptions;
using skerrowctl::StoredVersion;
using skerrowctl::VersionBrowser;
using skerrowctl::VersionError;
using skerrowctl::VersionErrorKind;

namespace {

std::vector<uint64_t> indicesOf(const std::vector<StoredVersion>& versions) {
  std::vector<uint64_t> out;
  for (const auto& v : versions) out.push_back(v.index);
  return out;
}

std::vector<std::string> namesOf(const std::vector<StoredVersion>& versions) {
  std::vector<std::string> out;
  for (const auto& v : versions) out.push_back(v.fileName);
  return out;
}

platform::FileAttributes attributesOf(const std::string& path) {
  platform::FileAttributes a;
  EXPECT_TRUE(platform::FileManager::attributesAtPath(path, &a)) << path;
  return a;
}

void setTimes(const std::string& path, platform::FileTime access, platform::FileTime modification) {
  ASSERT_TRUE(platform::FileManager::setTimes(path, &access, &modification, false)) << path;
}

// The names in a folder, sorted (a temporary file left behind shows here).
std::vector<std::string> entriesOf(const std::string& folder) {
  std::vector<std::string> out;
  for (const auto& e : std::filesystem::directory_iterator(folder)) out.push_back(e.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace

// A home folder "home/ann" and its backup folder on a disk mounted at "disk".
class VersionBrowserTest : public ::testing::Test {
 protected:
  // Writes a stored copy below the backup folder with the given modification time.
  std::string store(const std::string& relative, const std::string& contents, int64_t seconds = 1600000000,
                    uint32_t nanoseconds = 0) {
    const std::string path = dir.write("disk/qs skerrow.skstor/U/" + relative, contents);
    setTimes(path, platform::FileTime{seconds, nanoseconds}, platform::FileTime{seconds, nanoseconds});
    return path;
  }

  skerrow_test::TempDir dir;
  std::string home = dir.mkdir("home/ann");
  std::string backup = VersionBrowser::backupFolderPath(dir / "disk", "U");
  VersionBrowser browser{backup, home};
};

// --- Resolving paths ---

TEST(VersionBrowserPathTest, BackupFolderPathIsTheBackupsFolderInTheDisksStore) {
  EXPECT_EQ(VersionBrowser::backupFolderPath("/media/disk", "2B8A-77"), "/media/disk/qs skerrow.skstor/2B8A-77");
  EXPECT_EQ(VersionBrowser::backupFolderPath("/media/disk/", "X"), "/media/disk/qs skerrow.skstor/X");
}

TEST(VersionBrowserPathTest, ARelativePathIsTakenBelowTheHomeFolder) {
  VersionError error{VersionErrorKind::IOError, "stale"};
  const auto file = HomeRelativePath::resolve("/home/ann", "Documents/Work/report.txt", &error);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->path(), "Documents/Work/report.txt");
  EXPECT_EQ(file->folder(), "Documents/Work");
  EXPECT_EQ(file->fileName(), "report.txt");
  EXPECT_TRUE(error.empty());

  const auto tidied = HomeRelativePath::resolve("/home/ann", "./Documents//Work/./report.txt");
  ASSERT_TRUE(tidied);
  EXPECT_EQ(tidied->path(), "Documents/Work/report.txt");

  const auto top = HomeRelativePath::resolve("/home/ann", "notes.txt");
  ASSERT_TRUE(top);
  EXPECT_EQ(top->folder(), "");
  EXPECT_EQ(top->fileName(), "notes.txt");
}

TEST(VersionBrowserPathTest, AnAbsolutePathInsideTheHomeFolderIsMadeRelativeToIt) {
  const auto file = HomeRelativePath::resolve("/home/ann", "/home/ann/Documents/report.txt");
  ASSERT_TRUE(file);
  EXPECT_EQ(file->path(), "Documents/report.txt");
  // The home folder as written with a trailing or doubled slash is the same folder.
  const auto again = HomeRelativePath::resolve("/home//ann/", "/home/ann//Documents/report.txt");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->path(), "Documents/report.txt");
}

TEST(VersionBrowserPathTest, AbsolutePathsOutsideTheHomeFolderAreRefused) {
  for (const char* typed : {"/etc/passwd", "/home/annex/report.txt", "/home/an", "/home", "/"}) {
    VersionError error;
    EXPECT_FALSE(HomeRelativePath::resolve("/home/ann", typed, &error)) << typed;
    EXPECT_EQ(error.kind, VersionErrorKind::InvalidPath) << typed;
    EXPECT_NE(error.message.find(typed), std::string::npos) << error.message;
  }
}

TEST(VersionBrowserPathTest, DotDotComponentsThatLeaveTheHomeFolderAreRefused) {
  for (const char* typed : {"../bob/report.txt", "Documents/../../bob/a.txt", "Documents/../../ann/a.txt",
                            "/home/ann/../bob/a.txt", "/home/ann/Documents/../../bob/a.txt"}) {
    VersionError error;
    EXPECT_FALSE(HomeRelativePath::resolve("/home/ann", typed, &error)) << typed;
    EXPECT_EQ(error.kind, VersionErrorKind::InvalidPath) << typed;
  }
}

TEST(VersionBrowserPathTest, DotDotComponentsThatStayInsideTheHomeFolderAreAccepted) {
  const auto relative = HomeRelativePath::resolve("/home/ann", "Documents/../Pictures/beach.jpg");
  ASSERT_TRUE(relative);
  EXPECT_EQ(relative->path(), "Pictures/beach.jpg");
  const auto absolute = HomeRelativePath::resolve("/home/ann", "/home/ann/Documents/Old/../report.txt");
  ASSERT_TRUE(absolute);
  EXPECT_EQ(absolute->path(), "Documents/report.txt");
}

TEST(VersionBrowserPathTest, AnEmptyPathAndTheHomeFolderItselfAreRefused) {
  for (const char* typed : {"", ".", "./", "Documents/..", "/home/ann", "/home/ann/"}) {
    VersionError error;
    EXPECT_FALSE(HomeRelativePath::resolve("/home/ann", typed, &error)) << '"' << typed << '"';
    EXPECT_EQ(error.kind, VersionErrorKind::InvalidPath) << typed;
    EXPECT_FALSE(error.message.empty());
  }
}

TEST(VersionBrowserPathTest, ARelativeHomeFolderIsRefused) {
  VersionError error;
  EXPECT_FALSE(HomeRelativePath::resolve("home/ann", "report.txt", &error));
  EXPECT_EQ(error.kind, VersionErrorKind::InvalidPath);
}

TEST_F(VersionBrowserTest, ARefusedPathListsNothingAndSaysWhy) {
  store("a@0.txt", "x");
  VersionError error;
  EXPECT_TRUE(browser.versions("/etc/a.txt", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::InvalidPath);
  EXPECT_TRUE(browser.versions("../a.txt", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::InvalidPath);
}

// --- Listing ---

TEST_F(VersionBrowserTest, VersionsAreListedByNumberWithTheirSizesTimesAndPaths) {
  store("Documents/report@10.txt", "tenth version", 1700000000, 900000000);
  store("Documents/report@2.txt", "second", 1650000000, 123456789);
  store("Documents/report@0.txt", "0", 1600000000, 1);
  // Not copies of report.txt: another file's copy, a plain name, a non-number.
  store("Documents/notes@0.txt", "n");
  store("Documents/report.txt", "plain");
  store("Documents/report@x.txt", "not a number");
  dir.mkdir("disk/qs skerrow.skstor/U/Documents/report@5.txt");  // a folder is not a copy

  VersionError error{VersionErrorKind::IOError, "stale"};
  const auto versions = browser.versions("Documents/report.txt", &error);
  EXPECT_TRUE(error.empty()) << error.message;
  ASSERT_EQ(indicesOf(versions), (std::vector<uint64_t>{0, 2, 10}));
  EXPECT_EQ(namesOf(versions), (std::vector<std::string>{"report@0.txt", "report@2.txt", "report@10.txt"}));
  EXPECT_EQ(versions[0].size, 1u);
  EXPECT_EQ(versions[1].size, 6u);
  EXPECT_EQ(versions[2].size, 13u);
  EXPECT_EQ(versions[0].modificationTime, (platform::FileTime{1600000000, 1}));
  EXPECT_EQ(versions[1].modificationTime, (platform::FileTime{1650000000, 123456789}));
  EXPECT_EQ(versions[2].modificationTime, (platform::FileTime{1700000000, 900000000}));
  EXPECT_EQ(versions[2].path, backup + "/Documents/report@10.txt");
  for (const auto& v : versions) {
    EXPECT_FALSE(v.isSymbolicLink);
    EXPECT_TRUE(S_ISREG(v.mode));
  }
}

TEST_F(VersionBrowserTest, AnAbsolutePathListsTheSameVersionsAsARelativeOne) {
  store("Documents/report@0.txt", "a");
  store("Documents/report@1.txt", "bb");
  const auto relative = browser.versions("Documents/report.txt");
  const auto absolute = browser.versions(home + "/Documents/report.txt");
  ASSERT_EQ(indicesOf(relative), (std::vector<uint64_t>{0, 1}));
  EXPECT_EQ(namesOf(absolute), namesOf(relative));
}

TEST_F(VersionBrowserTest, TheCreationDateIsGivenOnlyWhenTheCopyStoresOne) {
  const std::string with = store("a@0.txt", "x");
  store("a@1.txt", "y");
  const char* stored = "1234567890.250000000";
  if (::setxattr(with.c_str(), "user.com.qsc.creation-date", stored, std::strlen(stored), 0) != 0)
    GTEST_SKIP() << "the temporary folder keeps no user extended attributes";
  const auto versions = browser.versions("a.txt");
  ASSERT_EQ(indicesOf(versions), (std::vector<uint64_t>{0, 1}));
  ASSERT_TRUE(versions[0].creationTime);
  EXPECT_EQ(*versions[0].creationTime, (platform::FileTime{1234567890, 250000000}));
  // The second copy's own birth time is when it was written, not a creation date of the file.
  EXPECT_FALSE(versions[1].creationTime);
}

TEST_F(VersionBrowserTest, CopiesAreMatchedToTheFileIgnoringLetterCaseAsTheEngineGroupsThem) {
  store("Report@0.txt", "a");
  store("report@1.txt", "b");
  store("REPORT@2.TXT", "c");
  EXPECT_EQ(indicesOf(browser.versions("report.txt")), (std::vector<uint64_t>{0, 1, 2}));
  EXPECT_EQ(indicesOf(browser.versions("Report.TXT")), (std::vector<uint64_t>{0, 1, 2}));
}

TEST_F(VersionBrowserTest, AFileWhoseOwnNameLooksLikeAVersionHasItsOwnCopies) {
  // The engine stores "photo@2008.jpg" as "photo@2008@0.jpg", ...; those are
  // its versions, and none of them is a version of "photo.jpg".
  store("Pictures/photo@0.jpg", "plain photo");
  store("Pictures/photo@2008@0.jpg", "first");
  store("Pictures/photo@2008@1.jpg", "second");
  const auto own = browser.versions("Pictures/photo@2008.jpg");
  EXPECT_EQ(namesOf(own), (std::vector<std::string>{"photo@2008@0.jpg", "photo@2008@1.jpg"}));
  EXPECT_EQ(indicesOf(own), (std::vector<uint64_t>{0, 1}));
  EXPECT_EQ(namesOf(browser.versions("Pictures/photo.jpg")), (std::vector<std::string>{"photo@0.jpg"}));
}

TEST_F(VersionBrowserTest, ACopyNamedPhotoAt2008IsVersion2008OfPhoto) {
  // A stored name reads one way only: "photo@2008.jpg" in a backup folder
  // is version 2008 of "photo.jpg", as the engine's walk reads it.
  store("photo@1.jpg", "one");
  store("photo@2008.jpg", "looks like a name");
  EXPECT_EQ(indicesOf(browser.versions("photo.jpg")), (std::vector<uint64_t>{1, 2008}));
  VersionError error;
  EXPECT_TRUE(browser.versions("photo@2008.jpg", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
}

TEST_F(VersionBrowserTest, NumbersBeyondSixtyFourBitsAreNotVersions) {
  store("a@3.txt", "x");
  store("a@99999999999999999999.txt", "y");
  EXPECT_EQ(indicesOf(browser.versions("a.txt")), (std::vector<uint64_t>{3}));
}

TEST_F(VersionBrowserTest, AnUnknownFileHasNoStoredVersions) {
  store("Documents/report@0.txt", "a");
  VersionError error;
  EXPECT_TRUE(browser.versions("Documents/other.txt", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
  EXPECT_NE(error.message.find("No stored versions of Documents/other.txt"), std::string::npos) << error.message;
  // A folder the backup never had is the same answer, not an error of the system.
  EXPECT_TRUE(browser.versions("Music/song.mp3", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
  // So is a path through a stored file as if it were a folder.
  EXPECT_TRUE(browser.versions("Documents/report@0.txt/x", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
}

TEST_F(VersionBrowserTest, AMissingBackupFolderIsAnErrorOfTheSystemNotAnEmptyFile) {
  VersionBrowser absent(dir / "nowhere/qs skerrow.skstor/U", home);
  VersionError error;
  EXPECT_TRUE(absent.versions("a.txt", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::IOError);
  EXPECT_NE(error.message.find(dir / "nowhere"), std::string::npos) << error.message;
}

TEST_F(VersionBrowserTest, CopiesMadeByABackupAreListedWithTheNewestHighest) {
  skerrow_test::useShippedBlackList();
  skerrow_test::FailureRecorder recorder;
  const auto backUp = [&] {
    QSTransferInstrument instrument(home, backup, skerrow_test::allCategories(), QSMutableTally::init(), 5);
    instrument.setDelegate(&recorder);
    QSFSDepthFirstTreeTraversal(nullptr).traverseTree_withVisitor(skerrow_test::mergedTreeOf(home, backup),
                                                                  instrument);
  };
  dir.mkdir("disk/qs skerrow.skstor/U");
  const std::string report = dir.write("home/ann/Documents/report.txt", "one");
  dir.write("home/ann/Documents/photo@2008.jpg", "jpeg");
  setTimes(report, {1600000000, 5}, {1600000000, 5});
  backUp();
  dir.write("home/ann/Documents/report.txt", "two!");
  setTimes(report, {1600000100, 7}, {1600000100, 7});
  backUp();
  ASSERT_TRUE(recorder.failures.empty());

  const auto versions = browser.versions("Documents/report.txt");
  ASSERT_EQ(indicesOf(versions), (std::vector<uint64_t>{0, 1}));
  EXPECT_EQ(versions[0].size, 3u);
  EXPECT_EQ(versions[1].size, 4u);
  EXPECT_EQ(versions[0].modificationTime, (platform::FileTime{1600000000, 5}));
  EXPECT_EQ(versions[1].modificationTime, (platform::FileTime{1600000100, 7}));
  EXPECT_EQ(dir.read("disk/qs skerrow.skstor/U/Documents/" + versions[1].fileName), "two!");
  EXPECT_EQ(namesOf(browser.versions("Documents/photo@2008.jpg")), (std::vector<std::string>{"photo@2008@0.jpg"}));
  EXPECT_TRUE(browser.versions("Documents/photo.jpg").empty());
}

// --- Links in the backup folder ---

TEST_F(VersionBrowserTest, ACopyThatIsASymbolicLinkIsListedAndRestoredAsTheLinkNeverReadThrough) {
  const std::string outside = dir.write("outside/secret.txt", std::string(100, 's'));
  dir.mkdir("disk/qs skerrow.skstor/U/Documents");
  ASSERT_EQ(::symlink(outside.c_str(), (backup + "/Documents/a@0.txt").c_str()), 0);
  dir.mkdir("home/ann/Documents");

  const auto versions = browser.versions("Documents/a.txt");
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_TRUE(versions[0].isSymbolicLink);
  EXPECT_EQ(versions[0].size, outside.size());  // the link's own size: the length of its target
  EXPECT_TRUE(S_ISLNK(versions[0].mode));

  VersionError error;
  const auto restored = browser.restore("Documents/a.txt", RestoreOptions{}, &error);
  ASSERT_TRUE(restored) << error.message;
  const platform::FileAttributes a = attributesOf(home + "/Documents/a.txt");
  EXPECT_TRUE(a.isSymbolicLink());
  EXPECT_EQ(std::filesystem::read_symlink(home + "/Documents/a.txt").string(), outside);
  EXPECT_EQ(dir.read("outside/secret.txt"), std::string(100, 's'));
}

TEST_F(VersionBrowserTest, AFolderOfTheBackupReplacedByALinkIsNotFollowed) {
  const std::string elsewhere = dir.mkdir("elsewhere");
  dir.write("elsewhere/a@0.txt", "not part of the backup");
  dir.mkdir("disk/qs skerrow.skstor/U");
  ASSERT_EQ(::symlink(elsewhere.c_str(), (backup + "/Documents").c_str()), 0);
  dir.mkdir("home/ann/Documents");

  VersionError error;
  EXPECT_TRUE(browser.versions("Documents/a.txt", &error).empty());
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
  EXPECT_FALSE(browser.restore("Documents/a.txt", RestoreOptions{}, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
  EXPECT_TRUE(entriesOf(home + "/Documents").empty());
}

// --- Restoring ---

TEST_F(VersionBrowserTest, RestoreTakesTheNewestVersionToTheFilesOwnPathByDefault) {
  store("Documents/report@0.txt", "oldest");
  store("Documents/report@1.txt", "middle");
  store("Documents/report@3.txt", "newest");
  dir.mkdir("home/ann/Documents");

  VersionError error{VersionErrorKind::IOError, "stale"};
  const auto restored = browser.restore("Documents/report.txt", RestoreOptions{}, &error);
  ASSERT_TRUE(restored) << error.message;
  EXPECT_TRUE(error.empty());
  EXPECT_EQ(restored->version.index, 3u);
  EXPECT_EQ(restored->destinationPath, home + "/Documents/report.txt");
  EXPECT_EQ(dir.read("home/ann/Documents/report.txt"), "newest");
  EXPECT_EQ(entriesOf(home + "/Documents"), std::vector<std::string>{"report.txt"});
}

TEST_F(VersionBrowserTest, RestoreOfAGivenVersionTakesThatCopy) {
  store("report@0.txt", "oldest");
  store("report@1.txt", "middle");
  store("report@3.txt", "newest");
  RestoreOptions options;
  options.version = 1;
  const auto restored = browser.restore(home + "/report.txt", options);
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->version.fileName, "report@1.txt");
  EXPECT_EQ(dir.read("home/ann/report.txt"), "middle");
  options.version = 0;
  options.overwrite = true;
  ASSERT_TRUE(browser.restore("report.txt", options));
  EXPECT_EQ(dir.read("home/ann/report.txt"), "oldest");
}

TEST_F(VersionBrowserTest, RestoreOfAVersionThatIsNotStoredFailsAndSaysWhichAre) {
  store("report@0.txt", "a");
  store("report@1.txt", "b");
  store("report@3.txt", "c");
  RestoreOptions options;
  options.version = 2;
  VersionError error;
  EXPECT_FALSE(browser.restore("report.txt", options, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::VersionMissing);
  EXPECT_NE(error.message.find("Version 2 of report.txt"), std::string::npos) << error.message;
  EXPECT_NE(error.message.find("0, 1, 3"), std::string::npos) << error.message;
  EXPECT_TRUE(entriesOf(home).empty());
}

TEST_F(VersionBrowserTest, RestoreOfAFileWithNoCopiesFails) {
  dir.mkdir("disk/qs skerrow.skstor/U");
  VersionError error;
  EXPECT_FALSE(browser.restore("report.txt", RestoreOptions{}, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::NoStoredVersions);
  EXPECT_TRUE(entriesOf(home).empty());
}

TEST_F(VersionBrowserTest, TwoCopiesWithTheSameNumberAreNotRestoredByGuess) {
  store("a@1.txt", "one");
  store("a@01.txt", "zero-one");
  EXPECT_EQ(namesOf(browser.versions("a.txt")), (std::vector<std::string>{"a@01.txt", "a@1.txt"}));
  VersionError error;
  EXPECT_FALSE(browser.restore("a.txt", RestoreOptions{}, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::AmbiguousVersion);
  EXPECT_TRUE(entriesOf(home).empty());
}

TEST_F(VersionBrowserTest, RestoreIntoAnExistingFolderUsesTheFilesNameWithoutTheVersionNumber) {
  store("Documents/report@4.txt", "four");
  const std::string out = dir.mkdir("out");
  RestoreOptions options;
  options.destination = out;
  const auto restored = browser.restore("Documents/report.txt", options);
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->destinationPath, out + "/report.txt");
  EXPECT_EQ(entriesOf(out), std::vector<std::string>{"report.txt"});
  EXPECT_EQ(dir.read("out/report.txt"), "four");
  // The home folder is untouched.
  EXPECT_TRUE(entriesOf(home).empty());
}

TEST_F(VersionBrowserTest, RestoreToAPathThatIsNotAFolderWritesTheFileUnderThatName) {
  store("report@0.txt", "zero");
  const std::string out = dir.mkdir("out");
  RestoreOptions options;
  options.destination = out + "/report-before.txt";
  const auto restored = browser.restore("report.txt", options);
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->destinationPath, out + "/report-before.txt");
  EXPECT_EQ(dir.read("out/report-before.txt"), "zero");
}

TEST_F(VersionBrowserTest, RestoreIntoAFolderThatDoesNotExistFailsAndWritesNothing) {
  store("report@0.txt", "zero");
  RestoreOptions options;
  options.destination = dir / "missing/";
  VersionError error;
  EXPECT_FALSE(browser.restore("report.txt", options, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::IOError);
  options.destination = dir / "missing/report.txt";
  EXPECT_FALSE(browser.restore("report.txt", options, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::IOError);
  EXPECT_NE(error.message.find(dir / "missing"), std::string::npos) << error.message;
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST_F(VersionBrowserTest, AnExistingFileIsNotOverwrittenUnlessAsked) {
  store("Documents/report@0.txt", "stored");
  dir.write("home/ann/Documents/report.txt", "current work");
  VersionError error;
  EXPECT_FALSE(browser.restore("Documents/report.txt", RestoreOptions{}, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::DestinationExists);
  EXPECT_NE(error.message.find(home + "/Documents/report.txt"), std::string::npos) << error.message;
  EXPECT_EQ(dir.read("home/ann/Documents/report.txt"), "current work");
  EXPECT_EQ(entriesOf(home + "/Documents"), std::vector<std::string>{"report.txt"});
}

TEST_F(VersionBrowserTest, AnExistingFileIsReplacedWholeWhenOverwritingIsAsked) {
  store("Documents/report@0.txt", "stored");
  dir.write("home/ann/Documents/report.txt", "current work, longer than the copy");
  RestoreOptions options;
  options.overwrite = true;
  VersionError error;
  ASSERT_TRUE(browser.restore("Documents/report.txt", options, &error)) << error.message;
  EXPECT_EQ(dir.read("home/ann/Documents/report.txt"), "stored");
  EXPECT_EQ(entriesOf(home + "/Documents"), std::vector<std::string>{"report.txt"});
}

TEST_F(VersionBrowserTest, AFolderAtTheDestinationIsNeverReplaced) {
  store("report@0.txt", "stored");
  dir.write("home/ann/report.txt/inside.txt", "keep");
  RestoreOptions options;
  options.overwrite = true;
  VersionError error;
  EXPECT_FALSE(browser.restore("report.txt", options, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::DestinationExists);
  EXPECT_EQ(dir.read("home/ann/report.txt/inside.txt"), "keep");
  EXPECT_EQ(entriesOf(home), std::vector<std::string>{"report.txt"});
}

TEST_F(VersionBrowserTest, RestoreKeepsTheCopysTimesToTheNanosecondAndItsMode) {
  const std::string copy = store("Documents/report@2.txt", "stored", 1500000000, 987654321);
  ASSERT_EQ(::chmod(copy.c_str(), 0640), 0);
  setTimes(copy, {1400000000, 111111111}, {1500000000, 987654321});
  const platform::FileAttributes before = attributesOf(copy);
  dir.mkdir("home/ann/Documents");

  const auto restored = browser.restore("Documents/report.txt", RestoreOptions{});
  ASSERT_TRUE(restored);
  EXPECT_EQ(restored->version.modificationTime, (platform::FileTime{1500000000, 987654321}));
  const platform::FileAttributes after = attributesOf(home + "/Documents/report.txt");
  EXPECT_TRUE(after.isRegularFile());
  EXPECT_EQ(after.mode & 07777, 0640u);
  EXPECT_EQ(after.modificationTime, (platform::FileTime{1500000000, 987654321}));
  EXPECT_EQ(after.accessTime, before.accessTime);
  EXPECT_EQ(after.accessTime, (platform::FileTime{1400000000, 111111111}));
}

TEST_F(VersionBrowserTest, RestoreAsRootKeepsTheCopysOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file another owner";
  const std::string copy = store("report@0.txt", "stored");
  ASSERT_EQ(::chown(copy.c_str(), 4321, 8765), 0);
  ASSERT_TRUE(browser.restore("report.txt", RestoreOptions{}));
  const platform::FileAttributes after = attributesOf(home + "/report.txt");
  EXPECT_EQ(after.uid, 4321u);
  EXPECT_EQ(after.gid, 8765u);
}

TEST_F(VersionBrowserTest, TheDefaultDestinationIsNotReachedThroughALinkInTheHomeFolder) {
  store("Documents/report@0.txt", "stored");
  const std::string elsewhere = dir.mkdir("elsewhere");
  ASSERT_EQ(::symlink(elsewhere.c_str(), (home + "/Documents").c_str()), 0);
  VersionError error;
  EXPECT_FALSE(browser.restore("Documents/report.txt", RestoreOptions{}, &error));
  EXPECT_EQ(error.kind, VersionErrorKind::IOError);
  EXPECT_TRUE(entriesOf(elsewhere).empty());
}

TEST(VersionBrowserRenameTest, AnItemThatAppearedAfterTheCheckIsKeptUnlessReplacing) {
  skerrow_test::TempDir dir;
  dir.write("copy.tmp", "restored");
  dir.write("report.txt", "appeared meanwhile");
  const int folder = ::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(folder, 0);
  EXPECT_EQ(skerrowctl::renameIntoPlace(folder, "copy.tmp", "report.txt", false), EEXIST);
  EXPECT_EQ(dir.read("report.txt"), "appeared meanwhile");
  EXPECT_EQ(dir.read("copy.tmp"), "restored");
  EXPECT_EQ(skerrowctl::renameIntoPlace(folder, "copy.tmp", "report.txt", true), 0);
  EXPECT_EQ(dir.read("report.txt"), "restored");
  EXPECT_EQ(entriesOf(dir.path()), std::vector<std::string>{"report.txt"});
  // Without an item in the way the rename simply gives the final name.
  dir.write("other.tmp", "other");
  EXPECT_EQ(skerrowctl::renameIntoPlace(folder, "other.tmp", "other.txt", false), 0);
  EXPECT_EQ(dir.read("other.txt"), "other");
  // A folder is never replaced, even when replacing.
  dir.write("third.tmp", "third");
  dir.write("Folder/inside.txt", "keep");
  EXPECT_NE(skerrowctl::renameIntoPlace(folder, "third.tmp", "Folder", true), 0);
  EXPECT_EQ(dir.read("Folder/inside.txt"), "keep");
  ::close(folder);
}
