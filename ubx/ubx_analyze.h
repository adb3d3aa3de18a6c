// Analysis of complete UBX frames, from the receiver ("RX") or from the
// transparent device on their way to it ("TX").
#pragma once

#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"

// Largest AID-ALPSRV answer: the data that fits one frame buffer beside the
// frame overhead and the 16-byte ALPSRV header.
inline constexpr uint32_t UBX_ALPSRV_MAX_ANSWER_DATA_BYTES = 1000;
inline constexpr uint32_t UBX_ALP_BLOCK_BYTES = 16;

void lib_GPS_ubx_AnalyzeMessage(gps_private_info_t* infos, gps_message_t* message, const char* source);

// Answers an AID-ALPSRV data request from the loaded assistance data; the
// caller passes the request's fields (ofs and size in 2-byte words).
void lib_GPS_ServeAlpRequest(gps_private_info_t* infos, uint8_t type, uint16_t ofs, uint16_t size, uint8_t id1,
                             uint8_t id2);
