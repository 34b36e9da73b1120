// Warm passes against cold ones, at the level of whole backup passes: two
// identical homes and backup folders (twins) are changed alike, step after
// random step — files created, written, renamed, deleted, their modes and
// times changed, folders made, moved and removed, stored copies changed
// behind the engine's back, now and then a notice of lost events, and now
// and then nothing at all — and after each step both get a backup pass as
// the engine runs it (home walk, backup-folder walk, merge, count, copy).
// Twin A is followed by the real watcher on the kernel's change events,
// walked warm whenever it can be, and not walked at all when nothing
// changed since a pass that found nothing to do; twin B is not followed and is always walked whole, and its transfers open
// every folder instead of only those where the dry run found work.  Every pass must give
// both the same client calls with the same tallies, and leave the same
// copies on both backup folders.
//
// The changes are made by a child process: the watcher, as in the engine,
// ignores the changes its own process makes, which the engine tells the
// journal itself.  The number of steps comes from SKERROW_WARM_PASS_STEPS
// (500 unless set; scripts/differential.sh runs the long programme).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>

#include "Engine/files/FSSourceTraversal.h"
#include "Engine/files/QSChangeJournal.h"
#include "Engine/files/QSSourceTreeBuilder.h"
#include "Engine/files/QSWalkMemos.h"
#include "Engine/files/QSWarmWalk.h"
#include "Engine/pipeline/QSDestinationPrefetch.h"
#include "Engine/pipeline/QSFSWatcher.h"
#include "Engine/pipeline/QSPerUIDEnvironment.h"
#include "Engine/pipeline/QSSettledPasses.h"
#include "Engine/pipeline/QSUserEnvironment.h"
#include "platform/Date.h"
#include "platform/FanotifyEventSource.h"
#include "platform/Log.h"
#include "tests/support/CallbackRoutingClient.h"
#include "tests/support/FileSystemImage.h"
#include "tests/support/PipelineTestSupport.h"

namespace fs = std::filesystem;
using skerrow_test::FileSystemImage;

namespace {

size_t stepCount() {
  const char* text = std::getenv("SKERROW_WARM_PASS_STEPS");
  return text && *text ? std::strtoul(text, nullptr, 10) : 500;
}

// A client that writes down each call with the counts its tally held at that moment.
class TallyLogClient : public skerrow_test::CallbackRoutingClient {
 public:
  explicit TallyLogClient(std::vector<std::string> prefixes) : prefixes_(std::move(prefixes)) {}
  std::vector<std::string> takeLines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lines_, {});
  }
  uint64_t maximumContiguousErrorsClientWants() override { return 100; }
  std::string userHome() override { return "/home/ann"; }
  std::string shortUserName() override { return "ann"; }
  std::string longUserName() override { return "Ann"; }

 protected:
  void received(const QSBackupError& e) override {
    callback("error", relative(e.destinationPath()) + " " + e.message(), nullptr);
  }
  void callback(const std::string& name, const std::string& argument, const Tally& tally) override {
    std::string line = name + " " + relative(argument);
    if (tally) {
      for (const auto& category : kAllCategories) {
        int64_t f[4], b[4];
        tally->getSourceFileCount_byteCount_forCategory(&f[0], &b[0], category);
        tally->getDestinationFileCount_byteCount_forCategory(&f[1], &b[1], category);
        tally->getTransferredFileCount_byteCount_forCategory(&f[2], &b[2], category);
        tally->getExpectedFileCount_byteCount_forCategory(&f[3], &b[3], category);
        line += std::string(" ") + category + ":";
        for (int i = 0; i < 4; ++i) line += std::to_string(f[i]) + "/" + std::to_string(b[i]) + ",";
      }
    }
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  }

 private:
  std::string relative(std::string text) const {
    for (const auto& prefix : prefixes_)
      for (size_t at; (at = text.find(prefix)) != std::string::npos;) text.replace(at, prefix.size(), "<twin>");
    return text;
  }
  const std::vector<std::string> prefixes_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Feeds the engine's journal from the watcher, as the server does.
