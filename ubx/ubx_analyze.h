// Analysis of complete UBX frames, from the receiver ("RX") or from the
// transparent device on their way to it ("TX").
#pragma once

#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"

void lib_GPS_ubx_AnalyzeMessage(gps_private_info_t* infos, gps_message_t* message, const char* source);
