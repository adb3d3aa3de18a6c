// Frame header layout, the incremental frame reader, message types and
// permission strings.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "halvorda/desktopenv/desktopenv.pb.h"
#include "halvorda/device/gps/gps.pb.h"
#include "halvorda/service/service.pb.h"
#include "platform/service/frame.h"
#include "platform/service/interfacable.h"
#include "platform/service/message_type.h"
#include "platform/service/permissions.h"

namespace halvorda::service {
namespace {

// A request frame for type 0x1122334455667788, request id 7, payload "\x08\x01"
// (field 1 = true), as the bytes on the wire.
constexpr std::array<uint8_t, 26> kRequestFrame = {
    0x48, 0x4C, 0x56, 0x46,                          // magic "HLVF"
    0x01, 0x01, 0x00, 0x00,                          // version 1, request, reserved
    0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // message type
    0x07, 0x00, 0x00, 0x00,                          // request id
    0x02, 0x00, 0x00, 0x00,                          // payload length
    0x08, 0x01};

TEST(FrameTest, EncodesTheDocumentedLayout) {
  std::vector<uint8_t> out;
  const uint8_t payload[] = {0x08, 0x01};
  ASSERT_TRUE(AppendFrame(out, FrameKind::Request, 0x1122334455667788ULL, 7, payload));
  EXPECT_EQ(out, std::vector<uint8_t>(kRequestFrame.begin(), kRequestFrame.end()));

  FrameHeader header;
  ASSERT_EQ(DecodeHeader(std::span<const uint8_t, kFrameHeaderBytes>(out.data(), kFrameHeaderBytes), header),
            HeaderStatus::Ok);
  EXPECT_EQ(header.kind, FrameKind::Request);
  EXPECT_EQ(header.messageType, 0x1122334455667788ULL);
  EXPECT_EQ(header.requestId, 7u);
  EXPECT_EQ(header.payloadBytes, 2u);
}

TEST(FrameTest, RejectsBrokenHeaders) {
  struct Case {
    const char* legend;
    size_t offset;
    uint8_t value;
    HeaderStatus expected;
  };
  const Case cases[] = {
      {"magic byte changed", 0, 'h', HeaderStatus::BadMagic},
      {"version 2", 4, 2, HeaderStatus::BadVersion},
      {"kind 0", 5, 0, HeaderStatus::BadKind},
      {"kind 5", 5, 5, HeaderStatus::BadKind},
      {"reserved set", 7, 0x80, HeaderStatus::BadReserved},
      {"length 65538", 22, 0x01, HeaderStatus::TooLarge},  // 0x00010002
  };
  for (const Case& c : cases) {
    std::array<uint8_t, kFrameHeaderBytes> header;
    std::copy_n(kRequestFrame.begin(), kFrameHeaderBytes, header.begin());
    header[c.offset] = c.value;
    FrameHeader decoded;
    EXPECT_EQ(DecodeHeader(header, decoded), c.expected) << c.legend;
  }
  // Exactly 64 KiB is still a frame.
  std::array<uint8_t, kFrameHeaderBytes> limit;
  std::copy_n(kRequestFrame.begin(), kFrameHeaderBytes, limit.begin());
  limit[20] = 0x00;
  limit[21] = 0x00;
  limit[22] = 0x01;
  FrameHeader decoded;
  EXPECT_EQ(DecodeHeader(limit, decoded), HeaderStatus::Ok);
  EXPECT_EQ(decoded.payloadBytes, kMaxPayloadBytes);
}

TEST(FrameTest, ReaderReassemblesFramesFromAnySplit) {
  std::vector<uint8_t> stream;
  device::gps::SetGetStateRequest request;
  request.mutable_parameters()->set_poweron(true);
  ASSERT_TRUE(AppendMessageFrame(stream, FrameKind::Request, 1, request));
  ASSERT_TRUE(AppendFrame(stream, FrameKind::Event, 42, 0, {}));
  ASSERT_TRUE(AppendErrorFrame(stream, 43, 9, -1000101));

  for (size_t step : {size_t{1}, size_t{5}, size_t{24}, size_t{25}, stream.size()}) {
    FrameReader reader;
    std::vector<FrameHeader> headers;
    std::vector<std::vector<uint8_t>> payloads;
    for (size_t at = 0; at < stream.size(); at += step) {
      reader.append(std::span<const uint8_t>(stream).subspan(at, std::min(step, stream.size() - at)));
      FrameHeader header;
      std::span<const uint8_t> payload;
      while (reader.next(header, payload) == FrameReader::Result::Frame) {
        headers.push_back(header);
        payloads.emplace_back(payload.begin(), payload.end());
      }
    }
    ASSERT_EQ(headers.size(), 3u) << "step " << step;
    EXPECT_EQ(headers[0].messageType, device::gps::SetGetStateRequest::kMessageType);
    device::gps::SetGetStateRequest decoded;
    ASSERT_TRUE(decoded.ParseFromArray(payloads[0].data(), static_cast<int>(payloads[0].size())));
    EXPECT_TRUE(decoded.parameters().has_poweron());
    EXPECT_EQ(headers[1].kind, FrameKind::Event);
    EXPECT_TRUE(payloads[1].empty());
    EXPECT_EQ(headers[2].requestId, 9u);
    EXPECT_EQ(ErrorFrameCode(payloads[2]), -1000101);
    EXPECT_EQ(reader.pendingBytes(), 0u);
  }
}

TEST(FrameTest, ReaderStaysBrokenAfterABadHeader) {
  FrameReader reader;
  std::vector<uint8_t> bytes(kRequestFrame.begin(), kRequestFrame.end());
  bytes[1] = 'x';
  reader.append(bytes);
  FrameHeader header;
  std::span<const uint8_t> payload;
  EXPECT_EQ(reader.next(header, payload), FrameReader::Result::Broken);
  EXPECT_EQ(reader.brokenStatus(), HeaderStatus::BadMagic);
  reader.append(std::vector<uint8_t>(kRequestFrame.begin(), kRequestFrame.end()));
  EXPECT_EQ(reader.next(header, payload), FrameReader::Result::Broken);
}

TEST(MessageTypeTest, GeneratedConstantsMatchTheHashOfTheFullName) {
  // FNV-1a 64 reference values.
  static_assert(Fnv1a64("") == 0xcbf29ce484222325ULL);
  static_assert(Fnv1a64("a") == 0xaf63dc4c8601ec8cULL);
  static_assert(Fnv1a64("foobar") == 0x85944171f73967e8ULL);

  EXPECT_EQ(device::gps::SetGetStateRequest::messageType(), Fnv1a64("halvorda.device.gps.SetGetStateRequest"));
  EXPECT_EQ(desktopenv::WakeupEvent::getMessageTypeStatic(), Fnv1a64("halvorda.desktopenv.WakeupEvent"));
  const google::protobuf::Message* messages[] = {
      &device::gps::Parameters::default_instance(),         &device::gps::State::default_instance(),
      &device::gps::SetGetStateRequest::default_instance(), &device::gps::SetGetStateResponse::default_instance(),
      &desktopenv::Date::default_instance(),                &desktopenv::NotifyRequest::default_instance(),
      &desktopenv::NotifyResponse::default_instance(),      &desktopenv::WakeupEvent::default_instance(),
      &ConfigurationModifiedEvent::default_instance(),      &ReservationRequest::default_instance(),
  };
  const uint64_t generated[] = {
      device::gps::Parameters::kMessageType,         device::gps::State::kMessageType,
      device::gps::SetGetStateRequest::kMessageType, device::gps::SetGetStateResponse::kMessageType,
      desktopenv::Date::kMessageType,                desktopenv::NotifyRequest::kMessageType,
      desktopenv::NotifyResponse::kMessageType,      desktopenv::WakeupEvent::kMessageType,
      ConfigurationModifiedEvent::kMessageType,      ReservationRequest::kMessageType,
  };
  for (size_t i = 0; i < std::size(messages); ++i)
    EXPECT_EQ(MessageTypeOf(*messages[i]), generated[i]) << messages[i]->GetDescriptor()->full_name();
}

TEST(MessageTypeTest, HelpersMakeNewMessagesAndCopies) {
  const auto params = device::gps::Parameters::instantiate();
  EXPECT_FALSE(params->has_poweron());
  params->set_keepon(true);
  const auto copy = device::gps::Parameters::newOne(*params);
  params->set_keepon(false);
  EXPECT_TRUE(copy->has_keepon() && copy->keepon());
  EXPECT_EQ(device::gps::State::newOne()->ByteSizeLong(), 0u);
}

TEST(PermissionsTest, ConcatenatedConstantsAdmitAnyOfTheirRoles) {
  const Permissions platformOnly(Permissions::ALL_QUILLA_PLATFORM + Permissions::ALL_WEB_PLATFORM);
  const Permissions anyone(Permissions::ALL_QUILLA_PLATFORM + Permissions::ALL_WEB_PLATFORM + Permissions::PAYMENT +
                           Permissions::QUILLA_P2PE + Permissions::WEB_P2PE + Permissions::VERTICAL +
                           Permissions::ANDROID);
  EXPECT_EQ(anyone.roles(), os::kAllRoles);
  const os::Certificate vertical(1000, 1000, 1, {}, os::RoleBit(os::Role::Vertical));
  const os::Certificate web(1000, 1000, 1, {}, os::RoleBit(os::Role::WebPlatform));
  const os::Certificate none(1000, 1000, 1, {}, 0);
  EXPECT_FALSE(platformOnly.admits(vertical));
  EXPECT_TRUE(platformOnly.admits(web));
  EXPECT_TRUE(anyone.admits(vertical));
  EXPECT_FALSE(anyone.admits(none));
  EXPECT_FALSE(Permissions().admits(web));
  EXPECT_EQ(Permissions("[payment][no-such-role]").roles(), os::RoleBit(os::Role::Payment));

  const os::Certificate webP2pe(1, 1, 1, {}, os::RoleBit(os::Role::WebP2PE));
  EXPECT_TRUE(webP2pe.isP2PE());
  EXPECT_FALSE(webP2pe.isPayment());
}

}  // namespace
}  // namespace halvorda::service

