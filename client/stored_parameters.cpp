#include "client/stored_parameters.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "client/gps_client.h"
#include "platform/root.h"
#include "platform/service/config_store.h"
#include "platform/service/file_util.h"

namespace gps::client {
namespace {

using halvorda::device::gps::Parameters;

class FirstParseError final : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, int column, const std::string& message) override {
    if (text.empty()) text = "line " + std::to_string(line + 1) + " column " + std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

std::string Lower(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

std::string PrintText(const Parameters& parameters) {
  std::string text;
  google::protobuf::TextFormat::PrintToString(parameters, &text);
  return text;
}

}  // namespace

std::string StoredParametersPath() { return platform::Root() + "/config/" + kServiceClass + ".conf"; }

Result<Parameters> ReadStoredParameters() {
  const std::string path = StoredParametersPath();
  std::string text;
  switch (halvorda::service::ReadWholeFile(path, halvorda::service::kMaxConfigBytes, text)) {
    case halvorda::service::ReadStatus::Missing: return Parameters();
    case halvorda::service::ReadStatus::TooLarge: return Error(kConfigUnreadable, path + ": larger than 64 KiB");
    case halvorda::service::ReadStatus::Failed: return Error(kConfigUnreadable, path + ": unreadable or not a file");
    case halvorda::service::ReadStatus::Ok: break;
  }
  google::protobuf::TextFormat::Parser parser;
  FirstParseError errors;
  parser.RecordErrorsTo(&errors);
  Parameters parameters;
  if (!parser.ParseFromString(text, &parameters))
    return Error(kConfigUnreadable, path + ": " + (errors.text.empty() ? "not valid parameters" : errors.text));
  return parameters;
}

Error WriteStoredParameters(const Parameters& parameters) {
  const std::string path = StoredParametersPath();
  const std::string directory = halvorda::service::ParentDirectory(path);
  if (!platform::MakeDirectories(directory)) return Error(halvorda::service::ERROR_IO, directory + ": " + std::strerror(errno));
  mode_t mode = 0644;
  if (struct stat st{}; ::stat(path.c_str(), &st) == 0) mode = st.st_mode & 07777;
  if (!halvorda::service::WriteFileAtomically(path, PrintText(parameters), mode))
    return Error(halvorda::service::ERROR_IO, "cannot write " + path);
  return Error();
}

std::optional<bool> ParseSwitch(std::string_view text) {
  const std::string value = Lower(text);
  if (value == "on" || value == "true" || value == "1") return true;
  if (value == "off" || value == "false" || value == "0") return false;
  return std::nullopt;
}

Result<ParameterChange> ParseParameterAssignments(const std::vector<std::string>& assignments) {
  if (assignments.empty()) return Error(kInvalidInput, "no key=value given");
  ParameterChange change;
  for (const std::string& assignment : assignments) {
    const size_t equals = assignment.find('=');
    if (equals == std::string::npos) return Error(kInvalidInput, "'" + assignment + "' is not key=value");
    const std::string key = assignment.substr(0, equals);
    const std::string value = assignment.substr(equals + 1);
    std::optional<bool>* target = key == "poweron" ? &change.poweron : key == "keepon" ? &change.keepon : nullptr;
    if (!target) return Error(kInvalidInput, "unknown key '" + key + "' (keys: poweron, keepon)");
    const std::optional<bool> parsed = ParseSwitch(value);
    if (!parsed) return Error(kInvalidInput, "bad value '" + value + "' for " + key + " (use on/off, true/false, 1/0)");
    *target = parsed;
  }
  return change;
}

Result<Parameters> UpdateStoredParameters(const ParameterChange& change) {
  Result<Parameters> stored = ReadStoredParameters();
  if (!stored) return stored;
  const bool existed = ::access(StoredParametersPath().c_str(), F_OK) == 0;
  Parameters updated = *stored;
  if (change.poweron) updated.set_poweron(*change.poweron);
  if (change.keepon) updated.set_keepon(*change.keepon);
  if (existed && PrintText(updated) == PrintText(*stored)) return updated;
  if (Error written = WriteStoredParameters(updated); !written.ok()) return written;
  return updated;
}

}  // namespace gps::client
