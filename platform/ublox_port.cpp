#include "platform/ublox_port.h"
#include "platform/fs.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <cstdio>
#include <system_error>

namespace gps::platform::ublox {
namespace {

namespace fs = std::filesystem;

constexpr uint8_t kSync1 = 0xB5, kSync2 = 0x62;
constexpr uint8_t kClassAck = 0x05, kClassCfg = 0x06, kClassRxm = 0x02, kClassMon = 0x0A;
constexpr uint8_t kIdCfgMsg = 0x01, kIdCfgPrt = 0x00, kIdCfgRst = 0x04, kIdRxmPmreq = 0x41, kIdMonVer = 0x04;
constexpr size_t kCfgMsgFrameBytes = 16;  // 8-byte payload: class, id, six port rates
constexpr size_t kRateOffset = 8;          // of DDC's rate in the frame
constexpr size_t kRates = 6;

// CFG-PRT masks: bit 0 UBX, bit 1 NMEA, bit 2 RTCM2.
constexpr uint16_t kInProtocols = 0x0007;
constexpr uint16_t kOutProtocols = 0x0003;
// UART mode: 8 data bits, no parity, 1 stop bit (bit 4 kept set, as receivers expect).
constexpr uint32_t kUartMode8N1 = 0x000008D0;
// RXM-PMREQ: backup flag, and UART RX as wake-up source.
constexpr uint32_t kPmreqBackup = 0x00000002;
constexpr uint32_t kWakeUartRx = 0x00000008;
constexpr const char* kUbloxVendor = "1546";
constexpr size_t kMaxScanPayload = 1024;
constexpr size_t kMaxNmeaBytes = 100;

void PutU16(Bytes& p, size_t at, uint16_t v) {
  p[at] = static_cast<uint8_t>(v);
  p[at + 1] = static_cast<uint8_t>(v >> 8);
}
void PutU32(Bytes& p, size_t at, uint32_t v) {
  for (size_t i = 0; i < 4; ++i) p[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

std::array<uint8_t, 2> Fletcher(std::span<const uint8_t> bytes) {
  uint8_t a = 0, b = 0;
  for (const uint8_t byte : bytes) {
    a = static_cast<uint8_t>(a + byte);
    b = static_cast<uint8_t>(b + a);
  }
  return {a, b};
}

bool ChecksumOk(std::span<const uint8_t> frame) {
  const auto ck = Fletcher(frame.subspan(2, frame.size() - 4));
  return ck[0] == frame[frame.size() - 2] && ck[1] == frame[frame.size() - 1];
}

// The first line of a small sysfs attribute; empty when it cannot be read.
std::string ReadLine(const fs::path& file) {
  std::string text;
  if (gps::platform::ReadWholeFile(file.string(), 4096, text) != gps::platform::ReadStatus::Ok) return {};
  return text.substr(0, text.find('\n'));
}

// Whether the sysfs device of tty `name` sits below a USB device with the
// u-blox vendor id (CDC-ACM: the interface's parent; a bridge: further up).
bool HasUbloxParent(const std::string& root, const std::string& name) {
  std::error_code ec;
  fs::path dir = fs::canonical(fs::path(root + "/sys/class/tty") / name / "device", ec);
  if (ec) return false;
  for (int level = 0; level < 5 && !dir.empty() && dir != dir.root_path(); ++level, dir = dir.parent_path()) {
    if (fs::exists(dir / "idVendor", ec)) return ReadLine(dir / "idVendor") == kUbloxVendor;
  }
  return false;
}

std::vector<std::string> SortedEntries(const fs::path& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

}  // namespace

const char* PortName(Port port) {
  switch (port) {
    case Port::Ddc: return "ddc";
    case Port::Uart1: return "uart1";
    case Port::Uart2: return "uart2";
    case Port::Usb: return "usb";
  }
  return "?";
}

std::optional<Port> ParsePort(const std::string& text) {
  for (const Port port : {Port::Usb, Port::Uart1, Port::Uart2})
    if (text == PortName(port)) return port;
  return std::nullopt;
}

const char* PowerOffName(PowerOff mode) { return mode == PowerOff::GnssStop ? "gnss-stop" : "backup"; }

std::optional<PowerOff> ParsePowerOff(const std::string& text) {
  for (const PowerOff mode : {PowerOff::GnssStop, PowerOff::Backup})
    if (text == PowerOffName(mode)) return mode;
  return std::nullopt;
}

PowerOff DefaultPowerOff(Port port) { return port == Port::Usb ? PowerOff::GnssStop : PowerOff::Backup; }

Bytes Frame(uint8_t messageClass, uint8_t messageId, std::span<const uint8_t> payload) {
  Bytes frame{kSync1, kSync2, messageClass, messageId, static_cast<uint8_t>(payload.size()),
              static_cast<uint8_t>(payload.size() >> 8)};
  frame.insert(frame.end(), payload.begin(), payload.end());
  const auto ck = Fletcher(std::span<const uint8_t>(frame).subspan(2));
  frame.insert(frame.end(), ck.begin(), ck.end());
  return frame;
}

Bytes PortSetup(Port port, uint32_t baud) {
  Bytes p(20, 0);
  p[0] = static_cast<uint8_t>(port);
  if (port == Port::Uart1 || port == Port::Uart2) {
    PutU32(p, 4, kUartMode8N1);
    PutU32(p, 8, baud);
  }
  PutU16(p, 12, kInProtocols);
  PutU16(p, 14, kOutProtocols);
  return Frame(kClassCfg, kIdCfgPrt, p);
}

Bytes GnssStop() { return Frame(kClassCfg, kIdCfgRst, Bytes{0x00, 0x00, 0x08, 0x00}); }
Bytes GnssStart() { return Frame(kClassCfg, kIdCfgRst, Bytes{0x00, 0x00, 0x09, 0x00}); }

Bytes BackupUntilUartRx() {
  Bytes p(16, 0);  // version 0, duration 0: until woken
  PutU32(p, 8, kPmreqBackup);
  PutU32(p, 12, kWakeUartRx);
  return Frame(kClassRxm, kIdRxmPmreq, p);
}

Bytes VersionPoll() { return Frame(kClassMon, kIdMonVer, {}); }

std::optional<Bytes> CarryDdcRate(std::span<const uint8_t> frame, Port port) {
  if (frame.size() != kCfgMsgFrameBytes || frame[0] != kSync1 || frame[1] != kSync2 || frame[2] != kClassCfg ||
      frame[3] != kIdCfgMsg || frame[4] != 8 || frame[5] != 0 || !ChecksumOk(frame))
    return std::nullopt;
  const auto rates = frame.subspan(kRateOffset, kRates);
  if (port == Port::Ddc || rates[0] == 0 || std::any_of(rates.begin() + 1, rates.end(), [](uint8_t r) { return r; }))
    return std::nullopt;
  Bytes out(frame.begin(), frame.end());
  out[kRateOffset + static_cast<size_t>(port)] = rates[0];
  const auto ck = Fletcher(std::span<const uint8_t>(out).subspan(2, out.size() - 4));
  out[out.size() - 2] = ck[0];
  out[out.size() - 1] = ck[1];
  return out;
}

Port PortOfDevice(const std::string& device, const std::string& root) {
  std::error_code ec;
  const fs::path real = fs::canonical(device, ec);
  const std::string given = fs::path(device).filename().string();
  const std::string name = ec ? given : real.filename().string();
  for (const std::string& n : {given, name})
    if (n.rfind("ttyACM", 0) == 0) return Port::Usb;
  return HasUbloxParent(root, name) ? Port::Usb : Port::Uart1;
}

std::optional<std::string> FindReceiver(const std::string& root) {
  for (const std::string& name : SortedEntries(root + "/sys/class/tty"))
    if (HasUbloxParent(root, name)) return root + "/dev/" + name;
  for (const std::string& name : SortedEntries(root + "/dev/serial/by-id"))
    if (Lower(name).find("u-blox") != std::string::npos) return root + "/dev/serial/by-id/" + name;
  std::vector<std::string> acm;
  for (const std::string& name : SortedEntries(root + "/dev"))
    if (name.rfind("ttyACM", 0) == 0) acm.push_back(name);
  if (acm.size() == 1) return root + "/dev/" + acm.front();
  return std::nullopt;
}

void Scanner::Push(std::span<const uint8_t> bytes) {
  pending_.insert(pending_.end(), bytes.begin(), bytes.end());
  size_t at = 0;
  while (at < pending_.size()) {
    const uint8_t c = pending_[at];
    const size_t left = pending_.size() - at;
    if (c == kSync1) {
      if (left < 2) break;
      if (pending_[at + 1] != kSync2) {
        ++at;
        continue;
      }
      if (left < 6) break;
      const size_t length = pending_[at + 4] | (pending_[at + 5] << 8);
      if (length > kMaxScanPayload) {
        ++at;
        continue;
      }
      if (left < length + 8) break;
      const std::span<const uint8_t> frame(pending_.data() + at, length + 8);
      if (!ChecksumOk(frame)) {
        ++at;
        continue;
      }
      Take(frame);
      at += frame.size();
    } else if (c == '$') {
      const auto end = std::find(pending_.begin() + static_cast<std::ptrdiff_t>(at), pending_.end(), '\n');
      if (end == pending_.end()) {
        if (left > kMaxNmeaBytes) {
          ++at;
          continue;
        }
        break;
      }
      const std::string sentence(pending_.begin() + static_cast<std::ptrdiff_t>(at), end);
      const size_t star = sentence.rfind('*');
      uint8_t sum = 0;
      for (size_t i = 1; i < star && star != std::string::npos; ++i) sum = static_cast<uint8_t>(sum ^ sentence[i]);
      char hex[3];
      std::snprintf(hex, sizeof hex, "%02X", sum);
      if (star != std::string::npos && sentence.size() >= star + 3 && sentence.compare(star + 1, 2, hex) == 0) {
        ++good_;
        at = static_cast<size_t>(end - pending_.begin()) + 1;
      } else {
        ++at;
      }
    } else {
      ++at;
    }
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(at));
}

void Scanner::Take(std::span<const uint8_t> frame) {
  ++good_;
  const uint8_t cls = frame[2], id = frame[3];
  if (cls == kClassAck && frame.size() == 10) {
    acks_.push_back({frame[6], frame[7], static_cast<uint8_t>(id == 0x01)});
    return;
  }
  seen_.push_back({cls, id});
}

std::optional<bool> Scanner::Ack(uint8_t messageClass, uint8_t messageId) const {
  for (const auto& a : acks_)
    if (a[0] == messageClass && a[1] == messageId) return a[2] != 0;
  return std::nullopt;
}

bool Scanner::Seen(uint8_t messageClass, uint8_t messageId) const {
  return std::any_of(seen_.begin(), seen_.end(),
                     [&](const auto& s) { return s[0] == messageClass && s[1] == messageId; });
}

void Scanner::Clear() {
  pending_.clear();
  good_ = 0;
  seen_.clear();
  acks_.clear();
}

}  // namespace gps::platform::ublox
