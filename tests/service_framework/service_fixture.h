// A service under a fresh platform root, with a probe interface bound to it
// and, when started, its dispatch loop on a thread of its own.
#pragma once

#include <dirent.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "halvorda/desktopenv/desktopenv.pb.h"
#include "halvorda/device/gps/gps.pb.h"
#include "halvorda/service/service.pb.h"
#include "platform/root.h"
#include "platform/service/framework.h"
#include "tests/support/test_env.h"

namespace halvorda::service::test {

inline constexpr const char* kManifest = "file://param/DATAAEC8999.TAR/manifest/local.device.gps.MNF";
inline constexpr uint32_t kWaitMs = 5000;

// Bindings of every kind the services use:
//   SetGetStateRequest  answered with the request's parameters (any role)
//   NotifyRequest       platform roles only; answers, or fails with
//                       notifyResult without answering when that is non-zero
//   WakeupEvent         on the inactivity proxy, counted
//   ConfigurationModifiedEvent  counted
class Probe : public Interfacable {
 public:
  Probe() : Interfacable(Link::LINK_TYPE_STREAM, nullptr) {
    const Permissions anyone(Permissions::ALL_QUILLA_PLATFORM + Permissions::ALL_WEB_PLATFORM + Permissions::PAYMENT +
                             Permissions::QUILLA_P2PE + Permissions::WEB_P2PE + Permissions::VERTICAL +
                             Permissions::ANDROID);
    const Permissions platform(Permissions::ALL_QUILLA_PLATFORM + Permissions::ALL_WEB_PLATFORM);
    bind(new MessageMethodBind<Probe>(this, &Probe::onState, device::gps::SetGetStateRequest::messageType(), anyone));
    bind(new MessageMethodBind<Probe>(this, &Probe::onNotify, desktopenv::NotifyRequest::messageType(), platform));
    bind(new MessageEventBind<Probe, ConfigurationModifiedEvent>(
        this, &Probe::onConfigurationModified, ConfigurationModifiedEvent::getMessageTypeStatic(), platform));
    inactivity.bind(new MessageEventBind<Probe, desktopenv::WakeupEvent>(
        this, &Probe::onWakeup, desktopenv::WakeupEvent::getMessageTypeStatic(), platform));
  }

  os::Error onState(Link& link) {
    const auto request = device::gps::SetGetStateRequest::instantiate();
    if (const os::Error decoded = link.decode(*request); decoded != os::ERROR_NONE) return decoded;
    const auto response = device::gps::SetGetStateResponse::instantiate();
    response->set_allocated_parameters(device::gps::Parameters::newOne(request->parameters()).release());
    lastUid = link.getCertificate().uid();
    return link.send(*response);
  }
  os::Error onNotify(Link& link) {
    if (notifyResult != os::ERROR_NONE) return notifyResult.load();
    const auto response = desktopenv::NotifyResponse::instantiate();
    return link.send(*response);
  }
  os::Error onWakeup(const desktopenv::WakeupEvent&) {
    ++wakeups;
    return os::ERROR_NONE;
  }
  os::Error onConfigurationModified(const ConfigurationModifiedEvent&) {
    ++configurationEvents;
    return os::ERROR_NONE;
  }

  desktopenv::InactivityHandler inactivity;
  std::atomic<os::Error> notifyResult{os::ERROR_NONE};
  std::atomic<int> wakeups{0};
  std::atomic<int> configurationEvents{0};
  std::atomic<uid_t> lastUid{static_cast<uid_t>(-1)};
};

class RunningService {
 public:
  explicit RunningService(const ServiceLimits& limits = {}) : service(kManifest) {
    service.setLimits(limits);
    service.addInterface(&probe);
    service.attachProxy(&probe.inactivity, "", UINT32_MAX);
    Directory directory;
    directory.connect("", UINT32_MAX);
    directory.add(service.getServiceClass(), service.getAddress());
    directory.setReady();
  }
  ~RunningService() { stop(); }

  void start() {
    thread = std::thread([this] {
      while (!stopping) service.dispatch(20);
    });
  }
  void stop() {
    stopping = true;
    if (thread.joinable()) thread.join();
  }

  gps::test::TempRoot root;  // first: the service lives below it
  Service service;
  Probe probe;
  std::atomic<bool> stopping{false};
  std::thread thread;
};

inline int OpenDescriptorCount() {
  int count = 0;
  if (DIR* dir = ::opendir("/proc/self/fd")) {
    while (const dirent* entry = ::readdir(dir))
      if (entry->d_name[0] != '.') ++count;
    ::closedir(dir);
  }
  return count - 1;  // the directory stream itself
}

// Polls a condition for up to kWaitMs.
template <typename Condition>
bool WaitFor(Condition condition) {
  for (int i = 0; i < static_cast<int>(kWaitMs / 5); ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return condition();
}

}  // namespace halvorda::service::test
