// gps-service's gpsd-compatible endpoint against gpsd itself, side by side on
// the same simulated receiver.
//
//   gpsd_compare [--seconds N] [--poll-seconds N]
//
// ubx-sim runs the receiver on a pseudo-terminal. This program copies its
// output, byte for byte and in the same chunks, to two more pseudo-terminals:
// one is gps-service's receiver line (its commands are passed back to the
// simulator), the other gpsd's (started read-only, -b). A watcher on each
// endpoint notes when each TPV arrives; the latency is from the moment the
// GGA's last byte was written to that daemon's line to its TPV of the same
// second at the watcher. Then ?POLL round trips from 1 and 8 clients against
// each. Needs the Debian package gpsd (scripts/install-deps --with-peer).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/gps_client.h"
#include "platform/root.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "gpsd_compare: %s\n", what.c_str());
  std::exit(1);
}

double Percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(p / 100.0 * static_cast<double>(values.size())))];
}

pid_t Spawn(std::vector<std::string> argv, const std::string& log) {
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  pid_t pid = -1;
  if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) Fail("cannot start " + argv[0]);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

void MakeRaw(int fd) {
  termios t{};
  tcgetattr(fd, &t);
  cfmakeraw(&t);
  tcsetattr(fd, TCSANOW, &t);
}

// A pseudo-terminal: the master end stays here, the slave is the daemon's line.
struct Pty {
  int master = -1;
  int slaveKeep = -1;  // held open so the line never hangs up
  std::string path;
  Pty() {
    master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) Fail("no pseudo-terminal");
    path = ptsname(master);
    slaveKeep = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    MakeRaw(slaveKeep);
    MakeRaw(master);
  }
};

int Connect(int port) {
  for (int attempt = 0; attempt < 200; ++attempt) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
      const int on = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      return fd;
    }
    ::close(fd);
    std::this_thread::sleep_for(50ms);
  }
  Fail("nothing listens on port " + std::to_string(port));
}

int FreePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t n = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
  ::close(fd);
  return ntohs(a.sin_port);
}

// Lines from a connection, one at a time.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  bool next(std::string& line, Clock::time_point deadline) {
    for (;;) {
      const size_t nl = pending_.find('\n');
      if (nl != std::string::npos) {
        line = pending_.substr(0, nl + 1);
        pending_.erase(0, nl + 1);
        return true;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{fd_, POLLIN, 0};
      if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return false;
      char buffer[8192];
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return false;
      pending_.append(buffer, static_cast<size_t>(n));
    }
  }

 private:
  int fd_;
  std::string pending_;
};

// "hhmmss" of a TPV's "time":"2026-11-23T12:34:56.000Z".
std::string TpvSecond(const std::string& line) {
  if (line.find("\"class\":\"TPV\"") == std::string::npos) return "";
  const size_t at = line.find("\"time\":\"");
  if (at == std::string::npos || line.size() < at + 8 + 19) return "";
  const std::string t = line.substr(at + 8, 19);
  return t.substr(11, 2) + t.substr(14, 2) + t.substr(17, 2);
}

struct Daemon {
  explicit Daemon(const char* n) : name(n) {}
  const char* name;
  int port = 0;
  Pty line;
  std::mutex mutex;
  std::map<std::string, Clock::time_point> ggaWritten;  // second -> last byte written
  std::map<std::string, Clock::time_point> tpvArrived;  // second -> first TPV at the watcher
};

void Watch(Daemon& d, const std::atomic<bool>& stop) {
  const int fd = Connect(d.port);
  const std::string watch = "?WATCH={\"enable\":true,\"json\":true};\n";
  ::send(fd, watch.data(), watch.size(), MSG_NOSIGNAL);
  LineReader reader(fd);
  std::string line;
  while (!stop) {
    if (!reader.next(line, Clock::now() + 500ms)) continue;
    const auto now = Clock::now();
    const std::string second = TpvSecond(line);
    if (second.empty()) continue;
    std::lock_guard lock(d.mutex);
    d.tpvArrived.emplace(second, now);
  }
  ::close(fd);
}

struct PollResult {
  double perSecond;
  double p50Us, p99Us;
  size_t count;
};

