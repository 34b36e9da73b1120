// The watcher's barrier and its folders against the real kernel: the
// fanotify source on a loop-mounted ext4 file system, changes made by another
// process (a shell the test drives line by line; the source ignores this
// process's own changes), and QSFSWatcher::synchronize answering only once
// every one of them has reached the delegate.  Needs root and loop devices;
// skipped otherwise.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Engine/pipeline/QSFSWatcher.h"
#include "platform/FanotifyEventSource.h"
#include "tests/support/Eventually.h"
#include "tests/support/FileSystemImage.h"

extern char** environ;

using platform::FileSystemEvent;
using skerrow_test::FileSystemImage;
using Kind = platform::FileSystemEvent::Kind;

namespace {

uint64_t environmentNumber(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text) return fallback;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 0);
  return end && *end == '\0' ? value : fallback;
}

std::string describe(const FileSystemEvent& e) {
  static const char* const names[] = {"created", "created-folder", "deleted", "attributes", "renamed",
                                      "closed-after-write", "modified", "dropped", "undecodable"};
  std::string text = names[static_cast<int>(e.kind)];
  for (const auto& path : e.paths) text += " " + path;
  return text;
}

// A shell in another process that runs the lines it is given, in `folder`,
// and answers each with a line of its own once the line's commands are done.
// Descriptors it opens stay open until it ends.
class Shell {
 public:
  explicit Shell(const std::string& folder) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addchdir_np(&actions, folder.c_str());
    char sh[] = "/bin/sh";
    char* argv[] = {sh, nullptr};
    const int error = ::posix_spawn(&pid_, sh, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    toShell_ = in[1];
    fromShell_ = out[0];
    if (error != 0) throw std::runtime_error("cannot start /bin/sh");
  }
  ~Shell() {
    ::close(toShell_);  // end of its input: it exits
    ::close(fromShell_);
    int status;
    ::waitpid(pid_, &status, 0);
  }
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;

  // Runs `commands` and waits for them; false when the shell is gone.
  bool run(const std::string& commands) {
    const std::string line = commands + "; echo done\n";
    if (::write(toShell_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return false;
    std::string answer;
    char c;
    while (::read(fromShell_, &c, 1) == 1) {
      if (c == '\n') return answer == "done";
      answer.push_back(c);
    }
    return false;
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int toShell_ = -1;
  int fromShell_ = -1;
};

// The system's source, counting the drains asked of it.
class CountingSource : public platform::FanotifyEventSource {
 public:
  uint64_t requestDrain() override {
    const uint64_t ticket = FanotifyEventSource::requestDrain();
    requests_.fetch_add(1);
    return ticket;
  }
  uint64_t requests() const { return requests_.load(); }

 private:
  std::atomic<uint64_t> requests_{0};
};

// Every change the watcher delivered, as text.  It can be made to hold the
// reader at the next change until a condition holds (the reader is then
// behind the changes that follow, as behind a busy delegate).
class SeenChanges : public QSFSWatcherDelegate {
 public:
  void fsWatcherDidSeeChange(const FileSystemEvent& event) override {
    std::function<bool()> until;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      until = std::exchange(holdUntil_, nullptr);
    }
    if (until && !skerrow_test::eventually(until)) held_too_long_.store(true);
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.push_back(describe(event));
  }
  void holdNextChangeUntil(std::function<bool()> until) {
    std::lock_guard<std::mutex> lock(mutex_);
    holdUntil_ = std::move(until);
  }
  bool heldTooLong() const { return held_too_long_.load(); }
  void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>& event) override {
    if (!event) dropped_.store(true);
  }
  void fsWatcherDidDropEventsOnDevice(uint64_t) override { dropped_.store(true); }

  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(seen_, {});
  }
  bool dropped() const { return dropped_.load(); }

 private:
  std::mutex mutex_;
  std::vector<std::string> seen_;
  std::atomic<bool> dropped_{false};
  std::function<bool()> holdUntil_;
  std::atomic<bool> held_too_long_{false};
};

