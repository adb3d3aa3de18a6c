#include "param/gps_optional_parameters.h"

#include <cstdio>
#include <cstring>

#include "engine/gps_private_info.h"
#include "platform/fs.h"
#include "platform/os.h"
#include "platform/root.h"

extern "C" {
#include <iniparser.h>
}

namespace {

constexpr uint32_t kAssistNowOffline = 2;

// "section:key" as iniparser looks it up.
void ComposeKey(char (&key)[256], const char* section, const char* name) {
  std::snprintf(key, sizeof key, "%s:%s", section, name);
}

}  // namespace

int lib_GPS_param_InitializeOptionalParameters(void) {
  gps_private_info_t& infos = gps_private_info;
  const auto path = gps::platform::SystemPath(GPS_OPTIONAL_PARAMETERS_FILE);
  gps::platform::IniDictionary parsed;
  if (path) {
    std::string text;
    std::string problem;
    switch (gps::platform::ReadWholeFile(*path, gps::platform::kMaxTextFileBytes, text, nullptr, &problem)) {
      case gps::platform::ReadStatus::Ok:
        parsed = gps::platform::ParseIni(text);
        if (!parsed)
          Sys_log(3, "lib_GPS_param_InitializeOptionalParameters: %s has a line that is not an INI setting "
                     "(iniparser gave its number on stderr); the whole file is ignored.", path->c_str());
        break;
      case gps::platform::ReadStatus::Missing:
        break;
      case gps::platform::ReadStatus::TooLarge:
      case gps::platform::ReadStatus::Failed:
        Sys_log(3, "lib_GPS_param_InitializeOptionalParameters: %s; the file is ignored.", problem.c_str());
        break;
    }
  }
  dictionary* ini = parsed.get();
  if (ini) {
    Sys_log(4, "lib_GPS_param_InitializeOptionalParameters: parsing parameters file.");
    char key[256];
    ComposeKey(key, "Expertise", "expertModeIsEnabled");
    infos.expertModeIsEnabled = iniparser_getboolean(ini, key, 0) != 0 ? 1 : 0;
    ComposeKey(key, "Expertise", "loggingIsEnabled");
    infos.loggingIsEnabled = iniparser_getboolean(ini, key, 0) != 0 ? 1 : 0;
    lib_GPS_CopyField(infos.transparent_device, sizeof infos.transparent_device,
                      iniparser_getstring(ini, "Expertise:transparent", ""));
    ComposeKey(key, "Fix", "nmeaFixValidityIns");
    infos.nmeaFixValidityIns =
        static_cast<uint32_t>(iniparser_getint(ini, key, static_cast<int>(GPS_DEFAULT_NMEA_FIX_VALIDITY_S)));
    const char* assistance = iniparser_getstring(ini, "Assistance:assistnow", "NONE");
    infos.assistnow = assistance && std::strcmp(assistance, "ANOF") == 0 ? kAssistNowOffline : 0;
  } else {
    Sys_log(3, "lib_GPS_param_InitializeOptionalParameters: parameters file not found. Setting default parameters.");
    infos.expertModeIsEnabled = 0;
    infos.loggingIsEnabled = 0;
    infos.transparent_device[0] = '\0';
    infos.nmeaFixValidityIns = GPS_DEFAULT_NMEA_FIX_VALIDITY_S;
    infos.assistnow = 0;
  }
  Sys_log(4,
          "lib_GPS_param_InitializeOptionalParameters: parameters in use: - expertModeIsEnabled = %i, - "
          "loggingIsEnabled = %i, - nmeaFixValidityIns = %i, - transparent device = \"%s\", - assistnow = %i, ",
          infos.expertModeIsEnabled, infos.loggingIsEnabled, static_cast<int>(infos.nmeaFixValidityIns),
          infos.transparent_device, static_cast<int>(infos.assistnow));
  return 0;
}
