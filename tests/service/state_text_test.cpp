// The state sent to clients holds only UTF-8 text: a field made of other
// bytes (a receiver's garbage in a sentence) is left out, the rest is sent.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/gps_private_info.h"
#include "param/gps_parameters.h"
#include "service/gps_core.h"
#include "tests/support/test_env.h"

namespace {

namespace msg = halvorda::device::gps;

TEST(StateText, FieldsThatAreNotUtf8AreLeftOutAndTheStateStillParses) {
  gps::test::TempRoot root;
  gps::test::ManualTicks ticks(500000);
  lib_GPS_param_RestorePersistentStorage();
  gps::test::ResetEngine(2);
  lib_GPS_Lock();
  gps_private_info.fix_quality = 1;
  gps_private_info.fix_tick = ticks.now();
  std::strcpy(gps_private_info.latitude, "4404.14063N");
  std::strcpy(gps_private_info.longitude, "12118.85478W");
  std::strcpy(gps_private_info.altitude, "1147\x80");        // a continuation byte without its lead
  std::strcpy(gps_private_info.hdop, "0.9\xc3\x28");         // a lead byte without its continuation
  gps_private_info.vtg_mode = 'A';
  gps_private_info.course_speed_tick = ticks.now();
  std::strcpy(gps_private_info.speed_kmh, "\xed\xa0\x80");    // an encoded surrogate
  std::strcpy(gps_private_info.speed_knots, "0.117");
  std::strcpy(gps_private_info.course_true, "\xc3\xa9");      // "é": valid, kept
  lib_GPS_Unlock();

  msg::SetGetStateResponse response;
  GPSCore::fillState(response);
  const msg::State& state = response.state();
  EXPECT_EQ(state.strlatitude(), "4404.14063N");
  EXPECT_EQ(state.speedknot(), "0.117");
  EXPECT_EQ(state.heading(), "\xc3\xa9");
  EXPECT_FALSE(state.has_altitude());
  EXPECT_FALSE(state.has_hdop());
  EXPECT_FALSE(state.has_speedkmh());
  std::string wire;
  ASSERT_TRUE(response.SerializeToString(&wire));
  msg::SetGetStateResponse parsed;
  EXPECT_TRUE(parsed.ParseFromString(wire));
}

}  // namespace
