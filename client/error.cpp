#include "client/error.h"

namespace gps::client {

std::string Describe(Code code) {
  switch (code) {
    case kServiceFailed: return "service operation failed";
    case kServicePermission: return "permission refused";
    case kServiceNotPowered: return "receiver not powered";
    case kServiceNotRunning: return "service not running";
    case kInvalidInput: return "invalid input";
    case kConfigUnreadable: return "stored configuration unusable";
    default: break;
  }
  const std::string framework = halvorda::service::ErrorName(code);
  return framework == "unknown" ? "unknown error" : framework;
}

std::string Error::message() const {
  std::string text = Describe(code_) + " (" + std::to_string(code_) + ")";
  if (!detail_.empty()) text += ": " + detail_;
  return text;
}

}  // namespace gps::client
