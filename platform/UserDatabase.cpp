#include "platform/UserDatabase.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace platform {
namespace {

UserAccount accountOf(const struct passwd& pw) {
  UserAccount a;
  a.name = pw.pw_name ? pw.pw_name : "";
  const std::string gecos = pw.pw_gecos ? pw.pw_gecos : "";
  a.fullName = gecos.substr(0, gecos.find(','));
  a.home = pw.pw_dir ? pw.pw_dir : "";
  a.uid = pw.pw_uid;
  a.gid = pw.pw_gid;
  return a;
}

template <class Lookup>
std::optional<UserAccount> lookup(Lookup call) {
  std::vector<char> buffer(4096);
  while (true) {
    struct passwd pw;
    struct passwd* result = nullptr;
    const int r = call(&pw, buffer.data(), buffer.size(), &result);
    if (r == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 4);
      continue;
    }
    if (r != 0 || !result) return std::nullopt;
    return accountOf(pw);
  }
}

}  // namespace

std::optional<UserAccount> UserDatabase::accountNamed(const std::string& name) {
  if (name.empty()) return std::nullopt;
  return lookup([&](struct passwd* pw, char* buf, size_t size, struct passwd** result) {
    return ::getpwnam_r(name.c_str(), pw, buf, size, result);
  });
}

std::optional<UserAccount> UserDatabase::accountWithUID(uint32_t uid) {
  return lookup([&](struct passwd* pw, char* buf, size_t size, struct passwd** result) {
    return ::getpwuid_r(uid, pw, buf, size, result);
  });
}

std::vector<UserAccount> UserDatabase::allAccounts() {
  // getpwent keeps process-wide state: one enumeration at a time.
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  std::vector<UserAccount> out;
  ::setpwent();
  while (struct passwd* pw = ::getpwent()) out.push_back(accountOf(*pw));
  ::endpwent();
  return out;
}

uint32_t UserDatabase::currentUID() { return ::getuid(); }

std::optional<std::string> UserDatabase::currentUserName() {
  auto account = accountWithUID(currentUID());
  if (!account) return std::nullopt;
  return account->name;
}

namespace {

class SystemAccountDirectory : public AccountDirectory {
 public:
  std::vector<UserAccount> allAccounts() const override { return UserDatabase::allAccounts(); }
  std::optional<UserAccount> accountNamed(const std::string& name) const override {
    return UserDatabase::accountNamed(name);
  }
};

}  // namespace

const AccountDirectory& AccountDirectory::system() {
  static const SystemAccountDirectory directory;
  return directory;
}

std::optional<UserAccount> FixedAccountDirectory::accountNamed(const std::string& name) const {
  for (const UserAccount& account : accounts_)
    if (account.name == name) return account;
  return std::nullopt;
}

}  // namespace platform
