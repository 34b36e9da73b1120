#include "Engine/files/QSWalkMemo.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <set>

namespace {

platform::FileAttributes fileOf(uint64_t size, int64_t modified, int64_t created) {
  platform::FileAttributes a;
  a.type = platform::FileAttributes::Type::Regular;
  a.size = size;
  a.modificationTime = {modified, 123456789};
  a.creationTime = {created, 5};
  a.creationSource = platform::FileAttributes::CreationSource::StoredAttribute;
  a.inode = 77;
  a.mode = 0100644;
  return a;
}

}  // namespace

TEST(QSWalkMemoTest, KeepsEachFoldersNamesInOrderWithTheAttributesTheWalksUse) {
  QSWalkMemo memo;
  platform::FileAttributes folder;
  folder.type = platform::FileAttributes::Type::Directory;
  folder.modificationTime = {-5, 1};
  memo.addListing("/home/ann", {{"b.txt", fileOf(3, 1700000000, 1600000000)}, {"Documents", folder}});
  memo.addListing("/home/ann/Documents", {});
  const auto top = memo.listingOf("/home/ann");
  ASSERT_TRUE(top.has_value());
  ASSERT_EQ(top->size(), 2u);
  EXPECT_EQ(top->items()[0].name, "b.txt");
  EXPECT_EQ(top->items()[1].name, "Documents");
  const auto a = top->items()[0].attributes;
  EXPECT_EQ(a.type, platform::FileAttributes::Type::Regular);
  EXPECT_EQ(a.size, 3u);
  EXPECT_EQ(a.modificationTime, (platform::FileTime{1700000000, 123456789}));
  EXPECT_EQ(a.creationTime, (platform::FileTime{1600000000, 5}));
  EXPECT_EQ(a.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);
  // Not kept: read back as 0.
  EXPECT_EQ(a.inode, 0u);
  EXPECT_EQ(a.mode, 0u);
  EXPECT_TRUE(top->items()[1].attributes.isDirectory());
  EXPECT_EQ(top->items()[1].attributes.modificationTime, (platform::FileTime{-5, 1}));
  const auto empty = memo.listingOf("/home/ann/Documents");
  ASSERT_TRUE(empty.has_value());
  EXPECT_EQ(empty->size(), 0u);
  EXPECT_EQ(memo.folderCount(), 2u);
  EXPECT_EQ(memo.itemCount(), 2u);
}

TEST(QSWalkMemoTest, AFolderNeverListedHasNoListing) {
  QSWalkMemo memo;
  memo.addListing("/home/ann", {{"a", fileOf(1, 1, 1)}});
  EXPECT_FALSE(memo.listingOf("/home/ann/a").has_value());
  EXPECT_FALSE(memo.listingOf("/home/an").has_value());
}

TEST(QSWalkMemoTest, AFolderListedAgainKeepsItsLastListing) {
  QSWalkMemo memo;
  memo.addListing("/x", {{"old", fileOf(1, 1, 1)}});
  memo.addListing("/x", {{"new", fileOf(2, 2, 2)}, {"newer", fileOf(3, 3, 3)}});
  const auto listing = memo.listingOf("/x");
  ASSERT_TRUE(listing.has_value());
  ASSERT_EQ(listing->size(), 2u);
  EXPECT_EQ(listing->items()[0].name, "new");
  EXPECT_EQ(listing->items()[1].attributes.size, 3u);
}

TEST(QSWalkMemoTest, TheMarkIsTheOnesGiven) {
  QSWalkMemo memo;
  EXPECT_EQ(memo.mark(), 0u);
  memo.setMark(42);
  EXPECT_EQ(memo.mark(), 42u);
}

TEST(QSWalkMemoTest, AListingTakenFromAnotherMemoKeepsItsNamesAndAttributes) {
  QSWalkMemo earlier;
  earlier.addListing("/a", {{"first", fileOf(1, 10, 100)}});
  earlier.addListing("/b", {{"x.txt", fileOf(2, 20, 200)}, {"a longer name than fifteen bytes", fileOf(3, 30, 300)}});
  QSWalkMemo next;
  next.reserveFolders(2);
  next.addListing("/new", {{"own", fileOf(9, 90, 900)}});
  next.addListing("/b", *earlier.listingOf("/b"));
  earlier.addListing("/e", {});
  next.addListing("/e", *earlier.listingOf("/e"));
  const auto b = next.listingOf("/b");
  ASSERT_TRUE(b.has_value());
  EXPECT_TRUE(*b == *earlier.listingOf("/b"));
  EXPECT_EQ(b->items()[0].name, "x.txt");
  EXPECT_EQ(b->items()[1].name, "a longer name than fifteen bytes");
  EXPECT_EQ(b->items()[1].attributes.size, 3u);
  EXPECT_EQ(next.listingOf("/new")->items()[0].name, "own");
  EXPECT_FALSE(*next.listingOf("/new") == *earlier.listingOf("/a"));
  EXPECT_EQ(next.listingOf("/e")->size(), 0u);
  EXPECT_EQ(next.itemCount(), 3u);
}

