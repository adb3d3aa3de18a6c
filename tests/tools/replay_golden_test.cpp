// Every shared capture replayed through gps-replay (the real binary): each fix
// must agree with the independent decoder's TPV reports of the same second.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sim/nmea_generator.h"
#include "tests/support/message_recorder.h"
#include "tests/support/test_env.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Tpv {
  double lat;
  double lon;
  std::optional<double> altMsl;      // the receiver's own MSL altitude (GGA-made reports)
  std::optional<double> anyAltMsl;   // whatever the decoder reported
};

// Runs a command and returns its standard output and exit status.
std::pair<std::string, int> RunCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return {"", -1};
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  const int status = pclose(pipe);
  return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

std::vector<json> JsonLines(const std::string& text) {
  std::vector<json> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    if (!line.empty() && line.front() == '{') out.push_back(json::parse(line));
    start = end + 1;
  }
  return out;
}

// TPV reports with a position, keyed by time of day "HH:MM:SS".
std::multimap<std::string, Tpv> ReadReports(const fs::path& chk) {
  std::multimap<std::string, Tpv> reports;
  std::ifstream in(chk);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("{\"class\":\"TPV\"", 0) != 0) continue;
    const json tpv = json::parse(line);
    if (!tpv.contains("time") || !tpv.contains("lat") || !tpv.contains("lon")) continue;
    const std::string time = tpv["time"];
    const size_t t = time.find('T');
    if (t == std::string::npos || time.size() < t + 9) continue;
    Tpv report{tpv["lat"], tpv["lon"], std::nullopt, std::nullopt};
    // Only reports made from a GGA sentence (they carry its geoid separation)
    // state the receiver's own MSL altitude; those made from UBX solutions
    // carry the decoder's geoid model instead.
    if (tpv.contains("altMSL") && tpv.contains("geoidSep") && !tpv.contains("ecefx"))
      report.altMsl = tpv["altMSL"].get<double>();
    if (tpv.contains("altMSL")) report.anyAltMsl = tpv["altMSL"].get<double>();
    reports.emplace(time.substr(t + 1, 8), report);
  }
  return reports;
}

// "17h19m26s" -> "17:19:26"
std::string TimeOfDay(const std::string& engineTime) {
  if (engineTime.size() != 9) return engineTime;
  return engineTime.substr(0, 2) + ":" + engineTime.substr(3, 2) + ":" + engineTime.substr(6, 2);
}

bool StreamHasGga(const fs::path& capture) {
  std::ifstream in(capture, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return bytes.find("GGA,") != std::string::npos;
}

std::vector<fs::path> Captures() {
  std::vector<fs::path> out;
  if (!fs::is_directory(GPS_CAPTURES_DIR)) return out;
  for (const auto& entry : fs::directory_iterator(GPS_CAPTURES_DIR))
    if (entry.path().extension() == ".log") out.push_back(entry.path());
  std::sort(out.begin(), out.end());
  return out;
}

class ReplayGolden : public testing::TestWithParam<fs::path> {};

TEST_P(ReplayGolden, FixesAgreeWithIndependentDecoder) {
  const fs::path capture = GetParam();
  const auto reports = ReadReports(capture.string() + ".chk");
  const auto [output, status] =
      RunCommand(std::string(GPS_REPLAY_BINARY) + " --summary '" + capture.string() + "' 2>/dev/null");
  ASSERT_EQ(status, 0) << output;
  const auto lines = JsonLines(output);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back()["event"], "summary");
  EXPECT_EQ(lines.back()["dropped_nmea"], 0) << "every sentence of a real capture is sound";
  EXPECT_EQ(lines.back()["dropped_ubx"], 0) << "every frame of a real capture is sound";

  int fixes = 0;
  int unreported = 0;
  for (const auto& line : lines) {
    if (line["event"] != "fix") continue;
    ++fixes;
    const std::string time = TimeOfDay(line["time"]);
    const auto [first, last] = reports.equal_range(time);
    unreported += first == last;
    for (auto it = first; it != last; ++it) {
      EXPECT_NEAR(line["lat"].get<double>(), it->second.lat, 1e-7) << time << " " << capture.filename();
      EXPECT_NEAR(line["lon"].get<double>(), it->second.lon, 1e-7) << time << " " << capture.filename();
      if (it->second.altMsl) {
        EXPECT_NEAR(std::stod(line["altitude"].get<std::string>()), *it->second.altMsl, 1e-3)
            << time << " " << capture.filename();
      }
    }
  }
  // The decoder reports a cycle when the next one begins, so the last fix of a
  // capture has no report; every other one must have been compared.
  EXPECT_LE(unreported, 1) << capture.filename();
  if (StreamHasGga(capture)) {
    EXPECT_GT(fixes, 0) << capture.filename();
  } else {
    EXPECT_EQ(fixes, 0) << capture.filename();
  }
}

