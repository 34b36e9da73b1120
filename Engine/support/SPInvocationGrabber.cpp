#include "Engine/support/SPInvocationGrabber.h"

#include "platform/Backtrace.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/OVThread.h"
#include "platform/RunLoop.h"

SPInvocationGrabberBase::SPInvocationGrabberBase(bool saveStack) {
  if (saveStack) saveBacktrace();
}

SPInvocationGrabberBase::~SPInvocationGrabberBase() = default;

void SPInvocationGrabberBase::saveBacktrace() { frames_ = platform::Backtrace::capture(kMaxFrames); }

void SPInvocationGrabberBase::printBacktrace() const {
  const std::vector<std::string> lines = platform::Backtrace::symbolize(frames_);
  std::string out;
  for (size_t i = kSkippedFrames; i < lines.size(); ++i) {
    if (lines[i].empty()) break;
    out += lines[i];
    out += '\n';
  }
  platform::Log::writeStandardOutput(out);
}

void SPInvocationGrabberBase::forwardInvocation(std::function<void()> call) {
  invocation_ = std::move(call);
  auto self = this->self<SPInvocationGrabberBase>();
  if (backgroundAfterForward_) {
    platform::OVThread::detachNewThread([self] { self->runInBackground(); }, "SPInvocationGrabber");
  } else if (onMainAfterForward_) {
    platform::RunLoop* main = platform::RunLoop::main();
    if (!main)
      platform::Exception::raise(platform::kInternalInconsistencyException,
                                 "no main run loop to perform the call on");
    if (waitUntilDone_)
      main->postAndWait([self] { self->invoke(); });
    else
      main->post([self] { self->invoke(); });
  }
  // Otherwise the call waits for a timer (or any caller) to send invoke.
}

void SPInvocationGrabberBase::invoke() {
  std::function<void()> call = std::move(invocation_);
  invocation_ = nullptr;
  struct Clear {
    SPInvocationGrabberBase* grabber;
    std::function<void()>* call;
    ~Clear() {
      *call = nullptr;  // releases the arguments
      grabber->clearObject();
    }
  } clear{this, &call};
  if (!call) return;
  try {
    call();
  } catch (const platform::Exception& e) {
    platform::Log::format("SPInvocationGrabber's target raised %s:\n\t%s\nInvocation was originally scheduled at:",
                          e.name().c_str(), e.description().c_str());
    printBacktrace();
    platform::Log::writeStandardOutput("\n");
    throw;
  }
}

void SPInvocationGrabberBase::runInBackground() { invoke(); }

void scheduleGrabberOnCurrentRunLoop(const std::shared_ptr<SPInvocationGrabberBase>& grabber, double seconds) {
  platform::RunLoop* loop = platform::RunLoop::current();
  if (!loop)
    platform::Exception::raise(platform::kInternalInconsistencyException,
                               "the calling thread has no run loop to schedule the call on");
  loop->addOneShotTimer(seconds, [grabber] { grabber->invoke(); });
}
