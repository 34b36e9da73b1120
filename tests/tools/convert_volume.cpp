// skerrow_convert_volume: runs the engine's conversion of a volume's older
// backups once, as skerrowd's converter does, outside the daemon: for the
// crash tests (which kill it at a chosen rename) and the benchmark.
//
//   skerrow_convert_volume [--computer NAME] [--kill-at-rename N [--after]] MOUNT
//
//   --computer NAME       this machine's computer name for the run (default:
//                         the machine's own)
//   --kill-at-rename N    the process kills itself (SIGKILL) when the
//                         conversion is about to make its N-th rename of a
//                         folder (state changes, the renames of clean-up and
//                         the moves to the trash count, from 1), or, with
//                         --after, right after that rename is made
//
// Output, one line each: "STATE <state>" for every state clients would be
// told, then "RENAMES <n>" (the renames made), "SECONDS <s>" (the run's
// wall-clock time) and "DONE <count> <uid> ..." with the new backups.
// Exit status 0 when the run ended (converted or not), 2 on a usage error.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Engine/conversion/QSBackupConverter.h"
#include "Engine/files/QSBlackList.h"
#include "platform/Log.h"
#include "platform/VolumeTree.h"

namespace {

std::atomic<uint64_t> gRenames{0};
uint64_t gKillAt = 0;
bool gKillAfter = false;

void countRename(bool made) {
  if (!made) {
    const uint64_t n = ++gRenames;
    if (gKillAt && n == gKillAt && !gKillAfter) ::raise(SIGKILL);
  } else if (gKillAt && gRenames.load() == gKillAt && gKillAfter) {
    ::raise(SIGKILL);
  }
}

class Delegate : public QSBackupConverterDelegate {
 public:
  void conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) override {
    (void)mountPath;
    std::printf("STATE %s\n", state.c_str());
    std::fflush(stdout);
  }
  void conversionDidFinishByConverter_withNewUIDs(const std::shared_ptr<QSBackupConverterProtocol>& converter,
                                                  const std::vector<std::string>& newUIDs) override {
    (void)converter;
    std::lock_guard<std::mutex> lock(mutex_);
    uids_ = newUIDs;
    done_ = true;
    changed_.notify_all();
  }
  std::vector<std::string> wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return done_; });
    return uids_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  std::vector<std::string> uids_;
};

}  // namespace

int main(int argc, char** argv) {
  std::string mount;
  std::optional<std::string> computer;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--computer" && i + 1 < argc) computer = argv[++i];
    else if (a == "--kill-at-rename" && i + 1 < argc) gKillAt = std::strtoull(argv[++i], nullptr, 10);
    else if (a == "--after") gKillAfter = true;
    else if (!a.empty() && a[0] != '-' && mount.empty()) mount = a;
    else {
      std::fprintf(stderr, "usage: skerrow_convert_volume [--computer NAME] [--kill-at-rename N [--after]] MOUNT\n");
      return 2;
    }
  }
  if (mount.empty()) {
    std::fprintf(stderr, "usage: skerrow_convert_volume [--computer NAME] [--kill-at-rename N [--after]] MOUNT\n");
    return 2;
  }
  QSBlackList::initialize();
  QSVessaConversionEnvironment environment = QSVessaConversionEnvironment::system();
  if (computer) environment.computerName = *computer;
  environment.renameFolder = [](platform::VolumeTree& volume, const std::string& from, const std::string& to) {
    countRename(false);
    const int result = QSVessaConversionEnvironment::renameFolderOnVolume(volume, from, to);
    if (result == 0) countRename(true);
    return result;
  };
  environment.moveToTrash = [](platform::VolumeTree& volume, const std::string& relative) {
    countRename(false);
    const bool result = QSVessaConversionEnvironment::moveToTrashOnVolume(volume, relative);
    if (result) countRename(true);
    return result;
  };
  Delegate delegate;
  const auto started = std::chrono::steady_clock::now();
  auto converter = QSBackupConverter::initWithDelegate_forVolume(&delegate, mount, environment);
  converter->start();
  const std::vector<std::string> uids = delegate.wait();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  converter->waitUntilFinished(std::chrono::seconds(10));
  converter->releaseThread();
  std::printf("RENAMES %llu\nSECONDS %.6f\nDONE %zu", static_cast<unsigned long long>(gRenames.load()), seconds,
              uids.size());
  for (const std::string& uid : uids) std::printf(" %s", uid.c_str());
  std::printf("\n");
  return 0;
}
