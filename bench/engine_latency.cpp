// How fast a fix reaches a caller, and what the engine thread costs.
//
//   engine_latency [--fixes N] [--cpu-seconds S]
//
// Latency: the benchmark plays the receiver on a pseudo-terminal that the
// resource driver opens as a serial line. It writes one GGA sentence, with a
// latitude that names the sample, and calls lib_GPS_Geolocating_GPS_GetPosition
// until that latitude comes back; the time from the write of the sentence
// (taken just before the write call) to that return is one sample. Between samples it pauses 5-20 ms,
// so the engine thread is asleep in its wait when the sentence arrives.
//
// CPU: the engine thread's own CPU clock, with the embedded simulated receiver
// on (one fix a second, NMEA and the configured UBX messages) and then off.
//
// The engine starts once per process, so each part runs in a child process
// under a fresh platform root.
#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/gps_geolocating.h"
#include "platform/root.h"
#include "platform/settings.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  int fixes = 1000;
  int cpuSeconds = 60;
};

std::string MakeRoot() {
  std::string pattern = (std::filesystem::temp_directory_path() / "gps-bench.XXXXXX").string();
  if (!mkdtemp(pattern.data())) {
    std::perror("mkdtemp");
    std::exit(1);
  }
  setenv("GPS_PLATFORM_ROOT", pattern.c_str(), 1);
  return pattern;
}

void WritePlatformIni(const std::string& root, const std::string& body) {
  std::ofstream(root + "/platform.ini") << body;
  gps::platform::ReloadRoot();
  // Only what goes wrong reaches the terminal.
  gps::platform::SetLogThreshold(3);
}

std::string Gga(int sample) {
  // 48 deg 51.xxxxx min N: the minutes' fraction names the sample.
  char body[128];
  std::snprintf(body, sizeof body, "GPGGA,120000.00,4851.%05d,N,00221.13200,E,1,08,0.90,35.0,M,47.0,M,,",
                sample % 100000);
  unsigned sum = 0;
  for (const char* c = body; *c; ++c) sum ^= static_cast<unsigned char>(*c);
  char sentence[160];
  std::snprintf(sentence, sizeof sentence, "$%s*%02X\r\n", body, sum);
  return sentence;
}

double Percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  const size_t index = std::min(values.size() - 1, static_cast<size_t>(p / 100.0 * static_cast<double>(values.size())));
  return values[index];
}

void MeasureLatency(int fixes) {
  const std::string root = MakeRoot();
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
    std::perror("pseudo-terminal");
    std::exit(1);
  }
  termios raw{};
  tcgetattr(master, &raw);
  cfmakeraw(&raw);
  tcsetattr(master, TCSANOW, &raw);
  WritePlatformIni(root, std::string("[platform]\nmodule_type = 2\n[gps]\ndevice = ") + ptsname(master) +
                             "\nbaud = 115200\n");
  gps_dll_init();
  lib_GPS_Geolocating_GPS_SetPower(1);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the power handling and the wake-up bytes

  // The engine's polls and commands are read and dropped, as a receiver that
  // ignores them would.
  std::thread drain([master] {
    char buffer[1024];
    while (read(master, buffer, sizeof buffer) > 0) {
    }
  });
  drain.detach();

  std::mt19937 random(42);
  std::uniform_int_distribution<int> pauseUs(5000, 20000);
  std::vector<double> samplesUs;
  int timeouts = 0;
  for (int i = 0; i < fixes + 10; ++i) {
    const std::string sentence = Gga(i);
    char expected[16];
    std::snprintf(expected, sizeof expected, "4851.%05dN", i % 100000);
    // Timed from just before the write: the reader may well run before the
    // write call returns.
    const auto written = Clock::now();
    if (write(master, sentence.data(), sentence.size()) != static_cast<ssize_t>(sentence.size())) {
      std::perror("write");
      std::exit(1);
    }
    char latitude[16] = {}, longitude[16] = {};
    bool seen = false;
    while (Clock::now() - written < std::chrono::seconds(2)) {
      uint32_t age = 0;
      if (lib_GPS_Geolocating_GPS_GetPosition(longitude, latitude, &age, GEOLOCATING_GPS_ACCEPT_ONLY_CURRENT_FIX) == 0 &&
          std::strcmp(latitude, expected) == 0) {
        seen = true;
        break;
      }
      std::this_thread::yield();  // leave the core to the engine thread on a busy machine
    }
    const double us = std::chrono::duration<double, std::micro>(Clock::now() - written).count();
    if (i >= 10) {  // the first ones warm up the line and the engine
      if (seen)
        samplesUs.push_back(us);
      else
        ++timeouts;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(pauseUs(random)));
  }
  if (samplesUs.empty()) {
    std::printf("latency: no fix came back (%d time-outs)\n", timeouts);
    std::exit(1);
  }
  std::printf("latency from the last byte of a GGA sentence to GetPosition returning it, %zu fixes:\n",
              samplesUs.size());
  std::printf("  p50 %.0f us   p90 %.0f us   p99 %.0f us   max %.0f us   lost %d\n", Percentile(samplesUs, 50),
              Percentile(samplesUs, 90), Percentile(samplesUs, 99), *std::max_element(samplesUs.begin(), samplesUs.end()),
              timeouts);
  std::filesystem::remove_all(root);
}

// The engine thread's own CPU clock, found by its name.
clockid_t EngineThreadClock() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    if (name == "gps-engine") {
      const pid_t tid = static_cast<pid_t>(std::stol(task.path().filename().string()));
      // The kernel's encoding of a per-thread CPU clock (scheduler time).
      return static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6);
    }
  }
  std::fprintf(stderr, "no engine thread\n");
  std::exit(1);
}

double CpuSeconds(clockid_t clock) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

void MeasureCpu(int seconds) {
  const std::string root = MakeRoot();
  WritePlatformIni(root, "[platform]\nmodule_type = 2\n[gps]\ndevice = sim\n[sim]\nttff_ms = 1000\n");
  gps_dll_init();
  const clockid_t clock = EngineThreadClock();
  const auto window = [&](const char* what) {
    const double cpu0 = CpuSeconds(clock);
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const double cpu = CpuSeconds(clock) - cpu0;
    const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
    std::printf("  %-34s %8.1f ms CPU per minute  (%.3f %% of one core, over %.0f s)\n", what, cpu / wall * 60e3,
                cpu / wall * 100, wall);
  };
  std::printf("engine thread CPU time:\n");
  lib_GPS_Geolocating_GPS_SetPower(1);
  std::this_thread::sleep_for(std::chrono::seconds(3));  // configuration and first fix
  window("receiver on, 1 fix per second");
  lib_GPS_Geolocating_GPS_SetPower(0);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  window("receiver off");
  std::filesystem::remove_all(root);
}

template <typename Part>
void InChild(Part part) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    part();
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--fixes") == 0) {
      options.fixes = std::atoi(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--cpu-seconds") == 0) {
      options.cpuSeconds = std::atoi(argv[i + 1]);
    } else {
      std::fprintf(stderr, "usage: %s [--fixes N] [--cpu-seconds S]\n", argv[0]);
      return 2;
    }
  }
  if (options.fixes < 1 || options.cpuSeconds < 1) {
    std::fprintf(stderr, "--fixes and --cpu-seconds take a positive number\n");
    return 2;
  }
  InChild([&] { MeasureLatency(options.fixes); });
  InChild([&] { MeasureCpu(options.cpuSeconds); });
  return 0;
}
