// Fix queries: result codes, ages and the stale-fix policies.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "param/gps_parameters.h"
#include "tests/support/test_env.h"

namespace {

constexpr uint32_t kCurrentOnly = GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX;
constexpr uint32_t kOldFix = GEOLOCATING_GPS_ACCEPT_OLD_FIX;

class QueryTest : public testing::Test {
 protected:
  void SetUp() override {
    gps::test::ResetEngine(2);
    lib_GPS_param_RestorePersistentStorage();
    std::strcpy(gps_parameters.latitude, "1111.11111N");
    std::strcpy(gps_parameters.longitude, "02222.22222E");
    std::strcpy(gps_parameters.altitude, "33.3");
    std::strcpy(gps_parameters.speedKmh, "4.4");
  }

  // A GGA fix and a VTG written `ageTicks` before now.
  void FixAged(uint32_t ageTicks) {
    lib_GPS_Lock();
    gps_private_info.fix_quality = 1;
    gps_private_info.fix_tick = ticks_.now() - ageTicks;
    std::strcpy(gps_private_info.latitude, "4404.14063N");
    std::strcpy(gps_private_info.longitude, "12118.85478W");
    std::strcpy(gps_private_info.altitude, "1147.2");
    gps_private_info.vtg_mode = 'A';
    gps_private_info.course_speed_tick = ticks_.now() - ageTicks;
    std::strcpy(gps_private_info.speed_kmh, "0.216");
    lib_GPS_Unlock();
  }

  gps::test::TempRoot root_;
  gps::test::ManualTicks ticks_{500000};
  char lat_[16] = "untouched";
  char lon_[16] = "untouched";
  char out_[16] = "untouched";
  uint32_t age_ = 9999;
};

TEST_F(QueryTest, CurrentFixBoundaryIs200Ticks) {
  FixAged(200);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(lon_, lat_, &age_, kCurrentOnly), GEOLOCATING_GPS_ERROR_SUCCESS);
  EXPECT_STREQ(lat_, "4404.14063N");
  EXPECT_STREQ(lon_, "12118.85478W");
  EXPECT_EQ(age_, 2u);
  FixAged(201);
  std::strcpy(lat_, "untouched");
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(lon_, lat_, &age_, kCurrentOnly),
            GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
  EXPECT_STREQ(lat_, "untouched");
}

TEST_F(QueryTest, AgeIsWholeSecondsAndWrittenWhateverTheFlags) {
  FixAged(1234);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetAltitude(out_, &age_, 0), GEOLOCATING_GPS_ERROR_NO_FIX_YET);
  EXPECT_EQ(age_, 12u);
  EXPECT_STREQ(out_, "untouched");
}

TEST_F(QueryTest, AgeSurvivesCounterWrap) {
  ticks_.set(50);
  lib_GPS_Lock();
  gps_private_info.fix_quality = 1;
  gps_private_info.fix_tick = 0xFFFFFFFFu - 49;  // 100 ticks before the wrap-around
  lib_GPS_Unlock();
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetTime(out_, &age_, kCurrentOnly), GEOLOCATING_GPS_ERROR_SUCCESS);
  EXPECT_EQ(age_, 1u);
}

TEST_F(QueryTest, NoFixYetUnderCurrentPolicyCopiesNothingAndLogsNoResult) {
  gps::test::LogCapture log;
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(lon_, lat_, &age_, kCurrentOnly), GEOLOCATING_GPS_ERROR_NO_FIX_YET);
  EXPECT_STREQ(lat_, "untouched");
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"GPS_GetPosition.", "GPS_GetPosition: accept only current fix."}));
}

TEST_F(QueryTest, OldFixPolicyRightAfterStartFallsBackToTheStoredFix) {
  gps::test::LogCapture log;
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(lon_, lat_, &age_, kOldFix), GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
  EXPECT_STREQ(lat_, "1111.11111N");
  EXPECT_STREQ(lon_, "02222.22222E");
  EXPECT_TRUE(log.contains("GPS_GetPosition: GEOLOCATING_GPS_ERROR_OLD_COORDINATES."));
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetSpeedKMH(out_, &age_, kOldFix), GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
  EXPECT_STREQ(out_, "4.4");
}

TEST_F(QueryTest, OldFixPolicyWithACurrentFixAnswersIt) {
  FixAged(10);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetAltitude(out_, &age_, kOldFix), GEOLOCATING_GPS_ERROR_SUCCESS);
  EXPECT_STREQ(out_, "1147.2");
}

TEST_F(QueryTest, BothFlagsOnAStaleFixDifferByQueryGroup) {
  FixAged(500);
  gps::test::LogCapture log;
  // The position group runs only the current-fix evaluation.
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(lon_, lat_, &age_, kCurrentOnly | kOldFix),
            GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
  EXPECT_STREQ(lat_, "untouched");
  EXPECT_FALSE(log.contains("lib_GPS_param_RetrieveLastFixData."));
  // Altitude runs both; the old-fix evaluation fills from the file.
  log.clear();
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetAltitude(out_, &age_, kCurrentOnly | kOldFix),
            GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
  EXPECT_STREQ(out_, "33.3");
  EXPECT_EQ(log.count("GPS_GetAltitude: GEOLOCATING_GPS_ERROR_OLD_COORDINATES."), 2);
}

TEST_F(QueryTest, CourseQueriesTestTheVtgMode) {
  gps::test::LogCapture log;
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetSpeedKMH(out_, &age_, kCurrentOnly), GEOLOCATING_GPS_ERROR_NO_FIX_YET);
  EXPECT_TRUE(log.contains("GPS_GetSpeedKMH: GEOLOCATING_GPS_ERROR_NO_FIX_YET."));
  FixAged(0);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetSpeedKMH(out_, &age_, kCurrentOnly), GEOLOCATING_GPS_ERROR_SUCCESS);
  EXPECT_STREQ(out_, "0.216");
}

TEST_F(QueryTest, NullOutputsWithACurrentFix) {
  FixAged(0);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(nullptr, nullptr, nullptr, kCurrentOnly),
            GEOLOCATING_GPS_ERROR_SUCCESS);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetDateAndTime(nullptr, nullptr, nullptr, kOldFix),
            GEOLOCATING_GPS_ERROR_SUCCESS);
}

TEST_F(QueryTest, AResetAfterAFixKeepsTheTextsButQueriesSeeNoFix) {
  FixAged(0);
  lib_GPS_ResetInfosLocked(&gps_private_info);
  EXPECT_STREQ(gps_private_info.latitude, "4404.14063N");
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(lon_, lat_, &age_, kCurrentOnly), GEOLOCATING_GPS_ERROR_NO_FIX_YET);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetPosition(lon_, lat_, &age_, kOldFix), GEOLOCATING_GPS_ERROR_OLD_COORDINATES);
  EXPECT_STREQ(lat_, "1111.11111N");
}

}  // namespace
