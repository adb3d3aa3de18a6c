// A stand-in for the GPS service, built on the real framework under a fresh
// platform root: it records the state requests it receives and answers them
// with a scripted response, or fails with a scripted code; it answers or
// fails standby notices, counts wake-ups and configuration changes.
#pragma once

#include <google/protobuf/text_format.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/service_framework/service_fixture.h"

namespace gps::client::test {

using halvorda::device::gps::Parameters;
using halvorda::device::gps::SetGetStateRequest;
using halvorda::device::gps::SetGetStateResponse;
using halvorda::device::gps::State;
using halvorda::service::test::kManifest;
using halvorda::service::test::kWaitMs;
using halvorda::service::test::WaitFor;
namespace service = halvorda::service;
namespace os = halvorda::os;

class ScriptedGps : public service::Interfacable {
 public:
  ScriptedGps() : Interfacable(service::Link::LINK_TYPE_STREAM, nullptr) {
    using service::Permissions;
    const Permissions anyone(Permissions::ALL_QUILLA_PLATFORM + Permissions::ALL_WEB_PLATFORM + Permissions::PAYMENT +
                             Permissions::QUILLA_P2PE + Permissions::WEB_P2PE + Permissions::VERTICAL +
                             Permissions::ANDROID);
    bind(new service::MessageMethodBind<ScriptedGps>(this, &ScriptedGps::onState, SetGetStateRequest::messageType(),
                                                     anyone));
    bind(new service::MessageMethodBind<ScriptedGps>(this, &ScriptedGps::onNotify,
                                                     halvorda::desktopenv::NotifyRequest::messageType(), anyone));
    bind(new service::MessageEventBind<ScriptedGps, service::ConfigurationModifiedEvent>(
        this, &ScriptedGps::onConfigurationModified, anyone));
    inactivity.bind(new service::MessageEventBind<ScriptedGps, halvorda::desktopenv::WakeupEvent>(
        this, &ScriptedGps::onWakeup, anyone));
  }

  void script(const SetGetStateResponse& response) {
    std::lock_guard lock(mutex_);
    reply_ = response;
  }
  std::vector<SetGetStateRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

  halvorda::desktopenv::InactivityHandler inactivity;
  std::atomic<os::Error> stateResult{os::ERROR_NONE};
  std::atomic<os::Error> notifyResult{os::ERROR_NONE};
  std::atomic<int> notifies{0};
  std::atomic<int> wakeups{0};
  std::atomic<int> configurationEvents{0};

 private:
  os::Error onState(service::Link& link) {
    SetGetStateRequest request;
    if (const os::Error decoded = link.decode(request); decoded != os::ERROR_NONE) return decoded;
    std::lock_guard lock(mutex_);
    requests_.push_back(request);
    if (stateResult != os::ERROR_NONE) return stateResult;
    return link.send(reply_);
  }
  os::Error onNotify(service::Link& link) {
    ++notifies;
    if (notifyResult != os::ERROR_NONE) return notifyResult;
    return link.send(halvorda::desktopenv::NotifyResponse());
  }
  os::Error onWakeup(const halvorda::desktopenv::WakeupEvent&) {
    ++wakeups;
    return os::ERROR_NONE;
  }
  os::Error onConfigurationModified(const service::ConfigurationModifiedEvent&) {
    ++configurationEvents;
    return os::ERROR_NONE;
  }

  mutable std::mutex mutex_;
  SetGetStateResponse reply_;
  std::vector<SetGetStateRequest> requests_;
};

// The service registered and dispatching on its own thread, its stored
// configuration attached, for the object's life.
class ScriptedService {
 public:
  // The attributes go in the service's directory entry.
  explicit ScriptedService(const service::DirectoryAttributes& attributes = {}) : service_(kManifest) {
    service_.addInterface(&gps);
    service_.attachProxy(&gps.inactivity, "", UINT32_MAX);
    service_.attachConfig(&stored_, false);
    service::Directory directory;
    directory.connect("", UINT32_MAX);
    directory.add(service_.getServiceClass(), service_.getAddress(), attributes);
    directory.setReady();
    thread_ = std::thread([this] {
      while (!stopping_) service_.dispatch(20);
    });
  }
  ~ScriptedService() {
    stopping_ = true;
    thread_.join();
  }

  gps::test::TempRoot root;  // first: everything below lives in it
  ScriptedGps gps;

 private:
  Parameters stored_;  // outlives the service it is attached to
  service::Service service_;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

// A state a receiver with a fix would report: 4807.038N 12345.6789W.
inline SetGetStateResponse ResponseWithFix() {
  SetGetStateResponse response;
  google::protobuf::TextFormat::ParseFromString(R"(
    parameters { poweron: true keepon: false }
    state {
      date { day: 5 month: 3 year: 2024 hour: 7 minute: 8 second: 9 }
      latitude: 288703800 longitude: -742567890 strlatitude: "4807.038N" strlongitude: "12345.6789W"
      altitude: "545.4" hdop: "0.9" speedkmh: "12.5" heading: "271.3" age: 0 old: false ttff: 28500
    })", &response);
  return response;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

struct ToolRun {
  int exitCode = -1;  // -1: did not exit normally
  std::string out;
  std::string err;
};

// Runs gps-servicectl as a child process under the current platform root (the
// arguments need no shell quoting).
inline ToolRun RunServicectl(const gps::test::TempRoot& root, const std::vector<std::string>& args) {
  const std::string errPath = root / "gps-servicectl.err";
  std::string command = SERVICECTL_BINARY;
  for (const std::string& arg : args) command += " " + arg;
  ToolRun run;
  FILE* pipe = ::popen((command + " 2>" + errPath).c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) run.out.append(buffer, n);
  const int status = ::pclose(pipe);
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.err = ReadFile(errPath);
  return run;
}

}  // namespace gps::client::test
