// The 1216-byte settings-and-last-fix record and its mirror file
// $ROOT/fs/GPS/gps_param.cfg: creation with defaults, read-back, saves.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
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
  stored[0] = 1;       // power_mode_policy
  stored[1215] = 'x';  // last byte of speedKmh
  Put(stored);
  gps::test::ResetEngine();
  EXPECT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  EXPECT_EQ(RecordBytes(gps_parameters), stored);
  EXPECT_EQ(OnDisk(), stored) << "an existing disk keeps its file untouched";
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
      {"storing it saves", [] { return lib_GPS_param_StoreLastFixData(); }, 0, true},
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