class JournalFeed : public QSFSWatcherDelegate {
 public:
  void fsWatcherDidSeeChange(const platform::FileSystemEvent& event) override {
    QSChangeJournal::shared().noteEvent(event);
  }
  void handleFSEvent(const std::shared_ptr<const QSFSWatcherEvent>&) override {}
  void fsWatcherDidDropEventsOnDevice(uint64_t) override { QSChangeJournal::shared().noteDoubt(); }
};

// One change, made the same way to each twin by a child process.
struct Change {
  enum Kind { Write, Append, Mode, Times, Rename, Remove, MakeFolder, RemoveTree, StoreDate, DropDate } kind;
  std::string path;    // relative to the twin's top
  std::string other;   // the new path of a rename
  std::string data;
  uint32_t number = 0; // mode, time or date
};

Change make(Change::Kind kind, std::string path, std::string other = "", std::string data = "", uint32_t number = 0) {
  return Change{kind, std::move(path), std::move(other), std::move(data), number};
}

struct Twin {
  std::string top;      // the twin's folder on the homes' file system
  std::string home;
  std::string disk;     // the twin's folder on the disks' file system
  std::string backup;
  std::shared_ptr<QSUserEnvironment> user;
  std::shared_ptr<TallyLogClient> client;
};

void apply(const Change& c, const Twin& twin) {
  const auto full = [&](const std::string& relative) {
    return (relative.rfind("backup/", 0) == 0 ? twin.disk + "/" + relative : twin.top + "/" + relative);
  };
  const std::string path = full(c.path);
  switch (c.kind) {
    case Change::Write:
    case Change::Append: {
      const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | (c.kind == Change::Write ? O_TRUNC : O_APPEND), 0644);
      if (fd >= 0) {
        [[maybe_unused]] const ssize_t n = ::write(fd, c.data.data(), c.data.size());
        ::close(fd);
      }
      break;
    }
    case Change::Mode: ::chmod(path.c_str(), c.number); break;
    case Change::Times: {
      const timespec times[2] = {{1500000000 + static_cast<time_t>(c.number), 0},
                                 {1500000000 + static_cast<time_t>(c.number), 0}};
      ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
      break;
    }
    case Change::Rename: ::rename(path.c_str(), full(c.other).c_str()); break;
    case Change::Remove: ::unlink(path.c_str()); break;
    case Change::MakeFolder: ::mkdir(path.c_str(), 0755); break;
    case Change::RemoveTree: {
      std::error_code ignored;
      fs::remove_all(path, ignored);
      break;
    }
    case Change::StoreDate: {
      const std::string value = std::to_string(978307200 + c.number) + ".000000000";
      ::setxattr(path.c_str(), "user.com.qsc.creation-date", value.data(), value.size(), 0);
      break;
    }
    case Change::DropDate: ::removexattr(path.c_str(), "user.com.qsc.creation-date"); break;
  }
}

void applyInChild(const std::vector<Change>& changes, const Twin& a, const Twin& b) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (const auto& change : changes) {
      apply(change, a);
      apply(change, b);
    }
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
}

// Everything stored in a backup folder: each item's path, and for a file its size and bytes.
std::vector<std::string> contentsOf(const std::string& folder) {
  std::vector<std::string> out;
  for (const auto& relative : skerrow_test::listing(folder)) {
    std::string line = relative;
    const std::string path = folder + "/" + relative;
    if (fs::is_regular_file(fs::symlink_status(path))) {
      std::ifstream in(path, std::ios::binary);
      std::stringstream bytes;
      bytes << in.rdbuf();
      line += " " + std::to_string(fs::file_size(path)) + " " + bytes.str();
    }
    out.push_back(line);
  }
  return out;
}

