#include "service/gps_core.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "engine/gps_geolocating.h"
#include "platform/os.h"

namespace gpsmsg = halvorda::device::gps;
namespace service = halvorda::service;
using halvorda::os::Error;

namespace {

constexpr uint32_t kAcceptOldFix = GEOLOCATING_GPS_ACCEPT_OLD_FIX;
constexpr uint32_t kForever = 0xFFFFFFFFu;

service::Permissions PlatformOnly() {
  return service::Permissions(service::Permissions::ALL_QUILLA_PLATFORM + service::Permissions::ALL_WEB_PLATFORM);
}

service::Permissions PlatformAndPayment() {
  return service::Permissions(service::Permissions::ALL_QUILLA_PLATFORM + service::Permissions::ALL_WEB_PLATFORM +
                              service::Permissions::PAYMENT + service::Permissions::QUILLA_P2PE +
                              service::Permissions::WEB_P2PE);
}

service::Permissions Everyone() {
  return service::Permissions(service::Permissions::ALL_QUILLA_PLATFORM + service::Permissions::ALL_WEB_PLATFORM +
                              service::Permissions::PAYMENT + service::Permissions::QUILLA_P2PE +
                              service::Permissions::WEB_P2PE + service::Permissions::VERTICAL +
                              service::Permissions::ANDROID);
}

int Digits(const std::string& text, size_t at, size_t count) { return std::atoi(text.substr(at, count).c_str()); }

bool IsUtf8(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    size_t length = 1;
    uint32_t lowest = 0;
    if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      lowest = 0x10000;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      lowest = 0x800;
    } else if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      lowest = 0x80;
    } else if (lead >= 0x80) {
      return false;
    }
    if (i + length > text.size()) return false;
    uint32_t code = length == 1 ? lead : lead & (0x7Fu >> length);
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = (code << 6) | (next & 0x3Fu);
    }
    if (code < lowest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

// A text from the engine that may go into the state: the client's parser
// refuses a whole message over one string field that is not UTF-8.
bool Sendable(const char* field, const std::string& text) {
  if (IsUtf8(text)) return true;
  Sys_log(4, "GPS: %s is not UTF-8 text; left out of the state.", field);
  return false;
}

// One 16-byte text query of the engine; a current fix only (result 0) fills
// the field.
template <typename Query, typename Setter>
Error ReadCurrentText(const char* field, Query query, Setter set) {
  char text[16] = {};
  uint32_t age = 0;
  if (query(text, &age, kAcceptOldFix) != GEOLOCATING_GPS_ERROR_SUCCESS) return GPS_SERVICE_ERROR_FAILED;
  std::string value(text, strnlen(text, sizeof text));
  if (!Sendable(field, value)) return GPS_SERVICE_ERROR_FAILED;
  set(std::move(value));
  return 0;
}

}  // namespace

GPSCore::GPSCore(service::Service* service)
    : service::Interfacable(service::Link::LINK_TYPE_STREAM, nullptr),
      m_service(service),
      m_iParams(gpsmsg::Parameters::instantiate()) {
  gps_dll_init();
  Sys_log(7, "GPSCore::GPSCore( )_IN");
  m_storedConfigResult = m_service->attachConfig(m_iParams.get(), false);
  bind(new service::MessageEventBind<GPSCore, service::ConfigurationModifiedEvent>(
      this, &GPSCore::onConfigurationModified, service::ConfigurationModifiedEvent::getMessageTypeStatic(),
      PlatformAndPayment()));
  // A receiver the stored parameters want on is switched on before the first
  // request is accepted.
  if (m_iParams->has_poweron() && m_iParams->poweron()) setPower(1);
  bind(new service::MessageMethodBind<GPSCore>(this, &GPSCore::setState, gpsmsg::SetGetStateRequest::messageType(),
                                               Everyone()));
  m_service->attachProxy(&m_inactivityHandler, "", kForever);
  m_inactivityHandler.bind(new service::MessageEventBind<GPSCore, halvorda::desktopenv::WakeupEvent>(
      this, &GPSCore::onWakeup, halvorda::desktopenv::WakeupEvent::getMessageTypeStatic(), PlatformOnly()));
  bind(new service::MessageMethodBind<GPSCore>(this, &GPSCore::onNotify,
                                               halvorda::desktopenv::NotifyRequest::messageType(), PlatformOnly()));
  m_service->setReservationWhiteList({halvorda::desktopenv::NotifyRequest::messageType()});
  Sys_log(7, "GPSCore::GPSCore( )_OUT ");
}

GPSCore::~GPSCore() { m_service->detachConfig(); }

