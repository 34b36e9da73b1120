#include "tests/support/TestUsers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace skerrow_test {

namespace {

// Whether we (and so, presumably, the programs we start) are built with
// sanitizers: GCC says so with macros, clang with __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define SKERROW_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SKERROW_TEST_ADDRESS_SANITIZER 1
#endif
#endif
#ifndef SKERROW_TEST_ADDRESS_SANITIZER
#define SKERROW_TEST_ADDRESS_SANITIZER 0
#endif
#if SKERROW_TEST_ADDRESS_SANITIZER || defined(__SANITIZE_THREAD__)
#define SKERROW_TEST_ANY_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SKERROW_TEST_ANY_SANITIZER 1
#endif
#endif
#ifndef SKERROW_TEST_ANY_SANITIZER
#define SKERROW_TEST_ANY_SANITIZER 0
#endif

constexpr uid_t kNobodyUid = 65534;
constexpr gid_t kNogroupGid = 65534;

std::string errnoText(const std::string& what, int error) {
  return what + ": " + std::strerror(error);
}

// Fields of passwd and group lines are separated by ':' and lines by '\n'.
void checkField(const std::string& what, const std::string& value) {
  if (value.find_first_of(":\n") != std::string::npos) {
    throw std::invalid_argument(what + " may not contain ':' or a newline: " + value);
  }
}

// Writes `contents` to a new file next to `path` and renames it over `path`,
// so a reader sees either the old file or the new one, never half of one.
void replaceFile(const std::string& path, const std::string& contents) {
  const std::string temporary = path + ".new";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out << contents;
    if (!out.flush()) throw std::runtime_error("cannot write " + temporary);
  }
  if (::chmod(temporary.c_str(), 0644) != 0) throw std::runtime_error(errnoText("chmod " + temporary, errno));
  if (::rename(temporary.c_str(), path.c_str()) != 0) throw std::runtime_error(errnoText("rename " + temporary, errno));
}

}  // namespace

std::optional<std::string> TestUsers::libraryPath() {
  for (const char* candidate : {"/usr/lib/x86_64-linux-gnu/libnss_wrapper.so", "/usr/lib/aarch64-linux-gnu/libnss_wrapper.so",
                                "/usr/lib64/libnss_wrapper.so", "/usr/lib/libnss_wrapper.so"}) {
    if (::access(candidate, R_OK) == 0) return std::string(candidate);
  }
  return std::nullopt;
}

std::optional<std::string> TestUsers::unavailableReason() {
  if (::geteuid() != 0) return "fake users: giving homes to other users needs root";
  if (!libraryPath()) return "fake users: libnss_wrapper.so not found (package libnss-wrapper)";
  return std::nullopt;
}

TestUsers::TestUsers() {
  try {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/skerrow-users-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!::mkdtemp(buf.data())) throw std::runtime_error(errnoText("mkdtemp " + pattern, errno));
    folder_ = buf.data();
    // mkdtemp makes it private; the users must reach their homes inside it.
    if (::chmod(folder_.c_str(), 0755) != 0) throw std::runtime_error(errnoText("chmod " + folder_, errno));
    if (::mkdir((folder_ + "/home").c_str(), 0755) != 0) throw std::runtime_error(errnoText("mkdir home", errno));
    passwdPath_ = folder_ + "/passwd";
    groupPath_ = folder_ + "/group";

    users_.push_back({.name = "root", .uid = 0, .gid = 0, .fullName = "root", .home = "/root", .shell = "/bin/sh"});
    users_.push_back({.name = "nobody", .uid = kNobodyUid, .gid = kNogroupGid, .fullName = "nobody",
                      .home = "/nonexistent", .shell = "/usr/sbin/nologin"});
    groups_.push_back({.name = "root", .gid = 0, .members = {}});
    groups_.push_back({.name = "nogroup", .gid = kNogroupGid, .members = {}});
    writeFiles();
  } catch (...) {
    cleanUp();
    throw;
  }
}

TestUsers::~TestUsers() { cleanUp(); }

const TestUser& TestUsers::addUser(const std::string& name, uid_t uid, gid_t gid, const std::string& fullName) {
  return addUserWithHome(name, uid, gid, fullName, folder_ + "/home/" + name);
}

