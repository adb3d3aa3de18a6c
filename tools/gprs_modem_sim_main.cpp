// gprs-modem-sim: the GPRS modem software's GPS command channel on a
// pseudo-terminal, linked where the service looks for it, with a GPS-only
// NMEA receiver behind it.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "platform/root.h"
#include "sim/modem_channel.h"
#include "sim/pty_link.h"

namespace {

constexpr const char* kChannelPath = "/tmp/gps_dgprs";

constexpr const char* kFooter = R"(The channel answers, on the same line as its NMEA stream (all words u32
little-endian; command: code, data length, data; response: code, status, length,
bytes):
  0x812C  get version   status 0, the version text with its terminating NUL
  0x812D  run           status 0; GGA RMC VTG GSA GSV (talker GP) every fix period,
                        without a fix until the time to first fix has passed
  0x812E  stop          status 0; the stream stops
  other                 status -22, no bytes
  more than 4096 data bytes announced: status -7, the bytes received so far dropped
Scenario file (--scenario): the format of ubx-sim (see ubx-sim --help); without
it the GPS drives a 4.1 km loop through central Paris at 10 m/s.
SIGINT or SIGTERM removes the link and exits.)";

int Fail(const std::string& why) {
  std::fprintf(stderr, "gprs-modem-sim: %s\n", why.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"gprs-modem-sim: the GPRS modem's GPS command channel on a pseudo-terminal"};
  std::string link;
  std::string scenarioFile;
  gps::sim::ModemConfig config;
  app.add_option("--link", link,
                 "Path of the symbolic link to the pseudo-terminal [default: $GPS_PLATFORM_ROOT" +
                     std::string(kChannelPath) + "]");
  app.add_option("--version-text", config.versionText, "Text answered to the version command")->capture_default_str();
  app.add_option("--scenario", scenarioFile, "Scenario file (format below)");
  app.add_option("--rate-ms", config.fixPeriodMs, "Fix period in ms")
      ->check(CLI::Range(1u, 60000u))
      ->capture_default_str();
  app.add_option("--ttff-ms", config.ttffMs, "Time to first fix after the run command, in ms")->capture_default_str();
  app.footer(kFooter);
  CLI11_PARSE(app, argc, argv);

  std::optional<gps::sim::Scenario> scenario = gps::sim::Scenario::DefaultRoute();
  std::string error;
  if (!scenarioFile.empty()) {
    scenario = gps::sim::Scenario::Load(scenarioFile, &error);
    if (!scenario) {
      std::fprintf(stderr, "gprs-modem-sim: %s\n", error.c_str());
      return 2;
    }
  }

  if (link.empty()) {
    const std::optional<std::string> path = gps::platform::SystemPath(kChannelPath);
    if (!path) return Fail("GPS_PLATFORM_ROOT gives no place for " + std::string(kChannelPath));
    const std::string directory = path->substr(0, path->rfind('/'));
    if (!gps::platform::MakeDirectories(directory)) return Fail(directory + ": " + std::strerror(errno));
    link = *path;
  }

  const sigset_t signals = gps::sim::BlockTerminationSignals();

  std::string slavePath;
  const int master = gps::sim::OpenRawPty(&slavePath, &error);
  if (master < 0) return Fail(error);
  if (!gps::sim::CreateLink(slavePath, link, &error)) {
    close(master);
    return Fail(error);
  }
  gps::sim::ModemChannel channel(master, gps::sim::ModemGps(config, std::move(*scenario)));
  if (!channel.Start(&error)) {
    gps::sim::RemoveLink(slavePath, link);
    return Fail(error);
  }
  std::printf("gprs-modem-sim: serving on %s (link %s)\n", slavePath.c_str(), link.c_str());
  std::fflush(stdout);

  gps::sim::WaitForTermination(signals);
  channel.Stop();
  gps::sim::RemoveLink(slavePath, link);
  return 0;
}
