// The state as gps-servicectl shows it.
#include <gtest/gtest.h>

#include <map>

#include "client/format.h"
#include "client/gps_client.h"
#include "tests/client/scripted_service.h"

namespace gps::client::test {
namespace {

std::map<std::string, std::string> Rows(const SetGetStateResponse& response) {
  std::map<std::string, std::string> rows;
  for (const StateField& field : ReadableState(Reply(response))) rows[field.label] = field.value;
  return rows;
}

TEST(FormatTest, ReadableStateConvertsUnitsAndTellsFixKinds) {
  const SetGetStateResponse current = ResponseWithFix();
  auto rows = Rows(current);
  EXPECT_EQ(rows.size(), 11u);
  EXPECT_EQ(rows["Fix"], "yes");
  EXPECT_EQ(rows["Latitude"], "48.117300");     // 48 deg 07.038 min
  EXPECT_EQ(rows["Longitude"], "-123.761315");  // 123 deg 45.6789 min west
  EXPECT_EQ(rows["Speed"], "12.5 km/h");
  EXPECT_EQ(rows["Date-time"], "2024-03-05 07:08:09 UTC");
  EXPECT_EQ(rows["TTFF"], "28.500 s");
  EXPECT_EQ(rows["Power"], "on");

  // A stale fix reports position, date and age, but no speed or altitude.
  SetGetStateResponse stale = current;
  State* state = stale.mutable_state();
  state->set_old(true);
  state->set_age(42);
  state->clear_speedkmh();
  state->clear_altitude();
  state->set_latitude(-203212345);  // 3352.12345S
  stale.mutable_parameters()->set_keepon(true);
  rows = Rows(stale);
  EXPECT_EQ(rows["Fix"], "old");
  EXPECT_EQ(rows["Age"], "42 s");
  EXPECT_EQ(rows["Latitude"], "-33.868724");
  EXPECT_EQ(rows["Speed"], "-");
  EXPECT_EQ(rows["Altitude"], "-");
  EXPECT_EQ(rows["Power"], "on, kept on in standby");

  // Receiver on without a fix yet: a state without position or date.
  SetGetStateResponse searching;
  searching.mutable_parameters()->set_poweron(true);
  searching.mutable_state()->set_ttff(0);
  rows = Rows(searching);
  EXPECT_EQ(rows["Fix"], "no");
  EXPECT_EQ(rows["Date-time"], "-");

  // Receiver off: no state at all.
  rows = Rows(SetGetStateResponse());
  EXPECT_EQ(rows["Fix"], "no");
  EXPECT_EQ(rows["Latitude"], "-");
  EXPECT_EQ(rows["Power"], "off");
}

}  // namespace
}  // namespace gps::client::test
