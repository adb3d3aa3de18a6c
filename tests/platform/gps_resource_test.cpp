// The receiver driver on real pseudo-terminals: whole messages however the line splits the stream, sends, power, and a
// device that goes and comes back.
#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>

#include "platform/gps_resource.h"
#include "platform/message_align.h"
#include "platform/settings.h"
#include "sim/embedded_receiver.h"
#include "tests/support/message_recorder.h"
#include "tests/support/pty_receiver.h"
#include "tests/support/test_env.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using gps::test::PtyReceiver;

std::string Hex(const std::string& bytes) {
  std::string out;
  char digits[4];
  for (const unsigned char c : bytes) {
    std::snprintf(digits, sizeof digits, out.empty() ? "%02X" : " %02X", c);
    out += digits;
  }
  return out;
}

// The frames of the driver's power switch, checksums worked out by hand.
// RXM-PMREQ v0: backup until woken, UART RX a wake-up source.
const char* const kBackupRequest = "B5 62 02 41 10 00 00 00 00 00 00 00 00 00 02 00 00 00 08 00 00 00 5D 4B";
const char* const kVersionPoll = "B5 62 0A 04 00 00 0E 34";
// CFG-PRT: UBX, NMEA and RTCM2 in, UBX and NMEA out; UART1 at 9600 8N1.
const char* const kUart1Setup = "B5 62 06 00 14 00 01 00 00 00 D0 08 00 00 80 25 00 00 07 00 03 00 00 00 00 00 A2 B5";
const char* const kUsbSetup = "B5 62 06 00 14 00 03 00 00 00 00 00 00 00 00 00 00 00 07 00 03 00 00 00 00 00 27 CE";
const char* const kGnssStop = "B5 62 06 04 04 00 00 00 08 00 16 74";
const char* const kGnssStart = "B5 62 06 04 04 00 00 00 09 00 17 76";
const std::string kGga = "$GPGGA,092750.000,5321.6802,N,00630.3372,W,1,8,1.03,61.7,M,55.2,M,,*76\r\n";

// The messages the engine frames from these chunks fed straight to it.
std::vector<std::string> Framed(const std::vector<std::string>& chunks) {
  gps::test::ResetEngine(2);
  gps::test::MessageRecorder recorder;
  for (const auto& chunk : chunks) gps::test::FeedReceiver(chunk);
  std::vector<std::string> out;
  for (const auto& m : recorder.messages()) out.push_back(m.bytes);
  return out;
}

