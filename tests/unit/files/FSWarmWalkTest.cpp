// Warm walks: a walk that takes the listings of unchanged folders from an
// earlier walk's memo must report exactly what a walk of the disk reports,
// given a change journal told of every change as the watcher tells it.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "Engine/files/FSDestinationTraversal.h"
#include "Engine/files/FSSourceTraversal.h"
#include "Engine/files/QSChangeJournal.h"
#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;

// The calls of a walk, with the attributes a memo keeps (what the walks' receivers use).
class KeptFieldsLog : public FSVisitor {
 public:
  std::vector<std::string> calls;
  static std::string describe(const platform::FileAttributes& a) {
    return " type=" + std::to_string(static_cast<int>(a.type)) + " size=" + std::to_string(a.size) +
           " mtime=" + std::to_string(a.modificationTime.seconds) + "." + std::to_string(a.modificationTime.nanoseconds) +
           " btime=" + std::to_string(a.creationTime.seconds) + "." + std::to_string(a.creationTime.nanoseconds) +
           " csource=" + std::to_string(static_cast<int>(a.creationSource));
  }
  void startTraversalOfPath(const std::string& p) override { calls.push_back("begin " + p); }
  void finishTraversalOfPath(const std::string& p) override { calls.push_back("end " + p); }
  bool startVisitAtPath_attributes(const std::string& p, const platform::FileAttributes& a) override {
    calls.push_back("start " + p + describe(a));
    return true;
  }
  void finishVisitAtPath_attributes(const std::string& p, const platform::FileAttributes& a) override {
    calls.push_back("finish " + p + describe(a));
  }
  void startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& p) override {
    std::string s = "group " + p;
    for (const auto& v : versions) {
      const auto& r = v->attributes();
      s += " [" + v->fileName() + " size=" + std::to_string(r.size) + " created=" + std::to_string(r.creationDate) +
           " known=" + std::to_string(r.creationDateKnown) + " modified=" + std::to_string(r.modificationDate) + "]";
    }
    calls.push_back(s);
  }
  void finishVisitOfGroup_atPath(const QSFSVersionArray&, const std::string& p) override {
    calls.push_back("end group " + p);
  }
};

enum class Side { Source, Destination };

// A folder tree changed at random, each change told to the journal as the
// watcher reports it: creations, deletions and both sides of renames as
// structural changes, writes and attribute changes as content changes.
class ChangingTree {
 public:
  ChangingTree(const std::string& top, Side side, QSChangeJournal& journal, uint32_t seed)
      : top_(top), side_(side), journal_(journal), random_(seed) {}

  void populate(int files) {
    for (int i = 0; i < files; ++i) createFile();
  }

  // One random change; answers what it did.
  std::string step() {
    switch (pick(10)) {
      case 0: case 1: return createFile();
      case 2: return appendToFile();
      case 3: return changeMode();
      case 4: return changeTimes();
      case 5: return renameSomething();
      case 6: return deleteFile();
      case 7: return makeFolder();
      case 8: return deleteFolder();
      default: return side_ == Side::Destination ? storeCreationDate() : swapFolders();
    }
  }

