// UBX answers from the receiver: what each one changes in the record, and
// what the engine sends back because of it.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <thread>
#include <sys/eventfd.h>
#include <unistd.h>

#include "engine/gps_events.h"
#include "engine/gps_private_info.h"
#include "param/gps_parameters.h"
#include "tests/support/message_recorder.h"
#include "tests/support/pty_receiver.h"
#include "ubx/ubx_analyze.h"
#include "ubx/ubx_codec.h"

namespace {

using gps::test::UbxFrame;

std::string Le32(uint32_t v) {
  return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16), static_cast<char>(v >> 24)};
}

std::string Padded(const char* text, size_t width) {
  std::string field(text);
  field.resize(width, '\0');
  return field;
}

std::string MonVer(size_t extensions, size_t payloadBytes = 0) {
  std::string payload = Padded("ROM CORE 3.01 (107888)", 30) + Padded("00080000", 10);
  const char* ext[] = {"FWVER=SPG 3.01", "PROTVER=18.00", "GPS;GLO;GAL;BDS", "SBAS;IMES;QZSS"};
  for (size_t k = 0; k < extensions; ++k) payload += Padded(ext[k], 30);
  if (payloadBytes) payload.resize(payloadBytes, '\0');
  return UbxFrame(0x0A, 0x04, payload);
}

class UbxAnalyzeTest : public testing::Test {
 protected:
  void SetUp() override {
    gps::test::ResetEngine(2);
    lib_GPS_param_RestorePersistentStorage();
    gps_private_info.nmeaFixValidityIns = 30;
    ASSERT_EQ(lib_GPS_ubx_OpenResource(&gps_private_info), 0);
  }
  void TearDown() override {
    lib_GPS_ubx_CloseResource(&gps_private_info);
    for (int* fd : {&antOffPolarityAnswer_eventfd, &fixUpdatePeriodAnswer_eventfd})
      if (*fd >= 0) close(*fd), *fd = -1;
  }
  // Checks whether an answer channel was signalled (and consumes it).
  static bool Signalled(int fd) { return ClearEvent(fd) == 8; }

  gps::test::TempRoot root_;
  gps::test::PtyReceiver receiver_{root_};
  gps::test::ManualTicks ticks_{1000000};
};

TEST_F(UbxAnalyzeTest, VersionAnswerStoresTextsAndConfiguresOnce) {
  gps::test::FeedReceiver(MonVer(4));
  EXPECT_STREQ(gps_private_info.sw_version, "ROM CORE 3.01 (107888)");
  EXPECT_STREQ(gps_private_info.hw_version, "00080000");
  EXPECT_STREQ(gps_private_info.ext_version[3], "SBAS;IMES;QZSS");
  EXPECT_EQ(gps_private_info.module_config_state, 2u);
  EXPECT_EQ(receiver_.DrainFrames().size(), 8u) << "polls and the standard configuration";
  gps::test::LogCapture log;
  gps::test::FeedReceiver(MonVer(4));
  EXPECT_EQ(receiver_.DrainFrames(50).size(), 0u) << "a second answer configures nothing";
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[GPS] MESSAGE_TYPE_UBLOX",
                                                   "[GPS] lib_GPS_ubx_AnalyzeMessage::[RX]Class 0x0A, ID 0x04",
                                                   "[GPS] analyze_gps_ublox_message_version: MON-VER."}));
}

TEST_F(UbxAnalyzeTest, VersionExtensionsOnlyWhenWhole) {
  const struct {
    size_t payloadBytes;
    int extensions;
  } cases[] = {{40, 0}, {50, 0}, {70, 1}, {160, 4}};
  gps_private_info.com_gps = GPS_INVALID_HANDLE;  // only the record matters here
  for (const auto& c : cases) {
    lib_GPS_ResetInfosLocked(&gps_private_info);
    gps::test::FeedReceiver(MonVer(4, c.payloadBytes));
    int stored = 0;
    for (const auto& ext : gps_private_info.ext_version) stored += ext[0] != '\0';
    EXPECT_EQ(stored, c.extensions) << c.payloadBytes << "-byte payload";
    EXPECT_STREQ(gps_private_info.hw_version, "00080000");
  }
}

