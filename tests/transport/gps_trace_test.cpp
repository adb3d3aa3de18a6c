// Engine log lines and hex dumps ("[GPS] " prefix), and module-trace files:
// raw receiver traffic in GpsLog_<local time>.ubx below /home/LEGACY_FS/HOST/.
#include <gtest/gtest.h>

#include <cstdio>
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

class TraceTest : public ::testing::Test {
 protected:
  void SetUp() override { lib_GPS_TraceInit(1); }
  void TearDown() override { lib_GPS_TraceInit(0); }
  gps::test::LogCapture log_;
};

// One dump line as it should read: hex bytes, the printable copy at column 51.
std::string DumpLine(const std::vector<uint8_t>& bytes, size_t from, size_t count) {
  std::string hex;
  std::string printable;
  for (size_t i = from; i < from + count; ++i) {
    char digits[4];
    std::snprintf(digits, sizeof digits, " %02x", bytes[i]);
    hex += digits;
    printable += (bytes[i] >= 0x20 && bytes[i] < 0x7f) ? static_cast<char>(bytes[i]) : '.';
  }
  return "[GPS] " + hex + std::string(51 - hex.size(), ' ') + printable;
}

TEST_F(TraceTest, MonVerPollDumpsAsOneLine) {
  const uint8_t poll[] = {0xb5, 0x62, 0x0a, 0x04, 0x00, 0x00, 0x0e, 0x34};
  lib_GPS_TraceHex(7, sizeof poll, poll, 1);
  const std::string expected = "[GPS]  b5 62 0a 04 00 00 0e 34" + std::string(27, ' ') + ".b.....4";
  EXPECT_EQ(log_.lines(), std::vector<std::string>{expected});
}

TEST_F(TraceTest, DumpsSplitIn268ByteChunksOf16ByteLines) {
  struct Case {
    const char* legend;
    uint32_t length;
    std::vector<size_t> lineBytes;
  };
  std::vector<size_t> fullChunk(16, 16);  // 268 bytes: 16 full lines and 12 bytes
  fullChunk.push_back(12);
  auto then = [&fullChunk](std::vector<size_t> rest) {
    rest.insert(rest.begin(), fullChunk.begin(), fullChunk.end());
    return rest;
  };
  const Case cases[] = {
      {"exactly one line", 16, {16}},
      {"one byte over a line", 17, {16, 1}},
      {"exactly one chunk", 268, fullChunk},
      {"one byte over a chunk", 269, then({1})},
      {"a chunk and 32 bytes", 300, then({16, 16})},
  };
  for (const Case& c : cases) {
    // i * 37 + 5 visits every byte value within 256 bytes: CR, LF, TAB, DEL and
    // bytes above 0x7f must all show as '.' in the printable column.
    std::vector<uint8_t> data(c.length);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 37 + 5);
    log_.clear();
    lib_GPS_TraceHex(7, c.length, data.data(), 1);
    std::vector<std::string> expected;
    size_t from = 0;
    for (size_t count : c.lineBytes) {
      expected.push_back(DumpLine(data, from, count));
      from += count;
    }
    EXPECT_EQ(log_.lines(), expected) << c.legend;
  }
}

TEST_F(TraceTest, DisabledTracesDropDumpsButKeepLogLines) {
  lib_GPS_TraceInit(0);
  const uint8_t data[] = {1, 2, 3};
  lib_GPS_TraceHex(7, sizeof data, data, 1);
  lib_GPS_Trace(7, "value = %d", 5);
  EXPECT_EQ(log_.lines(), std::vector<std::string>{"[GPS] value = 5"});
}

