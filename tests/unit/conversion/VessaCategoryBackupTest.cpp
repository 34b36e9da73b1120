// A legacy category: its plan settings and its files.
#include "Engine/conversion/VessaCategoryBackup.h"

#include <gtest/gtest.h>

#include "Engine/conversion/VessaComputerBackup.h"
#include "tests/unit/conversion/ConversionTestSupport.h"

namespace {

using namespace skerrow_test;

platform::Dictionary settings(int64_t versions, const platform::Array& directories = {}) {
  platform::Dictionary device;
  device.set("numberOfVersions", platform::Value::integer(versions));
  platform::Dictionary filters;
  filters.set("directory", platform::Value(directories));
  platform::Dictionary all;
  all.set("DeviceInfo", platform::Value(device));
  all.set("ExclusionFilters", platform::Value(filters));
  return all;
}

class VessaCategory : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(dir / "volume/QS Tidevault");
    conversion = conversionOf(dir / "volume", nullptr);
    ASSERT_TRUE(conversion);
    conversion->setCurrentStateOfConversion(1);
  }
  std::shared_ptr<VessaCategoryBackup> category(const platform::Dictionary& planSettings) {
    return VessaCategoryBackup::
        backedUpFilesForCategory_pathRelativeToVessaFolder_converter_vessaBackupPlanSettings(
            "Documents", "Mac/ann/Documents/home/ann", conversion.get(), planSettings);
  }
  TempDir dir;
  std::unique_ptr<QSVessaConversion> conversion;
};

// Edge case, first half: a category whose settings say 5 versions reports 4 versions to keep.
TEST_F(VessaCategory, SettingsOfFiveVersionsReportFourToKeep) {
  EXPECT_EQ(category(settings(5))->zeroBasedNumberOfBackupVersionsToKeep(), 4);
}

TEST_F(VessaCategory, MissingSettingsReportMinusOneAndFlatKeysAreReadToo) {
  EXPECT_EQ(category(platform::Dictionary())->zeroBasedNumberOfBackupVersionsToKeep(), -1);
  platform::Dictionary flat;
  flat.set("DeviceInfo.numberOfVersions", platform::Value::integer(3));
  EXPECT_EQ(category(flat)->zeroBasedNumberOfBackupVersionsToKeep(), 2);
}

TEST_F(VessaCategory, TheExclusionEntryIsTheFirstThatIsNotTheNullMarker) {
  EXPECT_EQ(category(settings(5))->exclusionFilterDirectory(), std::nullopt);
  const auto c = category(settings(5, {platform::Value("$null"), platform::Value("/home/ann/Library/Caches"),
                                       platform::Value("/home/ann/tmp")}));
  EXPECT_EQ(c->exclusionFilterDirectory(), "/home/ann/Library/Caches");
}

TEST_F(VessaCategory, AMissingFolderGivesACategoryWithoutFiles) {
  const auto c = category(settings(5));
  EXPECT_TRUE(c->categoryFiles().empty());
  EXPECT_EQ(c->category(), "Documents");
}

TEST_F(VessaCategory, ArchiveRoundTrip) {
  LegacyWriter::write(dir / "volume/QS Tidevault/Mac/ann/Documents/home/ann/Documents/a.txt", "a");
  const auto c = category(settings(5));
  ASSERT_EQ(c->categoryFiles().size(), 1u);
  const auto back = VessaCategoryBackup::initWithArchive(platform::Value(c->archive()));
  ASSERT_TRUE(back);
  EXPECT_EQ(platform::Value(back->archive()), platform::Value(c->archive()));
  platform::Dictionary hostile = c->archive();
  hostile.set("relativePathToCategoryBackup", platform::Value("../outside"));
  EXPECT_FALSE(VessaCategoryBackup::initWithArchive(platform::Value(hostile)));
}

// Edge case, second half: the user's "version-depth" is the largest value
// over its categories (5 and 8 versions: 4 and 7 to keep).
TEST(VessaCategoryDepth, TheUsersVersionDepthIsTheLargestOverItsCategories) {
  useShippedBlackList();
  TempDir dir;
  ASSERT_EQ(runGenerator(dir, {"--user", "ann=" + QSCHomeDirectoryForUser("ann"), "--files", "30", "--categories",
                               "Documents,Music", "--number-of-versions", "Documents=5", "--number-of-versions",
                               "Music=8"}),
            std::vector<std::string>{});
  RecordingConversionDelegate delegate;
  auto conversion = conversionOf(dir / "volume", &delegate);
  ASSERT_TRUE(conversion);
  const auto converted = conversion->convertVessaHierarchy(nullptr);
  ASSERT_TRUE(converted);
  ASSERT_EQ(converted->size(), 1u);
  const std::string uid = converted->begin()->first;
  EXPECT_EQ(converted->begin()->second.zeroBasedNumberOfBackupVersionsToKeep, 7);
  const auto info = platform::PropertyList::readFile(dir / ("volume/qs skerrow.skstor/" + uid + "/.com.qsc.backupinfo"));
  ASSERT_TRUE(info && info->isDictionary());
  EXPECT_EQ(info->asDictionary()->find("version-depth")->int64Value(), 7);
}

}  // namespace
