// skerrowd: the Skerrow backup engine.
//
// Wires the process together: the main run loop, the engine server, its bus
// connection and the mount notices; then serves until it is told to stop.
#include <chrono>
#include <iostream>
#include <memory>
#include <string>

#include "Engine/conversion/QSBackupConverter.h"
#include "Engine/files/QSFSNodeStack.h"
#include "Engine/records/QSVolumeFunctions.h"
#include "Engine/server/QSSkerrowServer.h"
#include "ipc/QSCallbackBus.h"
#include "ipc/QSServiceRegistry.h"
#include "ipc/QSSkerrowServerAdaptor.h"
#include "platform/BusConnection.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/MountMonitor.h"
#include "platform/OVThread.h"
#include "platform/Process.h"
#include "platform/SdEventRunLoop.h"
#include "platform/Version.h"
#include "platform/VolumeService.h"
#include "platform/Workspace.h"

namespace {

// How long the pipeline's threads get to stop at a SIGTERM; the whole exit
// stays within the 2 s a service manager is promised.
constexpr std::chrono::milliseconds kPipelineStopTimeout{1500};
// How long conversions of older backups get to stop (they stop at their next
// file; the volume keeps the state reached, and the next start resumes).
constexpr std::chrono::milliseconds kConverterStopTimeout{300};

// "-userApp" (any letter case) runs the engine for the invoking user on the session bus.
bool runsAsUserApp() {
  for (const std::string& argument : platform::Process::arguments())
    if (QSNameIs(argument, "-userApp")) return true;
  return false;
}

// "--version" prints the version and starts nothing.
bool asksForVersion() {
  const auto arguments = platform::Process::arguments();
  for (size_t i = 1; i < arguments.size(); ++i)
    if (arguments[i] == "--version") return true;
  return false;
}

}  // namespace

int main() {
  if (asksForVersion()) {
    std::cout << "skerrowd " << platform::projectVersion() << "\n";
    return 0;
  }
  // The loop comes first: it blocks SIGTERM and SIGINT, which every thread started later inherits.
  platform::OVThread::markCurrentAsMainThread();
  platform::SdEventRunLoop loop(platform::SdEventRunLoop::Options{true});
  platform::RunLoop::setMain(&loop);

  platform::Log::line("server is launching...");
  try {
    const auto busKind = runsAsUserApp() ? platform::BusConnection::Bus::Session : platform::BusConnection::Bus::System;
    auto bus = platform::BusConnection::open(busKind);
    auto callbacks = std::make_shared<QSCallbackBus>(busKind);
    auto server = QSSkerrowServer::instance();
    // Every volume that appears gets a converter of the older product's backups.
    server->setConverterFactory([](const std::string& mountPath, QSBackupConverterDelegate* delegate) {
      return QSBackupConverter::initWithDelegate_forVolume(delegate, mountPath);
    });
    QSServiceRegistry services(bus->connection(), loop, callbacks, server);
    QSSkerrowServerAdaptor adaptor(bus->connection(), server, services);
    bus->attachToRunLoop(loop);
    std::string reason;
    if (!bus->requestName(kServiceName, &reason))
      platform::Log::format("Unable to register the name %s (%s); going on without it", kServiceName, reason.c_str());
    platform::Log::line("sconnection configured...");

    // The workspace's mount notices, from the kernel's mount table.  The
    // monitor reads the table before the volumes are announced, so a disk
    // pulled or plugged in meanwhile is still noticed.
    platform::MountMonitor monitor(loop, platform::VolumeService::system(), [](const platform::MountChange& change) {
      platform::postWorkspaceNotice(change.kind == platform::MountChange::Kind::Mounted
                                        ? platform::NSWorkspaceDidMountNotification
                                        : platform::NSWorkspaceDidUnmountNotification,
                                    change.mountPoint);
    });

    for (const auto& [bsdName, volume] : QSVolumeInfoForLocalVolumes())
      server->diskDidAppearWithBSDName_mountPath_onVolume(volume->bsdName(), volume->mountPoint(), volume->volumeName());

    const size_t left = loop.run();
    if (left) platform::Log::format("%zu requests handed to the main loop were not served before it stopped", left);
    if (loop.stoppedBySignal()) platform::Log::format("Stopped by signal %d", loop.stoppedBySignal());
    // Clients are no longer called; their bus objects go with the callback thread.
    callbacks->stop();
    if (!server->stopConverters(kConverterStopTimeout)) platform::Log::line("A conversion did not stop in time");
    // The walks and copies under way stop at their next check (a copy within
    // one chunk, its temporary file removed), so no thread outlives main.
    if (!server->stopPipeline(kPipelineStopTimeout))
      platform::Log::line("Some backup threads did not stop in time");
    server->saveBackupDatabase();
  } catch (const platform::Exception& e) {
    platform::Log::format("%s", e.description().c_str());
  } catch (...) {
    platform::Log::line("exiting...");
    throw;
  }
  platform::Log::line("exiting...");
  return 0;
}
