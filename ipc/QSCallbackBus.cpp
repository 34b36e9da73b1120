#include "ipc/QSCallbackBus.h"

#include <exception>
#include <future>
#include <string>

#include "platform/Log.h"

QSCallbackBus::QSCallbackBus(platform::BusConnection::Bus bus) {
  std::promise<void> ready;
  auto started = ready.get_future();
  thread_ = std::thread([this, bus, &ready] {
    try {
      loop_ = std::make_unique<platform::SdEventRunLoop>();
      connection_ = platform::BusConnection::open(bus);
      connection_->attachToRunLoop(*loop_);
      std::string reason;
      if (!connection_->requestName(kCallbackServiceName, &reason))
        platform::Log::format("Unable to register the name %s (%s); clients cannot read tallies", kCallbackServiceName,
                              reason.c_str());
    } catch (...) {
      ready.set_exception(std::current_exception());
      return;
    }
    ready.set_value();
    loop_->run();
    // The peers' objects belong to the connection and go first, on the thread that served them.
    peers_.clear();
    connection_.reset();
  });
  try {
    started.get();
  } catch (...) {
    thread_.join();
    throw;
  }
}

QSCallbackBus::~QSCallbackBus() { stop(); }

void QSCallbackBus::stop() {
  if (loop_) loop_->stop();
  if (thread_.joinable()) thread_.join();
}

void QSCallbackBus::forgetPeer(uint64_t identifier) {
  post([this, identifier] { peers_.erase(identifier); });
}

bool QSCallbackBus::post(std::function<void()> task) { return loop_ && loop_->post(std::move(task)); }

std::shared_ptr<void> QSCallbackBus::peer(uint64_t identifier) const {
  const auto it = peers_.find(identifier);
  return it == peers_.end() ? nullptr : it->second;
}
