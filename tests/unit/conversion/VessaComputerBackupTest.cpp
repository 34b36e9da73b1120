// Legacy computers: only the one named like this machine is converted.
#include "Engine/conversion/VessaComputerBackup.h"

#include <gtest/gtest.h>

#include "Engine/conversion/QSVessaStateArchive.h"
#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using namespace skerrow_test;

// Edge case: a computer folder whose name is not this machine's computer
// name is examined but not converted, and clean-up then leaves the legacy
// folder in place.
TEST(VessaComputer, AComputerOfAnotherNameIsExaminedButNotConvertedAndItsFolderStays) {
  useShippedBlackList();
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "20"}),
            std::vector<std::string>{});
  const LegacyManifest manifest = LegacyManifest::read(dir / "manifest.tsv");
  RecordingConversionDelegate delegate;
  // This machine is called something else than the computer folder.
  auto conversion = conversionOf(dir / "volume", &delegate, testEnvironment("Another Machine"));
  ASSERT_TRUE(conversion);
  const auto converted = conversion->convertVessaHierarchy(nullptr);
  ASSERT_TRUE(converted);
  EXPECT_TRUE(converted->empty());
  ASSERT_EQ(conversion->backedUpComputers().size(), 1u);
  EXPECT_EQ(conversion->backedUpComputers()[0]->computerName(), kTestComputer);
  EXPECT_FALSE(conversion->backedUpComputers()[0]->computerNeedsConversion());
  EXPECT_TRUE(conversion->backedUpComputers()[0]->backedUpUsers().empty());
  // The legacy folder is an untouched legacy backup again, every version where it was.
  EXPECT_TRUE(isFolder(dir / "volume/QS Tidevault"));
  EXPECT_FALSE(exists(dir / "volume/QS Tidevault/.vessaToQSConversionStateInfo"));
  const LegacyCheck check = checkLegacyVersions(dir / "volume", manifest);
  EXPECT_EQ(check.inLegacyTree, check.versions) << check.summary();
  EXPECT_TRUE(check.nothingLost()) << check.summary();
  // Nothing was converted, so the new storage folder holds no backup.
  EXPECT_TRUE(std::filesystem::is_empty(dir / "volume/qs skerrow.skstor"));
  EXPECT_EQ(delegate.states().back(), "qs skerrow.skstor");
}

TEST(VessaComputer, OnlyTheComputerOfThisMachinesNameIsConvertedBesideAnother) {
  useShippedBlackList();
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "20",
                               "--other-computer", "Old Laptop"}),
            std::vector<std::string>{});
  const LegacyManifest manifest = LegacyManifest::read(dir / "manifest.tsv");
  auto conversion = conversionOf(dir / "volume", nullptr);
  const auto converted = conversion->convertVessaHierarchy(nullptr);
  ASSERT_TRUE(converted);
  EXPECT_EQ(converted->size(), 1u);
  // The other computer's backups stay as an untouched legacy backup.
  EXPECT_TRUE(isFolder(dir / "volume/QS Tidevault/Old Laptop/ann"));
  EXPECT_FALSE(exists(dir / ("volume/QS Tidevault/" + std::string(kTestComputer))));
  const LegacyCheck check = checkLegacyVersions(dir / "volume", manifest);
  EXPECT_TRUE(check.nothingLost()) << check.summary();
  size_t others = 0;
  for (const auto& v : manifest.versions) others += v.newIndex == "-";
  EXPECT_EQ(check.inLegacyTree, others) << check.summary();
  EXPECT_EQ(check.converted, check.versions - others) << check.summary();
}

TEST(VessaComputer, ArchiveRoundTripAndHostileNames) {
  VessaComputerBackup computer;
  const platform::Dictionary archive = computer.archive();
  EXPECT_TRUE(VessaComputerBackup::initWithArchive(platform::Value(archive)) == nullptr)
      << "an empty computer name is not a folder name";
  platform::Dictionary named = archive;
  named.set("computerName", platform::Value("Mac"));
  const auto back = VessaComputerBackup::initWithArchive(platform::Value(named));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->computerName(), "Mac");
  named.set("computerName", platform::Value(".."));
  EXPECT_FALSE(VessaComputerBackup::initWithArchive(platform::Value(named)));
}

}  // namespace
