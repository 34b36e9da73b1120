// Fake user accounts for one test, served by nss_wrapper (Debian package
// libnss-wrapper) instead of the machine's /etc/passwd and /etc/group.
//
//  - A temporary folder holds a passwd file, a group file and a home folder
//    per added user (<folder>/home/<name>, owned by the user's uid and gid,
//    mode 0755).  The folder itself is world-searchable so that the users
//    reach their homes; it must lie in a world-searchable place ($TMPDIR or
//    /tmp).  Creating homes for other uids needs root.
//  - The files always hold root (uid 0, gid 0, home /root) and nobody
//    (uid 65534, gid 65534 "nogroup", home /nonexistent), because under
//    nss_wrapper a name missing from them does not exist at all: there is no
//    fallback to the machine's accounts.  Each added user gets a group named
//    after it unless its gid already has one.  The files are rewritten (by
//    renaming a complete new file over the old) after every change.
//  - Only processes started with environment() see the accounts: it preloads
//    the library and points it at the files.  The test binary's own lookups
//    (and those of anything started without it) still see the machine's.
//    When we are built with sanitizers, it also carries the settings that
//    let equally built programs run with the library preloaded.
//  - A dbus-daemon only accepts connections from uids its own name service
//    knows: start a PrivateBus with environment() when fake users connect.
//  - The destructor never throws and removes the folder with everything in it.
//  - Tests ask unavailableReason() first and skip with its answer.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/DaemonProcess.h"

namespace skerrow_test {

struct TestUser {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string fullName;
  std::string home;
  std::string shell;
};

class TestUsers {
 public:
  // The nss_wrapper library, when installed.
  static std::optional<std::string> libraryPath();
  // Nothing when fake users can be made here; otherwise why not.
  static std::optional<std::string> unavailableReason();

  TestUsers();
  ~TestUsers();
  TestUsers(const TestUsers&) = delete;
  TestUsers& operator=(const TestUsers&) = delete;

  // Adds a user with a fresh home folder.  Throws std::invalid_argument when
  // the name or uid is taken (root and nobody are always there), and
  // std::runtime_error when the home cannot be made.
  const TestUser& addUser(const std::string& name, uid_t uid, gid_t gid, const std::string& fullName = {});
  // The same with the home folder at `home` (made there; its parent must exist).
  const TestUser& addUserWithHome(const std::string& name, uid_t uid, gid_t gid, const std::string& fullName,
                                  const std::string& home);
  // Adds `member` (an existing user) to the supplementary group `gid`,
  // creating it with `groupName` when there is none with that gid.
  void addToGroup(const std::string& member, gid_t gid, const std::string& groupName);

  // Throws std::out_of_range for an unknown name.
  const TestUser& user(const std::string& name) const;
  const std::string& home(const std::string& name) const { return user(name).home; }
  const std::vector<TestUser>& users() const { return users_; }

  // LD_PRELOAD, NSS_WRAPPER_PASSWD and NSS_WRAPPER_GROUP for child processes.
  Environment environment() const;

  const std::string& folder() const { return folder_; }
  const std::string& passwdPath() const { return passwdPath_; }
  const std::string& groupPath() const { return groupPath_; }

 private:
  struct Group {
    std::string name;
    gid_t gid = 0;
    std::vector<std::string> members;
  };

  void writeFiles() const;
  void cleanUp() noexcept;

  std::string folder_;
  std::string passwdPath_;
  std::string groupPath_;
  std::vector<TestUser> users_;
  std::vector<Group> groups_;
};

}  // namespace skerrow_test
