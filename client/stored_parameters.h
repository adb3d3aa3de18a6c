// The service's stored parameters, read and written from outside the
// service: $ROOT/config/local.device.gps.conf, protobuf text format of
// Parameters, the same file the service keeps through its configuration
// store. A write replaces the file atomically, so the running service sees
// one complete change (it watches the directory) and reacts to it as to any
// outside edit.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/error.h"
#include "halvorda/device/gps/gps.pb.h"

namespace gps::client {

// The path below the current platform root.
std::string StoredParametersPath();

// The stored parameters; an absent file reads as empty parameters (both
// unset, which the service takes as false). kConfigUnreadable for a file
// that cannot be read or does not parse as Parameters.
Result<halvorda::device::gps::Parameters> ReadStoredParameters();
// Replaces the file with the parameters. The directory is created when
// missing; the mode of an existing file is kept.
Error WriteStoredParameters(const halvorda::device::gps::Parameters& parameters);

struct ParameterChange {
  std::optional<bool> poweron;
  std::optional<bool> keepon;
};

// "on"/"off", "true"/"false", "1"/"0", in any letter case.
std::optional<bool> ParseSwitch(std::string_view text);
// Assignments "poweron=on keepon=0"; a later one for the same key wins.
// kInvalidInput naming the assignment, the key or the value that is wrong,
// or when there is none.
Result<ParameterChange> ParseParameterAssignments(const std::vector<std::string>& assignments);

// Reads the stored parameters, applies the change and writes them back
// when anything differs. Returns the parameters as now stored. A file that
// cannot be read is left as it is.
Result<halvorda::device::gps::Parameters> UpdateStoredParameters(const ParameterChange& change);

}  // namespace gps::client