Error GPSCore::setState(service::Link& link) {
  auto request = gpsmsg::SetGetStateRequest::instantiate();
  auto response = gpsmsg::SetGetStateResponse::instantiate();
  response->set_allocated_parameters(gpsmsg::Parameters::newOne(*m_iParams).release());
  bool changed = false;
  bool on = false;
  Error result = 0;

  Sys_log(3, "GPSCore: setState BEGIN");
  if (const Error decoded = link.decode(*request); decoded != 0) return decoded;

  if (request->has_parameters()) {
    const halvorda::os::Certificate& caller = link.getCertificate();
    if (!caller.isQuillaPlatform() && !caller.isWebPlatform() && !caller.isPayment() && !caller.isP2PE())
      return GPS_SERVICE_ERROR_PERMISSION;
    updateParameters(request->parameters(), changed);
  }

  if (!changed && m_iParams->poweron()) {
    Sys_log(3, "GPSCore: m_iParams->poweron");
    if (getPowerState(on) != 0 || !on) {
      result = GPS_SERVICE_ERROR_NOT_POWERED;
    } else {
      fillState(*response);
    }
  }
  if (result == 0) {
    response->mutable_parameters()->CopyFrom(*m_iParams);
    result = link.send(*response);
  }
  if (changed) m_service->save();
  return result;
}

Error GPSCore::updateParameters(const gpsmsg::Parameters& requested, bool& changed) {
  changed = false;
  Sys_log(3, "GPSCore: updateParameters");
  if (requested.has_poweron() && requested.poweron() != m_iParams->poweron()) {
    Sys_log(3, "GPSCore: has_poweron");
    setPower(requested.poweron() ? 1 : 0);
    m_iParams->set_poweron(requested.poweron());
    changed = true;
  }
  if (requested.has_keepon() && requested.keepon() != m_iParams->keepon()) {
    m_iParams->set_keepon(requested.keepon());
    changed = true;
  }
  return 0;
}

Error GPSCore::setPower(int on) {
  if (lib_GPS_Geolocating_GPS_SetPower(static_cast<uint32_t>(on)) != 0) {
    Sys_log(3, "GPS: setPower(%d) FAILED", on);
    return GPS_SERVICE_ERROR_FAILED;
  }
  Sys_log(7, "GPS: setPower(%d) OK", on);
  return 0;
}

Error GPSCore::getPowerState(bool& on) {
  uint32_t value = 0;
  if (lib_GPS_Geolocating_GPS_GetPower(&value) != 0) return GPS_SERVICE_ERROR_FAILED;
  on = value == 1;
  return 0;
}

void GPSCore::fillState(gpsmsg::SetGetStateResponse& response) {
  response.set_allocated_state(gpsmsg::State::newOne().release());
  gpsmsg::State& state = *response.mutable_state();
  readTtff(state);
  readPosition(state);
  readDateTime(state);
  readSpeedKmh(state);
  readSpeedKnot(state);
  readHeading(state);
  readHdop(state);
  readAltitude(state);
}

Error GPSCore::readTtff(gpsmsg::State& state) {
  uint8_t status[16] = {};
  uint32_t tick = 0;
  if (lib_GPS_Geolocating_GPS_GetTTFF(status, &tick) != 0) return GPS_SERVICE_ERROR_FAILED;
  uint32_t ttff = 0;
  std::memcpy(&ttff, status + 8, sizeof ttff);
  if (ttff == 0) return GPS_SERVICE_ERROR_FAILED;
  state.set_ttff(ttff);
  return 0;
}

Error GPSCore::readPosition(gpsmsg::State& state) {
  char longitude[16] = {};
  char latitude[16] = {};
  uint32_t age = 0;
  const int32_t result = lib_GPS_Geolocating_GPS_GetPosition(longitude, latitude, &age, kAcceptOldFix);
  if (result != GEOLOCATING_GPS_ERROR_SUCCESS && result != GEOLOCATING_GPS_ERROR_OLD_COORDINATES)
    return GPS_SERVICE_ERROR_FAILED;
  const std::string lat(latitude, strnlen(latitude, sizeof latitude));
  const std::string lon(longitude, strnlen(longitude, sizeof longitude));
  if (lat.empty() || lon.empty() || !Sendable("strlatitude", lat) || !Sendable("strlongitude", lon))
    return GPS_SERVICE_ERROR_FAILED;
  state.set_strlatitude(lat);
  state.set_strlongitude(lon);
  state.set_latitude(convertAngleNMEA(lat));
  state.set_longitude(convertAngleNMEA(lon));
  return 0;
}

Error GPSCore::readDateTime(gpsmsg::State& state) {
  char date[16] = {};
  char time[16] = {};
  uint32_t age = 0;
  const int32_t result = lib_GPS_Geolocating_GPS_GetDateAndTime(date, time, &age, kAcceptOldFix);
  if (result != GEOLOCATING_GPS_ERROR_SUCCESS && result != GEOLOCATING_GPS_ERROR_OLD_COORDINATES)
    return GPS_SERVICE_ERROR_FAILED;
  const std::string dateText(date, strnlen(date, sizeof date));
  const std::string timeText(time, strnlen(time, sizeof time));
  Sys_log(7, "readDateTime() lib_GPS_Geolocating_GPS_GetDateAndTime : date=%s time=%s age=%u result = %d",
          dateText.c_str(), timeText.c_str(), age, result);
  // dd/mm/yyyy and HHhMMmSSs
  if (dateText.size() != 10 || timeText.size() != 9) {
    state.set_old(true);
    return GPS_SERVICE_ERROR_FAILED;
  }
  halvorda::desktopenv::Date* when = state.mutable_date();
  when->set_day(static_cast<uint32_t>(Digits(dateText, 0, 2)));
  when->set_month(static_cast<uint32_t>(Digits(dateText, 3, 2)));
  when->set_year(static_cast<uint32_t>(Digits(dateText, 6, 4)));
  when->set_hour(static_cast<uint32_t>(Digits(timeText, 0, 2)));
  when->set_minute(static_cast<uint32_t>(Digits(timeText, 3, 2)));
  when->set_second(static_cast<uint32_t>(Digits(timeText, 6, 2)));
  const bool old = result == GEOLOCATING_GPS_ERROR_OLD_COORDINATES;
  state.set_old(old);
  state.set_age(old ? age : 0);
  return 0;
}