TEST(QSWalkMemoTest, ListingsAreFoundAlikeBeforeAndAfterTheIndexIsPacked) {
  QSWalkMemo memo;
  for (int i = 0; i < 50; ++i)
    memo.addListing("/home/ann/d" + std::to_string(i), {{"f" + std::to_string(i), fileOf(static_cast<uint64_t>(i), 1, 1)}});
  memo.shrinkToFit();
  EXPECT_EQ(memo.folderCount(), 50u);
  for (int i = 0; i < 50; ++i) {
    const auto listing = memo.listingOf("/home/ann/d" + std::to_string(i));
    ASSERT_TRUE(listing.has_value()) << i;
    EXPECT_EQ(listing->items()[0].name, "f" + std::to_string(i));
    EXPECT_EQ(listing->items()[0].attributes.size, static_cast<uint64_t>(i));
  }
  EXPECT_FALSE(memo.listingOf("/home/ann/d50").has_value());
  EXPECT_FALSE(memo.listingOf("/home/ann").has_value());
  // Added after: found, and newer than a packed listing of the same folder.
  memo.addListing("/home/ann/d7", {{"again", fileOf(70, 1, 1)}});
  memo.addListing("/home/ann/new", {});
  EXPECT_EQ(memo.listingOf("/home/ann/d7")->items()[0].name, "again");
  EXPECT_TRUE(memo.listingOf("/home/ann/new").has_value());
  size_t enumerated = 0;
  memo.enumerateFolders([&](const std::string&) { ++enumerated; });
  EXPECT_EQ(enumerated, 52u);
  // Packed again: each folder once, with its newer listing, under its whole path.
  memo.shrinkToFit();
  EXPECT_EQ(memo.folderCount(), 51u);
  EXPECT_EQ(memo.listingOf("/home/ann/d7")->items()[0].name, "again");
  EXPECT_EQ(memo.listingOf("/home/ann/d8")->items()[0].name, "f8");
  std::set<std::string> paths;
  memo.enumerateFolders([&](const std::string& path) { paths.insert(path); });
  EXPECT_EQ(paths.size(), 51u);
  EXPECT_TRUE(paths.count("/home/ann/new"));
  EXPECT_TRUE(paths.count("/home/ann/d49"));
  EXPECT_FALSE(memo.listingOf("/home/bob/d7").has_value());
  EXPECT_FALSE(memo.listingOf("/home/ann/d").has_value());
  EXPECT_FALSE(memo.listingOf("").has_value());
  // A folder outside all the others: the shared beginning shrinks to what they still share.
  memo.addListing("/srv/x", {{"y", fileOf(1, 1, 1)}});
  memo.shrinkToFit();
  EXPECT_EQ(memo.listingOf("/srv/x")->items()[0].name, "y");
  EXPECT_EQ(memo.listingOf("/home/ann/d3")->items()[0].name, "f3");
  EXPECT_EQ(memo.folderCount(), 52u);
}

TEST(QSWalkMemoTest, AListingOfTheMemoItselfCanBeRecordedAgainUnderAnotherFolder) {
  QSWalkMemo memo;
  memo.addListing("/a", {{"one", fileOf(1, 1, 1)}, {"two", fileOf(2, 2, 2)}});
  for (int i = 0; i < 100; ++i) memo.addListing("/copy" + std::to_string(i), *memo.listingOf("/a"));
  EXPECT_TRUE(*memo.listingOf("/copy99") == *memo.listingOf("/a"));
  EXPECT_EQ(memo.listingOf("/copy42")->items()[1].name, "two");
  EXPECT_EQ(memo.itemCount(), 202u);
}

