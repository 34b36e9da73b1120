// A walk kept to be played again: a visitor that records every call a walk
// of real folders makes (FSDestinationTraversal's folders, files and groups
// of copies) and plays them back later to another visitor, in the same
// order, with the same paths, attributes and copies.  It lets the kernel
// work of a walk be done ahead of time on another thread while the
// receiver of its results is still busy.
//
// Recording answers true to every folder, so everything is recorded; when
// played back, a folder the receiver declines is skipped up to its end,
// whose finish call is still made, as a walk does.  Names are kept rather
// than paths (each path is rebuilt from its folder's), and the copies are
// the walk's own objects, shared, not copied.
//
// Record on one thread, then play back (any number of times) once
// recording has ended; the two may not overlap.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Engine/files/FSVisitor.h"

class QSRecordedWalk : public FSVisitor {
 public:
  void startTraversalOfPath(const std::string& path) override;
  void finishTraversalOfPath(const std::string& path) override;
  bool startVisitAtPath_attributes(const std::string& path, const platform::FileAttributes& attributes) override;
  void finishVisitAtPath_attributes(const std::string& path, const platform::FileAttributes& attributes) override;
  void startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) override;
  void finishVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) override;

  // Whether a whole walk was recorded (from its start to its finish) and
  // every path was its folder's path and a name, so that it can be played.
  bool isComplete() const { return finished_ && !unplayable_; }
  // The attributes the walk reported first for its top item (a complete
  // recording of an existing folder has them); nullptr otherwise.
  const platform::FileAttributes* topAttributes() const;
  // The change journal's clock when the recorded walk began, when that walk
  // kept a memo (see QSWarmWalk::mark); set by whoever made the recording.
  std::optional<uint64_t> journalMark() const { return journalMark_; }
  void setJournalMark(std::optional<uint64_t> mark) { journalMark_ = mark; }
  // Makes room for a walk of about `copies` stored copies (a hint).
  void reserveForCopies(size_t copies);

  // Makes the recorded calls on `visitor`.  When `stop` is set (tested
  // before each call) the play ends at once with finishTraversalOfPath;
  // items still open are not finished.  Nothing is played from an
  // incomplete recording.
  void playTo(FSVisitor& visitor, const std::atomic<bool>* stop) const;

 private:
  // A walk finishes a group of copies right after starting it, with the same
  // copies and path: one Group step stands for both calls.
  enum class Kind : uint8_t { StartItem, FinishItem, Group };
  struct Step {
    uint32_t nameOffset;  // into names_
    uint16_t nameLength;  // one path component (the top item's path is top_)
    Kind kind;
    uint32_t payload;     // attributes_ index (items) or versions_ offset (groups)
    uint32_t count;       // copies in the group
  };
  static_assert(sizeof(Step) == 16);

  // The name that makes `path` below the open folder; false when it is not one.
  bool nameBelowOpenFolder(const std::string& path, std::string* name) const;
  void add(Kind kind, const std::string& name, uint32_t payload, uint32_t count);

  std::string top_;
  std::vector<Step> steps_;
  std::string names_;
  std::vector<platform::FileAttributes> attributes_;
  QSFSVersionArray versions_;
  std::vector<std::string> open_;    // paths of the items started and not finished, while recording
  std::vector<uint32_t> openAttributes_;  // their attributes' indexes
  bool started_ = false;
  bool finished_ = false;
  bool groupOpen_ = false;  // a group started and not yet finished, while recording
  bool unplayable_ = false;
  std::optional<uint64_t> journalMark_;
};
