// The 1216-byte settings-and-last-fix record and its mirror file
// $ROOT/fs/GPS/gps_param.cfg: creation with defaults, read-back, saves.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "param/gps_parameters.h"
#include "tests/support/test_env.h"

namespace {

using Bytes = std::string;  // raw bytes

Bytes RecordBytes(const gps_parameters_t& record) {
  return Bytes(reinterpret_cast<const char*>(&record), sizeof record);
}

// The default record built from the documented layout, not from the struct.
Bytes ExpectedDefaults() {
  Bytes b(1216, '\0');
  auto putInt = [&b](size_t at, int32_t v) { std::memcpy(&b[at], &v, 4); };  // little-endian
  auto putText = [&b](size_t at, const char* text) { std::memcpy(&b[at], text, std::strlen(text)); };
  putInt(16, 1);
  putText(20, GPS_DEFAULT_GPRS_APN);
  putText(404, GPS_DEFAULT_ONLINE_SERVER);
  putText(532, GPS_DEFAULT_ONLINE_USERNAME);
  putText(660, "Mfnotl");
  putInt(788, 46434);
  putText(792, GPS_DEFAULT_OFFLINE_SERVER);
  putText(920, "current_14d.alp");
  putInt(1048, 80);
  putInt(1052, 1000);
  return b;
}

class ParamFile : public ::testing::Test {
 protected:
  void SetUp() override { gps::test::ResetEngine(); }
  std::string FilePath() const { return root_ / "fs/GPS/gps_param.cfg"; }
  Bytes OnDisk() const {
    std::ifstream in(FilePath(), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
  }
  void Put(const Bytes& bytes) const { std::ofstream(FilePath(), std::ios::binary) << bytes; }
  // Overwrites the file behind the module's back, so that a later comparison
  // shows whether a call wrote it.
  void PutMarker() const { Put(Bytes(1216, 'Z')); }
  bool Untouched() const { return OnDisk() == Bytes(1216, 'Z'); }
  bool Saved() const { return OnDisk() == RecordBytes(gps_parameters); }

  gps::test::TempRoot root_;
};

TEST_F(ParamFile, FirstStartWritesTheDefaultsAndLaterStartsReadTheFileAsStored) {
  EXPECT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  EXPECT_EQ(OnDisk(), ExpectedDefaults());
  EXPECT_EQ(RecordBytes(gps_parameters), ExpectedDefaults());

  Bytes stored = ExpectedDefaults();
  stored[0] = 1;  // power_mode_policy
  stored.replace(1200, 5, "0.216");  // speedKmh, terminated
  Put(stored);
  gps::test::ResetEngine();
  EXPECT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  EXPECT_EQ(RecordBytes(gps_parameters), stored);
  EXPECT_EQ(OnDisk(), stored) << "an existing disk keeps its file untouched";
}

// A record from a damaged or foreign file: a stored fix whose texts do not
// have the engine's forms is dropped whole, a setting out of its range takes
// its default; each with a level-3 line naming the file, which stays as it is.
TEST_F(ParamFile, RestoreDropsADamagedStoredFixAndResetsSettingsOutOfRange) {
  // A fix as the engine writes it from GGA, RMC and VTG.
  const auto engineFix = [](Bytes& b) {
    const char* texts[10] = {"18/03/2015", "17h19m26s", "4404.14063N", "12118.85478W", "0.91",
                             "1147.2",     "77.52",     "",            "0.004",        "0.008"};
    for (size_t i = 0; i < 10; ++i) b.replace(1056 + 16 * i, std::strlen(texts[i]), texts[i]);
  };
  const auto text = [](size_t field, const char* value) {
    return [field, value](Bytes& b) {
      b.replace(1056 + 16 * field, 16, Bytes(16, '\0'));
      b.replace(1056 + 16 * field, std::strlen(value), value);
    };
  };
  const auto integer = [](size_t at, int32_t value) { return [at, value](Bytes& b) { std::memcpy(&b[at], &value, 4); }; };
  enum Field : size_t { kDate, kTime, kLatitude, kLongitude, kHdop, kAltitude, kCourse, kCourseMagnetic, kKnots, kKmh };
  struct Case {
    const char* legend;
    std::function<void(Bytes&)> change;
    bool fixKept;
    size_t resetSettingAt;  // 0: none
  };
  const Case cases[] = {
      {"as the engine writes it", [](Bytes&) {}, true, 0},
      {"position from NAV-PVT alone", [&](Bytes& b) { text(kDate, "")(b), text(kTime, "")(b), text(kAltitude, "-21.3")(b); }, true, 0},
      {"no fix ever", [&](Bytes& b) { b.replace(1056, 160, Bytes(160, '\0')); }, true, 0},
      {"hemisphere", text(kLatitude, "4404.14063X"), false, 0},
      {"latitude beyond 90", text(kLatitude, "9100.00000N"), false, 0},
      {"latitude a fraction beyond 90", text(kLatitude, "9000.00001S"), false, 0},
      {"60 minutes", text(kLatitude, "4460.00000N"), false, 0},
      {"no fraction", text(kLatitude, "4404.N"), false, 0},
      {"longitude of two degree digits", text(kLongitude, "2118.85478W"), false, 0},
      {"latitude without longitude", text(kLongitude, ""), false, 0},
      {"month 13", text(kDate, "18/13/2015"), false, 0},
      {"31 April", text(kDate, "31/04/2015"), false, 0},
      {"time with colons", text(kTime, "17:19:26"), false, 0},
      {"negative HDOP", text(kHdop, "-0.91"), false, 0},
      {"altitude with a letter", text(kAltitude, "114a.2"), false, 0},
      {"speed of bytes that are no text", text(kKmh, "\xff\xfe"), false, 0},
      {"unterminated speed", [](Bytes& b) { b.replace(1200, 16, Bytes(16, '1')); }, false, 0},
      {"power mode 7", integer(0, 7), true, 0 + 1},
      {"connection policy 3", integer(12, 3), true, 12 + 1},
      {"port 0", integer(788, 0), true, 788 + 1},
      {"fix period of 5 ms", integer(1052, 5), true, 1052 + 1},
      {"APN unterminated", [](Bytes& b) { b.replace(20, 128, Bytes(128, 'a')); }, true, 20 + 1},
  };
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  for (const Case& c : cases) {
    Bytes stored = ExpectedDefaults();
    engineFix(stored);
    c.change(stored);
    Put(stored);
    gps::test::ResetEngine();
    gps::test::LogCapture log;
    ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0) << c.legend;
    const Bytes restored = RecordBytes(gps_parameters);
    EXPECT_EQ(restored.substr(1056), c.fixKept ? stored.substr(1056) : Bytes(160, '\0')) << c.legend;
    Bytes expectedSettings = stored.substr(0, 1056);
    if (c.resetSettingAt != 0) {
      const size_t at = c.resetSettingAt - 1;
      const size_t width = at == 20 ? 128 : 4;
      expectedSettings.replace(at, width, ExpectedDefaults().substr(at, width));
    }
    EXPECT_EQ(restored.substr(0, 1056), expectedSettings) << c.legend;
    const auto lines = log.linesAt(3);
    EXPECT_EQ(lines.size(), c.fixKept && c.resetSettingAt == 0 ? 0u : 1u) << c.legend;
    for (const std::string& line : lines) EXPECT_NE(line.find(FilePath()), std::string::npos) << line;
    EXPECT_EQ(OnDisk(), stored) << c.legend << ": the file is left as it is";
  }
}

TEST_F(ParamFile, RemovedFileIsNeitherReadNorRecreated) {
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  std::filesystem::remove(FilePath());
  gps::test::ResetEngine();

  EXPECT_EQ(lib_GPS_param_RestorePersistentStorage(), -1);
  EXPECT_EQ(RecordBytes(gps_parameters), Bytes(1216, '\0')) << "the record stays zero";
  EXPECT_EQ(lib_GPS_param_SaveParameters(), -2);
  EXPECT_FALSE(std::filesystem::exists(FilePath()));
}

TEST_F(ParamFile, SettersSaveWhenTheyChangeSomethingLastDataOnlyWhenStored) {
  static const std::string apn = std::string(100, 'x') + std::string(100, 'y');
  static char last[10][16];  // unterminated texts: date .. altitude, then course and speed
  for (int k = 0; k < 160; ++k) last[k / 16][k % 16] = static_cast<char>('A' + k % 37);
  struct Case {
    const char* legend;
    int (*call)();
    int result;
    bool saves;
  };
  const Case cases[] = {
      {"same power mode", [] { return lib_GPS_param_SetPowerModePolicy(0); }, 0, false},
      {"new power mode", [] { return lib_GPS_param_SetPowerModePolicy(2); }, 0, true},
      {"new standby", [] { return lib_GPS_param_SetStandbyPolicy(1); }, 0, true},
      {"new assistance", [] { return lib_GPS_param_SetAssistancePolicy(3); }, 0, true},
      {"new GPRS policy", [] { return lib_GPS_param_SetGprsParameterPolicy(0); }, 0, true},
      {"connection policy 1 is refused", [] { return lib_GPS_param_SetConnectionPolicy(1); }, -10, false},
      {"connection policy 0 over a 3 from an older file",
       [] { return gps_parameters.connection_policy = 3, lib_GPS_param_SetConnectionPolicy(0); }, 0, true},
      {"200-character APN", [] { return lib_GPS_param_SetGprsParameters(apn.c_str(), nullptr, nullptr); }, 0, true},
      {"a port alone", [] { return lib_GPS_param_SetOnlineServerParameters(nullptr, 4000, nullptr, nullptr); }, 0,
       true},
      {"nothing given", [] { return lib_GPS_param_SetOfflineServerParameters(nullptr, 0, nullptr); }, 0, false},
      {"recording the last data is memory only", [] {
         return lib_GPS_param_RecordLastFixData(last[0], last[1], last[2], last[3], last[4], last[5]) +
                lib_GPS_param_RecordLastCourseAndSpeedData(last[6], last[7], last[8], last[9]);
       }, 0, false},
      {"storing it saves", [] { return lib_GPS_param_StoreLastFixData() + lib_GPS_param_FlushParameters(); }, 0, true},
  };
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  for (const Case& c : cases) {
    PutMarker();
    EXPECT_EQ(c.call(), c.result) << c.legend;
    EXPECT_TRUE(c.saves ? Saved() : Untouched()) << c.legend;
  }
  EXPECT_EQ(RecordBytes(gps_parameters).substr(1056, sizeof last), Bytes(&last[0][0], sizeof last)) << "at 1056";
  char out[10][16] = {};
  lib_GPS_param_RetrieveLastFixData(out[0], out[1], out[2], out[3], out[4], out[5]);
  lib_GPS_param_RetrieveLastCourseAndSpeedData(out[6], out[7], out[8], out[9]);
  EXPECT_EQ(std::memcmp(last, out, sizeof out), 0);
  EXPECT_EQ((std::vector<int32_t>{lib_GPS_param_GetPowerModePolicy(), lib_GPS_param_GetStandbyPolicy(),
                                  lib_GPS_param_GetAssistancePolicy(), lib_GPS_param_GetGprsParameterPolicy(),
                                  lib_GPS_param_GetConnectionPolicy()}),
            (std::vector<int32_t>{2, 1, 3, 0, 0}));
  char text[128];
  uint16_t port = 0;
  EXPECT_EQ(lib_GPS_param_GetGprsParameters(text, nullptr, nullptr), 0);
  EXPECT_EQ(std::string(text), apn.substr(0, 127));
  EXPECT_EQ(lib_GPS_param_GetOnlineServerParameters(text, &port, nullptr, nullptr), 0);
  EXPECT_EQ(port, 4000);
  EXPECT_STREQ(text, GPS_DEFAULT_ONLINE_SERVER) << "the address not given stays";
}

}  // namespace
