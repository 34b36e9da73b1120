#include "Engine/files/QSCreationDateCache.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <thread>

#include "platform/FileManager.h"
#include "tests/support/TempDir.h"
#include "tests/support/WalkLog.h"


namespace {

platform::FileAttributes copyAttributes(uint64_t inode, int64_t changed, int64_t created, bool stored) {
  platform::FileAttributes a;
  a.type = platform::FileAttributes::Type::Regular;
  a.device = 7;
  a.inode = inode;
  a.changeTime = platform::FileTime{changed, 5};
  a.creationTime = platform::FileTime{created, 250};
  a.creationSource = stored ? platform::FileAttributes::CreationSource::StoredAttribute
                            : platform::FileAttributes::CreationSource::BirthTime;
  return a;
}

bool setStoredDate(const std::string& path, const std::string& value) {
  return ::setxattr(path.c_str(), "user.com.qsc.creation-date", value.data(), value.size(), 0) == 0;
}

// A backup folder "U" with one copy whose stored date is 978307260.5, and
// the name of its kept cache file beside it.
struct OneStoredCopy {
  skerrow_test::TempDir dir;
  std::string backup = dir.mkdir("U");
  std::string copy = dir.write("U/a@0.txt", "a");
  bool stored = setStoredDate(copy, "978307260.500000000");
  std::string file = dir / "creationdates-U.cache";

  // A cache of the folder, renewed by a walk and kept in its file.
  std::shared_ptr<QSCreationDateCache> walkedAndKept() const {
    auto cache = std::make_shared<QSCreationDateCache>(backup, file);
    cache->setRecentChangeMargin(-3600);
    skerrow_test::destinationWalkCalls(backup, cache);
    cache->keep();
    return cache;
  }
  // The copy as a walk examines it: its attributes without the stored date.
  platform::FileAttributes examined() const {
    platform::FileAttributes attributes;
    EXPECT_TRUE(platform::FileManager::attributesAtPath(copy, &attributes));
    return attributes;
  }
};

// The wall clock as a walk begins with it.
platform::FileTime now() { return platform::FileTime{static_cast<int64_t>(::time(nullptr)), 0}; }

// Whether a walk begun at `now` (and then given up) finds the copy examined
// as `examined` known.
bool knownToAWalk(QSCreationDateCache& cache, platform::FileAttributes examined, platform::FileTime now) {
  cache.beginWalk(now);
  const bool known = cache.fill(&examined);
  cache.finishWalk(false);
  return known;
}

}  // namespace

TEST(QSCreationDateCacheTest, ACopyKnownWithTheSameInodeAndChangeTimeGetsItsRememberedDate) {
  QSCreationDateCache cache;
  cache.remember(copyAttributes(12, 100, 5000, true));
  cache.remember(copyAttributes(3, 100, 6000, false));
  cache.finishWalk(true);
  EXPECT_EQ(cache.count(), 2u);

  auto examined = copyAttributes(12, 100, 1, false);  // as read without the stored date
  ASSERT_TRUE(cache.fill(&examined));
  EXPECT_EQ(examined.creationTime, (platform::FileTime{5000, 250}));
  EXPECT_EQ(examined.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);

  // A copy without a stored date keeps its own birth time.
  auto plain = copyAttributes(3, 100, 42, false);
  ASSERT_TRUE(cache.fill(&plain));
  EXPECT_EQ(plain.creationTime, (platform::FileTime{42, 250}));
  EXPECT_EQ(plain.creationSource, platform::FileAttributes::CreationSource::BirthTime);
}

TEST(QSCreationDateCacheTest, AnotherChangeTimeInodeOrDeviceIsNotKnown) {
  QSCreationDateCache cache;
  cache.remember(copyAttributes(12, 100, 5000, true));
  cache.finishWalk(true);
  auto changed = copyAttributes(12, 101, 1, false);
  EXPECT_FALSE(cache.fill(&changed));
  EXPECT_EQ(changed.creationTime.seconds, 1);
  auto nanos = copyAttributes(12, 100, 1, false);
  nanos.changeTime.nanoseconds = 6;
  EXPECT_FALSE(cache.fill(&nanos));
  auto other = copyAttributes(13, 100, 1, false);
  EXPECT_FALSE(cache.fill(&other));
  auto disk = copyAttributes(12, 100, 1, false);
  disk.device = 8;
  EXPECT_FALSE(cache.fill(&disk));
}

