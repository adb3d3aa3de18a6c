// gps-replay: feeds recorded receiver streams through the engine's framer and
// analysers and prints what it learned as JSON lines.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

#include "platform/root.h"
#include "platform/settings.h"
#include "tools/replay.h"

namespace {

// A temporary platform root, removed on exit, for runs that did not name one.
// It lives in memory when it can: the engine commits the last fix to its
// parameters file with fsync, which a throwaway root does not need to pay for.
class TemporaryRoot {
 public:
  TemporaryRoot() {
    if (const char* env = std::getenv("GPS_PLATFORM_ROOT"); env && *env) return;
    std::error_code error;
    const std::filesystem::path base =
        std::filesystem::is_directory("/dev/shm", error) && access("/dev/shm", W_OK) == 0
            ? std::filesystem::path("/dev/shm")
            : std::filesystem::temp_directory_path();
    std::string pattern = (base / "gps-replay.XXXXXX").string();
    if (!mkdtemp(pattern.data())) return;
    path_ = pattern;
    setenv("GPS_PLATFORM_ROOT", path_.c_str(), 1);
    gps::platform::ReloadRoot();
  }
  ~TemporaryRoot() {
    if (path_.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryRoot(const TemporaryRoot&) = delete;
  TemporaryRoot& operator=(const TemporaryRoot&) = delete;

 private:
  std::string path_;
};

}  // namespace

int main(int argc, char** argv) {
  gps::replay::Options options;
  CLI::App app{"Replays recorded receiver streams through the GPS engine and prints fixes as JSON lines."};
  app.add_option("--module-type", options.moduleType,
                 "receiver module type: 1 UBX-G7020, 2 UBX-M8030 (message-aligned reads), other: GPRS modem (raw reads)")
      ->default_val(2);
  app.add_flag("--summary", options.summary, "print a summary line at the end");
  app.add_flag("--quiet", options.quiet, "print only the summary line");
  app.add_option("files", options.files, "capture or module-trace files; - reads standard input")->required();
  CLI11_PARSE(app, argc, argv);

  TemporaryRoot root;
  // A tool run from a shell reports to its terminal, not to the system log,
  // and a batch run does not need a system call per log line.
  gps::platform::SetLogTarget(gps::platform::LogTarget::Stderr);
  static char stderrBuffer[1 << 16];
  std::setvbuf(stderr, stderrBuffer, _IOFBF, sizeof stderrBuffer);
  return gps::replay::Run(options, stdout, stderr);
}