TEST_F(UbxAnalyzeTest, LowLevelConfigurationGivesTheAntOffPolarity) {
  antOffPolarityAnswer_eventfd = eventfd(0, EFD_NONBLOCK);
  gps::test::LogCapture log;
  gps::test::FeedReceiver(UbxFrame(0x0A, 0x0D, Le32(1) + Le32(2) + Le32(0) + Le32(0) + Le32(0x80)));
  EXPECT_EQ(gps_private_info.antOffPolarity, 1);
  EXPECT_EQ(log.linesAt(3), std::vector<std::string>{
                                "[GPS] analyze_gps_ublox_message_low_level_configuration:: antOffPolarity is NOT set."});
  EXPECT_TRUE(Signalled(antOffPolarityAnswer_eventfd));
  gps::test::FeedReceiver(UbxFrame(0x0A, 0x0D, std::string(20, '\0')));
  EXPECT_EQ(gps_private_info.antOffPolarity, 0);
  EXPECT_TRUE(log.contains("[GPS] analyze_gps_ublox_message_low_level_configuration:: antOffPolarity is set."));
}

TEST_F(UbxAnalyzeTest, PowerManagementAnswerGivesThePeriodButAPollDoesNot) {
  fixUpdatePeriodAnswer_eventfd = eventfd(0, EFD_NONBLOCK);
  gps::test::FeedReceiver(UbxFrame(0x06, 0x3B, std::string(8, '\0') + Le32(5000) + std::string(32, '\0')));
  EXPECT_EQ(gps_private_info.fix_update_period_ms, 5000u);
  EXPECT_TRUE(Signalled(fixUpdatePeriodAnswer_eventfd));
  gps::test::FeedReceiver(UbxFrame(0x06, 0x3B, ""));
  EXPECT_EQ(gps_private_info.fix_update_period_ms, 5000u);
  EXPECT_FALSE(Signalled(fixUpdatePeriodAnswer_eventfd));
}

TEST_F(UbxAnalyzeTest, HardwareStatusInBothLayoutsOnly) {
  const struct {
    size_t length;
    size_t jamOffset;
    bool stored;
  } cases[] = {{60, 45, true}, {68, 53, true}, {64, 45, false}};
  for (const auto& c : cases) {
    gps_private_info.mon_hw_tick = 0;
    std::string payload(c.length, '\0');
    payload[16] = 0x34, payload[17] = 0x12;  // noisePerMS
    payload[18] = 0x78, payload[19] = 0x06;  // agcCnt
    payload[c.jamOffset] = 9;
    gps::test::FeedReceiver(UbxFrame(0x0A, 0x09, payload));
    EXPECT_EQ(gps_private_info.mon_hw_tick != 0, c.stored) << c.length;
    if (!c.stored) continue;
    EXPECT_EQ(gps_private_info.noise_per_ms, 0x1234u);
    EXPECT_EQ(gps_private_info.agc_count, 0x678u);
    EXPECT_EQ(gps_private_info.jamming_indicator, 9u) << c.length;
  }
}

std::string NavPvt(int32_t lat, int32_t lon, int32_t hMsl) {
  std::string payload(92, '\0');
  std::memcpy(&payload[24], Le32(static_cast<uint32_t>(lon)).data(), 4);
  std::memcpy(&payload[28], Le32(static_cast<uint32_t>(lat)).data(), 4);
  std::memcpy(&payload[36], Le32(static_cast<uint32_t>(hMsl)).data(), 4);
  payload[20] = 3;
  return UbxFrame(0x01, 0x07, payload);
}

