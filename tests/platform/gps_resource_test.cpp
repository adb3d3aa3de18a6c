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
#include "tests/support/message_recorder.h"
#include "tests/support/pty_receiver.h"
#include "tests/support/test_env.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using gps::test::PtyReceiver;

// UBX-RXM-PMREQ, backup until woken, with its published checksum 4D 3B.
const std::string kBackupRequest("\xB5\x62\x02\x41\x08\x00\x00\x00\x00\x00\x02\x00\x00\x00\x4D\x3B", 16);
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
  int Open(const std::string& device, int baud = 9600) {
    std::ofstream(root / "platform.ini") << "[gps]\ndevice = " << device << "\nbaud = " << baud << "\n";
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
  PtyReceiver pty(root);
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
  ASSERT_EQ(GPS_OpenResource(), 0);
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

TEST_F(GpsResource, PowerOffPutsTheReceiverInBackupAndStopsDeliveryPowerOnResumesIt) {
  PtyReceiver pty(root);
  ASSERT_EQ(GPS_OpenResource(), 0);
  ASSERT_EQ(Power(false), 0);
  EXPECT_EQ(pty.Drain(), kBackupRequest);
  pty.Send(kGga);
  bool woke = true;
  EXPECT_EQ(Read(&woke), "");
  EXPECT_FALSE(woke) << "a switched-off receiver must not wake the engine";
  ASSERT_EQ(Power(true), 0);
  const std::string wake = pty.Drain();
  EXPECT_TRUE(!wake.empty() && wake.find_first_not_of('\xFF') == std::string::npos);
  pty.Send(kGga + "$GPRMC,0927");  // the RMC never ends: it goes on alone after a second without bytes
  EXPECT_EQ(Collect(kGga.size()), kGga) << "only what the receiver sent after power-on";
  const auto start = Clock::now();
  EXPECT_EQ(Collect(1, 3s), "$GPRMC,0927");
  EXPECT_GE(Clock::now() - start, 900ms);
}

TEST_F(GpsResource, DeviceThatGoesIsReopenedWhenItComesBackInItsPowerState) {
  gps::test::LogCapture quiet;  // keeps the driver's complaints out of the system log
  const auto link = root / "receiver";
  auto pty = std::make_unique<PtyReceiver>(root);
  std::filesystem::create_symlink(pty->slavePath(), link);
  ASSERT_EQ(Open(link), 0);
  for (const bool on : {true, false}) {  // unplug, plug in a new receiver; the second time with power off
    ASSERT_EQ(Power(on), 0);
    std::filesystem::remove(link);  // no other process's terminal can be opened in between
    pty.reset();
    EXPECT_EQ(Collect(1, 300ms), "");
    EXPECT_EQ(GPS_GetResourceDescriptor(), -1);
    pty = std::make_unique<PtyReceiver>(root);  // (rewrites platform.ini; the driver keeps the link)
    std::filesystem::create_symlink(pty->slavePath(), link);
    for (const auto end = Clock::now() + 3s; GPS_GetResourceDescriptor() < 0 && Clock::now() < end;) Read();
    ASSERT_GE(GPS_GetResourceDescriptor(), 0);
    pty->Send(kGga);
    EXPECT_EQ(Collect(kGga.size(), on ? 2s : 300ms), on ? kGga : "");
    EXPECT_EQ(pty->Drain(), on ? "" : kBackupRequest) << "the new receiver is put in the requested state";
  }
}

TEST_F(GpsResource, OpenFailuresNameTheDeviceAndTheReason) {
  gps::test::LogCapture log;
  std::ofstream(root / "not-a-tty") << "x";
  PtyReceiver pty(root);
  const struct {
    std::string device;
    int baud;
    std::string logged;
  } cases[] = {
      {root / "not-a-tty", 9600, root / "not-a-tty" + ": Inappropriate ioctl for device"},
      {pty.slavePath(), 12345, "baud = 12345 in " + root / "platform.ini"},
  };
  for (const auto& c : cases) {
    log.clear();
    EXPECT_LT(Open(c.device, c.baud), 0) << c.logged;
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

  PtyReceiver pty(root);
  std::filesystem::create_symlink(pty.slavePath(), link);
  std::string got;
  for (auto end = Clock::now() + 3s; Clock::now() < end && got.empty();) {
    if (GPS_GetResourceDescriptor() >= 0) pty.Send(kGga);
    got = Read();
  }
  EXPECT_EQ(got, kGga);
}

}  // namespace
