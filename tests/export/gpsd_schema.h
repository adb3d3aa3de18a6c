// The object classes of the gpsd JSON protocol 3 as gpsd_json(5) describes
// them: for each class the fields a client may rely on and their JSON types.
// Both the unit tests and the tests against the running daemon check every
// object they see against this table.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace gps::test {

enum class JsonType { String, Integer, Number, Boolean, Array, Object };

struct FieldRule {
  const char* name;
  JsonType type;
  bool required;
};

inline const std::map<std::string, std::vector<FieldRule>>& GpsdSchema() {
  using T = JsonType;
  static const std::map<std::string, std::vector<FieldRule>> schema = {
      {"VERSION",
       {{"release", T::String, true}, {"rev", T::String, true}, {"proto_major", T::Integer, true},
        {"proto_minor", T::Integer, true}}},
      {"WATCH",
       {{"enable", T::Boolean, false}, {"json", T::Boolean, false}, {"nmea", T::Boolean, false},
        {"raw", T::Integer, false}, {"scaled", T::Boolean, false}, {"timing", T::Boolean, false},
        {"split24", T::Boolean, false}, {"pps", T::Boolean, false}, {"device", T::String, false}}},
      {"DEVICES", {{"devices", T::Array, true}}},
      {"DEVICE",
       {{"path", T::String, false}, {"activated", T::String, false}, {"flags", T::Integer, false},
        {"driver", T::String, false}, {"subtype", T::String, false}, {"subtype1", T::String, false},
        {"bps", T::Integer, false}, {"parity", T::String, false}, {"stopbits", T::Integer, false},
        {"native", T::Integer, false}, {"cycle", T::Number, false}}},
      {"TPV",
       {{"device", T::String, false}, {"mode", T::Integer, true}, {"status", T::Integer, false},
        {"time", T::String, false}, {"lat", T::Number, false}, {"lon", T::Number, false},
        {"altHAE", T::Number, false}, {"altMSL", T::Number, false}, {"alt", T::Number, false},
        {"geoidSep", T::Number, false}, {"eph", T::Number, false}, {"epv", T::Number, false},
        {"track", T::Number, false}, {"speed", T::Number, false}, {"climb", T::Number, false},
        {"leapseconds", T::Integer, false}}},
      {"SKY",
       {{"device", T::String, false}, {"time", T::String, false}, {"hdop", T::Number, false},
        {"vdop", T::Number, false}, {"pdop", T::Number, false}, {"nSat", T::Integer, false},
        {"uSat", T::Integer, false}, {"satellites", T::Array, false}}},
      {"POLL",
       {{"time", T::String, true}, {"active", T::Integer, true}, {"tpv", T::Array, true}, {"sky", T::Array, true}}},
      {"ERROR", {{"message", T::String, true}}},
  };
  return schema;
}

inline bool HasType(const nlohmann::json& value, JsonType type) {
  switch (type) {
    case JsonType::String: return value.is_string();
    case JsonType::Integer: return value.is_number_integer();
    case JsonType::Number: return value.is_number();
    case JsonType::Boolean: return value.is_boolean();
    case JsonType::Array: return value.is_array();
    case JsonType::Object: return value.is_object();
  }
  return false;
}

// Empty when the object follows the protocol; otherwise what is wrong. Nested
// objects (DEVICES' devices, POLL's tpv and sky, SKY's satellites) are
// checked too.
inline std::string SchemaProblems(const nlohmann::json& object) {
  if (!object.is_object() || !object.contains("class") || !object["class"].is_string())
    return "not an object with a class: " + object.dump();
  const std::string cls = object["class"];
  const auto& schema = GpsdSchema();
  const auto rules = schema.find(cls);
  if (rules == schema.end()) return "unknown class " + cls;
  std::string problems;
  for (const FieldRule& rule : rules->second) {
    if (!object.contains(rule.name)) {
      if (rule.required) problems += cls + "." + rule.name + " missing; ";
    } else if (!HasType(object[rule.name], rule.type)) {
      problems += cls + "." + rule.name + " has the wrong type; ";
    }
  }
  for (const auto& [key, value] : object.items()) {
    if (key == "class") continue;
    bool known = false;
    for (const FieldRule& rule : rules->second) known = known || key == rule.name;
    if (!known) problems += cls + "." + key + " is not a field of the protocol; ";
  }
  auto nested = [&](const char* field, const char* expected) {
    if (!object.contains(field) || !object[field].is_array()) return;
    for (const auto& item : object[field]) {
      if (!item.is_object() || item.value("class", "") != expected) {
        problems += cls + "." + field + " holds something other than " + expected + "; ";
        continue;
      }
      problems += SchemaProblems(item);
    }
  };
  if (cls == "DEVICES") nested("devices", "DEVICE");
  if (cls == "POLL") {
    nested("tpv", "TPV");
    nested("sky", "SKY");
  }
  if (cls == "SKY" && object.contains("satellites") && object["satellites"].is_array()) {
    for (const auto& sat : object["satellites"]) {
      if (!sat.contains("PRN") || !sat["PRN"].is_number()) problems += "SKY satellite PRN missing; ";
      for (const char* key : {"el", "az", "ss"})  // absent when the receiver did not report them
        if (sat.contains(key) && !sat[key].is_number()) problems += std::string("SKY satellite ") + key + " not a number; ";
      if (!sat.contains("used") || !sat["used"].is_boolean()) problems += "SKY satellite used missing; ";
    }
  }
  if (cls == "TPV" && object.contains("mode") && object["mode"].is_number_integer()) {
    const int mode = object["mode"];
    if (mode < 0 || mode > 3) problems += "TPV.mode out of 0..3; ";
    if (mode >= 2 && (!object.contains("lat") || !object.contains("lon"))) problems += "TPV with a fix lacks lat/lon; ";
  }
  return problems;
}

}  // namespace gps::test
