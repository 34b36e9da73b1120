// The backup database survives the engine being killed at any moment.
//
// skerrow_db_churn starts an engine server on a private store, checks the
// database it finds (LOADED, or CORRUPT), then saves a new "generation" of
// the database over and over (SAVED <G>).  The kill test starts it again and
// again and kills each run with SIGKILL a random time after it has loaded,
// which lands before, during or between saves.  Every start must find one
// whole generation, never older than the last save a run reported complete
// and never newer than the one it may have had under way when it died.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Engine/records/QSBackupAttributes.h"
#include "platform/PropertyList.h"
#include "platform/Value.h"
#include "tests/support/TempDir.h"

using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kStoreSuffix = "/Library/Application Support/Vornhalden/";
constexpr const char* kDatabaseName = "backupdb.plist";
// The atomic writer's temporary files are ".<name>.XXXXXX" beside the target.
constexpr const char* kTemporaryPrefix = ".backupdb.plist.";

std::optional<std::string> churnProgram() {
#ifdef SKERROW_DB_CHURN
  if (::access(SKERROW_DB_CHURN, X_OK) == 0) return std::string(SKERROW_DB_CHURN);
#endif
  return std::nullopt;
}

#define SKIP_WITHOUT_CHURN()                                                                  \
  if (!churnProgram()) GTEST_SKIP() << "skerrow_db_churn is not built (target skerrow_db_churn)"

uint64_t environmentNumber(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text) return fallback;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 0);
  return end && *end == '\0' ? value : fallback;
}

// One run of the churn program, its standard output and error on a pipe.
class ChurnRun {
 public:
  ChurnRun(const std::string& program, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {program};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (auto& a : argv) pointers.push_back(a.data());
    pointers.push_back(nullptr);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      // Only async-signal-safe calls from here on.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (devNull >= 0) ::dup2(devNull, STDIN_FILENO);
      ::dup2(fds[1], STDOUT_FILENO);
      ::dup2(fds[1], STDERR_FILENO);
      ::execv(pointers[0], pointers.data());
      ::_exit(127);
    }
    if (devNull >= 0) ::close(devNull);
    ::close(fds[1]);
    fd_ = fds[0];
  }

  ~ChurnRun() {
    if (!status_) {
      ::kill(pid_, SIGKILL);
      int raw = 0;
      ::waitpid(pid_, &raw, 0);
    }
    if (fd_ >= 0) ::close(fd_);
  }

  ChurnRun(const ChurnRun&) = delete;
  ChurnRun& operator=(const ChurnRun&) = delete;

  // The next whole line, or nothing at the end of the output or the deadline.
  std::optional<std::string> nextLine(Clock::time_point deadline) {
    while (true) {
      const auto newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        std::string line = buffer_.substr(0, newline);
        buffer_.erase(0, newline + 1);
        lines_.push_back(line);
        return line;
      }
      if (eof_) {
        if (buffer_.empty()) return std::nullopt;
        std::string line;
        line.swap(buffer_);
        lines_.push_back(line);
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) return std::nullopt;
      pollfd p{fd_, POLLIN, 0};
      const int ready = ::poll(&p, 1, static_cast<int>(left));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) continue;
      char chunk[4096];
      const ssize_t n = ::read(fd_, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        eof_ = true;
        continue;
      }
      buffer_.append(chunk, static_cast<size_t>(n));
    }
  }

  // The first line starting with one of the prefixes, or nothing.
  std::optional<std::string> lineStartingWith(const std::vector<std::string>& prefixes, Clock::time_point deadline) {
    while (auto line = nextLine(deadline))
      for (const auto& prefix : prefixes)
        if (line->rfind(prefix, 0) == 0) return line;
    return std::nullopt;
  }

  // Everything up to the end of the output (or the deadline).
  std::vector<std::string> rest(Clock::time_point deadline) {
    std::vector<std::string> out;
    while (auto line = nextLine(deadline)) out.push_back(*line);
    return out;
  }

  void kill() { ::kill(pid_, SIGKILL); }

  // The raw wait status, waiting up to the deadline.
  std::optional<int> wait(Clock::time_point deadline) {
    while (!status_) {
      int raw = 0;
      const pid_t r = ::waitpid(pid_, &raw, WNOHANG);
      if (r == pid_) {
        status_ = raw;
        break;
      }
      if (Clock::now() >= deadline) return std::nullopt;
      std::this_thread::sleep_for(1ms);
    }
    return status_;
  }

  std::string transcript() const {
    std::string out;
    for (const auto& line : lines_) out += "  | " + line + "\n";
    return out;
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
  std::string buffer_;
  bool eof_ = false;
  std::vector<std::string> lines_;
  std::optional<int> status_;
};

