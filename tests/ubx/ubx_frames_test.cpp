// UBX frames as the engine sends them: every template's bytes and checksum,
// and what reaches a receiver on a real serial line.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "engine/gps_private_info.h"
#include "param/gps_parameters.h"
#include "tests/support/pty_receiver.h"
#include "ubx/ubx_codec.h"
#include "ubx/ubx_config.h"

namespace {

std::string Bytes(const uint8_t* data, size_t size) { return std::string(reinterpret_cast<const char*>(data), size); }
std::string Hex(const std::string& bytes) {
  std::string out;
  char hex[4];
  for (unsigned char c : bytes) {
    std::snprintf(hex, sizeof hex, "%02X ", c);
    out += hex;
  }
  return out;
}

TEST(UbxTemplates, ChecksumsAreTheReceiversOwn) {
  const struct {
    const char* legend;
    const uint8_t* frame;
    size_t size;
    uint8_t ckA, ckB;
    bool stored;
  } cases[] = {
      {"MON-VER poll", UBX_TEMPLATE_MON_VER_POLL, 8, 0x0E, 0x34, false},
      {"CFG-PM2 poll", UBX_TEMPLATE_CFG_PM2_POLL, 8, 0x41, 0xC9, false},
      {"CFG-RST cold start", UBX_TEMPLATE_CFG_RST, 12, 0x0E, 0x61, false},
      {"CFG-MSG MON-HW, short form", UBX_TEMPLATE_CFG_MSG_MON_HW_SHORT, 11, 0x1E, 0x70, true},
      {"MON-LLC poll", UBX_TEMPLATE_MON_LLC_POLL, 8, 0x17, 0x4F, false},
      {"CFG-OTP poll", UBX_TEMPLATE_CFG_OTP_POLL, 8, 0x47, 0xDB, false},
      {"CFG-OTP write", UBX_TEMPLATE_CFG_OTP_WRITE, 20, 0x1A, 0x13, true},
      {"CFG-MSG MON-HW", UBX_TEMPLATE_CFG_MSG_MON_HW, 16, 0x23, 0x38, false},
      {"CFG-MSG NAV-STATUS", UBX_TEMPLATE_CFG_MSG_NAV_STATUS, 16, 0x14, 0xC6, false},
      {"CFG-MSG GSV off", UBX_TEMPLATE_CFG_MSG_GSV_OFF, 16, 0x02, 0x38, false},
      {"CFG-MSG NAV-PVT", UBX_TEMPLATE_CFG_MSG_NAV_PVT, 16, 0x18, 0xE2, false},
      {"CFG-NAVX5", UBX_TEMPLATE_CFG_NAVX5, 48, 0x92, 0x13, false},
      {"CFG-MSG NAV-CLOCK", UBX_TEMPLATE_CFG_MSG_NAV_CLOCK, 16, 0x33, 0x9F, false},
      {"CFG-MSG NAV-SOL", UBX_TEMPLATE_CFG_MSG_NAV_SOL, 16, 0x17, 0xDB, false},
      {"CFG-MSG NAV-SVINFO", UBX_TEMPLATE_CFG_MSG_NAV_SVINFO, 16, 0x41, 0x01, false},
      {"CFG-RXM power save", UBX_TEMPLATE_CFG_RXM, 10, 0x22, 0x92, false},
  };
  for (const auto& c : cases) {
    uint8_t frame[64];
    std::memcpy(frame, c.frame, c.size);
    ASSERT_EQ(lib_GPS_ubx_ComputeChecksum(frame), c.size) << c.legend;
    EXPECT_EQ(frame[c.size - 2], c.ckA) << c.legend;
    EXPECT_EQ(frame[c.size - 1], c.ckB) << c.legend;
    if (c.stored) EXPECT_EQ(Bytes(frame, c.size), Bytes(c.frame, c.size)) << c.legend << ": stored checksum";
    else EXPECT_EQ(c.frame[c.size - 2] | c.frame[c.size - 1], 0) << c.legend << ": computed at sending";
  }
}

class UbxSendTest : public testing::Test {
 protected:
  void SetUp() override {
    gps::test::ResetEngine(2);
    lib_GPS_param_RestorePersistentStorage();
    ASSERT_EQ(lib_GPS_ubx_OpenResource(&gps_private_info), 0);
    EXPECT_EQ(gps_private_info.com_gps, 1u);
  }
  void TearDown() override { lib_GPS_ubx_CloseResource(&gps_private_info); }

