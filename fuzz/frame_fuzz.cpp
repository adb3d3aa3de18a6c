// Fuzz target for the service link: arbitrary bytes from a client go through
// the frame reader on their own and then through a live Service, over a
// connected socket pair, into bindings of every kind (a request answered, a
// request whose handler fails without answering, an event decoded by its
// binding, the reservation request the framework answers itself).
//
// Input layout (missing header bytes count as zero):
//   [0]     bits 0-4: the client writes in pieces of 1 << (value % 17) bytes
//           bit 5: the client shuts down its sending side after the stream
//           bit 6: the client reads no answer until the service stalls
//           bit 7: the NotifyRequest handler fails without answering
//   [1...]  the client's byte stream
//
// Checked on every input: each frame the service sends back has a valid
// header and answers a request id the client used; once the client closes,
// the service holds no connection.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "fuzz/fuzz_root.h"
#include "halvorda/desktopenv/desktopenv.pb.h"
#include "halvorda/device/gps/gps.pb.h"
#include "halvorda/service/service.pb.h"
#include "platform/root.h"
#include "platform/service/framework.h"
#include "platform/settings.h"

namespace {

using namespace halvorda;
using namespace halvorda::service;

constexpr size_t kHeaderBytes = 1;
constexpr int kMaxRounds = 4000;
constexpr int kQuietRounds = 3;




[[noreturn]] void Fail(const char* rule) {
  std::fprintf(stderr, "frame_fuzz: %s\n", rule);
  __builtin_trap();
}

class Probe final : public Interfacable {
 public:
  Probe() : Interfacable(Link::LINK_TYPE_STREAM, nullptr) {
    const Permissions anyone(Permissions::ALL_QUILLA_PLATFORM + Permissions::VERTICAL);
    bind(new MessageMethodBind<Probe>(this, &Probe::onState, device::gps::SetGetStateRequest::messageType(), anyone));
    bind(new MessageMethodBind<Probe>(this, &Probe::onNotify, desktopenv::NotifyRequest::messageType(), anyone));
    bind(new MessageEventBind<Probe, ConfigurationModifiedEvent>(this, &Probe::onConfiguration, anyone));
    inactivity.bind(new MessageEventBind<Probe, desktopenv::WakeupEvent>(this, &Probe::onWakeup, anyone));
  }
  os::Error onState(Link& link) {
    device::gps::SetGetStateRequest request;
    if (const os::Error decoded = link.decode(request); decoded != os::ERROR_NONE) return decoded;
    device::gps::SetGetStateResponse response;
    response.mutable_parameters()->CopyFrom(request.parameters());
    if (request.parameters().poweron()) response.mutable_state()->mutable_date()->set_year(2024);
    return link.send(response);
  }
  os::Error onNotify(Link& link) {
    if (failNotify) return -1000100;
    return link.send(desktopenv::NotifyResponse());
  }
  os::Error onWakeup(const desktopenv::WakeupEvent&) { return os::ERROR_NONE; }
  os::Error onConfiguration(const ConfigurationModifiedEvent&) { return os::ERROR_NONE; }

  desktopenv::InactivityHandler inactivity;
  bool failNotify = false;
};

Service* g_service = nullptr;
Probe* g_probe = nullptr;

// The request ids of the request frames in the stream, as the service will
// see them (up to the first broken header).
std::set<uint32_t> RequestIds(std::span<const uint8_t> stream, size_t piece) {
  std::set<uint32_t> ids;
  FrameReader reader;
  for (size_t at = 0; at < stream.size(); at += piece) {
    reader.append(stream.subspan(at, std::min(piece, stream.size() - at)));
    FrameHeader header;
    std::span<const uint8_t> payload;
    FrameReader::Result result;
    while ((result = reader.next(header, payload)) == FrameReader::Result::Frame) {
      if (payload.size() != header.payloadBytes) Fail("payload length differs from the header");
      if (header.kind == FrameKind::Request) ids.insert(header.requestId);
    }
    if (result == FrameReader::Result::Broken) break;
  }
  return ids;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gps::fuzz::UseThrowawayRoot("gps-frame-fuzz");
  g_service = new Service("file://param/manifest/local.device.gps.MNF");
  ServiceLimits limits;
  limits.maxSendBufferBytes = 16 * 1024;  // reached by a few hundred answers
  g_service->setLimits(limits);
  g_probe = new Probe();
  g_service->addInterface(g_probe);
  g_service->attachProxy(&g_probe->inactivity, "", 0);
  g_service->setReservationWhiteList({desktopenv::NotifyRequest::messageType()});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t flags = size > 0 ? data[0] : 0;
  const std::span<const uint8_t> stream(data + std::min(size, kHeaderBytes), size - std::min(size, kHeaderBytes));
  const size_t piece = size_t{1} << ((flags & 0x1F) % 17);
  const bool shutDown = flags & 0x20;
  bool reading = !(flags & 0x40);
  g_probe->failNotify = flags & 0x80;
  const std::set<uint32_t> requestIds = RequestIds(stream, piece);

  int pair[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0) std::abort();
  const int client = pair[1];
  if (g_service->adoptConnection(pair[0]) != os::ERROR_NONE) Fail("socket pair refused");

  FrameReader answers;
  size_t sent = 0;
  bool sentAll = stream.empty();
  bool closedByService = false;
  int quiet = 0;
  for (int round = 0; round < kMaxRounds && !closedByService; ++round) {
    bool progress = false;
    if (!sentAll) {
      const ssize_t n = ::send(client, stream.data() + sent, std::min(piece, stream.size() - sent), MSG_NOSIGNAL);
      if (n > 0) {
        sent += static_cast<size_t>(n);
        progress = true;
      } else if (n < 0 && errno != EAGAIN) {
        sentAll = true;  // the service closed its end
      }
      if (sent == stream.size()) {
        sentAll = true;
        if (shutDown) ::shutdown(client, SHUT_WR);
      }
    }
    g_service->dispatch(0);
    while (reading) {
      uint8_t chunk[8192];
      const ssize_t n = ::recv(client, chunk, sizeof chunk, 0);
      if (n == 0) closedByService = true;
      if (n <= 0) break;
      progress = true;
      answers.append(std::span<const uint8_t>(chunk, static_cast<size_t>(n)));
      FrameHeader header;
      std::span<const uint8_t> payload;
      FrameReader::Result result;
      while ((result = answers.next(header, payload)) == FrameReader::Result::Frame) {
        if (header.kind != FrameKind::Response && header.kind != FrameKind::Error) Fail("service sent a non-answer");
        if (!requestIds.count(header.requestId)) Fail("answer to a request id never sent");
        if (header.kind == FrameKind::Error && payload.size() != kErrorPayloadBytes) Fail("error frame without code");
      }
      if (result == FrameReader::Result::Broken) Fail("service sent a broken frame");
    }
    quiet = progress ? 0 : quiet + 1;
    if (quiet >= kQuietRounds) {
      if (!reading) {
        reading = true;  // the stalled client starts reading
        quiet = 0;
      } else if (sentAll) {
        break;
      }
    }
  }
  ::close(client);
  for (int round = 0; round < 100 && g_service->connectionCount() > 0; ++round) g_service->dispatch(0);
  if (g_service->connectionCount() != 0) Fail("connection kept after the client closed");
  return 0;
}