struct LoadedLine {
  uint64_t entries = 0;
  uint64_t generation = 0;
  long long bytes = 0;
};

std::optional<LoadedLine> parseLoaded(const std::string& line) {
  LoadedLine out;
  unsigned long long entries = 0, generation = 0;
  long long bytes = 0;
  if (std::sscanf(line.c_str(), "LOADED %llu entries generation %llu bytes %lld", &entries, &generation, &bytes) != 3)
    return std::nullopt;
  out.entries = entries;
  out.generation = generation;
  out.bytes = bytes;
  return out;
}

struct SavedLine {
  uint64_t generation = 0;
  uint64_t entries = 0;
  long long bytes = 0;
};

std::optional<SavedLine> parseSaved(const std::string& line) {
  unsigned long long generation = 0, entries = 0;
  long long bytes = 0;
  if (std::sscanf(line.c_str(), "SAVED %llu entries %llu bytes %lld", &generation, &entries, &bytes) != 3)
    return std::nullopt;
  return SavedLine{generation, entries, bytes};
}

struct StoreLeftovers {
  size_t temporaries = 0;
  uintmax_t temporaryBytes = 0;
  size_t keptAside = 0;  // "backupdb.plist.unreadable-*": the engine found the database unreadable
};

StoreLeftovers leftoversIn(const std::string& store) {
  StoreLeftovers out;
  std::error_code ec;
  for (const auto& item : std::filesystem::directory_iterator(store, ec)) {
    const std::string name = item.path().filename().string();
    if (name.rfind(kTemporaryPrefix, 0) == 0) {
      ++out.temporaries;
      out.temporaryBytes += item.file_size(ec);
    }
    if (name.rfind(std::string(kDatabaseName) + ".unreadable-", 0) == 0) ++out.keptAside;
  }
  return out;
}

// Runs the program to its end; answers its output lines and exit status.
struct Finished {
  std::vector<std::string> lines;
  std::optional<int> status;  // the raw wait status
};

Finished runToEnd(const std::vector<std::string>& arguments) {
  ChurnRun run(*churnProgram(), arguments);
  const auto deadline = Clock::now() + 60s;
  Finished out;
  out.lines = run.rest(deadline);
  out.status = run.wait(deadline);
  return out;
}

bool exitedWith(const std::optional<int>& status, int code) {
  return status && WIFEXITED(*status) && WEXITSTATUS(*status) == code;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const auto& line : lines) out += "  | " + line + "\n";
  return out;
}

}  // namespace

