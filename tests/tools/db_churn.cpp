// Starts an engine server on a private store, checks the backup database it
// finds there, then rewrites that database for ever, so that a test can kill
// it at any moment and look at what the next start finds.
//
//   skerrow_db_churn <store root> [--check] [--saves N] [--min-entries N] [--max-entries N]
//
// Every database this program writes is one "generation" G (1, 2, 3, ...):
// exactly entryCount(G) persistent entries with the uids "churn-00000",
// "churn-00001", ..., each carrying G in its version depth, its long user
// name and its completion date.  A file holding anything else (a mixture of
// two generations, a missing or extra entry, a broken property list) was
// not written whole by this program.
//
// Output, one line each, written straight to standard output:
//   LOADED <n> entries generation <G> bytes <size>
//       the file is missing (n = 0, G = 0) or holds one whole generation;
//   CORRUPT <reason>
//       anything else; the program then exits with status 3 without saving;
//   SAVED <G> entries <n> bytes <size>
//       saveBackupDatabase() has returned true for generation G.
// With --check the program stops after the LOADED line (status 0); with
// --saves N it stops after N saves.  A failed save prints "SAVEFAILED <G>"
// and exits with status 4.
//
// The engine's log goes nowhere (it would flood the system log); the lines
// saying the database cannot be read are still noticed.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Engine/records/QSBackupEntry.h"
#include "Engine/server/QSServerEnvironment.h"
#include "Engine/server/QSSkerrowServer.h"
#include "platform/Date.h"
#include "platform/Log.h"
#include "platform/ManualRunLoop.h"
#include "platform/NotificationCenter.h"
#include "platform/PropertyList.h"
#include "platform/UserDatabase.h"
#include "platform/Value.h"

namespace {

constexpr const char* kUIDPrefix = "churn-";
constexpr size_t kUIDDigits = 5;
constexpr double kFirstCompletion1970 = 1500000000.0;  // whole seconds: XML dates keep no fractions

struct Options {
  std::string storeRoot;
  bool checkOnly = false;
  std::optional<uint64_t> saves;
  uint64_t minEntries = 2;
  uint64_t maxEntries = 250;  // about 1.6 KB each: 3 KB to 400 KB
};

void emit(const std::string& line) {
  const std::string text = line + "\n";
  const char* data = text.data();
  size_t left = text.size();
  while (left > 0) {
    const ssize_t n = ::write(STDOUT_FILENO, data, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      std::_Exit(5);
    }
    data += n;
    left -= static_cast<size_t>(n);
  }
}

[[noreturn]] void usage(const char* why) {
  std::fprintf(stderr,
               "%s\nusage: skerrow_db_churn <store root> [--check] [--saves N] [--min-entries N] "
               "[--max-entries N]\n",
               why);
  std::exit(2);
}

uint64_t parseCount(const char* text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0') usage("not a number");
  return value;
}

Options parseOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    auto next = [&]() -> const char* {
      if (i + 1 >= argc) usage("missing value");
      return argv[++i];
    };
    if (argument == "--check")
      options.checkOnly = true;
    else if (argument == "--saves")
      options.saves = parseCount(next());
    else if (argument == "--min-entries")
      options.minEntries = parseCount(next());
    else if (argument == "--max-entries")
      options.maxEntries = parseCount(next());
    else if (!argument.empty() && argument[0] == '-')
      usage("unknown option");
    else if (options.storeRoot.empty())
      options.storeRoot = argument;
    else
      usage("more than one store root");
  }
  if (options.storeRoot.empty()) usage("no store root");
  if (options.minEntries == 0 || options.maxEntries < options.minEntries) usage("bad entry range");
  return options;
}

// A well-mixed function of the generation, so sizes jump about from save to save.
uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

uint64_t entryCount(const Options& options, uint64_t generation) {
  return options.minEntries + mix(generation) % (options.maxEntries - options.minEntries + 1);
}

std::string uidFor(uint64_t index) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%s%0*" PRIu64, kUIDPrefix, static_cast<int>(kUIDDigits), index);
  return buffer;
}