namespace {

// A memo of `folders` folders "/dN", each with one file "fN" of N bytes.
std::shared_ptr<QSWalkMemo> memoOfFolders(int folders) {
  auto memo = std::make_shared<QSWalkMemo>();
  for (int i = 0; i < folders; ++i)
    memo->addListing("/d" + std::to_string(i), {{"f" + std::to_string(i), fileOf(static_cast<uint64_t>(i), 1, 1)}});
  memo->shrinkToFit();
  return memo;
}

}  // namespace

TEST(QSWalkMemoTest, AListingTakenFromTheEarlierMemoIsLentNotCopiedAndOutlivesIt) {
  auto earlier = memoOfFolders(40);
  const auto storage = earlier->storage();
  const size_t lent = earlier->byteCount();
  QSWalkMemo next;
  next.borrowFrom(earlier);
  for (int i = 0; i < 40; ++i) {
    if (i == 3) continue;  // gone since
    const std::string folder = "/d" + std::to_string(i);
    next.addListing(folder, *earlier->listingOf(folder));
  }
  next.addListing("/d0", {{"changed", fileOf(100, 2, 2)}});
  EXPECT_EQ(next.borrowedItemCount(), 39u);
  EXPECT_EQ(next.itemCount(), 40u);
  next.shrinkToFit();
  earlier.reset();
  EXPECT_FALSE(storage.expired());  // kept alive by what borrows from it
  EXPECT_EQ(next.borrowedItemCount(), 39u);
  EXPECT_EQ(next.listingOf("/d0")->items()[0].name, "changed");
  EXPECT_EQ(next.listingOf("/d39")->items()[0].name, "f39");
  EXPECT_EQ(next.listingOf("/d39")->items()[0].attributes.size, 39u);
  EXPECT_FALSE(next.listingOf("/d3").has_value());
  EXPECT_GE(next.byteCount(), lent);
}

TEST(QSWalkMemoTest, AMemoThatBorrowsLendsOnlyTheStorageItBorrowsFromSoChainsStayOneLinkLong) {
  auto first = memoOfFolders(40);
  const auto storage = first->storage();
  auto second = std::make_shared<QSWalkMemo>();
  second->borrowFrom(first);
  for (int i = 1; i < 40; ++i) second->addListing("/d" + std::to_string(i), *first->listingOf("/d" + std::to_string(i)));
  second->addListing("/d0", {{"own", fileOf(7, 7, 7)}});
  second->shrinkToFit();
  const auto middle = second->storage();
  first.reset();

  QSWalkMemo third;
  third.borrowFrom(second);
  for (int i = 0; i < 40; ++i) third.addListing("/d" + std::to_string(i), *second->listingOf("/d" + std::to_string(i)));
  // The first memo's listings are borrowed from it directly; the second's own one is copied.
  EXPECT_EQ(third.borrowedItemCount(), 39u);
  EXPECT_EQ(third.itemCount(), 40u);
  third.shrinkToFit();
  second.reset();
  EXPECT_TRUE(middle.expired());
  EXPECT_FALSE(storage.expired());
  EXPECT_EQ(third.listingOf("/d0")->items()[0].name, "own");
  EXPECT_EQ(third.listingOf("/d0")->items()[0].attributes.size, 7u);
  EXPECT_EQ(third.listingOf("/d21")->items()[0].name, "f21");
}

TEST(QSWalkMemoTest, WhenBorrowingNoLongerPaysTheMemoCopiesWhatItBorrowedAndLetsTheStorageGo) {
  // Own listings grown large beside what is borrowed.
  {
    auto earlier = memoOfFolders(40);
    const auto storage = earlier->storage();
    QSWalkMemo next;
    next.borrowFrom(earlier);
    for (int i = 0; i < 32; ++i) next.addListing("/d" + std::to_string(i), *earlier->listingOf("/d" + std::to_string(i)));
    for (int i = 32; i < 40; ++i) next.addListing("/d" + std::to_string(i), {{"new", fileOf(5, 5, 5)}});
    next.addListing("/extra", {{"x", fileOf(1, 1, 1)}});
    const auto before = *earlier->listingOf("/d17");
    EXPECT_TRUE(*next.listingOf("/d17") == before);
    next.shrinkToFit();
    earlier.reset();
    EXPECT_TRUE(storage.expired());
    EXPECT_EQ(next.borrowedItemCount(), 0u);
    EXPECT_EQ(next.itemCount(), 41u);
    EXPECT_EQ(next.listingOf("/d17")->items()[0].name, "f17");
    EXPECT_EQ(next.listingOf("/d17")->items()[0].attributes.size, 17u);
    EXPECT_EQ(next.listingOf("/d35")->items()[0].name, "new");
  }
  // Less than half of the storage still borrowed (most folders gone).
  {
    auto earlier = memoOfFolders(40);
    const auto storage = earlier->storage();
    QSWalkMemo next;
    next.borrowFrom(earlier);
    for (int i = 0; i < 19; ++i) next.addListing("/d" + std::to_string(i), *earlier->listingOf("/d" + std::to_string(i)));
    next.shrinkToFit();
    earlier.reset();
    EXPECT_TRUE(storage.expired());
    EXPECT_EQ(next.itemCount(), 19u);
    EXPECT_EQ(next.listingOf("/d18")->items()[0].name, "f18");
  }
}

