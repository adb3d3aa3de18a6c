// The GPS service object: starts the engine, keeps the service's parameters
// (poweron, keepon) in the stored configuration, and answers the state
// request, the desktop's standby notification and wake-up, and outside
// changes of the stored configuration.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "halvorda/desktopenv/desktopenv.pb.h"
#include "halvorda/device/gps/gps.pb.h"
#include "halvorda/service/service.pb.h"
#include "platform/service/framework.h"

inline constexpr halvorda::os::Error GPS_SERVICE_ERROR_FAILED = -1000100;
inline constexpr halvorda::os::Error GPS_SERVICE_ERROR_PERMISSION = -1000101;
inline constexpr halvorda::os::Error GPS_SERVICE_ERROR_NOT_POWERED = -3000005;

inline constexpr const char* GPS_SERVICE_MANIFEST = "file://param/DATAAEC8999.TAR/manifest/local.device.gps.MNF";

class GPSCore : public halvorda::service::Interfacable {
 public:
  explicit GPSCore(halvorda::service::Service* service);
  ~GPSCore() override;

  // Handlers, on the service thread.
  halvorda::os::Error setState(halvorda::service::Link& link);
  halvorda::os::Error onNotify(halvorda::service::Link& link);
  halvorda::os::Error onWakeup(const halvorda::desktopenv::WakeupEvent& event);
  halvorda::os::Error onConfigurationModified(const halvorda::service::ConfigurationModifiedEvent& event);

  halvorda::os::Error updateParameters(const halvorda::device::gps::Parameters& requested, bool& changed);
  halvorda::os::Error setPower(int on);
  halvorda::os::Error getPowerState(bool& on);

  // The state from the engine's current or stored fix; a text field that is
  // not valid UTF-8 (a receiver's or a damaged file's bytes) is left out, as
  // the client's parser would refuse the whole message.
  static void fillState(halvorda::device::gps::SetGetStateResponse& response);
  static halvorda::os::Error readTtff(halvorda::device::gps::State& state);
  static halvorda::os::Error readPosition(halvorda::device::gps::State& state);
  static halvorda::os::Error readDateTime(halvorda::device::gps::State& state);
  static halvorda::os::Error readSpeedKmh(halvorda::device::gps::State& state);
  static halvorda::os::Error readSpeedKnot(halvorda::device::gps::State& state);
  static halvorda::os::Error readHeading(halvorda::device::gps::State& state);
  static halvorda::os::Error readHdop(halvorda::device::gps::State& state);
  static halvorda::os::Error readAltitude(halvorda::device::gps::State& state);

  // What attaching the stored configuration returned: ERROR_IO when the file
  // exists and could not be read (the service's configReadErrno() says why;
  // the service then runs on its defaults and must not start), 0 otherwise.
  halvorda::os::Error storedConfigResult() const { return m_storedConfigResult; }

  // "4807.038N" -> 288703800: 1/100000 arc-minute, negative south and west;
  // 0 for a text that is no coordinate or lies beyond 90 degrees (N, S) or
  // 180 degrees (any other letter), so the result never overflows.
  static int32_t convertAngleNMEA(const std::string& angle);
  static void splitString(const std::string& text, char delimiter, std::vector<std::string>& pieces);

 private:
  halvorda::service::Service* m_service;
  halvorda::desktopenv::InactivityHandler m_inactivityHandler;
  std::unique_ptr<halvorda::device::gps::Parameters> m_iParams;
  halvorda::os::Error m_storedConfigResult = 0;
};