 private:
  size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random_); }

  std::vector<std::string> all(bool folders) const {
    std::vector<std::string> found;
    if (folders) found.push_back(top_);
    for (const auto& e : fs::recursive_directory_iterator(top_))
      if (e.is_directory() == folders && !e.is_symlink()) found.push_back(e.path().string());
    std::sort(found.begin(), found.end());
    return found;
  }
  std::string anyFolder() {
    const auto folders = all(true);
    return folders[pick(folders.size())];
  }
  std::optional<std::string> anyFile() {
    const auto files = all(false);
    if (files.empty()) return std::nullopt;
    return files[pick(files.size())];
  }
  std::string newName(bool folder) {
    const int n = counter_++;
    if (folder) return "d" + std::to_string(n);
    if (side_ == Side::Source) return "f" + std::to_string(n) + (n % 3 ? ".txt" : "");
    // Copies of a few names, so that groups hold several; now and then a name that is no copy's.
    if (n % 7 == 0) return "README" + std::to_string(n);
    return "f" + std::to_string(n % 5) + "@" + std::to_string(n) + ".txt";
  }

  std::string createFile() {
    const std::string path = anyFolder() + "/" + newName(false);
    std::FILE* f = std::fopen(path.c_str(), "w");
    std::fputs(std::string(pick(50), 'x').c_str(), f);
    std::fclose(f);
    journal_.noteStructuralChange(path);
    journal_.noteContentChange(path);
    return "create " + path;
  }
  std::string appendToFile() {
    const auto path = anyFile();
    if (!path) return createFile();
    std::FILE* f = std::fopen(path->c_str(), "a");
    std::fputs("more", f);
    std::fclose(f);
    journal_.noteContentChange(*path);
    return "write " + *path;
  }
  std::string changeMode() {
    const auto path = anyFile();
    if (!path) return createFile();
    ::chmod(path->c_str(), pick(2) ? 0600 : 0644);
    journal_.noteContentChange(*path);
    return "chmod " + *path;
  }
  std::string changeTimes() {
    const std::string path = pick(2) ? anyFile().value_or(top_) : anyFolder();
    const timespec times[2] = {{1000000000 + static_cast<time_t>(pick(1000)), 0},
                               {1000000000 + static_cast<time_t>(pick(1000)), static_cast<long>(pick(1000))}};
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
    journal_.noteContentChange(path);
    return "touch " + path;
  }
  std::string storeCreationDate() {
    const auto path = anyFile();
    if (!path) return createFile();
    const std::string value = std::to_string(978307200 + pick(100000)) + ".250000000";
    ::setxattr(path->c_str(), "user.com.qsc.creation-date", value.data(), value.size(), 0);
    journal_.noteContentChange(*path);
    return "store date " + *path;
  }
  std::string renameSomething() {
    const bool folder = pick(3) == 0;
    const std::string from = folder ? anyFolder() : anyFile().value_or(top_);
    if (from == top_) return makeFolder();
    const std::string into = anyFolder();
    if (folder && (into == from || into.rfind(from + "/", 0) == 0)) return makeFolder();
    const std::string to = into + "/" + newName(folder);
    std::rename(from.c_str(), to.c_str());
    journal_.noteStructuralChange(from);
    journal_.noteStructuralChange(to);
    return "rename " + from + " " + to;
  }
  std::string deleteFile() {
    const auto path = anyFile();
    if (!path) return createFile();
    ::unlink(path->c_str());
    journal_.noteStructuralChange(*path);
    return "delete " + *path;
  }
  std::string makeFolder() {
    const std::string path = anyFolder() + "/" + newName(true);
    ::mkdir(path.c_str(), 0755);
    journal_.noteStructuralChange(path);
    return "mkdir " + path;
  }
  std::string deleteFolder() {
    const std::string path = anyFolder();
    if (path == top_) return makeFolder();
    // The watcher reports each item deleted, deepest first, then the folder.
    std::vector<std::string> inside;
    for (const auto& e : fs::recursive_directory_iterator(path)) inside.push_back(e.path().string());
    fs::remove_all(path);
    for (auto it = inside.rbegin(); it != inside.rend(); ++it) journal_.noteStructuralChange(*it);
    journal_.noteStructuralChange(path);
    return "rmdir " + path;
  }
  // A folder takes the place of another of the same name.
  std::string swapFolders() {
    const std::string a = anyFolder();
    const std::string b = anyFolder();
    if (a == top_ || b == top_ || a == b || a.rfind(b + "/", 0) == 0 || b.rfind(a + "/", 0) == 0) return makeFolder();
    const std::string aside = a + ".aside";
    std::rename(a.c_str(), aside.c_str());
    journal_.noteStructuralChange(a);
    journal_.noteStructuralChange(aside);
    std::rename(b.c_str(), a.c_str());
    journal_.noteStructuralChange(b);
    journal_.noteStructuralChange(a);
    return "swap " + b + " into " + a;
  }

  const std::string top_;
  const Side side_;
  QSChangeJournal& journal_;
  std::mt19937 random_;
  int counter_ = 0;
};

struct WalkResult {
  std::vector<std::string> calls;
  size_t foldersRead = 0;
  size_t foldersReused = 0;
};

WalkResult walk(Side side, const std::string& top, std::shared_ptr<const QSWalkMemo> earlier,
                std::shared_ptr<const QSChangedFolders> changed, std::shared_ptr<QSWalkMemo> next) {
  KeptFieldsLog log;
  WalkResult result;
  if (side == Side::Source) {
    FSSourceTraversal traversal(nullptr);
    traversal.setMemos(std::move(earlier), std::move(changed), std::move(next));
    traversal.recurseAtUserHome_withExclusionPredicate_visitor(top, nullptr, log);
    result.foldersRead = traversal.foldersRead();
    result.foldersReused = traversal.foldersReused();
  } else {
    FSDestinationTraversal traversal(nullptr);
    traversal.setMemos(std::move(earlier), std::move(changed), std::move(next));
    traversal.recurseAtDestinationPath_withVisitor(top, log);
    result.foldersRead = traversal.foldersRead();
    result.foldersReused = traversal.foldersReused();
  }
  result.calls = std::move(log.calls);
  return result;
}

