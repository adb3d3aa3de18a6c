#include "assist/assistnow.h"

#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "engine/gps_device.h"
#include "platform/clock.h"
#include "platform/fs.h"
#include "platform/root.h"
#include "transport/gps_trace.h"
#include "ubx/ubx_codec.h"
#include "ubx/ubx_config.h"

namespace {

constexpr uint32_t kFirstBlockDataBytes = 84;
constexpr uint32_t kAlpHeaderBytes = 16;

// CFG-MSG for AID-ALPSRV: off on all ports, and rate 1 on the first port.
const uint8_t kAlpSrvOff[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x0B, 0x32, 0, 0, 0, 0, 0, 0, 0x00, 0x00};
const uint8_t kAlpSrvOn[16] = {0xB5, 0x62, 0x06, 0x01, 0x08, 0x00, 0x0B, 0x32, 1, 0, 0, 0, 0, 0, 0x00, 0x00};

void MountHost() {
  const uint32_t mode = 4;
  FILE_FS_mount("/HOST", &mode);
}

// An assistance file whole, through the platform's bounded read: a FIFO or a
// device in its place is refused at once, and files above
// ASSISTNOW_MAX_FILE_BYTES (8 MiB, far above any real ALP or EPH file) are
// refused so that a damaged or foreign file cannot take the memory. Nothing
// when the file is missing or refused (the refusal is logged).
std::optional<std::string> ReadAssistanceFile(const char* path) {
  const auto real = gps::platform::DiskPath(path);
  if (!real) return std::nullopt;
  std::string content;
  std::string problem;
  switch (gps::platform::ReadWholeFile(*real, ASSISTNOW_MAX_FILE_BYTES, content, nullptr, &problem)) {
    case gps::platform::ReadStatus::Ok: return content;
    case gps::platform::ReadStatus::Missing: return std::nullopt;
    case gps::platform::ReadStatus::TooLarge:
    case gps::platform::ReadStatus::Failed: break;
  }
  lib_GPS_Trace(3, "AssistNow: %s; the file is not used.", problem.c_str());
  return std::nullopt;
}

// The content in a new buffer of its size; nullptr when empty or out of memory.
uint8_t* CopyOut(const std::string& content) {
  if (content.empty()) return nullptr;
  auto* data = new (std::nothrow) uint8_t[content.size()];
  if (data) std::memcpy(data, content.data(), content.size());
  return data;
}

void PutU16(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

// AID-ALPSRV carrying the start of the ALP data: what makes the receiver ask
// for the rest.
void SendFirstAlpBlock(gps_private_info_t* infos) {
  uint32_t dataBytes = infos->alp_size < kFirstBlockDataBytes ? infos->alp_size : kFirstBlockDataBytes;
  dataBytes &= ~1u;  // the data is counted in 2-byte words
  uint8_t frame[UBX_HEADER_BYTES + kAlpHeaderBytes + kFirstBlockDataBytes + UBX_CHECKSUM_BYTES] = {};
  frame[0] = UBX_SYNC_1;
  frame[1] = UBX_SYNC_2;
  frame[2] = 0x0B;
  frame[3] = 0x32;
  PutU16(frame + 4, kAlpHeaderBytes + dataBytes);
  uint8_t* payload = frame + UBX_HEADER_BYTES;
  payload[0] = 0x10;                    // idSize
  payload[1] = 0x01;                    // type
  PutU16(payload + 2, 0);               // ofs [words]
  PutU16(payload + 4, dataBytes / 2);   // size [words]
  PutU16(payload + 6, infos->alp_file_id);
  PutU16(payload + 8, dataBytes);       // dataSize [bytes]
  if (dataBytes > 0) std::memcpy(payload + kAlpHeaderBytes, infos->alp_data, dataBytes);
  lib_GPS_ubx_SendMessage(infos, frame);
}

void DeliverOnlineAssistance(gps_private_info_t* infos) {
  lib_GPS_Trace(7, "enable Online Assistance");
  lib_GPS_StopAssistance(infos);
  load_eph_file_locked(infos, ASSISTNOW_ONLINE_FILE);
  if (infos->assistnow == ASSISTNOW_ONLINE && infos->com_gps != GPS_INVALID_HANDLE) {
    lib_GPS_WriteDevice(infos, infos->alp_data, infos->alp_size);
    lib_GPS_FreeAssistanceData(infos);
  }
}

}  // namespace

void load_eph_file_locked(gps_private_info_t* infos, const char* path) {
  lib_GPS_Trace(7, "load_eph_file_locked([%s])", path);
  MountHost();
  FILE_FS_DIR_HANDLE listing = FILE_FS_opendir(path);
  lib_GPS_Trace(7, "file_list=0x%08X", static_cast<unsigned>(reinterpret_cast<uintptr_t>(listing)));
  FILE_FS_DirEntry entry{};
  if (FILE_FS_readdir(listing, &entry) != FILE_FS_READDIR_ENTRY) {
    lib_GPS_Trace(7, "FS_readdir() => KO");
  } else {
    int64_t age = gps::platform::WallClockNow() - entry.modifiedTime;
    if (age < 0) age = 0;  // a file dated ahead of the terminal's clock was just written
    lib_GPS_Trace(7, "[%s:%d] created on 20%02d/%02d/%02d", entry.name, static_cast<int>(entry.size), entry.year,
                  entry.month, entry.day);
    lib_GPS_Trace(7, "[%s:%d] is %lu sec old", entry.name, static_cast<int>(entry.size),
                  static_cast<unsigned long>(age));
    if (age >= ASSISTNOW_ONLINE_MAX_AGE_S || entry.size == 0) {
      lib_GPS_Trace(7, "EPHEMERAL too OLD");
    } else if (const auto content = ReadAssistanceFile(path); !content) {
      lib_GPS_Trace(7, "FS_open() => KO");
    } else {
      lib_GPS_FreeAssistanceData(infos);
      if (uint8_t* data = CopyOut(*content)) {
        infos->alp_data = data;
        infos->alp_size = static_cast<uint32_t>(content->size());
        infos->alp_file_id = static_cast<uint16_t>(entry.month * 256 + entry.day);
        infos->assistnow = ASSISTNOW_ONLINE;
      } else {
        lib_GPS_Trace(3, "load_eph_file_locked([%s]): cannot read %u bytes.", path, entry.size);
      }
    }
  }
  FILE_FS_closedir(listing);
  if (infos->assistnow != ASSISTNOW_ONLINE) {
    lib_GPS_Trace(7, "something wrong with EPHemeral file, request new download");
    infos->assistnow = ASSISTNOW_ONLINE_FILE_INVALID;
  }
}

int load_alp_file_locked(gps_private_info_t* infos, const char* path) {
  lib_GPS_Trace(4, "load_alp_file_locked([%s])", path);
  if (infos->alp_size != 0) {
    lib_GPS_Trace(3, "load_alp_file_locked([%s]) ALREADY LOADED", path);
    return 1;
  }
  MountHost();
  if (const auto content = ReadAssistanceFile(path)) {
    // An empty file loads as no data: the mode is set and the first block
    // goes out without data bytes, as for any file shorter than that block.
    uint8_t* data = CopyOut(*content);
    if (data || content->empty()) {
      lib_GPS_FreeAssistanceData(infos);
      infos->alp_data = data;
      infos->alp_size = static_cast<uint32_t>(content->size());
      infos->alp_file_id = ASSISTNOW_ALP_FILE_ID;
      infos->assistnow = ASSISTNOW_OFFLINE;
    } else {
      infos->assistnow = ASSISTNOW_NONE;
      lib_GPS_Trace(3, "load_alp_file_locked([%s]): no memory for %zu bytes.", path, content->size());
    }
  } else {
    infos->assistnow = ASSISTNOW_NONE;
    lib_GPS_Trace(3, "FILE_FS_open(\"%s\") => KO", path);
  }
  if (infos->assistnow != ASSISTNOW_OFFLINE) {
    lib_GPS_Trace(3, "something went wrong with ALmanachPlus file");
    return -1;
  }
  return 0;
}

void lib_GPS_FreeAssistanceData(gps_private_info_t* infos) {
  delete[] infos->alp_data;
  infos->alp_data = nullptr;
  infos->alp_size = 0;
}

void lib_GPS_DisableAssistance(gps_private_info_t* infos) {
  lib_GPS_Trace(7, "disable Assistance");
  lib_GPS_ubx_SendTemplate(infos, kAlpSrvOff, sizeof kAlpSrvOff);
  lib_GPS_Pause(UBX_CONFIGURATION_PAUSE_US);
  lib_GPS_FreeAssistanceData(infos);
}

void lib_GPS_StopAssistance(gps_private_info_t* infos) {
  lib_GPS_DisableAssistance(infos);
  infos->assistnow = ASSISTNOW_NONE;
}

void lib_GPS_StartOfflineAssistance(gps_private_info_t* infos) {
  if (load_alp_file_locked(infos, ASSISTNOW_OFFLINE_FILE) != 0) return;
  lib_GPS_ubx_SendTemplate(infos, kAlpSrvOn, sizeof kAlpSrvOn);
  lib_GPS_Pause(UBX_CONFIGURATION_PAUSE_US);
  SendFirstAlpBlock(infos);
  lib_GPS_Pause(UBX_CONFIGURATION_PAUSE_US);
}

void lib_GPS_ConfigureAssistance(gps_private_info_t* infos) {
  lib_GPS_Lock();
  if (infos->assistnow == ASSISTNOW_OFFLINE) {
    lib_GPS_Trace(7, "AssistNow Offline configuration");
    lib_GPS_StartOfflineAssistance(infos);
  }
  if (infos->assistnow == ASSISTNOW_ONLINE) DeliverOnlineAssistance(infos);
  lib_GPS_Unlock();
}

void lib_GPS_ChangeAssistanceMode(gps_private_info_t* infos) {
  if (lib_GPS_IsUbxModule(infos->module_type)) {
    lib_GPS_ApplyAssistanceMode(infos);
    return;
  }
  lib_GPS_Trace(3, "lib_GPS_ChangeAssistanceMode: assistance mode not handled for this module type (%i).",
                static_cast<int>(infos->module_type));
}

void lib_GPS_ApplyAssistanceMode(gps_private_info_t* infos) {
  if (infos->assistnow == ASSISTNOW_NONE) lib_GPS_StopAssistance(infos);
  if (infos->assistnow == ASSISTNOW_OFFLINE) {
    lib_GPS_Trace(7, "enable Offline Assistance");
    std::memset(infos->alp_served_blocks, 0, sizeof infos->alp_served_blocks);
    lib_GPS_DisableAssistance(infos);
    if (infos->module_config_state == 2 && infos->assistnow == ASSISTNOW_OFFLINE) lib_GPS_StartOfflineAssistance(infos);
  }
  if (infos->assistnow == ASSISTNOW_ONLINE) DeliverOnlineAssistance(infos);
}

void lib_GPS_DisableAssistanceLocked(gps_private_info_t* infos) {
  lib_GPS_Lock();
  lib_GPS_DisableAssistance(infos);
  lib_GPS_Unlock();
}

void lib_GPS_StartOfflineAssistanceLocked(gps_private_info_t* infos) {
  lib_GPS_Lock();
  lib_GPS_StartOfflineAssistance(infos);
  lib_GPS_Unlock();
}
