// The transparent device's serial link on a real pseudo-terminal.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/pty_receiver.h"
#include "tests/support/test_env.h"
#include "transport/dgprs_serial.h"

namespace {

class DgprsSerial : public testing::Test {
 protected:
  void SetUp() override {
    const gps::test::RawPty pty = gps::test::OpenRawPty();
    master_ = pty.master;
    slave_ = pty.slave;
  }
  void TearDown() override { close(master_); }
  int master_ = -1;
  std::string slave_;
};

TEST_F(DgprsSerial, RawPortReadsWhatIsPendingAndWritesThrough) {
  int32_t handle = 5;
  DgprsSerInit(&handle);
  EXPECT_EQ(handle, -1);
  handle = DgprsSerOpen(slave_.c_str());
  ASSERT_GE(handle, 0);
  termios settings{};
  tcgetattr(handle, &settings);
  EXPECT_EQ(cfgetispeed(&settings), B115200);
  EXPECT_EQ(settings.c_lflag & (ICANON | ECHO), 0u) << "raw: no line editing, no echo";

  ASSERT_EQ(write(master_, "0123456789", 10), 10);
  usleep(20000);
  gps::test::LogCapture log;
  uint8_t buffer[1024];
  int32_t count = sizeof buffer;
  DgprsSerRead(buffer, &count, handle);
  EXPECT_EQ(count, 10);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 10), "0123456789");
  // A drained raw tty (VMIN and VTIME 0) answers 0 on Linux: no error line.
  EXPECT_TRUE(log.linesAt(3).empty());
  EXPECT_TRUE(log.contains("[GPS] SER DgprsSerRead(" + std::to_string(handle) + ") ==> 10"));

  count = 3;
  DgprsSerWrite(reinterpret_cast<const uint8_t*>("abc"), &count, handle);
  EXPECT_EQ(count, 3);
  char echoed[8] = {};
  usleep(20000);
  EXPECT_EQ(read(master_, echoed, sizeof echoed), 3);
  EXPECT_STREQ(echoed, "abc");

  DgprsSerClose(&handle);
  EXPECT_EQ(handle, -1);
}

TEST_F(DgprsSerial, ClosedOrMissingPortsDoNothing) {
  gps::test::LogCapture log;
  EXPECT_EQ(DgprsSerOpen(nullptr), -1);
  EXPECT_EQ(DgprsSerOpen("/nonexistent/tty"), -1);
  uint8_t buffer[4] = {7, 7, 7, 7};
  int32_t count = 4;
  DgprsSerRead(buffer, &count, -1);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(buffer[0], 7);
  count = 4;
  DgprsSerWrite(buffer, &count, -1);
  EXPECT_EQ(count, 0);
  EXPECT_TRUE(log.contains("[GPS] SER Not started yet !"));
  int32_t handle = -1;
  DgprsSerClose(&handle);
  EXPECT_EQ(handle, -1);
}

TEST_F(DgprsSerial, CloseRestoresTheSettingsFoundAtOpen) {
  // Settings unlike the raw 115200 the link applies: canonical, echoing, 9600.
  const int probe = open(slave_.c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(probe, 0);
  termios before{};
  tcgetattr(probe, &before);
  before.c_lflag |= ICANON | ECHO;
  cfsetispeed(&before, B9600);
  cfsetospeed(&before, B9600);
  ASSERT_EQ(tcsetattr(probe, TCSANOW, &before), 0);

  int32_t handle = DgprsSerOpen(slave_.c_str());
  ASSERT_GE(handle, 0);
  termios during{};
  tcgetattr(probe, &during);
  ASSERT_EQ(cfgetospeed(&during), B115200) << "the link applies its own settings while open";
  DgprsSerClose(&handle);
  termios after{};
  tcgetattr(probe, &after);
  EXPECT_EQ(after.c_lflag & (ICANON | ECHO), before.c_lflag & (ICANON | ECHO));
  EXPECT_EQ(cfgetospeed(&after), B9600);
  close(probe);
}

}  // namespace
