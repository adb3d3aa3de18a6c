// What the receiver driver knows about the u-blox side of its line: which
// receiver port the line is, the frames that set that port up and switch the
// receiver off and on, the rewrite that carries the engine's DDC message rates
// over to the attached port, where a receiver is found on this host, and how
// to tell a line that speaks the receiver's language from line noise.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace gps::platform::ublox {

// Receiver port numbers as CFG-PRT and the 8-rate CFG-MSG count them.
enum class Port : uint8_t { Ddc = 0, Uart1 = 1, Uart2 = 2, Usb = 3 };
const char* PortName(Port port);  // "usb", "uart1", ...
std::optional<Port> ParsePort(const std::string& text);

// How power off is done: GNSS stop (CFG-RST 0x08, the interface stays up) or
// backup (RXM-PMREQ, woken by the UART RX line).
enum class PowerOff { GnssStop, Backup };
const char* PowerOffName(PowerOff mode);
std::optional<PowerOff> ParsePowerOff(const std::string& text);
PowerOff DefaultPowerOff(Port port);  // GNSS stop on USB, backup on a UART

using Bytes = std::vector<uint8_t>;

// A whole UBX frame with its checksum.
Bytes Frame(uint8_t messageClass, uint8_t messageId, std::span<const uint8_t> payload);

// CFG-PRT for `port`: UBX, NMEA and RTCM in, UBX and NMEA out; a UART keeps
// `baud` at 8N1.
Bytes PortSetup(Port port, uint32_t baud);
Bytes GnssStop();    // CFG-RST, hot, reset mode 0x08
Bytes GnssStart();   // CFG-RST, hot, reset mode 0x09
Bytes BackupUntilUartRx();  // RXM-PMREQ v0: backup, no time limit, woken by UART RX
Bytes VersionPoll();  // MON-VER poll

// When `frame` is one whole 8-rate CFG-MSG that names DDC and no other port
// (the way the engine enables its messages), returns it with DDC's rate
// carried over to `port` and the checksum recomputed. A frame that names any
// other port (a tool's own choice), or is anything else, gives nothing and
// goes out untouched.
std::optional<Bytes> CarryDdcRate(std::span<const uint8_t> frame, Port port);

// The port a device path is on this host: USB for a CDC-ACM tty (ttyACM*) or
// a tty whose USB parent has the u-blox vendor id, UART1 otherwise. `root`
// prefixes /sys ("" on a real host).
Port PortOfDevice(const std::string& device, const std::string& root);

// The first u-blox receiver on this host: a tty whose USB parent has vendor
// id 1546 (sysfs), then /dev/serial/by-id/*u-blox*, then the only
// /dev/ttyACM*. `root` prefixes /sys and /dev; the path returned carries it.
std::optional<std::string> FindReceiver(const std::string& root);

// Scans receiver output for the things the driver waits for.
class Scanner {
 public:
  // Feeds bytes; keeps only what an unfinished message needs.
  void Push(std::span<const uint8_t> bytes);
  // Whole NMEA sentences with good checksums or UBX frames with good
  // checksums seen so far.
  int goodMessages() const { return good_; }
  // ACK-ACK (true) or ACK-NAK (false) for (class, id), once seen.
  std::optional<bool> Ack(uint8_t messageClass, uint8_t messageId) const;
  bool Seen(uint8_t messageClass, uint8_t messageId) const;
  void Clear();

 private:
  void Take(std::span<const uint8_t> frame);
  std::vector<uint8_t> pending_;
  int good_ = 0;
  std::vector<std::array<uint8_t, 2>> seen_;
  std::vector<std::array<uint8_t, 3>> acks_;  // class, id, ack
};

}  // namespace gps::platform::ublox
