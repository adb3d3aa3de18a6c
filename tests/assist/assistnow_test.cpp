// AssistNow: what reaches the receiver for each assistance mode and file state.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <fcntl.h>
#include <sys/stat.h>

#include "assist/assistnow.h"
#include "engine/gps_private_info.h"
#include "param/gps_parameters.h"
#include "platform/clock.h"
#include "tests/support/message_recorder.h"
#include "tests/support/pty_receiver.h"
#include "ubx/ubx_codec.h"

namespace {

constexpr std::time_t kNow = 1760000000;  // the terminal's wall clock in these tests
std::time_t FixedWallClock() { return kNow; }

std::vector<std::pair<int, int>> Kinds(const std::vector<std::string>& frames) {
  std::vector<std::pair<int, int>> kinds;
  for (const auto& f : frames) kinds.emplace_back(static_cast<uint8_t>(f[2]), static_cast<uint8_t>(f[3]));
  return kinds;
}

class AssistNowTest : public testing::Test {
 protected:
  void SetUp() override {
    gps::platform::SetWallClock(FixedWallClock);
    gps::test::ResetEngine(2);
    lib_GPS_param_RestorePersistentStorage();
    ASSERT_EQ(lib_GPS_ubx_OpenResource(&gps_private_info), 0);
    std::filesystem::create_directories(root_ / "fs/HOST");
  }
  void TearDown() override {
    lib_GPS_FreeAssistanceData(&gps_private_info);
    lib_GPS_ubx_CloseResource(&gps_private_info);
    gps::platform::SetWallClock(nullptr);
  }
  // Writes a file on the HOST disk dated `ageSeconds` before the wall clock.
  std::string WriteHostFile(const char* name, size_t size, std::time_t ageSeconds = 0) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 11 + 3);
    const std::string path = root_ / (std::string("fs/HOST/") + name);
    std::ofstream(path, std::ios::binary) << bytes;
    const timespec times[2] = {{kNow - ageSeconds, 0}, {kNow - ageSeconds, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
    return bytes;
  }

  gps::test::TempRoot root_;
  gps::test::PtyReceiver receiver_{root_};
};

TEST_F(AssistNowTest, OfflineDataStartsWithTheFirstConfiguration) {
  const std::string alp = WriteHostFile("current_14d.alp", 4000);
  gps_private_info.assistnow = ASSISTNOW_OFFLINE;
  gps_private_info.module_config_state = 2;
  lib_GPS_ConfigureAssistance(&gps_private_info);
  const auto frames = receiver_.DrainFrames();
  ASSERT_EQ(Kinds(frames), (std::vector<std::pair<int, int>>{{0x06, 0x01}, {0x0B, 0x32}}));
  // The engine enables it on DDC; the driver carries the rate to the line's port (UART1).
  EXPECT_EQ(frames[0].substr(6, 8), std::string("\x0B\x32\x01\x01\0\0\0\0", 8)) << "AID-ALPSRV on, DDC and UART1";
  EXPECT_EQ(frames[0].substr(14), "\x4E\x64");
  const std::string& first = frames[1];
  EXPECT_EQ(first.size(), 108u);
  EXPECT_EQ(first.substr(6, 12), std::string("\x10\x01\0\0\x2A\0\xCA\xFE\x54\0\0\0", 12));
  EXPECT_EQ(first.substr(22, 84), alp.substr(0, 84));
  EXPECT_EQ(gps_private_info.alp_size, 4000u);

  gps::test::LogCapture log;
  lib_GPS_ConfigureAssistance(&gps_private_info);
  EXPECT_EQ(receiver_.DrainFrames(50).size(), 0u) << "data still loaded: nothing sent again";
  EXPECT_TRUE(log.contains("[GPS] load_alp_file_locked([/HOST/current_14d.alp]) ALREADY LOADED"));
}

TEST_F(AssistNowTest, SwitchingToOfflineReloadsOnlyOnceConfigured) {
  WriteHostFile("current_14d.alp", 400);
  gps_private_info.assistnow = ASSISTNOW_OFFLINE;
  std::memset(gps_private_info.alp_served_blocks, 0xFF, sizeof gps_private_info.alp_served_blocks);
  lib_GPS_ChangeAssistanceMode(&gps_private_info);  // receiver not configured yet
  auto frames = receiver_.DrainFrames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].substr(6, 3), std::string("\x0B\x32\x00", 3)) << "only AID-ALPSRV off";
  EXPECT_EQ(gps_private_info.alp_served_blocks[0], 0);

  gps_private_info.module_config_state = 2;
  lib_GPS_ChangeAssistanceMode(&gps_private_info);
  frames = receiver_.DrainFrames();
  ASSERT_EQ(Kinds(frames), (std::vector<std::pair<int, int>>{{0x06, 0x01}, {0x06, 0x01}, {0x0B, 0x32}}));
  EXPECT_EQ(frames[1][8], 1) << "off, then on again with the reloaded data";
}

