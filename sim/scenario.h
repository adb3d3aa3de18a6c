// Where the simulated receiver is: a fixed point, or a list of way points
// followed at a constant speed, the course pointing along the current leg.
//
// Scenario file: one directive per line; '#' starts a comment; blank lines
// are ignored; numbers use a '.' decimal point.
//
//   point LAT LON [ALT]     way point: degrees (north and east positive) and
//                           metres above mean sea level (default 0);
//                           at least one; a single point is a fixed position
//   speed MPS               ground speed along the way points in m/s
//                           (default 10; 0 stands still at the first point)
//   loop yes|no             after the last point go back to the first
//                           (default yes) or stop at the last one
//   geoid METRES            geoid separation reported with the fix (default 47)
//   start YYYY-MM-DDTHH:MM:SSZ
//                           UTC time when the simulation starts (default:
//                           the real clock at start)
//
// Example, a 1.2 km triangle walked at 1.4 m/s:
//
//   speed 1.4
//   point 48.85660 2.35220 35
//   point 48.86030 2.35590 38
//   point 48.85410 2.36020 33
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gps::sim {

struct Waypoint {
  double latitudeDeg = 0;
  double longitudeDeg = 0;
  double altitudeM = 0;
};

struct ScenarioPosition {
  double latitudeDeg = 0;
  double longitudeDeg = 0;
  double altitudeM = 0;  // above mean sea level
  double speedMps = 0;
  double courseDeg = 0;  // true, 0..360
};

class Scenario {
 public:
  // A 4.1 km loop through central Paris at 10 m/s, from 48.8566 N 2.3522 E.
  static Scenario DefaultRoute();
  static Scenario FixedPoint(const Waypoint& point);
  // nullopt with a message naming the line in `error` for a malformed text.
  static std::optional<Scenario> Parse(std::string_view text, std::string* error);
  static std::optional<Scenario> Load(const std::string& path, std::string* error);

  ScenarioPosition At(double secondsSinceStart) const;

  const std::vector<Waypoint>& waypoints() const { return points_; }
  double speedMps() const { return speedMps_; }
  bool loop() const { return loop_; }
  double geoidSeparationM() const { return geoidSeparationM_; }
  std::optional<int64_t> startUtcMs() const { return startUtcMs_; }
  // Length of one trip along the way points (including the closing leg of a loop).
  double routeLengthM() const { return totalM_; }

 private:
  struct Leg {
    Waypoint from;
    Waypoint to;
    double startM = 0;
    double lengthM = 0;
    double courseDeg = 0;
  };
  void BuildLegs();

  std::vector<Waypoint> points_;
  double speedMps_ = 10;
  bool loop_ = true;
  double geoidSeparationM_ = 47;
  std::optional<int64_t> startUtcMs_;
  std::vector<Leg> legs_;
  double totalM_ = 0;
};

}  // namespace gps::sim
