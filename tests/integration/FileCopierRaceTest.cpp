// A user swaps a file in his home with a link to a root-only file while the
// engine (root) copies it: the copy must never read through the link.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "platform/FileCopier.h"
#include "tests/support/TempDir.h"

using platform::CopyOptions;
using platform::FileCopier;
using platform::FileError;

namespace {
constexpr uid_t kNobody = 65534;
constexpr const char* kSecretMarker = "ROOT-ONLY-SECRET-CONTENT";
}  // namespace

TEST(FileCopierTest, SwappingAFileForALinkToARootOnlyFileNeverLeaksIt) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to act as the engine and to become another user";
  skerrow_test::TempDir dir;
  const std::string vault = dir.mkdir("vault");
  ::chmod(vault.c_str(), 0700);
  const std::string secret = dir.write("vault/secret", kSecretMarker);
  ::chmod(secret.c_str(), 0600);
  const std::string home = dir.mkdir("home");
  ::chown(home.c_str(), kNobody, kNobody);
  ::chmod(dir.path().c_str(), 0755);
  const std::string dest = dir.mkdir("dest");

  const pid_t swapper = ::fork();
  ASSERT_GE(swapper, 0);
  if (swapper == 0) {
    // The user: no privileges, swaps "victim" between a plain file and a link, forever.
    if (::setgroups(0, nullptr) != 0 || ::setresgid(kNobody, kNobody, kNobody) != 0 ||
        ::setresuid(kNobody, kNobody, kNobody) != 0 || ::chdir(home.c_str()) != 0)
      ::_exit(2);
    if (::access(secret.c_str(), R_OK) == 0) ::_exit(3);  // the secret must really be out of reach
    for (;;) {
      ::unlink("next");
      if (::symlink(secret.c_str(), "next") == 0) ::rename("next", "victim");
      const int fd = ::open("next", O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd >= 0) {
        ssize_t ignored = ::write(fd, "public", 6);
        (void)ignored;
        ::close(fd);
        ::rename("next", "victim");
      }
    }
  }

  CopyOptions options;
  options.deleteDestinationFirst = true;
  options.syncData = false;
  int files = 0, links = 0, failures = 0, leaks = 0;
  constexpr int kAttempts = 100000;
  for (int i = 0; i < kAttempts; ++i) {
    FileError error;
    if (!FileCopier::copyBeneath(home, "victim", dest, "copy", options, &error)) {
      ++failures;
      continue;
    }
    const std::string copy = dest + "/copy";
    if (std::filesystem::is_symlink(copy)) {
      ++links;
      continue;
    }
    ++files;
    std::ifstream in(copy, std::ios::binary);
    const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (data.find(kSecretMarker) != std::string::npos) ++leaks;
  }
  ::kill(swapper, SIGKILL);
  int status = 0;
  ::waitpid(swapper, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status)) << "the swapper ended early with status " << WEXITSTATUS(status);
  EXPECT_EQ(leaks, 0);
  // The race really ran: both kinds of item were seen.
  EXPECT_GT(files, 0);
  EXPECT_GT(links, 0);
  std::printf("[ race ] %d attempts: %d files, %d links copied as links, %d refused, %d leaks\n", kAttempts, files,
              links, failures, leaks);
}
