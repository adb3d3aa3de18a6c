// The engine record: everything the engine knows about the receiver, in one
// global instance guarded by one non-recursive mutex.
#pragma once

#include <cstdint>
#include <pthread.h>

// Receiver module types.
inline constexpr uint32_t GPS_MODULE_TYPE_UBX_G7020 = 1;
inline constexpr uint32_t GPS_MODULE_TYPE_UBX_M8030 = 2;

// A fix value is current while at most this many ticks (10 ms) old.
inline constexpr uint32_t GPS_FIX_VALIDITY_TICKS = 200;
// Spacing of last-fix writes to the parameters file.
inline constexpr uint32_t GPS_LAST_DATA_STORE_PERIOD_TICKS = 6000;

// Listener event bits.
inline constexpr uint32_t GPS_EVENT_MESSAGE = 0x008;
inline constexpr uint32_t GPS_EVENT_MON_HW = 0x200;
inline constexpr uint32_t GPS_EVENT_VERSION = 0x400;
inline constexpr uint32_t GPS_EVENT_MODULE_RESET = 0x800;

inline constexpr int GPS_MAX_LISTENERS = 32;
inline constexpr int GPS_GSV_STAGING_CAPACITY = 64;
inline constexpr uint32_t GPS_INVALID_HANDLE = 0xFFFFFFFFu;
// Satellites a GSA group may list as used (12 a sentence, several sentences
// with a multi-constellation talker).
inline constexpr int GPS_GSA_USED_CAPACITY = 64;
// Recent receiver messages kept for readers that repeat them (the outward
// JSON endpoint): a ring of the last messages, each cut to its first bytes.
inline constexpr int GPS_MESSAGE_LOG_CAPACITY = 64;
inline constexpr uint32_t GPS_MESSAGE_LOG_BYTES = 256;

// NAV-SVINFO kept as received: 8 header bytes, then 12 a channel, at most
// this many channels; a report of more keeps its first ones.
inline constexpr uint32_t GPS_NAV_SVINFO_CHANNELS = 64;
inline constexpr uint32_t GPS_NAV_SVINFO_BYTES = 8 + 12 * GPS_NAV_SVINFO_CHANNELS;

// external_command_flags bits.
inline constexpr uint32_t GPS_COMMAND_COLD_RESTART = 0x1;
inline constexpr uint32_t GPS_COMMAND_MON_HW_ON = 0x2;
inline constexpr uint32_t GPS_COMMAND_NO_ACTION = 0x4;

// Bitmaps with one bit per 16-byte block of the loaded assistance data.
inline constexpr uint32_t GPS_ALP_BITMAP_BYTES = 1024;

struct gps_satellite_t {
  uint32_t prn;
  uint32_t elevation;  // [deg]
  uint32_t azimuth;    // [deg]
  uint32_t snr;        // [dB-Hz]
  uint32_t tick;       // gsv_group_tick of the group that reported it
};

struct gps_event_listener_t {
  uint16_t listener_fd;  // eventfd
  uint32_t mask;         // GPS_EVENT_* bits
};

struct gps_logged_message_t {
  uint32_t sequence;        // message_sequence when it was logged
  uint32_t type;            // 1 NMEA, 2 UBX (gps_message_type_t)
  uint32_t length;          // bytes of the whole message
  uint32_t stored;          // bytes kept below, at most GPS_MESSAGE_LOG_BYTES
  int64_t received_ns;      // CLOCK_REALTIME when the chunk holding it was read [ns]
  uint32_t line_bytes;      // bytes from its first byte to the end of that chunk
  uint8_t bytes[GPS_MESSAGE_LOG_BYTES];
};

struct gps_private_info_t {
  // Module and devices
  uint32_t module_type;
  char module_device[16];
  uint32_t com_gps;  // GPRS: descriptor; u-blox: 1 once open; GPS_INVALID_HANDLE when closed
  int32_t module_trace_fd;
  char module_trace_path[100];
  char transparent_device[16];
  int32_t com_transp_handle;

  // Position fix (GGA)
  uint32_t gga_tick;
  uint32_t fix_tick;
  uint8_t fix_quality;
  char time[16];
  char latitude[16];
  char longitude[16];
  char altitude[16];
  uint32_t last_fix_store_tick;

  // Course and speed (VTG)
  uint32_t vtg_tick;
  uint32_t course_speed_tick;
  char vtg_mode;
  char speed_knots[16];
  char speed_kmh[16];
  char course_true[16];
  char course_magnetic[16];
  uint32_t last_course_store_tick;

  // Satellites in view (GSV)
  uint32_t gsv_group_tick;
  uint32_t gsv_sats_in_view;
  uint32_t gsv_sats_collected;
  gps_satellite_t gsv_staging[GPS_GSV_STAGING_CAPACITY];
  uint32_t sat_view_tick;
  uint32_t sat_view_count;
  gps_satellite_t sat_prn_1_32[32];
  gps_satellite_t sat_prn_33_64[32];

  // Fix type, satellites used and dilution (GSA)
  uint32_t gsa_tick;
  uint8_t gsa_fix_type;  // 1 no fix, 2 2D, 3 3D; 0 none seen
  uint32_t gsa_used_count;
  uint32_t gsa_used_prn[GPS_GSA_USED_CAPACITY];
  char pdop[16];
  char vdop[16];

