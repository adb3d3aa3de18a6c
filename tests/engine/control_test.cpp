// Control requests as the engine thread receives them: what lands in the
// record and which channel is signalled, without a thread consuming them.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

#include "engine/gps_events.h"
#include "engine/gps_geolocating.h"
#include "tests/support/test_env.h"

namespace {

class ControlRequests : public testing::Test {
 protected:
  void SetUp() override {
    gps::test::ResetEngine(2);
    for (int* channel : {&CHANGE_POWER_STATE_eventfd, &CHANGE_LOGGING_STATE_eventfd, &CHANGE_FORWARD_DEVICE_eventfd})
      *channel = eventfd(0, EFD_NONBLOCK);
  }
  void TearDown() override {
    for (int* channel : {&CHANGE_POWER_STATE_eventfd, &CHANGE_LOGGING_STATE_eventfd, &CHANGE_FORWARD_DEVICE_eventfd}) {
      close(*channel);
      *channel = -1;
    }
  }
  // Signals pending on a channel (several collapse into their count).
  static uint64_t Pending(int channel) {
    uint64_t count = 0;
    return read(channel, &count, sizeof count) == sizeof count ? count : 0;
  }
};

TEST_F(ControlRequests, OnlyChangesAreSignalled) {
  lib_GPS_Geolocating_GPS_SetPower(1);
  lib_GPS_Geolocating_GPS_SetPower(1);
  EXPECT_EQ(Pending(CHANGE_POWER_STATE_eventfd), 1u);
  lib_GPS_Geolocating_GPS_SetPower(0);
  EXPECT_EQ(Pending(CHANGE_POWER_STATE_eventfd), 1u);

  lib_GPS_Geolocating_GPS_LogDataStop();
  EXPECT_EQ(Pending(CHANGE_LOGGING_STATE_eventfd), 0u) << "already stopped";
  lib_GPS_Geolocating_GPS_LogDataStart();
  EXPECT_EQ(Pending(CHANGE_LOGGING_STATE_eventfd), 1u);
}

TEST_F(ControlRequests, ListenerTableKeepsOrderAndBounds) {
  for (uint16_t fd = 100; fd < 100 + GPS_MAX_LISTENERS; ++fd)
    ASSERT_EQ(lib_GPS_Geolocating_GPS_AddEventListener(fd, GPS_EVENT_MESSAGE), 0);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_AddEventListener(200, GPS_EVENT_MESSAGE), GEOLOCATING_GPS_ERROR_TOO_MANY_LISTENERS);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_RemoveEventListener(101, GPS_EVENT_VERSION), GEOLOCATING_GPS_ERROR_LISTENER_NOT_FOUND)
      << "the mask must match too";
  EXPECT_EQ(lib_GPS_Geolocating_GPS_RemoveEventListener(101, GPS_EVENT_MESSAGE), 0);
  EXPECT_EQ(gps_private_info.listener_count, GPS_MAX_LISTENERS - 1);
  EXPECT_EQ(gps_private_info.listeners[1].listener_fd, 102) << "later entries move down in order";
  EXPECT_EQ(gps_private_info.listeners[GPS_MAX_LISTENERS - 2].listener_fd, 100 + GPS_MAX_LISTENERS - 1);
}

TEST_F(ControlRequests, TransparentDeviceCallsToggleForwarding) {
  EXPECT_EQ(lib_GPS_Geolocating_GPS_SetTransparentDevice("/dev/ttyUSB0"), 0);
  EXPECT_STREQ(gps_private_info.transparent_device, "/dev/ttyUSB0");
  gps_private_info.com_transp_handle = 42;  // the engine thread opened it
  EXPECT_EQ(lib_GPS_Geolocating_GPS_SetTransparentDevice("/dev/ttyUSB1"), 0);
  EXPECT_STREQ(gps_private_info.transparent_device, "") << "a call while forwarding stops it";
  EXPECT_EQ(Pending(CHANGE_FORWARD_DEVICE_eventfd), 2u);

  // A name too long is refused; while forwarding, the call still stops it.
  EXPECT_EQ(lib_GPS_Geolocating_GPS_SetTransparentDevice("/dev/0123456789a"), GEOLOCATING_GPS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(Pending(CHANGE_FORWARD_DEVICE_eventfd), 1u);
  gps_private_info.com_transp_handle = -1;
  std::strcpy(gps_private_info.transparent_device, "/dev/ttyUSB0");
  EXPECT_EQ(lib_GPS_Geolocating_GPS_SetTransparentDevice("/dev/0123456789a"), GEOLOCATING_GPS_ERROR_INVALID_PARAMETER);
  EXPECT_STREQ(gps_private_info.transparent_device, "/dev/ttyUSB0") << "not forwarding: the refused call changes nothing";
  EXPECT_EQ(Pending(CHANGE_FORWARD_DEVICE_eventfd), 0u);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_SetModuleDevice("/dev/0123456789a"), GEOLOCATING_GPS_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(lib_GPS_Geolocating_GPS_SetModuleDevice("/dev/0123456789"), 0) << "15 characters fit";
  char name[16] = {};
  lib_GPS_Geolocating_GPS_GetModuleDevice(name, sizeof name);
  EXPECT_STREQ(name, "/dev/0123456789");
}

TEST_F(ControlRequests, ModemVersionTextIsCutToTheCallersBuffer) {
  // 49 characters: the most the record holds. sw is 32 bytes, as callers pass it;
  // the address sanitizer sees any byte written past it.
  std::memset(gps_private_info.gprs_module_version, 'v', sizeof gps_private_info.gprs_module_version - 1);
  auto sw = std::make_unique<char[]>(32);
  char hw[16] = {}, ext[4][32] = {};
  EXPECT_EQ(lib_GPS_Geolocating_GPS_GetVersion(sw.get(), hw, ext[0], ext[1], ext[2], ext[3]),
            GEOLOCATING_GPS_ERROR_NO_VERSION);
  EXPECT_EQ(std::string(sw.get(), 32), std::string(32, 'v'));
}

}  // namespace