bool has(const std::vector<std::string>& seen, const std::string& text) {
  return std::find(seen.begin(), seen.end(), text) != seen.end();
}

class WatcherKernelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the kernel tests need root";
    if (auto reason = FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4)) GTEST_SKIP() << *reason;
    disk = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, 64u << 20);
    folder = disk->mountPoint() + "/watched";
    std::filesystem::create_directories(folder);
  }
  void TearDown() override {
    if (watcher) {
      EXPECT_TRUE(watcher->stop(std::chrono::seconds(5)));
    }
  }
  // A watcher of the system's kind (this process's own changes not reported)
  // watching `folders`, reading once it returns.
  void startWatcher(const std::vector<std::string>& folders) {
    QSFSWatcher::Process process = QSFSWatcher::Process::current();
    process.writeStandardOutput = [this](const std::string& text) {
      if (text.find("gamuliob ready") != std::string::npos) ready.store(true);
    };
    auto counting = std::make_unique<CountingSource>();
    source = counting.get();
    watcher = QSFSWatcher::initWithSource(std::move(counting), process);
    watcher->setDelegate(&changes);
    for (const auto& f : folders) watcher->watchFolder(f);
    watcher->start();
    ASSERT_TRUE(skerrow_test::eventually([&] { return ready.load(); }));
  }

  std::unique_ptr<FileSystemImage> disk;
  std::string folder;
  CountingSource* source = nullptr;  // the watcher's
  SeenChanges changes;
  std::atomic<bool> ready{false};
  std::shared_ptr<QSFSWatcher> watcher;
};

}  // namespace

TEST_F(WatcherKernelTest, EveryChangeMadeBeforeSynchronizeHasBeenDeliveredWhenItReturns) {
  startWatcher({folder});
  Shell shell(folder);
  const uint64_t rounds = environmentNumber("SKERROW_WATCH_SYNC_ROUNDS", 200);
  for (uint64_t i = 0; i < rounds; ++i) {
    const std::string n = std::to_string(i);
    // Every other round the reader is held at the round's first change until
    // synchronize has asked for its drain: the other changes wait unread in
    // the kernel's queue (or in the batch being delivered) when it asks.
    if (i % 2 == 1)
      changes.holdNextChangeUntil([this, asked = source->requests()] { return source->requests() > asked; });
    // A folder, a file created, a log written and kept open (the shell holds
    // it until the next round), a rename, a mode change and a deletion.
    ASSERT_TRUE(shell.run("mkdir d" + n + "; : > f" + n + "; exec 3> log" + n + "; echo line >&3; mv f" + n +
                          " d" + n + "/g" + n + "; chmod 600 d" + n + "/g" + n + "; rm d" + n + "/g" + n));
    ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10))) << "round " << i;
    const auto seen = changes.take();
    const std::string d = folder + "/d" + n;
    for (const std::string& expected :
         {"created-folder " + d, "created " + folder + "/f" + n, "modified " + folder + "/log" + n,
          "renamed " + folder + "/f" + n + " " + d + "/g" + n, "attributes " + d + "/g" + n,
          "deleted " + d + "/g" + n}) {
      ASSERT_TRUE(has(seen, expected)) << "round " << i << ": " << expected << " missing from " << seen.size()
                                       << " changes";
    }
  }
  EXPECT_FALSE(changes.dropped());
  EXPECT_FALSE(changes.heldTooLong());
}

TEST_F(WatcherKernelTest, TheSourcesDrainTakesEveryChangeMadeBeforeTheRequest) {
  platform::FanotifyEventSource source;
  std::string error;
  ASSERT_TRUE(source.open(&error)) << error;
  ASSERT_TRUE(source.watchFolder(folder, &error)) << error;
  Shell shell(folder);
  ASSERT_TRUE(shell.run("exec 3> db; echo page >&3; touch a"));
  const uint64_t ticket = source.requestDrain();
  std::vector<FileSystemEvent> events;
  // Each read either brings events or finishes a drain; the drain asked for is finished within two.
  for (int reads = 0; reads < 2 && source.drained() < ticket; ++reads) ASSERT_TRUE(source.readEvents(&events));
  ASSERT_GE(source.drained(), ticket);
  std::vector<std::string> seen;
  for (const auto& e : events) seen.push_back(describe(e));
  EXPECT_TRUE(has(seen, "modified " + folder + "/db"));
  EXPECT_TRUE(has(seen, "created " + folder + "/a"));
  EXPECT_FALSE(has(seen, "closed-after-write " + folder + "/db"));  // still open
}