TEST_F(UbxAnalyzeTest, NavPvtStoresTheLastKnownPositionWhenNoNmeaFixIsValid) {
  const struct {
    int32_t lat, lon, hMsl;
    const char *latitude, *longitude, *altitude;
  } cases[] = {
      {488566000, 23522000, 35612, "4851.39600N", "00221.13200E", "35.6"},
      {-338688000, -1512093000, -1234, "3352.12800S", "15112.55800W", "-1.2"},
      {10000000, 10000000, -234, "0100.00000N", "00100.00000E", "0.2"},
  };
  for (const auto& c : cases) {
    gps::test::FeedReceiver(NavPvt(c.lat, c.lon, c.hMsl));
    EXPECT_STREQ(gps_parameters.latitude, c.latitude);
    EXPECT_STREQ(gps_parameters.longitude, c.longitude);
    EXPECT_STREQ(gps_parameters.altitude, c.altitude);
    EXPECT_STREQ(gps_parameters.date, "");
  }
  EXPECT_EQ(gps_private_info.nav_pvt[20], 3) << "snapshot kept";
  EXPECT_EQ(gps_private_info.fix_quality, 0) << "the NMEA fix is not touched";
}

TEST_F(UbxAnalyzeTest, NavPvtLeavesTheStoredFixAloneOtherwise) {
  std::strcpy(gps_parameters.latitude, "kept");
  gps::test::FeedReceiver(NavPvt(0, 0, 100));
  EXPECT_STREQ(gps_parameters.latitude, "kept") << "no position";
  gps_private_info.fix_tick = ticks_.now() - 3000;  // NMEA fix 30 s old: not older than the window
  gps::test::FeedReceiver(NavPvt(488566000, 23522000, 35612));
  EXPECT_STREQ(gps_parameters.latitude, "kept") << "NMEA fix still within nmeaFixValidityIns";
  gps_private_info.fix_tick = ticks_.now() - 3001;
  gps_private_info.fix_quality = 1;
  gps::test::FeedReceiver(NavPvt(488566000, 23522000, 35612));
  EXPECT_STREQ(gps_parameters.latitude, "kept") << "a current NMEA fix";
}

class AlpServeTest : public UbxAnalyzeTest {
 protected:
  void SetUp() override {
    UbxAnalyzeTest::SetUp();
    data_.resize(4096);
    for (size_t i = 0; i < data_.size(); ++i) data_[i] = static_cast<uint8_t>(i * 13 + 1);
    gps_private_info.alp_data = data_.data();
    gps_private_info.alp_size = static_cast<uint32_t>(data_.size());
    gps_private_info.alp_file_id = 0xFECA;
  }
  void TearDown() override {
    gps_private_info.alp_data = nullptr;
    gps_private_info.alp_size = 0;
    UbxAnalyzeTest::TearDown();
  }
  static std::string Request(uint16_t ofs, uint16_t size, uint8_t type = 0x02) {
    std::string p(16, '\0');
    p[0] = 0x10, p[1] = static_cast<char>(type);
    p[2] = static_cast<char>(ofs), p[3] = static_cast<char>(ofs >> 8);
    p[4] = static_cast<char>(size), p[5] = static_cast<char>(size >> 8);
    p[6] = '\xCA', p[7] = '\xFE', p[10] = 7, p[11] = 9;
    return UbxFrame(0x0B, 0x32, p);
  }
  int MarkedBlocks(const uint8_t* bitmap) const {
    int n = 0;
    for (uint32_t i = 0; i < GPS_ALP_BITMAP_BYTES; ++i) n += __builtin_popcount(bitmap[i]);
    return n;
  }
  std::vector<uint8_t> data_;
};

TEST_F(AlpServeTest, RequestIsAnsweredFromTheLoadedData) {
  gps::test::FeedReceiver(Request(0x0010, 0x0040));
  const auto frames = receiver_.DrainFrames();
  ASSERT_EQ(frames.size(), 1u);
  const std::string& answer = frames[0];
  EXPECT_EQ(answer.size(), 152u);
  EXPECT_EQ(answer.substr(0, 6), std::string("\xB5\x62\x0B\x32\x90\x00", 6));
  EXPECT_EQ(answer.substr(6, 16), std::string("\x10\x02\x10\x00\x40\x00\xCA\xFE\x80\x00\x07\x09\0\0\0\0", 16));
  EXPECT_EQ(answer.substr(22, 128), std::string(reinterpret_cast<const char*>(data_.data()) + 32, 128));
  for (int b = 0; b < 16; ++b)
    EXPECT_EQ((gps_private_info.alp_served_blocks[b / 8] >> (b % 8)) & 1, b >= 2 && b <= 10 ? 1 : 0) << b;
  gps::test::FeedReceiver(Request(0x07E0, 0x0020));
  EXPECT_EQ(receiver_.DrainFrames().size(), 1u) << "the last 64 bytes of the data";
}