Error GPSCore::readSpeedKmh(gpsmsg::State& state) {
  return ReadCurrentText("speedkmh", lib_GPS_Geolocating_GPS_GetSpeedKMH, [&](std::string t) { state.set_speedkmh(std::move(t)); });
}

Error GPSCore::readSpeedKnot(gpsmsg::State& state) {
  return ReadCurrentText("speedknot", lib_GPS_Geolocating_GPS_GetSpeedKnot, [&](std::string t) { state.set_speedknot(std::move(t)); });
}

Error GPSCore::readHeading(gpsmsg::State& state) {
  return ReadCurrentText("heading", lib_GPS_Geolocating_GPS_GetHeading, [&](std::string t) { state.set_heading(std::move(t)); });
}

Error GPSCore::readHdop(gpsmsg::State& state) {
  return ReadCurrentText("hdop", lib_GPS_Geolocating_GPS_GetHDOP, [&](std::string t) { state.set_hdop(std::move(t)); });
}

Error GPSCore::readAltitude(gpsmsg::State& state) {
  return ReadCurrentText("altitude", lib_GPS_Geolocating_GPS_GetAltitude, [&](std::string t) { state.set_altitude(std::move(t)); });
}

int32_t GPSCore::convertAngleNMEA(const std::string& angle) {
  if (angle.empty()) return 0;
  const char hemisphere = angle.back();
  std::vector<std::string> pieces;
  splitString(angle.substr(0, angle.size() - 1), '.', pieces);
  if (pieces.size() != 2) {
    Sys_log(7, "GPS: Erreur split angleNMEA size = %d", static_cast<int>(pieces.size()));
    return 0;
  }
  // Digits only, and few enough that no product below can overflow.
  const auto number = [](const std::string& digits) -> int64_t {
    if (digits.size() > 9) return -1;
    int64_t value = 0;
    for (const char c : digits) {
      if (c < '0' || c > '9') return -1;
      value = value * 10 + (c - '0');
    }
    return value;
  };
  const std::string& whole = pieces[0];
  // Fewer than two digits before the point: all of it counts as minutes.
  const size_t split = whole.size() >= 2 ? whole.size() - 2 : 0;
  const int64_t degrees = number(whole.substr(0, split));
  const int64_t minutes = number(whole.substr(split));
  std::string fraction = pieces[1];
  fraction.resize(5, '0');
  const int64_t fractionValue = number(fraction);
  if (degrees < 0 || minutes < 0 || fractionValue < 0) return 0;
  const int64_t limit = 100000LL * 60 * (hemisphere == 'N' || hemisphere == 'S' ? 90 : 180);
  int64_t value = 100000 * (60 * degrees + minutes) + fractionValue;
  if (value > limit) {
    Sys_log(4, "GPS: coordinate %s is out of range; sent as 0", angle.c_str());
    return 0;
  }
  if (hemisphere == 'S' || hemisphere == 'W') value = -value;
  return static_cast<int32_t>(value);
}

void GPSCore::splitString(const std::string& text, char delimiter, std::vector<std::string>& pieces) {
  size_t start = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != delimiter) continue;
    pieces.push_back(text.substr(start, i - start));
    start = i + 1;
    if (start == text.size()) return;  // no empty trailing piece
  }
  pieces.push_back(text.substr(start));
}

Error GPSCore::onNotify(service::Link& link) {
  auto request = halvorda::desktopenv::NotifyRequest::instantiate();
  if (const Error decoded = link.decode(*request); decoded != 0) return decoded;
  if (m_iParams->poweron() && !m_iParams->keepon()) setPower(0);
  auto response = halvorda::desktopenv::NotifyResponse::instantiate();
  return link.send(*response);
}

Error GPSCore::onWakeup(const halvorda::desktopenv::WakeupEvent& /*event*/) {
  if (m_iParams->poweron() && !m_iParams->keepon()) setPower(1);
  return 0;
}

Error GPSCore::onConfigurationModified(const service::ConfigurationModifiedEvent& /*event*/) {
  auto stored = gpsmsg::Parameters::instantiate();
  m_service->acceptConfig();
  m_service->load(*stored);
  bool changed = false;  // the values came from the store: nothing to save
  updateParameters(*stored, changed);
  return 0;
}
