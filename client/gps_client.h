// An application's connection to the GPS service (class local.device.gps):
// read the receiver's state, change the power parameters, and pass on the
// desktop environment's standby and wake-up. One request at a time; a
// GpsClient is not shared between threads.
//
//   auto client = gps::client::GpsClient::Connect(std::chrono::milliseconds(2000));
//   if (!client) return Report(client.error());
//   auto reply = client->GetState();
//   if (reply && reply->state()) Show(*reply->state());
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "client/error.h"
#include "halvorda/device/gps/gps.pb.h"
#include "platform/service/client.h"

namespace gps::client {

inline constexpr const char* kServiceClass = "local.device.gps";
inline constexpr std::chrono::milliseconds kDefaultTimeout{2000};

// The service's answer to a state request: its parameters as they stand
// after the request, and the receiver's state when the receiver is on and
// the request changed nothing.
class Reply {
 public:
  Reply() = default;
  explicit Reply(halvorda::device::gps::SetGetStateResponse response) : response_(std::move(response)) {}

  const halvorda::device::gps::Parameters& parameters() const { return response_.parameters(); }
  // Null when the response carries no state.
  const halvorda::device::gps::State* state() const { return response_.has_state() ? &response_.state() : nullptr; }
  // An absent parameter reads as false, as the service treats it.
  bool poweron() const { return parameters().poweron(); }
  bool keepon() const { return parameters().keepon(); }
  const halvorda::device::gps::SetGetStateResponse& response() const { return response_; }

 private:
  halvorda::device::gps::SetGetStateResponse response_;
};

class GpsClient {
 public:
  // Finds the service in the directory and connects, waiting up to the
  // timeout for it to appear. kServiceNotRunning when the class is not
  // registered, its socket is gone or its process has ended. The timeout
  // also bounds each later request.
  static Result<GpsClient> Connect(std::chrono::milliseconds timeout = kDefaultTimeout,
                                   const std::string& serviceClass = kServiceClass);

  // A state request without parameters: needs only the right to read.
  Result<Reply> GetState();
  // A state request carrying the given parameters; an absent one is left
  // out of the request and so stays as the service has it. The service
  // admits only platform, payment and P2PE callers (kServicePermission).
  Result<Reply> SetParameters(std::optional<bool> poweron, std::optional<bool> keepon);
  // The desktop environment's standby notice (NotifyRequest); returns once
  // the service answered it.
  Error Standby();
  // The desktop environment's wake-up (WakeupEvent). An event has no
  // answer: success means it was handed to the service's socket, not that
  // the service accepted it.
  Error Wakeup();

  void setTimeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }
  std::chrono::milliseconds timeout() const { return timeout_; }

 private:
  GpsClient(halvorda::service::ClientConnection connection, std::chrono::milliseconds timeout)
      : connection_(std::move(connection)), timeout_(timeout) {}
  Result<Reply> exchange(const halvorda::device::gps::SetGetStateRequest& request);
  uint32_t timeoutMs() const;

  halvorda::service::ClientConnection connection_;
  std::chrono::milliseconds timeout_;
};

}  // namespace gps::client
