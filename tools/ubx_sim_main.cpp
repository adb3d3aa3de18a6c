// ubx-sim: the simulated u-blox receiver on a pseudo-terminal, for the
// service (device = a serial path) or any serial tool to talk to.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <string>

#include "sim/pty_link.h"
#include "sim/runner.h"
#include "sim/setup.h"

namespace {

constexpr const char* kScenarioHelp = R"(Scenario file (--scenario): one directive per line, '#' starts a comment.
  point LAT LON [ALT]   way point in degrees (north/east positive), metres above
                        mean sea level; a single point is a fixed position
  speed MPS             ground speed along the way points (default 10 m/s)
  loop yes|no           return to the first point after the last (default yes)
  geoid METRES          geoid separation reported with the fix (default 47)
  start YYYY-MM-DDTHH:MM:SSZ
                        UTC time at start (default: the real clock)
Without --scenario the receiver drives a 4.1 km loop through central Paris
(48.8566 N 2.3522 E) at 10 m/s.

The receiver starts powered, writes NMEA (RMC VTG GGA GSA GSV GLL) every fix
period and answers UBX commands; SIGINT or SIGTERM removes the link and exits.

It keeps the u-blox port rules: the line is its USB port (3) or its UART1 (1);
a message comes out only when enabled for that port, NMEA and UBX only while
the port's CFG-PRT output mask has them. After RXM-PMREQ backup it answers
nothing: on UART1 a byte on the line wakes it when UART RX is a wake-up
source; on USB only a restart of ubx-sim does. On UART1 it talks at --baud: a
host line set to another speed gets noise.)";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"ubx-sim: a simulated u-blox M8-class GPS receiver on a pseudo-terminal"};
  std::string link;
  std::string model = "M8030";
  gps::sim::EmbeddedOptions options;
  options.startPowered = true;
  app.add_option("--link", link, "Path of the symbolic link to the pseudo-terminal")->required();
  app.add_option("--model", model, "Receiver model: M8030 or G7020")
      ->check(CLI::IsMember({"M8030", "G7020"}))
      ->capture_default_str();
  app.add_option("--scenario", options.scenarioFile, "Scenario file (format below)");
  app.add_option("--ttff-ms", options.ttffMs, "Time to first fix in ms")->capture_default_str();
  app.add_flag("--ant-off-polarity", options.antOffPolarity, "Report bit 7 of llcGen set in MON-LLC");
  app.add_option("--alp", options.alpFile, "AssistNow Offline file to check the host's ALP answers against");
  std::string port = "usb";
  app.add_option("--port", port, "Receiver port the line is: usb or uart1")
      ->check(CLI::IsMember({"usb", "uart1"}))
      ->capture_default_str();
  app.add_flag("--ubx-only", options.ubxOnly, "Start with NMEA output off (UBX only), as another tool may leave it");
  uint32_t baud = 9600;
  app.add_option("--baud", baud, "UART1 line speed")
      ->check(CLI::IsMember({4800, 9600, 19200, 38400, 57600, 115200, 230400, 460800, 921600}))
      ->capture_default_str();
  app.footer(kScenarioHelp);
  CLI11_PARSE(app, argc, argv);
  options.model = model == "G7020" ? gps::sim::ReceiverModel::G7020 : gps::sim::ReceiverModel::M8030;
  options.port = port == "usb" ? 3 : 1;
  options.lineBaud = port == "usb" ? 0 : baud;

  if (!options.alpFile.empty() && !std::ifstream(options.alpFile))
    std::fprintf(stderr, "ubx-sim: cannot read %s: ALP answers are checked by size only\n", options.alpFile.c_str());

  std::string error;
  std::optional<gps::sim::Receiver> receiver = gps::sim::MakeReceiver(options, &error);
  if (!receiver) {
    std::fprintf(stderr, "ubx-sim: %s\n", error.c_str());
    return 2;
  }

  const sigset_t signals = gps::sim::BlockTerminationSignals();

  std::string slavePath;
  const int master = gps::sim::OpenRawPty(&slavePath, &error);
  if (master < 0) {
    std::fprintf(stderr, "ubx-sim: %s\n", error.c_str());
    return 1;
  }
  if (!gps::sim::CreateLink(slavePath, link, &error)) {
    std::fprintf(stderr, "ubx-sim: %s\n", error.c_str());
    close(master);
    return 1;
  }
  gps::sim::Runner runner(master, std::move(*receiver), gps::sim::RunnerOptions{.ptySlavePath = slavePath, .maxQueuedBytes = 32 * 1024, .lineBaud = options.lineBaud});
  if (!runner.Start(&error)) {
    std::fprintf(stderr, "ubx-sim: %s\n", error.c_str());
    gps::sim::RemoveLink(slavePath, link);
    return 1;
  }
  std::printf("ubx-sim: %s receiver on %s%s serving on %s (link %s)\n", model.c_str(), port.c_str(),
              port == "usb" ? "" : (" at " + std::to_string(baud) + " baud").c_str(), slavePath.c_str(), link.c_str());
  std::fflush(stdout);

  gps::sim::WaitForTermination(signals);
  runner.Stop();
  gps::sim::RemoveLink(slavePath, link);
  return 0;
}