class WarmPassDifferentialTest : public ::testing::Test {
 protected:
  void SetUp() override {
    wholeHost_.plan = false;
    if (::geteuid() != 0) GTEST_SKIP() << "the watcher needs root";
    if (auto reason = FileSystemImage::unavailableReason(FileSystemImage::Kind::Ext4)) GTEST_SKIP() << *reason;
    skerrow_test::useShippedBlackList();
    homes_ = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, 64u << 20);
    disks_ = std::make_unique<FileSystemImage>(FileSystemImage::Kind::Ext4, 64u << 20);
    for (Twin* twin : {&a_, &b_}) {
      const std::string name = twin == &a_ ? "a" : "b";
      twin->top = homes_->mountPoint() + "/" + name;
      twin->home = twin->top + "/home";
      twin->disk = disks_->mountPoint() + "/" + name;
      twin->backup = twin->disk + "/backup";
      fs::create_directories(twin->home);
      fs::create_directories(twin->backup);
      twin->client = std::make_shared<TallyLogClient>(std::vector<std::string>{twin->backup, twin->home});
      twin->user = QSUserEnvironment::initWithUserName_homeDirectory("ann", twin->home);
      twin->user->setClient(twin->client);
    }
    previousSink_ = platform::Log::setSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(logLock_);
      log_.push_back(line);
    });

    auto& journal = QSChangeJournal::shared();
    QSWalkMemos::shared().forgetAll();
    QSSettledPasses::shared().forgetAll();
    QSFSWatcher::Process process{[] { return 0u; }, [](const std::string&) {}, [](const std::string&) {}};
    watcher_ = QSFSWatcher::initWithSource(std::make_unique<platform::FanotifyEventSource>(), process);
    watcher_->setDelegate(&feed_);
    watcher_->watchFolder(a_.home);
    watcher_->watchFolder(a_.disk);
    watcher_->start();
    journal.follow(a_.home);
    journal.follow(a_.disk);
    journal.setSynchronizer([watcher = watcher_] { return watcher->synchronize(std::chrono::seconds(10)); });
  }

  void TearDown() override {
    auto& journal = QSChangeJournal::shared();
    journal.setSynchronizer(nullptr);
    journal.unfollow(a_.home);
    journal.unfollow(a_.disk);
    QSWalkMemos::shared().forgetAll();
    QSSettledPasses::shared().forgetAll();
    if (watcher_) watcher_->stop(std::chrono::seconds(5));
    platform::Log::setSink(previousSink_);
  }

  size_t logCount(const std::string& text) {
    std::lock_guard<std::mutex> lock(logLock_);
    size_t n = 0;
    for (const auto& line : log_) n += line.find(text) != std::string::npos;
    return n;
  }

  // One backup pass of `twin`, as the two stages run it; its backup folder is
  // read ahead of time when `readAhead`.
  // One pass of `twin`, made as the engine makes it.  Twin A's pass stands
  // on its last pass without work when the engine's decision allows it:
  // the source count is then that pass's, and no folder is walked.
  void runPass(Twin& twin, bool readAhead) {
    QSPipelineHost* host = &twin == &a_ ? &host_ : &wholeHost_;
    auto environment = QSPerUIDEnvironment::initWithUserEnvironment_uid(twin.user, "U", host, &center_);
    auto token = delegate_.token(twin.backup, "U", true, 2, skerrow_test::allCategories());
    const QSSettledPass::Settings settings{std::nullopt, token->context(), token->versionDepth()};
    const auto settled = &twin == &a_ ? QSSettledPasses::shared().standing(
                                            twin.home, twin.backup, settings, platform::Date::now().timeIntervalSince1970())
                                      : nullptr;
    if (settled) {
      ++settledPasses_;
      auto tally = QSMutableTally::init();
      twin.client->startedSourceTally(tally);
      settled->addSourceCountsTo(*tally);
      twin.client->finishedSourceTally(tally);
      token->setTree_tally(QSFSMutableNode::initWithPath("/"), tally);
      token->setSettledPass(settled);
    } else {
      QSSourceTreeBuilder builder;
      FSSourceTraversal traversal(nullptr);
      QSWarmWalk warm(traversal, twin.home, platform::Date::now().timeIntervalSince1970());
      std::shared_ptr<QSDestinationPrefetch> prefetch;
      if (readAhead) prefetch = QSDestinationPrefetch::start(twin.backup);
      twin.client->startedSourceTally(builder.tally());
      traversal.recurseAtUserHome_withExclusionPredicate_visitor(twin.home, nullptr, builder);
      twin.client->finishedSourceTally(builder.tally());
      warm.finish();
      if (&twin == &a_) sourceWarm_ += warm.isWarm();
      token->setTree_tally(builder.root(), builder.tally());
      if (warm.mark()) token->setSourceWalk(QSToken::SourceWalk{*warm.mark(), std::nullopt});
      if (prefetch) token->setDestinationPrefetch(prefetch);
    }
    environment->enqueue(token);
    environment->runJobWithToken(token);
  }

  std::vector<Change> randomChange() {
    const auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random_); };
    std::vector<std::string> folders{"home"}, files, copies, copyFolders{"backup"};
    for (const auto& relative : skerrow_test::listing(a_.home)) {
      if (relative.back() == '/') folders.push_back("home/" + relative.substr(0, relative.size() - 1));
      else files.push_back("home/" + relative);
    }
    for (const auto& relative : skerrow_test::listing(a_.backup)) {
      if (relative.back() == '/') copyFolders.push_back("backup/" + relative.substr(0, relative.size() - 1));
      else copies.push_back("backup/" + relative);
    }
    const auto anyOf = [&](const std::vector<std::string>& v) { return v[pick(v.size())]; };
    const auto text = [&] { return std::string(pick(40) + 1, static_cast<char>('a' + pick(26))); };
    const std::string name = "n" + std::to_string(counter_++);
    static const char* const kSuffixes[] = {".txt", ".jpg", ".mp3", ".mov", ""};
    const std::string fileName = name + kSuffixes[pick(5)];
    switch (pick(files.empty() ? 2 : 16)) {
      case 0: return {make(Change::Write, anyOf(folders) + "/" + fileName, "", text())};
      case 1: return {make(Change::MakeFolder, anyOf(folders) + "/" + name)};
      case 2: return {make(Change::Append, anyOf(files), "", text())};
      case 3: return {make(Change::Write, anyOf(files), "", text())};
      case 4: return {make(Change::Mode, anyOf(files), "", "", pick(2) ? 0600u : 0644u)};
      case 5: return {make(Change::Times, anyOf(files), "", "", static_cast<uint32_t>(pick(100000)))};
      case 6: return {make(Change::Rename, anyOf(files), anyOf(folders) + "/" + fileName)};
      case 7: return {make(Change::Remove, anyOf(files))};
      case 8: {
        const std::string from = anyOf(folders);
        const std::string into = anyOf(folders);
        if (from == "home" || into == from || into.rfind(from + "/", 0) == 0) return {make(Change::MakeFolder, into + "/" + name)};
        return {make(Change::Rename, from, into + "/" + name)};
      }
      case 9: {
        const std::string folder = anyOf(folders);
        if (folder == "home") return {make(Change::MakeFolder, folder + "/" + name)};
        return {make(Change::RemoveTree, folder)};
      }
      case 10: {
        // A copy changed behind the engine's back: rewritten, its date changed or dropped, renamed, removed.
        if (copies.empty()) return {make(Change::Write, anyOf(folders) + "/" + fileName, "", text())};
        const std::string copy = anyOf(copies);
        switch (pick(5)) {
          case 0: return {make(Change::Append, copy, "", text())};
          case 1: return {make(Change::StoreDate, copy, "", "", static_cast<uint32_t>(pick(1000000)))};
          case 2: return {make(Change::DropDate, copy)};
          case 3: return {make(Change::Rename, copy, anyOf(copyFolders) + "/" + name + "@0.txt")};
          default: return {make(Change::Remove, copy)};
        }
      }
      case 11: {
        if (copyFolders.size() < 2) return {make(Change::Append, anyOf(files), "", text())};
        const std::string folder = anyOf(copyFolders);
        if (folder == "backup") return {make(Change::Append, anyOf(files), "", text())};
        return {make(Change::RemoveTree, folder)};
      }
      case 12: {
        // A folder put in the place of another, under the same name.
        const std::string a = anyOf(folders);
        const std::string b = anyOf(folders);
        if (a == "home" || b == "home" || a == b || a.rfind(b + "/", 0) == 0 || b.rfind(a + "/", 0) == 0)
          return {make(Change::MakeFolder, a + "/" + name)};
        return {make(Change::Rename, a, a + ".aside"), make(Change::Rename, b, a)};
      }
      case 13: {
        // A folder removed and made again under the same name, with other contents.
        const std::string folder = anyOf(folders);
        if (folder == "home") return {make(Change::MakeFolder, folder + "/" + name)};
        return {make(Change::RemoveTree, folder), make(Change::MakeFolder, folder),
                make(Change::Write, folder + "/" + fileName, "", text())};
      }
      default: return {make(Change::Append, anyOf(files), "", text())};
    }
  }

  std::unique_ptr<FileSystemImage> homes_, disks_;
  Twin a_, b_;
  JournalFeed feed_;
  std::shared_ptr<QSFSWatcher> watcher_;
  skerrow_test::TestPipelineHost host_;
  skerrow_test::TestPipelineHost wholeHost_;  // twin B's: transfers open every folder
  // Outlives the environments, which the token delegate keeps with its records of runs.
  platform::NotificationCenter center_;
  skerrow_test::TokenDelegate delegate_;
  std::mt19937 random_{20261124};
  int counter_ = 0;
  size_t sourceWarm_ = 0;
  size_t settledPasses_ = 0;
  platform::Log::Sink previousSink_;
  std::mutex logLock_;
  std::vector<std::string> log_;
};

}  // namespace

