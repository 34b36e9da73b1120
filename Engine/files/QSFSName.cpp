#include "Engine/files/QSFSName.h"

#include <cstring>
#include <limits>

#include "platform/Exception.h"

QSFSName::QSFSName(std::string_view text) {
  if (text.empty()) return;
  if (text.size() > std::numeric_limits<uint32_t>::max()) platform::Exception::raise("NSInvalidArgumentException", "file name of %zu bytes", text.size());
  const auto length = static_cast<uint32_t>(text.size());
  block_ = new char[sizeof length + length + 1];
  std::memcpy(block_, &length, sizeof length);
  std::memcpy(block_ + sizeof length, text.data(), length);
  block_[sizeof length + length] = '\0';
}

QSFSName& QSFSName::operator=(const QSFSName& other) {
  if (this != &other) *this = QSFSName(other.view());
  return *this;
}

QSFSName& QSFSName::operator=(QSFSName&& other) noexcept {
  if (this != &other) {
    delete[] block_;
    block_ = other.block_;
    other.block_ = nullptr;
  }
  return *this;
}

QSFSName::~QSFSName() { delete[] block_; }
