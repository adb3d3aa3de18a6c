// The gpsd JSON command reader and the report objects built from the engine
// record after real sentences.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "export/chrony_source.h"
#include "export/gpsd_protocol.h"
#include "export/record_view.h"
#include "tests/export/gpsd_schema.h"
#include "tests/support/message_recorder.h"
#include "tests/support/test_env.h"

namespace {

using gps::exporter::Command;
using gps::exporter::CommandKind;
using gps::exporter::CommandReader;

struct ReaderCase {
  const char* legend;
  std::vector<std::string> pieces;  // fed one after the other
  std::vector<CommandKind> kinds;
  std::string firstError;           // part of the first ERROR's message, if any
};

TEST(GpsdCommandReader, CutsAndParsesCommands) {
  const std::string longLine = "?WATCH={\"device\":\"" + std::string(100 * 1024, 'x') + "\"}\n";
  const std::vector<ReaderCase> cases = {
      {"plain commands, one per terminator", {"?VERSION;?DEVICES;?POLL;\n"},
       {CommandKind::Version, CommandKind::Devices, CommandKind::Poll}, ""},
      {"a command split across reads", {"?WAT", "CH={\"enable\":tr", "ue,\"json\":true};"}, {CommandKind::Watch}, ""},
      {"line end without ';'", {"?POLL\n"}, {CommandKind::Poll}, ""},
      {"'}' and ';' inside a string end nothing", {"?WATCH={\"device\":\"a};b\"};"}, {CommandKind::Watch}, ""},
      {"an unfinished object ended by the line", {"?WATCH={\n?VERSION;"},
       {CommandKind::Error, CommandKind::Version}, "not a JSON object"},
      {"unknown command", {"?FOO;"}, {CommandKind::Error}, "Unrecognized request 'FOO'"},
      {"no question mark", {"WATCH;"}, {CommandKind::Error}, "starts with '?'"},
      {"raw out of range", {"?WATCH={\"raw\":3};"}, {CommandKind::Error}, "raw"},
      {"wrong type", {"?WATCH={\"enable\":1};"}, {CommandKind::Error}, "enable"},
      {"binary junk", {std::string("\x00\xff\x01\x80garbage\n", 12)}, {CommandKind::Error}, "Unrecognized"},
      {"a 100 KB line is one error, then reading goes on", {longLine, "?VERSION;"},
       {CommandKind::Error, CommandKind::Version}, "too long"},
      {"blank lines are nothing", {"\r\n\n  \n"}, {}, ""},
      {"a device query and a change request", {"?DEVICE;?DEVICE={\"path\":\"sim\",\"bps\":4800};"},
       {CommandKind::Device, CommandKind::Device}, ""},
  };
  for (const ReaderCase& c : cases) {
    CommandReader reader;
    std::vector<Command> commands;
    for (const std::string& piece : c.pieces)
      for (Command& command : reader.feed(piece)) commands.push_back(std::move(command));
    ASSERT_EQ(commands.size(), c.kinds.size()) << c.legend;
    for (size_t i = 0; i < commands.size(); ++i) EXPECT_EQ(commands[i].kind, c.kinds[i]) << c.legend << " #" << i;
    if (!c.firstError.empty()) {
      EXPECT_NE(commands[0].error.find(c.firstError), std::string::npos) << c.legend << ": " << commands[0].error;
      const auto object = nlohmann::json::parse(gps::exporter::ErrorObject(commands[0].error));
      EXPECT_EQ(gps::test::SchemaProblems(object), "") << c.legend;
    }
  }
}

TEST(GpsdCommandReader, WatchAndDeviceArguments) {
  CommandReader reader;
  const auto commands = reader.feed(
      "?WATCH={\"enable\":true,\"json\":false,\"nmea\":true,\"raw\":2,\"scaled\":true,\"device\":\"sim\"};"
      "?DEVICE={\"path\":\"sim\"};?DEVICE={\"path\":\"sim\",\"bps\":4800};");
  ASSERT_EQ(commands.size(), 3u);
  const auto& w = commands[0].watch;
  EXPECT_TRUE(w.enable.value() && w.nmea.value() && w.scaled.value());
  EXPECT_FALSE(w.json.value());
  EXPECT_EQ(w.raw.value(), 2);
  EXPECT_EQ(w.device.value(), "sim");
  EXPECT_FALSE(commands[1].changesDevice) << "naming the device only asks for it";
  EXPECT_TRUE(commands[2].changesDevice) << "a speed is a change request";
}

class GpsdReports : public testing::Test {
 protected:
  void SetUp() override { gps::test::ResetEngine(2); }
  gps::exporter::RecordView View() {
    gps_private_info.power_state = 1;
    return gps::exporter::ReadRecord(0);
  }
  gps::test::ManualTicks ticks_{100000};
};

// One epoch as the M8 sends it: the TPV and SKY objects carry what the
// sentences said, in the protocol's units.
TEST_F(GpsdReports, EpochBecomesTpvAndSky) {
  gps::test::FeedReceiver(
      "$GNRMC,171926.00,A,4404.14063,N,12118.85478,W,0.117,77.52,180315,,,A*76\r\n"
      "$GNVTG,77.52,T,,M,0.117,N,0.217,K,A*06\r\n"
      "$GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44\r\n"
      "$GNGSA,A,3,01,11,,,,,,,,,,,1.56,0.91,1.27*15\r\n"
      "$GNGSA,A,3,65,,,,,,,,,,,,1.56,0.91,1.27*15\r\n"
      "$GPGSV,1,1,04,01,53,280,36,11,29,301,24,04,05,223,00,64,10,200,30*7C\r\n");
  const auto view = View();
  const auto& fix = view.fix;
  EXPECT_EQ(fix.mode, 3);
  ASSERT_TRUE(fix.latitudeDeg && fix.longitudeDeg);
  EXPECT_NEAR(*fix.latitudeDeg, 44.0 + 4.14063 / 60, 1e-9);
  EXPECT_NEAR(*fix.longitudeDeg, -(121.0 + 18.85478 / 60), 1e-9);
  EXPECT_NEAR(fix.altitudeHaeM.value(), 1147.2 - 21.3, 1e-9);
  EXPECT_NEAR(fix.speedMps.value(), 0.217 / 3.6, 1e-9);
  EXPECT_NEAR(fix.horizontalErrorM.value(), 0.91 * 5.0, 1e-9) << "no NAV-PVT: HDOP times the UERE";
  EXPECT_NEAR(fix.verticalErrorM.value(), 1.27 * 5.0, 1e-9);
  EXPECT_EQ(gps::exporter::IsoTime(fix.utcMs.value()), "2015-03-18T17:19:26.000Z");

  const auto tpv = nlohmann::json::parse(gps::exporter::TpvObject("sim", fix));
  EXPECT_EQ(gps::test::SchemaProblems(tpv), "") << tpv.dump();
  EXPECT_EQ(tpv["device"], "sim");
  EXPECT_NEAR(tpv["lat"].get<double>(), 44.0690105, 1e-6);
  EXPECT_EQ(tpv["time"], "2015-03-18T17:19:26.000Z");

  const auto sky = nlohmann::json::parse(gps::exporter::SkyObject("sim", view.sky, fix.utcMs));
  EXPECT_EQ(gps::test::SchemaProblems(sky), "") << sky.dump();
  EXPECT_EQ(sky["nSat"], 4);
  EXPECT_EQ(sky["uSat"], 2) << "01 and 11 used, in both GSA of the burst";
  EXPECT_EQ(sky["satellites"][0]["PRN"], 1);
  EXPECT_EQ(sky["satellites"][0]["ss"], 36.0);
  EXPECT_FALSE(sky["satellites"][1]["used"].get<bool>()) << "PRN 4 is in view only";
  EXPECT_TRUE(sky["satellites"][2]["used"].get<bool>()) << "PRN 11";
  EXPECT_EQ(sky["pdop"], 1.56);
  EXPECT_EQ(sky["satellites"][3]["gnssid"], 1) << "NMEA 33-64 are SBAS";
  EXPECT_EQ(sky["satellites"][3]["svid"], 151);
  EXPECT_EQ(sky["satellites"][0]["gnssid"], 0);

  // Ten seconds without sentences: nothing current is left to report.
  ticks_.advance(1000);
  const auto stale = View();
  EXPECT_EQ(stale.fix.mode, 1);
  EXPECT_FALSE(stale.fix.latitudeDeg);
  EXPECT_TRUE(stale.sky.satellites.empty()) << "an old GSV group is no sky";
}

TEST_F(GpsdReports, NoFixAndTwoDimensionalFix) {
  gps::test::FeedReceiver("$GPGGA,,,,,,0,00,99.99,,,,,,*48\r\n");
  auto none = nlohmann::json::parse(gps::exporter::TpvObject("sim", View().fix));
  EXPECT_EQ(gps::test::SchemaProblems(none), "");
  EXPECT_EQ(none["mode"], 1);
  EXPECT_FALSE(none.contains("lat"));
  gps::test::FeedReceiver(
      "$GPGGA,120000.00,4807.038,N,01131.000,E,1,04,2.0,545.4,M,46.9,M,,*47\r\n"
      "$GPGSA,A,2,01,02,03,,,,,,,,,,3.0,2.0,2.2*00\r\n");
  const auto fix = View().fix;
  EXPECT_EQ(fix.mode, 2) << "GSA says 2D";
  EXPECT_FALSE(fix.altitudeMslM) << "a 2D fix has no altitude";
  EXPECT_FALSE(fix.verticalErrorM);
}

// Every object the endpoint writes, before and after a fix, follows the
// protocol.
TEST_F(GpsdReports, EveryObjectFollowsTheProtocol) {
  gps::exporter::DeviceDescription device{"sim", 9600, {}};
  gps::exporter::WatchState watch{true, true, false, 0, false, "sim"};
  auto check = [&](const gps::exporter::RecordView& view) {
    for (const std::string& line :
         {gps::exporter::VersionObject(), gps::exporter::WatchObject(watch),
          gps::exporter::DeviceObject(device, view.device, true), gps::exporter::DevicesObject(device, view.device),
          gps::exporter::PollObject("sim", view, 1700000000123, true),
          gps::exporter::PollObject("sim", view, 1700000000123, false), gps::exporter::ErrorObject("bad \"x\"\n")}) {
      ASSERT_GE(line.size(), 2u);
      EXPECT_EQ(line.substr(line.size() - 2), "\r\n");
      const auto object = nlohmann::json::parse(line, nullptr, false);
      ASSERT_FALSE(object.is_discarded()) << line;
      EXPECT_EQ(gps::test::SchemaProblems(object), "") << line;
    }
  };
  check(View());
  gps::test::FeedReceiver(
      "$GPRMC,120000.00,A,4807.038,N,01131.000,E,0.0,,231126,,,A*00\r\n"
      "$GPGGA,120000.00,4807.038,N,01131.000,E,1,04,2.0,545.4,M,46.9,M,,*47\r\n"
      "$GPGSV,1,1,01,05,10,100,40*00\r\n");
  device.activatedMs = 1700000000000;
  check(View());
  const auto poll = nlohmann::json::parse(gps::exporter::PollObject("sim", View(), 1700000000123, true));
  EXPECT_EQ(poll["tpv"][0]["mode"], 3);
  EXPECT_EQ(poll["sky"][0]["nSat"], 1);
  const auto dev = nlohmann::json::parse(gps::exporter::DeviceObject(device, View().device, true));
  EXPECT_EQ(dev["driver"], "NMEA0183") << "no UBX seen yet";
  EXPECT_EQ(dev["bps"], 9600);
  EXPECT_EQ(dev["activated"], "2023-11-14T22:13:20.000Z");
}

// A configured receiver sends no GSV: SKY lists the satellites GSA names as
// used, with nothing invented about them, or in expert mode those of
// NAV-SVINFO. Its leap second count and an announced leap second reach TPV
// and the chrony sample.
TEST_F(GpsdReports, ConfiguredReceiversSkyAndLeapSecond) {
  gps::test::FeedReceiver(
      "$GNRMC,120000.00,A,4807.038,N,01131.000,E,0.0,,231126,,,A*00\r\n"
      "$GNGGA,120000.00,4807.038,N,01131.000,E,1,04,2.0,545.4,M,46.9,M,,*47\r\n"
      "$GNGSA,A,3,07,30,,,,,,,,,,,3.0,2.0,2.2*00\r\n$GNGSA,A,3,70,,,,,,,,,,,,3.0,2.0,2.2*00\r\n");
  auto sky = nlohmann::json::parse(gps::exporter::SkyObject("sim", View().sky, std::nullopt));
  EXPECT_EQ(gps::test::SchemaProblems(sky), "") << sky.dump();
  EXPECT_EQ(sky["satellites"], nlohmann::json::parse(
            R"([{"PRN":7,"used":true,"gnssid":0,"svid":7},{"PRN":30,"used":true,"gnssid":0,"svid":30},)"
            R"({"PRN":70,"used":true,"gnssid":6,"svid":6}])"));

  // NAV-SVINFO: channel, svid, flags (1 used, 4 orbit known), quality, cno, elev, azim (2 bytes), prRes.
  const auto channel = [](int svid, int flags, int cno, int elev, int azim) {
    return std::string{0, static_cast<char>(svid), static_cast<char>(flags), 4, static_cast<char>(cno),
                       static_cast<char>(elev), static_cast<char>(azim & 0xFF), static_cast<char>(azim >> 8)} +
           std::string(4, '\0');
  };
  gps::test::FeedReceiver(gps::test::UbxFrame(
      0x01, 0x30, std::string{0, 0, 0, 0, 5, 0, 0, 0} + channel(7, 5, 41, 33, 301) + channel(120, 0, 0, 0, 0) +
                      channel(0, 0, 0, 0, 0) + channel(1, 0, 0, 0, 0) + channel(151, 0, 0, 0, 0)));
  sky = nlohmann::json::parse(gps::exporter::SkyObject("sim", View().sky, std::nullopt));
  EXPECT_EQ(sky["satellites"], nlohmann::json::parse(
            R"([{"PRN":7,"el":33.0,"az":301.0,"ss":41.0,"used":true,"gnssid":0,"svid":7},)"
            R"({"PRN":33,"used":false,"gnssid":1,"svid":120},{"PRN":1,"used":false,"gnssid":0,"svid":1},)"
            R"({"PRN":64,"used":false,"gnssid":1,"svid":151}])"));
  EXPECT_EQ(sky["uSat"], 1);

  const auto pvt = nlohmann::json::parse(gps::exporter::TpvObject("sim", View().fix));
  EXPECT_FALSE(pvt.contains("leapseconds")) << "the receiver has said nothing of leap seconds";
  // NAV-PVT of 2026-11-23 (a Monday) 12:00:00 UTC, time valid and resolved, at
  // GPS time of week Monday 12:00:18: 18 leap seconds.
  std::string navPvt(92, '\0');
  const uint32_t itow = (86400 + 43200 + 18) * 1000u;
  std::memcpy(&navPvt[0], &itow, 4);
  navPvt[4] = static_cast<char>(2026 & 0xFF);
  navPvt[5] = static_cast<char>(2026 >> 8);
  navPvt[6] = 11, navPvt[7] = 23, navPvt[8] = 12, navPvt[11] = 0x07, navPvt[20] = 3;
  gps::test::FeedReceiver(gps::test::UbxFrame(0x01, 0x07, navPvt));
  EXPECT_EQ(View().fix.leapSeconds, 18);

  struct Case {
    const char* legend;
    int8_t change;
    int32_t secondsToEvent;
    uint8_t valid;
    int announced;  // the sample's leap field
  };
  const Case cases[] = {
      {"one inserted tonight", 1, 3600, 3, 1},
      {"one deleted tonight", -1, 3600, 3, 2},
      {"one inserted in two days", 1, 2 * 86400, 3, 0},
      {"the time to the event is not valid", 1, 3600, 1, 0},
  };
  for (const Case& c : cases) {
    // NAV-TIMELS: iTOW, version, 3 reserved, srcOfCurrLs, currLs, srcOfLsChange, lsChange, timeToLsEvent, ..., valid.
    std::string timels(24, '\0');
    timels[8] = 2, timels[9] = 19, timels[10] = 2, timels[11] = static_cast<char>(c.change);
    std::memcpy(&timels[12], &c.secondsToEvent, 4);
    timels[23] = static_cast<char>(c.valid);
    gps::test::FeedReceiver(gps::test::UbxFrame(0x01, 0x26, timels));
    const auto view = View();
    EXPECT_EQ(nlohmann::json::parse(gps::exporter::TpvObject("sim", view.fix))["leapseconds"], 19)
        << c.legend << ": the receiver's own count comes first";
    const auto sample = gps::exporter::MakeSample(view, 1795435200'000000000);
    ASSERT_TRUE(sample) << c.legend;
    EXPECT_EQ(sample->leap, c.announced) << c.legend;
  }
}

// A coordinate the receiver garbled gives no position rather than a wrong one.
TEST(GpsdCoordinates, NmeaTextToSignedDegrees) {
  struct Case {
    const char* text;
    std::optional<double> degrees;
  };
  const Case cases[] = {
      {"4807.038N", 48.0 + 7.038 / 60}, {"01131.000E", 11.0 + 31.0 / 60}, {"3351.5S", -(33.0 + 51.5 / 60)},
      {"12118.85478W", -(121.0 + 18.85478 / 60)}, {"4807.038", std::nullopt}, {"48x7.038N", std::nullopt},
      {"4860.000N", std::nullopt}, {"07.5N", std::nullopt}, {"", std::nullopt}, {"4807.0-8N", std::nullopt},
  };
  for (const Case& c : cases) {
    const auto got = gps::exporter::NmeaAngleDegrees(c.text);
    ASSERT_EQ(got.has_value(), c.degrees.has_value()) << c.text;
    if (got) {
      EXPECT_NEAR(*got, *c.degrees, 1e-12) << c.text;
    }
  }
}

// Receiver messages stay readable, whole and in order, for watchers that
// asked for them; the sentence is kept as it arrived, before analysis cuts it.
TEST_F(GpsdReports, MessageLogKeepsSentencesAsTheyArrived) {
  const std::string gga = "$GPGGA,120000.00,4807.038,N,01131.000,E,1,04,2.0,545.4,M,46.9,M,,*47\r\n";
  gps::test::FeedReceiver(gga + "$GPGSA,A,3,01,,,,,,,,,,,,1.0,1.0,1.0*00\r\n");
  auto view = View();
  ASSERT_EQ(view.messages.size(), 2u);
  EXPECT_EQ(view.messages[0].bytes, gga);
  EXPECT_EQ(view.messages[0].lineBytes, view.messages[0].length + view.messages[1].length)
      << "the GGA began that far before the chunk's end";
  EXPECT_EQ(view.messages[1].sequence, view.messages[0].sequence + 1);
  for (int i = 0; i < GPS_MESSAGE_LOG_CAPACITY + 5; ++i) gps::test::FeedReceiver(gga);
  view = gps::exporter::ReadRecord(view.messageSequence);
  EXPECT_EQ(view.messages.size(), static_cast<size_t>(GPS_MESSAGE_LOG_CAPACITY)) << "a late reader gets the newest";
  EXPECT_EQ(view.messages.back().sequence, view.messageSequence);
}

}  // namespace
