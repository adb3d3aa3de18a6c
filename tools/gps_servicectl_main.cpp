// gps-servicectl: the GPS service from the command line. Reads the receiver's state,
// switches the power parameters, passes on standby and wake-up, edits the
// stored configuration, and shows a live view of the fix.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "client/format.h"
#include "client/gps_client.h"
#include "client/gpsd_view.h"
#include "client/stored_parameters.h"
#include "platform/service/directory.h"

namespace {

using gps::client::Error;
using gps::client::GpsClient;
using halvorda::device::gps::Parameters;

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNotRunning = 3;

constexpr const char* kFooter = R"(Exit status: 0 success, 1 the service or the stored configuration failed,
2 bad command line or config set input, 3 the service is not running.
Switch values: on/off, true/false, 1/0. The platform root is $GPS_PLATFORM_ROOT
(default /var/lib/gps-service); the stored configuration is
$GPS_PLATFORM_ROOT/config/local.device.gps.conf.)";

int ExitCodeFor(const Error& error) {
  if (error.ok()) return kExitOk;
  if (error.code() == gps::client::kServiceNotRunning) return kExitNotRunning;
  if (error.code() == gps::client::kInvalidInput) return kExitUsage;
  return kExitFailed;
}

int Report(const Error& error) {
  std::fprintf(stderr, "gps-servicectl: %s\n", error.message().c_str());
  return ExitCodeFor(error);
}

void Print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

std::string ParametersText(const Parameters& parameters) {
  const auto line = [](const char* key, bool present, bool value) {
    return std::string(key) + "=" + (value ? "true" : "false") + (present ? "" : " (not set)") + "\n";
  };
  return line("poweron", parameters.has_poweron(), parameters.poweron()) +
         line("keepon", parameters.has_keepon(), parameters.keepon());
}

// Where the service's fixes come from, as its directory entry says
// ("simulated" for the embedded simulator); empty when it says nothing.
std::string Receiver() {
  const auto entry = halvorda::service::Directory::Lookup(gps::client::kServiceClass);
  return entry ? entry->attribute("receiver") : std::string();
}

// --- watch -----------------------------------------------------------------

volatile sig_atomic_t g_interrupted = 0;

void OnInterrupt(int) { g_interrupted = 1; }

void CatchInterrupts() {
  struct sigaction action{};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // no restart: the wait between refreshes ends at once
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

// Waits the interval unless interrupted first.
void Pause(std::chrono::milliseconds interval) {
  const auto end = std::chrono::steady_clock::now() + interval;
  while (!g_interrupted) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return;
    ::poll(nullptr, 0, static_cast<int>(left.count()));
  }
}

std::string LocalClock() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return text;
}

// Reconnecting is worth trying after these; the others are answers.
bool ConnectionLost(const Error& error) {
  return error.code() == halvorda::service::ERROR_DISCONNECTED || error.code() == halvorda::service::ERROR_TIMEOUT ||
         error.code() == halvorda::service::ERROR_PROTOCOL;
}

int Watch(std::chrono::milliseconds timeout, int count, std::chrono::milliseconds interval) {
  CatchInterrupts();
  // On a terminal each view replaces the last; otherwise the views follow
  // one another, separated by a blank line.
  const bool terminal = ::isatty(STDOUT_FILENO) == 1;
  if (terminal) Print("\x1b[?25l");
  std::optional<GpsClient> client;
  Error last;
  for (int shown = 0; !g_interrupted && (count == 0 || shown < count); ++shown) {
    if (shown > 0) {
      Pause(interval);
      if (g_interrupted) break;
    }
    std::string body;
    if (!client) {
      auto connected = GpsClient::Connect(timeout);
      if (connected) {
        client.emplace(std::move(*connected));
      } else {
        last = connected.error();
      }
    }
    if (client) {
      auto reply = client->GetState();
      if (reply) {
        last = Error();
        body = gps::client::FormatFields(gps::client::ReadableState(*reply, Receiver()));
      } else {
        last = reply.error();
        if (ConnectionLost(last)) client.reset();
      }
    }
    if (!last.ok()) body = gps::client::FormatFields({{"Status", last.message()}});
    std::string screen = "gps-servicectl watch: " + std::string(gps::client::kServiceClass) + " at " + LocalClock() +
                         (count == 0 ? " (Ctrl-C to quit)" : "") + "\n\n" + body;
    Print(terminal ? "\x1b[H\x1b[2J" + screen : (shown > 0 ? "\n" : "") + screen);
  }
  if (terminal) Print("\x1b[?25h\n");
  return g_interrupted ? kExitOk : ExitCodeFor(last);
}

// --- the other commands ---------------------------------------------------

std::optional<GpsClient> ConnectOrReport(std::chrono::milliseconds timeout, int& exitCode) {
  auto client = GpsClient::Connect(timeout);
  if (!client) {
    exitCode = Report(client.error());
    return std::nullopt;
  }
  return std::move(*client);
}

int ShowReply(const gps::client::Result<gps::client::Reply>& reply, bool json, bool withState) {
  if (!reply) return Report(reply.error());
  if (json)
    Print((withState ? gps::client::StateJson(*reply, Receiver()) : gps::client::ToJson(reply->response())) + "\n");
  else if (withState)
    Print(gps::client::FormatFields(gps::client::ReadableState(*reply, Receiver())));
  else
    Print(ParametersText(reply->parameters()));
  return kExitOk;
}

