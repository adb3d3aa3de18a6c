// platform.ini as the daemon reads it: a typo is warned about with its line and
// the keys that exist; a line that does not parse makes the file unusable.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "platform/root.h"
#include "platform/settings.h"
#include "tests/support/test_env.h"

namespace {

struct IniCase {
  const char* legend;
  const char* text;
  const char* unusable;  // a part of the reason; empty: the file is usable
  const char* warning;   // a part of stderr; empty: nothing is written
  const char* device;    // [gps] device as read (auto when none is)
};

const IniCase kCases[] = {
    {"a typo is named with its line and the keys of its section", "[gps]\n\ndevise = /dev/ttyACM0\n", "",
     "platform.ini:3: unknown key \"devise\" in [gps] is ignored; known keys there: device, baud, port, power_off",
     "auto"},
    {"an unknown section is named once, with the known sections", "[gsp]\ndevice = /dev/ttyACM0\nbaud = 1\n", "",
     "platform.ini:1: unknown section [gsp] is ignored; known sections: platform, gps, sim, log, service, gpsd, "
     "chrony\n",
     "auto"},
    {"a key before any section", "device = /dev/ttyACM0\n", "", "platform.ini:1: key \"device\" outside any section",
     "auto"},
    {"comments, blanks, case and a continued line are what iniparser reads",
     "# comment\n; comment\n\n[GPS]\nDevice = /dev/tty\\\nUSB0 ; the adapter\n[log]\ntarget = journal\n", "", "",
     "/dev/ttyUSB0"},
    {"every key of other parts is known",
     "[platform]\nstartup_mode = 0\nmodule_type = 2\n[gps]\ndevice = sim\nbaud = 9600\nport = 3\npower_off = "
     "backup\n[sim]\nscenario =\nttff_ms = 1\nant_off_polarity = 0\nalp_file =\n[log]\nthreshold = 6\n[service]\n"
     "max_connections_per_user = 64\n[gpsd]\nlisten = 127.0.0.1:2947\nsocket = run/gpsd.sock\n[chrony]\nsocket = "
     "run/chrony.sock\n",
     "", "", "sim"},
    {"an unclosed section header", "[gps\ndevice = /dev/ttyACM0\n", "platform.ini:1: cannot parse \"[gps\"", "",
     "auto"},
    {"a key without '='", "[gps]\ndevice /dev/ttyACM0\n", "platform.ini:2: cannot parse \"device /dev/ttyACM0\"", "",
     "auto"},
    {"a value without key", "[gps]\n= sim\n", "platform.ini:2: cannot parse", "", "auto"},
    {"a last line continued into nothing", "[gps]\ndevice = sim \\\n", "platform.ini:2: the last line ends in a "
     "continuation", "", "auto"},
};

TEST(Settings, PlatformIniLinesAreCheckedAndUnknownKeysNamed) {
  for (const IniCase& c : kCases) {
    SCOPED_TRACE(c.legend);
    gps::test::TempRoot root;
    std::ofstream(root / "platform.ini") << c.text;
    testing::internal::CaptureStderr();
    const gps::platform::Settings settings = gps::platform::ReadSettings();
    const std::string warnings = testing::internal::GetCapturedStderr();
    if (*c.unusable) {
      EXPECT_NE(settings.unusable.find(root / c.unusable), std::string::npos) << settings.unusable;
    } else {
      EXPECT_EQ(settings.unusable, "");
    }
    if (*c.warning) {
      EXPECT_NE(warnings.find(root / c.warning), std::string::npos) << warnings;
    } else {
      EXPECT_EQ(warnings, "");
    }
    EXPECT_EQ(settings.device, c.device);
  }
}

TEST(Settings, AnUnreadableOrOverlongFileIsUnusableAndAMissingOneGivesDefaults) {
  gps::test::TempRoot root;
  EXPECT_EQ(gps::platform::ReadSettings().unusable, "") << "no platform.ini: the defaults";
  std::filesystem::create_directory(root / "platform.ini");
  EXPECT_NE(gps::platform::ReadSettings().unusable.find("platform.ini is a directory, not a regular file"),
            std::string::npos);
  std::filesystem::remove(root / "platform.ini");
  std::ofstream(root / "platform.ini") << "[gps]\ndevice = " << std::string(1100, 'x') << "\n";
  EXPECT_NE(gps::platform::ReadSettings().unusable.find("platform.ini:2: the line is longer than 1023"),
            std::string::npos);
}

}  // namespace