class GpsResource : public ::testing::Test {
 protected:
  void TearDown() override { GPS_CloseResource(); }
  int Open(const std::string& device, int baud = 9600, const std::string& more = "") {
    std::ofstream(root / "platform.ini") << "[gps]\ndevice = " << device << "\nbaud = " << baud << "\n" << more;
    gps::platform::ReloadSettings();
    return GPS_OpenResource();
  }
  static int Power(bool on) {
    const gps_power_state_t state{on ? 1u : 0u};
    return GPS_SetPowerState(&state);
  }
  // One read per wake, as the engine thread does: the descriptor turning
  // readable, or 50 ms without (the engine's time-out, shortened).
  static std::string Read(bool* woke = nullptr) {
    pollfd p{GPS_GetResourceDescriptor(), POLLIN, 0};
    const int ready = p.fd >= 0 ? poll(&p, 1, 50) : (usleep(50'000), 0);
    if (woke) *woke = ready > 0;
    gps_device_data_t block{};
    EXPECT_EQ(GPS_GetDeviceData(&block), 0);
    return std::string(reinterpret_cast<const char*>(block.data), block.length);
  }
  static std::string Collect(size_t bytes, std::chrono::milliseconds wait = 2s) {
    std::string out;
    for (const auto end = Clock::now() + wait; out.size() < bytes && Clock::now() < end;) out += Read();
    return out;
  }
  gps::test::TempRoot root;
};

TEST_F(GpsResource, CapturesInRandomChunksGiveTheMessagesOfADirectReplay) {
  if (!std::filesystem::is_directory(GPS_CAPTURES_DIR)) GTEST_SKIP() << "no captures at " << GPS_CAPTURES_DIR;
  PtyReceiver pty(root, 2, /*answers=*/true);
  for (const auto& entry : std::filesystem::directory_iterator(GPS_CAPTURES_DIR)) {
    if (entry.path().extension() != ".log") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::string stream((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The capture's "#" header is notes, not receiver output: one of them
    // quotes "$GLGSV ... $GPGSV", which the driver drops as a corrupt sentence.
    while (stream.starts_with('#')) {
      const size_t lf = stream.find('\n');
      stream.erase(0, lf == std::string::npos ? lf : lf + 1);
    }
    std::vector<std::string> direct;  // cut in one pass; an incomplete tail would frame nothing
    size_t whole = 0;
    for (size_t n; (n = gps::platform::WholeMessagesPrefix(
                        {reinterpret_cast<const uint8_t*>(stream.data()) + whole, stream.size() - whole})) > 0;
         whole += n)
      direct.push_back(stream.substr(whole, n));
    const auto expected = Framed(direct);
    ASSERT_GT(expected.size(), 50u) << entry.path().filename();
    // Pieces up to 700 bytes; then pieces up to 4 KiB with up to 8 KiB unread,
    // which fills the driver's buffer: whole messages wait in it with the line
    // quiet, and only the wake-up signal tells the engine to read again.
    for (const auto& [seed, pieceLimit] : {std::pair{1u, 700u}, {2u, 700u}, {3u, 700u}, {4u, 4096u}}) {
      ASSERT_EQ(GPS_OpenResource(), 0);
      ASSERT_EQ(Power(true), 0);
      pty.Drain();
      std::mt19937 random(seed);
      std::uniform_int_distribution<size_t> pieceSize(1, pieceLimit);
      std::vector<std::string> chunks;
      size_t written = 0, delivered = 0;
      for (const auto end = Clock::now() + 20s; delivered < whole && Clock::now() < end;) {
        // Send blocks when the pty is full (about 20 KiB here); the bound keeps well below.
        const bool writes = written < stream.size() && written - delivered < 8192;
        const size_t piece = writes ? std::min(pieceSize(random), stream.size() - written) : 0;
        pty.Send(stream.substr(written, piece));
        written += piece;
        bool woke = false;
        const std::string chunk = Read(&woke);
        if (!woke && written == stream.size()) break;  // whole messages held without a wake starve the engine
        EXPECT_LE(chunk.size(), GPS_DEVICE_DATA_BYTES);
        EXPECT_TRUE(chunk == stream.substr(delivered, chunk.size())) << "chunk " << chunks.size();
        delivered += chunk.size();
        if (!chunk.empty()) chunks.push_back(chunk);
      }
      EXPECT_EQ(delivered, whole) << entry.path().filename() << " seed " << seed;
      // A chunk cut inside a message would lose that message here.
      EXPECT_TRUE(Framed(chunks) == expected) << entry.path().filename() << " seed " << seed;
      ASSERT_EQ(GPS_CloseResource(), 0);  // drops the incomplete tail
    }
  }
}

TEST_F(GpsResource, SendsWholeBlocksRefusesOversizedOnesAndGivesUpOnAStalledLine) {
  PtyReceiver pty(root);
  Power(false);  // applied at the open: the backup request
  ASSERT_EQ(GPS_OpenResource(), 0);
  pty.Drain();
  gps_send_data_t block{GPS_SEND_DATA_BYTES + 1, {}};
  std::iota(std::begin(block.data), std::end(block.data), uint8_t{0});
  EXPECT_EQ(GPS_SendDataToGps(&block), GPS_RESOURCE_ERROR_ARGUMENT);
  EXPECT_EQ(pty.Drain(), "");
  block.length = GPS_SEND_DATA_BYTES;
  ASSERT_EQ(GPS_SendDataToGps(&block), 0);
  EXPECT_EQ(pty.Drain(), std::string(std::begin(block.data), std::end(block.data)));
  // Nobody reads the line: once its buffers are full a send fails after a bounded wait.
  auto start = Clock::now();
  int result = 0;
  for (int i = 0; i < 4096 && result == 0; ++i) start = Clock::now(), result = GPS_SendDataToGps(&block);
  EXPECT_TRUE(result == GPS_RESOURCE_ERROR_DEVICE && Clock::now() - start < 2s);
}

// Off: GNSS stop on USB, backup woken by UART RX on a UART. On: the wake-up
// and a version poll answered on a UART, then the port set-up, acknowledged
// before anything is delivered.
TEST_F(GpsResource, PowerOffAndOnSendTheFramesOfThePortAndDeliverOnlyWhileOn) {
  const struct {
    const char* port;
    std::string off;
    std::string on;
  } cases[] = {
      {"uart1", kBackupRequest, "FF FF FF FF FF FF FF FF " + std::string(kVersionPoll) + " " + kUart1Setup},
      {"usb", kGnssStop, std::string(kUsbSetup) + " " + kGnssStart},
  };
  for (const auto& c : cases) {
    PtyReceiver pty(root, 2, /*answers=*/true);
    Power(false);  // applied at the open
    ASSERT_EQ(Open(pty.slavePath(), 9600, std::string("port = ") + c.port + "\n"), 0);
    EXPECT_EQ(Hex(pty.Drain()), c.off) << c.port;
    pty.Send(kGga);
    bool woke = true;
    EXPECT_EQ(Read(&woke), "");
    EXPECT_FALSE(woke) << "a switched-off receiver must not wake the engine";
    ASSERT_EQ(Power(true), 0) << c.port;
    EXPECT_EQ(Hex(pty.Drain()), c.on) << c.port;
    pty.Send(kGga + "$GPRMC,0927");  // the RMC never ends: it goes on alone after a second without bytes
    EXPECT_EQ(Collect(kGga.size()), kGga) << "only what the receiver sent after power-on";
    const auto start = Clock::now();
    EXPECT_EQ(Collect(1, 3s), "$GPRMC,0927");
    EXPECT_GE(Clock::now() - start, 900ms);
    ASSERT_EQ(GPS_CloseResource(), 0);
  }
}

// A receiver that never acknowledges the port set-up delivers nothing, is
// logged once with what to check, and is tried again.
TEST_F(GpsResource, AReceiverThatNeverAcknowledgesIsLoggedOnceAndTriedAgain) {
  gps::test::LogCapture log;
  PtyReceiver pty(root);
  ASSERT_EQ(Open(pty.slavePath(), 9600, "port = usb\n"), 0);
  EXPECT_EQ(Power(true), GPS_RESOURCE_ERROR_DEVICE);
  pty.Send(kGga);
  EXPECT_EQ(Collect(1, 7500ms), "");  // the retry comes 5 s after the first 1 s wait
  EXPECT_EQ(log.linesAt(3).size(), 1u);
  EXPECT_NE(log.linesAt(3).at(0).find(pty.slavePath() + " did not acknowledge the set-up of its usb port (CFG-PRT)"),
            std::string::npos);
  size_t setups = 0;
  for (const auto& frame : gps::test::SplitUbxFrames(pty.Drain())) setups += Hex(frame) == kUsbSetup;
  EXPECT_GE(setups, 2u) << "the set-up is tried again";
}

TEST_F(GpsResource, DeviceThatGoesIsReopenedWhenItComesBackInItsPowerState) {
  gps::test::LogCapture quiet;  // keeps the driver's complaints out of the system log
  const auto link = root / "receiver";
  auto pty = std::make_unique<PtyReceiver>(root, 2, true);
  std::filesystem::create_symlink(pty->slavePath(), link);
  ASSERT_EQ(Open(link), 0);
  for (const bool on : {true, false}) {  // unplug, plug in a new receiver; the second time with power off
    ASSERT_EQ(Power(on), 0);
    std::filesystem::remove(link);  // no other process's terminal can be opened in between
    pty.reset();
    EXPECT_EQ(Collect(1, 300ms), "");
    EXPECT_EQ(GPS_GetResourceDescriptor(), -1);
    pty = std::make_unique<PtyReceiver>(root, 2, true);  // (rewrites platform.ini; the driver keeps the link)
    std::filesystem::create_symlink(pty->slavePath(), link);
    for (const auto end = Clock::now() + 3s; GPS_GetResourceDescriptor() < 0 && Clock::now() < end;) Read();
    ASSERT_GE(GPS_GetResourceDescriptor(), 0);
    pty->Send(kGga);
    EXPECT_EQ(Collect(kGga.size(), on ? 2s : 300ms), on ? kGga : "");
    const auto frames = gps::test::SplitUbxFrames(pty->Drain());
    EXPECT_TRUE(!frames.empty() && Hex(frames.back()) == (on ? kUart1Setup : kBackupRequest))
        << "the new receiver is put in the requested state";
  }
}

TEST_F(GpsResource, OpenFailuresNameTheDeviceAndTheReason) {
  gps::test::LogCapture log;
  std::ofstream(root / "not-a-tty") << "x";
  PtyReceiver pty(root);
  const struct {
    std::string device;
    int baud;
    std::string more;
    std::string logged;
  } cases[] = {
      {root / "not-a-tty", 9600, "", root / "not-a-tty" + ": Inappropriate ioctl for device"},
      {pty.slavePath(), 12345, "", "baud = 12345 in " + root / "platform.ini"},
      {pty.slavePath(), 9600, "port = ddc\n", "port = ddc in " + root / "platform.ini"},
      {pty.slavePath(), 9600, "power_off = sleep\n", "power_off = sleep in " + root / "platform.ini"},
  };
  for (const auto& c : cases) {
    log.clear();
    EXPECT_LT(Open(c.device, c.baud, c.more), 0) << c.logged;
    EXPECT_EQ(GPS_GetResourceDescriptor(), -1);
    const auto errors = log.linesAt(3);
    EXPECT_TRUE(errors.size() == 1 && errors[0].find(c.logged) != std::string::npos) << c.logged;
  }
  EXPECT_EQ(Open(pty.slavePath()), 0);
  EXPECT_EQ(GPS_OpenResource(), GPS_RESOURCE_ALREADY_OPEN);
}

// A USB receiver not plugged in at start: the resource opens and takes the
// device when it appears.
TEST_F(GpsResource, ADeviceMissingAtOpenIsTakenWhenItAppears) {
  gps::test::LogCapture log;
  const std::string link = root / "ttyACM9";
  ASSERT_EQ(Open(link), 0);
  EXPECT_EQ(GPS_GetResourceDescriptor(), -1);
  EXPECT_EQ(log.linesAt(3).size(), 1u);
  EXPECT_NE(log.linesAt(3)[0].find(link + " is not there (No such file or directory)"), std::string::npos);
  ASSERT_EQ(Power(true), 0);

  PtyReceiver pty(root, 2, true);
  std::filesystem::create_symlink(pty.slavePath(), link);
  std::string got;
  for (auto end = Clock::now() + 3s; Clock::now() < end && got.empty();) {
    if (GPS_GetResourceDescriptor() >= 0) pty.Send(kGga);
    got = Read();
  }
  EXPECT_EQ(got, kGga);
}

// The strict simulator on a UART at a rate the driver has to find.
TEST_F(GpsResource, BaudAutoFindsTheReceiversRateAndKeepsIt) {
  for (const uint32_t baud : {38400u, 115200u}) {
    gps::test::LogCapture log;
    const auto pty = gps::test::OpenRawPty();
    gps::sim::EmbeddedOptions options;
    options.startPowered = true;
    options.port = 1;
    options.lineBaud = baud;
    options.ttffMs = 0;
    std::string error;
    auto receiver = gps::sim::EmbeddedReceiver::Start(pty.master, options, &error);
    ASSERT_TRUE(receiver) << error;
    std::ofstream(root / "platform.ini") << "[gps]\ndevice = " << pty.slave << "\nbaud = auto\n";
    gps::platform::ReloadSettings();
    ASSERT_EQ(GPS_OpenResource(), 0);
    EXPECT_TRUE(log.contains("GPS resource: " + pty.slave + " talks at " + std::to_string(baud) + " baud"));
    ASSERT_EQ(Power(true), 0);
    EXPECT_NE(Collect(400, 3s).find("GGA,"), std::string::npos) << baud;
    ASSERT_EQ(GPS_CloseResource(), 0);
  }
}

// device = auto: nothing found is said once and looked for again, never the
// simulator; a receiver plugged in later is taken, as USB by its name.
TEST_F(GpsResource, DeviceAutoWaitsForAReceiverAndTakesItWhenPluggedIn) {
  gps::test::LogCapture log;
  const std::string host = root / "host";
  std::filesystem::create_directories(host + "/dev");
  setenv("GPS_HOST_ROOT", host.c_str(), 1);
  std::ofstream(root / "platform.ini") << "[gps]\n";
  gps::platform::ReloadSettings();
  ASSERT_EQ(GPS_OpenResource(), 0);
  ASSERT_EQ(Power(true), 0);
  EXPECT_EQ(Collect(1, 2500ms), "") << "no receiver, no data";
  EXPECT_EQ(log.count("GPS resource: no u-blox receiver found; looking again when one is plugged in"), 1);

  const auto pty = gps::test::OpenRawPty();
  gps::sim::EmbeddedOptions options;
  options.startPowered = true;
  options.ttffMs = 0;
  std::string error;
  auto receiver = gps::sim::EmbeddedReceiver::Start(pty.master, options, &error);
  ASSERT_TRUE(receiver) << error;
  std::filesystem::create_symlink(pty.slave, host + "/dev/ttyACM0");
  EXPECT_NE(Collect(400, 4s).find("GGA,"), std::string::npos);
  EXPECT_TRUE(log.contains("GPS resource: u-blox receiver found at " + host + "/dev/ttyACM0"));
  unsetenv("GPS_HOST_ROOT");
}

}  // namespace