TEST_F(WarmPassDifferentialTest, WarmPassesGiveTheSameCallsTalliesAndCopiesAsPassesThatWalkEverything) {
  // The same home on both twins.
  std::vector<Change> start;
  for (const char* folder : {"home/Documents", "home/Pictures", "home/Music", "home/Documents/Old", "home/Other"})
    start.push_back(make(Change::MakeFolder, folder));
  for (int i = 0; i < 60; ++i) {
    static const char* const kFolders[] = {"home/Documents", "home/Pictures", "home/Music", "home/Documents/Old",
                                           "home/Other", "home"};
    start.push_back(make(Change::Write, std::string(kFolders[i % 6]) + "/f" + std::to_string(i) + ".txt", "",
                         std::string(static_cast<size_t>(i % 13 + 1), 'x')));
  }
  applyInChild(start, a_, b_);

  const size_t steps = stepCount();
  std::vector<std::string> done;
  for (size_t i = 0; i <= steps; ++i) {
    if (i > 0) {
      if (i % 25 == 0) {
        // A notice that events were lost: the next pass must read everything.
        QSChangeJournal::shared().noteDoubt();
        done.push_back("events dropped");
      } else if (i % 10 < 2) {
        // Two passes in a row with nothing changed: the second may stand
        // on the first, and the change that follows must end that.
        done.push_back("nothing changed");
      } else {
        const auto change = randomChange();
        applyInChild(change, a_, b_);
        done.push_back(std::to_string(change[0].kind) + " " + change[0].path + " " + change[0].other);
      }
    }
    const bool readAhead = i % 2 == 1;
    runPass(a_, readAhead);
    runPass(b_, readAhead);
    const auto warmCalls = a_.client->takeLines();
    const auto coldCalls = b_.client->takeLines();
    ASSERT_FALSE(coldCalls.empty());
    ASSERT_EQ(warmCalls, coldCalls) << "after step " << i << ": " << (done.empty() ? "" : done.back());
    ASSERT_EQ(contentsOf(a_.backup), contentsOf(b_.backup)) << "after step " << i << ": " << done.back();
  }
  // Most passes were warm, on both sides of the pipeline.
  EXPECT_GT(sourceWarm_, steps / 2);
  EXPECT_GT(settledPasses_, steps / 20);
  EXPECT_GT(logCount("Walked " + a_.backup + " warm"), steps / 2);
  EXPECT_EQ(logCount("Walked " + b_.home + " warm") + logCount("Walked " + b_.backup + " warm"), 0u);
}
