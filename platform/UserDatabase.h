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

}  // namespace platform
