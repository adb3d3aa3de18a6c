// The service socket end to end: real sockets under a temporary root, the
// dispatch loop on its own thread, clients through the client side.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "tests/service_framework/service_fixture.h"
#include "tests/support/child_process.h"

namespace halvorda::service::test {
namespace {

using device::gps::SetGetStateRequest;
using device::gps::SetGetStateResponse;

std::vector<uint8_t> RequestFrame(const google::protobuf::Message& message, uint32_t id) {
  std::vector<uint8_t> frame;
  AppendMessageFrame(frame, FrameKind::Request, id, message);
  return frame;
}

// A state request answered, for checking that a service still serves.
void ExpectServed(const std::string& why) {
  ClientConnection client;
  ASSERT_EQ(client.connect("local.device.gps", kWaitMs), 0) << why;
  SetGetStateRequest request;
  request.mutable_parameters()->set_keepon(true);
  SetGetStateResponse response;
  ASSERT_EQ(client.request(request, response, kWaitMs), 0) << why;
  EXPECT_TRUE(response.parameters().keepon()) << why;
}

// True when the service closes the connection (end of file) within the wait.
bool ClosedByPeer(ClientConnection& client) {
  FrameHeader header;
  std::vector<uint8_t> payload;
  for (;;) {
    const os::Error result = client.receiveFrame(header, payload, kWaitMs);
    if (result == ERROR_DISCONNECTED) return true;
    if (result != os::ERROR_NONE) return false;
  }
}

TEST(ServiceTest, RegistersAndAnswersRequestsEventsAndErrors) {
  RunningService running;
  // The manifest was written with the class and address of its file name,
  // the directory resolves the class to the socket.
  std::ifstream manifest(running.root / "param/DATAAEC8999.TAR/manifest/local.device.gps.MNF");
  std::stringstream text;
  text << manifest.rdbuf();
  EXPECT_NE(text.str().find("class = local.device.gps"), std::string::npos);
  EXPECT_EQ(running.service.getServiceClass(), "local.device.gps");
  EXPECT_EQ(running.service.getAddress(), "run/local.device.gps.sock");
  const auto entry = Directory::Lookup("local.device.gps");
  ASSERT_TRUE(entry);
  EXPECT_TRUE(entry->ready);
  EXPECT_EQ(entry->pid, ::getpid());
  EXPECT_EQ(Directory::Resolve("local.device.gps"), running.root / "run/local.device.gps.sock");
  running.start();

  ClientConnection client;
  ASSERT_EQ(client.connect("local.device.gps", kWaitMs), 0);
  SetGetStateRequest request;
  request.mutable_parameters()->set_poweron(true);
  SetGetStateResponse response;
  ASSERT_EQ(client.request(request, response, kWaitMs), 0);
  EXPECT_TRUE(response.parameters().has_poweron());
  EXPECT_FALSE(response.parameters().has_keepon());
  EXPECT_EQ(running.probe.lastUid, ::getuid());

  // A handler that fails without answering: the caller gets its code.
  running.probe.notifyResult = -1000100;
  desktopenv::NotifyResponse notified;
  EXPECT_EQ(client.request(desktopenv::NotifyRequest(), notified, kWaitMs), -1000100);
  running.probe.notifyResult = os::ERROR_NONE;
  EXPECT_EQ(client.request(desktopenv::NotifyRequest(), notified, kWaitMs), 0);

  // A type nobody bound: an error frame, the connection stays.
  device::gps::State unbound;
  device::gps::State ignored;
  EXPECT_EQ(client.request(unbound, ignored, kWaitMs), ERROR_NO_BINDING);

  // Events reach the proxy's binding, in order with the requests.
  ASSERT_EQ(client.sendEvent(desktopenv::WakeupEvent(), kWaitMs), 0);
  ASSERT_EQ(client.sendEvent(desktopenv::WakeupEvent(), kWaitMs), 0);
  ASSERT_EQ(client.request(request, response, kWaitMs), 0);
  EXPECT_EQ(running.probe.wakeups, 2);
}

TEST(ServiceTest, SignalsReadinessToSystemd) {
  gps::test::TempRoot root;
  const std::string path = root / "notify.sock";
  const int listener = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
  Directory directory;
  EXPECT_EQ(directory.connect("", 0), 0);
  EXPECT_EQ(directory.setReady(), 0);
  ::unsetenv("NOTIFY_SOCKET");
  char datagram[64] = {};
  EXPECT_EQ(::recv(listener, datagram, sizeof datagram, MSG_DONTWAIT), 7);
  EXPECT_STREQ(datagram, "READY=1");
  ::close(listener);
}

// An entry of a running process is kept; one left by a process that ended,
// or whose pid now belongs to another process, is replaced.
TEST(ServiceTest, DirectoryKeepsTheEntryOfARunningProcess) {
  gps::test::TempRoot root;
  gps::test::ChildProcess sleeper({"/bin/sleep", "600"});
  const pid_t child = sleeper.pid();
  const std::string entryPath = root / "run/directory/local.device.gps";
  const auto writeEntry = [&](uint64_t started) {
    std::filesystem::create_directories(root / "run/directory");
    std::ofstream(entryPath) << "address=run/other.sock\npid=" << child << "\nstarted=" << started << "\nready=1\n";
  };
  Directory directory;
  ASSERT_EQ(directory.connect("", 0), 0);
  writeEntry(ProcessStartTime(child));
  EXPECT_EQ(directory.add("local.device.gps", "run/local.device.gps.sock"), ERROR_IN_USE);
  EXPECT_EQ(Directory::Lookup("local.device.gps")->pid, child) << "left as it was";

  // The start time is counted in clock ticks since boot: the child started
  // after this process and before now.
  std::ifstream uptime("/proc/uptime");
  double upSeconds = 0;
  uptime >> upSeconds;
  EXPECT_GE(ProcessStartTime(child), ProcessStartTime(::getpid()));
  EXPECT_LE(ProcessStartTime(child), static_cast<uint64_t>((upSeconds + 1) * static_cast<double>(::sysconf(_SC_CLK_TCK))));

  writeEntry(ProcessStartTime(child) + 1);  // the pid went to a later process
  EXPECT_EQ(directory.add("local.device.gps", "run/local.device.gps.sock"), 0);

  writeEntry(ProcessStartTime(child));
  sleeper.Signal(SIGKILL);
  sleeper.ExitStatus();
  EXPECT_EQ(directory.add("local.device.gps", "run/local.device.gps.sock", {{"receiver", "simulated"}}), 0);
  const auto entry = Directory::Lookup("local.device.gps");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->pid, ::getpid());
  EXPECT_EQ(entry->attribute("receiver"), "simulated");
  EXPECT_EQ(directory.add("local.device.gps", "run/local.device.gps.sock"), 0) << "its own entry is renewed";
  EXPECT_EQ(directory.add("local.device.gps", "run/x.sock", {{"pid", "1"}}), ERROR_INVALID);
  EXPECT_EQ(directory.add("local.device.gps", "run/x.sock", {{"receiver", "a\nready=1"}}), ERROR_INVALID);
}

TEST(ServiceTest, BrokenStreamsCloseOnlyTheirConnection) {
  RunningService running;
  running.start();
  SetGetStateRequest request;
  const std::vector<uint8_t> good = RequestFrame(request, 1);

  struct Case {
    const char* legend;
    std::vector<uint8_t> bytes;
    bool closeAfterSending;
  };
  std::vector<uint8_t> badMagic = good;
  badMagic[0] ^= 0xFF;
  std::vector<uint8_t> oversized;
  AppendFrame(oversized, FrameKind::Request, SetGetStateRequest::kMessageType, 1, {});
  oversized[20] = 0x01;
  oversized[22] = 0x01;  // 65537 bytes announced
  std::vector<uint8_t> undecodable;
  const uint8_t garbage[] = {0x0A, 0x05, 0x08};  // a field 1 of 5 bytes, 1 present
  AppendFrame(undecodable, FrameKind::Request, SetGetStateRequest::kMessageType, 1, garbage);
  std::vector<uint8_t> undecodableEvent;
  AppendFrame(undecodableEvent, FrameKind::Event, desktopenv::WakeupEvent::kMessageType, 0, garbage);
  std::vector<uint8_t> answerFrame;
  AppendFrame(answerFrame, FrameKind::Response, SetGetStateRequest::kMessageType, 1, {});
  std::vector<uint8_t> truncated(good.begin(), good.begin() + 10);

  const Case cases[] = {
      {"bad magic", badMagic, false},
      {"payload above 64 KiB", oversized, false},
      {"undecodable request", undecodable, false},
      {"undecodable event", undecodableEvent, false},
      {"a response sent to the service", answerFrame, false},
      {"half a header, then closed", truncated, true},
  };
  for (const Case& c : cases) {
    ClientConnection bystander;
    ASSERT_EQ(bystander.connect("local.device.gps", kWaitMs), 0);
    ClientConnection offender;
    ASSERT_EQ(offender.connect("local.device.gps", kWaitMs), 0);
    ASSERT_EQ(offender.sendBytes(c.bytes, kWaitMs), 0) << c.legend;
    if (c.closeAfterSending) {
      ::shutdown(offender.descriptor(), SHUT_WR);
    }
    EXPECT_TRUE(ClosedByPeer(offender)) << c.legend;
    // The connection opened before still works, and so do new ones.
    SetGetStateResponse response;
    EXPECT_EQ(bystander.request(request, response, kWaitMs), 0) << c.legend;
    ExpectServed(c.legend);
  }
  EXPECT_EQ(running.probe.wakeups, 0);
  EXPECT_TRUE(WaitFor([&] { return running.service.connectionCount() == 0; }));
}

TEST(ServiceTest, StalledClientsDoNotHoldUpOthersAndAreClosed) {
  ServiceLimits limits;
  limits.maxSendBufferBytes = 64 * 1024;
  limits.stallTimeoutMs = 300;
  limits.idleTimeoutMs = 600;
  RunningService running(limits);
  running.start();

  // One client sends a stream of requests and never reads an answer; its
  // socket buffers fill and its answers queue up in the service.
  ClientConnection stalled;
  ASSERT_EQ(stalled.connect("local.device.gps", kWaitMs), 0);
  const int small = 4096;
  ::setsockopt(stalled.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  SetGetStateRequest request;
  request.mutable_parameters()->set_poweron(true);
  std::vector<uint8_t> burst;
  for (uint32_t id = 1; id <= 20000; ++id) AppendMessageFrame(burst, FrameKind::Request, id, request);
  stalled.sendBytes(burst, 200);  // may time out once the service stops reading it

  // Others are served meanwhile.
  for (int i = 0; i < 5; ++i) ExpectServed("while another client stalls");

  // The stalled client is closed, so is an idle one.
  ClientConnection idle;
  ASSERT_EQ(idle.connect("local.device.gps", kWaitMs), 0);
  EXPECT_TRUE(WaitFor([&] { return running.service.connectionCount() == 0; }));
}

TEST(ServiceTest, SlowReaderGetsEveryAnswerOnceItReads) {
  // More answers than the send buffer holds: the service must stop taking
  // requests from this client until it reads, not drop it.
  ServiceLimits limits;
  limits.maxSendBufferBytes = 16 * 1024;
  RunningService running(limits);
  running.start();
  ClientConnection client;
  ASSERT_EQ(client.connect("local.device.gps", kWaitMs), 0);
  SetGetStateRequest request;
  request.mutable_parameters()->set_poweron(true);
  constexpr uint32_t kRequests = 5000;
  std::vector<uint8_t> burst;
  for (uint32_t id = 1; id <= kRequests; ++id) AppendMessageFrame(burst, FrameKind::Request, id, request);
  std::thread sender([&] {
    // Raw writes: the reading side of the connection belongs to the test.
    size_t sent = 0;
    pollfd writable{client.descriptor(), POLLOUT, 0};
    while (sent < burst.size() && ::poll(&writable, 1, static_cast<int>(kWaitMs)) == 1) {
      const ssize_t n = ::send(client.descriptor(), burst.data() + sent, burst.size() - sent, MSG_NOSIGNAL);
      if (n <= 0 && errno != EAGAIN) break;
      if (n > 0) sent += static_cast<size_t>(n);
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  uint32_t expected = 1;
  for (; expected <= kRequests; ++expected) {
    FrameHeader header;
    std::vector<uint8_t> payload;
    if (client.receiveFrame(header, payload, kWaitMs) != 0 || header.requestId != expected) break;
  }
  sender.join();
  EXPECT_EQ(expected, kRequests + 1);
}

TEST(ServiceTest, ServesHundredsOfConnectionsWithoutLeakingDescriptors) {
  const int before = OpenDescriptorCount();
  {
    RunningService running;
    running.start();
    constexpr int kClients = 300;
    std::vector<ClientConnection> clients(kClients);
    for (auto& client : clients) ASSERT_EQ(client.connect("local.device.gps", kWaitMs), 0);
    // Every client has a request in flight before any answer is read.
    SetGetStateRequest request;
    for (int i = 0; i < kClients; ++i) {
      request.mutable_parameters()->set_poweron(i % 2 == 0);
      ASSERT_EQ(clients[static_cast<size_t>(i)].sendBytes(RequestFrame(request, static_cast<uint32_t>(i + 1)), kWaitMs), 0);
    }
    for (int i = 0; i < kClients; ++i) {
      FrameHeader header;
      std::vector<uint8_t> payload;
      ASSERT_EQ(clients[static_cast<size_t>(i)].receiveFrame(header, payload, kWaitMs), 0) << "client " << i;
      EXPECT_EQ(header.kind, FrameKind::Response);
      EXPECT_EQ(header.requestId, static_cast<uint32_t>(i + 1));
      SetGetStateResponse response;
      ASSERT_TRUE(response.ParseFromArray(payload.data(), static_cast<int>(payload.size())));
      EXPECT_EQ(response.parameters().poweron(), i % 2 == 0);
    }
    EXPECT_EQ(running.service.connectionCount(), static_cast<size_t>(kClients));
    clients.clear();
    EXPECT_TRUE(WaitFor([&] { return running.service.connectionCount() == 0; }));
  }
  EXPECT_EQ(OpenDescriptorCount(), before);
}

TEST(ServiceTest, ConnectionsBeyondTheCapAreRefused) {
  ServiceLimits limits;
  limits.maxConnections = 3;
  RunningService running(limits);
  running.start();
  std::vector<ClientConnection> clients(3);
  for (auto& client : clients) ASSERT_EQ(client.connect("local.device.gps", kWaitMs), 0);
  ASSERT_TRUE(WaitFor([&] { return running.service.connectionCount() == 3; }));
  ClientConnection extra;
  ASSERT_EQ(extra.connect("local.device.gps", kWaitMs), 0);  // accepted by the kernel, then closed
  EXPECT_TRUE(ClosedByPeer(extra));
  clients.pop_back();
  ASSERT_TRUE(WaitFor([&] { return running.service.connectionCount() == 2; }));
  ExpectServed("after one of the capped connections went away");
}

// A frame begun and left unfinished closes its connection once the limit is
// up, counted from its first byte however it trickles in; a connection that
// sent nothing, or whole frames, stays.
TEST(ServiceTest, AFrameLeftUnfinishedClosesItsConnection) {
  ServiceLimits limits;
  limits.incompleteFrameTimeoutMs = 400;
  RunningService running(limits);
  running.start();
  ClientConnection half;
  ClientConnection trickle;
  ClientConnection quiet;
  for (ClientConnection* client : {&half, &trickle, &quiet}) ASSERT_EQ(client->connect("local.device.gps", kWaitMs), 0);
  const std::vector<uint8_t> frame = RequestFrame(SetGetStateRequest(), 1);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(half.sendBytes(std::vector<uint8_t>(frame.begin(), frame.begin() + 10), kWaitMs), 0);
  // A byte every 100 ms for 2 s: never quiet for the limit, still closed.
  for (size_t sent = 0; sent < 20; ++sent) {
    trickle.sendBytes(std::vector<uint8_t>(frame.begin() + sent, frame.begin() + sent + 1), kWaitMs);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(running.service.connectionCount(), 1u);
  EXPECT_TRUE(ClosedByPeer(half));
  EXPECT_TRUE(ClosedByPeer(trickle));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(400));
  SetGetStateResponse response;
  EXPECT_EQ(quiet.request(SetGetStateRequest(), response, kWaitMs), 0);
  EXPECT_EQ(running.service.connectionCount(), 1u);
}

TEST(ServiceTest, ReservationHoldsOffOthersExceptWhiteListedTypes) {
  RunningService running;
  running.service.setReservationWhiteList({desktopenv::NotifyRequest::messageType()});
  running.start();

  ClientConnection holder;
  ClientConnection other;
  ASSERT_EQ(holder.connect("local.device.gps", kWaitMs), 0);
  ASSERT_EQ(other.connect("local.device.gps", kWaitMs), 0);
  ASSERT_EQ(holder.reserve(true, kWaitMs), 0);
  EXPECT_EQ(other.reserve(true, kWaitMs), ERROR_RESERVED);

  SetGetStateRequest request;
  SetGetStateResponse response;
  EXPECT_EQ(other.request(request, response, kWaitMs), ERROR_RESERVED);
  EXPECT_EQ(holder.request(request, response, kWaitMs), 0);
  // The event is dropped; the white-listed request after it on the same
  // connection is answered, so the event was handled by then.
  ASSERT_EQ(other.sendEvent(desktopenv::WakeupEvent(), kWaitMs), 0);
  desktopenv::NotifyResponse notified;
  EXPECT_EQ(other.request(desktopenv::NotifyRequest(), notified, kWaitMs), 0);
  EXPECT_EQ(running.probe.wakeups, 0);

  // The holder going away ends the reservation.
  holder.close();
  EXPECT_TRUE(WaitFor([&] { return other.request(request, response, kWaitMs) == 0; }));
}

// The peer credentials of another user decide what it may send. Needs root
// to run a child process as "nobody".
class OtherUserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a client as another user";
    const passwd* nobody = ::getpwnam("nobody");
    if (!nobody) GTEST_SKIP() << "no user \"nobody\" on this machine";
    uid_ = nobody->pw_uid;
    gid_ = nobody->pw_gid;
  }

  // Sends the request as nobody from a child process; the code of the answer
  // (0 for a response), or a framework code when there was none.
  os::Error RequestAsNobody(const std::string& socketPath, const google::protobuf::Message& request,
                            const std::vector<gid_t>& supplementaryGroups) {
    return RequestAs(uid_, gid_, socketPath, request, supplementaryGroups);
  }

  // The same as any user; roundTrip gets the time from connect to answer.
  os::Error RequestAs(uid_t uid, gid_t gid, const std::string& socketPath, const google::protobuf::Message& request,
                      const std::vector<gid_t>& supplementaryGroups, std::chrono::microseconds* roundTrip = nullptr) {
    const std::vector<uint8_t> frame = RequestFrame(request, 77);
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return ERROR_IO;
    const pid_t child = ::fork();
    if (child == 0) {
      // Only system calls from here: the parent has other threads.
      ::close(pipeFds[0]);
      os::Error result = ERROR_IO;
      int64_t micros = -1;
      if (::setgroups(supplementaryGroups.size(), supplementaryGroups.data()) == 0 && ::setgid(gid) == 0 && ::setuid(uid) == 0) {
        timespec begun{};
        ::clock_gettime(CLOCK_MONOTONIC, &begun);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
        uint8_t answer[64];
        size_t got = 0;
        size_t wanted = kFrameHeaderBytes;
        FrameHeader header;
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(frame.size())) {
          pollfd waiting{fd, POLLIN, 0};
          while (got < wanted && ::poll(&waiting, 1, static_cast<int>(kWaitMs)) == 1) {
            const ssize_t n = ::read(fd, answer + got, wanted - got);
            if (n <= 0) break;
            got += static_cast<size_t>(n);
            if (got == kFrameHeaderBytes &&
                DecodeHeader(std::span<const uint8_t, kFrameHeaderBytes>(answer, kFrameHeaderBytes), header) ==
                    HeaderStatus::Ok)
              wanted = std::min(sizeof answer, kFrameHeaderBytes + header.payloadBytes);
          }
        }
        if (got < kFrameHeaderBytes || got < wanted) result = ERROR_DISCONNECTED;
        else if (header.kind == FrameKind::Response) result = 0;
        else result = ErrorFrameCode(std::span<const uint8_t>(answer + kFrameHeaderBytes, got - kFrameHeaderBytes));
        timespec ended{};
        ::clock_gettime(CLOCK_MONOTONIC, &ended);
        micros = (ended.tv_sec - begun.tv_sec) * 1'000'000 + (ended.tv_nsec - begun.tv_nsec) / 1000;
      }
      (void)!::write(pipeFds[1], &result, sizeof result);
      (void)!::write(pipeFds[1], &micros, sizeof micros);
      ::_exit(0);
    }
    ::close(pipeFds[1]);
    os::Error result = ERROR_IO;
    if (::read(pipeFds[0], &result, sizeof result) != sizeof result) result = ERROR_IO;
    int64_t micros = -1;
    if (::read(pipeFds[0], &micros, sizeof micros) == sizeof micros && roundTrip)
      *roundTrip = std::chrono::microseconds(micros);
    ::close(pipeFds[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return result;
  }

  // A child process of the user that connects `count` times without ever
  // sending, and holds what it got until the object ends.
  class IdleConnections {
   public:
    IdleConnections(uid_t uid, gid_t gid, const std::string& socketPath, int count) {
      int ready[2];
      if (::pipe(ready) != 0 || ::pipe(release_) != 0) return;
      child_ = ::fork();
      if (child_ == 0) {
        ::close(ready[0]);
        ::close(release_[1]);
        if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) ::_exit(1);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
        for (int i = 0; i < count; ++i) {
          const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
          if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) ::_exit(2);
        }
        (void)!::write(ready[1], "r", 1);
        char byte;
        (void)!::read(release_[0], &byte, 1);
        ::_exit(0);
      }
      ::close(ready[1]);
      ::close(release_[0]);
      char byte = 0;
      connected_ = ::read(ready[0], &byte, 1) == 1;
      ::close(ready[0]);
    }
    ~IdleConnections() {
      ::close(release_[1]);
      if (child_ > 0) ::waitpid(child_, nullptr, 0);
    }
    bool connected() const { return connected_; }

   private:
    pid_t child_ = -1;
    int release_[2] = {-1, -1};
    bool connected_ = false;
  };

  uid_t uid_ = 0;
  gid_t gid_ = 0;
};

// Connections are admitted per uid: one ordinary user holding hundreds of
// idle connections gets its share and no more, ordinary users together leave
// a reserve, and root and a payment caller are still served at once.
TEST_F(OtherUserTest, OneUserCannotLockOthersOut) {
  ServiceLimits limits;
  limits.maxConnections = 160;
  limits.reservedConnections = 16;
  limits.maxConnectionsPerUser = 64;
  RunningService running(limits);
  ASSERT_EQ(::chmod(running.root.path().c_str(), 0755), 0);
  ASSERT_TRUE(gps::platform::MakeDirectories(running.root / "etc"));
  std::ofstream(running.root / "etc/permissions.ini") << "[users]\n4243 = payment\n";
  running.start();
  const std::string socket = running.service.getSocketPath();
  gps::test::LogCapture log;

  IdleConnections flood(uid_, gid_, socket, 600);
  ASSERT_TRUE(flood.connected());
  ASSERT_TRUE(WaitFor([&] { return running.service.connectionCount() == 64; }));
  EXPECT_EQ(RequestAsNobody(socket, SetGetStateRequest(), {}), ERROR_DISCONNECTED) << "the 65th";
  const std::string refusal = "uid " + std::to_string(uid_) + " holds 64 connections";
  int refusalLines = 0;
  for (const std::string& line : log.linesAt(4)) refusalLines += line.find(refusal) != std::string::npos;
  EXPECT_EQ(refusalLines, 1) << "once a minute, not once per refusal";

  // Two more ordinary users fill the total up to the reserve; a third finds
  // no room.
  IdleConnections second(4244, 4244, socket, 100);
  IdleConnections third(4245, 4245, socket, 64);
  ASSERT_TRUE(second.connected() && third.connected());
  ASSERT_TRUE(WaitFor([&] { return running.service.connectionCount() == 144; }));
  EXPECT_EQ(RequestAs(4246, 4246, socket, SetGetStateRequest(), {}), ERROR_DISCONNECTED);

  std::chrono::microseconds roundTrip{};
  EXPECT_EQ(RequestAs(4243, 4243, socket, SetGetStateRequest(), {}, &roundTrip), 0) << "payment role";
  EXPECT_LT(roundTrip, std::chrono::milliseconds(100));
  EXPECT_EQ(RequestAs(0, 0, socket, SetGetStateRequest(), {}, &roundTrip), 0) << "root";
  EXPECT_LT(roundTrip, std::chrono::milliseconds(100));
  EXPECT_TRUE(WaitFor([&] { return running.service.connectionCount() == 144; }));
}

constexpr const char* kFifo = "(a FIFO)";
constexpr const char* kDevZero = "(/dev/zero)";

TEST_F(OtherUserTest, RolesComeFromPeerCredentialsAndThePermissionsFile) {
  RunningService running;
  // The temporary root is private to its creator; the other user must reach
  // the socket below it.
  ASSERT_EQ(::chmod(running.root.path().c_str(), 0755), 0);
  running.start();
  const std::string socket = running.service.getSocketPath();

  struct Case {
    const char* legend;
    const char* permissionsIni;  // null: no file; kFifo or kDevZero: that special file in its place
    std::vector<gid_t> supplementaryGroups;
    os::Error stateResult;       // SetGetStateRequest: any role
    os::Error notifyResult;      // NotifyRequest: platform roles only
  };
  const std::string nobodyUid = std::to_string(uid_);
  const std::string byUid = "[users]\n" + nobodyUid + " = web-platform\n";
  const std::string byGroup = "[groups]\n" + std::to_string(gid_) + " = quilla-platform\n";
  const Case cases[] = {
      {"no file: vertical only", nullptr, {}, 0, ERROR_PERMISSION_DENIED},
      {"user by name without roles", "[users]\nnobody = \n", {}, ERROR_PERMISSION_DENIED, ERROR_PERMISSION_DENIED},
      {"user by name, payment", "[users]\nnobody = payment\n", {}, 0, ERROR_PERMISSION_DENIED},
      {"user by uid, web platform", byUid.c_str(), {}, 0, 0},
      {"primary group, Quilla platform", byGroup.c_str(), {}, 0, 0},
      {"supplementary group, web platform", "[groups]\n4242 = web-platform\n", {4241, 4242}, 0, 0},
      {"supplementary group not held", "[groups]\n4242 = web-platform\n", {4241}, ERROR_PERMISSION_DENIED,
       ERROR_PERMISSION_DENIED},
      {"default roles", "[default]\nroles = android\n", {}, 0, ERROR_PERMISSION_DENIED},
      // Neither blocks nor spins the service thread: the roles in use stay.
      {"a FIFO in its place", kFifo, {}, 0, ERROR_PERMISSION_DENIED},
      {"/dev/zero in its place", kDevZero, {}, 0, ERROR_PERMISSION_DENIED},
  };
  const std::string ini = running.root / "etc/permissions.ini";
  ASSERT_TRUE(gps::platform::MakeDirectories(running.root / "etc"));
  for (const Case& c : cases) {
    if (c.permissionsIni == kFifo || c.permissionsIni == kDevZero) {
      ::unlink(ini.c_str());
      ASSERT_EQ(c.permissionsIni == kFifo ? ::mkfifo(ini.c_str(), 0644) : ::symlink("/dev/zero", ini.c_str()), 0);
    } else if (c.permissionsIni) {
      std::ofstream(ini) << c.permissionsIni;
      // A new modification time for every case, whatever the clock's grain.
      const timespec times[2] = {{0, UTIME_NOW}, {static_cast<time_t>(&c - cases + 1), 0}};
      ::utimensat(AT_FDCWD, ini.c_str(), times, 0);
    } else {
      ::unlink(ini.c_str());
    }
    EXPECT_EQ(RequestAsNobody(socket, SetGetStateRequest(), c.supplementaryGroups), c.stateResult) << c.legend;
    EXPECT_EQ(RequestAsNobody(socket, desktopenv::NotifyRequest(), c.supplementaryGroups), c.notifyResult)
        << c.legend;
  }
  EXPECT_EQ(running.probe.lastUid, uid_);
}

}  // namespace
}  // namespace halvorda::service::test
