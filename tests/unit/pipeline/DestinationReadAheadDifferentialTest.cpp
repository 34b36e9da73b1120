// Random changes to a backup folder, each followed by three readings of it:
// the plain walk, the walk with the creation-date cache, and the walk read
// ahead of time and played back.  All three must report the same calls with
// the same attributes and copies, and a reading made ahead of a write of
// the engine's must never be served.  The number of steps comes from
// SKERROW_DIFFERENTIAL_STEPS (200 unless set; scripts/differential.sh runs
// the long programme).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "Engine/files/QSBackupFolderWrites.h"
#include "Engine/files/QSCreationDateCache.h"
#include "Engine/pipeline/QSDestinationPrefetch.h"
#include "tests/support/TempDir.h"
#include "tests/support/WalkLog.h"

namespace fs = std::filesystem;

namespace {

int stepCount() {
  const char* text = std::getenv("SKERROW_DIFFERENTIAL_STEPS");
  return text && *text ? std::atoi(text) : 200;
}


struct timespec changeTimeOf(const std::string& path) {
  struct stat st {};
  ::lstat(path.c_str(), &st);
  return st.st_ctim;
}

class BackupFolderChanges {
 public:
  BackupFolderChanges(std::string root, uint32_t seed) : root_(std::move(root)), random_(seed) {}

