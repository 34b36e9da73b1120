#include "Engine/files/QSWalkMemo.h"

#include <gtest/gtest.h>

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
  EXPECT_EQ(top->nameAt(0), "b.txt");
  EXPECT_EQ(top->nameAt(1), "Documents");
  const auto a = top->attributesAt(0);
  EXPECT_EQ(a.type, platform::FileAttributes::Type::Regular);
  EXPECT_EQ(a.size, 3u);
  EXPECT_EQ(a.modificationTime, (platform::FileTime{1700000000, 123456789}));
  EXPECT_EQ(a.creationTime, (platform::FileTime{1600000000, 5}));
  EXPECT_EQ(a.creationSource, platform::FileAttributes::CreationSource::StoredAttribute);
  // Not kept: read back as 0.
  EXPECT_EQ(a.inode, 0u);
  EXPECT_EQ(a.mode, 0u);
  EXPECT_TRUE(top->attributesAt(1).isDirectory());
  EXPECT_EQ(top->attributesAt(1).modificationTime, (platform::FileTime{-5, 1}));
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
  EXPECT_EQ(listing->nameAt(0), "new");
  EXPECT_EQ(listing->attributesAt(1).size, 3u);
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
  next.reserve(4, 64, 2);
  next.addListing("/new", {{"own", fileOf(9, 90, 900)}});
  next.addListing("/b", *earlier.listingOf("/b"));
  earlier.addListing("/e", {});
  next.addListing("/e", *earlier.listingOf("/e"));
  const auto b = next.listingOf("/b");
  ASSERT_TRUE(b.has_value());
  EXPECT_TRUE(*b == *earlier.listingOf("/b"));
  EXPECT_EQ(b->nameAt(0), "x.txt");
  EXPECT_EQ(b->nameAt(1), "a longer name than fifteen bytes");
  EXPECT_EQ(b->attributesAt(1).size, 3u);
  EXPECT_EQ(next.listingOf("/new")->nameAt(0), "own");
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
    EXPECT_EQ(listing->nameAt(0), "f" + std::to_string(i));
    EXPECT_EQ(listing->attributesAt(0).size, static_cast<uint64_t>(i));
  }
  EXPECT_FALSE(memo.listingOf("/home/ann/d50").has_value());
  EXPECT_FALSE(memo.listingOf("/home/ann").has_value());
  // Added after: found, and newer than a packed listing of the same folder.
  memo.addListing("/home/ann/d7", {{"again", fileOf(70, 1, 1)}});
  memo.addListing("/home/ann/new", {});
  EXPECT_EQ(memo.listingOf("/home/ann/d7")->nameAt(0), "again");
  EXPECT_TRUE(memo.listingOf("/home/ann/new").has_value());
  size_t enumerated = 0;
  memo.enumerateFolders([&](const std::string&) { ++enumerated; });
  EXPECT_EQ(enumerated, 52u);
}

TEST(QSWalkMemoTest, AListingOfTheMemoItselfCanBeRecordedAgainUnderAnotherFolder) {
  QSWalkMemo memo;
  memo.addListing("/a", {{"one", fileOf(1, 1, 1)}, {"two", fileOf(2, 2, 2)}});
  for (int i = 0; i < 100; ++i) memo.addListing("/copy" + std::to_string(i), *memo.listingOf("/a"));
  EXPECT_TRUE(*memo.listingOf("/copy99") == *memo.listingOf("/a"));
  EXPECT_EQ(memo.listingOf("/copy42")->nameAt(1), "two");
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
  const std::weak_ptr<const QSWalkMemo> storage = earlier;
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
  EXPECT_EQ(next.listingOf("/d0")->nameAt(0), "changed");
  EXPECT_EQ(next.listingOf("/d39")->nameAt(0), "f39");
  EXPECT_EQ(next.listingOf("/d39")->attributesAt(0).size, 39u);
  EXPECT_FALSE(next.listingOf("/d3").has_value());
  EXPECT_GE(next.byteCount(), storage.lock()->byteCount());
}

TEST(QSWalkMemoTest, AMemoThatBorrowsLendsOnlyTheStorageItBorrowsFromSoChainsStayOneLinkLong) {
  auto first = memoOfFolders(40);
  const std::weak_ptr<const QSWalkMemo> storage = first;
  auto second = std::make_shared<QSWalkMemo>();
  second->borrowFrom(first);
  for (int i = 1; i < 40; ++i) second->addListing("/d" + std::to_string(i), *first->listingOf("/d" + std::to_string(i)));
  second->addListing("/d0", {{"own", fileOf(7, 7, 7)}});
  second->shrinkToFit();
  const std::weak_ptr<const QSWalkMemo> middle = second;
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
  EXPECT_EQ(third.listingOf("/d0")->nameAt(0), "own");
  EXPECT_EQ(third.listingOf("/d0")->attributesAt(0).size, 7u);
  EXPECT_EQ(third.listingOf("/d21")->nameAt(0), "f21");
}

TEST(QSWalkMemoTest, WhenBorrowingNoLongerPaysTheMemoCopiesWhatItBorrowedAndLetsTheStorageGo) {
  // Own listings grown large beside what is borrowed.
  {
    auto earlier = memoOfFolders(40);
    const std::weak_ptr<const QSWalkMemo> storage = earlier;
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
    EXPECT_EQ(next.listingOf("/d17")->nameAt(0), "f17");
    EXPECT_EQ(next.listingOf("/d17")->attributesAt(0).size, 17u);
    EXPECT_EQ(next.listingOf("/d35")->nameAt(0), "new");
  }
  // Less than half of the storage still borrowed (most folders gone).
  {
    auto earlier = memoOfFolders(40);
    const std::weak_ptr<const QSWalkMemo> storage = earlier;
    QSWalkMemo next;
    next.borrowFrom(earlier);
    for (int i = 0; i < 19; ++i) next.addListing("/d" + std::to_string(i), *earlier->listingOf("/d" + std::to_string(i)));
    next.shrinkToFit();
    earlier.reset();
    EXPECT_TRUE(storage.expired());
    EXPECT_EQ(next.itemCount(), 19u);
    EXPECT_EQ(next.listingOf("/d18")->nameAt(0), "f18");
  }
}
