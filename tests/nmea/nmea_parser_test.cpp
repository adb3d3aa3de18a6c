// Sentences into the engine record: what each sentence writes, what it
// leaves, and when the last fix reaches the parameters file.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <sys/eventfd.h>
#include <unistd.h>

#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "nmea/nmea_parser.h"
#include "param/gps_parameters.h"
#include "tests/support/test_env.h"

namespace {

using gps::test::FeedReceiver;

std::string Field(const char* text) { return std::string(text); }

class NmeaParserTest : public testing::Test {
 protected:
  void SetUp() override {
    gps::test::ResetEngine(2);
    lib_GPS_param_RestorePersistentStorage();
  }

  // The last-fix latitude as stored in the parameters file on disk.
  std::string StoredLatitude() const {
    lib_GPS_param_FlushParameters();
    std::ifstream in(root_ / "fs/GPS/gps_param.cfg", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() < 1104) return "<short file>";
    return std::string(bytes.c_str() + 1088);
  }

  gps::test::TempRoot root_;
  gps::test::ManualTicks ticks_{100000};
  const gps_private_info_t& infos_ = gps_private_info;
};

TEST_F(NmeaParserTest, GgaWithFixFillsTheFixFields) {
  FeedReceiver("$GNRMC,171926.00,A,4404.14063,N,12118.85478,W,0.117,,180315,,,A*76\r\n");
  FeedReceiver("$GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44\r\n");
  EXPECT_EQ(infos_.fix_quality, 1);
  EXPECT_EQ(infos_.fix_tick, 100000u);
  EXPECT_EQ(infos_.gga_tick, 100000u);
  EXPECT_EQ(Field(infos_.time), "17h19m26s");
  EXPECT_EQ(Field(infos_.date), "18/03/2015");
  EXPECT_EQ(Field(infos_.latitude), "4404.14063N");
  EXPECT_EQ(Field(infos_.longitude), "12118.85478W");
  EXPECT_EQ(Field(infos_.altitude), "1147.2");
  EXPECT_EQ(Field(infos_.hdop), "0.91");
  EXPECT_EQ(Field(infos_.geoid_separation), "-21.3");
  // Recorded in memory with the date of the last RMC.
  EXPECT_EQ(Field(gps_parameters.date), "18/03/2015");
  EXPECT_EQ(Field(gps_parameters.latitude), "4404.14063N");
  FeedReceiver("$PUBX,00,130000.00,3333.33333,N,04444.44444,E,1,G3,1,1,1,1,1,1,1,1,1*00\r\n");
  EXPECT_EQ(Field(infos_.latitude), "4404.14063N") << "proprietary sentences match nothing";
}

// A 1999 date from a receiver running years after this build is a GPS week
// rollover: moved on by 1024 weeks. Both the rollover and the jump from the
// fixes before are said once at level 4.
TEST_F(NmeaParserTest, RolloverDatesAreCorrectedAndJumpsSaidOnce) {
  gps::test::LogCapture log;
  const struct {
    const char* date;
    const char* time;
    const char* served;
  } steps[] = {
      {"231126", "120000.00", "23/11/2026"}, {"231126", "120001.00", "23/11/2026"},
      {"231199", "120002.00", "09/07/2019"}, {"251199", "120003.00", "11/07/2019"},
      {"060180", "120004", "06/01/1980"},  // the first GPS day stands in a replay of old recordings
  };
  for (const auto& step : steps) {
    if (std::strcmp(step.date, "060180") == 0) lib_GPS_SetEarliestReceiverDay(3657);  // 1980-01-06
    FeedReceiver(std::string("$GNRMC,") + step.time + ",A,4404.14063,N,12118.85478,W,0.117,," + step.date + ",,,A\r\n");
    FeedReceiver(std::string("$GNGGA,") + step.time + ",4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,\r\n");
    ticks_.advance(100);
    EXPECT_STREQ(infos_.date, step.served) << step.date;
  }
  lib_GPS_SetEarliestReceiverDay(INT64_MIN);
  EXPECT_EQ(log.linesAt(4), (std::vector<std::string>{
                                "GPS: the receiver's date 23/11/1999 is over 1024 weeks before this software was "
                                "built: a GPS week rollover, read as 09/07/2019",
                                "GPS: the receiver's date and time jumped by -232761600 s (09/07/2019 12h00m02s); a "
                                "receiver clock fault is likely",
                            }));
}

TEST_F(NmeaParserTest, GgaWithoutFixChangesOnlyItsTickAndQuality) {
  FeedReceiver("$GPGGA,120000.00,1111.11111,N,02222.22222,E,1,05,1.2,10.0,M,1.0,M,,*00\r\n");
  ticks_.advance(100);
  FeedReceiver("$GPGGA,120001.00,,,,,0,00,99.99,,,,,,*00\r\n");
  EXPECT_EQ(infos_.fix_quality, 0);
  EXPECT_EQ(infos_.gga_tick, 100100u);
  EXPECT_EQ(infos_.fix_tick, 100000u);
  EXPECT_EQ(Field(infos_.latitude), "1111.11111N");
  EXPECT_EQ(Field(infos_.time), "12h00m00s");
}

TEST_F(NmeaParserTest, QualityThatIsNotADigitIsNoFix) {
  FeedReceiver("$GPGGA,120000.00,1111.11111,N,02222.22222,E,,05,1.2,10.0,M,1.0,M,,*00\r\n");
  EXPECT_EQ(infos_.fix_quality, 0);
  EXPECT_EQ(Field(infos_.latitude), "");
}

TEST_F(NmeaParserTest, DifferentialFieldsOnlyWithQualityTwo) {
  FeedReceiver("$GPGGA,120000.00,1111.11111,N,02222.22222,E,2,05,1.2,10.0,M,1.0,M,3.5,0042*00\r\n");
  EXPECT_EQ(Field(infos_.dgps_age), "3.5");
  EXPECT_EQ(Field(infos_.dgps_station_id).substr(0, 4), "0042");
  FeedReceiver("$GPGGA,120001.00,1111.11111,N,02222.22222,E,1,05,1.2,10.0,M,1.0,M,9.9,0077*00\r\n");
  EXPECT_EQ(Field(infos_.dgps_age), "3.5");
  EXPECT_EQ(Field(infos_.dgps_station_id).substr(0, 4), "0042");
}

TEST_F(NmeaParserTest, ShortSentencesChangeOnlyTheirReceptionTick) {
  FeedReceiver("$GPGGA,120000.00,1111.11111,N,02222.22222,E,1,05,1.2,10.0,M*00\r\n");
  EXPECT_EQ(infos_.gga_tick, 100000u);
  EXPECT_EQ(infos_.fix_quality, 0);
  FeedReceiver("$GPVTG,77.52,T,,M,0.004,N*00\r\n");
  EXPECT_EQ(infos_.vtg_tick, 100000u);
  EXPECT_EQ(infos_.vtg_mode, 'N');
  FeedReceiver("$GPRMC,1*00\r\n");
  EXPECT_EQ(Field(infos_.date), "");
}

TEST_F(NmeaParserTest, OverlongFieldsAreCutToTheirField) {
  FeedReceiver("$GPGGA,120000.00,1111.11111,N,02222.22222,E,1,05,1.2,10.0,M,1.0,M,,*00\r\n");
  ticks_.advance(100);  // the next fix is not stored: last_fix_store_tick keeps its value
  const std::string lat(40, '1');
  FeedReceiver("$GPGGA,120000.00," + lat + ",N,02222.22222,E,1,05," + std::string(30, '9') + "," +
               std::string(40, '8') + ",M,1.0,M,,*00\r\n");
  EXPECT_EQ(Field(infos_.latitude), std::string(14, '1') + "N");
  EXPECT_EQ(Field(infos_.hdop), std::string(15, '9'));
  EXPECT_EQ(Field(infos_.altitude), std::string(15, '8'));
  EXPECT_EQ(infos_.last_fix_store_tick, 100000u) << "the field after the altitude is untouched";
}

TEST_F(NmeaParserTest, VtgModeDecidesWhetherCourseAndSpeedAreTaken) {
  FeedReceiver("$GPVTG,77.52,T,70.1,M,0.004,N,0.008,K,A*06\r\n");
  EXPECT_EQ(infos_.vtg_mode, 'A');
  EXPECT_EQ(infos_.course_speed_tick, 100000u);
  EXPECT_EQ(Field(infos_.course_true), "77.52");
  EXPECT_EQ(Field(infos_.course_magnetic), "70.1");
  EXPECT_EQ(Field(infos_.speed_knots), "0.004");
  EXPECT_EQ(Field(infos_.speed_kmh), "0.008");
  EXPECT_EQ(Field(gps_parameters.speedKmh), "0.008");
  ticks_.advance(100);
  FeedReceiver("$GPVTG,,T,,M,,N,,K,N*2C\r\n");
  EXPECT_EQ(infos_.vtg_mode, 'N');
  EXPECT_EQ(infos_.vtg_tick, 100100u);
  EXPECT_EQ(infos_.course_speed_tick, 100000u);
  EXPECT_EQ(Field(infos_.course_true), "77.52");
}

TEST_F(NmeaParserTest, LastFixReachesTheFileAtMostOncePerSixtySeconds) {
  const auto gga = [](const char* lat) {
    return std::string("$GPGGA,120000.00,") + lat + ",N,02222.22222,E,1,05,1.2,10.0,M,1.0,M,,*00\r\n";
  };
  FeedReceiver(gga("1111.11111"));
  EXPECT_EQ(StoredLatitude(), "1111.11111N") << "first fix is stored at once";
  ticks_.advance(100);
  FeedReceiver(gga("2222.22222"));
  EXPECT_EQ(Field(gps_parameters.latitude), "2222.22222N") << "recorded in memory";
  EXPECT_EQ(StoredLatitude(), "1111.11111N") << "not written within 6000 ticks";
  ticks_.advance(5899);
  FeedReceiver(gga("3333.33333"));
  EXPECT_EQ(StoredLatitude(), "1111.11111N") << "5999 ticks after the store";
  ticks_.advance(1);
  FeedReceiver(gga("4444.44444"));
  EXPECT_EQ(StoredLatitude(), "4444.44444N") << "6000 ticks after the store";
}

TEST_F(NmeaParserTest, GsvGroupIsPublishedWhenComplete) {
  FeedReceiver("$GPGSV,3,1,09,01,53,280,36,03,29,301,24,04,55,223,37,08,38,166,16*7C\r\n");
  FeedReceiver("$GPGSV,3,2,09,11,40,245,29,12,05,034,,14,43,055,30,17,06,324,*74\r\n");
  EXPECT_EQ(infos_.sat_view_count, 0u) << "not published before the group is complete";
  ticks_.advance(5);
  FeedReceiver("$GPGSV,3,3,09,22,24,112,25*7A\r\n");
  EXPECT_EQ(infos_.sat_view_count, 9u);
  EXPECT_EQ(infos_.sat_view_tick, 100000u) << "the tick of the group's first message";
  const gps_satellite_t& sat22 = infos_.sat_prn_1_32[21];
  EXPECT_EQ(sat22.prn, 22u);
  EXPECT_EQ(sat22.elevation, 24u);
  EXPECT_EQ(sat22.azimuth, 112u);
  EXPECT_EQ(sat22.snr, 25u) << "checksum suffix ignored";
  EXPECT_EQ(infos_.sat_prn_1_32[11].snr, 0u) << "empty SNR is 0";
  EXPECT_EQ(infos_.sat_prn_1_32[11].tick, 100000u);
}

TEST_F(NmeaParserTest, GsvEdgeGroups) {
  FeedReceiver("$GPGSV,1,1,00*79\r\n");
  EXPECT_EQ(infos_.sat_view_count, 0u);
  EXPECT_EQ(infos_.sat_view_tick, 100000u) << "an empty group is published at once";

  ticks_.advance(100);
  FeedReceiver("$GLGSV,3,1,09,65,37,078,27,66,62,349,26,67,20,296,25,33,04,018,20*6E\r\n");
  FeedReceiver("$GLGSV,3,3,09,83,27,309,29*63\r\n");  // message 2 lost
  EXPECT_EQ(infos_.sat_view_tick, 100000u) << "an incomplete group is never published";

  ticks_.advance(100);
  // The record holds the date and the HDOP right after the PRN 33-64 table,
  // where a PRN 65 entry would land.
  FeedReceiver("$GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,230915,,,A*57\r\n");
  FeedReceiver("$GPGGA,120000.00,1111.11111,N,02222.22222,E,1,05,1.2,10.0,M,1.0,M,,*00\r\n");
  FeedReceiver("$GLGSV,1,1,02,65,37,078,27,33,04,018,20*6E\r\n");
  EXPECT_EQ(infos_.sat_view_count, 2u) << "PRN 65 is counted";
  EXPECT_EQ(infos_.sat_prn_33_64[0].prn, 33u);
  EXPECT_EQ(infos_.sat_prn_33_64[0].tick, 100200u);
  for (const auto& sat : infos_.sat_prn_1_32) EXPECT_EQ(sat.tick, 0u) << "PRN 65 is stored nowhere";
  EXPECT_EQ(Field(infos_.date), "23/09/2015") << "nothing written beyond the table";
  EXPECT_EQ(Field(infos_.hdop), "1.2") << "nothing written beyond the table";
}

// Sentences of older receivers or of a receiver without time yet: what each
// keeps or makes of its fields.
TEST_F(NmeaParserTest, EdgesOfOlderReceiversAndEarlySentences) {
  const std::string knownDate = "$GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,230915,,,A*57\r\n";
  const std::string gsvStart = "$GPGSV,12,1,45,01,53,280,36,03,29,301,24,04,55,223,37,08,38,166,16*00\r\n";
  const struct {
    const char* legend;
    std::vector<std::string> sentences;
    std::function<std::string()> read;
    std::string expected;
  } cases[] = {
      {"GSV message 10 continues the group it belongs to",
       {gsvStart, "$GPGSV,12,10,45,11,40,245,29,12,05,034,,14,43,055,30,17,06,324,*00\r\n"},
       [this] { return std::to_string(infos_.gsv_sats_collected); }, "8"},
      {"GSV message 1 starts the group again", {gsvStart, gsvStart},
       [this] { return std::to_string(infos_.gsv_sats_collected); }, "4"},
      {"RMC with an empty date keeps the known date",
       {knownDate, "$GPRMC,083600.00,V,,,,,,,,,,N*00\r\n"}, [this] { return Field(infos_.date); }, "23/09/2015"},
      {"RMC with a short date keeps the known date", {knownDate, "$GPRMC,083600.00,A,,,,,,,2309,,,A*00\r\n"},
       [this] { return Field(infos_.date); }, "23/09/2015"},
      {"VTG of NMEA 2.x with its speeds is mode A", {"$GPVTG,77.52,T,,M,0.004,N,0.008,K*4B\r\n"},
       [this] { return std::string(1, infos_.vtg_mode) + " " + Field(infos_.speed_kmh); }, "A 0.008"},
      {"VTG of NMEA 2.x without speeds is mode N", {"$GPVTG,,T,,M,,N,,K*4B\r\n"},
       [this] { return std::string(1, infos_.vtg_mode) + " " + std::to_string(infos_.course_speed_tick); }, "N 0"},
      {"time with three decimals", {"$GPGGA,083559.000,1111.11111,N,02222.22222,E,1,05,1.2,10.0,M,1.0,M,,*00\r\n"},
       [this] { return Field(infos_.time); }, "08h35m59s"},
      {"time without decimals", {"$GPGGA,083559,1111.11111,N,02222.22222,E,1,05,1.2,10.0,M,1.0,M,,*00\r\n"},
       [this] { return Field(infos_.time); }, "08h35m59s"},
  };
  for (const auto& c : cases) {
    gps::test::ResetEngine(2);
    for (const auto& sentence : c.sentences) FeedReceiver(sentence);
    EXPECT_EQ(c.read(), c.expected) << c.legend;
  }
}

TEST_F(NmeaParserTest, GsvAnnouncingMoreThanStagingHoldsStopsCollecting) {
  // 64 tokens hold 15 satellites; five messages would collect 75.
  for (int message = 1; message <= 5; ++message) {
    std::string sentence = "$GPGSV,7," + std::to_string(message) + ",99";
    for (int i = 0; i < 20; ++i) sentence += ",01,10,100,30";
    FeedReceiver(sentence + "*00\r\n");
  }
  EXPECT_EQ(infos_.gsv_sats_collected, static_cast<uint32_t>(GPS_GSV_STAGING_CAPACITY));
  EXPECT_EQ(infos_.sat_view_count, 0u);
}

TEST_F(NmeaParserTest, RmcDateTtffAndModuleReset) {
  FeedReceiver("$GPRMC,083559.00,A,4717.11437,N,00833.91522,E,0.004,77.52,230915,,,A*57\r\n");
  EXPECT_EQ(Field(infos_.date), "23/09/2015");

  // As an application reads it: the NAV-STATUS payload, ttff at offset 8.
  const auto ttff = [] {
    uint8_t status[sizeof gps_private_info.nav_status] = {};
    uint32_t tick = 1;
    EXPECT_EQ(lib_GPS_Geolocating_GPS_GetTTFF(status, &tick), 0);
    EXPECT_EQ(tick, 0u) << "the sentence is no NAV-STATUS: its reception tick stays";
    uint32_t value = 0;
    std::memcpy(&value, status + 8, 4);
    return value;
  };
  FeedReceiver("$GPTTFF,12,34*00\r\n");
  EXPECT_EQ(ttff(), 34u);
  FeedReceiver("$GPTTFF,12,*00\r\n");
  EXPECT_EQ(ttff(), 0u);

  const int fd = eventfd(0, EFD_NONBLOCK);
  gps_private_info.listeners[0] = {static_cast<uint16_t>(fd), GPS_EVENT_MODULE_RESET};
  gps_private_info.listener_count = 1;
  FeedReceiver("$GPTXT,01,01,02,Resetting GPS*68\r\n");
  uint64_t count = 0;
  EXPECT_EQ(read(fd, &count, sizeof count), 8);
  FeedReceiver("$GPTXT,01,01,02,Resetting GPS later*6D\r\n");
  EXPECT_EQ(read(fd, &count, sizeof count), -1) << "only the exact text announces a reset";
  gps_private_info.listener_count = 0;
  close(fd);
}

}  // namespace
