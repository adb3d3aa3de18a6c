// The simulator's UBX codec against the frames the engine sends, and the
// scenario's parsing and route following.
#include <gtest/gtest.h>

#include <cmath>

#include "sim/scenario.h"
#include "sim/ubx_codec.h"

namespace gps::sim {
namespace {

using Bytes = std::vector<uint8_t>;

// Frames as the engine writes them, with the checksum bytes it must carry.
TEST(SimUbxCodec, EncodesTheEnginesFrames) {
  struct Case {
    const char* legend;
    uint8_t cls, id;
    Bytes payload;
    Bytes checksum;
  } cases[] = {
      {"MON-VER poll", 0x0A, 0x04, {}, {0x0E, 0x34}},
      {"CFG-PM2 poll", 0x06, 0x3B, {}, {0x41, 0xC9}},
      {"MON-LLC poll", 0x0A, 0x0D, {}, {0x17, 0x4F}},
      {"CFG-OTP poll", 0x06, 0x41, {}, {0x47, 0xDB}},
      {"CFG-MSG MON-HW short", 0x06, 0x01, {0x0A, 0x09, 0x01}, {0x1E, 0x70}},
      {"CFG-RST cold", 0x06, 0x04, {0xFF, 0xFF, 0x02, 0x00}, {0x0E, 0x61}},
      {"CFG-RXM", 0x06, 0x11, {0x08, 0x01}, {0x22, 0x92}},
      {"CFG-MSG ALPSRV on", 0x06, 0x01, {0x0B, 0x32, 1, 0, 0, 0, 0, 0}, {0x4D, 0x5F}},
      {"ACK-ACK for CFG-MSG", 0x05, 0x01, {0x06, 0x01}, {0x0F, 0x38}},
  };
  for (const Case& c : cases) {
    const Bytes frame = ubx::EncodeFrame(c.cls, c.id, c.payload);
    ASSERT_EQ(frame.size(), c.payload.size() + 8) << c.legend;
    EXPECT_EQ(Bytes(frame.end() - 2, frame.end()), c.checksum) << c.legend;
  }
}

TEST(SimUbxCodec, ReaderCutsFramesAtAnySplit) {
  const Bytes pvtPoll = ubx::EncodeFrame(0x01, 0x07, Bytes{});
  const Bytes rst = ubx::EncodeFrame(0x06, 0x04, Bytes{0xFF, 0xFF, 0x02, 0x00});
  Bytes bad = ubx::EncodeFrame(0x06, 0x01, Bytes{0x0A, 0x09, 0x01});
  bad.back() ^= 0xFF;
  // Noise between frames: NMEA text, a lone 0xB5, a header whose length is
  // beyond any frame the receiver accepts.
  Bytes stream = {'$', 'P', 'U', 'B', 'X', '\r', '\n', 0xB5, 0x00};
  stream.insert(stream.end(), pvtPoll.begin(), pvtPoll.end());
  stream.insert(stream.end(), {0xB5, 0x62, 0x06, 0x01, 0xFF, 0xFF});
  stream.insert(stream.end(), bad.begin(), bad.end());
  stream.insert(stream.end(), rst.begin(), rst.end());
  for (size_t split = 0; split <= stream.size(); ++split) {
    ubx::FrameReader reader;
    std::vector<ubx::Frame> frames;
    reader.Push(std::span(stream).first(split), frames);
    reader.Push(std::span(stream).subspan(split), frames);
    ASSERT_EQ(frames.size(), 3u) << "split at " << split;
    EXPECT_EQ(frames[0].bytes, pvtPoll);
    EXPECT_TRUE(frames[0].checksumOk);
    EXPECT_EQ(frames[1].bytes, bad);
    EXPECT_FALSE(frames[1].checksumOk);
    EXPECT_EQ(frames[2].bytes, rst);
  }
}

TEST(SimScenario, ParsesDirectivesAndRejectsMistakes) {
  std::string error;
  const auto s = Scenario::Parse(
      "# walk\nspeed 1.5\nloop no\ngeoid -21.3\nstart 2024-03-18T12:00:00Z\n"
      "point 48.8566 2.3522 35   # start\npoint 48.8576 2.3522\n",
      &error);
  ASSERT_TRUE(s) << error;
  EXPECT_EQ(s->waypoints().size(), 2u);
  EXPECT_DOUBLE_EQ(s->speedMps(), 1.5);
  EXPECT_FALSE(s->loop());
  EXPECT_DOUBLE_EQ(s->geoidSeparationM(), -21.3);
  EXPECT_EQ(s->startUtcMs(), 1710763200000);

  struct Bad {
    const char* text;
    const char* message;
  } bad[] = {
      {"", "no point"},
      {"point 48.8 2.3\nhover 3\n", "line 2: unknown directive 'hover'"},
      {"point 48.8x 2.3\n", "line 1: point: not a number"},
      {"point 91 2.3\n", "line 1: point: out of range"},
      {"point 48 2\nspeed -1\n", "line 2: speed needs a number of m/s, 0 or more"},
      {"point 48 2\nloop maybe\n", "line 2: loop needs yes or no"},
      {"point 48 2\nstart 2024-03-18 12:00:00\n", "line 2: start needs YYYY-MM-DDTHH:MM:SSZ"},
  };
  for (const Bad& b : bad) {
    error.clear();
    EXPECT_FALSE(Scenario::Parse(b.text, &error)) << b.text;
    EXPECT_EQ(error, b.message);
  }
  EXPECT_FALSE(Scenario::Load("/nonexistent/route.txt", &error));
}

TEST(SimScenario, FollowsTheWayPoints) {
  // A square of about 1.1 km sides: north, east, south, west.
  const char* square = "speed 10\npoint 48.85 2.35 30\npoint 48.86 2.35 40\npoint 48.86 2.365 40\npoint 48.85 2.365 30\n";
  std::string error;
  const auto loop = Scenario::Parse(square, &error);
  ASSERT_TRUE(loop) << error;
  const double north = 1111.95;  // 0.01 degree of latitude
  EXPECT_NEAR(loop->routeLengthM(), 2 * north + 2 * 1098.4, 2);

  struct Case {
    double seconds;
    double lat, lon, alt, course;
  } cases[] = {
      {0, 48.85, 2.35, 30, 0},
      {north / 20, 48.855, 2.35, 35, 0},
      {north / 10 + 1, 48.86, 2.35013, 40, 90},
      {(loop->routeLengthM() - 10) / 10, 48.85, 2.35014, 30, 270},
      {loop->routeLengthM() / 10 + north / 20, 48.855, 2.35, 35, 0},  // second lap
  };
  for (const Case& c : cases) {
    const ScenarioPosition p = loop->At(c.seconds);
    EXPECT_NEAR(p.latitudeDeg, c.lat, 2e-5) << c.seconds;
    EXPECT_NEAR(p.longitudeDeg, c.lon, 2e-5) << c.seconds;
    EXPECT_NEAR(p.altitudeM, c.alt, 0.1) << c.seconds;
    EXPECT_NEAR(p.courseDeg, c.course, 0.1) << c.seconds;
    EXPECT_DOUBLE_EQ(p.speedMps, 10);
  }

  const auto oneWay = Scenario::Parse(std::string(square) + "loop no\n", &error);
  const ScenarioPosition end = oneWay->At(1e6);
  EXPECT_NEAR(end.latitudeDeg, 48.85, 1e-9);
  EXPECT_NEAR(end.longitudeDeg, 2.365, 1e-9);
  EXPECT_EQ(end.speedMps, 0) << "stops at the last point";

  const ScenarioPosition fixed = Scenario::FixedPoint({1.5, -2.5, 7}).At(100);
  EXPECT_EQ(fixed.latitudeDeg, 1.5);
  EXPECT_EQ(fixed.longitudeDeg, -2.5);
  EXPECT_EQ(fixed.speedMps, 0);

  const Scenario route = Scenario::DefaultRoute();
  EXPECT_GT(route.routeLengthM(), 2000);
  EXPECT_LT(route.routeLengthM(), 6000);
}

}  // namespace
}  // namespace gps::sim
