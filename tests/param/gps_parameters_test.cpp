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

using Bytes = std::vector<uint8_t>;

Bytes ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

void WriteBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                               static_cast<std::streamsize>(bytes.size()));
}

Bytes RecordBytes(const gps_parameters_t& record) {
  const auto* b = reinterpret_cast<const uint8_t*>(&record);
  return Bytes(b, b + sizeof record);
}

// The default record built from the documented layout, not from the struct.
Bytes ExpectedDefaults() {
  Bytes b(1216, 0);
  auto putInt = [&b](size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
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
  Bytes OnDisk() const { return ReadBytes(FilePath()); }
  // Overwrites the file behind the module's back, so that a later comparison
  // shows whether a call wrote it.
  void PutMarker() const { WriteBytes(FilePath(), Marker()); }
  static Bytes Marker() { return Bytes(1216, 0x5a); }

  gps::test::TempRoot root_;
  gps::test::LogCapture log_;
};

TEST_F(ParamFile, FirstStartWritesTheDefaultsAndLaterStartsReadTheFileAsStored) {
  EXPECT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  EXPECT_TRUE(log_.contains("lib_GPS_param_CreateParametersFileIfNecessary: disk created."));
  EXPECT_EQ(OnDisk(), ExpectedDefaults());
  EXPECT_EQ(RecordBytes(gps_parameters), ExpectedDefaults());
  EXPECT_TRUE(log_.contains("online_server_port: 46434.")) << "the read-back record is logged";

  Bytes stored = ExpectedDefaults();
  stored[0] = 1;                                 // power_mode_policy
  std::memcpy(&stored[20], "apn.example", 11);   // gprs_apn
  std::memcpy(&stored[1056], "31/01/2024", 10);  // date
  stored[1215] = 0x7f;                           // last byte of speedKmh
  WriteBytes(FilePath(), stored);
  gps::test::ResetEngine();
  log_.clear();
  EXPECT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  EXPECT_FALSE(log_.contains("lib_GPS_param_CreateParametersFileIfNecessary: disk created."));
  EXPECT_EQ(RecordBytes(gps_parameters), stored);
  EXPECT_EQ(OnDisk(), stored) << "an existing disk keeps its file untouched";
}

TEST_F(ParamFile, RemovedFileIsNeitherReadNorRecreated) {
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  std::filesystem::remove(FilePath());
  gps::test::ResetEngine();

  EXPECT_EQ(lib_GPS_param_RestorePersistentStorage(), -1);
  EXPECT_TRUE(log_.contains("lib_GPS_param_ReadParametersFile: cannot open parameters file."));
  EXPECT_EQ(RecordBytes(gps_parameters), Bytes(1216, 0)) << "the record stays zero";
  EXPECT_EQ(lib_GPS_param_SaveParameters(), -2);
  EXPECT_TRUE(log_.contains("lib_GPS_param_UpdateParametersFile: parameter file does not exist."));
  EXPECT_FALSE(std::filesystem::exists(FilePath()));
}

TEST_F(ParamFile, FileOfAnotherSizeIsReadFromItsStart) {
  struct Case {
    const char* legend;
    size_t size;
  };
  const Case cases[] = {{"shorter file: the tail keeps its old bytes", 100},
                        {"longer file: only the first 1216 bytes", 1300}};
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  for (const Case& c : cases) {
    Bytes file(c.size);
    for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i * 7 + 1);
    WriteBytes(FilePath(), file);
    std::memset(&gps_parameters, 0xaa, sizeof gps_parameters);
    EXPECT_EQ(lib_GPS_param_ReadParametersFile(&gps_parameters), 0) << c.legend;
    Bytes expected(1216, 0xaa);
    std::copy_n(file.begin(), std::min<size_t>(c.size, 1216), expected.begin());
    EXPECT_EQ(RecordBytes(gps_parameters), expected) << c.legend;
  }
}

