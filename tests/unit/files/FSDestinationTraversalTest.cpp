#include "Engine/files/FSDestinationTraversal.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <unistd.h>

#include "Engine/records/QSVersionName.h"
#include "platform/UnicodeText.h"
#include "tests/support/FSTraversalTestSupport.h"
#include "tests/support/TempDir.h"

using skerrow_test::RecordingFSVisitor;

namespace {

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

}  // namespace

TEST(FSDestinationTraversalTest, VersionedCopiesAreGroupedByLowerCasedPlainName) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  dir.write("U/Report@0.txt", "a");
  dir.write("U/Report@1.txt", "ab");
  dir.write("U/notes@0.txt", "n");
  dir.write("U/plain.txt", "not a version");
  RecordingFSVisitor v;
  v.root = backup;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, v);
  ASSERT_EQ(v.groups.size(), 2u);
  std::map<std::string, std::vector<std::string>> groups(v.groups.begin(), v.groups.end());
  EXPECT_EQ(sorted(groups["/report.txt"]), (std::vector<std::string>{"Report@0.txt", "Report@1.txt"}));
  EXPECT_EQ(groups["/notes.txt"], std::vector<std::string>{"notes@0.txt"});
  for (const auto& c : v.calls) EXPECT_EQ(c.find("plain"), std::string::npos) << c;
  EXPECT_EQ(v.calls.front(), "begin ");
  EXPECT_EQ(v.calls[1], "dir ");
  EXPECT_EQ(v.calls[v.calls.size() - 2], "finish ");
  EXPECT_EQ(v.count("end group /report.txt"), 1u);
}

TEST(FSDestinationTraversalTest, VersionRecordsCarryTheCopiesAttributesAndStoredCreationDate) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  const std::string file = dir.write("U/a@3.txt", "12345");
  const bool attributes = ::setxattr(file.c_str(), "user.com.qsc.creation-date", "978307260.500000000", 19, 0) == 0;
  struct Capture : skerrow_test::NoopFSVisitor {
    QSFSVersionArray versions;
    void startVisitOfGroup_atPath(const QSFSVersionArray& v, const std::string&) override { versions = v; }
  } capture;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, capture);
  ASSERT_EQ(capture.versions.size(), 1u);
  const auto& v = *capture.versions[0];
  EXPECT_EQ(v.index(), 3u);
  EXPECT_EQ(v.attributes().size, 5);
  EXPECT_EQ(v.attributes().type, kQSFSTypeFile);
  EXPECT_TRUE(v.attributes().fileTypeIsARegularFile);
  if (attributes) {
    EXPECT_EQ(v.attributes().creationDate, 60.5);
  }
}

TEST(FSDestinationTraversalTest, SubfoldersAreWalkedAndLinksCountAsFilesButNotRegular) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  dir.write("U/Documents/a@0.txt", "a");
  ASSERT_EQ(::symlink("target", (backup + "/l@0").c_str()), 0);
  struct Capture : skerrow_test::NoopFSVisitor {
    std::map<std::string, QSFSVersionArray> groups;
    void startVisitOfGroup_atPath(const QSFSVersionArray& v, const std::string& p) override { groups[p] = v; }
  } capture;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, capture);
  ASSERT_EQ(capture.groups.size(), 2u);
  EXPECT_EQ(capture.groups.count(backup + "/Documents/a.txt"), 1u);
  ASSERT_EQ(capture.groups.count(backup + "/l"), 1u);
  EXPECT_FALSE(capture.groups[backup + "/l"][0]->attributes().fileTypeIsARegularFile);
  EXPECT_EQ(capture.groups[backup + "/l"][0]->attributes().type, kQSFSTypeFile);
}

TEST(FSDestinationTraversalTest, StopDuringAListingStillDeliversTheGroupsGatheredAndTheFolderFinish) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  dir.write("U/a@0.txt", "a");
  dir.write("U/b@0.txt", "b");
  dir.mkdir("U/sub");
  dir.write("U/sub/c@0.txt", "c");
  std::atomic<bool> stop{false};
  RecordingFSVisitor v;
  v.root = backup;
  // Stop as soon as the walk reaches the subfolder: the top listing ends there.
  v.onStart = [&](const std::string& p) {
    if (p == backup + "/sub") stop = true;
  };
  FSDestinationTraversal(&stop).recurseAtDestinationPath_withVisitor(backup, v);
  EXPECT_EQ(v.count("finish "), 1u);
  EXPECT_EQ(v.count("finish /sub"), 1u);
  EXPECT_EQ(v.count("group /sub/c.txt"), 0u);  // the stop came before the subfolder's listing
  EXPECT_EQ(v.calls.back(), "end ");
  // The folder lists in a fixed order: the groups are exactly those of the files listed before "sub".
  std::set<std::string> expected;
  for (const auto& e : std::filesystem::directory_iterator(backup)) {
    const std::string name = e.path().filename();
    if (name == "sub") break;
    expected.insert("/" + name.substr(0, 1) + ".txt");
  }
  std::set<std::string> delivered;
  for (const auto& g : v.groups) delivered.insert(g.first);
  EXPECT_EQ(delivered, expected);
}

TEST(FSDestinationTraversalTest, WalkStartedOnAFileReportsItAndAMissingPathNothing) {
  skerrow_test::TempDir dir;
  const std::string file = dir.write("a@0.txt", "a");
  RecordingFSVisitor v;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(file, v);
  EXPECT_EQ(v.calls.size(), 4u);
  RecordingFSVisitor w;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(dir / "missing", w);
  EXPECT_EQ(w.calls.size(), 2u);
}

// Groups come in the order their first copies are read from the folder, and
// each holds its copies in reading order, whatever the letter case of their
// names.  The expected order is worked out here from the folder's own listing.
TEST(FSDestinationTraversalTest, GroupsComeInTheOrderOfTheirFirstCopyWithTheirCopiesInReadingOrder) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  const std::vector<std::string> bodies = {"Report", "REPORT", "report", "a", "A", "b", "Zeta", "zeta", "c"};
  for (int i = 0; i < 60; ++i)
    dir.write("U/" + bodies[static_cast<size_t>(i * 7) % bodies.size()] + "@" + std::to_string(i) + ".txt", "x");
  dir.write("U/not-a-copy.txt", "x");
  std::vector<std::pair<std::string, std::vector<std::string>>> expected;
  for (const auto& entry : std::filesystem::directory_iterator(backup)) {
    const std::string name = entry.path().filename().string();
    const auto parsed = QSParseFileName(name);
    if (!parsed) continue;
    const std::string key = "/" + platform::lowercase((*parsed)[0]);
    auto it = std::find_if(expected.begin(), expected.end(), [&](const auto& g) { return g.first == key; });
    if (it == expected.end()) it = expected.insert(expected.end(), {key, {}});
    it->second.push_back(name);
  }
  ASSERT_EQ(expected.size(), 5u);  // report, a, b, zeta, c
  RecordingFSVisitor v;
  v.root = backup;
  FSDestinationTraversal(nullptr).recurseAtDestinationPath_withVisitor(backup, v);
  EXPECT_EQ(v.groups, expected);
}
