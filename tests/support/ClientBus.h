// The engine on a private system bus with a loop-mounted ext4 backup disk
// and two fake users, and helpers to run real clients (skerrowctl, the
// probe client) as those users: the setting of the over-the-bus tests.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/DaemonProcess.h"
#include "tests/support/EngineFixture.h"
#include "tests/support/FileSystemImage.h"

namespace skerrow_test {

using namespace std::chrono_literals;

struct Outcome {
  int status = -1;
  std::string output;
};

// The first backup uid in a JSON output.
inline std::string firstUID(const std::string& output) {
  static const std::regex uid("\"uid\":\"([0-9A-F-]{36})\"");
  std::smatch m;
  return std::regex_search(output, m, uid) ? m[1].str() : std::string();
}

// The engine, a disk and two users: ann (1500) with a small generated
// home holding Documents/report.txt, and bob (1501) with an empty one.
class ClientBus {
 public:
  static std::optional<std::string> unavailableReason() {
    if (auto reason = EngineFixture::unavailableReason()) return reason;
    return FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4);
  }

  explicit ClientBus(const std::string& files = "200", const std::string& bytes = "4M",
                     uint64_t diskBytes = 256ull << 20, const std::string& policyFile = SKERROW_POLICY_FILE)
      : f(policyFile),
        ann(f.users().addUser("ann", 1500, 1500, "Ann Example")), bob(f.users().addUser("bob", 1501, 1501)) {
    std::filesystem::remove(ann.home);
    if (skerrow_test::runCommand({SKERROW_MAKE_HOME, "-q", "-n", files, "-b", bytes, ann.home}).exitCode != 0)
      throw std::runtime_error("skerrow_make_home failed");
    std::filesystem::create_directories(ann.home + "/Documents");
    std::ofstream(ann.home + "/Documents/report.txt") << "The first draft.\n";
    skerrow_test::runCommand({"chown", "-R", "-h", "1500:1500", ann.home});
    disk = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, diskBytes,
                                             skerrow_test::FileSystemImageOptions{.label = "Backup"});
    // Like /media/<user>: users reach the disk (skerrowctl reads their backup folders directly).
    std::filesystem::permissions(disk->folder(), std::filesystem::perms(0755));
    engine = &f.startEngine({"-noRealtime"});
  }

  // Starts skerrowctl (or the probe) as `user` without waiting.
  std::unique_ptr<DaemonProcess> start(const TestUser& user, const std::vector<std::string>& arguments,
                                       const char* program = SKERROWCTL_PATH) {
    skerrow_test::DaemonProcessOptions options;
    options.environment = f.clientEnvironment();
    options.runAs = RunAs{user.uid, user.gid};
    options.workingDirectory = "/";
    return std::make_unique<DaemonProcess>(program, arguments, options);
  }
  Outcome run(const TestUser& user, const std::vector<std::string>& arguments,
              const char* program = SKERROWCTL_PATH, std::chrono::milliseconds timeout = 120s) {
    auto process = start(user, arguments, program);
    Outcome outcome;
    outcome.status = process->waitForExit(timeout).value_or(-1);
    outcome.output = process->logText();
    return outcome;
  }
  Outcome probe(const TestUser& user, const std::vector<std::string>& arguments) {
    return run(user, arguments, SKERROW_BUS_CLIENT_PROBE);
  }
  // A new backup of ann on the disk, every category scheduled.
  std::string manage(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"--json", "manage", disk->mountPoint()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const Outcome managed = run(ann, arguments);
    EXPECT_EQ(managed.status, 0) << managed.output;
    return firstUID(managed.output);
  }
  std::string annsList() { return run(ann, {"--json", "list"}).output; }

  EngineFixture f;
  const TestUser& ann;
  const TestUser& bob;
  std::unique_ptr<FileSystemImage> disk;
  DaemonProcess* engine = nullptr;
};

}  // namespace skerrow_test

#define SKIP_WITHOUT_CLIENT_BUS() \
  if (auto reason = skerrow_test::ClientBus::unavailableReason()) GTEST_SKIP() << *reason
