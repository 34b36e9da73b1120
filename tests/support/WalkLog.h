// A visitor that writes down every call of a walk with everything it was
// given (paths, attributes, each copy's name, number and record), so that
// two walks can be compared call for call.
#pragma once

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Engine/files/FSDestinationTraversal.h"
#include "Engine/files/FSVisitor.h"
#include "Engine/files/QSCreationDateCache.h"
#include "Engine/files/QSRecordedWalk.h"

namespace skerrow_test {

class WalkLog : public FSVisitor {
 public:
  std::vector<std::string> calls;
  // Folders (by path) whose contents are declined.
  std::vector<std::string> declined;

  static std::string describe(const platform::FileAttributes& a) {
    return "type=" + std::to_string(static_cast<int>(a.type)) + " size=" + std::to_string(a.size) +
           " ino=" + std::to_string(a.inode) + " mode=" + std::to_string(a.mode) +
           " mtime=" + std::to_string(a.modificationTime.seconds) + "." + std::to_string(a.modificationTime.nanoseconds) +
           " ctime=" + std::to_string(a.creationTime.seconds) + "." + std::to_string(a.creationTime.nanoseconds) +
           " csource=" + std::to_string(static_cast<int>(a.creationSource));
  }
  static std::string describe(const QSFSVersionArray& versions) {
    std::string s;
    for (const auto& v : versions) {
      const auto& r = v->attributes();
      s += " [" + v->fileName() + " #" + std::to_string(v->index()) + " size=" + std::to_string(r.size) +
           " type=" + std::to_string(r.type) + " regular=" + std::to_string(r.fileTypeIsARegularFile) +
           " created=" + std::to_string(r.creationDate) + " known=" + std::to_string(r.creationDateKnown) +
           " modified=" + std::to_string(r.modificationDate) + "]";
    }
    return s;
  }

  void startTraversalOfPath(const std::string& p) override { calls.push_back("begin " + p); }
  void finishTraversalOfPath(const std::string& p) override { calls.push_back("end " + p); }
  bool startVisitAtPath_attributes(const std::string& p, const platform::FileAttributes& a) override {
    calls.push_back("start " + p + " " + describe(a));
    return std::find(declined.begin(), declined.end(), p) == declined.end();
  }
  void finishVisitAtPath_attributes(const std::string& p, const platform::FileAttributes& a) override {
    calls.push_back("finish " + p + " " + describe(a));
  }
  void startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& p) override {
    calls.push_back("group " + p + describe(versions));
  }
  void finishVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& p) override {
    calls.push_back("end group " + p + describe(versions));
  }
};

// The calls of a walk of the backup folder `path` (through `cache` when
// given), with the folders `declined` not entered.
inline std::vector<std::string> destinationWalkCalls(const std::string& path,
                                                     std::shared_ptr<QSCreationDateCache> cache = nullptr,
                                                     std::vector<std::string> declined = {}) {
  WalkLog log;
  log.declined = std::move(declined);
  FSDestinationTraversal traversal(nullptr);
  traversal.setCreationDateCache(std::move(cache));
  traversal.recurseAtDestinationPath_withVisitor(path, log);
  return log.calls;
}

// The calls `recording` plays, with the folders `declined` not entered.
inline std::vector<std::string> playedCalls(const QSRecordedWalk& recording, std::vector<std::string> declined = {},
                                            const std::atomic<bool>* stop = nullptr) {
  WalkLog log;
  log.declined = std::move(declined);
  recording.playTo(log, stop);
  return log.calls;
}

}  // namespace skerrow_test
