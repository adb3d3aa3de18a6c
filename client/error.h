// Results of the GPS client library: a numeric code, as the service and the
// framework carry it, with an optional detail, and a value-or-error wrapper.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/service/error.h"

namespace gps::client {

using Code = halvorda::os::Error;

// The service's own codes, carried back in error frames.
inline constexpr Code kServiceFailed = -1000100;         // an engine call failed, or an event did not decode
inline constexpr Code kServicePermission = -1000101;     // the caller may not change the parameters
inline constexpr Code kServiceNotPowered = -3000005;     // the receiver should be on but is not
// The client library's own codes: a range that neither the services
// (-1000xxx, -3000xxx) nor the framework (-2000xxx) use.
inline constexpr Code kServiceNotRunning = -4000001;     // the class is not registered or nobody listens on its socket
inline constexpr Code kInvalidInput = -4000002;          // a key or value given by the user is not usable
inline constexpr Code kConfigUnreadable = -4000003;      // the stored configuration cannot be read or parsed

// The words for a code: every service, framework and client code above has
// its own; other codes read "unknown error".
std::string Describe(Code code);

class Error {
 public:
  Error() = default;
  explicit Error(Code code, std::string detail = {}) : code_(code), detail_(std::move(detail)) {}

  bool ok() const { return code_ == halvorda::os::ERROR_NONE; }
  Code code() const { return code_; }
  // What went wrong beyond the code (a key, a path, a parse position); may be empty.
  const std::string& detail() const { return detail_; }
  // "permission refused (-1000101)", or "invalid input (-4000002): unknown key 'x'".
  std::string message() const;

 private:
  Code code_ = halvorda::os::ERROR_NONE;
  std::string detail_;
};

// A value, or the error that kept it from being made.
template <typename T>
class Result {
 public:
  // Implicit both ways, so a function returns a value or an Error directly.
  Result(T value) : value_(std::move(value)) {}
  // A failed result; an error that reads as success is stored as an invalid
  // input, so a result never claims success without a value.
  Result(Error error) : error_(error.ok() ? Error(kInvalidInput, "no value") : std::move(error)) {}

  bool ok() const { return value_.has_value(); }
  explicit operator bool() const { return ok(); }
  const Error& error() const { return error_; }

  T& value() & { return *value_; }
  const T& value() const& { return *value_; }
  T&& value() && { return std::move(*value_); }
  T* operator->() { return &*value_; }
  const T* operator->() const { return &*value_; }
  T& operator*() & { return *value_; }
  const T& operator*() const& { return *value_; }

 private:
  std::optional<T> value_;
  Error error_;
};

}  // namespace gps::client
