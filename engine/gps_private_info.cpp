#include "engine/gps_private_info.h"

#include <cstring>
#include <unistd.h>

gps_private_info_t gps_private_info;
pthread_mutex_t gps_private_info_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {
// Whether this thread holds gps_private_info_lock. The lock is not recursive;
// the few places that may be reached both with and without it ask here
// instead of taking it a second time.
thread_local bool t_holdsLock = false;
}  // namespace

void lib_GPS_Lock(void) {
  pthread_mutex_lock(&gps_private_info_lock);
  t_holdsLock = true;
}

void lib_GPS_Unlock(void) {
  t_holdsLock = false;
  pthread_mutex_unlock(&gps_private_info_lock);
}

bool lib_GPS_LockHeldByCaller(void) { return t_holdsLock; }

void lib_GPS_ResetModuleVersion(gps_private_info_t* infos) {
  std::memset(infos->sw_version, 0, sizeof infos->sw_version);
  std::memset(infos->hw_version, 0, sizeof infos->hw_version);
  std::memset(infos->ext_version, 0, sizeof infos->ext_version);
}

void lib_GPS_ResetInfos(gps_private_info_t* infos) {
  infos->fix_quality = 0;
  infos->vtg_mode = 'N';
  infos->module_config_state = 0;
  lib_GPS_ResetModuleVersion(infos);
  infos->sat_view_tick = 0;
  infos->sat_view_count = 0;
  std::memset(infos->sat_prn_1_32, 0, sizeof infos->sat_prn_1_32);
  std::memset(infos->sat_prn_33_64, 0, sizeof infos->sat_prn_33_64);
  std::memset(infos->alp_served_blocks, 0, sizeof infos->alp_served_blocks);
  std::memset(infos->alp_client_blocks, 0, sizeof infos->alp_client_blocks);
  infos->gga_tick = 0;
  infos->vtg_tick = 0;
  infos->mon_hw_tick = 0;
  infos->nav_clock_tick = 0;
  infos->nav_status_tick = 0;
  infos->nav_svinfo_tick = 0;
  infos->nav_timels_tick = 0;
  infos->gsv_group_tick = 0;
  infos->gsa_tick = 0;
  infos->gsa_fix_type = 0;
  infos->gsa_used_count = 0;
  std::memset(infos->nav_pvt, 0, sizeof infos->nav_pvt);
  infos->nav_pvt_tick = 0;
  std::memset(infos->nav_clock, 0, sizeof infos->nav_clock);
  std::memset(infos->nav_status, 0, sizeof infos->nav_status);
}

void lib_GPS_ClearRecord(gps_private_info_t* infos) {
  std::memset(infos, 0, sizeof *infos);
  infos->com_gps = GPS_INVALID_HANDLE;
  infos->com_transp_handle = -1;
  infos->fix_update_period_ms = 1000;
  lib_GPS_ResetInfos(infos);
}

void lib_GPS_ResetInfosLocked(gps_private_info_t* infos) {
  lib_GPS_Lock();
  lib_GPS_ResetInfos(infos);
  lib_GPS_Unlock();
}

void SignalEvent(int eventFd) {
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t ignored = write(eventFd, &one, sizeof one);
}

int ClearEvent(int eventFd) {
  uint64_t value = 0;
  return static_cast<int>(read(eventFd, &value, sizeof value));
}

void lib_GPS_NotifyListeners(gps_private_info_t* infos, uint32_t events) {
  lib_GPS_Lock();
  const int32_t count = infos->listener_count < 0                  ? 0
                        : infos->listener_count > GPS_MAX_LISTENERS ? GPS_MAX_LISTENERS
                                                                    : infos->listener_count;
  for (int32_t i = 0; i < count; ++i) {
    if (infos->listeners[i].mask & events) SignalEvent(infos->listeners[i].listener_fd);
  }
  lib_GPS_Unlock();
}

void lib_GPS_LogMessage(gps_private_info_t* infos, uint32_t type, const uint8_t* bytes, uint32_t length,
                        int64_t receivedNs, uint32_t lineBytes) {
  const uint32_t stored = length < GPS_MESSAGE_LOG_BYTES ? length : GPS_MESSAGE_LOG_BYTES;
  lib_GPS_Lock();
  const uint32_t sequence = infos->message_sequence + 1;
  gps_logged_message_t& entry = infos->message_log[sequence % GPS_MESSAGE_LOG_CAPACITY];
  entry.sequence = sequence;
  entry.type = type;
  entry.length = length;
  entry.stored = stored;
  entry.received_ns = receivedNs;
  entry.line_bytes = lineBytes;
  std::memcpy(entry.bytes, bytes, stored);
  infos->message_sequence = sequence;
  lib_GPS_Unlock();
}

void lib_GPS_CopyField(char* field, uint32_t capacity, const char* text) {
  if (capacity == 0) return;
  uint32_t n = 0;
  if (text) {
    while (n + 1 < capacity && text[n] != '\0') {
      field[n] = text[n];
      ++n;
    }
  }
  // Zero the rest so a whole-field copy to a caller carries no stale bytes.
  std::memset(field + n, 0, capacity - n);
}