size_t stepCount() {
  const char* value = std::getenv("SKERROW_WARM_WALK_STEPS");
  return value ? std::strtoul(value, nullptr, 10) : 150;
}

// After each random change, a warm walk (listings of unchanged folders from
// the last warm walk's memo) and a cold one make the same calls.
void warmWalksMatchColdWalks(Side side, uint32_t seed) {
  skerrow_test::TempDir dir;
  const std::string top = dir.mkdir("top");
  QSChangeJournal journal;
  journal.follow(top);
  ChangingTree tree(top, side, journal, seed);
  tree.populate(40);
  auto memo = std::make_shared<QSWalkMemo>();
  memo->setMark(journal.now());
  walk(side, top, nullptr, nullptr, memo);
  size_t reused = 0;
  std::vector<std::string> steps;
  for (size_t i = 0; i < stepCount(); ++i) {
    steps.push_back(tree.step());
    const auto changes = journal.changesSince(top, memo->mark());
    ASSERT_TRUE(changes.has_value());
    auto next = std::make_shared<QSWalkMemo>();
    next->setMark(journal.now());
    const auto warm = walk(side, top, memo, std::make_shared<QSChangedFolders>(*changes), next);
    const auto cold = walk(side, top, nullptr, nullptr, nullptr);
    ASSERT_EQ(warm.calls, cold.calls) << "seed " << seed << ", after step " << i << ": " << steps.back();
    reused += warm.foldersReused;
    memo = next;
  }
  // The warm walks did take listings from their memos.
  EXPECT_GT(reused, stepCount());
}

}  // namespace

TEST(FSWarmWalkTest, AWarmWalkOfAHomeFolderMatchesAWalkOfTheDiskAfterEveryRandomChange) {
  warmWalksMatchColdWalks(Side::Source, 1);
  warmWalksMatchColdWalks(Side::Source, 2);
}

TEST(FSWarmWalkTest, AWarmWalkOfABackupFolderMatchesAWalkOfTheDiskAfterEveryRandomChange) {
  warmWalksMatchColdWalks(Side::Destination, 3);
  warmWalksMatchColdWalks(Side::Destination, 4);
}

TEST(FSWarmWalkTest, AWarmWalkReadsOnlyTheFoldersChangedSinceTheMemoWasTaken) {
  skerrow_test::TempDir dir;
  const std::string top = dir.mkdir("top");
  for (int i = 0; i < 10; ++i) dir.write("top/d" + std::to_string(i) + "/a.txt", "a");
  QSChangeJournal journal;
  journal.follow(top);
  auto memo = std::make_shared<QSWalkMemo>();
  memo->setMark(journal.now());
  const auto first = walk(Side::Source, top, nullptr, nullptr, memo);
  EXPECT_EQ(first.foldersRead, 11u);
  EXPECT_EQ(memo->folderCount(), 11u);

  dir.write("top/d3/a.txt", "changed");
  journal.noteContentChange(top + "/d3/a.txt");
  const auto changes = journal.changesSince(top, memo->mark());
  ASSERT_TRUE(changes.has_value());
  const auto warm = walk(Side::Source, top, memo, std::make_shared<QSChangedFolders>(*changes), nullptr);
  EXPECT_EQ(warm.foldersRead, 1u);
  EXPECT_EQ(warm.foldersReused, 10u);
  EXPECT_EQ(warm.calls, walk(Side::Source, top, nullptr, nullptr, nullptr).calls);
}

// The memo stands for the disk as the journal describes it: a change the
// journal was not told of is not seen (which is why every doubt sends the
// engine back to a walk of the disk).
TEST(FSWarmWalkTest, AWarmWalkTakesUnchangedFoldersFromTheMemoWithoutReadingThem) {
  skerrow_test::TempDir dir;
  const std::string top = dir.mkdir("top");
  dir.write("top/Documents/a.txt", "a");
  QSChangeJournal journal;
  journal.follow(top);
  auto memo = std::make_shared<QSWalkMemo>();
  memo->setMark(journal.now());
  walk(Side::Source, top, nullptr, nullptr, memo);
  const auto before = walk(Side::Source, top, nullptr, nullptr, nullptr).calls;
  dir.write("top/Documents/b.txt", "not told");
  const auto warm = walk(Side::Source, top, memo, std::make_shared<QSChangedFolders>(), nullptr);
  EXPECT_EQ(warm.calls, before);
  EXPECT_NE(warm.calls, walk(Side::Source, top, nullptr, nullptr, nullptr).calls);
}

