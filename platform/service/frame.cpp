#include "platform/service/frame.h"
#include "platform/service/message_type.h"

#include <google/protobuf/message.h>

#include <cstring>
#include <limits>

namespace halvorda::service {
namespace {

void PutLe(uint8_t* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint64_t GetLe(const uint8_t* in, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(in[i]) << (8 * i);
  return value;
}

}  // namespace

const char* HeaderStatusText(HeaderStatus status) {
  switch (status) {
    case HeaderStatus::Ok: return "ok";
    case HeaderStatus::BadMagic: return "bad magic";
    case HeaderStatus::BadVersion: return "unsupported version";
    case HeaderStatus::BadKind: return "unknown frame kind";
    case HeaderStatus::BadReserved: return "reserved bits set";
    case HeaderStatus::TooLarge: return "payload above 64 KiB";
  }
  return "?";
}

void EncodeHeader(const FrameHeader& header, std::span<uint8_t, kFrameHeaderBytes> out) {
  PutLe(&out[0], kFrameMagic, 4);
  out[4] = kFrameVersion;
  out[5] = static_cast<uint8_t>(header.kind);
  PutLe(&out[6], 0, 2);
  PutLe(&out[8], header.messageType, 8);
  PutLe(&out[16], header.requestId, 4);
  PutLe(&out[20], header.payloadBytes, 4);
}

HeaderStatus DecodeHeader(std::span<const uint8_t, kFrameHeaderBytes> in, FrameHeader& out) {
  if (GetLe(&in[0], 4) != kFrameMagic) return HeaderStatus::BadMagic;
  if (in[4] != kFrameVersion) return HeaderStatus::BadVersion;
  if (in[5] < static_cast<uint8_t>(FrameKind::Request) || in[5] > static_cast<uint8_t>(FrameKind::Error))
    return HeaderStatus::BadKind;
  if (GetLe(&in[6], 2) != 0) return HeaderStatus::BadReserved;
  const uint64_t payloadBytes = GetLe(&in[20], 4);
  if (payloadBytes > kMaxPayloadBytes) return HeaderStatus::TooLarge;
  out.kind = static_cast<FrameKind>(in[5]);
  out.messageType = GetLe(&in[8], 8);
  out.requestId = static_cast<uint32_t>(GetLe(&in[16], 4));
  out.payloadBytes = static_cast<uint32_t>(payloadBytes);
  return HeaderStatus::Ok;
}

bool AppendFrame(std::vector<uint8_t>& out, FrameKind kind, uint64_t messageType, uint32_t requestId,
                 std::span<const uint8_t> payload) {
  if (payload.size() > kMaxPayloadBytes) return false;
  const size_t at = out.size();
  out.resize(at + kFrameHeaderBytes);
  EncodeHeader({kind, messageType, requestId, static_cast<uint32_t>(payload.size())},
               std::span<uint8_t, kFrameHeaderBytes>(out.data() + at, kFrameHeaderBytes));
  out.insert(out.end(), payload.begin(), payload.end());
  return true;
}

bool AppendMessageFrame(std::vector<uint8_t>& out, FrameKind kind, uint32_t requestId,
                        const google::protobuf::Message& message) {
  const size_t size = message.ByteSizeLong();
  if (size > kMaxPayloadBytes) return false;
  const size_t at = out.size();
  out.resize(at + kFrameHeaderBytes + size);
  if (!message.SerializeToArray(out.data() + at + kFrameHeaderBytes, static_cast<int>(size))) {
    out.resize(at);
    return false;
  }
  EncodeHeader({kind, Fnv1a64(message.GetDescriptor()->full_name()), requestId, static_cast<uint32_t>(size)},
               std::span<uint8_t, kFrameHeaderBytes>(out.data() + at, kFrameHeaderBytes));
  return true;
}

bool AppendErrorFrame(std::vector<uint8_t>& out, uint64_t messageType, uint32_t requestId, os::Error code) {
  uint8_t payload[kErrorPayloadBytes];
  PutLe(payload, static_cast<uint32_t>(code), 4);
  return AppendFrame(out, FrameKind::Error, messageType, requestId, payload);
}

os::Error ErrorFrameCode(std::span<const uint8_t> payload) {
  if (payload.size() != kErrorPayloadBytes) return ERROR_PROTOCOL;
  return static_cast<os::Error>(static_cast<uint32_t>(GetLe(payload.data(), 4)));
}

void FrameReader::append(std::span<const uint8_t> bytes) {
  // Drop what was handed out before growing, so the buffer never holds more
  // than one frame's worth beyond what just arrived.
  if (start_ > 0) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

FrameReader::Result FrameReader::next(FrameHeader& header, std::span<const uint8_t>& payload) {
  if (broken_ != HeaderStatus::Ok) return Result::Broken;
  if (pendingBytes() < kFrameHeaderBytes) return Result::NeedMore;
  const HeaderStatus status =
      DecodeHeader(std::span<const uint8_t, kFrameHeaderBytes>(buffer_.data() + start_, kFrameHeaderBytes), header);
  if (status != HeaderStatus::Ok) {
    broken_ = status;
    return Result::Broken;
  }
  if (pendingBytes() < kFrameHeaderBytes + header.payloadBytes) return Result::NeedMore;
  payload = std::span<const uint8_t>(buffer_.data() + start_ + kFrameHeaderBytes, header.payloadBytes);
  start_ += kFrameHeaderBytes + header.payloadBytes;
  return Result::Frame;
}

}  // namespace halvorda::service
