// The password database (getpwnam_r / getpwent through NSS, so nss_wrapper
// can stand in for it in tests).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

struct UserAccount {
  std::string name;      // short (login) name
  std::string fullName;  // first field of the GECOS entry
  std::string home;
  uint32_t uid = 0;
  uint32_t gid = 0;
};

class UserDatabase {
 public:
  static std::optional<UserAccount> accountNamed(const std::string& name);
  static std::optional<UserAccount> accountWithUID(uint32_t uid);
  // Every account, in the database's order.
  static std::vector<UserAccount> allAccounts();
  // The real user id of the process and its account's name, if any.
  static uint32_t currentUID();
  static std::optional<std::string> currentUserName();
  // The folder that holds the users' home folders.
  static constexpr const char* kUsersFolder = "/home";
};

// The accounts a component serves, as a seam: the system's password
// database, or a fixed list in tests.  Safe from any thread.
class AccountDirectory {
 public:
  virtual ~AccountDirectory() = default;
  // Every account, in the database's order.
  virtual std::vector<UserAccount> allAccounts() const = 0;
  virtual std::optional<UserAccount> accountNamed(const std::string& name) const = 0;
  // The password database (UserDatabase).
  static const AccountDirectory& system();
};

// A fixed list of accounts.
class FixedAccountDirectory : public AccountDirectory {
 public:
  explicit FixedAccountDirectory(std::vector<UserAccount> accounts) : accounts_(std::move(accounts)) {}
  std::vector<UserAccount> allAccounts() const override { return accounts_; }
  std::optional<UserAccount> accountNamed(const std::string& name) const override;

 private:
  std::vector<UserAccount> accounts_;
};

}  // namespace platform