  // Date, dilution and differential data
  char date[16];
  // Set by the first fix (GGA) or course (VTG) of this run: until then the
  // ticks above count from nothing and the stored ones are the last known.
  uint8_t fix_seen;
  uint8_t course_speed_seen;
  int64_t last_fix_utc;  // UTC seconds of the previous fix with a date; 0 none
  uint32_t last_fix_utc_tick;
  uint8_t date_jump_logged;
  uint8_t rollover_logged;
  char hdop[16];
  char geoid_separation[17];
  char dgps_station_id[8];
  char dgps_age[15];

  // Receiver hardware status (MON-HW)
  uint32_t mon_hw_tick;
  uint32_t noise_per_ms;
  uint32_t agc_count;
  uint32_t jamming_indicator;

  // Control
  uint32_t power_state;
  uint32_t fix_update_period_ms;
  uint8_t expertModeIsEnabled;
  uint8_t loggingIsEnabled;
  uint32_t nmeaFixValidityIns;

  // Event listeners
  int32_t listener_count;
  gps_event_listener_t listeners[GPS_MAX_LISTENERS];

  uint32_t external_command_flags;

  // Receiver identity
  char sw_version[32];
  char hw_version[16];
  char ext_version[4][32];
  uint32_t version_request_tick;
  uint32_t module_config_state;  // 0 not requested, 1 poll sent, 2 configured
  char gprs_module_version[50];

  // Assistance
  uint32_t assistnow;
  uint8_t* alp_data;
  uint32_t alp_size;
  uint16_t alp_file_id;
  uint8_t alp_served_blocks[GPS_ALP_BITMAP_BYTES];
  uint8_t alp_client_blocks[GPS_ALP_BITMAP_BYTES];

  // UBX navigation snapshots
  uint8_t nav_pvt[84];
  uint32_t nav_pvt_tick;
  uint8_t nav_clock[20];
  uint32_t nav_clock_tick;
  uint8_t nav_status[16];  // u32 at byte 8: time to first fix [ms]
  uint32_t nav_status_tick;
  // Satellites of the receiver's channels (sent in expert mode, where GSV is
  // off): numCh at byte 4, then per channel svid, flags, quality, cno, elev, azim.
  uint8_t nav_svinfo[GPS_NAV_SVINFO_BYTES];
  uint32_t nav_svinfo_tick;
  // Leap second state: current count and an announced change (NAV-TIMELS, a
  // receiver sends it when its configuration enables it).
  uint8_t nav_timels[24];
  uint32_t nav_timels_tick;

  int32_t antOffPolarity;

  // The last GPS_MESSAGE_LOG_CAPACITY messages: entry sequence % capacity.
  uint32_t message_sequence;  // messages logged so far
  gps_logged_message_t message_log[GPS_MESSAGE_LOG_CAPACITY];
};

extern gps_private_info_t gps_private_info;
extern pthread_mutex_t gps_private_info_lock;

// The logging switch is set by callers under the lock but read by the engine
// thread for every message without it; both sides go through these, so the
// unlocked read is a well-defined one.
inline uint8_t lib_GPS_LoggingEnabled(const gps_private_info_t* infos) {
  return __atomic_load_n(&infos->loggingIsEnabled, __ATOMIC_RELAXED);
}
inline void lib_GPS_SetLoggingEnabled(gps_private_info_t* infos, uint8_t enabled) {
  __atomic_store_n(&infos->loggingIsEnabled, enabled, __ATOMIC_RELAXED);
}

void lib_GPS_Lock(void);
void lib_GPS_Unlock(void);
// True when the calling thread holds gps_private_info_lock (through lib_GPS_Lock).
bool lib_GPS_LockHeldByCaller(void);

// The record as engine start-up leaves it before the receiver is opened: all
// zero, no receiver, no transparent device, a 1-second fix period and the
// fix state reset. Without the lock: nothing else runs yet.
void lib_GPS_ClearRecord(gps_private_info_t* infos);

// Resets the fix state; the caller holds the lock.
void lib_GPS_ResetInfos(gps_private_info_t* infos);
void lib_GPS_ResetInfosLocked(gps_private_info_t* infos);
void lib_GPS_ResetModuleVersion(gps_private_info_t* infos);

void SignalEvent(int eventFd);
int ClearEvent(int eventFd);

// Keeps a copy of a complete receiver message in the message log; takes the
// lock itself. receivedNs and lineBytes place its first byte on the line.
void lib_GPS_LogMessage(gps_private_info_t* infos, uint32_t type, const uint8_t* bytes, uint32_t length,
                        int64_t receivedNs, uint32_t lineBytes);

// Takes the lock itself: callers must not hold it.
void lib_GPS_NotifyListeners(gps_private_info_t* infos, uint32_t events);

// Bounded copy of a receiver text into a fixed field: at most capacity - 1
// characters, NUL-padded to the end of the field. The receiver decides the length of its
// fields, so every text copy into the record goes through here.
void lib_GPS_CopyField(char* field, uint32_t capacity, const char* text);
