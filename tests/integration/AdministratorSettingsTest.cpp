// What an administrator sees of an installed engine: the black list in the
// settings folder (<sysconfdir>/skerrow/Info.plist, below SKERROW_ROOT here)
// is read before the shipped defaults, and both programs state their version.
// The real skerrowd on a private bus, the real skerrowctl as a fake user, a
// loop-mounted ext4 disk.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>

#include "tests/support/BackupScenario.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FileSystemImage.h"

namespace {

using namespace std::chrono_literals;
using skerrow_test::DaemonProcess;
using skerrow_test::EngineFixture;
using skerrow_test::FileSystemImage;
using skerrow_test::TestUser;

const std::string kSettingsRelative = SKERROW_TEST_SYSCONFDIR "/skerrow/Info.plist";

std::string runAs(EngineFixture& f, const TestUser& user, const std::vector<std::string>& arguments, int* status) {
  skerrow_test::DaemonProcessOptions options;
  options.environment = f.clientEnvironment();
  options.runAs = skerrow_test::RunAs{user.uid, user.gid};
  options.workingDirectory = "/";
  DaemonProcess client(SKERROWCTL_PATH, arguments, options);
  *status = client.waitForExit(120s).value_or(-1);
  return client.logText();
}

TEST(AdministratorSettingsTest, AnAdministratorsBlackListKeepsFilesOutOfABackupMadeWithSkerrowctl) {
  if (auto reason = skerrow_test::BackupScenario::unavailableReason()) GTEST_SKIP() << *reason;
  EngineFixture f;
  const TestUser& ada = f.users().addUser("ada", 1542, 1542, "Ada Example");
  std::filesystem::create_directories(ada.home + "/Documents");
  std::filesystem::create_directories(ada.home + "/.cache");
  std::ofstream(ada.home + "/Documents/report.txt") << "The first draft.\n";
  std::ofstream(ada.home + "/Documents/installer.iso") << "an image\n";
  std::ofstream(ada.home + "/.cache/kept.txt") << "the defaults would leave this out\n";
  skerrow_test::runCommand({"chown", "-R", "-h", "1542:1542", ada.home});

  // The administrator's list holds one extension and one folder; it replaces
  // the defaults whole.  (A list without any folder would black-list the empty
  // suffix, the home folder itself, and nothing would be backed up.)
  const std::string settings = f.storeRoot() + kSettingsRelative;
  std::filesystem::create_directories(std::filesystem::path(settings).parent_path());
  std::ofstream(settings) << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                             "<key>QSBlackList</key><dict><key>QSFileExtensions</key><array><string>iso</string>"
                             "</array><key>QSHomeDirSuffixes</key><array><string>/Downloads(/.*)?</string>"
                             "</array></dict></dict></plist>\n";
  FileSystemImage disk(FileSystemImage::Kind::Ext4, 64ull << 20, skerrow_test::FileSystemImageOptions{.label = "Backup"});
  std::filesystem::permissions(disk.folder(), std::filesystem::perms(0755));
  DaemonProcess& engine = f.startEngine({"-noRealtime"});
  EXPECT_TRUE(engine.waitForLogLine("Black list settings from " + settings)) << engine.logText();

  int status = -1;
  std::string output = runAs(f, ada, {"--json", "manage", disk.mountPoint(), "--depth", "2"}, &status);
  ASSERT_EQ(status, 0) << output;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(output, m, std::regex("\"uid\":\"([0-9A-F-]{36})\""))) << output;
  const std::string uid = m[1];
  output = runAs(f, ada, {"backup", uid}, &status);
  ASSERT_EQ(status, 0) << output;

  const auto stored = skerrow_test::regularFilesBelow(disk.mountPoint() + "/qs skerrow.skstor/" + uid);
  bool report = false, iso = false, cache = false;
  for (const auto& [path, file] : stored) {
    report |= path.rfind("Documents/report", 0) == 0;
    iso |= path.find(".iso") != std::string::npos;
    cache |= path.rfind(".cache/kept", 0) == 0;
  }
  std::string listing;
  for (const auto& [path, file] : stored) listing += path + "\n";
  EXPECT_TRUE(report) << "Documents/report.txt was not backed up; stored:\n" << listing;
  EXPECT_FALSE(iso) << "installer.iso was backed up although the administrator's list leaves .iso out";
  EXPECT_TRUE(cache) << ".cache was left out: the shipped defaults were read, not the administrator's list";
}

TEST(AdministratorSettingsTest, WithoutTheAdministratorsFileTheEngineReadsTheShippedDefaults) {
  if (auto reason = EngineFixture::unavailableReason()) GTEST_SKIP() << *reason;
  EngineFixture f;
  ASSERT_FALSE(std::filesystem::exists(f.storeRoot() + kSettingsRelative));
  DaemonProcess& engine = f.startEngine({"-noRealtime"});
  EXPECT_TRUE(engine.waitForLogLine("Black list settings from ")) << engine.logText();
  EXPECT_NE(engine.logText().find("/share/skerrow/Info.plist"), std::string::npos) << engine.logText();
}

TEST(AdministratorSettingsTest, BothProgramsPrintTheProjectVersionAndStartNothing) {
  const auto engine = skerrow_test::runCommand({SKERROWD_PATH, "--version"});
  EXPECT_EQ(engine.exitCode, 0);
  EXPECT_EQ(engine.output, std::string("skerrowd ") + SKERROW_EXPECTED_VERSION + "\n");
  const auto client = skerrow_test::runCommand({SKERROWCTL_PATH, "--version"});
  EXPECT_EQ(client.exitCode, 0);
  EXPECT_EQ(client.output, std::string("skerrowctl ") + SKERROW_EXPECTED_VERSION + "\n");
}

}  // namespace
