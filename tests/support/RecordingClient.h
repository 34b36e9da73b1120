// An in-process backup client that records every callback, in order, with
// the counts of the tally it was given at that moment.  Safe from any
// thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Engine/records/QSCategoryIdentifiers.h"
#include "Engine/records/QSTally.h"
#include "platform/Exception.h"
#include "tests/support/CallbackRoutingClient.h"

namespace skerrow_test {

class RecordingClient : public CallbackRoutingClient {
 public:
  struct Call {
    std::string name;
    std::string uid;  // the callback's argument: the uid of a tally callback
    // Files of each view of the tally, summed over the categories, when the call carried one.
    int64_t sourceFiles = 0, destinationFiles = 0, transferredFiles = 0, expectedFiles = 0;
  };

  RecordingClient(std::string user, std::string home, uint64_t errorLimit = 100)
      : user_(std::move(user)), home_(std::move(home)), errorLimit_(errorLimit) {}

  // From now on every question about the user raises the platform's exception (a client gone away).
  void goAway() {
    std::lock_guard<std::mutex> lock(mutex_);
    gone_ = true;
  }

  std::vector<Call> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& call : calls()) out.push_back(call.name);
    return out;
  }
  size_t count(const std::string& name) const {
    size_t n = 0;
    for (const auto& call : calls()) n += call.name == name;
    return n;
  }
  std::vector<QSBackupError> errors() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
  }

  uint64_t maximumContiguousErrorsClientWants() override { return errorLimit_; }
  std::string userHome() override { return ask(home_); }
  std::string shortUserName() override { return ask(user_); }
  std::string longUserName() override { return ask(user_); }

 protected:
  void received(const QSBackupError& e) override {
    std::lock_guard<std::mutex> lock(mutex_);
    errors_.push_back(e);
    calls_.push_back({"error", e.uid().value_or("")});
  }
  // The argument of a tally callback is its uid.
  void callback(const std::string& name, const std::string& uid, const Tally& tally) override {
    Call call{name, uid};
    if (tally) {
      // Summed over every category (the tally's own totals follow the destination's categories only).
      for (const char* category : kAllCategories) {
        int64_t files = 0, bytes = 0;
        tally->getSourceFileCount_byteCount_forCategory(&files, &bytes, category);
        call.sourceFiles += files;
        tally->getDestinationFileCount_byteCount_forCategory(&files, &bytes, category);
        call.destinationFiles += files;
        tally->getTransferredFileCount_byteCount_forCategory(&files, &bytes, category);
        call.transferredFiles += files;
        tally->getExpectedFileCount_byteCount_forCategory(&files, &bytes, category);
        call.expectedFiles += files;
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
  }

 private:
  std::string ask(const std::string& answer) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (gone_) platform::Exception::raise("NSPortTimeoutException", "%s", "connection went invalid while waiting for a reply");
    return answer;
  }

  const std::string user_, home_;
  const uint64_t errorLimit_;
  mutable std::mutex mutex_;
  bool gone_ = false;
  std::vector<Call> calls_;
  std::vector<QSBackupError> errors_;
};

}  // namespace skerrow_test