TEST(QSCreationDateCacheTest, AnInterruptedWalkKeepsThePreviousDatesAndACompletedOneForgetsVanishedCopies) {
  QSCreationDateCache cache;
  cache.remember(copyAttributes(1, 100, 5000, true));
  cache.remember(copyAttributes(2, 100, 5001, true));
  cache.finishWalk(true);
  cache.remember(copyAttributes(1, 100, 5000, true));
  cache.finishWalk(false);
  EXPECT_EQ(cache.count(), 2u);
  cache.remember(copyAttributes(2, 100, 5001, true));
  cache.finishWalk(true);
  EXPECT_EQ(cache.count(), 1u);
  auto gone = copyAttributes(1, 100, 0, false);
  EXPECT_FALSE(cache.fill(&gone));
}

TEST(QSCreationDateCacheTest, OneCacheServesOneBackupFolderForTheEnginesLife) {
  const auto a = QSCreationDateCache::forBackupFolder("/media/disk/qs skerrow.skstor/A");
  EXPECT_EQ(a, QSCreationDateCache::forBackupFolder("/media/disk/qs skerrow.skstor/A"));
  EXPECT_NE(a, QSCreationDateCache::forBackupFolder("/media/disk/qs skerrow.skstor/B"));
}

TEST(QSCreationDateCacheTest, AWalkWithTheCacheReportsWhatAWalkWithoutItDoesAndSeesAChangedStoredDate) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  const std::string first = dir.write("U/a@0.txt", "a");
  const std::string second = dir.write("U/Documents/b@2.txt", "bb");
  dir.write("U/Documents/c@0.txt", "c");
  if (!setStoredDate(first, "978307260.500000000") || !setStoredDate(second, "978307300.000000001"))
    GTEST_SKIP() << "this file system keeps no user extended attributes";
  const auto plain = skerrow_test::destinationWalkCalls(backup, nullptr);
  auto cache = std::make_shared<QSCreationDateCache>();
  cache->setRecentChangeMargin(-3600);  // the copies were just made: remember them all the same
  EXPECT_EQ(skerrow_test::destinationWalkCalls(backup, cache), plain);  // filling the cache
  EXPECT_EQ(cache->count(), 3u);
  EXPECT_EQ(skerrow_test::destinationWalkCalls(backup, cache), plain);  // answered from it
  EXPECT_EQ(cache->count(), 3u);  // and still knowing them all

  // Setting the attribute moves the copy's change time: the new date is read.
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(setStoredDate(first, "978307999.000000000"));
  const auto changed = skerrow_test::destinationWalkCalls(backup, nullptr);
  ASSERT_NE(changed, plain);
  EXPECT_EQ(skerrow_test::destinationWalkCalls(backup, cache), changed);
}

TEST(QSCreationDateCacheTest, ACacheKeptInItsFileIsReadBackByTheNextRunForTheSameFolderOnly) {
  OneStoredCopy folder;
  if (!folder.stored) GTEST_SKIP() << "this file system keeps no user extended attributes";
  auto& [dir, backup, copy, stored, file] = folder;
  folder.walkedAndKept();
  // The next run of the engine knows the copy without reading it.
  QSCreationDateCache next(backup, file);
  ASSERT_EQ(next.count(), 1u);
  platform::FileAttributes examined;
  ASSERT_TRUE(platform::FileManager::attributesAtPath(copy, &examined));
  ASSERT_TRUE(next.fill(&examined));
  EXPECT_EQ(examined.creationTime, (platform::FileTime{978307260, 500000000}));

  // A walk that finds nothing new leaves the kept file alone.
  const std::string kept = dir.read("creationdates-U.cache");
  {
    auto unchanged = std::make_shared<QSCreationDateCache>(backup, file);
    ASSERT_EQ(unchanged->count(), 1u);
    std::filesystem::remove(file);
    skerrow_test::destinationWalkCalls(backup, unchanged);
    unchanged->keep();
    EXPECT_EQ(unchanged->count(), 1u);
  }
  EXPECT_FALSE(std::filesystem::exists(file));
  next.keep();  // read from the file, renewed by no walk: nothing to write either
  EXPECT_FALSE(std::filesystem::exists(file));
  dir.write("creationdates-U.cache", kept);
  ASSERT_EQ(QSCreationDateCache(backup, file).count(), 1u);

  // Another folder now at the same path: the kept file says nothing of it.
  std::filesystem::rename(backup, dir / "old");
  std::filesystem::create_directory(backup);
  EXPECT_EQ(QSCreationDateCache(backup, file).count(), 0u);
}

