// The simulated u-blox receiver as the GPS resource driver uses it for the
// device "sim": served in-process on one end of a socket pair, the driver
// holding the other end as if it were the receiver's serial line.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace gps::sim {

enum class ReceiverModel { G7020, M8030 };

struct EmbeddedOptions {
  ReceiverModel model = ReceiverModel::M8030;
  std::string scenarioFile;   // empty: the built-in route
  bool startPowered = false;  // the driver switches power with SetPowered
  uint32_t ttffMs = 3000;     // time to first fix after power-on or cold start
  bool antOffPolarity = false;  // bit 7 of llcGen in the MON-LLC answer
  std::string alpFile;        // AssistNow Offline data to check answers against; empty: sizes only
  uint8_t port = 3;           // the receiver port the line is: 3 USB, 1 UART1
  bool ubxOnly = false;       // starts with NMEA output off
  // A UART receiver talks at this rate: on a terminal line set to another
  // speed its output is noise and its input is lost. 0: any (USB).
  uint32_t lineBaud = 0;
};

class EmbeddedReceiver {
 public:
  // Serves a receiver on `fd` (takes ownership) in a background thread.
  // Returns nullptr, with a reason in `error`, when it cannot start (for
  // example an unreadable scenario file).
  static std::unique_ptr<EmbeddedReceiver> Start(int fd, const EmbeddedOptions& options, std::string* error);

  virtual ~EmbeddedReceiver() = default;  // stops the thread and closes the descriptor

  // The resource driver's power switch: off is silent (no output, commands
  // ignored), on resumes output and starts the time to first fix afresh.
  virtual void SetPowered(bool on) = 0;

  // Every UBX frame received from the host so far, whole (sync to checksum),
  // in arrival order; tests read it to check exactly what the engine sent.
  virtual std::vector<std::vector<uint8_t>> ReceivedFrames() const = 0;
};

}  // namespace gps::sim
