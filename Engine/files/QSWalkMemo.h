// What one walk read of each folder it listed: the names of the folder's
// entries, in the order they were read, with the attributes the walk used
// for each.  A later walk of the same place may take a folder's listing
// from here instead of the disk when the change journal says nothing in it
// changed since this walk began (its `mark`).
//
// Kept compactly (about 40 bytes and the name per entry): of the attributes,
// the type, the logical size, the modification and creation times and the
// creation time's source are kept — all that the walks' receivers use;
// the others read back as 0.
//
// A memo may borrow from an earlier one: a listing taken unchanged from the
// earlier memo's storage is referred to, not copied, so that a warm walk
// costs in proportion to what it read, not to what it kept.  The storage
// lent is always a memo that borrows nothing (chains stay one link long);
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
 public:
  struct Item {
    std::string name;
    platform::FileAttributes attributes;
  };

  class Listing {
   public:
    size_t size() const { return count_; }
    std::string_view nameAt(size_t i) const;
    platform::FileAttributes attributesAt(size_t i) const;
    // The same names in the same order with the same kept attributes.
    bool operator==(const Listing& other) const;

   private:
    friend class QSWalkMemo;
    Listing(const QSWalkMemo* memo, uint32_t first, uint32_t count) : memo_(memo), first_(first), count_(count) {}
    const QSWalkMemo* memo_;
    uint32_t first_;
    uint32_t count_;
  };

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
    for (const auto& folder : sealed_) each(std::string(sealedPath(folder)));
  }

  size_t folderCount() const { return folders_.size() + sealed_.size(); }
  // Entries of the listings recorded (borrowed ones included).
  size_t itemCount() const { return entries_.size() + borrowedItems_; }
  // Entries of the listings borrowed from an earlier memo's storage.
  size_t borrowedItemCount() const { return borrowedItems_; }
  // Bytes held, about (the storage borrowed from included).
  size_t byteCount() const;
  // Makes room ahead for about `items` entries in `folders` folders whose names take `nameBytes`.
  void reserve(size_t items, size_t nameBytes, size_t folders);
  size_t nameByteCount() const { return names_.size() + borrowedNameBytes_; }
  // Gives back the room made ahead and not used, when it is more than a
  // little, packs the folders' index into two blocks (a map of a node
  // per folder, made while the walk made its tree, would leave one small
  // block on each of thousands of pages once the tree is gone), and copies
  // what it borrowed when borrowing no longer pays (see above).
  void shrinkToFit();

 private:
  struct Entry {
    uint32_t nameOffset;
    uint16_t nameLength;
    platform::FileAttributes::Type type;
    platform::FileAttributes::CreationSource creationSource;
    uint32_t modificationNanoseconds;
    uint32_t creationNanoseconds;
    int64_t modificationSeconds;
    int64_t creationSeconds;
    uint64_t size;
  };
  static_assert(sizeof(Entry) == 40);
  struct Range {
    uint32_t first;
    uint32_t count;
    bool borrowed = false;  // entries of base_, not of this memo
  };

  struct SealedFolder {
    uint32_t pathOffset;
    uint32_t pathLength;
    Range range;
  };
  std::string_view sealedPath(const SealedFolder& folder) const {
    return std::string_view(sealedPaths_).substr(folder.pathOffset, folder.pathLength);
  }

  Listing listingIn(const Range& range) const { return Listing(range.borrowed ? base_.get() : this, range.first, range.count); }
  // Copies the entries and names of `listing` to the end of this memo's own.
  Range copyIn(const Listing& listing);
  // Makes every borrowed listing this memo's own and lets base_ go.
  void stopBorrowing();
  std::shared_ptr<const QSWalkMemo> base_;  // storage lent, when borrowing
  size_t borrowedItems_ = 0;
  size_t borrowedNameBytes_ = 0;
  std::vector<Entry> entries_;
  std::string names_;
  std::unordered_map<std::string, Range> folders_;  // while listings are added
  std::vector<SealedFolder> sealed_;                // after shrinkToFit, by path
  std::string sealedPaths_;
  uint64_t mark_ = 0;
  double fullWalkDate_ = 0;
};
