// The GPS of the GPRS modem as the modem software presents it on its command
// channel: commands in, responses and NMEA sentences out, on a clock the
// caller advances. No I/O here; ModemChannel serves it on a pseudo-terminal.
//
// All words are u32, little-endian:
//   command:   code | data length n | n data bytes
//   response:  code echoed | status (0 = done) | length m | m bytes
//
//   2D 81 00 00  00 00 00 00                    run
//   2D 81 00 00  00 00 00 00  00 00 00 00       done, nothing to return
//
// While running, the modem's GPS writes one burst of GPS-only sentences
// (GGA RMC VTG GSA GSV, talker "GP") at every whole fix period of UTC after
// the run command, without a fix until the time to first fix is over.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/nmea_generator.h"
#include "sim/scenario.h"

namespace gps::sim {

namespace modem {
inline constexpr uint32_t kGetVersion = 0x812C;
inline constexpr uint32_t kRun = 0x812D;
inline constexpr uint32_t kStop = 0x812E;

inline constexpr int32_t kStatusDone = 0;
// The modem's driver answers in the manner of an ioctl: a negative errno.
inline constexpr int32_t kStatusUnknownCommand = -22;  // -EINVAL
inline constexpr int32_t kStatusTooMuchData = -7;      // -E2BIG

// No modem command carries more; a larger length means the two ends have
// lost each other.
inline constexpr uint32_t kMaxDataBytes = 4096;
inline constexpr size_t kHeaderBytes = 8;
inline constexpr size_t kResponseHeaderBytes = 12;

// code | status | length | bytes
std::string EncodeResponse(uint32_t code, int32_t status, std::string_view bytes = {});
}  // namespace modem

struct ModemConfig {
  // Returned NUL-terminated by the version command; any length is sent as
  // it is, also one that the host's buffer cannot hold.
  std::string versionText = "GPRS-MODEM-SIM GNSS 1.0";
  uint32_t fixPeriodMs = 1000;
  uint32_t ttffMs = 3000;  // from the run command to the first fix
  // UTC at clock 0 (not before 1970); unset: the scenario's start, else the
  // real clock.
  std::optional<int64_t> utcAtStartMs;
};

class ModemGps {
 public:
  ModemGps(ModemConfig config, Scenario scenario);

  // Bytes from the host at `nowMs`; every complete command is answered.
  void Receive(std::span<const uint8_t> bytes, uint64_t nowMs);
  // Produces the bursts due up to `nowMs`. A clock that jumped far ahead
  // skips the missed epochs instead of writing them all at once.
  void Advance(uint64_t nowMs);
  // Whole sentences and whole responses produced since the last call.
  std::vector<std::string> TakeSentences();
  std::vector<std::string> TakeResponses();
  // Forgets the part of a command received so far: the host that was
  // sending it has closed the channel.
  void DiscardPartialCommand();

  bool running() const { return running_; }
  // When the next burst is due; nothing while stopped.
  std::optional<uint64_t> NextEpochMs() const;
  // Codes of every complete command, in arrival order.
  const std::vector<uint32_t>& commands() const { return commands_; }

 private:
  void Execute(uint32_t code, uint64_t nowMs);
  void RunEpoch(uint64_t epochMs);

  ModemConfig config_;
  Scenario scenario_;
  NmeaGenerator nmea_{"GP"};
  int64_t utcAtStartMs_ = 0;

  std::string input_;  // bytes of the command being received
  std::vector<uint32_t> commands_;
  std::vector<std::string> sentences_;
  std::vector<std::string> responses_;

  bool running_ = false;
  uint64_t runMs_ = 0;  // when the run command came
  uint64_t nextEpochMs_ = 0;
};

}  // namespace gps::sim
