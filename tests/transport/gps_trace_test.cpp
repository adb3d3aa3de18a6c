// Engine log lines and hex dumps ("[GPS] " prefix), and module-trace files:
// raw receiver traffic in GpsLog_<local time>.ubx below /home/LEGACY_FS/HOST/.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engine/gps_private_info.h"
#include "platform/clock.h"
#include "transport/gps_trace.h"
#include "tests/support/test_env.h"

namespace {

using Lines = std::vector<std::string>;

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override { lib_GPS_TraceInit(1); }
  void TearDown() override { lib_GPS_TraceInit(0); }
  gps::test::LogCapture log_;
};

TEST_F(TraceTest, MonVerPollDumpsAsOneLineAndDisabledTracesDropDumpsButNotLines) {
  const uint8_t poll[] = {0xb5, 0x62, 0x0a, 0x04, 0x00, 0x00, 0x0e, 0x34};
  lib_GPS_TraceHex(7, sizeof poll, poll, 1);
  lib_GPS_TraceInit(0);
  lib_GPS_TraceHex(7, sizeof poll, poll, 1);
  lib_GPS_Trace(7, "value = %d", 5);
  EXPECT_EQ(log_.lines(),
            (Lines{"[GPS]  b5 62 0a 04 00 00 0e 34" + std::string(27, ' ') + ".b.....4", "[GPS] value = 5"}));
}

TEST_F(TraceTest, DumpsSplitIn268ByteChunksOf16ByteLines) {
  // Bytes i * 37 + 5: the first line mixes letters, control bytes and bytes
  // above 0x7f, which show as '.' in the printable column.
  std::vector<uint8_t> data(285);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 37 + 5);
  const auto dump = [&](size_t from, size_t length) {
    log_.clear();
    lib_GPS_TraceHex(7, static_cast<uint32_t>(length), data.data() + from, 1);
    return log_.lines();
  };
  const Lines chunk = dump(0, 268), rest = dump(268, 17);
  ASSERT_EQ(chunk.size(), 17u) << "16 full lines and one of 12 bytes";
  EXPECT_EQ(chunk[0], "[GPS]  05 2a 4f 74 99 be e3 08 2d 52 77 9c c1 e6 0b 30   .*Ot....-Rw....0");
  EXPECT_EQ(chunk[16].size(), 6 + 51 + 12u);
  Lines both = chunk;
  both.insert(both.end(), rest.begin(), rest.end());
  EXPECT_EQ(dump(0, 285), both) << "a second chunk starts its own lines";
}

TEST_F(TraceTest, OverlongTextIsAnnouncedWithItsFirst100Characters) {
  const struct {
    const char* legend;
    size_t length;
    bool whole;
  } cases[] = {{"256 fit", 256, true}, {"257 do not", 257, false}, {"beyond the work buffer", 3000, false}};
  for (const auto& c : cases) {
    std::string text(c.length, ' ');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    log_.clear();
    lib_GPS_Trace(7, "%s", text.c_str());
    EXPECT_EQ(log_.lines(), Lines{c.whole ? "[GPS] " + text
                                          : "[GPS] ATTENTION : Trace trop longue => " + text.substr(0, 100) + "..."})
        << c.legend;
  }
}

class ModuleTraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gps::test::ResetEngine();
    gps::platform::SetWallClock([] {  // 31 January 2024, 12:34:56 local time
      std::tm local{};
      local.tm_year = 124, local.tm_mday = 31, local.tm_hour = 12, local.tm_min = 34, local.tm_sec = 56;
      local.tm_isdst = -1;
      return std::mktime(&local);
    });
    gps_private_info.loggingIsEnabled = 1;
  }
  void TearDown() override {
    lib_GPS_StopModuleTraces(&gps_private_info);
    gps::platform::SetWallClock(nullptr);
  }
  static int Record(const std::string& m) {
    return lib_GPS_LogModuleTraces(&gps_private_info, reinterpret_cast<const uint8_t*>(m.data()),
                                   static_cast<uint32_t>(m.size()));
  }
  gps::test::TempRoot root_;
};

TEST_F(ModuleTraceTest, FileNamedAfterCreationTimeHoldsMessagesBackToBack) {
  const std::string nmea = "$GPTXT,01,01,02,ANTSTATUS=OK*3B\r\n", ubx("\xb5\x62\x0a\x04\x00\x00\x0e\x34", 8);
  EXPECT_EQ(Record(nmea), 0);
  EXPECT_EQ(Record(ubx), 0);
  EXPECT_STREQ(gps_private_info.module_trace_path, "/home/LEGACY_FS/HOST/GpsLog_20240131123456.ubx");
  std::ifstream in(root_ / "home/LEGACY_FS/HOST/GpsLog_20240131123456.ubx", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), nmea + ubx) << "one file for the session";
}

TEST_F(ModuleTraceTest, CreationFailureClearsLoggingAndLeavesNoDescriptor) {
  // The trace directory's place is taken by a regular file, so the open fails.
  std::filesystem::create_directories(root_ / "home/LEGACY_FS");
  std::ofstream(root_ / "home/LEGACY_FS/HOST") << "not a directory";
  EXPECT_EQ(Record("\xb5\x62"), -1);
  EXPECT_EQ(gps_private_info.loggingIsEnabled, 0);
  EXPECT_EQ(gps_private_info.module_trace_fd, 0);
  EXPECT_STREQ(gps_private_info.module_trace_path, "");
}

}  // namespace
