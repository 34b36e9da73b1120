// skerrowctl agent: the per-user program of the desktop session.  It keeps
// a client connection to the engine, looks at the user's backups every two
// seconds (their disks and each one's last outcome, which the engine keeps
// whoever started the backup), hears conversion news as callbacks, and
// shows what matters as desktop notifications (see AgentWatch).  When the
// engine goes away it tries again each second and says "Awake" when it is
// back.  One agent per user session: a second one leaves at once.
#include <csignal>
#include <iostream>
#include <thread>

#include <sdbus-c++/sdbus-c++.h>

#include "tools/skerrowctl/AgentWatch.h"
#include "tools/skerrowctl/CommandsInternal.h"
#include "tools/skerrowctl/FreedesktopNotifier.h"

namespace skerrowctl {

namespace {

constexpr auto kLookInterval = std::chrono::seconds(2);
constexpr const char* kAgentName = "com.qsc.skerrow.agent";

volatile sig_atomic_t gStop = 0;
extern "C" void onStop(int) { gStop = 1; }

double steadyNow() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Conversion news arrive as callbacks while the agent waits.
struct AgentCallbacks : QSClientCallbacks {
  AgentWatch* watch = nullptr;
  void conversionChanged(const std::string& state, const std::string& mountPath) override {
    if (watch) watch->conversionChanged(state, mountPath, steadyNow());
  }
};

}  // namespace

int agentCommand(Context& c) {
  struct sigaction action {};
  action.sa_handler = onStop;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  // One agent per session: the name is the lock, held while the agent runs.
  std::unique_ptr<sdbus::IConnection> sessionBus;
  try {
    sessionBus = sdbus::createSessionBusConnection(kAgentName);
  } catch (const sdbus::Error& e) {
    fail("another agent runs in this session, or there is no session bus (" + e.getMessage() + ")");
  }
  FreedesktopNotifier notifier;
  AgentWatch watch(notifier);
  AgentCallbacks callbacks;
  callbacks.watch = &watch;
  bool connected = false;
  std::string lastProblem;
  while (!gStop) {
    try {
      if (!connected) {
        c.session.reset();
        c.connect(&callbacks).service();
        connected = true;
        lastProblem.clear();
        watch.engineAwake(steadyNow());
        c.err << "skerrowctl agent: connected to the engine\n" << std::flush;
      }
      std::vector<AgentWatch::BackupState> states;
      for (const auto& [uid, entry] : c.backups())
        states.push_back({uid, entry->volumeName(), entry->mountPoint(), c.outcomeOf(uid)});
      watch.observe(states, steadyNow());
      watch.tick(steadyNow());
      c.connect().pump(kLookInterval, [] { return gStop != 0; });
    } catch (const sdbus::Error& e) {
      if (connected || lastProblem != e.getName())
        c.err << "skerrowctl agent: the engine is away (" << e.getMessage() << "); trying again\n" << std::flush;
      lastProblem = e.getName();
      connected = false;
      c.session.reset();
      for (int i = 0; i < 10 && !gStop; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  return kExitOK;
}

}  // namespace skerrowctl
