// What one walk read of each folder it listed: the names of the folder's
// entries, in the order they were read, with the attributes the walk used
// for each.  A later walk of the same place may take a folder's listing
// from here instead of the disk when the change journal says nothing in it
// changed since this walk began (its `mark`).
//
// Kept compactly: of the attributes, the type, the logical size, the
// modification and creation times and the creation time's source are kept —
// all that the walks' receivers use; the others read back as 0.  Each
// listing is one run of bytes, its entries one after the other, each the
// name and those attributes packed (small numbers in few bytes, times as
// distances from the previous entry's, a creation time equal to the
// modification time or zero in no bytes at all): about 12–25 bytes and the
// name per entry.  The runs lie in blocks that never
// move, so that the memo grows without copying what it holds and holds
// little more than it uses.
//
// A memo may borrow from an earlier one: a listing taken unchanged from the
// earlier memo's storage is referred to, not copied, so that a warm walk
// costs in proportion to what it read, not to what it kept.  The storage
// lent is always that of a memo that borrows nothing (chains stay one link
// long), and only the storage: the lender's index goes with the lender;
// once a memo's own listings grow large beside what it borrows, or it
// borrows less than half of the storage it keeps alive, `shrinkToFit`
// copies what it borrowed and lets the storage go.
//
// Filled by one walk on one thread; read (any number of times, from any
// thread) once filled.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/FileAttributes.h"

class QSWalkMemo {
  struct Storage;

 public:
  struct Item {
    std::string name;
    platform::FileAttributes attributes;
  };

  class Listing {
   public:
    // Reads a listing's entries in order.
    class Reader {
     public:
      explicit Reader(const Listing& listing) : at_(listing.bytes_), left_(listing.count_) {}
      // The next entry's name (valid while the memo lives) and kept
      // attributes; false after the last.
      bool next(std::string_view* name, platform::FileAttributes* attributes);

     private:
      const unsigned char* at_;
      uint32_t left_;
      int64_t modificationSeconds_ = 0;  // of the entry read last
      int64_t creationSeconds_ = 0;
    };

    size_t size() const { return count_; }
    // The entries, decoded (for tests and tools; a walk reads with a Reader).
    std::vector<Item> items() const;
    // The same names in the same order with the same kept attributes.
    bool operator==(const Listing& other) const;

   private:
    friend class QSWalkMemo;
    Listing(const Storage* storage, const unsigned char* bytes, uint32_t byteLength, uint32_t count)
        : storage_(storage), bytes_(bytes), byteLength_(byteLength), count_(count) {}
    const Storage* storage_;  // holds the bytes
    const unsigned char* bytes_;
    uint32_t byteLength_;
    uint32_t count_;
  };

  QSWalkMemo() = default;
  QSWalkMemo(const QSWalkMemo&) = delete;
  QSWalkMemo& operator=(const QSWalkMemo&) = delete;

  // Lets this memo, still empty, refer to the listings of `earlier` (or of
  // the storage `earlier` borrows from) instead of copying them.
  void borrowFrom(const std::shared_ptr<const QSWalkMemo>& earlier);
  // Records the listing of the folder at `folder` (the folder's path, as
  // the walk names it).  A folder listed twice keeps its second listing.
  void addListing(const std::string& folder, const std::vector<Item>& items);
  // Records, as the listing of `folder`, a listing of another memo (or of this one).
  void addListing(const std::string& folder, const Listing& listing);
  // The listing of the folder at `folder`; nothing when it was not listed.
  std::optional<Listing> listingOf(const std::string& folder) const;

  // The change journal's clock when the walk that filled it began.
  uint64_t mark() const { return mark_; }
  void setMark(uint64_t mark) { mark_ = mark; }

  // When the walk that began the chain of memos this one belongs to — the
  // last walk that read every folder — began (seconds since 1970).
  double fullWalkDate() const { return fullWalkDate_; }
  void setFullWalkDate(double date) { fullWalkDate_ = date; }
  // Calls `each` with the path of every folder listed.
  template <typename Each>
  void enumerateFolders(Each each) const {
    for (const auto& [path, range] : folders_) each(path);
    for (const auto& folder : sealed_) each(sealedPrefix_ + std::string(sealedPath(folder)));
  }

  // Folders listed (a folder listed again since `shrinkToFit` counts twice until the next).
  size_t folderCount() const { return folders_.size() + sealed_.size(); }
  // Entries of the listings recorded (borrowed ones included).
  size_t itemCount() const { return ownItems_ + borrowedItems_; }
  // Entries of the listings borrowed from an earlier memo's storage.
  size_t borrowedItemCount() const { return borrowedItems_; }
  // Bytes held, about (the storage borrowed from included).
  size_t byteCount() const;
  // The storage of this memo's own listings, which later memos may borrow
  // and keep alive after the memo itself is gone (for tests).
  std::weak_ptr<const void> storage() const { return storage_; }
  // Makes room ahead for the index of about `folders` folders.
  void reserveFolders(size_t folders);
  // Ends the filling: listings taken from this memo before it may no
  // longer be read.  Gives back what the walk no longer needs, packs the
  // folders' index into two blocks (a map of a node per folder, made while
  // the walk made its tree, would leave one small block on each of
  // thousands of pages once the tree is gone), and copies what it borrowed
  // when borrowing no longer pays (see above).
  void shrinkToFit();

 private:
  struct Range {
    const unsigned char* bytes;
    uint32_t byteLength;
    uint32_t count : 31;
    uint32_t borrowed : 1;  // bytes in base_, not in storage_
  };
  static_assert(sizeof(Range) == 16);

  struct SealedFolder {
    uint32_t pathOffset;
    uint32_t pathLength;
    Range range;
  };
  std::string_view sealedPath(const SealedFolder& folder) const {
    return std::string_view(sealedPaths_).substr(folder.pathOffset, folder.pathLength);
  }

  struct Block {
    std::unique_ptr<unsigned char[]> bytes;
    size_t capacity = 0;
    size_t used = 0;
  };

  Listing listingIn(const Range& range) const {
    return Listing(range.borrowed ? base_.get() : storage_.get(), range.bytes, range.byteLength, range.count);
  }
  // `length` bytes, side by side, in this memo's storage (never moved).
  unsigned char* allocate(size_t length);
  // Copies the bytes of `listing` to this memo's own storage.
  Range copyIn(const Listing& listing);
  // Counts the entries of `range` among this memo's own or borrowed ones.
  void count(const Range& range);
  void record(const std::string& folder, const Range& range);
  // Moves the folders added since the last packing into the sorted index.
  void packIndex();
  // Makes every borrowed listing this memo's own and lets base_ go.
  void stopBorrowing();
  // Where a memo's own listings lie: blocks that never move.  Lent as a
  // whole, without the memo's index, to the memos that borrow from it.
  struct Storage {
    std::vector<Block> blocks;
    size_t items = 0;  // entries written
    size_t byteCount() const;
  };
  std::shared_ptr<Storage> storage_ = std::make_shared<Storage>();
  std::shared_ptr<const Storage> base_;  // storage lent, when borrowing
  size_t borrowedItems_ = 0;
  size_t ownItems_ = 0;
  std::unordered_map<std::string, Range> folders_;  // while listings are added
  std::vector<SealedFolder> sealed_;                // after shrinkToFit, by path
  std::string sealedPaths_;                         // each path after sealedPrefix_
  std::string sealedPrefix_;                        // what all the sealed paths begin with
  uint64_t mark_ = 0;
  double fullWalkDate_ = 0;
};
