// Engine start-up: everything the engine holds for the life of the process is
// acquired here, once, on the service thread, before the engine thread runs.
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <sys/eventfd.h>

#include "engine/gps_device.h"
#include "engine/gps_events.h"
#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "engine/gps_thread.h"
#include "param/gps_optional_parameters.h"
#include "param/gps_parameters.h"
#include "platform/oem.h"
#include "transport/gps_trace.h"

namespace {

// The engine thread's name: its start argument and the prefix of some of its
// log lines.
char g_threadName[64];

int CreateChannel() { return eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); }

const char* ModuleName(uint32_t moduleType) {
  switch (moduleType) {
    case GPS_MODULE_TYPE_UBX_G7020: return "UBX-G7020";
    case GPS_MODULE_TYPE_UBX_M8030: return "UBX-M8030";
    default: return "GPRS";
  }
}

}  // namespace

int gps_dll_init(void) {
  pthread_mutex_init(&gps_private_info_lock, nullptr);

  CHANGE_POWER_STATE_eventfd = CreateChannel();
  CHANGE_LOGGING_STATE_eventfd = CreateChannel();
  EXTERNAL_COMMAND_eventfd = CreateChannel();
  CHANGE_ASSISTANCE_MODE_eventfd = CreateChannel();
  CHANGE_FORWARD_DEVICE_eventfd = CreateChannel();
  CHANGE_POWER_PARAMETER_eventfd = CreateChannel();
  STOP_ASSISTANCE_eventfd = CreateChannel();
  RELOAD_ASSISTANCE_eventfd = CreateChannel();
  antOffPolarityRequestValue_eventfd = CreateChannel();
  antOffPolarityAnswer_eventfd = CreateChannel();
  antOffPolaritySetValue_eventfd = CreateChannel();
  fixUpdatePeriodRequestValue_eventfd = CreateChannel();
  fixUpdatePeriodAnswer_eventfd = CreateChannel();
  fixUpdatePeriodSetValue_eventfd = CreateChannel();
  CHANGE_MODULE_DEVICE_eventfd = CreateChannel();

  gps_private_info_t* infos = &gps_private_info;
  lib_GPS_ClearRecord(infos);

  const int result = Oem_SystemFioctl(OEM_REQUEST_GPS_MODULE_TYPE, &infos->module_type);
  if (result != 0) {
    lib_GPS_Trace(7, "gps_dll_init: ioctl to get GPS type failed. Error code: %i", result);
    infos->module_type = 0;
  }

  const int opened = lib_GPS_OpenDevice(infos);
  if (opened < 0) lib_GPS_Trace(3, "gps_dll_init: lib_GPS_OpenDevice failed. Error code: %i", opened);
  lib_GPS_Trace(4, "com_gps_handle %d", static_cast<int>(infos->com_gps));

  std::snprintf(g_threadName, sizeof g_threadName, "GPS DATA THREAD on %s", ModuleName(infos->module_type));

  lib_GPS_param_RestorePersistentStorage();
  lib_GPS_param_InitializeOptionalParameters();

  infos->module_config_state = 0;
  infos->power_state = 0;
  infos->fix_update_period_ms = 1000;
  infos->com_transp_handle = -1;

  pthread_t thread;
  if (pthread_create(&thread, nullptr, lib_GPS_thread, g_threadName) == 0) {
    pthread_setname_np(thread, "gps-engine");  // what ps, top and the benchmarks see
    pthread_detach(thread);
  } else {
    lib_GPS_Trace(3, "gps_dll_init: the engine thread could not be started.");
  }

  return lib_GPS_TraceInit(1);
}