TEST(DatabaseKillTest, UninterruptedRunsSaveConsecutiveGenerationsAndTheNextStartLoadsTheLast) {
  SKIP_WITHOUT_CHURN();
  skerrow_test::TempDir dir;
  const std::string root = dir.mkdir("root");

  auto first = runToEnd({root, "--saves", "4"});
  ASSERT_TRUE(exitedWith(first.status, 0)) << joined(first.lines);
  ASSERT_GE(first.lines.size(), 5u) << joined(first.lines);
  EXPECT_EQ(first.lines[0], "LOADED 0 entries generation 0 bytes 0");
  std::vector<SavedLine> saved;
  for (const auto& line : first.lines)
    if (auto s = parseSaved(line)) saved.push_back(*s);
  ASSERT_EQ(saved.size(), 4u) << joined(first.lines);
  for (size_t i = 0; i < saved.size(); ++i) EXPECT_EQ(saved[i].generation, i + 1);

  auto second = runToEnd({root, "--saves", "1"});
  ASSERT_TRUE(exitedWith(second.status, 0)) << joined(second.lines);
  ASSERT_FALSE(second.lines.empty());
  const auto loaded = parseLoaded(second.lines[0]);
  ASSERT_TRUE(loaded) << joined(second.lines);
  EXPECT_EQ(loaded->generation, 4u);
  EXPECT_EQ(loaded->entries, saved.back().entries);
  EXPECT_EQ(loaded->bytes, saved.back().bytes);
  ASSERT_EQ(second.lines.size(), 2u) << joined(second.lines);
  const auto fifth = parseSaved(second.lines[1]);
  ASSERT_TRUE(fifth) << joined(second.lines);
  EXPECT_EQ(fifth->generation, 5u);
  EXPECT_EQ(leftoversIn(root + kStoreSuffix).temporaries, 0u);
}