TEST(QSCreationDateCacheTest, BetweenWalksTheEntriesLiveInTheKeptFileAndTheNextWalkReadsThemBack) {
  OneStoredCopy folder;
  if (!folder.stored) GTEST_SKIP() << "this file system keeps no user extended attributes";
  auto& [dir, backup, copy, stored, file] = folder;
  const auto cache = folder.walkedAndKept();
  ASSERT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(cache->count(), 1u);
  const platform::FileAttributes examined = folder.examined();

  cache->beginWalk(now());  // the first copy examined reads the entries back from the file
  platform::FileAttributes during = examined;
  ASSERT_TRUE(cache->fill(&during));
  EXPECT_EQ(during.creationTime, (platform::FileTime{978307260, 500000000}));
  cache->finishWalk(true);
  cache->keep();  // nothing new to write; let go again
  EXPECT_EQ(cache->count(), 1u);

  // The file taken away between walks: the next walk knows nothing, reads
  // the copy's date again and keeps it anew.
  std::filesystem::remove(file);
  cache->beginWalk(now());
  platform::FileAttributes unknown = examined;
  EXPECT_FALSE(cache->fill(&unknown));
  cache->finishWalk(false);
  skerrow_test::destinationWalkCalls(backup, cache);
  EXPECT_EQ(cache->count(), 1u);
  cache->keep();
  EXPECT_TRUE(std::filesystem::exists(file));
  EXPECT_EQ(QSCreationDateCache(backup, file).count(), 1u);
}

TEST(QSCreationDateCacheTest, AWalkThatExaminesNoCopyLeavesTheEntriesInTheirFile) {
  OneStoredCopy folder;
  if (!folder.stored) GTEST_SKIP() << "this file system keeps no user extended attributes";
  auto& [dir, backup, copy, stored, file] = folder;
  const auto cache = folder.walkedAndKept();
  const platform::FileAttributes examined = folder.examined();

  // A walk (a warm one, say) that examines no copy: the file is not read,
  // so its absence meanwhile costs nothing.
  std::filesystem::rename(file, file + ".away");
  cache->beginWalk(now());
  cache->finishWalk(false);
  std::filesystem::rename(file + ".away", file);
  cache->beginWalk(now());
  platform::FileAttributes during = examined;
  EXPECT_TRUE(cache->fill(&during));
  EXPECT_EQ(during.creationTime, (platform::FileTime{978307260, 500000000}));
  cache->finishWalk(true);
  cache->keep();
  EXPECT_EQ(cache->count(), 1u);

  // A completed walk that examined no copy found the folder empty: nothing
  // known stays known, in memory or in the file.
  cache->beginWalk(now());
  cache->finishWalk(true);
  EXPECT_EQ(cache->count(), 0u);
  cache->keep();
  EXPECT_EQ(QSCreationDateCache(backup, file).count(), 0u);
  EXPECT_FALSE(knownToAWalk(*cache, examined, now()));
}

TEST(QSCreationDateCacheTest, ADamagedOrForeignKeptFileIsIgnored) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  const std::string copy = dir.write("U/a@0.txt", "a");
  const std::string file = dir / "creationdates-U.cache";
  {
    auto cache = std::make_shared<QSCreationDateCache>(backup, file);
    cache->setRecentChangeMargin(-3600);
    skerrow_test::destinationWalkCalls(backup, cache);
    cache->keep();
  }
  ASSERT_EQ(QSCreationDateCache(backup, file).count(), 1u);
  std::string bytes = dir.read("creationdates-U.cache");
  ASSERT_GT(bytes.size(), 60u);
  for (size_t at : {size_t(0), size_t(50), bytes.size() - 1}) {
    std::string damaged = bytes;
    damaged[at] ^= 0x20;
    dir.write("creationdates-U.cache", damaged);
    EXPECT_EQ(QSCreationDateCache(backup, file).count(), 0u) << at;
  }
  dir.write("creationdates-U.cache", bytes.substr(0, bytes.size() - 9));
  EXPECT_EQ(QSCreationDateCache(backup, file).count(), 0u);
  dir.write("creationdates-U.cache", "");
  EXPECT_EQ(QSCreationDateCache(backup, file).count(), 0u);
}

TEST(QSCreationDateCacheTest, ACopyChangedJustBeforeAWalkIsNotRememberedSinceItsNextChangeMightKeepItsChangeTime) {
  QSCreationDateCache cache;
  cache.beginWalk(platform::FileTime{1000, 0});
  cache.remember(copyAttributes(1, 999, 5000, true));   // within the second before the walk
  cache.remember(copyAttributes(2, 1000, 5000, true));  // during it
  cache.remember(copyAttributes(3, 998, 5000, true));   // long enough before
  cache.finishWalk(true);
  EXPECT_EQ(cache.count(), 1u);
  auto recent = copyAttributes(1, 999, 0, false);
  EXPECT_FALSE(cache.fill(&recent));
  auto older = copyAttributes(3, 998, 0, false);
  EXPECT_TRUE(cache.fill(&older));

  // A real walk of copies made a moment ago remembers none of them.
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  dir.write("U/a@0.txt", "a");
  auto walkedCache = std::make_shared<QSCreationDateCache>();
  skerrow_test::destinationWalkCalls(backup, walkedCache);
  EXPECT_EQ(walkedCache->count(), 0u);
}

