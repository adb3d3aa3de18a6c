// The engine's control API: callers on any thread record a request in the
// record or the parameters and signal the engine thread, which does the
// receiver work. Two reads need the receiver's answer and wait for it.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>

#include "assist/assistnow.h"
#include "engine/gps_events.h"
#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "platform/os.h"
#include "transport/gps_trace.h"

namespace {

constexpr int kRendezvousAttempts = 5;
constexpr int kRendezvousWaitMs = 1000;
constexpr uint32_t kMinFixUpdatePeriodMs = GPS_MIN_FIX_UPDATE_PERIOD_MS;
constexpr uint32_t kMaxFixUpdatePeriodMs = GPS_MAX_FIX_UPDATE_PERIOD_MS;

enum class Answer { kReceived, kTimeout, kFailed };

// Asks the engine thread up to five times, a second each, and returns once the
// answer channel turns readable. The caller holds no lock.
Answer Rendezvous(int requestFd, int answerFd) {
  ClearEvent(answerFd);  // an answer left over from an earlier request
  for (int attempt = 0; attempt < kRendezvousAttempts; ++attempt) {
    SignalEvent(requestFd);
    pollfd slot{answerFd, POLLIN, 0};
    int ready;
    do {
      ready = poll(&slot, 1, kRendezvousWaitMs);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0 || (slot.revents & POLLNVAL)) {
      if (ready >= 0) errno = EBADF;
      return Answer::kFailed;
    }
    if (ready > 0) {
      ClearEvent(answerFd);
      return Answer::kReceived;
    }
  }
  return Answer::kTimeout;
}

uint32_t PowerState() {
  lib_GPS_Lock();
  const uint32_t on = gps_private_info.power_state;
  lib_GPS_Unlock();
  return on;
}

// Device names fill a 16-byte field with their terminator.
bool StoreDeviceName(char (&field)[16], const char* name) {
  if (name && std::strlen(name) >= sizeof field) return false;
  lib_GPS_CopyField(field, sizeof field, name);
  return true;
}

void CopyDeviceName(const char (&field)[16], char* out, uint32_t capacity) {
  if (!out) return;
  const size_t length = strnlen(field, sizeof field);
  if (length < capacity) {
    std::memcpy(out, field, length);
    out[length] = '\0';
  }
}

uint32_t TicksSince(uint32_t tick) { return OS_rtc_GetTickCounter() - tick; }

}  // namespace

// Power and parameters

