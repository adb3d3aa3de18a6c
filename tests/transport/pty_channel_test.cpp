// The modem's command channel against a scripted modem on a real pty.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <stdlib.h>
#include <termios.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

#include "engine/gps_device.h"
#include "engine/gps_private_info.h"
#include "tests/support/pty_receiver.h"
#include "tests/support/test_env.h"
#include "transport/gps_trace.h"
#include "transport/pty_channel.h"

namespace {

std::string Le32(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

class PtyChannel : public testing::Test {
 protected:
  void SetUp() override {
    const gps::test::RawPty pty = gps::test::OpenRawPty();
    master_ = pty.master;
    // The modem software's channel at its default place below the root.
    std::filesystem::create_directories(root_ / "tmp");
    std::filesystem::create_symlink(pty.slave, root_ / "tmp/gps_dgprs");
    gps::test::ResetEngine(3);
    ASSERT_EQ(lib_GPS_OpenDevice(&gps_private_info), 0);
    ASSERT_NE(gps_private_info.com_gps, GPS_INVALID_HANDLE);
  }
  void TearDown() override {
    if (modem_.joinable()) modem_.join();
    lib_GPS_CloseDevice(&gps_private_info);
    close(master_);
  }
  // The modem reads one command of `commandBytes` and answers `response`.
  void Answer(size_t commandBytes, std::string response) {
    modem_ = std::thread([this, commandBytes, response] {
      received_.clear();
      char c;
      while (received_.size() < commandBytes && read(master_, &c, 1) == 1) received_ += c;
      [[maybe_unused]] ssize_t ignored = write(master_, response.data(), response.size());
    });
  }
  static std::string Response(uint32_t status, const std::string& bytes) {
    return Le32(0) + Le32(status) + Le32(static_cast<uint32_t>(bytes.size())) + bytes;
  }

  gps::test::TempRoot root_;
  int master_ = -1;
  std::thread modem_;
  std::string received_;
};

TEST_F(PtyChannel, RunCarriesNoDataAndReturnsTheStatus) {
  Answer(8, Response(7, ""));
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_RUN, nullptr, 0, 0), 7);
  modem_.join();
  EXPECT_EQ(received_, Le32(0x812D) + Le32(0));
}

TEST_F(PtyChannel, ResponsesGoToTheBufferWhenTheyFit) {
  uint8_t version[50] = {};
  Answer(8, Response(0, "GPS 2.1.7"));
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_GET_VERSION, version, sizeof version, 0), 0);
  modem_.join();
  EXPECT_STREQ(reinterpret_cast<char*>(version), "GPS 2.1.7");

  gps::test::LogCapture log;
  Answer(8, Response(0, std::string(60, 'v')));
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_GET_VERSION, version, sizeof version, 0), -1);
  modem_.join();
  EXPECT_TRUE(log.contains("[GPS] PTY_SendCommand: Not enough space to store response (50 < 60)!"));
  pollfd left{static_cast<int>(gps_private_info.com_gps), POLLIN, 0};
  EXPECT_EQ(poll(&left, 1, 50), 0) << "the refused answer was read to its end";

  lib_GPS_TraceInit(1);
  log.clear();
  uint8_t large[256] = {};
  Answer(8, Response(3, std::string(200, 'r')));
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_GET_VERSION, large, sizeof large, 0), 3);
  modem_.join();
  EXPECT_EQ(std::string(reinterpret_cast<char*>(large), 200), std::string(200, 'r'));
  int dumpLines = 0;
  for (const auto& line : log.lines()) dumpLines += line.find(" 72 72 72") != std::string::npos;
  EXPECT_EQ(dumpLines, 8) << "the trace shows the first 128 bytes, 16 a line";
  lib_GPS_TraceInit(0);
}

TEST_F(PtyChannel, RefusedExchangesWriteNothing) {
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_STOP, nullptr, 0, 4), -1) << "data announced without a buffer";
  const uint32_t open = gps_private_info.com_gps;
  gps_private_info.com_gps = GPS_INVALID_HANDLE;
  EXPECT_EQ(PTY_SendCommand(DGPRS_FIOCTL_GPS_STOP, nullptr, 0, 0), -1) << "channel not open";
  gps_private_info.com_gps = open;
  pollfd p{master_, POLLIN, 0};
  EXPECT_EQ(poll(&p, 1, 50), 0) << "nothing reached the modem";
}

}  // namespace
