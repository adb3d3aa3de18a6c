// Coordinate texts of the engine as the state's signed integers.
#include <gtest/gtest.h>

#include "service/gps_core.h"

namespace {

TEST(ConvertAngle, CoordinateTextsBecomeHundredThousandthsOfAMinute) {
  const struct {
    const char* text;
    int32_t value;
  } cases[] = {
      {"4807.038N", 288703800},      {"01131.000E", 69100000},     {"12345.6789W", -742567890},
      {"3352.1234567S", -203212345}, {"18000.00000E", 1080000000}, {"4807.5N", 288750000},
      {"4807N", 0},                  {"7.5N", 750000},             {"", 0},
      {"4807.038X", 288703800},     {"9000.00001N", 0},           {"18000.00001W", 0},
      {"99999999999.9E", 0},        {"4807.0-8N", 0},
  };
  for (const auto& c : cases) EXPECT_EQ(GPSCore::convertAngleNMEA(c.text), c.value) << c.text;
}

TEST(SplitString, DelimitersEndPiecesWithoutAnEmptyTail) {
  const auto split = [](const std::string& text) {
    std::vector<std::string> pieces;
    GPSCore::splitString(text, '.', pieces);
    return pieces;
  };
  EXPECT_EQ(split("48.07"), (std::vector<std::string>{"48", "07"}));
  EXPECT_EQ(split("48."), (std::vector<std::string>{"48"}));
  EXPECT_EQ(split(".5"), (std::vector<std::string>{"", "5"}));
  EXPECT_EQ(split(""), (std::vector<std::string>{""}));
  EXPECT_EQ(split("1..2"), (std::vector<std::string>{"1", "", "2"}));
}

}  // namespace
