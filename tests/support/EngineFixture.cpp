#include "tests/support/EngineFixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

namespace skerrow_test {

std::optional<std::string> EngineFixture::unavailableReason() {
  if (::geteuid() != 0) return "the engine tests need root";
  if (auto reason = PrivateBus::unavailableReason()) return reason;
  return TestUsers::unavailableReason();
}

EngineFixture::EngineFixture() : EngineFixture(SKERROW_POLICY_FILE) {}

EngineFixture::EngineFixture(const std::string& policyFile) : storeRoot_(dir_.mkdir("root")) {
  ::chmod(dir_.path().c_str(), 0755);
  bus_ = std::make_unique<PrivateBus>(policyFile, users_.environment());
}

Environment EngineFixture::clientEnvironment() const {
  return mergeEnvironment(bus_->environment(), const_cast<TestUsers&>(users_).environment());
}

DaemonProcess& EngineFixture::startEngine(const std::vector<std::string>& options, std::optional<RunAs> runAs) {
  Environment env = clientEnvironment();
  env.insert_or_assign(std::string("SKERROW_ROOT"), std::string(storeRoot_));
  env.insert_or_assign(std::string("SKERROW_LOG_STDERR"), std::string("1"));
  DaemonProcessOptions o;
  o.environment = env;
  o.runAs = runAs;
  engines_.push_back(std::make_unique<DaemonProcess>(SKERROWD_PATH, options, o));
  DaemonProcess& engine = *engines_.back();
  engine.waitForLogLine("sconnection configured...", std::chrono::seconds(20));
  return engine;
}

CommandResult EngineFixture::busctl(const std::vector<std::string>& arguments) const {
  std::string address = "--address=";
  address.append(bus_->address());
  std::vector<std::string> argv = {"busctl", address};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return runCommand(argv);
}

}  // namespace skerrow_test
