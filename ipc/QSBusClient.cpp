#include "ipc/QSBusClient.h"

#include <deque>
#include <exception>
#include <future>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "ipc/QSTallyAdaptor.h"
#include "ipc/WireCoding.h"
#include "ipc/WireTypes.h"
#include "platform/Exception.h"
#include "platform/OVThread.h"

namespace {

std::atomic<uint64_t> gLastTally{0};

std::exception_ptr failure(const std::string& reason) {
  return std::make_exception_ptr(platform::Exception(platform::kObjectInaccessibleException, reason));
}

std::string describe(const sdbus::Error& error) { return error.getName() + ": " + error.getMessage(); }

// Asks `member`, a method answering one string, and hands over the answer or the failure.
void askString(sdbus::IProxy& proxy, const char* member, std::function<void(std::string, std::string)> then) {
  auto message = proxy.createMethodCall(QSBusClient::kInterface, member);
  proxy.callMethod(
      message,
      [then = std::move(then)](sdbus::MethodReply& reply, const sdbus::Error* error) {
        if (error) return then({}, describe(*error));
        std::string value;
        try {
          reply >> value;
        } catch (const sdbus::Error& e) {
          return then({}, describe(e));
        }
        then(std::move(value), {});
      },
      QSBusClient::kCallTimeout);
}

}  // namespace

// The client's bus objects, on the callback thread: the proxy of its
// callback object and the tallies lent to it, oldest first.
struct QSBusClient::Peer {
  sdbus::IConnection* connection = nullptr;
  std::unique_ptr<sdbus::IProxy> proxy;
  std::deque<std::unique_ptr<QSTallyAdaptor>> lent;

  sdbus::ObjectPath lend(const Tally& tally) {
    for (const auto& adaptor : lent)
      if (adaptor->tally() == tally) return adaptor->getObjectPath();
    const std::string path = "/com/qsc/skerrow/tally/" + std::to_string(++gLastTally);
    lent.push_back(std::make_unique<QSTallyAdaptor>(*connection, path, tally));
    if (lent.size() > kLentTallies) lent.pop_front();
    return sdbus::ObjectPath(path);
  }
};

void QSBusClient::connect(const std::shared_ptr<QSCallbackBus>& bus, platform::RunLoop& answerLoop,
                          const std::string& destination, const std::string& path, Connected done) {
  struct Query {
    std::shared_ptr<QSCallbackBus> bus;
    platform::RunLoop* answerLoop;
    std::string destination;
    std::string path;
    uint64_t peer;
    Names names;
    Connected done;
  };
  auto query = std::make_shared<Query>(
      Query{bus, &answerLoop, destination, path, bus->newPeerIdentifier(), {}, std::move(done)});
  // On the callback thread, from a reply handler: hand the outcome to the
  // answer loop.  The peer (whose proxy owns the running handler) is
  // dropped later, never from inside its own handler.
  auto finish = [](std::shared_ptr<Query> q, const std::string& why) {
    if (!why.empty()) q->bus->forgetPeer(q->peer);
    q->answerLoop->post([q, why] {
      if (!why.empty()) return q->done(nullptr, why);
      q->done(std::shared_ptr<QSBusClient>(new QSBusClient(q->bus, q->peer, q->destination, std::move(q->names))), {});
    });
  };
  const bool posted = bus->post([query, finish] {
    auto peer = std::make_shared<Peer>();
    peer->connection = &query->bus->connection();
    try {
      peer->proxy = sdbus::createProxy(*peer->connection, query->destination, query->path);
    } catch (const sdbus::Error& e) {
      return finish(query, describe(e));
    }
    query->bus->setPeer(query->peer, peer);
    sdbus::IProxy& proxy = *peer->proxy;
    askString(proxy, "shortUserName", [query, finish, &proxy](std::string shortName, std::string why) {
      if (!why.empty()) return finish(query, why);
      query->names.shortUserName = std::move(shortName);
      askString(proxy, "longUserName", [query, finish, &proxy](std::string longName, std::string why) {
        if (!why.empty()) return finish(query, why);
        query->names.longUserName = std::move(longName);
        askString(proxy, "userHome", [query, finish, &proxy](std::string home, std::string why) {
          if (!why.empty()) return finish(query, why);
          query->names.userHome = std::move(home);
          auto message = proxy.createMethodCall(kInterface, "maximumContiguousErrorsClientWants");
          proxy.callMethod(
              message,
              [query, finish](sdbus::MethodReply& reply, const sdbus::Error* error) {
                if (error) return finish(query, describe(*error));
                try {
                  reply >> query->names.maximumContiguousErrors;
                } catch (const sdbus::Error& e) {
                  return finish(query, describe(e));
                }
                finish(query, {});
              },
              kCallTimeout);
        });
      });
    });
  });
  if (!posted) query->done(nullptr, "the engine is stopping");
}

QSBusClient::QSBusClient(std::shared_ptr<QSCallbackBus> bus, uint64_t peer, std::string destination, Names names)
    : bus_(std::move(bus)),
      peer_(peer),
      destination_(std::move(destination)),
      shortUserName_(std::move(names.shortUserName)),
      longUserName_(std::move(names.longUserName)),
      userHome_(std::move(names.userHome)),
      maximumContiguousErrorsAtConnection_(names.maximumContiguousErrors) {}

QSBusClient::~QSBusClient() { bus_->forgetPeer(peer_); }

void QSBusClient::raiseGone() const {
  platform::Exception::raise(platform::kObjectInaccessibleException, "The client %s has left the bus",
                             destination_.c_str());
}

