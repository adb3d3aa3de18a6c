// Results of the service framework: 0 for success, a negative code otherwise.
#pragma once

#include <cstdint>

namespace halvorda::os {

// A service handler's or framework call's result. Services define their own
// codes in the million range (-1000xxx, -3000xxx); the framework's own codes
// live in the -2000xxx range below, so the two never collide.
using Error = std::int32_t;

inline constexpr Error ERROR_NONE = 0;

}  // namespace halvorda::os

namespace halvorda::service {

// The framework's codes, as returned by its calls and as carried by error
// frames that the framework itself sends.
inline constexpr os::Error ERROR_PERMISSION_DENIED = -2000001;  // the caller's certificate lacks every role of the binding
inline constexpr os::Error ERROR_NO_BINDING = -2000002;         // no handler is bound to the message type
inline constexpr os::Error ERROR_DECODE = -2000003;             // the payload is not a valid message of the expected type
inline constexpr os::Error ERROR_TIMEOUT = -2000004;            // no answer within the time allowed
inline constexpr os::Error ERROR_DISCONNECTED = -2000005;       // the connection is closed or was never opened
inline constexpr os::Error ERROR_SEND = -2000006;               // the message could not be sent (already answered, not a request, buffer full)
inline constexpr os::Error ERROR_RESERVED = -2000007;           // the service is reserved by another connection
inline constexpr os::Error ERROR_NOT_FOUND = -2000008;           // no such service class, file or entry
inline constexpr os::Error ERROR_INVALID = -2000009;            // an argument or a file is not usable
inline constexpr os::Error ERROR_IO = -2000010;                 // a system call failed
inline constexpr os::Error ERROR_PROTOCOL = -2000011;           // the peer broke the frame protocol
inline constexpr os::Error ERROR_NO_ANSWER = -2000012;          // the handler returned success without answering
inline constexpr os::Error ERROR_IN_USE = -2000013;             // a running process holds the name or address

// A short name for logs and for gps-servicectl's messages; "unknown" for codes that
// are not the framework's.
const char* ErrorName(os::Error code);

}  // namespace halvorda::service
