// State requests against a running gps-service with a fix.
//
//   service_bench [--requests N]
//
// Starts gps-service under a throwaway platform root on its embedded
// simulated receiver, switches the receiver on and waits for a fix, then
// sends SetGetStateRequest (no parameters: the full State comes back) from 1
// and from 8 concurrent clients, N requests in all for each. Prints requests
// per second and the p50/p99 round trip, and the service's resident memory
// after start-up and after each round.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "halvorda/device/gps/gps.pb.h"
#include "platform/root.h"
#include "platform/service/framework.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace msg = halvorda::device::gps;

long ResidentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  return -1;
}

double Percentile(std::vector<double>& values, double p) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(p / 100.0 * static_cast<double>(values.size())))];
}

void Fail(const char* what) {
  std::fprintf(stderr, "service_bench: %s\n", what);
  std::exit(1);
}

// One round: `clients` connections, `total` requests shared between them.
void Round(int clients, int total, pid_t service) {
  std::vector<std::vector<double>> latencies(static_cast<size_t>(clients));
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&, c] {
      halvorda::service::ClientConnection client;
      if (client.connect("local.device.gps", 5000) != 0) Fail("cannot connect");
      msg::SetGetStateRequest request;
      msg::SetGetStateResponse response;
      auto& mine = latencies[static_cast<size_t>(c)];
      mine.reserve(static_cast<size_t>(total / clients));
      for (int i = 0; i < total / clients; ++i) {
        const auto t0 = Clock::now();
        if (client.request(request, response, 5000) != 0 || !response.has_state()) Fail("request failed");
        mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
      }
    });
  }
  for (auto& t : threads) t.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::vector<double> all;
  for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
  std::printf("  %d client%s: %8.0f requests/s   p50 %6.1f us   p99 %6.1f us   (%zu requests)   RSS after %ld KiB\n",
              clients, clients == 1 ? " " : "s", static_cast<double>(all.size()) / seconds, Percentile(all, 50),
              Percentile(all, 99), all.size(), ResidentKiB(service));
}

}  // namespace

int main(int argc, char** argv) {
  int requests = 100000;
  if (argc == 3 && std::strcmp(argv[1], "--requests") == 0) {
    requests = std::atoi(argv[2]);
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: %s [--requests N]\n", argv[0]);
    return 2;
  }
  if (requests < 8) Fail("--requests takes a number of at least 8");

  std::string root = (std::filesystem::temp_directory_path() / "gps-service-bench.XXXXXX").string();
  if (!mkdtemp(root.data())) Fail("mkdtemp");
  setenv("GPS_PLATFORM_ROOT", root.c_str(), 1);
  gps::platform::ReloadRoot();
  std::ofstream(root + "/platform.ini") << "[gps]\ndevice = sim\n[sim]\nttff_ms = 300\n[log]\ntarget = stderr\nthreshold = 3\n";

  pid_t service = -1;
  char* args[] = {const_cast<char*>(GPS_SERVICE_BINARY), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 2, (root + "/service.log").c_str(), O_WRONLY | O_CREAT, 0644);
  if (posix_spawn(&service, args[0], &actions, nullptr, args, environ) != 0) Fail("cannot start gps-service");
  posix_spawn_file_actions_destroy(&actions);

  halvorda::service::ClientConnection client;
  if (client.connect("local.device.gps", 10000) != 0) Fail("the service did not come up");
  std::printf("gps-service resident memory after start-up: %ld KiB\n", ResidentKiB(service));
  msg::SetGetStateRequest on;
  on.mutable_parameters()->set_poweron(true);
  msg::SetGetStateResponse response;
  if (client.request(on, response, 5000) != 0) Fail("power-on refused");
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  msg::SetGetStateRequest read;
  while (!(client.request(read, response, 5000) == 0 && response.has_state() && response.state().has_strlatitude())) {
    if (Clock::now() > deadline) Fail("no fix within 10 s");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::printf("with a fix (receiver on): %ld KiB\n", ResidentKiB(service));
  std::printf("SetGetStateRequest round trips, full State in every response:\n");
  Round(1, requests, service);
  Round(8, requests, service);
  Round(8, requests, service);

  kill(service, SIGTERM);
  waitpid(service, nullptr, 0);
  std::filesystem::remove_all(root);
  return 0;
}