INSTANTIATE_TEST_SUITE_P(Captures, ReplayGolden, testing::ValuesIn(Captures()),
                         [](const testing::TestParamInfo<fs::path>& info) {
                           std::string name = info.param.stem().string();
                           for (char& c : name)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(ReplayGolden);

// NAV-PVT lines against the decoder's reports of the same second. Where the
// decoder made its reports from NAV-PVT they agree to 1e-7 degree and 1 mm;
// where it made them from GGA only (5-decimal minutes, 0.1 m) they agree to
// that resolution. Some seconds have only reports made from other messages.
TEST(ReplayGoldenNavPvt, PositionsAgreeWithIndependentDecoder) {
  const struct {
    const char* capture;
    int lines;
    int agreeing;
    double degrees, metres;
  } cases[] = {
      {"ublox-neo-m8n.log", 24, 22, 1e-7, 1e-3},
      {"ublox8-uniqid-monhw.log", 7, 6, 1e-7, 1e-3},
      {"ublox-zed-f9r.log", 19, 18, 2e-7, 0.05},  // its first second has no report
  };
  for (const auto& c : cases) {
    const fs::path capture = fs::path(GPS_CAPTURES_DIR) / c.capture;
    if (!fs::exists(capture)) GTEST_SKIP() << "captures not found at " << GPS_CAPTURES_DIR;
    const auto reports = ReadReports(capture.string() + ".chk");
    const auto [output, status] = RunCommand(std::string(GPS_REPLAY_BINARY) + " '" + capture.string() + "' 2>/dev/null");
    ASSERT_EQ(status, 0);
    int lines = 0;
    int agreeing = 0;
    for (const auto& line : JsonLines(output)) {
      if (line["event"] != "nav_pvt") continue;
      ++lines;
      const auto [first, last] = reports.equal_range(line["time"].get<std::string>());
      agreeing += std::any_of(first, last, [&](const auto& report) {
        const Tpv& r = report.second;
        return std::abs(r.lat - line["lat"].get<double>()) <= c.degrees &&
               std::abs(r.lon - line["lon"].get<double>()) <= c.degrees &&
               (!r.anyAltMsl || std::abs(*r.anyAltMsl - line["hMSL"].get<double>()) <= c.metres);
      });
    }
    EXPECT_EQ(lines, c.lines) << c.capture;
    EXPECT_GE(agreeing, c.agreeing) << c.capture;
  }
}

TEST(ReplayTool, SummaryCarriesReceiverIdentityAndUbxCounts) {
  const fs::path capture = fs::path(GPS_CAPTURES_DIR) / "ublox8-uniqid-monhw.log";
  if (!fs::exists(capture)) GTEST_SKIP() << "captures not found at " << GPS_CAPTURES_DIR;
  const auto [output, status] = RunCommand(std::string(GPS_REPLAY_BINARY) + " --quiet '" + capture.string() + "' 2>/dev/null");
  ASSERT_EQ(status, 0);
  const json summary = JsonLines(output).back();
  EXPECT_EQ(summary["sw_version"], "ROM CORE 3.01 (107888)");
  EXPECT_EQ(summary["hw_version"], "00080000");
  EXPECT_EQ(summary["ext_version"].size(), 4u);
  EXPECT_EQ(summary["ubx_messages"]["0x01 0x07"], 7);
  EXPECT_EQ(summary["ubx_messages"]["0x0A 0x04"], 4);
  EXPECT_FALSE(summary.contains("mon_hw")) << "its only MON-HW frame is cut off by the end of the capture";
}

TEST(ReplayTool, NeoM8nFromStandardInputQuietOrNot) {
  const fs::path capture = fs::path(GPS_CAPTURES_DIR) / "neo-m8n.log";
  if (!fs::exists(capture)) GTEST_SKIP() << "captures not found at " << GPS_CAPTURES_DIR;
  const auto [output, status] =
      RunCommand(std::string(GPS_REPLAY_BINARY) + " --summary - < '" + capture.string() + "' 2>/dev/null");
  ASSERT_EQ(status, 0);
  const auto lines = JsonLines(output);
  ASSERT_EQ(lines.size(), 24u) << "23 fixes and the summary";
  EXPECT_EQ(lines.front()["date"], "18/03/2015");
  EXPECT_EQ(lines.front()["time"], "17h19m26s");
  const json& summary = lines.back();
  EXPECT_EQ(summary["bytes"], fs::file_size(capture) - 172);  // five header lines
  EXPECT_EQ(summary["ubx"], 0);
  ASSERT_FALSE(summary["satellites"].empty());
  int previous = 0;
  for (const auto& sat : summary["satellites"]) {
    EXPECT_GT(sat["prn"].get<int>(), previous) << "satellites are in PRN order";
    previous = sat["prn"];
  }
  const auto quiet = RunCommand(std::string(GPS_REPLAY_BINARY) + " --quiet '" + capture.string() + "' 2>/dev/null");
  EXPECT_EQ(quiet.first, output.substr(output.rfind("{\"event\""))) << "--quiet prints the same summary alone";
}

// What a UART does to a stream: one GGA loses its line end and runs into the
// next, another has a byte flipped, and so has a NAV-PVT frame. Then GGAs with
// sound checksums and values no receiver measures. None of them becomes a fix;
// the sound sentences after them still do.
TEST(ReplayTool, CorruptMessagesGiveNoFixAndAreCounted) {
  const auto gga = [](const char* time, const char* altitude) {
    return gps::sim::NmeaGenerator::Sentence(std::string("GPGGA,") + time +
                                             ",4717.11437,N,00833.91522,E,1,08,0.9," + altitude + ",M,48.0,M,,");
  };
  const std::string lostLineEnd = gga("083559.00", "499.6");
  std::string flipped = gga("083601.00", "499.8");
  flipped[flipped.find("499.8") + 2] ^= 0x01;  // 499.8 -> 498.8, with the old checksum
  std::string frame = gps::test::UbxFrame(0x01, 0x07, std::string(92, '\x01'));
  frame[30] ^= 0x10;
  std::string stream = gps::sim::NmeaGenerator::Sentence(
                           "GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,230915,,,A") +
                       lostLineEnd.substr(0, lostLineEnd.size() - 2) + gga("083600.00", "499.7") + flipped +
                       frame + gga("083602.00", "499.9");
  const char* impossible[] = {
      "083603.00,9500.00000,N,00833.91522,E",   "083603.00,4717.11437,N,18500.00000,E",
      "083603.00,4775.11437,N,00833.91522,E",   "083603.00,4717.11437,X,00833.91522,E",
      "083603.00,4717.11437,N,00833.91522,Q",   "083603.00,-4717.11437,N,00833.91522,E",
      "256199.00,4717.11437,N,00833.91522,E",
  };
  for (const char* fields : impossible)
    stream += gps::sim::NmeaGenerator::Sentence(std::string("GPGGA,") + fields + ",1,08,0.9,1.0,M,48.0,M,,");
  stream += gga("083604.00", "500.1");
  gps::test::TempRoot root;
  std::ofstream(root / "corrupt.log", std::ios::binary) << stream;
  const auto [output, status] =
      RunCommand(std::string(GPS_REPLAY_BINARY) + " --summary '" + (root / "corrupt.log") + "' 2>/dev/null");
  ASSERT_EQ(status, 0);
  std::vector<std::string> fixes;
  for (const auto& line : JsonLines(output))
    if (line["event"] == "fix") fixes.push_back(line["time"].get<std::string>() + " " + line["altitude"].get<std::string>());
  EXPECT_EQ(fixes, (std::vector<std::string>{"08h36m00s 499.7", "08h36m02s 499.9", "08h36m04s 500.1"}));
  EXPECT_EQ(output.find("nav_pvt"), std::string::npos) << "the flipped NAV-PVT reaches nobody";
  const json summary = JsonLines(output).back();
  EXPECT_EQ(summary["dropped_nmea"], 2 + std::size(impossible));
  EXPECT_EQ(summary["dropped_ubx"], 1);
}

TEST(ReplayTool, MissingFileIsNamedAndExitsWithTwo) {
  const auto [output, status] =
      RunCommand(std::string(GPS_REPLAY_BINARY) + " /nonexistent/capture.log 2>&1 >/dev/null");
  EXPECT_EQ(status, 2);
  EXPECT_NE(output.find("/nonexistent/capture.log"), std::string::npos) << output;
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
}

TEST(ReplayTool, ModemTypeReadsRawChunksAndFindsTheSameFixes) {
  const fs::path capture = fs::path(GPS_CAPTURES_DIR) / "ublox-8.log";
  if (!fs::exists(capture)) GTEST_SKIP() << "captures not found at " << GPS_CAPTURES_DIR;
  const auto aligned = RunCommand(std::string(GPS_REPLAY_BINARY) + " '" + capture.string() + "' 2>/dev/null");
  const auto raw =
      RunCommand(std::string(GPS_REPLAY_BINARY) + " --module-type 3 '" + capture.string() + "' 2>/dev/null");
  ASSERT_EQ(aligned.second, 0);
  ASSERT_EQ(raw.second, 0);
  EXPECT_EQ(aligned.first, raw.first);
}

}  // namespace
