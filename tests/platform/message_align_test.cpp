// Message-aligned delivery: where a chunk may end. The driver's tests check
// the whole path with real captures in random pieces.
#include <gtest/gtest.h>

#include <cctype>

#include "platform/message_align.h"
#include "sim/nmea_generator.h"
#include "tests/support/message_recorder.h"
#include "tests/support/test_env.h"

namespace {

using gps::platform::DroppedMessages;
using gps::platform::DropReport;
using gps::platform::WholeMessagesPrefix;
using gps::test::UbxFrame;

size_t Prefix(const std::string& bytes, size_t limit = gps::platform::kMaxDeviceChunk) {
  return WholeMessagesPrefix({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, limit);
}

TEST(MessageAlign, PrefixEndsOnMessageBoundaries) {
  const std::string gga = "$GPGGA,1,2,3*00\r\n";
  const std::string frame = UbxFrame(0x01, 0x07, std::string(92, 'p'));
  const struct {
    const char* legend;
    std::string bytes;
    size_t limit;
    size_t expected;
  } cases[] = {
      {"nothing", "", 2176, 0},
      {"one whole sentence", gga, 2176, gga.size()},
      {"sentence without its line feed waits", gga.substr(0, 10), 2176, 0},
      {"whole sentence then a partial one", gga + gga.substr(0, 5), 2176, gga.size()},
      {"whole frame", frame, 2176, frame.size()},
      {"frame missing its checksum waits", frame.substr(0, frame.size() - 1), 2176, 0},
      {"frame header incomplete waits", frame.substr(0, 4), 2176, 0},
      {"lone 0xB5 at the end waits for its second byte", gga + "\xB5", 2176, gga.size()},
      {"0xB5 not followed by 0x62 passes through", "\xB5x" + gga, 2176, 2 + gga.size()},
      {"garbage passes through", "abc" + gga, 2176, 3 + gga.size()},
      {"limit stops before a message that does not fit", gga + gga, gga.size() + 3, gga.size()},
      {"sentence longer than any chunk goes in pieces", "$" + std::string(3000, 'x'), 2176, 2176},
      {"frame longer than any chunk goes in pieces", UbxFrame(0x0B, 0x32, std::string(3000, 'y')), 2176, 2176},
  };
  for (const auto& c : cases) EXPECT_EQ(Prefix(c.bytes, c.limit), c.expected) << c.legend;
}

TEST(MessageAlign, CorruptMessagesAreDroppedAndCounted) {
  const auto Nmea = gps::sim::NmeaGenerator::Sentence;
  const std::string gga = Nmea("GPGGA,083559.00,4717.11437,N,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,");
  const std::string next = Nmea("GPGGA,083600.00,4717.11438,N,00833.91523,E,1,08,0.9,499.7,M,48.0,M,,");
  const std::string rmc = Nmea("GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,230915,,,A");
  const std::string frame = UbxFrame(0x01, 0x07, std::string(92, 'p'));
  std::string flippedFrame = frame;
  flippedFrame[20] ^= 0x04;
  std::string flippedSentence = gga;
  flippedSentence[30] ^= 0x01;
  std::string lowerHex = rmc;
  for (char& c : lowerHex) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  const struct {
    const char* legend;
    std::string bytes;
    std::string kept;
    uint32_t nmea;
    uint32_t ubx;
  } cases[] = {
      {"sound messages pass", gga + frame + rmc, gga + frame + rmc, 0, 0},
      {"a sentence without checksum passes", "$GPGSA,1,2,3\r\n" + rmc, "$GPGSA,1,2,3\r\n" + rmc, 0, 0},
      {"a line feed alone ends a sentence", gga.substr(0, gga.size() - 2) + "\n", gga.substr(0, gga.size() - 2) + "\n", 0, 0},
      {"lower-case hexadecimal digits pass", "$" + rmc.substr(1, rmc.size() - 5) + lowerHex.substr(rmc.size() - 4),
       "$" + rmc.substr(1, rmc.size() - 5) + lowerHex.substr(rmc.size() - 4), 0, 0},
      {"a lost line end merges two sentences: the first goes", gga.substr(0, gga.size() - 2) + next + rmc, next + rmc,
       1, 0},
      {"a flipped byte breaks the checksum", flippedSentence + rmc, rmc, 1, 0},
      {"a flipped checksum digit", gga.substr(0, gga.size() - 3) + "0\r\n" + rmc, rmc, 1, 0},
      {"a checksum that is no hexadecimal", "$GPGGA,1*G0\r\n" + rmc, rmc, 1, 0},
      {"bytes between checksum and line end", gga.substr(0, gga.size() - 2) + "x\r\n", "", 1, 0},
      {"a sentence holding a second $ without checksum", "$GPGSA,1$GPGSA,2\r\n", "$GPGSA,2\r\n", 1, 0},
      {"a flipped talker byte is still checked", "$G\x10" + gga.substr(3), "", 1, 0},
      {"binary data holding $ and a line feed is no sentence", "$\xD4\xC4\x95,\x83$\x07*\n" + gga,
       "$\xD4\xC4\x95,\x83$\x07*\n" + gga, 0, 0},
      {"a UBX frame with a flipped payload byte", gga + flippedFrame + rmc, gga + rmc, 0, 1},
      {"a UBX frame with a flipped checksum byte",
       frame.substr(0, frame.size() - 1) + static_cast<char>(frame.back() ^ 1) + gga, gga, 0, 1},
      {"bytes that start no message pass", "abc" + gga, "abc" + gga, 0, 0},
      // What real receivers send: empty fields without a fix, the extremes of
      // the ranges, a leap second, few or many digits, NMEA 4.1 fields.
      {"GGA without a fix", Nmea("GPGGA,,,,,,0,00,99.99,,,,,,") + Nmea("GNGGA,083559,,,,,0,00,99.99,,,,,,"),
       Nmea("GPGGA,,,,,,0,00,99.99,,,,,,") + Nmea("GNGGA,083559,,,,,0,00,99.99,,,,,,"), 0, 0},
      {"RMC without a fix", Nmea("GNRMC,,V,,,,,,,,,,N,V") + Nmea("GPRMC,000012,V,,,,,,,000000,,,N"),
       Nmea("GNRMC,,V,,,,,,,,,,N,V") + Nmea("GPRMC,000012,V,,,,,,,000000,,,N"), 0, 0},
      {"limits", Nmea("GNGGA,235960.000,9000.0000,S,18000.000,W,1,04,2.1,0.0,M,,,,"),
       Nmea("GNGGA,235960.000,9000.0000,S,18000.000,W,1,04,2.1,0.0,M,,,,"), 0, 0},
      {"digits vary", Nmea("GNRMC,000000,A,0000.1,N,00000,E,,,290224,,,D,V"),
       Nmea("GNRMC,000000,A,0000.1,N,00000,E,,,290224,,,D,V"), 0, 0},
      // Checksum-valid sentences with values no receiver measures.
      {"latitude 95", Nmea("GPGGA,083559.00,9500.00000,N,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,") + gga, gga, 1, 0},
      {"longitude 185", Nmea("GPGGA,083559.00,4717.11437,N,18500.00000,E,1,08,0.9,499.6,M,48.0,M,,") + gga, gga, 1,
       0},
      {"latitude just over 90", Nmea("GPGGA,083559.00,9000.00001,S,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,") + gga,
       gga, 1, 0},
      {"75 minutes", Nmea("GPRMC,083559.00,A,4775.11437,N,00833.91522,E,0.004,77.52,230915,,,A") + gga, gga, 1, 0},
      {"hemisphere X", Nmea("GPGGA,083559.00,4717.11437,X,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,") + gga, gga, 1,
       0},
      {"hemisphere Q", Nmea("GPRMC,083559.00,A,4717.11437,N,00833.91522,Q,0.004,77.52,230915,,,A") + gga, gga, 1, 0},
      {"latitude with E", Nmea("GPGGA,083559.00,4717.11437,E,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,") + gga, gga, 1,
       0},
      {"minus sign", Nmea("GPGGA,083559.00,-4717.11437,N,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,") + gga, gga, 1, 0},
      {"plus sign", Nmea("GNRMC,083559.00,A,4717.11437,N,+0833.91522,E,0.004,77.52,230915,,,A") + gga, gga, 1, 0},
      {"time 25:61:99", Nmea("GPGGA,256199.00,4717.11437,N,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,") + gga, gga, 1, 0},
      {"time of 5 digits", Nmea("GPGGA,83559.00,4717.11437,N,00833.91522,E,1,08,0.9,499.6,M,48.0,M,,") + gga, gga, 1,
       0},
      {"seconds 61", Nmea("GPRMC,083561,A,4717.11437,N,00833.91522,E,0.004,77.52,230915,,,A") + gga, gga, 1, 0},
      {"month 13", Nmea("GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,231315,,,A") + gga, gga, 1, 0},
      {"29 February 2023", Nmea("GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,290223,,,A") + gga, gga, 1,
       0},
      {"day 0", Nmea("GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,000915,,,A") + gga, gga, 1, 0},
      {"a sentence passed on in pieces is not checked", "$" + std::string(3000, 'x'), "$" + std::string(2175, 'x'), 0,
       0},
  };
  for (const auto& c : cases) {
    std::string chunk = c.bytes.substr(0, Prefix(c.bytes));
    ASSERT_EQ(chunk.size(), std::min<size_t>(c.bytes.size(), gps::platform::kMaxDeviceChunk)) << c.legend;
    DroppedMessages dropped;
    const size_t kept = gps::platform::DropCorruptMessages({reinterpret_cast<uint8_t*>(chunk.data()), chunk.size()}, dropped);
    EXPECT_EQ(chunk.substr(0, kept), c.kept) << c.legend;
    EXPECT_EQ(dropped.nmea, c.nmea) << c.legend;
    EXPECT_EQ(dropped.ubx, c.ubx) << c.legend;
  }
}

TEST(MessageAlign, DropsAreReportedAtMostOnceAMinute) {
  gps::test::LogCapture log;
  DropReport report;
  const auto start = DropReport::Clock::now();
  report.Add({}, start);
  EXPECT_TRUE(log.lines().empty()) << "nothing dropped, nothing said";
  const struct {
    int seconds;
    DroppedMessages dropped;
    size_t lines;  // reports said so far
  } steps[] = {
      {0, {2, 1}, 1},   // the first drop is said at once
      {30, {1, 0}, 1},  // within the minute: summed
      {59, {}, 1},
      {60, {}, 2},  // a minute after the report: said with no new drop
      {200, {}, 2},
      {201, {0, 1}, 3},
  };
  for (const auto& step : steps) {
    report.Add(step.dropped, start + std::chrono::seconds(step.seconds));
    EXPECT_EQ(log.linesAt(4).size(), step.lines) << "at " << step.seconds << " s";
  }
  const std::vector<std::string> said = {
      "GPS resource: dropped 3 corrupt messages in the last minute (2 NMEA, 1 UBX)",
      "GPS resource: dropped 1 corrupt message in the last minute (1 NMEA, 0 UBX)",
      "GPS resource: dropped 1 corrupt message in the last minute (0 NMEA, 1 UBX)",
  };
  EXPECT_EQ(log.linesAt(4), said);
}

}  // namespace