  gps::test::TempRoot root_;
  gps::test::PtyReceiver receiver_{root_};
};

TEST_F(UbxSendTest, FrameLongerThanOneDriverBlockArrivesWholeAndInOrder) {
  std::vector<uint8_t> frame(6 + 600 + 2);
  frame[0] = 0xB5;
  frame[1] = 0x62;
  frame[2] = 0x0B;
  frame[3] = 0x32;
  frame[4] = 600 & 0xFF;
  frame[5] = 600 >> 8;
  for (size_t i = 0; i < 600; ++i) frame[6 + i] = static_cast<uint8_t>(i * 7);
  lib_GPS_ubx_SendMessage(&gps_private_info, frame.data());
  EXPECT_EQ(receiver_.Drain(), Bytes(frame.data(), frame.size()));
}

TEST_F(UbxSendTest, NothingReachesAClosedReceiverNorTheModuleTrace) {
  gps_private_info.com_gps = GPS_INVALID_HANDLE;
  gps_private_info.loggingIsEnabled = 1;
  lib_GPS_ubx_PollVersion(&gps_private_info);
  lib_GPS_ubx_SetAntOffPolarityValue(&gps_private_info);
  EXPECT_EQ(receiver_.Drain(50), "");
  EXPECT_FALSE(std::filesystem::exists(root_ / "home/LEGACY_FS/HOST"));
  gps_private_info.loggingIsEnabled = 0;
}

TEST_F(UbxSendTest, FixUpdatePeriodConfigurationCarriesTheRequestedPeriod) {
  gps_parameters.requestedFixUpdatePeriodInms = 1000;
  lib_GPS_ubx_SendFixUpdatePeriodConfiguration(&gps_private_info);
  const auto frames = receiver_.DrainFrames();
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(Hex(frames[0].substr(0, 22)), "B5 62 06 3B 2C 00 01 00 00 00 00 10 03 00 E8 03 00 00 10 27 00 00 ");
  EXPECT_EQ(frames[0].substr(22, 44 - 16), std::string(28, '\0'));
  EXPECT_EQ(Hex(frames[1]), "B5 62 06 11 02 00 08 01 22 92 ");
}

TEST_F(UbxSendTest, ColdRestartGoesBeforeTheMonHwCommandAndResetsTheRecord) {
  gps_private_info.module_config_state = 2;
  gps_private_info.fix_quality = 1;
  gps_private_info.external_command_flags = GPS_COMMAND_COLD_RESTART | GPS_COMMAND_MON_HW_ON | GPS_COMMAND_NO_ACTION;
  lib_GPS_Lock();
  lib_GPS_ubx_PerformExternalCommand(&gps_private_info);
  lib_GPS_Unlock();
  EXPECT_EQ(Hex(receiver_.Drain()),
            "B5 62 06 04 04 00 FF FF 02 00 0E 61 B5 62 06 01 03 00 0A 09 01 1E 70 ");
  EXPECT_EQ(gps_private_info.external_command_flags, 0u);
  EXPECT_EQ(gps_private_info.module_config_state, 0u);
  EXPECT_EQ(gps_private_info.fix_quality, 0);
}

TEST_F(UbxSendTest, AntOffPolarityPollsAndWrite) {
  lib_GPS_ubx_RequestAntOffPolarityValue(&gps_private_info);
  lib_GPS_ubx_SetAntOffPolarityValue(&gps_private_info);
  EXPECT_EQ(Hex(receiver_.Drain()),
            "B5 62 0A 0D 00 00 17 4F B5 62 06 41 00 00 47 DB "
            "B5 62 06 41 0C 00 00 00 03 1F 9C 94 BD 18 FF F6 AC FF 1A 13 ");
}

}  // namespace
