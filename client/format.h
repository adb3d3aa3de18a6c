// The service's messages for people and scripts: a state as labelled,
// human-readable fields, and any message in protobuf's JSON mapping.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "halvorda/desktopenv/desktopenv.pb.h"
#include "halvorda/device/gps/gps.pb.h"

namespace google::protobuf {
class Message;
}

namespace gps::client {

class Reply;

// The service's coordinates are signed integers in 1/100000 arc-minute.
inline constexpr double kUnitsPerDegree = 60.0 * 100000.0;
inline double DegreesFromUnits(int32_t units) { return static_cast<double>(units) / kUnitsPerDegree; }

enum class FixStatus { None, Current, Old };
// Current or Old when the state carries a position; None without a state
// or without a position.
FixStatus FixStatusOf(const halvorda::device::gps::State* state);
const char* FixStatusText(FixStatus status);  // "no", "yes", "old"

// "2024-03-18 12:00:05"; empty when the date carries no field at all.
std::string FormatDateTime(const halvorda::desktopenv::Date& date);
// Decimal degrees with six places (about 0.1 m), negative south and west.
std::string FormatDegrees(int32_t units);

struct StateField {
  std::string label;
  std::string value;  // "-" when the service did not report it
};

// The rows of gps-servicectl's state and watch views, in this order: Fix,
// Receiver (only when the service's directory entry names it: "simulated" for
// the embedded simulator), Age, Latitude, Longitude, Speed, Heading, HDOP,
// Altitude, Date-time, TTFF, Power.
std::vector<StateField> ReadableState(const Reply& reply, std::string_view receiver = {});
// The rows as aligned "Label  value" lines.
std::string FormatFields(const std::vector<StateField>& fields);

// The message in protobuf's JSON mapping, with the .proto field names kept
// ("strlatitude", "poweron"); absent fields are left out.
std::string ToJson(const google::protobuf::Message& message);
// The response as ToJson gives it, with "receiver" beside the message's own
// fields when the receiver is named.
std::string StateJson(const Reply& reply, std::string_view receiver);

}  // namespace gps::client