TEST(QSCreationDateCacheTest, AChangedCopyIsRememberedAsItIsNowAndACopyWithTwoNamesOnce) {
  QSCreationDateCache cache;
  cache.remember(copyAttributes(5, 100, 5000, true));
  cache.remember(copyAttributes(9, 100, 5000, true));
  cache.finishWalk(true);
  cache.beginWalk(platform::FileTime{1000000, 0});
  cache.remember(copyAttributes(5, 200, 7000, true));  // its attribute was set again
  cache.remember(copyAttributes(9, 100, 5000, true));  // as known
  cache.remember(copyAttributes(9, 100, 5000, true));  // a second name of it
  cache.remember(copyAttributes(2, 100, 3000, false));
  cache.finishWalk(true);
  EXPECT_EQ(cache.count(), 3u);
  auto changed = copyAttributes(5, 200, 0, false);
  ASSERT_TRUE(cache.fill(&changed));
  EXPECT_EQ(changed.creationTime.seconds, 7000);
  auto old = copyAttributes(5, 100, 0, false);
  EXPECT_FALSE(cache.fill(&old));
  auto second = copyAttributes(9, 100, 0, false);
  ASSERT_TRUE(cache.fill(&second));
  EXPECT_EQ(second.creationTime.seconds, 5000);
}

TEST(QSCreationDateCacheTest, EntriesReadBackFromTheKeptFileOutliveTheFileBeingReplacedDuringTheWalk) {
  OneStoredCopy folder;
  if (!folder.stored) GTEST_SKIP() << "this file system keeps no user extended attributes";
  auto& [dir, backup, copy, stored, file] = folder;
  const auto cache = folder.walkedAndKept();
  const platform::FileAttributes examined = folder.examined();

  cache->beginWalk(now());
  platform::FileAttributes first = examined;
  ASSERT_TRUE(cache->fill(&first));  // the kept file is read back here
  // Another file renamed over it meanwhile (as every write of it is made):
  // the entries the walk reads are still those it began with.
  dir.write("other", std::string(4096, 'z'));
  std::filesystem::rename(dir / "other", file);
  platform::FileAttributes second = examined;
  ASSERT_TRUE(cache->fill(&second));
  EXPECT_EQ(second.creationTime, (platform::FileTime{978307260, 500000000}));
  cache->finishWalk(true);
  EXPECT_EQ(cache->count(), 1u);

  // Once the walk is over the entries are let go to the file, which is no
  // cache any more: the next walk knows nothing and reads the date afresh.
  cache->keep();
  EXPECT_FALSE(knownToAWalk(*cache, examined, now()));
}

TEST(QSCreationDateCacheTest, AWalkOverEntriesReadBackFromTheFileKeepsThoseItSawAndAddsTheNewOnes) {
  skerrow_test::TempDir dir;
  const std::string backup = dir.mkdir("U");
  const std::string a = dir.write("U/a@0.txt", "a");
  const std::string b = dir.write("U/b@0.txt", "b");
  if (!setStoredDate(a, "978307260.500000000") || !setStoredDate(b, "978307261.000000000"))
    GTEST_SKIP() << "this file system keeps no user extended attributes";
  const std::string file = dir / "creationdates-U.cache";
  {
    QSCreationDateCache first(backup, file);
    first.setRecentChangeMargin(-3600);
    skerrow_test::destinationWalkCalls(backup, std::shared_ptr<QSCreationDateCache>(&first, [](auto*) {}));
    first.keep();
  }
  platform::FileAttributes oldB;
  ASSERT_TRUE(platform::FileManager::attributesAtPath(b, &oldB));
  std::filesystem::remove(b);
  const std::string c = dir.write("U/c@0.txt", "c");
  ASSERT_TRUE(setStoredDate(c, "978307262.000000000"));

  // The next run reads the kept file back and walks the folder whole: a
  // is seen as it was, b is gone, c is new.
  auto second = std::make_shared<QSCreationDateCache>(backup, file);
  second->setRecentChangeMargin(-3600);
  ASSERT_EQ(second->count(), 2u);
  skerrow_test::destinationWalkCalls(backup, second);
  EXPECT_EQ(second->count(), 2u);
  second->keep();

  QSCreationDateCache third(backup, file);
  EXPECT_EQ(third.count(), 2u);
  third.beginWalk(now());
  for (const auto& [path, seconds] : {std::pair{a, 978307260}, std::pair{c, 978307262}}) {
    platform::FileAttributes examined;
    ASSERT_TRUE(platform::FileManager::attributesAtPath(path, &examined));
    ASSERT_TRUE(third.fill(&examined)) << path;
    EXPECT_EQ(examined.creationTime.seconds, seconds) << path;
  }
  EXPECT_FALSE(third.fill(&oldB));
  third.finishWalk(false);
}