const TestUser& TestUsers::addUserWithHome(const std::string& name, uid_t uid, gid_t gid, const std::string& fullName,
                                           const std::string& home) {
  if (name.empty() || name.find('/') != std::string::npos) throw std::invalid_argument("bad user name: " + name);
  checkField("a user name", name);
  checkField("a full name", fullName);
  for (const auto& u : users_) {
    if (u.name == name) throw std::invalid_argument("user name taken: " + name);
    if (u.uid == uid) throw std::invalid_argument("uid " + std::to_string(uid) + " taken by " + u.name);
  }
  const bool newGroup = std::none_of(groups_.begin(), groups_.end(), [&](const Group& g) { return g.gid == gid; });
  if (newGroup && std::any_of(groups_.begin(), groups_.end(), [&](const Group& g) { return g.name == name; })) {
    throw std::invalid_argument("group name taken: " + name);
  }

  if (::mkdir(home.c_str(), 0755) != 0) throw std::runtime_error(errnoText("mkdir " + home, errno));
  // mkdir applies the umask; the mode is part of what the test relies on.
  if (::chown(home.c_str(), uid, gid) != 0 || ::chmod(home.c_str(), 0755) != 0) {
    const int error = errno;
    ::rmdir(home.c_str());
    throw std::runtime_error(errnoText("give " + home + " to uid " + std::to_string(uid), error));
  }

  users_.push_back({.name = name, .uid = uid, .gid = gid, .fullName = fullName, .home = home, .shell = "/bin/sh"});
  if (newGroup) groups_.push_back({.name = name, .gid = gid, .members = {}});
  writeFiles();
  return users_.back();
}

void TestUsers::addToGroup(const std::string& member, gid_t gid, const std::string& groupName) {
  user(member);  // must exist
  checkField("a group name", groupName);
  auto it = std::find_if(groups_.begin(), groups_.end(), [&](const Group& g) { return g.gid == gid; });
  if (it == groups_.end()) {
    if (std::any_of(groups_.begin(), groups_.end(), [&](const Group& g) { return g.name == groupName; })) {
      throw std::invalid_argument("group name taken: " + groupName);
    }
    groups_.push_back({.name = groupName, .gid = gid, .members = {}});
    it = groups_.end() - 1;
  }
  if (std::find(it->members.begin(), it->members.end(), member) == it->members.end()) it->members.push_back(member);
  writeFiles();
}

const TestUser& TestUsers::user(const std::string& name) const {
  for (const auto& u : users_) {
    if (u.name == name) return u;
  }
  throw std::out_of_range("no test user " + name);
}

Environment TestUsers::environment() const {
  Environment env{{"LD_PRELOAD", libraryPath().value_or("libnss_wrapper.so")},
                  {"NSS_WRAPPER_PASSWD", passwdPath_},
                  {"NSS_WRAPPER_GROUP", groupPath_}};
#if SKERROW_TEST_ADDRESS_SANITIZER
  // The programs under test are built with the same sanitizers as we are.
  // An ASan-built program refuses to start when a preloaded library comes
  // before its runtime, and nss_wrapper's deep binding does not mix with the
  // sanitizer runtimes either.
  const char* asanOptions = std::getenv("ASAN_OPTIONS");
  env["ASAN_OPTIONS"] =
      std::string(asanOptions && *asanOptions ? std::string(asanOptions) + ":" : "") + "verify_asan_link_order=0";
#endif
#if SKERROW_TEST_ANY_SANITIZER
  env["NSS_WRAPPER_DISABLE_DEEPBIND"] = "1";
#endif
  return env;
}

void TestUsers::writeFiles() const {
  std::string passwd;
  for (const auto& u : users_) {
    passwd += u.name + ":x:" + std::to_string(u.uid) + ":" + std::to_string(u.gid) + ":" + u.fullName + ":" + u.home +
              ":" + u.shell + "\n";
  }
  std::string group;
  for (const auto& g : groups_) {
    group += g.name + ":x:" + std::to_string(g.gid) + ":";
    for (std::size_t i = 0; i < g.members.size(); ++i) group += (i ? "," : "") + g.members[i];
    group += "\n";
  }
  replaceFile(passwdPath_, passwd);
  replaceFile(groupPath_, group);
}

void TestUsers::cleanUp() noexcept {
  if (folder_.empty()) return;
  std::error_code ec;
  std::filesystem::remove_all(folder_, ec);
}

}  // namespace skerrow_test
