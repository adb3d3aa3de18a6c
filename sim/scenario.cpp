#include "sim/scenario.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numbers>
#include <sstream>

#include "sim/nmea_generator.h"

namespace gps::sim {

namespace {

constexpr double kEarthRadiusM = 6371000.0;

double Radians(double degrees) { return degrees * std::numbers::pi / 180.0; }
double Degrees(double radians) { return radians * 180.0 / std::numbers::pi; }

double DistanceM(const Waypoint& a, const Waypoint& b) {
  const double dLat = Radians(b.latitudeDeg - a.latitudeDeg);
  const double dLon = Radians(b.longitudeDeg - a.longitudeDeg);
  const double h = std::sin(dLat / 2) * std::sin(dLat / 2) + std::cos(Radians(a.latitudeDeg)) *
                                                                 std::cos(Radians(b.latitudeDeg)) *
                                                                 std::sin(dLon / 2) * std::sin(dLon / 2);
  return 2 * kEarthRadiusM * std::asin(std::sqrt(std::min(1.0, h)));
}

double InitialBearingDeg(const Waypoint& a, const Waypoint& b) {
  const double lat1 = Radians(a.latitudeDeg);
  const double lat2 = Radians(b.latitudeDeg);
  const double dLon = Radians(b.longitudeDeg - a.longitudeDeg);
  const double y = std::sin(dLon) * std::cos(lat2);
  const double x = std::cos(lat1) * std::sin(lat2) - std::sin(lat1) * std::cos(lat2) * std::cos(dLon);
  double bearing = Degrees(std::atan2(y, x));
  if (bearing < 0) bearing += 360;
  return bearing;
}

bool ParseNumber(const std::string& text, double* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  *value = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size() && std::isfinite(*value);
}

// "2024-03-18T12:00:00Z"
bool ParseUtc(const std::string& text, int64_t* unixMs) {
  int year, month, day, hour, minute, second;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%c", &year, &month, &day, &hour, &minute, &second,
                  &tail) != 7 ||
      tail != 'Z' || text.size() != 20)
    return false;
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) return false;
  *unixMs = ((DaysFromCivil(year, month, day) * 24 + hour) * 60 + minute) * 60000 + second * 1000LL;
  return true;
}

}  // namespace

Scenario Scenario::DefaultRoute() {
  Scenario s;
  s.points_ = {
      {48.85660, 2.35220, 35}, {48.86060, 2.34700, 36}, {48.86370, 2.35450, 38},
      {48.85900, 2.36500, 41}, {48.85300, 2.36200, 36}, {48.85100, 2.35400, 34},
  };
  s.BuildLegs();
  return s;
}

Scenario Scenario::FixedPoint(const Waypoint& point) {
  Scenario s;
  s.points_ = {point};
  s.speedMps_ = 0;
  s.BuildLegs();
  return s;
}

