#include "Engine/server/TestObject.h"

#include "platform/Exception.h"
#include "platform/Log.h"

void TestObject::encodeWithCoder(QSEncoder& coder) const {
  try {
    coder.encodeDouble(time_);
    coder.encodeDate(date_);
  } catch (const platform::Exception& exception) {
    platform::Log::format("Exception %s, %s", exception.name().c_str(), exception.reason().c_str());
  }
}

std::shared_ptr<TestObject> TestObject::initWithCoder(QSDecoder& coder) {
  const double time = coder.decodeDouble();
  coder.decodeDate();
  return std::make_shared<TestObject>(time);
}