void QSBusClient::call(const char* member, Fill fill, Read read, bool oneWay) {
  if (isGone()) raiseGone();
  auto answer = std::make_shared<std::promise<void>>();
  auto future = answer->get_future();
  QSCallbackBus* bus = bus_.get();
  const bool posted = bus_->post([bus, peerIdentifier = peer_, gone = gone_, member, fill = std::move(fill),
                                  read = std::move(read), oneWay, answer] {
    auto fail = [&](const std::string& why) {
      gone->store(true);
      answer->set_exception(failure(why));
    };
    const auto peer = std::static_pointer_cast<Peer>(bus->peer(peerIdentifier));
    if (!peer) return fail("the client has left the bus");
    try {
      auto message = peer->proxy->createMethodCall(kInterface, member);
      fill(message, *peer);
      if (oneWay) {
        message.dontExpectReply();
        peer->proxy->callMethod(message);
        return answer->set_value();
      }
      peer->proxy->callMethod(
          message,
          [gone, read, answer](sdbus::MethodReply& reply, const sdbus::Error* error) {
            if (error) {
              gone->store(true);
              return answer->set_exception(failure(describe(*error)));
            }
            try {
              if (read) read(reply);
            } catch (const sdbus::Error& e) {
              gone->store(true);
              return answer->set_exception(failure(describe(e)));
            }
            answer->set_value();
          },
          kCallTimeout);
    } catch (const sdbus::Error& e) {
      fail(describe(e));
    }
  });
  if (!posted) {
    markGone();
    raiseGone();
  }
  // The main loop serves the engine's requests: it never waits for a client.
  if (oneWay || platform::OVThread::isMainThread()) return;
  // The reply, or its time-out, comes from the callback thread; the margin
  // covers a callback thread that has stopped.
  if (future.wait_for(kCallTimeout + std::chrono::seconds(5)) != std::future_status::ready) {
    markGone();
    raiseGone();
  }
  future.get();
}

void QSBusClient::tallyCall(const char* member, const Tally& tally, const std::string* uid) {
  std::optional<std::string> withUID;
  if (uid) withUID = *uid;
  call(member, [tally, withUID](sdbus::MethodCall& message, Peer& peer) {
    message << peer.lend(tally);
    if (withUID) message << *withUID;
  }, nullptr);
}

void QSBusClient::startedSourceTally(const Tally& tally) { tallyCall("startedSourceTally", tally, nullptr); }

void QSBusClient::computingSourceTally(const Tally& tally) { tallyCall("computingSourceTally", tally, nullptr); }

void QSBusClient::finishedSourceTally(const Tally& tally) { tallyCall("finishedSourceTally", tally, nullptr); }

void QSBusClient::startedDestinationTally_withUID(const Tally& tally, const std::string& uid) {
  tallyCall("startedDestinationTally_withUID", tally, &uid);
}

void QSBusClient::computingDestinationTally_withUID(const Tally& tally, const std::string& uid) {
  tallyCall("computingDestinationTally_withUID", tally, &uid);
}

void QSBusClient::finishedDestinationTally_withUID(const Tally& tally, const std::string& uid) {
  tallyCall("finishedDestinationTally_withUID", tally, &uid);
}

void QSBusClient::startedTransferTally_withUID(const Tally& tally, const std::string& uid) {
  tallyCall("startedTransferTally_withUID", tally, &uid);
}

void QSBusClient::computingTransferTally_withUID(const Tally& tally, const std::string& uid) {
  tallyCall("computingTransferTally_withUID", tally, &uid);
}

void QSBusClient::finishedTransferTally_withUID(const Tally& tally, const std::string& uid) {
  tallyCall("finishedTransferTally_withUID", tally, &uid);
}

void QSBusClient::startedRealtimeTransferOfFile_to(const std::string& source, const std::string& destination) {
  call("startedRealtimeTransferOfFile_to",
       [source, destination](sdbus::MethodCall& message, Peer&) { message << source << destination; }, nullptr);
}

void QSBusClient::finishedRealtimeTransferOfFile_to_withResult(const std::string& source,
                                                               const std::string& destination, bool result) {
  call("finishedRealtimeTransferOfFile_to_withResult",
       [source, destination, result](sdbus::MethodCall& message, Peer&) {
         message << source << destination << result;
       },
       nullptr);
}

void QSBusClient::error(const QSBackupError& error) {
  auto record = std::make_shared<wire::ErrorWire>(wire::toWire<wire::ErrorWire>(error));
  call("error", [record](sdbus::MethodCall& message, Peer&) { message << *record; }, nullptr, true);
}

void QSBusClient::stoppedDueToErrorsForBackup(const std::string& uid) {
  call("stoppedDueToErrorsForBackup", [uid](sdbus::MethodCall& message, Peer&) { message << uid; }, nullptr);
}

uint64_t QSBusClient::maximumContiguousErrorsClientWants() {
  if (isGone()) raiseGone();
  if (platform::OVThread::isMainThread()) return maximumContiguousErrorsAtConnection_;
  auto maximum = std::make_shared<uint64_t>(0);
  call("maximumContiguousErrorsClientWants", [](sdbus::MethodCall&, Peer&) {},
       [maximum](sdbus::MethodReply& reply) { reply >> *maximum; });
  return *maximum;
}

void QSBusClient::conversionChangedState_forMountPath(const std::string& state, const std::string& mountPath) {
  call("conversionChangedState_forMountPath",
       [state, mountPath](sdbus::MethodCall& message, Peer&) { message << state << mountPath; }, nullptr);
}
