#include "client/format.h"

#include <google/protobuf/util/json_util.h>

#include <algorithm>
#include <cstdio>

#include "client/gps_client.h"

namespace gps::client {
namespace {

using halvorda::device::gps::State;

std::string OrDash(const std::string& text, const char* unit = nullptr) {
  if (text.empty()) return "-";
  return unit ? text + " " + unit : text;
}

}  // namespace

FixStatus FixStatusOf(const State* state) {
  if (!state || !state->has_latitude() || !state->has_longitude()) return FixStatus::None;
  return state->old() ? FixStatus::Old : FixStatus::Current;
}

const char* FixStatusText(FixStatus status) {
  switch (status) {
    case FixStatus::Current: return "yes";
    case FixStatus::Old: return "old";
    case FixStatus::None: break;
  }
  return "no";
}

std::string FormatDateTime(const halvorda::desktopenv::Date& date) {
  if (date.ByteSizeLong() == 0) return {};
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", date.year(), date.month(), date.day(),
                date.hour(), date.minute(), date.second());
  return text;
}

std::string FormatDegrees(int32_t units) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6f", DegreesFromUnits(units));
  return text;
}

std::vector<StateField> ReadableState(const Reply& reply, std::string_view receiver) {
  const State* state = reply.state();
  const State empty;
  const State& s = state ? *state : empty;
  std::vector<StateField> fields;
  fields.push_back({"Fix", FixStatusText(FixStatusOf(state))});
  if (!receiver.empty()) fields.push_back({"Receiver", std::string(receiver)});
  fields.push_back({"Age", s.has_age() ? std::to_string(s.age()) + " s" : "-"});
  fields.push_back({"Latitude", s.has_latitude() ? FormatDegrees(s.latitude()) : "-"});
  fields.push_back({"Longitude", s.has_longitude() ? FormatDegrees(s.longitude()) : "-"});
  fields.push_back({"Speed", OrDash(s.speedkmh(), "km/h")});
  fields.push_back({"Heading", OrDash(s.heading(), "deg")});
  fields.push_back({"HDOP", OrDash(s.hdop())});
  fields.push_back({"Altitude", OrDash(s.altitude(), "m")});
  fields.push_back({"Date-time", s.has_date() ? OrDash(FormatDateTime(s.date()), "UTC") : "-"});
  if (s.has_ttff()) {
    char ttff[32];
    std::snprintf(ttff, sizeof ttff, "%.3f s", s.ttff() / 1000.0);
    fields.push_back({"TTFF", ttff});
  } else {
    fields.push_back({"TTFF", "-"});
  }
  std::string power = reply.poweron() ? "on" : "off";
  power += reply.keepon() ? ", kept on in standby" : "";
  fields.push_back({"Power", power});
  return fields;
}

std::string FormatFields(const std::vector<StateField>& fields) {
  size_t width = 0;
  for (const StateField& field : fields) width = std::max(width, field.label.size());
  std::string text;
  for (const StateField& field : fields)
    text += field.label + std::string(width - field.label.size() + 2, ' ') + field.value + "\n";
  return text;
}

std::string ToJson(const google::protobuf::Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  std::string json;
  // Printing fails only for Any fields whose type cannot be resolved; the
  // service's messages have none.
  if (!google::protobuf::util::MessageToJsonString(message, &json, options).ok()) return "{}";
  return json;
}

std::string StateJson(const Reply& reply, std::string_view receiver) {
  std::string json = ToJson(reply.response());
  if (receiver.empty() || json.size() < 2 || json.back() != '}') return json;
  // The receiver text comes from the directory entry: escaped as JSON wants.
  std::string value;
  for (const char c : receiver) {
    if (c == '"' || c == '\\') value += '\\';
    if (static_cast<unsigned char>(c) < 0x20) continue;
    value += c;
  }
  json.pop_back();
  return json + (json.size() > 1 ? "," : "") + "\"receiver\":\"" + value + "\"}";
}

}  // namespace gps::client
