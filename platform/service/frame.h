// The frame of the service link. Every message on a service socket is one
// frame: a fixed 24-byte little-endian header and a payload.
//
//   offset size  field
//   0      4     magic 0x46564C48 (the bytes "HLVF")
//   4      1     version, 1
//   5      1     kind: 1 request, 2 response, 3 event, 4 error
//   6      2     reserved, 0
//   8      8     message type (FNV-1a 64 of the full protobuf name)
//   16     4     request id: chosen by the client, echoed by the response
//                or error frame; 0 on events
//   20     4     payload length [bytes], at most 65536
//   24     ...   payload: the protobuf encoding of the message; for an error
//                frame a 4-byte little-endian signed error code, and the
//                message type is the request's
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/service/error.h"

namespace google::protobuf {
class Message;
}

namespace halvorda::service {

enum class FrameKind : uint8_t { Request = 1, Response = 2, Event = 3, Error = 4 };

inline constexpr uint32_t kFrameMagic = 0x46564C48;
inline constexpr uint8_t kFrameVersion = 1;
inline constexpr size_t kFrameHeaderBytes = 24;
inline constexpr size_t kMaxPayloadBytes = 64 * 1024;
inline constexpr size_t kErrorPayloadBytes = 4;

struct FrameHeader {
  FrameKind kind = FrameKind::Request;
  uint64_t messageType = 0;
  uint32_t requestId = 0;
  uint32_t payloadBytes = 0;
};

enum class HeaderStatus { Ok, BadMagic, BadVersion, BadKind, BadReserved, TooLarge };
const char* HeaderStatusText(HeaderStatus status);

void EncodeHeader(const FrameHeader& header, std::span<uint8_t, kFrameHeaderBytes> out);
HeaderStatus DecodeHeader(std::span<const uint8_t, kFrameHeaderBytes> in, FrameHeader& out);

// Appends a whole frame. False (nothing appended) when the payload is too
// large or the message cannot be serialised.
bool AppendFrame(std::vector<uint8_t>& out, FrameKind kind, uint64_t messageType, uint32_t requestId,
                 std::span<const uint8_t> payload);
bool AppendMessageFrame(std::vector<uint8_t>& out, FrameKind kind, uint32_t requestId,
                        const google::protobuf::Message& message);
bool AppendErrorFrame(std::vector<uint8_t>& out, uint64_t messageType, uint32_t requestId, os::Error code);

// The code carried by an error frame's payload; ERROR_PROTOCOL when the
// payload has the wrong size.
os::Error ErrorFrameCode(std::span<const uint8_t> payload);

// Cuts a received byte stream into frames. Bytes are appended as they come;
// next() hands out one whole frame at a time, whose payload stays valid until
// the following append() or next().
class FrameReader {
 public:
  enum class Result { NeedMore, Frame, Broken };

  void append(std::span<const uint8_t> bytes);
  Result next(FrameHeader& header, std::span<const uint8_t>& payload);

  // Why the stream broke, after next() answered Broken.
  HeaderStatus brokenStatus() const { return broken_; }
  // Bytes received but not yet handed out as a frame.
  size_t pendingBytes() const { return buffer_.size() - start_; }

 private:
  std::vector<uint8_t> buffer_;
  size_t start_ = 0;
  HeaderStatus broken_ = HeaderStatus::Ok;
};

}  // namespace halvorda::service
