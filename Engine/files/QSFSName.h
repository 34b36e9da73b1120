// A file name as the file trees keep it: one pointer wide.
//
// A tree holds a name for every item of a home folder, so the name is one
// heap block (its length, its bytes and a closing NUL) behind one pointer,
// instead of a 32-byte string that still allocates for names longer than
// 15 bytes (most names in a home folder are).  The empty name holds no block.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

class QSFSName {
 public:
  QSFSName() = default;
  explicit QSFSName(std::string_view text);
  QSFSName(const QSFSName& other) : QSFSName(other.view()) {}
  QSFSName(QSFSName&& other) noexcept : block_(other.block_) { other.block_ = nullptr; }
  QSFSName& operator=(const QSFSName& other);
  QSFSName& operator=(QSFSName&& other) noexcept;
  ~QSFSName();

  std::string_view view() const {
    if (!block_) return {};
    uint32_t length;
    __builtin_memcpy(&length, block_, sizeof length);
    return {block_ + sizeof length, length};
  }
  std::string str() const { return std::string(view()); }
  // NUL-terminated.
  const char* c_str() const { return block_ ? block_ + sizeof(uint32_t) : ""; }
  bool empty() const { return block_ == nullptr; }

 private:
  char* block_ = nullptr;  // [uint32_t length][bytes][NUL]
};