PollResult PollRound(int port, int clients, std::chrono::seconds length) {
  std::vector<std::vector<double>> rtts(static_cast<size_t>(clients));
  std::vector<std::thread> threads;
  std::atomic<bool> failed{false};
  const auto start = Clock::now();
  const auto end = start + length;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      const int fd = Connect(port);
      // Pollable once activated; no stream of reports to skip over.
      const std::string watch = "?WATCH={\"enable\":true,\"json\":false};\n";
      ::send(fd, watch.data(), watch.size(), MSG_NOSIGNAL);
      LineReader reader(fd);
      std::string line;
      while (reader.next(line, Clock::now() + 300ms) && line.find("\"class\":\"WATCH\"") == std::string::npos) {
      }
      const std::string poll = "?POLL;\n";
      while (Clock::now() < end && !failed) {
        const auto t0 = Clock::now();
        ::send(fd, poll.data(), poll.size(), MSG_NOSIGNAL);
        bool answered = false;
        while (reader.next(line, Clock::now() + 2s))
          if (line.find("\"class\":\"POLL\"") != std::string::npos) {
            answered = true;
            break;
          }
        if (!answered) {
          failed = true;
          break;
        }
        rtts[static_cast<size_t>(c)].push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
      }
      ::close(fd);
    });
  }
  for (auto& t : threads) t.join();
  if (failed) Fail("a ?POLL went unanswered for 2 s on port " + std::to_string(port));
  std::vector<double> all;
  for (auto& r : rtts) all.insert(all.end(), r.begin(), r.end());
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return {static_cast<double>(all.size()) / seconds, Percentile(all, 50), Percentile(all, 99), all.size()};
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = 60;
  int pollSeconds = 5;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atoi(argv[i + 1]);
    else if (std::strcmp(argv[i], "--poll-seconds") == 0) pollSeconds = std::atoi(argv[i + 1]);
    else Fail("usage: gpsd_compare [--seconds N] [--poll-seconds N]");
  }
  if (::access("/usr/sbin/gpsd", X_OK) != 0) Fail("/usr/sbin/gpsd is missing: scripts/install-deps --with-peer");
  signal(SIGPIPE, SIG_IGN);

  char rootTemplate[] = "/tmp/gpsd-compare-XXXXXX";
  if (!mkdtemp(rootTemplate)) Fail("no temporary directory");
  const std::string root = rootTemplate;
  setenv("GPS_PLATFORM_ROOT", root.c_str(), 1);
  gps::platform::ReloadRoot();

  const std::string simLink = root + "/receiver";
  const pid_t sim = Spawn({UBX_SIM_BINARY, "--link", simLink, "--ttff-ms", "1000"}, root + "/ubx-sim.log");
  int simFd = -1;
  for (int i = 0; i < 200 && simFd < 0; ++i, std::this_thread::sleep_for(20ms))
    simFd = ::open(simLink.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
  if (simFd < 0) Fail("ubx-sim did not come up");
  MakeRaw(simFd);

  Daemon ours("gps-service");
  Daemon peer("gpsd 3.22");
  ours.port = FreePort();
  peer.port = FreePort();
  std::ofstream(root + "/platform.ini") << "[platform]\nmodule_type = 2\n[gps]\ndevice = " << ours.line.path
                                        << "\nbaud = 9600\n[gpsd]\nlisten = 127.0.0.1:" << ours.port
                                        << "\n[log]\nthreshold = 3\ntarget = stderr\n";
  gps::platform::ReloadRoot();
  const pid_t service = Spawn({GPS_SERVICE_BINARY}, root + "/service.log");
  const pid_t gpsd = Spawn({"/usr/sbin/gpsd", "-N", "-n", "-b", "-S", std::to_string(peer.port), "-F",
                            root + "/gpsd.sock", peer.line.path},
                           root + "/gpsd.log");

  // Both lines get every chunk of the receiver in the same order; which
  // daemon is written first alternates, so neither gets a head start.
  std::atomic<bool> stop{false};
  std::thread forwarder([&] {
    std::string pendingLine;
    bool oursFirst = true;
    while (!stop) {
      pollfd fds[3] = {{simFd, POLLIN, 0}, {ours.line.master, POLLIN, 0}, {peer.line.master, POLLIN, 0}};
      if (::poll(fds, 3, 200) <= 0) continue;
      char buffer[4096];
      if (fds[1].revents & POLLIN) {
        const ssize_t n = ::read(ours.line.master, buffer, sizeof buffer);
        if (n > 0) [[maybe_unused]] ssize_t w = ::write(simFd, buffer, static_cast<size_t>(n));
      }
      if (fds[2].revents & POLLIN) [[maybe_unused]] ssize_t ignored = ::read(peer.line.master, buffer, sizeof buffer);
      if (!(fds[0].revents & POLLIN)) continue;
      const ssize_t n = ::read(simFd, buffer, sizeof buffer);
      if (n <= 0) continue;
      Clock::time_point written[2];
      Daemon* order[2] = {oursFirst ? &ours : &peer, oursFirst ? &peer : &ours};
      for (int k = 0; k < 2; ++k) {
        for (ssize_t at = 0; at < n;) {
          const ssize_t w = ::write(order[k]->line.master, buffer + at, static_cast<size_t>(n - at));
          if (w > 0) at += w;
          else std::this_thread::sleep_for(100us);
        }
        written[k] = Clock::now();
      }
      // GGA sentences completed by this chunk.
      for (ssize_t i = 0; i < n; ++i) {
        const char c = buffer[i];
        if (c == '$') pendingLine.clear();
        if (pendingLine.size() < 128) pendingLine += c;
        if (c != '\n') continue;
        if (pendingLine.size() > 14 && pendingLine.compare(3, 4, "GGA,") == 0) {
          const std::string second = pendingLine.substr(7, 6);
          for (int k = 0; k < 2; ++k) {
            std::lock_guard lock(order[k]->mutex);
            order[k]->ggaWritten.emplace(second, written[k]);
          }
        }
        pendingLine.clear();
      }
      oursFirst = !oursFirst;
    }
  });

  auto client = gps::client::GpsClient::Connect(10s);
  if (!client) Fail("gps-service did not register: see " + root + "/service.log");
  if (!client->SetParameters(true, {})) Fail("gps-service refused to power the receiver on");

  std::thread watchOurs([&] { Watch(ours, stop); });
  std::thread watchPeer([&] { Watch(peer, stop); });
  std::printf("gpsd_compare: %d s of fixes on the same ubx-sim stream (root %s)\n", seconds, root.c_str());
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));

  // Latencies, and the three slowest epochs by their UTC second.
  auto latencies = [](Daemon& d, std::string& slowest) {
    std::lock_guard lock(d.mutex);
    std::vector<double> us;
    std::vector<std::pair<double, std::string>> bySecond;
    for (const auto& [second, arrived] : d.tpvArrived) {
      const auto gga = d.ggaWritten.find(second);
      if (gga == d.ggaWritten.end() || arrived < gga->second) continue;
      us.push_back(std::chrono::duration<double, std::micro>(arrived - gga->second).count());
      bySecond.emplace_back(us.back(), second);
    }
    std::sort(bySecond.rbegin(), bySecond.rend());
    for (size_t i = 0; i < bySecond.size() && i < 3; ++i)
      slowest += " " + bySecond[i].second + " (" + std::to_string(static_cast<int>(bySecond[i].first)) + " us)";
    return us;
  };
  std::string oursSlowest, peerSlowest;
  const auto oursUs = latencies(ours, oursSlowest);
  const auto peerUs = latencies(peer, peerSlowest);
  std::printf("\nGGA last byte on the line -> TPV at a watcher\n");
  for (const auto& [name, us] : {std::pair{ours.name, oursUs}, std::pair{peer.name, peerUs}})
    std::printf("  %-12s p50 %9.1f us   p90 %9.1f us   p99 %9.1f us   max %9.1f us   (%zu epochs)\n", name,
                Percentile(us, 50), Percentile(us, 90), Percentile(us, 99), Percentile(us, 100), us.size());
  std::printf("  slowest epochs (hhmmss): gps-service%s; gpsd%s\n", oursSlowest.c_str(), peerSlowest.c_str());
  if (!oursUs.empty() && !peerUs.empty())
    std::printf("  p99 ratio gps-service / gpsd: %.3f (goal: at most 0.5)\n",
                Percentile(oursUs, 99) / Percentile(peerUs, 99));

  std::printf("\n?POLL round trips, %d s per round\n", pollSeconds);
  for (const int clients : {1, 8}) {
    for (Daemon* d : {&ours, &peer}) {
      const PollResult r = PollRound(d->port, clients, std::chrono::seconds(pollSeconds));
      std::printf("  %-12s %d client%s %9.0f polls/s   p50 %8.1f us   p99 %8.1f us   (%zu polls)\n", d->name, clients,
                  clients == 1 ? " " : "s", r.perSecond, r.p50Us, r.p99Us, r.count);
      std::fflush(stdout);
    }
  }

  stop = true;
  watchOurs.join();
  watchPeer.join();
  forwarder.join();
  for (const pid_t pid : {service, gpsd, sim}) {
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
  }
  std::filesystem::remove_all(root);
  return 0;
}
