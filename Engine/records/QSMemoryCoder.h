// An in-memory port coder: records the item stream written through its
// encoder and plays it back through its decoder, checking every item's kind.
// Used where records are copied within the process, and to test the
// records' coding.
//
//   QSMemoryCoder coder;
//   entry->encodeWithCoder(coder.encoder());
//   auto copy = QSBackupEntry::initWithCoder(coder.decoder());
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Engine/records/QSCoder.h"

class QSMemoryCoder {
 public:
  explicit QSMemoryCoder(bool byref = false);
  ~QSMemoryCoder();
  QSMemoryCoder(const QSMemoryCoder&) = delete;
  QSMemoryCoder& operator=(const QSMemoryCoder&) = delete;

  QSEncoder& encoder();
  QSDecoder& decoder();

  size_t itemCount() const;
  // Items not yet decoded.
  size_t remaining() const;
  // Drops the first item and restarts decoding (to test readers on a damaged stream).
  void dropFirstItem();
  // Restarts decoding from the first item.
  void rewind();

  struct Stream;

 private:
  class Encoder;
  class Decoder;
  std::unique_ptr<Stream> stream_;
  std::unique_ptr<Encoder> encoder_;
  std::unique_ptr<Decoder> decoder_;
};
