// Expert settings from the optional INI file: defaults, limits and bad input.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "engine/gps_private_info.h"
#include "param/gps_optional_parameters.h"
#include "tests/support/test_env.h"

namespace {

TEST(OptionalParameters, FileContentsGiveTheirSettingsOrTheDefaults) {
  const struct {
    const char* legend;
    const char* ini;  // nullptr: no file
    int expert, logging;
    const char* device;
    uint32_t validity, assistnow;
  } cases[] = {
      {"no file", nullptr, 0, 0, "", 30, 0},
      {"only offline assistance", "[Assistance]\nassistnow = ANOF\n", 0, 0, "", 30, 2},
      {"assistance text is case-sensitive", "[Assistance]\nassistnow = anof\n", 0, 0, "", 30, 0},
      {"everything set", "[Expertise]\nexpertModeIsEnabled = true\nloggingIsEnabled = 1\ntransparent = /dev/ttyUSB1\n"
                         "[Fix]\nnmeaFixValidityIns = 0\n", 1, 1, "/dev/ttyUSB1", 0, 0},
      {"device name cut to 15 characters", "[Expertise]\ntransparent = /dev/serial/by-id/x\n", 0, 0,
       "/dev/serial/by-", 30, 0},
      {"wrong types and unknown sections", "[Expertise]\nexpertModeIsEnabled = maybe\n[Fix]\nnmeaFixValidityIns = soon\n"
                                           "[Other]\nx = 1\n", 0, 0, "", 0, 0},
      {"a malformed line: the file is ignored", "[Fix]\nnmeaFixValidityIns = 5\nnot a line\n", 0, 0, "", 30, 0},
  };
  for (const auto& c : cases) {
    gps::test::TempRoot root;
    gps::test::ResetEngine(2);
    if (c.ini) {
      std::filesystem::create_directories(root / "home/LEGACY_FS/HOST");
      std::ofstream(root / "home/LEGACY_FS/HOST/GPS_optional_parameters.ini") << c.ini;
    }
    lib_GPS_param_InitializeOptionalParameters();
    EXPECT_EQ(gps_private_info.expertModeIsEnabled, c.expert) << c.legend;
    EXPECT_EQ(gps_private_info.loggingIsEnabled, c.logging) << c.legend;
    EXPECT_STREQ(gps_private_info.transparent_device, c.device) << c.legend;
    EXPECT_EQ(gps_private_info.nmeaFixValidityIns, c.validity) << c.legend;
    EXPECT_EQ(gps_private_info.assistnow, c.assistnow) << c.legend;
  }
}

TEST(OptionalParameters, SummaryLineNamesWhatIsInUse) {
  gps::test::TempRoot root;
  gps::test::ResetEngine(2);
  gps::test::LogCapture log;
  lib_GPS_param_InitializeOptionalParameters();
  EXPECT_EQ(log.linesAt(4), std::vector<std::string>{
                                "lib_GPS_param_InitializeOptionalParameters: parameters in use: - expertModeIsEnabled "
                                "= 0, - loggingIsEnabled = 0, - nmeaFixValidityIns = 30, - transparent device = \"\", "
                                "- assistnow = 0, "});
  EXPECT_TRUE(log.contains(
      "lib_GPS_param_InitializeOptionalParameters: parameters file not found. Setting default parameters."));
}

}  // namespace
