// The receiver core on a simulated clock: what it writes, how it answers the
// engine's commands, power, backup, and AssistNow Offline with a host that
// answers its requests as the engine does (the write-back and the exchange
// over a serial line are checked with the engine itself).
#include "sim/receiver.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <set>

#include "tests/sim/sim_test_support.h"

namespace gps::sim {
namespace {

using namespace testing;

const Bytes kMonVerPoll = Frame(0x0A, 0x04, {});

Bytes Corrupt(Bytes frame) {  // a wrong checksum
  frame.back() ^= 0x01;
  return frame;
}

std::vector<int32_t> I32s(const Bytes& p, size_t at, size_t count) {
  std::vector<int32_t> out;
  for (size_t k = 0; k < count; ++k) out.push_back(static_cast<int32_t>(U32(p, at + 4 * k)));
  return out;
}

// Field `index` of each sentence, joined: "0011" for the GGA qualities of
// two epochs without a fix and two with.
std::string Column(const std::vector<std::string>& sentences, size_t index) {
  std::string out;
  for (const std::string& s : sentences) out += Field(s, index);
  return out;
}

TEST(SimReceiver, NoFixBeforeTtffThenFix) {
  Receiver r = MakeTestReceiver();
  const Output before = RunUntil(r, 2999);
  EXPECT_EQ(Column(before.Sentences("GGA"), 6) + Column(before.Sentences("RMC"), 2), "00VV") << "epochs at 1 and 2 s";
  // Satellites in view, GPS then GLONASS: a third, then two thirds of the sky found.
  EXPECT_EQ(Column(before.Sentences("GSV"), 3), "040208080505") << "one GSV sentence per four";

  const Output after = RunUntil(r, 3000);
  EXPECT_TRUE(after.wellFormed);
  // One epoch, in the receiver's order, GSA and GSV for both constellations.
  EXPECT_EQ(Column(after.nmea, 0), "GNRMCGNVTGGNGGAGNGSAGNGSAGPGSVGPGSVGPGSVGLGSVGLGSVGNGLL");
  const std::string gga = after.Sentences("GGA").at(0);
  EXPECT_EQ(Field(gga, 1), "120003.00");
  EXPECT_EQ(Field(gga, 2) + Field(gga, 3) + Field(gga, 4) + Field(gga, 5), "4851.39600N00221.13200E");
  EXPECT_EQ(Field(gga, 6) + Column(after.Sentences("RMC"), 2) + Column(after.Sentences("GSA"), 2), "1A33")
      << "GGA quality, RMC status, GSA mode";
  const auto gsv = after.Sentences("GSV");  // four satellites a sentence
  EXPECT_EQ(Column(gsv, 1) + "/" + Column(gsv, 2), "33322/12312");
}

TEST(SimReceiver, CfgMsgSwitchesUbxOutputOnAndNmeaOff) {
  Receiver r = MakeTestReceiver();
  for (uint8_t id : {0x07, 0x03, 0x06, 0x30}) Send(r, Frame(0x06, 0x01, {0x01, id, 0, 0, 0, 1, 0, 0}));  // NAV, USB
  Send(r, Frame(0x06, 0x01, {0x0A, 0x09, 0, 0, 0, 1, 0, 0}));                                            // MON-HW
  Send(r, Frame(0x06, 0x01, {0xF0, 0x03, 0, 0, 0, 0, 0, 0}));                                            // GSV off

  Output out = RunUntil(r, 4000);
  EXPECT_TRUE(out.Sentences("GSV").empty());
  const std::vector<UbxOut> pvts = out.Frames(0x01, 0x07);
  ASSERT_EQ(pvts.size(), 4u);
  const Bytes& noFix = pvts[0].payload;
  const Bytes& fix = pvts[3].payload;
  ASSERT_EQ(fix.size(), 92u);
  EXPECT_EQ(noFix[20], 0) << "fixType before the first fix";
  EXPECT_EQ(U32(noFix, 24) | U32(noFix, 28), 0u) << "no position before the first fix";
  // 2024-03-18 is a Monday: 12:00:04 UTC is 18 leap seconds later in GPS time.
  EXPECT_EQ(U32(fix, 0), (86400u + 12 * 3600 + 4 + 18) * 1000);
  for (uint8_t id : {0x03, 0x06, 0x30}) EXPECT_EQ(U32(out.Last(0x01, id), 0), U32(fix, 0)) << "iTOW of NAV " << +id;
  EXPECT_EQ(Bytes(fix.begin() + 4, fix.begin() + 11), (Bytes{0xE8, 0x07, 3, 18, 12, 0, 4})) << "2024-03-18 12:00:04";
  EXPECT_EQ(fix[20], 3);
  EXPECT_EQ(fix[21] & 0x01, 0x01) << "gnssFixOK";
  // Longitude, latitude, height above the ellipsoid and above sea level.
  EXPECT_EQ(I32s(fix, 24, 4), (std::vector<int32_t>{23522000, 488566000, 82000, 35000}));
  EXPECT_EQ(U32(out.Last(0x01, 0x03), 8), 3000u) << "NAV-STATUS ttff";
  // NAV-SOL: earth-centred position of 48.8566 N 2.3522 E, 82 m above the ellipsoid [cm].
  const std::vector<int32_t> ecef = I32s(out.Last(0x01, 0x06), 12, 3);
  for (size_t k = 0; k < 3; ++k) EXPECT_NEAR(ecef[k], (std::array{420096870, 17256200, 478014310})[k], 10) << k;
  // NAV-SVINFO, 12 bytes a channel: the satellites flagged used, with quality 7,
  // are those the epoch's two GSA sentences name, GPS and GLONASS.
  const Bytes svinfo = out.Last(0x01, 0x30);
  EXPECT_EQ(svinfo.size(), 8u + 12u * svinfo.at(4));
  std::set<int> usedInSvinfo, usedInGsa;
  for (size_t at = 8; at + 12 <= svinfo.size(); at += 12)
    if ((svinfo[at + 2] & 1) && svinfo[at + 3] == 7) usedInSvinfo.insert(svinfo[at + 1]);
  const std::vector<std::string> gsa = out.Sentences("GSA");
  for (size_t k = gsa.size() - 2; k < gsa.size(); ++k)
    for (size_t f = 3; f <= 14; ++f)
      if (const std::string prn = Field(gsa[k], f); !prn.empty()) usedInGsa.insert(std::stoi(prn));
  EXPECT_EQ(usedInSvinfo, usedInGsa);
  EXPECT_TRUE(usedInGsa.count(11) && usedInGsa.count(67)) << "GPS 11 and GLONASS 67 are high in the sky";
  EXPECT_EQ(out.Last(0x0A, 0x09).size(), 60u) << "MON-HW";

  // The 3-byte form, as the engine stores it: GSV on again, NAV-PVT every second epoch.
  Send(r, Frame(0x06, 0x01, {0xF0, 0x03, 0x01}));
  Send(r, Frame(0x06, 0x01, {0x01, 0x07, 0x02}));
  out = RunUntil(r, 8000);
  EXPECT_FALSE(out.Sentences("GSV").empty());
  EXPECT_EQ(out.Frames(0x01, 0x07).size(), 2u);
}

TEST(SimReceiver, MonPollAnswersPerConfiguration) {
  struct Case {
    const char* legend;
    ReceiverModel model;
    bool antOffPolarity;
    std::vector<std::string> texts;  // MON-VER: sw, hw, extensions
  } cases[] = {
      {"7-series, antenna-off active low", ReceiverModel::G7020, false,
       {"1.00 (59842)", "00070000", "PROTVER 14.00", "GPS;SBAS;GLO;QZSS"}},
      {"8-series, antenna-off active high", ReceiverModel::M8030, true,
       {"ROM CORE 3.01 (107888)", "00080000", "FWVER=SPG 3.01", "PROTVER=18.00", "GPS;GLO;GAL;BDS", "SBAS;IMES;QZSS"}},
  };
  for (const Case& c : cases) {
    ReceiverConfig config;
    config.model = c.model, config.antOffPolarity = c.antOffPolarity;
    Receiver r = MakeTestReceiver(config);
    // The texts NUL-padded: software 30 bytes, hardware 10, each extension 30.
    std::string expected;
    for (size_t i = 0; i < c.texts.size(); ++i)
      expected += c.texts[i] + std::string((i == 1 ? 10 : 30) - c.texts[i].size(), '\0');
    const Output ver = Send(r, kMonVerPoll);
    ASSERT_EQ(ver.ubx.size(), 1u) << c.legend << ": no acknowledgement for a MON poll";
    EXPECT_EQ(std::string(ver.ubx[0].payload.begin(), ver.ubx[0].payload.end()), expected) << c.legend;
    EXPECT_EQ((U32(Send(r, Frame(0x0A, 0x0D, {})).Last(0x0A, 0x0D), 16) >> 7) & 1, c.antOffPolarity ? 1u : 0u)
        << c.legend << ": MON-LLC";
  }
}

TEST(SimReceiver, AcknowledgesWellFormedCfgAndRefusesTheRest) {
  const Bytes engineOtpWrite = {0xB5, 0x62, 0x06, 0x41, 0x0C, 0x00, 0x00, 0x00, 0x03, 0x1F,
                                0x9C, 0x94, 0xBD, 0x18, 0xFF, 0xF6, 0xAC, 0xFF, 0x1A, 0x13};
  struct Case {
    const char* legend;
    Bytes frame;
    std::vector<Bytes> expected;  // class, id of each answer frame
  } cases[] = {
      {"CFG-MSG, 3-byte form", Frame(0x06, 0x01, {0x0A, 0x09, 0x01}), {{0x05, 0x01}}},
      {"CFG-OTP write as the engine sends it", engineOtpWrite, {{0x05, 0x01}}},
      {"CFG-MSG poll: the rates, then ACK", Frame(0x06, 0x01, {0xF0, 0x00}), {{0x06, 0x01}, {0x05, 0x01}}},
      {"CFG-MSG of 5 bytes", Frame(0x06, 0x01, {1, 2, 3, 4, 5}), {{0x05, 0x00}}},
      {"CFG-PM2 of 40 bytes", Frame(0x06, 0x3B, Bytes(40, 0)), {{0x05, 0x00}}},
      {"CFG-RST without payload", Frame(0x06, 0x04, {}), {{0x05, 0x00}}},
      {"CFG with a bad checksum", Corrupt(Frame(0x06, 0x01, {0x01, 0x07, 1, 0, 0, 0, 0, 0})), {{0x05, 0x00}}},
      {"MON poll with a bad checksum", Corrupt(kMonVerPoll), {}},
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
}

TEST(SimReceiver, PowerSaveModeTakesTheStoredPeriod) {
  Receiver r = MakeTestReceiver();
  Bytes pm2(44, 0);  // version 1, updateRTC and updateEPH, updatePeriod 1000 ms, searchPeriod 10 s
  pm2[0] = 1, pm2[5] = 0x90, pm2[6] = 0x02, pm2[8] = 0xE8, pm2[9] = 0x03, pm2[12] = 0x10, pm2[13] = 0x27;
  EXPECT_EQ(Send(r, Frame(0x06, 0x3B, {})).Last(0x06, 0x3B), pm2) << "the configuration at boot";
  pm2[5] = 0x10, pm2[6] = 0x03, pm2[8] = 0x88, pm2[9] = 0x13;  // cyclic tracking, updatePeriod 5000 ms
  Send(r, Frame(0x06, 0x3B, pm2));
  EXPECT_EQ(r.fixPeriodMs(), 1000u) << "CFG-PM2 alone only stores the period";
  Send(r, Frame(0x06, 0x11, {0x08, 0x01}));
  EXPECT_EQ(RunUntil(r, 20000).Sentences("GGA").size(), 4u) << "one epoch per 5 s";
  Send(r, Frame(0x06, 0x11, {0x08, 0x00}));
  EXPECT_EQ(r.fixPeriodMs(), 1000u) << "continuous mode again";
}

// Backup ends only by a wake-up source of the port: UART RX activity on a
// UART when the 16-byte request names it, nothing over USB.
TEST(SimReceiver, BackupWakesOnlyByTheWakeUpSourcesOfItsPort) {
  const Bytes kUartRx = {0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0x08, 0, 0, 0};
  const Bytes kExtInt0 = {0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0, 0x20, 0, 0, 0};
  const Bytes kNoSource = {0, 0, 0, 0, 0x02, 0, 0, 0};
  const struct {
    const char* legend;
    uint8_t port;
    Bytes payload;
    bool wakes;
  } cases[] = {
      {"UART1, UART RX a wake-up source", 1, kUartRx, true},
      {"UART1, only EXTINT0", 1, kExtInt0, false},
      {"UART1, 8-byte request (no source)", 1, kNoSource, false},
      {"USB, UART RX named", 3, kUartRx, false},
      {"USB, 8-byte request", 3, kNoSource, false},
  };
  for (const auto& c : cases) {
    ReceiverConfig config;
    config.port = c.port;
    Receiver r = MakeTestReceiver(config);
    RunUntil(r, 4000);
    EXPECT_TRUE(Send(r, Frame(0x02, 0x41, c.payload)).ubx.empty()) << c.legend << ": no acknowledgement";
    EXPECT_TRUE(RunUntil(r, 30000).nmea.empty()) << c.legend;
    // The byte that wakes the receiver is lost, and with it the frame it began.
    EXPECT_TRUE(Send(r, kMonVerPoll).ubx.empty()) << c.legend;
    EXPECT_EQ(Send(r, kMonVerPoll).Frames(0x0A, 0x04).size(), c.wakes ? 1u : 0u) << c.legend;
    EXPECT_EQ(Column(RunUntil(r, 34000).Sentences("GGA"), 6), c.wakes ? "0011" : "") << c.legend;
    // Only a power cycle brings back a receiver that nothing wakes.
    r.SetPowered(false);
    r.SetPowered(true);
    EXPECT_EQ(Send(r, kMonVerPoll).Frames(0x0A, 0x04).size(), 1u) << c.legend;
  }
}

// A message comes out only at the rate of the host's port: the 8-rate form
// sets each port, the 3-rate form the port it came on.
TEST(SimReceiver, MessagesComeOutOnlyOnThePortsTheyAreEnabledFor) {
  const struct {
    const char* legend;
    uint8_t port;
    Bytes payload;
    bool pvt;
  } cases[] = {
      {"USB, DDC only", 3, {0x01, 0x07, 1, 0, 0, 0, 0, 0}, false},
      {"USB, USB", 3, {0x01, 0x07, 0, 0, 0, 1, 0, 0}, true},
      {"UART1, USB only", 1, {0x01, 0x07, 0, 0, 0, 1, 0, 0}, false},
      {"UART1, UART1", 1, {0x01, 0x07, 0, 1, 0, 0, 0, 0}, true},
      {"UART1, 3-rate form", 1, {0x01, 0x07, 1}, true},
      {"USB, 3-rate form", 3, {0x01, 0x07, 1}, true},
  };
  for (const auto& c : cases) {
    ReceiverConfig config;
    config.port = c.port;
    Receiver r = MakeTestReceiver(config);
    EXPECT_EQ(Send(r, Frame(0x06, 0x01, c.payload)).Frames(0x05, 0x01).size(), 1u) << c.legend;
    EXPECT_EQ(RunUntil(r, 3000).Frames(0x01, 0x07).empty(), !c.pvt) << c.legend;
  }
  // The 3-rate form leaves the other ports as they were.
  Receiver r = MakeTestReceiver();
  Send(r, Frame(0x06, 0x01, {0x01, 0x07, 0, 1, 0, 0, 0, 0}));
  Send(r, Frame(0x06, 0x01, {0x01, 0x07, 2}));
  EXPECT_EQ(Send(r, Frame(0x06, 0x01, {0x01, 0x07})).Last(0x06, 0x01), (Bytes{0x01, 0x07, 0, 1, 0, 2, 0, 0}));
}

// CFG-PRT output masks decide what the port carries, the input mask whether
// UBX commands are heard; a receiver left in UBX-only output writes no NMEA.
TEST(SimReceiver, PortProtocolMasksGateOutputAndInput) {
  const auto prt = [](uint8_t port, uint16_t in, uint16_t out) {
    return Frame(0x06, 0x00, {port, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(in), 0,
                              static_cast<uint8_t>(out), 0, 0, 0, 0, 0});
  };
  ReceiverConfig ubxOnly;
  ubxOnly.ubxOnly = true;
  Receiver r = MakeTestReceiver(ubxOnly);
  EXPECT_TRUE(RunUntil(r, 2000).nmea.empty()) << "UBX only";
  const Output poll = Send(r, Frame(0x06, 0x00, {3}));
  EXPECT_EQ(poll.Last(0x06, 0x00), (Bytes{3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x07, 0, 0x01, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Send(r, prt(1, 7, 3)).Frames(0x05, 0x01).size(), 1u);
  EXPECT_TRUE(RunUntil(r, 4000).nmea.empty()) << "another port's mask changes nothing here";
  EXPECT_EQ(Send(r, prt(3, 7, 3)).Frames(0x05, 0x01).size(), 1u);
  EXPECT_FALSE(RunUntil(r, 6000).Sentences("GGA").empty()) << "NMEA on";

  EXPECT_TRUE(Send(r, prt(3, 7, 2)).ubx.empty()) << "NMEA only: not even the acknowledgement";
  EXPECT_TRUE(Send(r, kMonVerPoll).ubx.empty());
  EXPECT_FALSE(RunUntil(r, 8000).nmea.empty());
  EXPECT_EQ(Send(r, prt(3, 2, 3)).Frames(0x05, 0x01).size(), 1u) << "acknowledged on the new configuration";
  EXPECT_TRUE(Send(r, kMonVerPoll).ubx.empty()) << "UBX input off: commands are not heard";
}

// The engine's cold start drops the fix and the message configuration; GNSS
// stop and start keep the interface and the configuration; the resets that
// reboot the receiver bring its defaults back.
TEST(SimReceiver, ResetModesStopStartOrReboot) {
  const Bytes pvtOnUsb = Frame(0x06, 0x01, {0x01, 0x07, 0, 0, 0, 1, 0, 0});
  Receiver r = MakeTestReceiver();
  Send(r, pvtOnUsb);
  RunUntil(r, 5000);
  ASSERT_TRUE(r.hasFix());
  const Output reset = Send(r, Bytes{0xB5, 0x62, 0x06, 0x04, 0x04, 0x00, 0xFF, 0xFF, 0x02, 0x00, 0x0E, 0x61});
  EXPECT_EQ(reset.Frames(0x05, 0x01).size(), 1u);
  EXPECT_EQ(reset.nmea, std::vector<std::string>{"$GPTXT,01,01,02,Resetting GPS*68"});
  const Output after = RunUntil(r, 9000);
  EXPECT_EQ(Column(after.Sentences("GGA"), 6), "0011") << "fixed again one time to first fix after the reset";
  EXPECT_TRUE(after.Frames(0x01, 0x07).empty()) << "UBX output back to its default: off";

  Send(r, pvtOnUsb);
  Send(r, Frame(0x06, 0x04, {0, 0, 0x08, 0}));
  const Output stopped = RunUntil(r, 10000);
  EXPECT_TRUE(stopped.nmea.empty() && stopped.ubx.empty()) << "no epochs with GNSS stopped";
  EXPECT_EQ(Send(r, kMonVerPoll).Frames(0x0A, 0x04).size(), 1u) << "the interface still answers";
  Send(r, Frame(0x06, 0x04, {0, 0, 0x09, 0}));
  const Output started = RunUntil(r, 14000);
  EXPECT_EQ(Column(started.Sentences("GGA"), 6), "0011") << "a fresh acquisition";
  EXPECT_EQ(started.Frames(0x01, 0x07).size(), 4u) << "the configuration stays";

  for (const uint8_t mode : {0x00, 0x01, 0x04}) {
    Send(r, pvtOnUsb);
    Send(r, Frame(0x06, 0x04, {0, 0, mode, 0}));
    EXPECT_TRUE(RunUntil(r, r.nowMs() + 3000).Frames(0x01, 0x07).empty()) << "reset mode " << int(mode);
  }
}

// Every frame received while powered is recorded whole, wherever the line
// cuts the stream and whatever noise lies between frames; while off the
// receiver is deaf, and power-on restores the defaults.
TEST(SimReceiver, RecordsHostFramesWholeWhilePowered) {
  const Bytes a = Frame(0x06, 0x01, {0xF0, 0x03, 0, 0, 0, 0, 0, 0});  // GSV off
  const Bytes b = Corrupt(kMonVerPoll);  // recorded, not answered
  const Bytes c = Frame(0x0B, 0x32, Bytes(100, 0x11));
  // NMEA text, a lone 0xB5, a header longer than any frame the receiver takes.
  Bytes stream = {'$', 'P', 'U', 'B', 'X', '\r', '\n', 0xB5, 0x00};
  stream.insert(stream.end(), a.begin(), a.end());
  stream.insert(stream.end(), {0xB5, 0x62, 0x06, 0x01, 0xFF, 0xFF});
  for (const Bytes& f : {b, c}) stream.insert(stream.end(), f.begin(), f.end());
  for (size_t split = 0; split <= stream.size(); ++split) {
    Receiver r = MakeTestReceiver();
    r.Receive(std::span(stream).first(split));
    r.Receive(std::span(stream).subspan(split));
    ASSERT_EQ(r.ReceivedFrames(), (std::vector<Bytes>{a, b, c})) << "split at " << split;
  }
  Receiver r = MakeTestReceiver();
  Send(r, a);
  r.SetPowered(false);
  EXPECT_TRUE(Send(r, kMonVerPoll).ubx.empty());
  EXPECT_TRUE(RunUntil(r, 3000).nmea.empty());
  EXPECT_EQ(r.ReceivedFrames().size(), 1u);
  r.SetPowered(true);
  EXPECT_FALSE(RunUntil(r, 5000).Sentences("GSV").empty()) << "power-on restores the defaults";
}

const Bytes kAlpFile = [] {
  Bytes file(4000);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return file;
}();

// The host's answer to a request: its 16-byte header with dataSize set,
// then size * 2 bytes of the file from byte ofs * 2.
Bytes AlpAnswer(const Bytes& request) {
  const size_t ofs = U16(request, 2) * 2u, bytes = U16(request, 4) * 2u;
  Bytes p(request.begin(), request.begin() + 16);
  p[8] = static_cast<uint8_t>(bytes), p[9] = static_cast<uint8_t>(bytes >> 8);
  p.insert(p.end(), kAlpFile.begin() + static_cast<long>(ofs), kAlpFile.begin() + static_cast<long>(ofs + bytes));
  return p;
}

// AID-ALPSRV output on, then the first block: a 16-byte header (file id
// 0xFECA) and the first 84 bytes of the file.
Receiver StartAssisted() {
  ReceiverConfig config;
  config.ttffMs = 20000;
  config.alpData = kAlpFile;
  Receiver r = MakeTestReceiver(config);
  Send(r, Frame(0x06, 0x01, {0x0B, 0x32, 0, 0, 0, 1, 0, 0}));
  Bytes first = {0x10, 0x01, 0x00, 0x00, 0x2A, 0x00, 0xCA, 0xFE, 84, 0, 0, 0, 0, 0, 0, 0};
  first.insert(first.end(), kAlpFile.begin(), kAlpFile.begin() + 84);
  Send(r, Frame(0x0B, 0x32, first));
  return r;
}

TEST(SimAssist, ServedRequestsShortenTheTimeToFirstFixUntilAColdStart) {
  Receiver r = StartAssisted();
  size_t requests = 0;
  std::vector<UbxOut> writeBacks;
  for (uint64_t t = 1000; t <= 6000; t += 1000) {
    for (const UbxOut& f : RunUntil(r, t, 1000).Frames(0x0B, 0x32)) {
      ASSERT_EQ(f.payload.size(), 16u);
      EXPECT_EQ(U16(f.payload, 2), 42 + 64 * requests++) << "ofs in words, after the first block";
      for (const UbxOut& w : Send(r, Frame(0x0B, 0x32, AlpAnswer(f.payload))).ubx) writeBacks.push_back(w);
    }
  }
  EXPECT_EQ(requests, 3u) << "one request per epoch";
  // Once every request is served, one block goes back as the receiver keeps it:
  // type 0xFF, 16 bytes at word 42, as they were served.
  ASSERT_EQ(writeBacks.size(), 1u);
  Bytes block = {0x10, 0xFF, 42, 0, 8, 0, 0xCA, 0xFE, 16, 0, 0, 0, 0, 0, 0, 0};
  block.insert(block.end(), kAlpFile.begin() + 84, kAlpFile.begin() + 100);
  EXPECT_EQ(writeBacks[0].payload, block);
  EXPECT_EQ(r.alp().answersCorrect, 3u);
  EXPECT_EQ(r.currentTtffMs(), 5000u);
  EXPECT_TRUE(r.hasFix()) << "fixed after a quarter of 20 s";
  Send(r, Frame(0x06, 0x04, {0xFF, 0xFF, 0x02, 0x00}));
  EXPECT_EQ(r.currentTtffMs(), 20000u) << "a cold start forgets it";
}

TEST(SimAssist, WrongAnswersAreCountedAndAskedAgain) {
  struct Case {
    const char* legend;
    std::function<void(Bytes&)> spoil;
  } cases[] = {
      {"a data byte differs from the file", [](Bytes& p) { p[16 + 5] ^= 1; }},
      {"another file id", [](Bytes& p) { p[6] = 0x01; }},
      {"dataSize not size * 2", [](Bytes& p) { p[8] = 0; }},
      {"data cut short", [](Bytes& p) { p.erase(p.end() - 2, p.end()); }},
      {"another offset", [](Bytes& p) { p[2] += 2; }},
      {"id1 not echoed", [](Bytes& p) { p[10] ^= 0x40; }},
  };
  for (const Case& c : cases) {
    Receiver r = StartAssisted();
    const Bytes request = RunUntil(r, 1000).Last(0x0B, 0x32);
    ASSERT_EQ(request.size(), 16u) << c.legend;
    Bytes answer = AlpAnswer(request);
    c.spoil(answer);
    Send(r, Frame(0x0B, 0x32, answer));
    EXPECT_EQ(r.alp().answersWrong, 1u) << c.legend;
    EXPECT_EQ(r.alp().answersCorrect, 0u) << c.legend;
    // The unanswered request comes back after three epochs.
    bool askedAgain = false;
    for (const UbxOut& f : RunUntil(r, 4000).Frames(0x0B, 0x32)) askedAgain |= f.payload == request;
    EXPECT_TRUE(askedAgain) << c.legend;
    EXPECT_EQ(r.currentTtffMs(), 20000u) << c.legend;
  }
}

}  // namespace
}  // namespace gps::sim