// The index of a uid of the form "churn-NNNNN", or nothing.
std::optional<uint64_t> indexOfUID(const std::string& uid) {
  const std::string prefix = kUIDPrefix;
  if (uid.size() != prefix.size() + kUIDDigits || uid.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
  uint64_t index = 0;
  for (size_t i = prefix.size(); i < uid.size(); ++i) {
    if (uid[i] < '0' || uid[i] > '9') return std::nullopt;
    index = index * 10 + static_cast<uint64_t>(uid[i] - '0');
  }
  return index;
}

std::string shortNameFor(uint64_t index) { return "churner" + std::to_string(index); }
std::string longNameFor(uint64_t index, uint64_t generation) {
  return "Churn user " + std::to_string(index) + " generation " + std::to_string(generation);
}
std::string homeFor(uint64_t index) { return "/home/" + shortNameFor(index); }
platform::Date completionFor(uint64_t generation) {
  return platform::Date::dateWithTimeIntervalSince1970(kFirstCompletion1970 + static_cast<double>(generation));
}

// Whether the entry carries exactly what generation `generation` wrote for `index`.
std::optional<std::string> mismatch(const QSBackupEntry& entry, uint64_t index, uint64_t generation) {
  if (entry.uid() != uidFor(index)) return "uid " + entry.uid() + " is not " + uidFor(index);
  if (!entry.isPersistent()) return entry.uid() + " is not persistent";
  if (entry.versionDepth() != generation)
    return entry.uid() + " has version depth " + std::to_string(entry.versionDepth()) + ", expected " +
           std::to_string(generation);
  if (entry.shortUserName() != shortNameFor(index)) return entry.uid() + " has short name " + entry.shortUserName();
  if (entry.longUserName() != longNameFor(index, generation)) return entry.uid() + " has long name " + entry.longUserName();
  if (entry.userHome() != homeFor(index)) return entry.uid() + " has home " + entry.userHome();
  if (entry.completionDate() != completionFor(generation))
    return entry.uid() + " has completion date " + entry.completionDate().description();
  return std::nullopt;
}

struct Loaded {
  uint64_t entries = 0;
  uint64_t generation = 0;
  long long bytes = 0;
};

// Reads the database file directly (not through the engine's lenient
// loader) and checks that it is one whole generation; then checks that the
// engine's own table, loaded at start-up, says the same.
std::optional<Loaded> check(const Options& options, const QSSkerrowServer& server, bool engineSaidUnreadable,
                            std::string* reason) {
  const std::string path = server.backupDatabasePath();
  Loaded loaded;
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) {
    if (errno != ENOENT) {
      *reason = "cannot stat " + path + ": " + std::strerror(errno);
      return std::nullopt;
    }
    if (engineSaidUnreadable) {
      *reason = "the engine reported an unreadable database that is not there";
      return std::nullopt;
    }
    if (!server.backupUIDs().empty()) {
      *reason = "no database file, yet the engine loaded " + std::to_string(server.backupUIDs().size()) + " entries";
      return std::nullopt;
    }
    return loaded;
  }
  loaded.bytes = static_cast<long long>(st.st_size);
  const std::string size = " (" + std::to_string(loaded.bytes) + " bytes)";
  if (!S_ISREG(st.st_mode)) {
    *reason = "the database is not a regular file";
    return std::nullopt;
  }
  const auto root = platform::PropertyList::readFile(path);
  if (!root) {
    *reason = "not a property list" + size;
    return std::nullopt;
  }
  if (engineSaidUnreadable) {
    *reason = "the engine could not read a file that parses" + size;
    return std::nullopt;
  }
  const platform::Dictionary* dictionary = root->asDictionary();
  if (!dictionary) {
    *reason = "the top level is not a dictionary" + size;
    return std::nullopt;
  }
  const platform::Value* backups = dictionary->find("managed-backups");
  if (!backups || !backups->isArray()) {
    *reason = "no managed-backups array" + size;
    return std::nullopt;
  }
  const platform::Value* users = dictionary->find("managed-users");
  if (!users || !users->isDictionary()) {
    *reason = "no managed-users dictionary" + size;
    return std::nullopt;
  }
  const platform::Array& archives = *backups->asArray();
  if (archives.empty()) {
    *reason = "no entries: this program never writes an empty database" + size;
    return std::nullopt;
  }
  std::optional<uint64_t> generation;
  std::set<uint64_t> seen;
  for (const platform::Value& archive : archives) {
    const platform::Dictionary* fields = archive.asDictionary();
    if (!fields) {
      *reason = "an element of managed-backups is not a dictionary" + size;
      return std::nullopt;
    }
    const auto entry = QSBackupEntry::initWithArchive(*fields);
    const auto index = entry ? indexOfUID(entry->uid()) : std::nullopt;
    if (!index) {
      *reason = "an archive has the uid \"" + (entry ? entry->uid() : std::string()) + "\"" + size;
      return std::nullopt;
    }
    if (!seen.insert(*index).second) {
      *reason = "the uid " + entry->uid() + " appears twice" + size;
      return std::nullopt;
    }
    if (!generation) generation = entry->versionDepth();
    if (auto why = mismatch(*entry, *index, *generation)) {
      *reason = *why + size;
      return std::nullopt;
    }
  }
  const uint64_t expected = entryCount(options, *generation);
  if (seen.size() != expected || *seen.rbegin() != expected - 1) {
    *reason = "generation " + std::to_string(*generation) + " has " + std::to_string(seen.size()) +
              " entries, expected " + std::to_string(expected) + size;
    return std::nullopt;
  }
  // The engine's own table.
  const auto uids = server.backupUIDs();
  if (uids.size() != expected) {
    *reason = "the engine loaded " + std::to_string(uids.size()) + " entries, the file holds " +
              std::to_string(expected) + size;
    return std::nullopt;
  }
  for (const std::string& uid : uids) {
    const auto index = indexOfUID(uid);
    const auto entry = server.backupEntryWithUID(uid);
    if (!index || !entry) {
      *reason = "the engine's table has the uid \"" + uid + "\"" + size;
      return std::nullopt;
    }
    if (auto why = mismatch(*entry, *index, *generation)) {
      *reason = "the engine's table: " + *why + size;
      return std::nullopt;
    }
  }
  loaded.entries = expected;
  loaded.generation = *generation;
  return loaded;
}