TEST_F(WatcherKernelTest, AFileWrittenAndKeptOpenIsReportedAsModifiedAndClosedOnlyWhenItIs) {
  startWatcher({folder});
  Shell shell(folder);
  ASSERT_TRUE(shell.run("exec 3> app.log; echo one >&3"));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  auto seen = changes.take();
  EXPECT_TRUE(has(seen, "modified " + folder + "/app.log"));
  EXPECT_FALSE(has(seen, "closed-after-write " + folder + "/app.log"));
  ASSERT_TRUE(shell.run("echo two >&3"));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(changes.take(), (std::vector<std::string>{"modified " + folder + "/app.log"}));
  ASSERT_TRUE(shell.run("exec 3>&-"));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_EQ(changes.take(), (std::vector<std::string>{"closed-after-write " + folder + "/app.log"}));
}

TEST_F(WatcherKernelTest, AWatchedDiskCanBeUnmountedUnwatchedAndWatchedAgainOnceBack) {
  startWatcher({folder});
  Shell shell("/");
  ASSERT_TRUE(shell.run("touch '" + folder + "/before'"));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  ASSERT_TRUE(has(changes.take(), "created " + folder + "/before"));
  // The watcher holds nothing open on the disk: a plain unmount works.
  ASSERT_NO_THROW(disk->unmount());
  watcher->unwatchFolder(folder);
  EXPECT_FALSE(watcher->isWatching(folder));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  disk->mountAgain();
  watcher->watchFolder(folder);
  EXPECT_TRUE(watcher->isWatching(folder));
  ASSERT_TRUE(shell.run("touch '" + folder + "/after'"));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  EXPECT_TRUE(has(changes.take(), "created " + folder + "/after"));
}

TEST_F(WatcherKernelTest, AfterUnwatchFolderTheKernelsEventsBelowItAreNotDelivered) {
  const std::string other = disk->mountPoint() + "/other";
  std::filesystem::create_directories(other);
  startWatcher({folder, other});
  Shell shell(disk->mountPoint());
  watcher->unwatchFolder(other);
  ASSERT_TRUE(shell.run("touch other/ignored watched/kept; echo x >> other/ignored"));
  ASSERT_TRUE(watcher->synchronize(std::chrono::seconds(10)));
  const auto seen = changes.take();
  EXPECT_TRUE(has(seen, "created " + folder + "/kept"));
  for (const auto& line : seen) {
    EXPECT_EQ(line.find(other), std::string::npos) << line;
  }
}

TEST_F(WatcherKernelTest, TheSourceMarksAFileSystemAgainWhenAFolderOnItIsWatchedAfterItWasMountedAgain) {
  platform::FanotifyEventSource source;
  std::string error;
  ASSERT_TRUE(source.open(&error)) << error;
  ASSERT_TRUE(source.watchFolder(folder, &error)) << error;
  ASSERT_NO_THROW(disk->unmount());
  disk->mountAgain();  // the same device, a new mount: the old mark went with the old one
  ASSERT_TRUE(source.watchFolder(folder, &error)) << error;
  Shell shell(folder);
  ASSERT_TRUE(shell.run("touch back"));
  const uint64_t ticket = source.requestDrain();
  std::vector<FileSystemEvent> events;
  for (int reads = 0; reads < 2 && source.drained() < ticket; ++reads) ASSERT_TRUE(source.readEvents(&events));
  std::vector<std::string> seen;
  for (const auto& e : events) seen.push_back(describe(e));
  EXPECT_TRUE(has(seen, "created " + folder + "/back"));
}
