#include "client/gps_client.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "halvorda/desktopenv/desktopenv.pb.h"
#include "platform/service/directory.h"

namespace gps::client {
namespace {

using halvorda::device::gps::SetGetStateRequest;
using halvorda::device::gps::SetGetStateResponse;
namespace service = halvorda::service;

uint32_t ToMs(std::chrono::milliseconds timeout) {
  return static_cast<uint32_t>(std::clamp<std::chrono::milliseconds::rep>(timeout.count(), 0, UINT32_MAX - 1));
}

bool ProcessAlive(pid_t pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

// A connection attempt that ran out of time: the service is not running when
// its socket is gone or the process that registered it has ended; otherwise
// it is there but did not accept in time.
Error AfterConnectTimeout(const std::string& serviceClass) {
  const auto entry = service::Directory::Lookup(serviceClass);
  const auto path = service::Directory::Resolve(serviceClass);
  struct stat st{};
  if (!entry || !path || ::stat(path->c_str(), &st) != 0)
    return Error(kServiceNotRunning, serviceClass + ": no socket");
  if (!ProcessAlive(entry->pid))
    return Error(kServiceNotRunning, serviceClass + ": process " + std::to_string(entry->pid) + " has ended");
  return Error(service::ERROR_TIMEOUT, serviceClass + " does not accept connections");
}

}  // namespace

Result<GpsClient> GpsClient::Connect(std::chrono::milliseconds timeout, const std::string& serviceClass) {
  service::ClientConnection connection;
  const Code result = connection.connect(serviceClass, ToMs(timeout));
  if (result == service::ERROR_NOT_FOUND) return Error(kServiceNotRunning, serviceClass + " is not registered");
  if (result == service::ERROR_TIMEOUT) return AfterConnectTimeout(serviceClass);
  if (result != halvorda::os::ERROR_NONE) return Error(result, "connecting to " + serviceClass);
  return GpsClient(std::move(connection), timeout);
}

uint32_t GpsClient::timeoutMs() const { return ToMs(timeout_); }

Result<Reply> GpsClient::exchange(const SetGetStateRequest& request) {
  SetGetStateResponse response;
  if (const Code result = connection_.request(request, response, timeoutMs()); result != halvorda::os::ERROR_NONE)
    return Error(result);
  return Reply(std::move(response));
}

Result<Reply> GpsClient::GetState() { return exchange(SetGetStateRequest()); }

Result<Reply> GpsClient::SetParameters(std::optional<bool> poweron, std::optional<bool> keepon) {
  SetGetStateRequest request;
  // The parameters field is present even when both are absent: the service
  // then treats the request as a (permission-checked) change of nothing.
  auto* parameters = request.mutable_parameters();
  if (poweron) parameters->set_poweron(*poweron);
  if (keepon) parameters->set_keepon(*keepon);
  return exchange(request);
}

Error GpsClient::Standby() {
  halvorda::desktopenv::NotifyResponse response;
  return Error(connection_.request(halvorda::desktopenv::NotifyRequest(), response, timeoutMs()));
}

Error GpsClient::Wakeup() { return Error(connection_.sendEvent(halvorda::desktopenv::WakeupEvent(), timeoutMs())); }

}  // namespace gps::client