int32_t lib_GPS_Geolocating_GPS_SetPower(uint32_t on) {
  lib_GPS_Lock();
  lib_GPS_Trace(7, "lib_GPS_Geolocating_GPS_SetPower");
  if (gps_private_info.power_state != on) {
    lib_GPS_Trace(7, "SetEvent CHANGE_POWER_STATE_eventfd");
    gps_private_info.power_state = on;
    SignalEvent(CHANGE_POWER_STATE_eventfd);
  }
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetPower(uint32_t* on) {
  if (on) *on = PowerState();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_SetPowerOnParameter(uint32_t value) {
  lib_GPS_Lock();
  if (lib_GPS_param_GetPowerModePolicy() != static_cast<int32_t>(value)) {
    lib_GPS_param_SetPowerModePolicy(static_cast<int32_t>(value));
    SignalEvent(CHANGE_POWER_PARAMETER_eventfd);
  }
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetPowerOnParameter(void) {
  lib_GPS_Lock();
  const int32_t value = lib_GPS_param_GetPowerModePolicy();
  lib_GPS_Unlock();
  return value;
}

int32_t lib_GPS_Geolocating_GPS_GetFixUpdatePeriodInms(uint32_t* periodMs) {
  lib_GPS_Trace(7, "GPS_GetFixUpdatePeriodInms.");
  if (!periodMs) return GEOLOCATING_GPS_ERROR_INVALID_PARAMETER;
  lib_GPS_Lock();
  // A caller always gets at least the configured period.
  *periodMs = static_cast<uint32_t>(lib_GPS_param_GetRequestedFixUpdatePeriod());
  const uint32_t on = gps_private_info.power_state;
  lib_GPS_Unlock();
  if (on == 0) return GEOLOCATING_GPS_ERROR_SUCCESS;

  switch (Rendezvous(fixUpdatePeriodRequestValue_eventfd, fixUpdatePeriodAnswer_eventfd)) {
    case Answer::kReceived:
      lib_GPS_Lock();
      *periodMs = gps_private_info.fix_update_period_ms;
      lib_GPS_Unlock();
      lib_GPS_Trace(7, "GPS_GetFixUpdatePeriod: period = % i ms.", static_cast<int>(*periodMs));
      return GEOLOCATING_GPS_ERROR_SUCCESS;
    case Answer::kFailed:
      lib_GPS_Trace(7, "GPS_GetFixUpdatePeriod: select failed. errno = %i, errStr = %s.", errno, std::strerror(errno));
      return GEOLOCATING_GPS_ERROR_TIMEOUT;
    case Answer::kTimeout:
      break;
  }
  lib_GPS_Trace(7, "GPS_GetFixUpdatePeriod: select time-out.");
  return GEOLOCATING_GPS_ERROR_TIMEOUT;
}

int32_t lib_GPS_Geolocating_GPS_SetFixUpdatePeriodInms(const uint32_t* periodMs) {
  if (!periodMs || *periodMs < kMinFixUpdatePeriodMs || *periodMs > kMaxFixUpdatePeriodMs)
    return GEOLOCATING_GPS_ERROR_INVALID_PARAMETER;
  lib_GPS_Lock();
  lib_GPS_param_SetRequestedFixUpdatePeriod(static_cast<int32_t>(*periodMs));
  lib_GPS_param_SaveParameters();
  // The engine thread sends it to the receiver only while it is powered.
  SignalEvent(fixUpdatePeriodSetValue_eventfd);
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

// Logging

int32_t lib_GPS_Geolocating_GPS_LogDataStart(void) {
  lib_GPS_Lock();
  lib_GPS_Trace(7, "lib_GPS_Geolocating_GPS_LogDataStart.");
  if (lib_GPS_LoggingEnabled(&gps_private_info) != 1) {
    lib_GPS_SetLoggingEnabled(&gps_private_info, 1);
    SignalEvent(CHANGE_LOGGING_STATE_eventfd);
  }
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_LogDataStop(void) {
  lib_GPS_Lock();
  lib_GPS_Trace(7, "lib_GPS_Geolocating_GPS_LogDataStop.");
  if (lib_GPS_LoggingEnabled(&gps_private_info) != 0) {
    lib_GPS_SetLoggingEnabled(&gps_private_info, 0);
    SignalEvent(CHANGE_LOGGING_STATE_eventfd);
  }
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetLogDataState(char* path, uint32_t capacity, uint32_t* enabled) {
  lib_GPS_Lock();
  if (enabled) *enabled = lib_GPS_LoggingEnabled(&gps_private_info);
  const char* current = gps_private_info.module_trace_path;
  const size_t length = strnlen(current, sizeof gps_private_info.module_trace_path);
  if (path && length < capacity) {
    std::memcpy(path, current, length);
    path[length] = '\0';
  }
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

// Receiver configuration

int32_t lib_GPS_Geolocating_GPS_GetAntOffEFusePolarity(int32_t* polarity) {
  lib_GPS_Trace(7, "GPS_GetAntOffEFusePolarity.");
  if (!polarity) return GEOLOCATING_GPS_ERROR_INVALID_PARAMETER;
  *polarity = -1;
  if (PowerState() == 0) return GEOLOCATING_GPS_ERROR_NOT_POWERED;
  switch (Rendezvous(antOffPolarityRequestValue_eventfd, antOffPolarityAnswer_eventfd)) {
    case Answer::kReceived:
      lib_GPS_Lock();
      *polarity = gps_private_info.antOffPolarity;
      lib_GPS_Unlock();
      lib_GPS_Trace(7, "GPS_GetAntOffEFusePolarity: ANT_OFF polarity = % i.", static_cast<int>(*polarity));
      return GEOLOCATING_GPS_ERROR_SUCCESS;
    case Answer::kFailed:
      lib_GPS_Trace(7, "GPS_GetAntOffEFusePolarity: ANT_OFF polarity unavailable. select errno = %i, errStr = %s.",
                    errno, std::strerror(errno));
      return GEOLOCATING_GPS_ERROR_ANT_OFF_UNAVAILABLE;
    case Answer::kTimeout:
      break;
  }
  lib_GPS_Trace(7, "GPS_GetAntOffEFusePolarity: ANT_OFF polarity unavailable (timeout).");
  return GEOLOCATING_GPS_ERROR_ANT_OFF_UNAVAILABLE;
}

int32_t lib_GPS_Geolocating_GPS_SetAntOffPioPolarity(void) {
  if (PowerState() == 0) return GEOLOCATING_GPS_ERROR_NOT_POWERED;
  lib_GPS_Trace(7, "GPS_SetAntOffPioPolarity.");
  SignalEvent(antOffPolaritySetValue_eventfd);
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_ColdStart(void) {
  lib_GPS_Lock();
  gps_private_info.external_command_flags |= GPS_COMMAND_COLD_RESTART;
  SignalEvent(EXTERNAL_COMMAND_eventfd);
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_SetAssistanceMode(uint32_t mode) {
  if (mode > ASSISTNOW_RESERVED) return GEOLOCATING_GPS_ERROR_SUCCESS;
  lib_GPS_Lock();
  if (gps_private_info.assistnow != mode) {
    gps_private_info.assistnow = mode;
    SignalEvent(CHANGE_ASSISTANCE_MODE_eventfd);
  }
  // Under the lock too: the engine thread writes the same parameters file
  // with the last fix.
  lib_GPS_param_SetAssistancePolicy(static_cast<int32_t>(mode));
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetAssistanceMode(uint32_t* mode) {
  lib_GPS_Lock();
  if (mode) *mode = gps_private_info.assistnow;
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_StopAssistance(void) {
  lib_GPS_Lock();
  const bool offline = gps_private_info.assistnow == ASSISTNOW_OFFLINE;
  lib_GPS_Unlock();
  if (offline) SignalEvent(STOP_ASSISTANCE_eventfd);
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_ReloadAssistance(void) {
  lib_GPS_Lock();
  const bool offline = gps_private_info.assistnow == ASSISTNOW_OFFLINE;
  lib_GPS_Unlock();
  if (offline) SignalEvent(RELOAD_ASSISTANCE_eventfd);
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

// Devices

// A call while forwarding stops it, whatever the name; the next call starts it
// on the new name. A name too long for the record (16 characters or more) is
// refused with -10 and starts nothing, but a stop it asked for still happens.
int32_t lib_GPS_Geolocating_GPS_SetTransparentDevice(const char* name) {
  const bool tooLong = name && std::strlen(name) >= sizeof gps_private_info.transparent_device;
  lib_GPS_Lock();
  const bool stop = !name || gps_private_info.com_transp_handle != -1;
  if (stop)
    gps_private_info.transparent_device[0] = '\0';
  else if (!tooLong)
    StoreDeviceName(gps_private_info.transparent_device, name);
  if (stop || !tooLong) SignalEvent(CHANGE_FORWARD_DEVICE_eventfd);
  lib_GPS_Unlock();
  return tooLong ? GEOLOCATING_GPS_ERROR_INVALID_PARAMETER : GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetTransparentDevice(char* name, uint32_t capacity) {
  lib_GPS_Lock();
  CopyDeviceName(gps_private_info.transparent_device, name, capacity);
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_SetModuleDevice(const char* name) {
  lib_GPS_Lock();
  const bool stored = StoreDeviceName(gps_private_info.module_device, name);
  if (stored) SignalEvent(CHANGE_MODULE_DEVICE_eventfd);
  lib_GPS_Unlock();
  return stored ? GEOLOCATING_GPS_ERROR_SUCCESS : GEOLOCATING_GPS_ERROR_INVALID_PARAMETER;
}

int32_t lib_GPS_Geolocating_GPS_GetModuleDevice(char* name, uint32_t capacity) {
  lib_GPS_Lock();
  CopyDeviceName(gps_private_info.module_device, name, capacity);
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

// Receiver information and events

int32_t lib_GPS_Geolocating_GPS_GetVersion(char* sw, char* hw, char* ext1, char* ext2, char* ext3, char* ext4) {
  gps_private_info_t& infos = gps_private_info;
  lib_GPS_Lock();
  // The modem's text can be longer than the caller's 32-byte sw: only what
  // fits is copied, so a long version text never writes past it.
  if (infos.gprs_module_version[0] != '\0')
    std::memcpy(sw, infos.gprs_module_version,
                strnlen(infos.gprs_module_version, std::min(sizeof infos.gprs_module_version, sizeof infos.sw_version)));
  int32_t result = GEOLOCATING_GPS_ERROR_NO_VERSION;
  if (infos.sw_version[0] != '\0') {
    std::memcpy(sw, infos.sw_version, sizeof infos.sw_version);
    std::memcpy(hw, infos.hw_version, sizeof infos.hw_version);
    char* const extensions[4] = {ext1, ext2, ext3, ext4};
    for (int i = 0; i < 4; ++i) std::memcpy(extensions[i], infos.ext_version[i], sizeof infos.ext_version[i]);
    result = GEOLOCATING_GPS_ERROR_SUCCESS;
  }
  lib_GPS_Unlock();
  return result;
}

int32_t lib_GPS_Geolocating_GPS_GetHardwareStatus(uint32_t* noise, uint32_t* agc, uint32_t* jamming,
                                                   uint32_t* ageTicks) {
  lib_GPS_Lock();
  *noise = gps_private_info.noise_per_ms;
  *agc = gps_private_info.agc_count;
  *jamming = gps_private_info.jamming_indicator;
  *ageTicks = TicksSince(gps_private_info.mon_hw_tick);
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetSatellites(gps_satellite_t* prn1to32, gps_satellite_t* prn33to64,
                                               uint32_t* ageTicks) {
  lib_GPS_Lock();
  const int32_t count = static_cast<int32_t>(gps_private_info.sat_view_count);
  std::memcpy(prn1to32, gps_private_info.sat_prn_1_32, sizeof gps_private_info.sat_prn_1_32);
  std::memcpy(prn33to64, gps_private_info.sat_prn_33_64, sizeof gps_private_info.sat_prn_33_64);
  *ageTicks = TicksSince(gps_private_info.sat_view_tick);
  lib_GPS_Unlock();
  return count;
}

int32_t lib_GPS_Geolocating_GPS_GetNavPvt(uint8_t* navPvt, uint32_t* tick) {
  lib_GPS_Lock();
  std::memcpy(navPvt, gps_private_info.nav_pvt, sizeof gps_private_info.nav_pvt);
  *tick = gps_private_info.nav_pvt_tick;
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetNavClock(uint8_t* navClock, uint32_t* tick) {
  lib_GPS_Lock();
  std::memcpy(navClock, gps_private_info.nav_clock, sizeof gps_private_info.nav_clock);
  *tick = gps_private_info.nav_clock_tick;
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetAlpServedBlocks(uint8_t* blocks) {
  lib_GPS_Lock();
  std::memcpy(blocks, gps_private_info.alp_served_blocks, sizeof gps_private_info.alp_served_blocks);
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_GetAlpClientBlocks(uint8_t* blocks) {
  lib_GPS_Lock();
  std::memcpy(blocks, gps_private_info.alp_client_blocks, sizeof gps_private_info.alp_client_blocks);
  lib_GPS_Unlock();
  return GEOLOCATING_GPS_ERROR_SUCCESS;
}

int32_t lib_GPS_Geolocating_GPS_AddEventListener(uint16_t eventFd, uint32_t mask) {
  int32_t result = GEOLOCATING_GPS_ERROR_TOO_MANY_LISTENERS;
  lib_GPS_Lock();
  gps_private_info_t& infos = gps_private_info;
  if (infos.listener_count >= 0 && infos.listener_count < GPS_MAX_LISTENERS) {
    infos.listeners[infos.listener_count] = {eventFd, mask};
    ++infos.listener_count;
    result = GEOLOCATING_GPS_ERROR_SUCCESS;
  }
  lib_GPS_Unlock();
  return result;
}

int32_t lib_GPS_Geolocating_GPS_RemoveEventListener(uint16_t eventFd, uint32_t mask) {
  int32_t result = GEOLOCATING_GPS_ERROR_LISTENER_NOT_FOUND;
  lib_GPS_Lock();
  gps_private_info_t& infos = gps_private_info;
  for (int32_t i = 0; i < infos.listener_count && i < GPS_MAX_LISTENERS; ++i) {
    if (infos.listeners[i].listener_fd != eventFd || infos.listeners[i].mask != mask) continue;
    std::memmove(&infos.listeners[i], &infos.listeners[i + 1],
                 sizeof infos.listeners[0] * static_cast<size_t>(infos.listener_count - i - 1));
    --infos.listener_count;
    result = GEOLOCATING_GPS_ERROR_SUCCESS;
    break;
  }
  lib_GPS_Unlock();
  return result;
}
