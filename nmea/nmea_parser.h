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

// Receiver dates earlier than this day (days since 1970-01-01) are taken for
// a GPS week-number rollover and moved forward by 1024 weeks until they are
// not. The default, 1024 weeks before the day this program was built, lets a
// receiver's date stand for as far back as a rollover leaves no doubt: a date
// of 1999 from a receiver running after 2019 moves to 2019. A replay of a
// recording sets it to the GPS epoch: a recording may be older than the build.
// INT64_MIN restores the default.
void lib_GPS_SetEarliestReceiverDay(int64_t days);

void analyze_gps_nmea_message(gps_private_info_t* infos, gps_message_t* message);

void analyze_gps_message_gxvtg(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxgga(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxgsa(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxgsv(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxtxt(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxrmc(gps_private_info_t* infos, char** tokens, int count);
void analyze_gps_message_gxttff(gps_private_info_t* infos, char** tokens, int count);
