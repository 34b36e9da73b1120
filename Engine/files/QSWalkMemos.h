// The memo of the last complete walk of each place walked warm (a home
// folder, a backup folder), by the place's path, for the engine's life.
// Thread-safe; memos are shared, never changed once kept.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Engine/files/QSWalkMemo.h"

class QSWalkMemos {
 public:
  static QSWalkMemos& shared();

  std::shared_ptr<const QSWalkMemo> memoFor(const std::string& root) const;
  void keep(const std::string& root, std::shared_ptr<const QSWalkMemo> memo);
  // Forgets the memos of `root` and of every place below it.
  void forget(const std::string& root);
  void forgetAll();
  size_t count() const;
  size_t byteCount() const;

 private:
  mutable std::mutex lock_;
  std::map<std::string, std::shared_ptr<const QSWalkMemo>> memos_;
};