TEST_F(AlpServeTest, UnanswerableRequestsAndClientWrites) {
  gps::test::FeedReceiver(Request(0x07F0, 0x0020));  // ends 64 bytes beyond the data
  gps::test::FeedReceiver(Request(0x0000, 0x0200));  // 1024 bytes: more than one answer holds
  EXPECT_EQ(receiver_.DrainFrames(50).size(), 0u);
  EXPECT_EQ(MarkedBlocks(gps_private_info.alp_served_blocks), 0);

  std::string cli(16, '\0');
  cli[1] = '\xFF', cli[2] = 0x08, cli[4] = 0x08;  // 16 bytes at byte 16
  gps::test::FeedReceiver(UbxFrame(0x0B, 0x32, cli + std::string(16, 'x')));
  EXPECT_EQ(gps_private_info.alp_client_blocks[0], 0b110);
  // From the last block of the bitmap to far beyond it: only the last is
  // marked, and nothing after the bitmap.
  const uint8_t* beyond = gps_private_info.alp_client_blocks + GPS_ALP_BITMAP_BYTES;
  const std::vector<uint8_t> beyondBefore(beyond, beyond + 4);
  cli[2] = '\xF8', cli[3] = '\xFF', cli[4] = '\xFF', cli[5] = '\xFF';
  gps::test::FeedReceiver(UbxFrame(0x0B, 0x32, cli));
  EXPECT_EQ(MarkedBlocks(gps_private_info.alp_client_blocks), 3);
  EXPECT_EQ(gps_private_info.alp_client_blocks[GPS_ALP_BITMAP_BYTES - 1], 0x80);
  EXPECT_EQ(std::vector<uint8_t>(beyond, beyond + 4), beyondBefore);
}

// While another thread holds the record's lock, an answer changes nothing.
// The analyser is called past the framer, which takes the lock itself.
TEST_F(AlpServeTest, AnswersWaitForTheRecordLock) {
  const auto monHw = [] {
    const std::string frame = UbxFrame(0x0A, 0x09, std::string(60, '\0'));
    static gps_message_t m;
    std::memcpy(m.buffer, frame.data(), frame.size());
    m.type = MESSAGE_TYPE_UBLOX, m.length = static_cast<uint32_t>(frame.size());
    m.ubx_class = 0x0A, m.ubx_id = 0x09, m.ubx_length = 60;
    lib_GPS_ubx_AnalyzeMessage(&gps_private_info, &m, "RX");
  };
  const struct {
    const char* legend;
    std::function<void()> answer;
    std::function<bool()> changed;
  } cases[] = {
      {"MON-HW", monHw, [] { return gps_private_info.mon_hw_tick != 0; }},
      {"ALP request", [] { lib_GPS_ServeAlpRequest(&gps_private_info, 0x02, 0x0010, 0x0040, 7, 9); },
       [this] { return MarkedBlocks(gps_private_info.alp_served_blocks) != 0; }},
  };
  for (const auto& c : cases) {
    std::promise<void> held;
    bool changedWhileHeld = true;
    std::thread holder([&] {
      lib_GPS_Lock();
      held.set_value();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      changedWhileHeld = c.changed();
      lib_GPS_Unlock();
    });
    held.get_future().wait();
    c.answer();
    holder.join();
    EXPECT_FALSE(changedWhileHeld) << c.legend;
    EXPECT_TRUE(c.changed()) << c.legend;
  }
}

}  // namespace
