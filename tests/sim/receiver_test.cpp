// The receiver core on a simulated clock: what it writes, how it answers the
// engine's commands, power and backup.
#include "sim/receiver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "tests/sim/sim_test_support.h"

namespace gps::sim {
namespace {

using namespace testing;
using Bytes = std::vector<uint8_t>;

const Bytes kNavPvtOn = {0x01, 0x07, 1, 0, 0, 0, 0, 0};
const Bytes kGsvOff = {0xF0, 0x03, 0, 0, 0, 0, 0, 0};

TEST(SimReceiver, NoFixBeforeTtffThenFix) {
  Receiver r = MakeTestReceiver();
  const Output before = RunUntil(r, 2999);
  ASSERT_EQ(before.Sentences("GGA").size(), 2u) << "epochs at 1 s and 2 s";
  for (const std::string& gga : before.Sentences("GGA")) EXPECT_EQ(Field(gga, 6), "0") << gga;
  for (const std::string& rmc : before.Sentences("RMC")) EXPECT_EQ(Field(rmc, 2), "V") << rmc;
  for (const std::string& vtg : before.Sentences("VTG")) EXPECT_EQ(Field(vtg, 9), "N") << vtg;
  EXPECT_FALSE(r.hasFix());

  const Output after = RunUntil(r, 3000);
  ASSERT_TRUE(after.allChecksumsOk);
  EXPECT_TRUE(after.allLinesEndCrLf);
  // One epoch, in the receiver's order, GSA and GSV for both constellations.
  std::vector<std::string> addresses;
  for (const std::string& s : after.nmea) addresses.push_back(Field(s, 0));
  EXPECT_EQ(addresses, (std::vector<std::string>{"GNRMC", "GNVTG", "GNGGA", "GNGSA", "GNGSA", "GPGSV", "GPGSV",
                                                 "GPGSV", "GLGSV", "GLGSV", "GNGLL"}));
  const std::string gga = after.Sentences("GGA").at(0);
  EXPECT_EQ(Field(gga, 1), "120003.00");
  EXPECT_EQ(Field(gga, 2) + Field(gga, 3) + Field(gga, 4) + Field(gga, 5), "4851.39600N00221.13200E");
  EXPECT_EQ(Field(gga, 6), "1");
  EXPECT_EQ(Field(after.Sentences("RMC").at(0), 2), "A");
  EXPECT_EQ(Field(after.Sentences("VTG").at(0), 9), "A");
  EXPECT_EQ(Field(after.Sentences("GSA").at(0), 2), "3");
}

TEST(SimReceiver, CfgMsgSwitchesNavPvtOnAndGsvOff) {
  Receiver r = MakeTestReceiver();
  Output out = Send(r, Frame(0x06, 0x01, kNavPvtOn));
  ASSERT_EQ(out.ubx.size(), 1u);
  EXPECT_EQ(out.ubx[0].whole, (Bytes{0xB5, 0x62, 0x05, 0x01, 0x02, 0x00, 0x06, 0x01, 0x0F, 0x38}));
  Send(r, Frame(0x06, 0x01, kGsvOff));

  out = RunUntil(r, 4000);
  EXPECT_TRUE(out.Sentences("GSV").empty());
  EXPECT_EQ(out.Sentences("GGA").size(), 4u);
  const std::vector<UbxOut> pvts = out.Frames(0x01, 0x07);
  ASSERT_EQ(pvts.size(), 4u);
  const Bytes& noFix = pvts[0].payload;
  const Bytes& fix = pvts[3].payload;
  ASSERT_EQ(fix.size(), 92u);
  EXPECT_EQ(noFix[20], 0) << "fixType before the first fix";
  EXPECT_EQ(U32(noFix, 24) | U32(noFix, 28), 0u) << "no position before the first fix";
  // 2024-03-18 is a Monday: 12:00:04 UTC is 18 leap seconds later in GPS time.
  EXPECT_EQ(U32(fix, 0), (86400u + 12 * 3600 + 4 + 18) * 1000);
  EXPECT_EQ(U16(fix, 4), 2024);
  EXPECT_EQ(Bytes(fix.begin() + 6, fix.begin() + 11), (Bytes{3, 18, 12, 0, 4}));
  EXPECT_EQ(fix[20], 3);
  EXPECT_EQ(fix[21] & 0x01, 0x01) << "gnssFixOK";
  EXPECT_EQ(static_cast<int32_t>(U32(fix, 24)), 23522000);
  EXPECT_EQ(static_cast<int32_t>(U32(fix, 28)), 488566000);
  EXPECT_EQ(static_cast<int32_t>(U32(fix, 32)), 82000) << "height above the ellipsoid";
  EXPECT_EQ(static_cast<int32_t>(U32(fix, 36)), 35000) << "hMSL";
  EXPECT_GT(U32(fix, 40), 0u);
  EXPECT_LT(U32(fix, 40), 10000u);

  // The 3-byte form switches GSV back on; a rate-2 NAV-PVT every second epoch.
  Send(r, Frame(0x06, 0x01, {0xF0, 0x03, 0x01}));
  Send(r, Frame(0x06, 0x01, {0x01, 0x07, 0x02}));
  out = RunUntil(r, 8000);
  EXPECT_FALSE(out.Sentences("GSV").empty());
  EXPECT_EQ(out.Frames(0x01, 0x07).size(), 2u);
}

TEST(SimReceiver, UbxOutputsHaveTheirLayouts) {
  Receiver r = MakeTestReceiver();
  for (uint8_t cls_id : {0x03, 0x22, 0x06, 0x30}) Send(r, Frame(0x06, 0x01, {0x01, cls_id, 1, 0, 0, 0, 0, 0}));
  Send(r, Frame(0x06, 0x01, {0x0A, 0x09, 1, 0, 0, 0, 0, 0}));
  const Output out = RunUntil(r, 5000);
  const Bytes status = out.Frames(0x01, 0x03).back().payload;
  ASSERT_EQ(status.size(), 16u);
  EXPECT_EQ(U32(status, 8), 3000u) << "ttff";
  EXPECT_EQ(U32(out.Frames(0x01, 0x03).front().payload, 8), 0u) << "no ttff before the fix";
  EXPECT_EQ(out.Frames(0x01, 0x22).back().payload.size(), 20u);
  const Bytes sol = out.Frames(0x01, 0x06).back().payload;
  ASSERT_EQ(sol.size(), 52u);
  // Earth-centred position of 48.8566 N 2.3522 E, 82 m above the ellipsoid [cm].
  const double x = static_cast<int32_t>(U32(sol, 12)) / 100.0, y = static_cast<int32_t>(U32(sol, 16)) / 100.0,
               z = static_cast<int32_t>(U32(sol, 20)) / 100.0;
  EXPECT_NEAR(x, 4200968.7, 0.1);
  EXPECT_NEAR(y, 172562.0, 0.1);
  EXPECT_NEAR(z, 4780143.1, 0.1);
  const Bytes svinfo = out.Frames(0x01, 0x30).back().payload;
  EXPECT_EQ(svinfo.size(), 8u + 12u * svinfo[4]);
  EXPECT_GT(svinfo[4], 10);
  const Bytes hw = out.Frames(0x0A, 0x09).back().payload;
  ASSERT_EQ(hw.size(), 60u);
  EXPECT_GT(U16(hw, 16), 0) << "noisePerMS";
  EXPECT_LE(U16(hw, 18), 8191) << "agcCnt";
  EXPECT_LT(hw[45], 50) << "jamInd: no jamming";
}

TEST(SimReceiver, MonVerAnswerPerModel) {
  struct Case {
    ReceiverModel model;
    std::vector<std::string> texts;  // sw, hw, extensions
  } cases[] = {
      {ReceiverModel::G7020, {"1.00 (59842)", "00070000", "PROTVER 14.00", "GPS;SBAS;GLO;QZSS"}},
      {ReceiverModel::M8030,
       {"ROM CORE 3.01 (107888)", "00080000", "FWVER=SPG 3.01", "PROTVER=18.00", "GPS;GLO;GAL;BDS", "SBAS;IMES;QZSS"}},
  };
  for (const Case& c : cases) {
    ReceiverConfig config;
    config.model = c.model;
    Receiver r = MakeTestReceiver(config);
    const Output out = Send(r, Bytes{0xB5, 0x62, 0x0A, 0x04, 0x00, 0x00, 0x0E, 0x34});
    ASSERT_EQ(out.ubx.size(), 1u) << "no acknowledgement for a MON poll";
    const Bytes& p = out.ubx[0].payload;
    ASSERT_EQ(p.size(), 40 + 30 * (c.texts.size() - 2));
    for (size_t i = 0; i < c.texts.size(); ++i) {
      const size_t at = i == 0 ? 0 : i == 1 ? 30 : 40 + 30 * (i - 2);
      const size_t width = i == 1 ? 10 : 30;
      Bytes expected(width, 0);
      std::memcpy(expected.data(), c.texts[i].data(), c.texts[i].size());
      EXPECT_EQ(Bytes(p.begin() + at, p.begin() + at + width), expected) << c.texts[i];
    }
  }
}

TEST(SimReceiver, PowerSaveConfigurationChangesTheFixPeriod) {
  Receiver r = MakeTestReceiver();
  const Bytes pm2Poll = {0xB5, 0x62, 0x06, 0x3B, 0x00, 0x00, 0x41, 0xC9};
  Output out = Send(r, pm2Poll);
  ASSERT_EQ(out.ubx.size(), 2u);
  ASSERT_EQ(out.ubx[0].payload.size(), 44u);
  EXPECT_EQ(U32(out.ubx[0].payload, 8), 1000u);
  EXPECT_EQ((std::vector<uint8_t>{out.ubx[1].cls, out.ubx[1].id}), (Bytes{0x05, 0x01})) << "then ACK-ACK";

  // The engine's CFG-PM2: version 1, cyclic tracking, updatePeriod 5000 ms.
  Bytes pm2(44, 0);
  pm2[0] = 1;
  pm2[5] = 0x10, pm2[6] = 0x03;
  pm2[8] = 0x88, pm2[9] = 0x13;
  pm2[12] = 0x10, pm2[13] = 0x27;
  Send(r, Frame(0x06, 0x3B, pm2));
  EXPECT_EQ(r.fixPeriodMs(), 1000u) << "CFG-PM2 alone only stores the period";
  out = Send(r, pm2Poll);
  EXPECT_EQ(U32(out.ubx[0].payload, 8), 5000u);
  Send(r, Frame(0x06, 0x11, {0x08, 0x01}));
  EXPECT_EQ(r.fixPeriodMs(), 5000u);
  out = RunUntil(r, 20000);
  EXPECT_EQ(out.Sentences("GGA").size(), 4u) << "one epoch per 5 s";
  Send(r, Frame(0x06, 0x11, {0x08, 0x00}));
  EXPECT_EQ(r.fixPeriodMs(), 1000u) << "continuous mode again";
}

TEST(SimReceiver, MonLlcCarriesTheAntOffPolarity) {
  for (bool polarity : {false, true}) {
    ReceiverConfig config;
    config.antOffPolarity = polarity;
    Receiver r = MakeTestReceiver(config);
    const Output out = Send(r, Bytes{0xB5, 0x62, 0x0A, 0x0D, 0x00, 0x00, 0x17, 0x4F});
    ASSERT_EQ(out.ubx.size(), 1u);
    ASSERT_GE(out.ubx[0].payload.size(), 20u);
    EXPECT_EQ((U32(out.ubx[0].payload, 16) >> 7) & 1, polarity ? 1u : 0u);
  }
}

TEST(SimReceiver, AcknowledgesWellFormedCfgAndRefusesTheRest) {
  const Bytes engineShortCfgMsg = {0xB5, 0x62, 0x06, 0x01, 0x03, 0x00, 0x0A, 0x09, 0x01, 0x1E, 0x70};
  const Bytes engineOtpWrite = {0xB5, 0x62, 0x06, 0x41, 0x0C, 0x00, 0x00, 0x00, 0x03, 0x1F,
                                0x9C, 0x94, 0xBD, 0x18, 0xFF, 0xF6, 0xAC, 0xFF, 0x1A, 0x13};
  Bytes badChecksum = Frame(0x06, 0x01, kNavPvtOn);
  badChecksum.back() ^= 0x01;
  Bytes badPoll = Frame(0x0A, 0x04, {});
  badPoll.back() ^= 0x01;
  struct Case {
    const char* legend;
    Bytes frame;
    std::vector<Bytes> expected;  // class, id of each answer frame
  } cases[] = {
      {"CFG-MSG, 3-byte form as the engine stores it", engineShortCfgMsg, {{0x05, 0x01}}},
      {"CFG-OTP write", engineOtpWrite, {{0x05, 0x01}}},
      {"CFG-NAVX5, 40 bytes", Frame(0x06, 0x23, Bytes(40, 0)), {{0x05, 0x01}}},
      {"CFG-MSG poll: the rates, then ACK", Frame(0x06, 0x01, {0xF0, 0x00}), {{0x06, 0x01}, {0x05, 0x01}}},
      {"CFG-OTP poll", Frame(0x06, 0x41, {}), {{0x06, 0x41}, {0x05, 0x01}}},
      {"CFG-MSG of 5 bytes", Frame(0x06, 0x01, {1, 2, 3, 4, 5}), {{0x05, 0x00}}},
      {"CFG-PM2 of 40 bytes", Frame(0x06, 0x3B, Bytes(40, 0)), {{0x05, 0x00}}},
      {"CFG-RXM of 3 bytes", Frame(0x06, 0x11, {8, 1, 0}), {{0x05, 0x00}}},
      {"CFG-RST without payload", Frame(0x06, 0x04, {}), {{0x05, 0x00}}},
      {"CFG with a bad checksum", badChecksum, {{0x05, 0x00}}},
      {"MON poll with a bad checksum", badPoll, {}},
      {"NMEA text from the host", Bytes{'$', 'P', 'U', 'B', 'X', '\r', '\n'}, {}},
  };
  for (const Case& c : cases) {
    Receiver r = MakeTestReceiver();
    const Output out = Send(r, c.frame);
    std::vector<Bytes> answers;
    for (const UbxOut& f : out.ubx) answers.push_back({f.cls, f.id});
    EXPECT_EQ(answers, c.expected) << c.legend;
    for (const UbxOut& f : out.Frames(0x05, 0x00))
      EXPECT_EQ(f.payload, Bytes(c.frame.begin() + 2, c.frame.begin() + 4)) << c.legend;
  }
  Receiver r = MakeTestReceiver();
  const Output rates = Send(r, Frame(0x06, 0x01, {0xF0, 0x03}));
  EXPECT_EQ(rates.ubx[0].payload, (Bytes{0xF0, 0x03, 1, 1, 1, 1, 1, 0})) << "GSV on by default";
}

TEST(SimReceiver, ColdStartDropsTheFixAndTheMessageConfiguration) {
  Receiver r = MakeTestReceiver();
  Send(r, Frame(0x06, 0x01, kNavPvtOn));
  RunUntil(r, 5000);
  ASSERT_TRUE(r.hasFix());
  const Output reset = Send(r, Bytes{0xB5, 0x62, 0x06, 0x04, 0x04, 0x00, 0xFF, 0xFF, 0x02, 0x00, 0x0E, 0x61});
  ASSERT_EQ(reset.ubx.size(), 1u);
  EXPECT_EQ(reset.ubx[0].id, 0x01) << "ACK-ACK";
  EXPECT_EQ(reset.nmea, std::vector<std::string>{"$GPTXT,01,01,02,Resetting GPS*68"});
  EXPECT_FALSE(r.hasFix());

  const Output after = RunUntil(r, 9000);
  const auto ggas = after.Sentences("GGA");
  ASSERT_EQ(ggas.size(), 4u);
  EXPECT_EQ(Field(ggas[0], 6), "0");
  EXPECT_EQ(Field(ggas[1], 6), "0");
  EXPECT_EQ(Field(ggas[2], 6), "1") << "fixed again one time to first fix after the reset";
  EXPECT_TRUE(after.Frames(0x01, 0x07).empty()) << "UBX output back to its default: off";
}

TEST(SimReceiver, BackupRequestSilencesUntilAByteArrives) {
  struct Case {
    const char* legend;
    Bytes payload;
  } cases[] = {
      {"8-byte request", {0, 0, 0, 0, 0x02, 0, 0, 0}},
      {"16-byte request", {0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0x08, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    Receiver r = MakeTestReceiver();
    RunUntil(r, 4000);
    ASSERT_TRUE(r.hasFix());
    EXPECT_TRUE(Send(r, Frame(0x02, 0x41, c.payload)).ubx.empty()) << c.legend;
    EXPECT_EQ(r.power(), PowerState::Backup) << c.legend;
    EXPECT_TRUE(RunUntil(r, 30000).nmea.empty()) << c.legend;

    // The byte that wakes the receiver is lost, and with it the frame it began.
    const Bytes poll = Frame(0x0A, 0x04, {});
    EXPECT_TRUE(Send(r, poll).ubx.empty()) << c.legend;
    EXPECT_EQ(r.power(), PowerState::On);
    EXPECT_EQ(Send(r, poll).Frames(0x0A, 0x04).size(), 1u) << c.legend;
    const auto ggas = RunUntil(r, 34000).Sentences("GGA");
    ASSERT_EQ(ggas.size(), 4u) << c.legend;
    EXPECT_EQ(Field(ggas[1], 6), "0") << "time to first fix starts afresh";
    EXPECT_EQ(Field(ggas[2], 6), "1") << c.legend;
  }
  // Without the backup flag the request is ignored; with a duration the
  // receiver wakes by itself.
  Receiver r = MakeTestReceiver();
  Send(r, Frame(0x02, 0x41, {0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(r.power(), PowerState::On);
  Send(r, Frame(0x02, 0x41, {0x88, 0x13, 0, 0, 0x02, 0, 0, 0}));
  EXPECT_TRUE(RunUntil(r, 4900).nmea.empty());
  EXPECT_FALSE(RunUntil(r, 6000).nmea.empty());
}

TEST(SimReceiver, PoweredOffIsSilentAndDeaf) {
  ReceiverConfig config;
  config.startPowered = false;
  Receiver r = MakeTestReceiver(config);
  EXPECT_TRUE(RunUntil(r, 5000).nmea.empty());
  EXPECT_TRUE(Send(r, Frame(0x0A, 0x04, {})).ubx.empty());
  r.SetPowered(true);
  Send(r, Frame(0x06, 0x01, kGsvOff));
  const auto ggas = RunUntil(r, 8000).Sentences("GGA");
  ASSERT_EQ(ggas.size(), 3u);
  EXPECT_EQ(Field(ggas[2], 6), "1");
  r.SetPowered(false);
  EXPECT_TRUE(RunUntil(r, 12000).nmea.empty());
  r.SetPowered(true);
  EXPECT_FALSE(RunUntil(r, 14000).Sentences("GSV").empty()) << "power-on restores the defaults";
  EXPECT_EQ(r.ReceivedFrames().size(), 1u) << "only the frame received while powered";
}

TEST(SimReceiver, RecordsEveryHostFrameWhole) {
  Receiver r = MakeTestReceiver();
  const Bytes a = Frame(0x06, 0x01, kNavPvtOn);
  Bytes b = Frame(0x0A, 0x04, {});
  b[6] ^= 0x55;  // bad checksum: recorded, not answered
  const Bytes c = Frame(0x0B, 0x32, Bytes(100, 0x11));
  Bytes stream = {'x', 'y'};
  for (const Bytes* f : std::initializer_list<const Bytes*>{&a, &b, &c}) stream.insert(stream.end(), f->begin(), f->end());
  // Split as a serial line would, mid-header and mid-payload.
  for (size_t at = 0; at < stream.size(); at += 7) {
    const size_t n = std::min<size_t>(7, stream.size() - at);
    r.Receive(std::span(stream).subspan(at, n));
  }
  EXPECT_EQ(r.ReceivedFrames(), (std::vector<Bytes>{a, b, c}));
}

}  // namespace
}  // namespace gps::sim
