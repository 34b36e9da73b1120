#include "Engine/records/QSAtomicInteger.h"

std::shared_ptr<QSAtomicInteger> QSAtomicInteger::initWithCoder(QSDecoder& coder) {
  return initWithValue(coder.decodeInt64());
}
