// The creation dates stored on the copies of one backup folder, remembered
// from one walk of the folder to the next.  Reading a copy's stored date is
// one more system call per copy, as costly as examining the copy itself;
// but the stored attribute can only change together with the copy's change
// time (setting an extended attribute moves it, and no program can set a
// change time back), so a copy found again with the same inode and change
// time still carries the date remembered for it.
//
// A walk asks `fill` for each copy it examines without its stored date and,
// when the cache does not know it, reads the date and tells `remember`; when the walk ends,
// `finishWalk` makes what it remembered the cache (copies that went away are
// forgotten).  An interrupted walk's findings are dropped and the previous
// ones kept.  A file system's clock may be coarse (a few milliseconds): a
// change made in the same tick as the change a walk saw would leave the
// change time as it was.  So a copy changed less than a margin (a second)
// before the walk began is not remembered, and is read again next time;
// any later change gets a later change time than the one remembered.
//
// Between runs of the engine the cache is kept in the engine's store
// folder (never on the backup disk), one file per backup folder, named for
// the folder's last component and bound to the folder's inode and birth
// time; a file that does not match, or is damaged, is ignored.  Entries read
// back from the file are looked up where the file lies mapped, and copied
// into memory only when a walk renews them.
//
// Thread-safe; entries take 32 bytes.
#pragma once

#include <climits>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "platform/FileAttributes.h"
#include "platform/MappedFile.h"

class QSCreationDateCache {
 public:
  // The cache of the backup folder at `path`, made on first use (from its
  // kept file, when there is one that matches) and kept for the engine's life.
  static std::shared_ptr<QSCreationDateCache> forBackupFolder(const std::string& path);
  // The folder where caches are kept between runs; empty (the default):
  // they are not kept.  Set once, before the first backup.
  static void setStoreFolder(const std::string& folder);

  // A cache of the backup folder at `folderPath` kept in the file `file`
  // (no file: kept in memory only); read from the file when it matches.
  QSCreationDateCache(std::string folderPath = std::string(), std::string file = std::string());

  // Begins a walk at `now` (the wall clock, as file times are).
  void beginWalk(platform::FileTime now);
  // How long before a walk a copy's last change must lie for the copy to be
  // remembered, in seconds (1 unless changed).
  void setRecentChangeMargin(int64_t seconds);

  // When the copy described by `attributes` (examined without its stored
  // date) is known with the same device, inode and change time, sets its
  // creation date and source as remembered, keeps the copy for the walk
  // under way, and answers true.
  bool fill(platform::FileAttributes* attributes);
  // Remembers the creation date of a copy examined with its stored date
  // (one `fill` did not know).
  void remember(const platform::FileAttributes& attributes);
  // Ends a walk: with `completed`, the copies it remembered (seen as known,
  // or new) become the cache and the others are forgotten; otherwise the
  // walk's findings are dropped.
  void finishWalk(bool completed);

  // Copies known from the last completed walk.
  size_t count() const;

  // Writes the cache to its file when a walk renewed it since it was last
  // written, and then, when the file holds every entry and no walk is under
  // way, lets the entries go from memory; the first `fill` of a later walk reads them
  // back.  Meant for after the walk, off the path of a backup.
  void keep();

 private:
  struct Entry {
    uint64_t inode;
    int64_t changeSeconds;
    int64_t creationSeconds;
    uint32_t changeNanoseconds;
    uint32_t creation;  // nanoseconds, with kStored set when the date came from the stored attribute
  };
  static constexpr uint32_t kStored = 1u << 31;

  // The file's bytes for `entries`, bound to the folder `identity`.
  static std::string encode(const platform::FileAttributes& identity, std::span<const Entry> entries);
  void load();
  // The entries known: the kept file's while it is mapped, else known_.
  std::span<const Entry> known() const;

  const std::string folderPath_;
  const std::string file_;
  mutable std::mutex lock_;
  bool renewed_ = false;
  bool onFile_ = false;     // the file holds known_ as it is
  bool walking_ = false;    // between beginWalk and finishWalk
  bool released_ = false;   // the entries let go after keep: map the file again
  size_t releasedCount_ = 0;
  uint64_t device_ = 0;
  std::vector<Entry> known_;  // sorted by inode
  std::unique_ptr<platform::MappedFile> mapped_;  // the kept file, when the entries are read from it
  std::span<const Entry> mappedEntries_;          // mapped_'s entries, sorted by inode
  // During a walk: which known copies it saw as they are, the copies it
  // found new or changed, and the device of its copies.
  std::vector<bool> seen_;
  std::vector<Entry> fresh_;
  uint64_t walkDevice_ = 0;
  int64_t margin_ = 1;
  int64_t rememberBefore_ = INT64_MAX;  // seconds: copies changed from then on are not remembered
};
