// The generator of the older product's backups makes the layout the
// conversion reads: the same layout from the same seed, every state folder
// with or without its state file, and a manifest of what it made.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "tests/support/LegacyLayout.h"
#include "tests/support/TempDir.h"

namespace {

using namespace skerrow_test;

std::map<std::string, std::string> hashes(const std::string& root) {
  std::map<std::string, std::string> out;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
    if (entry.is_regular_file() && entry.path().filename() != ".vessaToQSConversionStateInfo")
      out[entry.path().string().substr(root.size())] = fileHash(entry.path().string());
  return out;
}

TEST(MakeLegacyLayout, TheSameSeedMakesTheSameLayout) {
  TempDir dir;
  for (const char* name : {"a", "b"})
    ASSERT_EQ(makeLegacyLayout({"--computer", "Mac", "--files", "30", "--seed", "4", dir / name}).exitCode, 0);
  EXPECT_EQ(hashes(dir / "a"), hashes(dir / "b"));
  ASSERT_EQ(makeLegacyLayout({"--computer", "Mac", "--files", "30", "--seed", "5", dir / "c"}).exitCode, 0);
  EXPECT_NE(hashes(dir / "a"), hashes(dir / "c"));
}

TEST(MakeLegacyLayout, TheManifestNamesEveryVersionWithItsBytesAndDate) {
  TempDir dir;
  ASSERT_EQ(makeLegacyLayout({"--computer", "Mac", "--user", "ann=/home/ann", "--user", "bob=/home/bob", "--files",
                              "40", "--manifest", dir / "m.tsv", dir / "v"})
                .exitCode,
            0);
  const LegacyManifest manifest = LegacyManifest::read(dir / "m.tsv");
  ASSERT_EQ(manifest.users.size(), 2u);
  ASSERT_GE(manifest.versions.size(), 80u);
  for (const LegacyVersion& v : manifest.versions) {
    const std::string path = dir / ("v/QS Tidevault/" + v.legacyPath);
    ASSERT_TRUE(std::filesystem::is_regular_file(path)) << path;
    EXPECT_EQ(std::filesystem::file_size(path), v.size);
    EXPECT_EQ(fileHash(path), v.hash);
    struct stat st {};
    ASSERT_EQ(::lstat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, v.modified);
    EXPECT_EQ(v.legacyPath.rfind("Mac/" + v.user + "/", 0), 0u);
  }
  // Each category folder holds the plan settings.
  for (const char* category : {"Documents", "Mail", "Movies", "Music", "Other", "Pictures"})
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / ("v/QS Tidevault/Mac/ann/" + std::string(category) +
                                                        "/.VessaBackupPlanSettings.plist")));
}

TEST(MakeLegacyLayout, EveryStateHasItsFolderAndStateFile) {
  const char* folders[] = {"",
                           "QS Tidevault",
                           "QS Tidevault - WillPerformPathExamination",
                           "QS Tidevault - DidPerformPathExamination",
                           "QS Tidevault - WillPerformPathReassignment",
                           "QS Tidevault - DidPerformPathReassignment",
                           "QS Tidevault - WillPerformPathMovement",
                           "QS Tidevault - DidPerformPathMovement"};
  for (int state = 1; state <= 7; ++state) {
    for (const std::string kind : {"absent", "valid", "garbage"}) {
      TempDir dir;
      ASSERT_EQ(makeLegacyLayout({"--computer", "Mac", "--files", "10", "--state", std::to_string(state), "--state-file",
                                  kind, "--manifest", dir / "m.tsv", dir / "v"})
                    .exitCode,
                0);
      const std::string stateFile = dir / ("v/" + std::string(folders[state]) + "/.vessaToQSConversionStateInfo");
      EXPECT_EQ(std::filesystem::exists(stateFile), kind != "absent") << state << kind;
      if (kind == "valid") {
        EXPECT_TRUE(platform::PropertyList::readFile(stateFile)) << state;
      }
      if (kind == "garbage") {
        EXPECT_FALSE(platform::PropertyList::readFile(stateFile)) << state;
      }
      const LegacyManifest manifest = LegacyManifest::read(dir / "m.tsv");
      ASSERT_EQ(manifest.users.size(), 1u);
      EXPECT_EQ(manifest.users[0].uid == "-", state < 5) << state;
      // In state 7 every version lies in the target under its new name.
      const LegacyCheck check = checkLegacyVersions(dir / "v", manifest);
      EXPECT_EQ(check.lost + check.duplicated + check.misplaced, 0u) << check.summary();
      EXPECT_EQ(check.unreadableLists, kind == "garbage" ? 1u : 0u) << check.summary();
      if (state == 7) {
        EXPECT_EQ(check.inProgress, check.versions) << check.summary();
      }
      if (state < 6) {
        EXPECT_EQ(check.inLegacyTree, check.versions) << check.summary();
      }
    }
  }
}

TEST(MakeLegacyLayout, AnotherComputersVersionsAreNotToBeConverted) {
  TempDir dir;
  ASSERT_EQ(makeLegacyLayout({"--computer", "Mac", "--other-computer", "Old PC", "--files", "10", "--manifest",
                              dir / "m.tsv", dir / "v"})
                .exitCode,
            0);
  const LegacyManifest manifest = LegacyManifest::read(dir / "m.tsv");
  size_t others = 0;
  for (const LegacyVersion& v : manifest.versions)
    if (v.computer == "Old PC") {
      ++others;
      EXPECT_EQ(v.newIndex, "-");
    }
  EXPECT_GT(others, 0u);
}

TEST(MakeLegacyLayout, MistakesOnTheCommandLineAreRefused) {
  TempDir dir;
  EXPECT_EQ(makeLegacyLayout({"--state", "9", dir / "v"}).exitCode, 2);
  EXPECT_EQ(makeLegacyLayout({"--user", "nohome", dir / "v"}).exitCode, 2);
  EXPECT_EQ(makeLegacyLayout({"--categories", "Recipes", dir / "v"}).exitCode, 2);
  EXPECT_EQ(makeLegacyLayout({}).exitCode, 2);
}

}  // namespace
