// AssistNow assistance: Offline data (an ALP file served block by block on the
// receiver's AID-ALPSRV requests) and Online data (an EPH file sent whole).
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"

inline constexpr uint32_t ASSISTNOW_NONE = 0;
inline constexpr uint32_t ASSISTNOW_ONLINE = 1;
inline constexpr uint32_t ASSISTNOW_OFFLINE = 2;
inline constexpr uint32_t ASSISTNOW_RESERVED = 3;
inline constexpr uint32_t ASSISTNOW_ONLINE_FILE_INVALID = 129;

inline constexpr const char* ASSISTNOW_OFFLINE_FILE = "/HOST/current_14d.alp";
inline constexpr const char* ASSISTNOW_ONLINE_FILE = "/HOST/ANONLINE.EPH";
inline constexpr uint16_t ASSISTNOW_ALP_FILE_ID = 0xFECA;
inline constexpr int64_t ASSISTNOW_ONLINE_MAX_AGE_S = 14400;
// Larger files are refused: assistance data is a few hundred kilobytes.
inline constexpr uint32_t ASSISTNOW_MAX_FILE_BYTES = 8u * 1024u * 1024u;

// The caller holds the engine lock unless a name says otherwise.
void load_eph_file_locked(gps_private_info_t* infos, const char* path);
int load_alp_file_locked(gps_private_info_t* infos, const char* path);  // 0 loaded, 1 already, -1 failed
void lib_GPS_FreeAssistanceData(gps_private_info_t* infos);
void lib_GPS_DisableAssistance(gps_private_info_t* infos);
void lib_GPS_StopAssistance(gps_private_info_t* infos);
void lib_GPS_StartOfflineAssistance(gps_private_info_t* infos);
void lib_GPS_ChangeAssistanceMode(gps_private_info_t* infos);
void lib_GPS_ApplyAssistanceMode(gps_private_info_t* infos);
// These take the engine lock themselves.
void lib_GPS_ConfigureAssistance(gps_private_info_t* infos);
void lib_GPS_DisableAssistanceLocked(gps_private_info_t* infos);
void lib_GPS_StartOfflineAssistanceLocked(gps_private_info_t* infos);