std::optional<Scenario> Scenario::Parse(std::string_view text, std::string* error) {
  Scenario s;
  std::istringstream in{std::string(text)};
  std::string line;
  int lineNumber = 0;
  auto fail = [&](const std::string& why) {
    if (error) *error = "line " + std::to_string(lineNumber) + ": " + why;
    return std::nullopt;
  };
  while (std::getline(in, line)) {
    ++lineNumber;
    if (const size_t hash = line.find('#'); hash != std::string::npos) line.erase(hash);
    std::istringstream words(line);
    std::vector<std::string> w;
    for (std::string word; words >> word;) w.push_back(word);
    if (w.empty()) continue;
    const std::string& directive = w[0];
    if (directive == "point") {
      if (w.size() != 3 && w.size() != 4) return fail("point needs LAT LON [ALT]");
      Waypoint p;
      if (!ParseNumber(w[1], &p.latitudeDeg) || !ParseNumber(w[2], &p.longitudeDeg) ||
          (w.size() == 4 && !ParseNumber(w[3], &p.altitudeM)))
        return fail("point: not a number");
      if (std::fabs(p.latitudeDeg) > 90 || std::fabs(p.longitudeDeg) > 180) return fail("point: out of range");
      s.points_.push_back(p);
    } else if (directive == "speed") {
      if (w.size() != 2 || !ParseNumber(w[1], &s.speedMps_) || s.speedMps_ < 0)
        return fail("speed needs a number of m/s, 0 or more");
    } else if (directive == "loop") {
      if (w.size() != 2 || (w[1] != "yes" && w[1] != "no")) return fail("loop needs yes or no");
      s.loop_ = w[1] == "yes";
    } else if (directive == "geoid") {
      if (w.size() != 2 || !ParseNumber(w[1], &s.geoidSeparationM_)) return fail("geoid needs a number of metres");
    } else if (directive == "start") {
      int64_t ms = 0;
      if (w.size() != 2 || !ParseUtc(w[1], &ms)) return fail("start needs YYYY-MM-DDTHH:MM:SSZ");
      s.startUtcMs_ = ms;
    } else {
      return fail("unknown directive '" + directive + "'");
    }
  }
  if (s.points_.empty()) {
    if (error) *error = "no point";
    return std::nullopt;
  }
  s.BuildLegs();
  return s;
}

std::optional<Scenario> Scenario::Load(const std::string& path, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    if (error) *error = "cannot read scenario " + path;
    return std::nullopt;
  }
  std::stringstream text;
  text << in.rdbuf();
  std::string why;
  auto scenario = Parse(text.str(), &why);
  if (!scenario && error) *error = path + ": " + why;
  return scenario;
}

void Scenario::BuildLegs() {
  legs_.clear();
  totalM_ = 0;
  const size_t n = points_.size();
  const size_t legCount = loop_ ? n : n - 1;
  for (size_t i = 0; i < legCount && n > 1; ++i) {
    Leg leg{points_[i], points_[(i + 1) % n], totalM_, 0, 0};
    leg.lengthM = DistanceM(leg.from, leg.to);
    if (leg.lengthM <= 0) continue;
    leg.courseDeg = InitialBearingDeg(leg.from, leg.to);
    legs_.push_back(leg);
    totalM_ += leg.lengthM;
  }
}

ScenarioPosition Scenario::At(double secondsSinceStart) const {
  ScenarioPosition pos;
  if (legs_.empty() || speedMps_ <= 0) {
    const Waypoint& p = points_.front();
    pos.latitudeDeg = p.latitudeDeg;
    pos.longitudeDeg = p.longitudeDeg;
    pos.altitudeM = p.altitudeM;
    pos.courseDeg = legs_.empty() ? 0 : legs_.front().courseDeg;
    return pos;
  }
  double travelledM = speedMps_ * std::max(0.0, secondsSinceStart);
  bool arrived = false;
  if (loop_) {
    travelledM = std::fmod(travelledM, totalM_);
  } else if (travelledM >= totalM_) {
    travelledM = totalM_;
    arrived = true;
  }
  const Leg* leg = &legs_.back();
  for (const Leg& candidate : legs_) {
    if (travelledM < candidate.startM + candidate.lengthM) {
      leg = &candidate;
      break;
    }
  }
  // Legs are a few km at most: interpolating the coordinates linearly stays
  // within centimetres of the great circle.
  const double f = std::clamp((travelledM - leg->startM) / leg->lengthM, 0.0, 1.0);
  pos.latitudeDeg = leg->from.latitudeDeg + f * (leg->to.latitudeDeg - leg->from.latitudeDeg);
  pos.longitudeDeg = leg->from.longitudeDeg + f * (leg->to.longitudeDeg - leg->from.longitudeDeg);
  pos.altitudeM = leg->from.altitudeM + f * (leg->to.altitudeM - leg->from.altitudeM);
  pos.courseDeg = leg->courseDeg;
  pos.speedMps = arrived ? 0 : speedMps_;
  return pos;
}

}  // namespace gps::sim
