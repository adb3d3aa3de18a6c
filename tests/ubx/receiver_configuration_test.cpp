// The engine configuring a simulated receiver over a real serial line: the
// driver opens the slave side of a pseudo-terminal, the simulator serves the
// master side and records every frame it receives.
#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdlib.h>
#include <termios.h>
#include <thread>

#include "assist/assistnow.h"
#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"
#include "param/gps_parameters.h"
#include "platform/root.h"
#include "sim/embedded_receiver.h"
#include "tests/support/pty_receiver.h"
#include "tests/support/test_env.h"
#include "ubx/ubx_codec.h"
#include "ubx/ubx_config.h"

namespace {

using Kind = std::pair<int, int>;

class SimulatedSerialReceiver : public testing::Test {
 protected:
  void Start(bool expert, gps::sim::EmbeddedOptions options = {}) {
    const gps::test::RawPty pty = gps::test::OpenRawPty();
    const int master = pty.master;
    std::ofstream(root_ / "platform.ini") << "[gps]\ndevice = " << pty.slave << "\nport = usb\n";
    gps::platform::ReloadRoot();
    options.startPowered = true;
    std::string error;
    receiver_ = gps::sim::EmbeddedReceiver::Start(master, options, &error);
    ASSERT_TRUE(receiver_) << error;

    gps::test::ResetEngine(2);
    lib_GPS_param_RestorePersistentStorage();
    gps_private_info.expertModeIsEnabled = expert ? 1 : 0;
    ASSERT_EQ(lib_GPS_ubx_OpenResource(&gps_private_info), 0);
    lib_GPS_ubx_ChangePowerState(&gps_private_info, 1);
  }
  void TearDown() override {
    lib_GPS_ubx_CloseResource(&gps_private_info);
    lib_GPS_FreeAssistanceData(&gps_private_info);
    receiver_.reset();
  }