// The checker must be able to fail: a cut-short file, one archive too few
// and an archive of another generation each read as CORRUPT (status 3).
TEST(DatabaseKillTest, TheCheckerCallsDamagedDatabasesCorrupt) {
  SKIP_WITHOUT_CHURN();
  skerrow_test::TempDir dir;
  const std::string root = dir.mkdir("root");
  auto seed = runToEnd({root, "--saves", "1"});
  ASSERT_TRUE(exitedWith(seed.status, 0)) << joined(seed.lines);
  const std::string database = root + kStoreSuffix + kDatabaseName;
  const auto whole = platform::PropertyList::readFile(database);
  ASSERT_TRUE(whole && whole->asDictionary());
  std::string bytes;
  {
    std::ifstream in(database, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    bytes = ss.str();
  }
  ASSERT_GT(bytes.size(), 100u);

  auto expectCorrupt = [&](const std::string& what, const std::string& reasonFragment) {
    auto run = runToEnd({root, "--check"});
    EXPECT_TRUE(exitedWith(run.status, 3)) << what << "\n" << joined(run.lines);
    ASSERT_FALSE(run.lines.empty()) << what;
    EXPECT_EQ(run.lines[0].rfind("CORRUPT ", 0), 0u) << what << "\n" << joined(run.lines);
    EXPECT_NE(run.lines[0].find(reasonFragment), std::string::npos) << what << "\n" << joined(run.lines);
  };

  {
    std::ofstream out(database, std::ios::binary | std::ios::trunc);
    out << bytes.substr(0, bytes.size() / 2);
  }
  expectCorrupt("half a file", "not a property list");

  platform::Dictionary shorter = *whole->asDictionary();
  platform::Array archives = *shorter.find("managed-backups")->asArray();
  ASSERT_GE(archives.size(), 2u);
  archives.pop_back();
  shorter.set("managed-backups", platform::Value(archives));
  ASSERT_TRUE(platform::PropertyList::writeFile(database, platform::Value(shorter)));
  expectCorrupt("one archive too few", "expected");

  platform::Dictionary mixed = *whole->asDictionary();
  archives = *mixed.find("managed-backups")->asArray();
  platform::Dictionary other = *archives.back().asDictionary();
  const platform::Value* depth = other.find(kVersionDepth);  // carries the generation
  ASSERT_TRUE(depth && depth->uint32Value() == 1u);
  other.set(kVersionDepth, platform::Value::unsignedInteger(2));
  archives.back() = platform::Value(other);
  mixed.set("managed-backups", platform::Value(archives));
  ASSERT_TRUE(platform::PropertyList::writeFile(database, platform::Value(mixed)));
  expectCorrupt("an archive of another generation", "version depth");

  // And the untouched file reads as it was written.
  ASSERT_TRUE(platform::PropertyList::writeFile(database, *whole));
  auto good = runToEnd({root, "--check"});
  EXPECT_TRUE(exitedWith(good.status, 0)) << joined(good.lines);
  ASSERT_FALSE(good.lines.empty());
  const auto loaded = parseLoaded(good.lines[0]);
  ASSERT_TRUE(loaded) << joined(good.lines);
  EXPECT_EQ(loaded->generation, 1u);
}

TEST(DatabaseKillTest, KillingTheEngineAtRandomMomentsDuringSavesNeverLeavesADatabaseItCannotLoad) {
  SKIP_WITHOUT_CHURN();
  const uint64_t seed = environmentNumber("SKERROW_DB_KILL_SEED", 0x5eed2b9u);
  const uint64_t rounds = environmentNumber("SKERROW_DB_KILL_ROUNDS", 250);
  const uint64_t maxDelayMicros = environmentNumber("SKERROW_DB_KILL_MAX_DELAY_US", 60000);
  std::printf("[ kill ] seed %llu, %llu rounds, kill delay uniform in [0, %llu] us after LOADED "
              "(SKERROW_DB_KILL_SEED / _ROUNDS / _MAX_DELAY_US to change)\n",
              static_cast<unsigned long long>(seed), static_cast<unsigned long long>(rounds),
              static_cast<unsigned long long>(maxDelayMicros));
  std::fflush(stdout);
  RecordProperty("seed", std::to_string(seed));
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<uint64_t> delayMicros(0, maxDelayMicros);

  skerrow_test::TempDir dir;
  const std::string root = dir.mkdir("root");
  const std::string store = root + kStoreSuffix;
  const std::string program = *churnProgram();

  // What the next start may find: the last save reported complete, or the
  // one after it if that save was under way (and got as far as the rename)
  // when the kill came.
  uint64_t lowest = 0, highest = 0;
  uint64_t kills = 0, loads = 0, corrupt = 0, savesSeen = 0, killsBeforeAnySave = 0, newerThanReported = 0;
  uint64_t roundsWithNewTemporary = 0;
  long long smallestSave = -1, largestSave = -1;
  size_t temporariesBefore = 0;
  const auto started = Clock::now();

  for (uint64_t round = 0; round < rounds; ++round) {
    const uint64_t delay = delayMicros(random);
    ChurnRun run(program, {root});
    const auto line = run.lineStartingWith({"LOADED ", "CORRUPT "}, Clock::now() + 20s);
    const auto loadedAt = Clock::now();
    if (!line) {
      ADD_FAILURE() << "round " << round << " (seed " << seed << "): no LOADED or CORRUPT line\n" << run.transcript();
      break;
    }
    if (line->rfind("CORRUPT ", 0) == 0) {
      ++corrupt;
      ADD_FAILURE() << "round " << round << " (seed " << seed << "): " << *line << "\n" << run.transcript();
      break;
    }
    const auto loaded = parseLoaded(*line);
    if (!loaded) {
      ADD_FAILURE() << "round " << round << ": cannot parse \"" << *line << "\"";
      break;
    }
    ++loads;
    EXPECT_GE(loaded->generation, lowest) << "round " << round << " (seed " << seed
                                          << "): a save reported complete was lost";
    EXPECT_LE(loaded->generation, highest) << "round " << round << " (seed " << seed
                                           << "): a generation nobody wrote";
    if (loaded->generation > lowest) ++newerThanReported;

    std::this_thread::sleep_until(loadedAt + std::chrono::microseconds(delay));
    run.kill();
    ++kills;
    const auto after = run.rest(Clock::now() + 20s);
    const auto status = run.wait(Clock::now() + 20s);
    ASSERT_TRUE(status) << "round " << round << ": the killed run did not end";
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL)
        << "round " << round << ": the run ended on its own (status " << *status << ")\n"
        << run.transcript();

    uint64_t expectedNext = loaded->generation + 1;
    uint64_t lastSaved = loaded->generation;
    bool anySaved = false;
    for (const auto& text : after) {
      if (auto saved = parseSaved(text)) {
        EXPECT_EQ(saved->generation, expectedNext) << "round " << round << "\n" << run.transcript();
        expectedNext = saved->generation + 1;
        lastSaved = saved->generation;
        anySaved = true;
        ++savesSeen;
        if (smallestSave < 0 || saved->bytes < smallestSave) smallestSave = saved->bytes;
        largestSave = std::max(largestSave, saved->bytes);
      } else if (text.rfind("SAVEFAILED", 0) == 0) {
        ADD_FAILURE() << "round " << round << ": " << text;
      }
    }
    if (!anySaved) ++killsBeforeAnySave;
    lowest = lastSaved;
    highest = lastSaved + 1;

    const auto leftovers = leftoversIn(store);
    EXPECT_EQ(leftovers.keptAside, 0u) << "round " << round << ": the engine set an unreadable database aside";
    if (leftovers.temporaries > temporariesBefore) ++roundsWithNewTemporary;
    temporariesBefore = leftovers.temporaries;
    // Each start clears what earlier kills left: at most the one the last kill left remains.
    EXPECT_LE(leftovers.temporaries, 1u) << "round " << round << ": temporary files pile up";
  }

  // One last start, which only checks.
  auto last = runToEnd({root, "--check"});
  EXPECT_TRUE(exitedWith(last.status, 0)) << joined(last.lines);
  if (!last.lines.empty()) {
    if (last.lines[0].rfind("CORRUPT ", 0) == 0) ++corrupt;
    if (const auto loaded = parseLoaded(last.lines[0])) {
      ++loads;
      EXPECT_GE(loaded->generation, lowest) << "final check: a save reported complete was lost";
      EXPECT_LE(loaded->generation, highest) << "final check: a generation nobody wrote";
      if (loaded->generation > lowest) ++newerThanReported;
    } else {
      ADD_FAILURE() << "final check:\n" << joined(last.lines);
    }
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  const auto leftovers = leftoversIn(store);
  EXPECT_EQ(leftovers.temporaries, 0u) << "the last start left temporary files behind";

  std::printf("[ kill ] %llu kills, %llu loads, %llu corrupt, %.1f s\n", static_cast<unsigned long long>(kills),
              static_cast<unsigned long long>(loads), static_cast<unsigned long long>(corrupt), seconds);
  std::printf("[ kill ] %llu saves completed; %llu kills before a run's first save; %llu starts found the save "
              "that was under way at the kill\n",
              static_cast<unsigned long long>(savesSeen), static_cast<unsigned long long>(killsBeforeAnySave),
              static_cast<unsigned long long>(newerThanReported));
  std::printf("[ kill ] database size %lld to %lld bytes; %zu temporary files (%ju bytes) left in the store "
              "(%llu kills left a new one)\n",
              smallestSave, largestSave, leftovers.temporaries, leftovers.temporaryBytes,
              static_cast<unsigned long long>(roundsWithNewTemporary));
  std::fflush(stdout);
  RecordProperty("kills", std::to_string(kills));
  RecordProperty("corrupt", std::to_string(corrupt));
  RecordProperty("temporaries_left", std::to_string(leftovers.temporaries));

  EXPECT_EQ(corrupt, 0u);
  EXPECT_EQ(kills, rounds);
  EXPECT_EQ(loads, rounds + 1);
  EXPECT_GE(kills, 200u) << "fewer kills than the test is meant to show (SKERROW_DB_KILL_ROUNDS)";
  // Temporary files left by killed writers must not stop anything loading;
  // every load above happened with them present.
  EXPECT_EQ(leftovers.keptAside, 0u);
}