namespace {

struct Handlers {
  halvorda::os::Error first(halvorda::service::Link&) { return 0; }
  halvorda::os::Error second(halvorda::service::Link&) { return 0; }
  halvorda::os::Error onEvent(const halvorda::device::gps::Parameters&) { return 0; }
};

TEST(BindingTest, UnbindFindsTheEqualBindingAndATypeIsBoundOnce) {
  using halvorda::service::MessageEventBind;
  using halvorda::service::MessageMethodBind;
  using halvorda::service::Permissions;
  Handlers handlers;
  halvorda::service::Interfacable interface(halvorda::service::Link::LINK_TYPE_STREAM, nullptr);
  const Permissions anyone(Permissions::VERTICAL);
  EXPECT_EQ(interface.bind(new MessageMethodBind<Handlers>(&handlers, &Handlers::first, 7, anyone)), 0);
  EXPECT_NE(interface.bind(new MessageMethodBind<Handlers>(&handlers, &Handlers::second, 7, anyone)), 0)
      << "one binding per type";
  EXPECT_NE(interface.bind(new MessageMethodBind<Handlers>(&handlers, &Handlers::first, 0, anyone)), 0)
      << "type 0 is not callable";
  EXPECT_EQ(interface.bind(new MessageEventBind<Handlers, halvorda::device::gps::Parameters>(
                &handlers, &Handlers::onEvent, 8, anyone)),
            0);

  MessageMethodBind<Handlers> otherMethod(&handlers, &Handlers::second, 7, anyone);
  MessageMethodBind<Handlers> otherType(&handlers, &Handlers::first, 8, anyone);
  EXPECT_NE(interface.unbind(&otherMethod), 0);
  EXPECT_NE(interface.unbind(&otherType), 0) << "an event binding of type 8 is another kind";
  MessageMethodBind<Handlers> same(&handlers, &Handlers::first, 7, anyone);
  EXPECT_EQ(interface.unbind(&same), 0);
  EXPECT_EQ(interface.findBinding(7), nullptr);
  EXPECT_NE(interface.findBinding(8), nullptr);
}

}  // namespace