namespace {

bool sameKept(const platform::FileAttributes& a, const platform::FileAttributes& b) {
  return a.type == b.type && a.size == b.size && a.creationSource == b.creationSource &&
         a.creationTime == b.creationTime && a.modificationTime == b.modificationTime;
}

}  // namespace

TEST(QSWalkMemoTest, EveryKeptAttributeReadsBackExactlyWhateverItsValue) {
  using Type = platform::FileAttributes::Type;
  using Source = platform::FileAttributes::CreationSource;
  const int64_t seconds[] = {0, 1, -1, 1700000000, -2208988800, INT64_MAX, INT64_MIN, INT64_MAX - 1, 253402300799};
  const uint32_t nanoseconds[] = {0, 1, 999999999, UINT32_MAX};
  const uint64_t sizes[] = {0, 1, 127, 128, 16383, 16384, UINT64_MAX};
  std::vector<QSWalkMemo::Item> items;
  // Every pairing of edge values, in an order where neighbours' times lie far apart.
  for (int64_t modified : seconds)
    for (int64_t created : seconds)
      for (uint32_t ns : nanoseconds) {
        platform::FileAttributes a;
        a.type = static_cast<Type>(items.size() % 4);
        a.creationSource = static_cast<Source>(items.size() % 3);
        a.size = sizes[items.size() % std::size(sizes)];
        a.modificationTime = {modified, ns};
        a.creationTime = items.size() % 5 == 0 ? a.modificationTime : platform::FileTime{created, ns ^ 1};
        if (items.size() % 7 == 0) a.creationTime = {};
        items.push_back({"n" + std::to_string(items.size()), a});
      }
  items.push_back({"", fileOf(1, 2, 3)});
  items.push_back({std::string(300, 'x'), fileOf(4, 5, 6)});
  items.push_back({std::string("caf\xc3\xa9 \xff\x01", 8), fileOf(7, 8, 9)});
  QSWalkMemo memo;
  memo.addListing("/edge", items);
  const auto read = memo.listingOf("/edge")->items();
  ASSERT_EQ(read.size(), items.size());
  for (size_t i = 0; i < items.size(); ++i) {
    EXPECT_EQ(read[i].name, items[i].name) << i;
    EXPECT_TRUE(sameKept(read[i].attributes, items[i].attributes)) << i;
  }
}

TEST(QSWalkMemoTest, RandomListingsReadBackAsTheyWereGivenAndCompareEqualOnlyToTheirLikes) {
  std::mt19937_64 random(19);
  QSWalkMemo memo;
  std::vector<std::vector<QSWalkMemo::Item>> given;
  for (int folder = 0; folder < 300; ++folder) {
    std::vector<QSWalkMemo::Item> items(random() % 40);
    for (auto& item : items) {
      item.name = std::string(1 + random() % 30, 'a');
      for (char& c : item.name) c = static_cast<char>(1 + random() % 255);
      auto& a = item.attributes;
      a.type = static_cast<platform::FileAttributes::Type>(random() % 4);
      a.creationSource = static_cast<platform::FileAttributes::CreationSource>(random() % 3);
      a.size = random() >> (random() % 64);
      a.modificationTime = {1600000000 + static_cast<int64_t>(random() % 200000000), static_cast<uint32_t>(random() % 1000000000)};
      a.creationTime = {1500000000 + static_cast<int64_t>(random() % 300000000), static_cast<uint32_t>(random() % 1000000000)};
    }
    given.push_back(items);
    memo.addListing("/f" + std::to_string(folder), items);
  }
  memo.shrinkToFit();
  for (size_t folder = 0; folder < given.size(); ++folder) {
    const auto listing = memo.listingOf("/f" + std::to_string(folder));
    ASSERT_TRUE(listing.has_value());
    const auto read = listing->items();
    ASSERT_EQ(read.size(), given[folder].size());
    for (size_t i = 0; i < read.size(); ++i) {
      EXPECT_EQ(read[i].name, given[folder][i].name);
      EXPECT_TRUE(sameKept(read[i].attributes, given[folder][i].attributes)) << folder << " " << i;
    }
    // One attribute changed by a nanosecond: no longer the same listing.
    if (!given[folder].empty()) {
      auto changed = given[folder];
      changed.back().attributes.modificationTime.nanoseconds ^= 1;
      QSWalkMemo other;
      other.addListing("/x", given[folder]);
      other.addListing("/y", changed);
      EXPECT_TRUE(*other.listingOf("/x") == *listing);
      EXPECT_FALSE(*other.listingOf("/y") == *listing);
    }
  }
}

