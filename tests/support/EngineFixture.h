// The real engine on a private bus, for integration tests: a private
// system-type bus with the production policy, fake users, a scratch root for
// the engine's permanent store, and skerrowd itself with its log captured.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/DaemonProcess.h"
#include "tests/support/FileSystemImage.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/TempDir.h"
#include "tests/support/TestUsers.h"

namespace skerrow_test {

class EngineFixture {
 public:
  // Why the engine cannot be run here, or nothing.
  static std::optional<std::string> unavailableReason();

  EngineFixture();
  // The bus includes `policyFile` instead of the engine's own policy.
  explicit EngineFixture(const std::string& policyFile);
  // Starts one more engine with `options`, optionally as another user; waits
  // until it says its connection is configured (false if it does not).
  DaemonProcess& startEngine(const std::vector<std::string>& options = {}, std::optional<RunAs> runAs = std::nullopt);
  // Runs busctl against the private bus; answers its output, or nothing when it fails.
  CommandResult busctl(const std::vector<std::string>& arguments) const;
  // The environment a client needs to reach the bus and the fake users.
  Environment clientEnvironment() const;

  TestUsers& users() { return users_; }
  PrivateBus& bus() { return *bus_; }
  const std::string& storeRoot() const { return storeRoot_; }

 private:
  TempDir dir_;
  TestUsers users_;
  std::unique_ptr<PrivateBus> bus_;
  std::string storeRoot_;
  std::vector<std::unique_ptr<DaemonProcess>> engines_;
};

}  // namespace skerrow_test