// "power on", "keepon off": one parameter sent to the service.
int SetSwitch(std::chrono::milliseconds timeout, const std::string& name, const std::string& value, bool json) {
  const std::optional<bool> on = gps::client::ParseSwitch(value);
  if (!on) return Report(Error(gps::client::kInvalidInput, "bad value '" + value + "' for " + name + " (use on or off)"));
  int exitCode = kExitOk;
  auto client = ConnectOrReport(timeout, exitCode);
  if (!client) return exitCode;
  const bool power = name == "power";
  return ShowReply(client->SetParameters(power ? on : std::nullopt, power ? std::nullopt : on), json, false);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"gps-servicectl: control and watch the GPS service (local.device.gps)"};
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(kFooter);
  int timeoutMs = static_cast<int>(gps::client::kDefaultTimeout.count());
  app.add_option("--timeout", timeoutMs, "Time allowed to reach the service and for each answer, in ms")
      ->check(CLI::Range(1, 3'600'000))
      ->capture_default_str();

  bool json = false;
  CLI::App* state = app.add_subcommand("state", "Show the receiver's state and the power parameters");
  state->add_flag("--json", json, "The service's response as JSON");

  std::string powerValue;
  CLI::App* power = app.add_subcommand("power", "Ask for the receiver to be powered or not (poweron)");
  power->add_option("value", powerValue, "on or off")->required();
  power->add_flag("--json", json, "The service's response as JSON");

  std::string keeponValue;
  CLI::App* keepon = app.add_subcommand("keepon", "Keep the receiver powered through standby, or not (keepon)");
  keepon->add_option("value", keeponValue, "on or off")->required();
  keepon->add_flag("--json", json, "The service's response as JSON");

  CLI::App* standby = app.add_subcommand("standby", "Tell the service the terminal goes to standby (NotifyRequest)");
  CLI::App* wakeup = app.add_subcommand("wakeup", "Tell the service the terminal woke up (WakeupEvent)");

  CLI::App* config = app.add_subcommand("config", "The stored configuration, read and written directly");
  config->require_subcommand(1);
  CLI::App* configGet = config->add_subcommand("get", "Print the stored parameters");
  configGet->add_flag("--json", json, "As JSON");
  std::vector<std::string> assignments;
  CLI::App* configSet = config->add_subcommand(
      "set", "Change stored parameters; a running service applies the change at once");
  configSet->add_option("assignments", assignments, "key=value with keys poweron, keepon")->required();

  bool once = false;
  int count = 0;
  int intervalMs = 1000;
  CLI::App* watch = app.add_subcommand("watch", "Live view of the fix, refreshed until Ctrl-C");
  CLI::Option* onceOption = watch->add_flag("--once", once, "Show one view and exit");
  watch->add_option("--count", count, "Show this many views and exit")->check(CLI::PositiveNumber)->excludes(onceOption);
  watch->add_option("--interval", intervalMs, "Time between views, in ms")
      ->check(CLI::Range(10, 3'600'000))
      ->capture_default_str();

  CLI::App* sky = app.add_subcommand("sky", "Satellites in view and used, with their signal (needs [gpsd])");
  CLI::App* time = app.add_subcommand("time", "The receiver's UTC time against the system clock, and chrony's source");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? kExitOk : kExitUsage;
  }

  const std::chrono::milliseconds timeout(timeoutMs);
  if (state->parsed()) {
    int exitCode = kExitOk;
    auto client = ConnectOrReport(timeout, exitCode);
    return client ? ShowReply(client->GetState(), json, true) : exitCode;
  }
  if (power->parsed()) return SetSwitch(timeout, "power", powerValue, json);
  if (keepon->parsed()) return SetSwitch(timeout, "keepon", keeponValue, json);
  if (standby->parsed() || wakeup->parsed()) {
    int exitCode = kExitOk;
    auto client = ConnectOrReport(timeout, exitCode);
    if (!client) return exitCode;
    const Error result = standby->parsed() ? client->Standby() : client->Wakeup();
    return result.ok() ? kExitOk : Report(result);
  }
  if (configGet->parsed()) {
    const auto stored = gps::client::ReadStoredParameters();
    if (!stored) return Report(stored.error());
    Print(json ? gps::client::ToJson(*stored) + "\n" : ParametersText(*stored));
    return kExitOk;
  }
  if (configSet->parsed()) {
    const auto change = gps::client::ParseParameterAssignments(assignments);
    if (!change) return Report(change.error());
    const auto stored = gps::client::UpdateStoredParameters(*change);
    if (!stored) return Report(stored.error());
    Print(ParametersText(*stored));
    return kExitOk;
  }
  if (sky->parsed() || time->parsed()) {
    const auto view = sky->parsed() ? gps::client::SkyView(timeout) : gps::client::TimeView(timeout);
    if (!view) return Report(view.error());
    Print(*view);
    return kExitOk;
  }
  if (watch->parsed()) return Watch(timeout, once ? 1 : count, std::chrono::milliseconds(intervalMs));
  return kExitUsage;
}
