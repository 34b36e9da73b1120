#include "platform/RunLoop.h"

#include <atomic>

#include "platform/Exception.h"

namespace platform {
namespace {
thread_local RunLoop* tCurrentLoop = nullptr;
thread_local char tThreadTag;
std::atomic<RunLoop*> gMainLoop{nullptr};
}  // namespace

RunLoop::RunLoop() : ownerThread_(&tThreadTag) {
  if (!tCurrentLoop) tCurrentLoop = this;
}

RunLoop::~RunLoop() {
  if (tCurrentLoop == this) tCurrentLoop = nullptr;
  RunLoop* self = this;
  gMainLoop.compare_exchange_strong(self, nullptr);
}

RunLoop* RunLoop::current() { return tCurrentLoop; }
RunLoop* RunLoop::main() { return gMainLoop.load(); }
void RunLoop::setMain(RunLoop* loop) { gMainLoop.store(loop); }

bool RunLoop::isLoopThread() const { return ownerThread_ == &tThreadTag; }

void RunLoop::requireLoopThread(const char* operation) const {
  if (!isLoopThread())
    Exception::raise(kInternalInconsistencyException, "%s must be called on the run loop's own thread", operation);
}

}  // namespace platform