TEST_F(TraceTest, OverlongTextIsAnnouncedWithItsFirst100Characters) {
  struct Case {
    const char* legend;
    size_t length;
    bool whole;
  };
  const Case cases[] = {
      {"256 characters fit", 256, true},
      {"257 characters do not", 257, false},
      {"longer than the work buffer", 3000, false},
  };
  for (const Case& c : cases) {
    std::string text(c.length, ' ');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    log_.clear();
    lib_GPS_Trace(7, "%s", text.c_str());
    const std::string expected =
        c.whole ? "[GPS] " + text : "[GPS] ATTENTION : Trace trop longue => " + text.substr(0, 100) + "...";
    EXPECT_EQ(log_.lines(), std::vector<std::string>{expected}) << c.legend;
  }
}

// 31 January 2024, 12:34:56 local time.
std::time_t EndOfJanuary2024() {
  std::tm local{};
  local.tm_year = 124;
  local.tm_mday = 31;
  local.tm_hour = 12;
  local.tm_min = 34;
  local.tm_sec = 56;
  local.tm_isdst = -1;
  return std::mktime(&local);
}

class ModuleTraceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gps::test::ResetEngine();
    gps::platform::SetWallClock(&EndOfJanuary2024);
    gps_private_info.loggingIsEnabled = 1;
  }
  void TearDown() override {
    lib_GPS_StopModuleTraces(&gps_private_info);
    gps::platform::SetWallClock(nullptr);
  }
  gps::test::TempRoot root_;
  gps::test::LogCapture log_;
};

TEST_F(ModuleTraceTest, FileNamedAfterCreationTimeHoldsMessagesBackToBack) {
  const std::string nmea = "$GPTXT,01,01,02,ANTSTATUS=OK*3B\r\n";
  const std::string ubx("\xb5\x62\x0a\x04\x00\x00\x0e\x34", 8);
  auto record = [](const std::string& m) {
    return lib_GPS_LogModuleTraces(&gps_private_info, reinterpret_cast<const uint8_t*>(m.data()),
                                   static_cast<uint32_t>(m.size()));
  };
  EXPECT_EQ(record(nmea), 0);
  const int32_t fd = gps_private_info.module_trace_fd;
  EXPECT_GT(fd, 0);
  EXPECT_EQ(record(ubx), 0);
  EXPECT_EQ(gps_private_info.module_trace_fd, fd) << "one file for the whole session";
  EXPECT_STREQ(gps_private_info.module_trace_path, "/home/LEGACY_FS/HOST/GpsLog_20240131123456.ubx");
  EXPECT_TRUE(log_.contains("[GPS] lib_GPS_LogModuleTraces: file name = [GpsLog_20240131123456.ubx]."));

  const std::string directory = root_ / "home/LEGACY_FS/HOST";
  std::ifstream in(directory + "/GpsLog_20240131123456.ubx", std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), nmea + ubx);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()), 1);

  lib_GPS_StopModuleTraces(&gps_private_info);
  EXPECT_EQ(gps_private_info.module_trace_fd, 0);
  EXPECT_STREQ(gps_private_info.module_trace_path, "/home/LEGACY_FS/HOST/GpsLog_20240131123456.ubx")
      << "the last path stays readable";
  EXPECT_EQ(gps_private_info.loggingIsEnabled, 1) << "stopping is not switching logging off";
}

TEST_F(ModuleTraceTest, CreationFailureClearsLoggingAndLeavesNoDescriptor) {
  // The trace directory's place is taken by a regular file, so the open fails.
  std::filesystem::create_directories(root_ / "home/LEGACY_FS");
  std::ofstream(root_ / "home/LEGACY_FS/HOST") << "not a directory";
  const uint8_t data[] = {0xb5, 0x62};
  EXPECT_EQ(lib_GPS_LogModuleTraces(&gps_private_info, data, sizeof data), -1);
  EXPECT_TRUE(log_.contains("[GPS] lib_GPS_LogModuleTraces: file creation failed."));
  EXPECT_EQ(gps_private_info.loggingIsEnabled, 0);
  EXPECT_EQ(gps_private_info.module_trace_fd, 0);
  EXPECT_STREQ(gps_private_info.module_trace_path, "");
}

}  // namespace