TEST(FSWarmWalkTest, AFolderWhoseListingWasCutShortByAStopIsNotInTheMemo) {
  skerrow_test::TempDir dir;
  const std::string top = dir.mkdir("top");
  for (int i = 0; i < 5; ++i) dir.write("top/f" + std::to_string(i), "x");
  std::atomic<bool> stop{true};
  KeptFieldsLog log;
  auto memo = std::make_shared<QSWalkMemo>();
  FSSourceTraversal traversal(&stop);
  traversal.setMemos(nullptr, nullptr, memo);
  traversal.recurseAtUserHome_withExclusionPredicate_visitor(top, nullptr, log);
  EXPECT_TRUE(traversal.wasStopped());
  EXPECT_FALSE(memo->listingOf(top).has_value());
}

TEST(FSWarmWalkTest, AWarmWalkOfABackupFolderLeavesTheCreationDateCacheAsTheLastFullWalkLeftIt) {
  skerrow_test::TempDir dir;
  const std::string top = dir.mkdir("Backups");
  dir.write("Backups/Documents/a@0.txt", "a");
  dir.write("Backups/Pictures/p@0.jpg", "p");
  auto cache = std::make_shared<QSCreationDateCache>();
  cache->setRecentChangeMargin(-1000000);
  QSChangeJournal journal;
  journal.follow(top);
  auto memo = std::make_shared<QSWalkMemo>();
  memo->setMark(journal.now());
  {
    KeptFieldsLog log;
    FSDestinationTraversal traversal(nullptr);
    traversal.setCreationDateCache(cache);
    traversal.setMemos(nullptr, nullptr, memo);
    traversal.recurseAtDestinationPath_withVisitor(top, log);
  }
  ASSERT_EQ(cache->count(), 2u);
  dir.write("Backups/Documents/b@0.txt", "b");
  journal.noteStructuralChange(top + "/Documents/b@0.txt");
  const auto changes = journal.changesSince(top, memo->mark());
  ASSERT_TRUE(changes.has_value());
  KeptFieldsLog log;
  FSDestinationTraversal traversal(nullptr);
  traversal.setCreationDateCache(cache);
  traversal.setMemos(memo, std::make_shared<QSChangedFolders>(*changes), nullptr);
  traversal.recurseAtDestinationPath_withVisitor(top, log);
  EXPECT_GT(traversal.foldersReused(), 0u);
  // The copies of the folders not read are still known.
  EXPECT_EQ(cache->count(), 2u);
}

TEST(FSWarmWalkTest, AFolderOfMoreEntriesThanAWalkHoldsIsVisitedInChunksAndReadAgainNextTime) {
  skerrow_test::TempDir dir;
  const std::string top = dir.mkdir("top");
  for (int i = 0; i < 10; ++i) dir.write("top/big/f" + std::to_string(i), std::string(static_cast<size_t>(i), 'x'));
  dir.write("top/big/inner/a", "a");
  dir.write("top/small/b", "b");
  for (const Side side : {Side::Source, Side::Destination}) {
    if (side == Side::Destination)
      for (int i = 0; i < 10; ++i) dir.write("top/big/c" + std::to_string(i) + "@0.txt", "c");
    const auto whole = walk(side, top, nullptr, nullptr, nullptr).calls;
    struct Bound {
      Bound() { FSDepthFirstTraversal::setListingBound(4); }
      ~Bound() { FSDepthFirstTraversal::setListingBound(65536); }
    } bound;
    QSChangeJournal journal;
    journal.follow(top);
    auto memo = std::make_shared<QSWalkMemo>();
    memo->setMark(journal.now());
    const auto chunked = walk(side, top, nullptr, nullptr, memo);
    EXPECT_EQ(chunked.calls, whole);
    EXPECT_FALSE(memo->listingOf(top + "/big").has_value());
    EXPECT_TRUE(memo->listingOf(top + "/small").has_value());
    EXPECT_TRUE(memo->listingOf(top + "/big/inner").has_value());
    const auto changes = journal.changesSince(top, memo->mark());
    ASSERT_TRUE(changes.has_value());
    const auto warm = walk(side, top, memo, std::make_shared<QSChangedFolders>(*changes), nullptr);
    EXPECT_EQ(warm.calls, whole);
    EXPECT_EQ(warm.foldersRead, 1u);
    EXPECT_EQ(warm.foldersReused, 3u);
  }
}
