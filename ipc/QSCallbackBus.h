// The engine's second bus connection: the one its clients are called on.
//
// It runs on a thread of its own with its own loop.  Every call to a
// client and every tally object lent to a client lives there, so nothing
// a client does while it is called back (reading a tally, calling the
// engine, hanging) can block the main loop, and the main loop never waits
// for a client.  The connection owns the name com.qsc.skerrow.callbacks,
// which the bus policy lets users call on the tally interface; a client
// reads a tally at the sender of the callback that named it.
//
// `post`, `forgetPeer` and `stop` may be called from any thread but the
// callback thread's own; `connection` and `peer` only from tasks that run on
// the callback thread.  The bus objects made for one client (its proxy, the
// tallies lent to it) are kept in a peer slot: they are destroyed on the
// callback thread, and at the latest when the thread stops, before the
// connection they belong to.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include <sdbus-c++/IConnection.h>

#include "platform/BusConnection.h"
#include "platform/SdEventRunLoop.h"

inline constexpr const char* kCallbackServiceName = "com.qsc.skerrow.callbacks";

class QSCallbackBus {
 public:
  // Connects to `bus` on a new thread; raises platform::Exception when the
  // bus cannot be reached.
  explicit QSCallbackBus(platform::BusConnection::Bus bus);
  // Stops the thread (see stop).
  ~QSCallbackBus();
  QSCallbackBus(const QSCallbackBus&) = delete;
  QSCallbackBus& operator=(const QSCallbackBus&) = delete;

  // Runs `task` on the callback thread; false when it has stopped.
  bool post(std::function<void()> task);
  // The connection; on the callback thread only.
  sdbus::IConnection& connection() { return connection_->connection(); }

  // A new peer identifier, never given out before.
  uint64_t newPeerIdentifier() { return ++lastPeer_; }
  // The objects of peer `identifier`, or nothing; on the callback thread only.
  std::shared_ptr<void> peer(uint64_t identifier) const;
  void setPeer(uint64_t identifier, std::shared_ptr<void> objects) { peers_[identifier] = std::move(objects); }
  // Destroys the peer's objects on the callback thread.
  void forgetPeer(uint64_t identifier);
  // Stops the thread: tasks not yet run are dropped, the peers' objects and
  // then the connection are destroyed.  Later posts answer false.
  void stop();

 private:
  std::unique_ptr<platform::SdEventRunLoop> loop_;
  std::unique_ptr<platform::BusConnection> connection_;
  std::thread thread_;
  std::atomic<uint64_t> lastPeer_{0};
  std::map<uint64_t, std::shared_ptr<void>> peers_;
};
