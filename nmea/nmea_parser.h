// NMEA 0183 sentences into the engine record: GGA, RMC, VTG, GSA, GSV, TXT
// and the receiver's TTFF sentence. The talker is ignored.
#pragma once

#include <cstdint>

#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"

inline constexpr int GPS_NMEA_MAX_TOKENS = 64;

// Splits text at each separator, terminating tokens in place; returns the
// number of tokens (the text before the first separator is not one).
int tokenize(char* text, char** tokens, char separator, int maxTokens);

void analyze_gps_nmea_message(gps_private_info_t* infos, gps_message_t* message);

void analyze_gps_message_gxvtg(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxgga(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxgsa(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxgsv(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxtxt(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxrmc(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxttff(gps_private_info_t* infos, char** tokens, int count);
