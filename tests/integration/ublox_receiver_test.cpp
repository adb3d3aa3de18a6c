// The engine, the receiver driver and the strict simulated receiver over a
// real pseudo-terminal, on USB and on UART1: the messages the engine enables
// reach its analyser, power off is reversible, and a receiver left with NMEA
// output off still gives fixes.
#include <gtest/gtest.h>

#include "engine/gps_geolocating.h"
#include "engine/gps_private_info.h"
#include "tests/integration/engine_process.h"

namespace {

using namespace std::chrono_literals;
using gps::test::InEngineProcess;
using gps::test::SimulatedReceiver;
using gps::test::WaitFor;

struct Attachment {
  const char* name;
  uint8_t port;
  bool ubxOnly;
};

void PrintTo(const Attachment& attachment, std::ostream* out) { *out << attachment.name; }

class UbloxReceiver : public testing::TestWithParam<Attachment> {
 protected:
  gps::test::TempRoot root_;
};

bool CurrentFix() {
  char longitude[16] = {}, latitude[16] = {};
  uint32_t age = 0;
  return lib_GPS_Geolocating_GPS_GetPosition(longitude, latitude, &age, GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX) == 0;
}

TEST_P(UbloxReceiver, NavPvtReachesTheAnalyserAndPowerOffThenOnGivesAFreshFix) {
  InEngineProcess([&] {
    gps::sim::EmbeddedOptions options;
    options.ttffMs = 500;
    options.port = GetParam().port;
    options.ubxOnly = GetParam().ubxOnly;
    SimulatedReceiver sim(root_, options);
    gps_dll_init();
    lib_GPS_Geolocating_GPS_SetPower(1);
    EXPECT_TRUE(WaitFor([] { return gps_private_info.nav_pvt_tick != 0; }, 5s)) << "no NAV-PVT analysed";
    EXPECT_TRUE(WaitFor(CurrentFix, 5s)) << "no fix after the first power-on";
    lib_GPS_Geolocating_GPS_SetPower(0);
    ASSERT_TRUE(WaitFor([] { return !CurrentFix(); }, 5s));
    lib_GPS_Geolocating_GPS_SetPower(1);
    const auto on = std::chrono::steady_clock::now();
    EXPECT_TRUE(WaitFor(CurrentFix, 5s)) << "no fresh fix within 5 s of power-on";
    EXPECT_LT(std::chrono::steady_clock::now() - on, 5s);
  });
}

INSTANTIATE_TEST_SUITE_P(Ports, UbloxReceiver,
                         testing::Values(Attachment{"Usb", 3, false}, Attachment{"Uart1", 1, false},
                                         Attachment{"UsbUbxOnly", 3, true}, Attachment{"Uart1UbxOnly", 1, true}),
                         [](const testing::TestParamInfo<Attachment>& info) { return info.param.name; });

}  // namespace
