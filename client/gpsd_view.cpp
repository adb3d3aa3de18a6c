#include "client/gpsd_view.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <ctime>

#include <nlohmann/json.hpp>

#include "platform/root.h"
#include "platform/settings.h"

namespace gps::client {

namespace {

using Clock = std::chrono::steady_clock;

class Connection {
 public:
  ~Connection() {
    if (fd_ >= 0) ::close(fd_);
  }
  Error open() {
    const platform::Settings& s = platform::CurrentSettings();
    if (!s.gpsdSocket.empty()) {
      const std::string& p = s.gpsdSocket;
      const auto path = platform::SystemPath(p.front() == '/' ? p : "/" + p);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      if (path && path->size() < sizeof address.sun_path) {
        path->copy(address.sun_path, path->size());
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return Error();
        return Error(kServiceNotRunning, "nothing answers on " + *path + " ([gpsd] socket): is gps-service running?");
      }
    }
    std::string first = s.gpsdListen.substr(0, s.gpsdListen.find_first_of(" ,"));
    if (first.empty())
      return Error(kServiceFailed,
                   "the gpsd endpoint is off: set [gpsd] listen or socket in platform.ini and restart gps-service");
    const size_t colon = first.rfind(':');
    std::string host = first.substr(0, colon);
    const int port = std::atoi(first.substr(colon + 1).c_str());
    sockaddr_storage storage{};
    socklen_t length = 0;
    if (host.size() > 2 && host.front() == '[') host = host.substr(1, host.size() - 2);
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
      v4->sin_family = AF_INET;
      v4->sin_port = htons(static_cast<uint16_t>(port));
      length = sizeof *v4;
    } else if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
      v6->sin6_family = AF_INET6;
      v6->sin6_port = htons(static_cast<uint16_t>(port));
      length = sizeof *v6;
    } else {
      return Error(kServiceFailed, "[gpsd] listen = " + first + " in platform.ini is not an address");
    }
    fd_ = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&storage), length) == 0) return Error();
    return Error(kServiceNotRunning, "nothing answers on " + first + " ([gpsd] listen): is gps-service running?");
  }
  void send(const std::string& text) { [[maybe_unused]] ssize_t n = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL); }
  // The next object of the class, or nothing before the deadline.
  std::optional<nlohmann::json> next(const std::string& cls, Clock::time_point deadline) {
    for (;;) {
      size_t newline;
      while ((newline = pending_.find('\n')) != std::string::npos) {
        const auto object = nlohmann::json::parse(pending_.substr(0, newline), nullptr, false);
        pending_.erase(0, newline + 1);
        if (object.is_object() && object.value("class", "") == cls) return object;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{fd_, POLLIN, 0};
      if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) <= 0) return std::nullopt;
      char buffer[4096];
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return std::nullopt;
      pending_.append(buffer, static_cast<size_t>(n));
    }
  }

 private:
  int fd_ = -1;
  std::string pending_;
};

std::string Format(const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

int64_t ParseIsoMs(const std::string& text) {
  std::tm t{};
  int ms = 0;
  if (std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d.%dZ", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
                  &t.tm_sec, &ms) < 6)
    return 0;
  t.tm_year -= 1900;
  t.tm_mon -= 1;
  return static_cast<int64_t>(timegm(&t)) * 1000 + ms;
}

std::string ChronyState() {
  const std::string& path = platform::CurrentSettings().chronySocket;
  if (path.empty()) return "not configured ([chrony] socket in platform.ini)";
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  bool listening = false;
  if (fd >= 0 && path.size() < sizeof address.sun_path) {
    path.copy(address.sun_path, path.size());
    listening = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  if (fd >= 0) ::close(fd);
  return path + (listening ? ", chronyd listening" : ", no chronyd listening (samples resume when it starts)");
}

}  // namespace

Result<std::string> SkyView(std::chrono::milliseconds timeout) {
  Connection connection;
  if (Error e = connection.open(); !e.ok()) return e;
  connection.send("?POLL;\n");
  const auto poll = connection.next("POLL", Clock::now() + timeout);
  if (!poll) return Error(kServiceFailed, "the gpsd endpoint did not answer ?POLL in time");
  const auto& skies = (*poll)["sky"];
  if (!skies.is_array() || skies.empty()) return std::string("No satellites reported yet (receiver off or starting).\n");
  const auto& sky = skies[0];
  std::string text = "Satellites in view: " + std::to_string(sky.value("nSat", 0)) +
                     ", used: " + std::to_string(sky.value("uSat", 0)) + "\n";
  for (const char* dop : {"hdop", "vdop", "pdop"})
    if (sky.contains(dop)) text += std::string(dop) + "=" + Format("%.2f", sky[dop].get<double>()) + "  ";
  text += "\n  PRN  Elev  Azim  Signal  Used\n";
  for (const auto& sat : sky.value("satellites", nlohmann::json::array())) {
    // A satellite known only as used has no elevation, azimuth or signal: "-".
    const auto field = [&](const char* key, const char* format) {
      return sat.contains(key) && sat[key].is_number() ? Format(format, sat[key].get<double>()) : std::string("-");
    };
    char line[96];
    std::snprintf(line, sizeof line, "  %3d  %4s  %4s  %9s  %s\n", sat.value("PRN", 0),
                  field("el", "%.0f").c_str(), field("az", "%.0f").c_str(), field("ss", "%3.0f dB-Hz").c_str(),
                  sat.value("used", false) ? "yes" : "no");
    text += line;
  }
  return text;
}

Result<std::string> TimeView(std::chrono::milliseconds timeout) {
  Connection connection;
  if (Error e = connection.open(); !e.ok()) return e;
  connection.send("?WATCH={\"enable\":true,\"json\":true};\n");
  const auto deadline = Clock::now() + std::max(timeout, std::chrono::milliseconds(3000));
  for (;;) {
    const auto tpv = connection.next("TPV", deadline);
    if (!tpv) return std::string("Receiver UTC: no fix with a time yet\nChrony source: ") + ChronyState() + "\n";
    if (!tpv->contains("time") || tpv->value("mode", 0) < 2) continue;
    const auto now = std::chrono::system_clock::now();
    const int64_t systemMs =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const int64_t receiverMs = ParseIsoMs((*tpv)["time"].get<std::string>());
    const std::time_t seconds = static_cast<std::time_t>(systemMs / 1000);
    std::tm tm{};
    gmtime_r(&seconds, &tm);
    char system[96];
    std::snprintf(system, sizeof system, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(systemMs % 1000));
    return "Receiver UTC: " + (*tpv)["time"].get<std::string>() + " (fix from " + tpv->value("device", "?") + ")\n" +
           "System clock: " + system + " (at the fix's arrival)\n" +
           "Difference:   " + Format("%+.3f s", static_cast<double>(receiverMs - systemMs) / 1000.0) +
           " (receiver minus system, including the fix's delivery)\n" + "Chrony source: " + ChronyState() + "\n";
  }
}

}  // namespace gps::client
