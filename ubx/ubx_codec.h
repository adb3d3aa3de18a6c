// UBX frames on the wire and the u-blox receiver behind the platform GPS
// resource driver: checksum, send, read, open, close, power.
//
//   B5 62 | class | id | length (u16 LE) | payload | CK_A CK_B
//
// The checksum is the 8-bit Fletcher sum over class .. last payload byte.
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"

inline constexpr uint8_t UBX_SYNC_1 = 0xB5;
inline constexpr uint8_t UBX_SYNC_2 = 0x62;
inline constexpr uint32_t UBX_HEADER_BYTES = 6;
inline constexpr uint32_t UBX_CHECKSUM_BYTES = 2;
inline constexpr int GPS_RESOURCE_OPEN_RESULT_ALREADY_OPEN = -12290;

// Payload length of a frame (bytes 4-5).
inline uint32_t lib_GPS_ubx_PayloadLength(const uint8_t* frame) {
  return static_cast<uint32_t>(frame[4]) | static_cast<uint32_t>(frame[5]) << 8;
}

// Writes CK_A and CK_B behind the payload; returns the whole frame length.
uint32_t lib_GPS_ubx_ComputeChecksum(uint8_t* frame);

// Completes the checksum in place and sends; the frame must be writable.
void lib_GPS_ubx_SendMessage(gps_private_info_t* infos, uint8_t* frame);
// Sends a frame whose checksum is stored with it, as it is.
void lib_GPS_ubx_SendMessageConst(gps_private_info_t* infos, const uint8_t* frame, uint32_t frameLength);

int lib_GPS_ubx_OpenResource(gps_private_info_t* infos);   // 0 or -1
int lib_GPS_ubx_CloseResource(gps_private_info_t* infos);  // 0 or -1
// What the engine thread waits on for receiver data: the resource driver's
// descriptor, or -1 when there is none right now (ask again before each wait).
int lib_GPS_ubx_WaitDescriptor(void);
// Bytes placed in buffer (the rest of its `size` bytes zeroed), or -1.
int lib_GPS_ubx_ReadDataFromDevice(gps_private_info_t* infos, uint8_t* buffer, uint32_t size);
// `length` when sent, 0 when the driver refused. Data longer than one driver
// block goes in several blocks, in order.
int lib_GPS_ubx_SendDataToDevice(gps_private_info_t* infos, const uint8_t* data, uint32_t length);
void lib_GPS_ubx_ChangePowerState(gps_private_info_t* infos, uint32_t state);