TEST_F(AssistNowTest, MissingOfflineFileMeansNoAssistanceAndAnEmptyOneLoads) {
  gps::test::LogCapture log;
  gps_private_info.assistnow = ASSISTNOW_OFFLINE;
  lib_GPS_ConfigureAssistance(&gps_private_info);
  EXPECT_EQ(gps_private_info.assistnow, ASSISTNOW_NONE);
  EXPECT_EQ(receiver_.DrainFrames(50).size(), 0u);
  EXPECT_EQ(log.linesAt(3), (std::vector<std::string>{"[GPS] FILE_FS_open(\"/HOST/current_14d.alp\") => KO",
                                                      "[GPS] something went wrong with ALmanachPlus file"}));

  // An empty file opens: offline mode, AID-ALPSRV on and a first block without data.
  WriteHostFile("current_14d.alp", 0);
  gps_private_info.assistnow = ASSISTNOW_OFFLINE;
  lib_GPS_ConfigureAssistance(&gps_private_info);
  EXPECT_EQ(gps_private_info.assistnow, ASSISTNOW_OFFLINE);
  const auto frames = receiver_.DrainFrames();
  ASSERT_EQ(Kinds(frames), (std::vector<std::pair<int, int>>{{0x06, 0x01}, {0x0B, 0x32}}));
  EXPECT_EQ(frames[1].size(), 24u);
  EXPECT_EQ(log.linesAt(3).size(), 2u) << "no error for an empty file";
}

TEST_F(AssistNowTest, OnlineDataIsSentWhileYoungerThanFourHours) {
  const struct {
    std::time_t age;
    size_t size;
    bool sent;
  } cases[] = {{3 * 3600, 600, true}, {4 * 3600 - 1, 10, true}, {4 * 3600, 600, false}, {0, 0, false}};
  for (const auto& c : cases) {
    const std::string eph = WriteHostFile("ANONLINE.EPH", c.size, c.age);
    gps_private_info.assistnow = ASSISTNOW_ONLINE;
    lib_GPS_ConfigureAssistance(&gps_private_info);
    std::string line = receiver_.Drain();
    // AID-ALPSRV off goes first (stopping any offline data), then the file.
    ASSERT_GE(line.size(), 16u);
    EXPECT_EQ(line.substr(16), c.sent ? eph : "") << c.age << " s old, " << c.size << " bytes";
    EXPECT_EQ(gps_private_info.assistnow, c.sent ? ASSISTNOW_ONLINE : ASSISTNOW_ONLINE_FILE_INVALID);
    EXPECT_EQ(gps_private_info.alp_size, 0u) << "released once sent";
  }
}

TEST_F(AssistNowTest, ModemReceiverTakesNoAssistance) {
  gps_private_info.module_type = 3;
  gps_private_info.assistnow = ASSISTNOW_OFFLINE;
  WriteHostFile("current_14d.alp", 400);
  gps::test::LogCapture log;
  lib_GPS_ChangeAssistanceMode(&gps_private_info);
  EXPECT_EQ(log.lines(), std::vector<std::string>{
                             "[GPS] lib_GPS_ChangeAssistanceMode: assistance mode not handled for this module type (3)."});
  EXPECT_EQ(gps_private_info.alp_size, 0u);
  gps_private_info.module_type = 2;
}

}  // namespace
