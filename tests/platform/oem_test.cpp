// System requests answered from platform.ini.
#include <gtest/gtest.h>

#include <fstream>

#include "platform/oem.h"
#include "platform/root.h"
#include "tests/support/test_env.h"

namespace {

TEST(Oem, RequestsAreAnsweredFromThePlatformSettings) {
  gps::test::TempRoot root;
  uint32_t value = 99;
  EXPECT_EQ(Oem_SystemFioctl(OEM_REQUEST_GPS_MODULE_TYPE, &value), 0);
  EXPECT_EQ(value, 2u) << "UBX-M8030 without platform.ini";
  EXPECT_EQ(Oem_SystemFioctl(OEM_REQUEST_STARTUP_MODE, &value), 0);
  EXPECT_EQ(value, 0u);

  std::ofstream(root / "platform.ini") << "[platform]\nmodule_type = 7\nstartup_mode = 1\n";
  gps::platform::ReloadRoot();
  EXPECT_EQ(Oem_SystemFioctl(OEM_REQUEST_GPS_MODULE_TYPE, &value), 0);
  EXPECT_EQ(value, 7u);
  EXPECT_EQ(Oem_SystemFioctl(OEM_REQUEST_STARTUP_MODE, &value), 1);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(Oem_SystemFioctl(OEM_REQUEST_STARTUP_MODE, nullptr), 1) << "the service asks without an argument";

  EXPECT_LT(Oem_SystemFioctl(0x1234, &value), 0);
  EXPECT_LT(Oem_SystemFioctl(OEM_REQUEST_GPS_MODULE_TYPE, nullptr), 0);
}

}  // namespace
