// The chrony samples: which fixes give one, where the epoch began on the
// line, and the datagram chronyd receives.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "export/chrony_source.h"
#include "tests/support/test_env.h"

namespace {

using gps::exporter::EpochClock;
using gps::exporter::LoggedMessage;
using gps::exporter::MakeSample;
using gps::exporter::PvtTime;
using gps::exporter::RecordView;

constexpr int64_t kFixMs = 1700000000000;        // the fix's UTC second
constexpr int64_t kEpochNs = 1700000000'080000000;  // its first byte, by the system clock

RecordView CurrentFix() {
  RecordView v;
  v.device.powered = true;
  v.fix.current = true;
  v.fix.utcMs = kFixMs;
  return v;
}

TEST(ChronySample, OnlyCurrentConfirmedTimesOfAPoweredReceiver) {
  struct Case {
    const char* legend;
    void (*change)(RecordView&);
    bool sample;
    double offsetS;
  };
  const Case cases[] = {
      {"NMEA time of a current fix", [](RecordView&) {}, true, -0.080},
      {"receiver off", [](RecordView& v) { v.device.powered = false; }, false, 0},
      {"old fix", [](RecordView& v) { v.fix.current = false; }, false, 0},
      {"no date", [](RecordView& v) { v.fix.utcMs.reset(); }, false, 0},
      {"NAV-PVT not valid", [](RecordView& v) { v.pvtTime = PvtTime{kFixMs, 0, false, true}; }, false, 0},
      {"NAV-PVT not confirmed", [](RecordView& v) { v.pvtTime = PvtTime{kFixMs, 0, true, false}; }, false, 0},
      {"NAV-PVT adds its nanoseconds",
       [](RecordView& v) { v.pvtTime = PvtTime{kFixMs + 2, 500000, true, true}; }, true, -0.0775},
  };
  for (const Case& c : cases) {
    RecordView view = CurrentFix();
    c.change(view);
    const auto sample = MakeSample(view, kEpochNs);
    ASSERT_EQ(sample.has_value(), c.sample) << c.legend;
    if (!sample) continue;
    EXPECT_EQ(sample->tv.tv_sec, 1700000000) << c.legend;
    EXPECT_EQ(sample->tv.tv_usec, 80000) << c.legend;
    EXPECT_NEAR(sample->offset, c.offsetS, 1e-9) << c.legend;
    EXPECT_EQ(sample->magic, 0x534f434b);
    EXPECT_EQ(sample->pulse, 0);
  }
  EXPECT_FALSE(MakeSample(CurrentFix(), std::nullopt)) << "no message seen: no epoch start";
}

// At 9600 baud a byte takes 1.0417 ms: the epoch starts at the first byte of
// the first message after a quiet line, not when that message was complete.
TEST(ChronySample, EpochStartIsTheFirstByteAfterAQuietLine) {
  constexpr int64_t kNsPerByte = 10'000'000'000LL / 9600;
  EpochClock clock(kNsPerByte);
  const int64_t t0 = 1700000000'500000000;
  auto message = [](int64_t receivedNs, uint32_t length, uint32_t lineBytes) {
    return LoggedMessage{1, 1, length, receivedNs, lineBytes, {}};
  };
  clock.observe(message(t0, 70, 70));
  EXPECT_EQ(clock.epochStartNs(), t0 - 70 * kNsPerByte);
  // The next sentence follows closely: same epoch.
  clock.observe(message(t0 + 75 * kNsPerByte, 72, 72));
  EXPECT_EQ(clock.epochStartNs(), t0 - 70 * kNsPerByte);
  // Two sentences read in one chunk a second later: the first one's first byte.
  const int64_t t1 = t0 + 1'000'000'000;
  clock.observe(message(t1, 70, 140));
  clock.observe(message(t1, 70, 70));
  EXPECT_EQ(clock.epochStartNs(), t1 - 140 * kNsPerByte);

  EpochClock inProcess(0);
  inProcess.observe(message(t0, 70, 140));
  EXPECT_EQ(inProcess.epochStartNs(), t0) << "no line time for the in-process simulator";
}

TEST(ChronySource, SendsTheSampleAndLogsAnAbsentChronydOnce) {
  gps::test::TempRoot root;
  gps::test::LogCapture log;
  const std::string path = root / "chrony.sock";
  gps::exporter::ChronySource source(path);
  gps::exporter::SockSample sample = *MakeSample(CurrentFix(), kEpochNs);
  source.send(sample);
  source.send(sample);
  EXPECT_EQ(source.sent(), 0u);
  EXPECT_EQ(log.linesAt(4).size(), 1u) << "one line while chronyd is away";

  const int server = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  source.send(sample);
  unsigned char received[64];
  ASSERT_EQ(::recv(server, received, sizeof received, MSG_DONTWAIT), 40);
  int32_t magic = 0;
  double offset = 0;
  int64_t seconds = 0;
  std::memcpy(&seconds, received, 8);
  std::memcpy(&offset, received + 16, 8);
  std::memcpy(&magic, received + 36, 4);
  EXPECT_EQ(seconds, 1700000000);
  EXPECT_NEAR(offset, -0.080, 1e-9);
  EXPECT_EQ(magic, 0x534f434b);
  EXPECT_EQ(source.sent(), 1u);
  EXPECT_EQ(log.linesAt(6).size(), 1u) << "its return is noted";
  ::close(server);
  ::unlink(path.c_str());
  source.send(sample);
  EXPECT_EQ(log.linesAt(4).size(), 2u) << "gone again: one more line";

  gps::exporter::ChronySource tooLong(root / std::string(200, 'x'));
  tooLong.send(sample);
  EXPECT_EQ(tooLong.sent(), 0u);
  EXPECT_EQ(log.linesAt(4).size(), 3u) << "a path no socket can have is named once";
}

}  // namespace