  // Reads and analyses the receiver's stream until `done` holds or 5 s pass.
  template <typename Done>
  bool RunEngineUntil(Done done) {
    gps_message_t frame;
    gps_message_init(&frame);
    uint8_t buffer[2176];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < deadline) {
      const int n = lib_GPS_ubx_ReadDataFromDevice(&gps_private_info, buffer, sizeof buffer);
      if (n > 0) analyze_gps(&gps_private_info, &frame, buffer, static_cast<uint32_t>(n));
      if (done()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  std::vector<Kind> RecordedKinds() const {
    std::vector<Kind> kinds;
    for (const auto& f : receiver_->ReceivedFrames()) kinds.emplace_back(f[2], f[3]);
    return kinds;
  }

  gps::test::TempRoot root_;
  std::unique_ptr<gps::sim::EmbeddedReceiver> receiver_;
};

class ReceiverConfiguration : public SimulatedSerialReceiver, public testing::WithParamInterface<bool> {};

TEST_P(ReceiverConfiguration, VersionAnswerIsFollowedByTheConfigurationSequence) {
  Start(GetParam());
  lib_GPS_ubx_PollVersion(&gps_private_info);
  ASSERT_TRUE(RunEngineUntil([] { return gps_private_info.module_config_state == 2; })) << "no MON-VER answer";
  EXPECT_STREQ(gps_private_info.hw_version, "00080000");
  const size_t expected = GetParam() ? 16 : 11;
  ASSERT_TRUE(RunEngineUntil([&] { return receiver_->ReceivedFrames().size() >= expected; }));

  // The driver's port set-up and GNSS start at power-on, then the engine's.
  std::vector<Kind> sequence = {{0x06, 0x00}, {0x06, 0x04}, {0x0A, 0x04}, {0x0A, 0x0D}, {0x06, 0x41},
                                {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x01}};
  if (GetParam()) sequence.insert(sequence.end(), {{0x06, 0x23}, {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x01}, {0x06, 0x11}});
  sequence.insert(sequence.end(), {{0x06, 0x3B}, {0x06, 0x11}});
  EXPECT_EQ(RecordedKinds(), sequence);
  const auto frames = receiver_->ReceivedFrames();
  for (const auto& f : frames) {
    uint8_t a = 0, b = 0;
    for (size_t i = 2; i + 2 < f.size(); ++i) a = static_cast<uint8_t>(a + f[i]), b = static_cast<uint8_t>(b + a);
    EXPECT_EQ(f[f.size() - 2], a) << "checksum";
    EXPECT_EQ(f[f.size() - 1], b) << "checksum";
  }
  EXPECT_EQ(frames[5][6], 0x0A);
  EXPECT_EQ(frames[5][7], 0x09);

  // The receiver now reports the period it was given.
  gps_private_info.fix_update_period_ms = 0;
  lib_GPS_ubx_PollFixUpdatePeriodConfiguration(&gps_private_info);
  EXPECT_TRUE(RunEngineUntil([] { return gps_private_info.fix_update_period_ms == 1000; }));
}

// AssistNow Offline end to end: the first block goes out with the
// configuration, the receiver asks for further parts, the engine serves each
// from the file and the receiver writes a block back.
TEST_F(SimulatedSerialReceiver, OfflineAssistanceRequestsAreServedFromTheFile) {
  std::filesystem::create_directories(root_ / "fs/HOST");
  std::string alp(8192, '\0');
  for (size_t i = 0; i < alp.size(); ++i) alp[i] = static_cast<char>(i * 7 + i / 256);
  std::ofstream(root_ / "fs/HOST/current_14d.alp", std::ios::binary) << alp;
  gps::sim::EmbeddedOptions options;
  options.alpFile = root_ / "fs/HOST/current_14d.alp";
  Start(false, options);
  gps_private_info.assistnow = 2;

  lib_GPS_ubx_PollVersion(&gps_private_info);
  const auto answers = [this] {
    std::vector<std::vector<uint8_t>> out;
    for (const auto& f : receiver_->ReceivedFrames())
      if (f[2] == 0x0B && f[3] == 0x32 && f[7] != 0x01) out.push_back(f);  // not the first block
    return out;
  };
  ASSERT_TRUE(RunEngineUntil([&] { return answers().size() >= 3 && gps_private_info.alp_client_blocks[0] != 0; }))
      << answers().size() << " answers";
  for (const auto& answer : answers()) {
    const uint32_t ofs = answer[8] | answer[9] << 8;
    const uint32_t words = answer[10] | answer[11] << 8;
    ASSERT_EQ(answer.size(), 8 + 16 + words * 2);
    EXPECT_EQ(std::string(answer.begin() + 22, answer.end() - 2), alp.substr(ofs * 2, words * 2)) << "ofs " << ofs;
    EXPECT_TRUE(gps_private_info.alp_served_blocks[ofs * 2 / 16 / 8] & (1 << (ofs * 2 / 16 % 8)));
  }
}

INSTANTIATE_TEST_SUITE_P(StandardAndExpert, ReceiverConfiguration, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& info) { return info.param ? "Expert" : "Standard"; });

}  // namespace

namespace {

// The daemon's default receiver: the embedded simulator behind the driver.
TEST(EmbeddedSimulatorDevice, AnswersTheEngineWhilePoweredAndIsSilentWhenOff) {
  gps::test::TempRoot root;
  std::ofstream(root / "platform.ini") << "[gps]\ndevice = sim\n[sim]\nttff_ms = 500\n";
  gps::platform::ReloadRoot();
  gps::test::ResetEngine(2);
  lib_GPS_param_RestorePersistentStorage();
  ASSERT_EQ(lib_GPS_ubx_OpenResource(&gps_private_info), 0);
  lib_GPS_ubx_ChangePowerState(&gps_private_info, 1);
  lib_GPS_ubx_PollVersion(&gps_private_info);
  gps_message_t frame;
  gps_message_init(&frame);
  uint8_t buffer[2176];
  const auto readFor = [&](int ms) {
    int bytes = 0;
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
         std::chrono::steady_clock::now() < end && gps_private_info.fix_quality == 0;) {
      const int n = lib_GPS_ubx_ReadDataFromDevice(&gps_private_info, buffer, sizeof buffer);
      if (n > 0) analyze_gps(&gps_private_info, &frame, buffer, static_cast<uint32_t>(n)), bytes += n;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return bytes;
  };
  readFor(3000);
  EXPECT_EQ(gps_private_info.module_config_state, 2u) << "version answered and receiver configured";
  EXPECT_EQ(gps_private_info.fix_quality, 1) << "a fix after the simulator's time to first fix";
  lib_GPS_ubx_ChangePowerState(&gps_private_info, 0);
  readFor(100);  // what was under way
  gps_private_info.fix_quality = 0;
  EXPECT_EQ(readFor(1500), 0) << "silent while off";
  lib_GPS_ubx_CloseResource(&gps_private_info);
}

}  // namespace