  // One random change; its name.
  std::string step() {
    const auto copies = listCopies();
    const int kind = pick(copies.empty() ? 1 : 9);
    switch (kind) {
      case 0: return create();
      case 1: return create();
      case 2: return changeAttribute(copies, true);
      case 3: return changeAttribute(copies, false);
      case 4: return rewrite(copies);
      case 5: return rename(copies);
      case 6: return remove(copies);
      case 7: return chmod(copies);
      default: return folders();
    }
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

  std::vector<std::string> listCopies() const {
    std::vector<std::string> copies;
    for (const auto& e : fs::recursive_directory_iterator(root_))
      if (e.is_regular_file()) copies.push_back(e.path().string());
    std::sort(copies.begin(), copies.end());
    return copies;
  }
  std::string anyFolder() {
    std::vector<std::string> folders{root_};
    for (const auto& e : fs::recursive_directory_iterator(root_))
      if (e.is_directory()) folders.push_back(e.path().string());
    std::sort(folders.begin(), folders.end());
    return folders[static_cast<size_t>(pick(static_cast<int>(folders.size())))];
  }
  static void write(const std::string& path, const std::string& bytes) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (!f) return;
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  // Makes `change` on `path` so that its change time moves: a change within
  // the file system clock's tick of the walk that saw it is what the cache's
  // margin is for, and is tested on its own; here every change is seen.
  template <class Change>
  static void changing(const std::string& path, Change&& change) {
    const auto before = changeTimeOf(path);
    for (int i = 0; i < 50; ++i) {
      change();
      const auto after = changeTimeOf(path);
      if (after.tv_sec != before.tv_sec || after.tv_nsec != before.tv_nsec) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  std::string create() {
    static const char* names[] = {"report", "Report", "photo", "notes", "a", "b.tar", "x"};
    static const char* extensions[] = {".txt", ".jpg", "", ".gz", ".TXT"};
    const std::string name = std::string(names[pick(7)]) + "@" + std::to_string(pick(6)) + extensions[pick(5)];
    const std::string path = anyFolder() + "/" + name;
    write(path, std::string(static_cast<size_t>(pick(40)), 'c'));
    if (pick(3) != 0) {
      const std::string date = std::to_string(978307200 + pick(100000)) + "." + std::to_string(pick(1000000000));
      ::setxattr(path.c_str(), "user.com.qsc.creation-date", date.data(), date.size(), 0);
    }
    return "create " + path;
  }
  std::string changeAttribute(const std::vector<std::string>& copies, bool set) {
    const std::string& path = copies[static_cast<size_t>(pick(static_cast<int>(copies.size())))];
    changing(path, [&] {
      if (set) {
        const std::string date = std::to_string(978307200 + pick(100000)) + ".5";
        ::setxattr(path.c_str(), "user.com.qsc.creation-date", date.data(), date.size(), 0);
      } else if (::removexattr(path.c_str(), "user.com.qsc.creation-date") != 0) {
        ::setxattr(path.c_str(), "user.com.qsc.creation-date", "x", 1, 0);  // unreadable: no date
      }
    });
    return std::string(set ? "set date " : "drop date ") + path;
  }
  std::string rewrite(const std::vector<std::string>& copies) {
    const std::string& path = copies[static_cast<size_t>(pick(static_cast<int>(copies.size())))];
    changing(path, [&] { write(path, std::string(static_cast<size_t>(pick(40)), 'r')); });
    return "rewrite " + path;
  }
  std::string rename(const std::vector<std::string>& copies) {
    const std::string& path = copies[static_cast<size_t>(pick(static_cast<int>(copies.size())))];
    const std::string to = anyFolder() + "/moved" + std::to_string(pick(5)) + "@" + std::to_string(pick(3)) + ".txt";
    std::error_code error;
    fs::rename(path, to, error);
    return "rename " + path + " " + to;
  }
  std::string remove(const std::vector<std::string>& copies) {
    const std::string& path = copies[static_cast<size_t>(pick(static_cast<int>(copies.size())))];
    fs::remove(path);
    return "remove " + path;
  }
  std::string chmod(const std::vector<std::string>& copies) {
    const std::string& path = copies[static_cast<size_t>(pick(static_cast<int>(copies.size())))];
    changing(path, [&] { ::chmod(path.c_str(), pick(2) ? 0600 : 0644); });
    return "chmod " + path;
  }
  std::string folders() {
    const std::string folder = anyFolder();
    if (folder != root_ && pick(3) == 0) {
      fs::remove_all(folder);
      return "remove folder " + folder;
    }
    const std::string made = folder + "/F" + std::to_string(pick(4));
    fs::create_directories(made);
    return "make folder " + made;
  }

  const std::string root_;
  std::mt19937 random_;
};

}  // namespace

TEST(DestinationReadAheadDifferentialTest, RandomChangesReadTheSameAheadOfTimeFromTheCacheAndByThePlainWalk) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  const uint32_t seed = static_cast<uint32_t>(std::random_device{}());
  SCOPED_TRACE("seed " + std::to_string(seed));
  BackupFolderChanges changes(backup, seed);
  for (int i = 0; i < 40; ++i) changes.step();
  // The copies are all just made: the margin that keeps recently changed
  // copies out of the cache would keep it empty.  Every change below moves
  // the copy's change time (see `changing`), so all may be remembered.
  const auto cache = QSCreationDateCache::forBackupFolder(backup);
  cache->setRecentChangeMargin(-3600);
  const auto privateCache = std::make_shared<QSCreationDateCache>();
  privateCache->setRecentChangeMargin(-3600);

  const int steps = stepCount();
  size_t served = 0, refused = 0, remembered = 0;
  for (int i = 0; i < steps; ++i) {
    const std::string change = changes.step();
    SCOPED_TRACE("step " + std::to_string(i) + ": " + change);
    const auto plain = skerrow_test::destinationWalkCalls(backup, nullptr);
    ASSERT_EQ(skerrow_test::destinationWalkCalls(backup, privateCache), plain);
    remembered += privateCache->count();

    if (i % 5 == 4) {
      // A write of the engine's while the reading ahead runs: never served.
      auto prefetch = QSDestinationPrefetch::start(backup);
      {
        const QSBackupFolderWrites::Scope writing;
        changes.step();
      }
      ASSERT_FALSE(prefetch->take(backup, nullptr));
      ++refused;
      continue;
    }
    auto prefetch = QSDestinationPrefetch::start(backup);
    std::string why;
    const auto recording = prefetch->take(backup, nullptr, &why);
    ASSERT_TRUE(recording) << why;
    ASSERT_EQ(skerrow_test::playedCalls(*recording), plain);
    ++served;
  }
  EXPECT_EQ(served + refused, static_cast<size_t>(steps));
  EXPECT_GT(remembered, 0u);  // the cache held copies after the walks, so later walks were answered from it
}