void fill(QSBackupEntry& entry, uint64_t index, uint64_t generation) {
  entry.setShortUserName(shortNameFor(index));
  entry.setLongUserName(longNameFor(index, generation));
  entry.setUserHome(homeFor(index));
  entry.setMachineName("churn-host");
  entry.setVersionDepth(static_cast<uint32_t>(generation));
  entry.setCompletionDate(completionFor(generation));
  entry.setPeriod(3600.0);
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);

  std::atomic<bool> engineSaidUnreadable{false};
  platform::Log::setSink([&engineSaidUnreadable](const std::string& line) {
    if (line.find("cannot be read") != std::string::npos) engineSaidUnreadable = true;
  });

  platform::ManualRunLoop loop;
  platform::NotificationCenter workspace;
  const platform::FixedAccountDirectory accounts({});
  QSServerEnvironment environment;
  environment.arguments = {argv[0]};
  environment.invokingUserHome = options.storeRoot + "/home";
  environment.storeRoot = options.storeRoot;
  environment.runLoop = &loop;
  environment.workspace = &workspace;
  environment.accounts = &accounts;
  environment.startPipelineThreads = false;
  const auto server = QSSkerrowServer::initWithEnvironment(environment);
  if (!server) {
    emit("CORRUPT the server did not start");
    return 3;
  }

  std::string reason;
  const auto loaded = check(options, *server, engineSaidUnreadable.load(), &reason);
  if (!loaded) {
    emit("CORRUPT " + reason);
    return 3;
  }
  emit("LOADED " + std::to_string(loaded->entries) + " entries generation " + std::to_string(loaded->generation) +
       " bytes " + std::to_string(loaded->bytes));
  if (options.checkOnly) return 0;

  const std::string path = server->backupDatabasePath();
  uint64_t saves = 0;
  for (uint64_t generation = loaded->generation + 1;; ++generation) {
    if (options.saves && saves >= *options.saves) return 0;
    if (generation > UINT32_MAX) {
      emit("SAVEFAILED " + std::to_string(generation) + " (the generation no longer fits a version depth)");
      return 4;
    }
    const uint64_t count = entryCount(options, generation);
    for (uint64_t index = 0; index < count; ++index) {
      const std::string uid = uidFor(index);
      auto entry = server->backupEntryWithUID(uid);
      if (!entry) {
        entry = QSBackupEntry::initWithUID(uid);
        entry->setPersistent(true);
        server->setBackupEntry_forUID(entry, uid);
      }
      fill(*entry, index, generation);
    }
    for (const std::string& uid : server->backupUIDs()) {
      const auto index = indexOfUID(uid);
      if (!index || *index >= count) server->removeBackupEntryForUID(uid);
    }
    if (!server->saveBackupDatabase()) {
      emit("SAVEFAILED " + std::to_string(generation));
      return 4;
    }
    ++saves;
    struct stat st;
    const long long bytes = ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    emit("SAVED " + std::to_string(generation) + " entries " + std::to_string(count) + " bytes " +
         std::to_string(bytes));
  }
}
