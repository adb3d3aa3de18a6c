// The engine record's reset and its listener table.
#include <gtest/gtest.h>

#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

#include "engine/gps_private_info.h"
#include "tests/support/test_env.h"

namespace {

TEST(EngineRecord, ResetClearsFixStateAndKeepsTextsHandlesAndListeners) {
  gps::test::ResetEngine(2);
  gps_private_info_t& infos = gps_private_info;
  infos.fix_quality = 1;
  infos.fix_tick = 42;
  std::strcpy(infos.latitude, "4404.14063N");
  infos.vtg_mode = 'A';
  infos.module_config_state = 2;
  std::strcpy(infos.sw_version, "ROM CORE 3.01");
  infos.sat_view_count = 9;
  infos.sat_prn_1_32[3].prn = 4;
  infos.alp_served_blocks[7] = 0xFF;
  infos.gga_tick = infos.vtg_tick = infos.gsv_group_tick = infos.mon_hw_tick = 5;
  infos.nav_pvt[0] = 1;
  infos.com_transp_handle = 7;
  infos.listener_count = 1;
  infos.power_state = 1;

  lib_GPS_ResetInfosLocked(&infos);

  EXPECT_EQ(infos.fix_quality, 0);
  EXPECT_EQ(infos.vtg_mode, 'N');
  EXPECT_EQ(infos.module_config_state, 0u);
  EXPECT_STREQ(infos.sw_version, "");
  EXPECT_EQ(infos.sat_view_count, 0u);
  EXPECT_EQ(infos.sat_prn_1_32[3].prn, 0u);
  EXPECT_EQ(infos.alp_served_blocks[7], 0);
  EXPECT_EQ(infos.gga_tick + infos.vtg_tick + infos.gsv_group_tick + infos.mon_hw_tick, 0u);
  EXPECT_EQ(infos.nav_pvt[0], 0);
  EXPECT_STREQ(infos.latitude, "4404.14063N");
  EXPECT_EQ(infos.fix_tick, 42u);
  EXPECT_EQ(infos.com_transp_handle, 7);
  EXPECT_EQ(infos.listener_count, 1);
  EXPECT_EQ(infos.power_state, 1u);
  infos.listener_count = 0;
}

TEST(EngineRecord, NotifySignalsEachMatchingListenerOnce) {
  gps::test::ResetEngine(2);
  int fds[GPS_MAX_LISTENERS];
  for (int i = 0; i < GPS_MAX_LISTENERS; ++i) {
    fds[i] = eventfd(0, EFD_NONBLOCK);
    gps_private_info.listeners[i] = {static_cast<uint16_t>(fds[i]), i % 2 ? GPS_EVENT_VERSION : GPS_EVENT_MON_HW};
  }
  gps_private_info.listener_count = GPS_MAX_LISTENERS;
  lib_GPS_NotifyListeners(&gps_private_info, GPS_EVENT_MON_HW | GPS_EVENT_MESSAGE);
  for (int i = 0; i < GPS_MAX_LISTENERS; ++i) {
    const int result = ClearEvent(fds[i]);
    EXPECT_EQ(result, i % 2 ? -1 : 8) << "listener " << i;
    close(fds[i]);
  }
  gps_private_info.listener_count = 0;
}

}  // namespace
