#include "ubx/ubx_analyze.h"

#include "transport/gps_trace.h"

// Message handlers are not built yet: every frame is only announced.
void lib_GPS_ubx_AnalyzeMessage(gps_private_info_t* /*infos*/, gps_message_t* message, const char* source) {
  lib_GPS_Trace(4, "lib_GPS_ubx_AnalyzeMessage::[%s]Class 0x%02X, ID 0x%02X", source, message->ubx_class,
                message->ubx_id);
}