TEST(QSWalkMemoTest, AListingLargerThanABlockKeepsItsPlaceAmongSmallOnesAndCanBeCopiedFromItself) {
  QSWalkMemo memo;
  memo.addListing("/small1", {{"a", fileOf(1, 1, 1)}});
  std::vector<QSWalkMemo::Item> many;
  for (int i = 0; i < 20000; ++i) many.push_back({"file number " + std::to_string(i), fileOf(static_cast<uint64_t>(i), 1700000000 + i, 1)});
  memo.addListing("/big", many);
  memo.addListing("/small2", {{"b", fileOf(2, 2, 2)}});
  memo.addListing("/big-again", *memo.listingOf("/big"));
  memo.shrinkToFit();
  EXPECT_EQ(memo.listingOf("/small1")->items()[0].name, "a");
  EXPECT_EQ(memo.listingOf("/small2")->items()[0].attributes.size, 2u);
  for (const char* folder : {"/big", "/big-again"}) {
    const auto read = memo.listingOf(folder)->items();
    ASSERT_EQ(read.size(), many.size()) << folder;
    EXPECT_EQ(read[12345].name, "file number 12345");
    EXPECT_TRUE(sameKept(read[19999].attributes, many[19999].attributes));
  }
  EXPECT_EQ(memo.itemCount(), 40002u);
}

TEST(QSWalkMemoTest, AFileEntryTakesAboutHalfTheBytesOfItsAttributesWrittenOut) {
  // A home's files: times of this decade with nanoseconds, a creation time
  // of its own, sizes below a few megabytes.  Written out the kept
  // attributes are 40 bytes an entry; packed they must take at most 24.
  std::mt19937_64 random(7);
  std::vector<QSWalkMemo::Item> items;
  size_t nameBytes = 0;
  for (int i = 0; i < 1000; ++i) {
    platform::FileAttributes a = fileOf(random() % 4000000, 1700000000 + static_cast<int64_t>(random() % 1000000), 0);
    a.modificationTime.nanoseconds = static_cast<uint32_t>(random() % 1000000000);
    a.creationTime = {a.modificationTime.seconds - static_cast<int64_t>(random() % 5000000), static_cast<uint32_t>(random() % 1000000000)};
    items.push_back({"IMG_" + std::to_string(1000 + i) + ".jpg", a});
    nameBytes += items.back().name.size();
  }
  QSWalkMemo memo;
  memo.addListing("/home/ann/Pictures", items);
  memo.shrinkToFit();
  const size_t index = 64 + std::string("/home/ann/Pictures").size();
  EXPECT_LE(memo.byteCount(), nameBytes + 24 * items.size() + index);
  EXPECT_GE(memo.byteCount(), nameBytes + 12 * items.size());
}

TEST(QSWalkMemoTest, StorageAlreadyLentStaysWhereItIsWhenItsMemoIsPackedAfterwards) {
  // The lender's block is mostly empty, which packing would otherwise move.
  auto earlier = std::make_shared<QSWalkMemo>();
  earlier->addListing("/a", {{"kept.txt", fileOf(5, 50, 500)}});
  QSWalkMemo next;
  next.borrowFrom(earlier);
  next.addListing("/a", *earlier->listingOf("/a"));
  EXPECT_EQ(next.borrowedItemCount(), 1u);
  earlier->shrinkToFit();
  const auto read = next.listingOf("/a")->items();
  ASSERT_EQ(read.size(), 1u);
  EXPECT_EQ(read[0].name, "kept.txt");
  EXPECT_EQ(read[0].attributes.size, 5u);
  EXPECT_TRUE(*next.listingOf("/a") == *earlier->listingOf("/a"));
}