TEST_F(ParamFile, PolicySettersSaveOnlyWhenTheValueChanges) {
  struct Case {
    const char* legend;
    int (*set)(int32_t);
    int32_t (*get)();
  };
  const Case cases[] = {
      {"power mode", lib_GPS_param_SetPowerModePolicy, lib_GPS_param_GetPowerModePolicy},
      {"standby", lib_GPS_param_SetStandbyPolicy, lib_GPS_param_GetStandbyPolicy},
      {"assistance", lib_GPS_param_SetAssistancePolicy, lib_GPS_param_GetAssistancePolicy},
      {"GPRS parameters", lib_GPS_param_SetGprsParameterPolicy, lib_GPS_param_GetGprsParameterPolicy},
  };
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  for (const Case& c : cases) {
    PutMarker();
    const int32_t current = c.get();
    EXPECT_EQ(c.set(current), 0) << c.legend;
    EXPECT_EQ(OnDisk(), Marker()) << c.legend << ": same value, no save";
    EXPECT_EQ(c.set(current + 7), 0) << c.legend;
    EXPECT_EQ(c.get(), current + 7) << c.legend;
    EXPECT_EQ(OnDisk(), RecordBytes(gps_parameters)) << c.legend << ": new value saved";
  }

  PutMarker();
  EXPECT_EQ(lib_GPS_param_SetConnectionPolicy(1), -10);
  EXPECT_EQ(lib_GPS_param_GetConnectionPolicy(), 0);
  EXPECT_EQ(OnDisk(), Marker()) << "a refused connection policy touches nothing";
  gps_parameters.connection_policy = 3;  // as read from an older file
  EXPECT_EQ(lib_GPS_param_SetConnectionPolicy(0), 0);
  EXPECT_EQ(lib_GPS_param_GetConnectionPolicy(), 0);
  EXPECT_EQ(OnDisk(), RecordBytes(gps_parameters));
}

TEST_F(ParamFile, TextSettersCutAt127AndSaveWhenAnythingIsGiven) {
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  std::string apn(200, ' ');
  for (size_t i = 0; i < apn.size(); ++i) apn[i] = static_cast<char>('a' + i % 26);
  EXPECT_EQ(lib_GPS_param_SetGprsParameters(apn.c_str(), nullptr, nullptr), 0);
  char out[128];
  EXPECT_EQ(lib_GPS_param_GetGprsParameters(out, nullptr, nullptr), 0);
  EXPECT_EQ(std::string(out), apn.substr(0, 127));
  EXPECT_EQ(OnDisk(), RecordBytes(gps_parameters));

  PutMarker();
  EXPECT_EQ(lib_GPS_param_SetOnlineServerParameters(nullptr, 4000, nullptr, nullptr), 0);
  uint16_t port = 0;
  EXPECT_EQ(lib_GPS_param_GetOnlineServerParameters(out, &port, nullptr, nullptr), 0);
  EXPECT_EQ(port, 4000);
  EXPECT_STREQ(out, GPS_DEFAULT_ONLINE_SERVER);
  EXPECT_EQ(OnDisk(), RecordBytes(gps_parameters)) << "a port alone is saved";

  PutMarker();
  EXPECT_EQ(lib_GPS_param_SetOfflineServerParameters(nullptr, 0, nullptr), 0);
  EXPECT_EQ(lib_GPS_param_GetOfflineServerParameters(nullptr, &port, nullptr), 0);
  EXPECT_EQ(port, 80);
  EXPECT_EQ(OnDisk(), Marker()) << "nothing given, nothing saved";
}

TEST_F(ParamFile, LastDataIsCopiedWholeAndReachesTheFileOnlyWhenStored) {
  ASSERT_EQ(lib_GPS_param_RestorePersistentStorage(), 0);
  // Ten unterminated 16-byte texts: fix (date .. altitude), then course and speed.
  char in[10][16];
  for (int k = 0; k < 10; ++k)
    for (int i = 0; i < 16; ++i) in[k][i] = static_cast<char>('A' + k + i);

  PutMarker();
  EXPECT_EQ(lib_GPS_param_RecordLastFixData(in[0], in[1], in[2], in[3], in[4], in[5]), 0);
  EXPECT_EQ(lib_GPS_param_RecordLastCourseAndSpeedData(in[6], in[7], in[8], in[9]), 0);
  EXPECT_EQ(OnDisk(), Marker()) << "recording is memory only";

  EXPECT_EQ(lib_GPS_param_RetrieveLastFixData(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  char out[10][16] = {};
  EXPECT_EQ(lib_GPS_param_RetrieveLastFixData(out[0], out[1], out[2], out[3], out[4], out[5]), 0);
  EXPECT_EQ(lib_GPS_param_RetrieveLastCourseAndSpeedData(out[6], out[7], out[8], out[9]), 0);
  EXPECT_EQ(std::memcmp(in, out, sizeof in), 0);

  EXPECT_EQ(lib_GPS_param_StoreLastFixData(), 0);
  const Bytes stored = OnDisk();
  ASSERT_EQ(stored.size(), 1216u);
  EXPECT_EQ(std::memcmp(&stored[1056], in, sizeof in), 0) << "the ten texts back to back from offset 1056";
}

}  // namespace
