// The GPS resource driver: one receiver, the embedded simulator or a serial
// line, behind the C entry points the engine calls. One instance serves the
// process; a mutex serialises the engine thread's reads and sends with power
// and close requests from other threads.
#include "platform/gps_resource.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" {
#include <iniparser.h>
}

#include "platform/fs.h"
#include "platform/message_align.h"
#include "platform/os.h"
#include "platform/root.h"
#include "platform/serial_port.h"
#include "platform/settings.h"
#include "platform/ublox_port.h"
#include "sim/embedded_receiver.h"

namespace {

using gps::platform::UniqueFd;
using Clock = std::chrono::steady_clock;

// Room for a few chunks: enough for any message the engine can take whole,
// and a bound on what is held back from the kernel's own buffer.
constexpr size_t kPendingBytes = 4 * GPS_DEVICE_DATA_BYTES;
// An incomplete message that has had no new byte for this long will not be
// completed (a receiver reset mid-sentence); it is passed on so it cannot hold
// back the stream behind it.
constexpr auto kIncompleteTailWait = std::chrono::seconds(1);
constexpr auto kReopenInterval = std::chrono::seconds(1);
constexpr auto kSendWait = std::chrono::seconds(1);
// A receiver woken from backup mode drops what it is sent while it starts up.
constexpr auto kWakeSettle = std::chrono::milliseconds(100);
constexpr size_t kWakeBytes = 8;

namespace ublox = gps::platform::ublox;
using ublox::Port;
using ublox::PowerOff;

// A receiver answers a poll or a configuration within a few hundred ms.
constexpr auto kAnswerWait = std::chrono::seconds(1);
// A receiver woken from backup answers MON-VER within this time, or is taken
// for not there; the poll is repeated meanwhile.
constexpr auto kWakeCheck = std::chrono::seconds(2);
constexpr auto kWakePollInterval = std::chrono::milliseconds(250);
// A receiver that failed its set-up is tried again after 5 s, then twice as
// long after each failure up to 30 s: a set-up holds the engine's reads for
// up to 3 s, which a receiver that never answers must not do all the time.
constexpr auto kSetupRetryFirst = std::chrono::seconds(5);
constexpr auto kSetupRetryLongest = std::chrono::seconds(30);
// A line where no rate gave whole messages is listened to again this often.
constexpr auto kDetectionRetry = std::chrono::seconds(10);
// Baud detection listens this long at each rate: a receiver sends at least one
// epoch a second, and answers a version poll at once.
constexpr auto kBaudListen = std::chrono::milliseconds(1200);
constexpr int kDetectionRates[] = {9600, 38400, 115200, 57600, 4800, 230400, 460800, 921600};
// Whole messages with good checksums that prove a rate.
constexpr int kBaudProof = 2;
constexpr uint8_t kClassCfg = 0x06, kIdCfgPrt = 0x00, kClassMon = 0x0A, kIdMonVer = 0x04;

// Where /sys and /dev are looked for when [gps] device = auto ("" on a real host).
std::string HostRoot() {
  const char* root = std::getenv("GPS_HOST_ROOT");
  return root ? root : "";
}

enum class DeviceKind { Simulator, Serial };
enum class Power { Unset, On, Off };  // Unset: never requested since the process started
enum class WriteResult { Done, Gone, Stalled };
enum class Setup { Done, Failed, Gone };

std::string IniPath() { return gps::platform::Root() + "/platform.ini"; }

// [sim] keys that only the embedded simulator reads: ttff_ms, ant_off_polarity, alp_file.
gps::sim::EmbeddedOptions SimulatorOptions(const gps::platform::Settings& settings) {
  gps::sim::EmbeddedOptions options;
  options.model = settings.moduleType == 1 ? gps::sim::ReceiverModel::G7020 : gps::sim::ReceiverModel::M8030;
  options.scenarioFile = settings.simScenario;
  const std::string file = IniPath();
  std::string text;
  if (gps::platform::ReadWholeFile(file, gps::platform::kMaxTextFileBytes, text) != gps::platform::ReadStatus::Ok)
    return options;  // the settings loader has already said why
  const gps::platform::IniDictionary parsed = gps::platform::ParseIni(text);
  dictionary* ini = parsed.get();
  if (!ini) return options;
  const int ttffMs = iniparser_getint(ini, "sim:ttff_ms", static_cast<int>(options.ttffMs));
  if (ttffMs >= 0) {
    options.ttffMs = static_cast<uint32_t>(ttffMs);
  } else {
    Sys_log(4, "GPS resource: [sim] ttff_ms = %d in %s is negative; using %u", ttffMs, file.c_str(), options.ttffMs);
  }
  options.antOffPolarity = iniparser_getboolean(ini, "sim:ant_off_polarity", 0) == 1;
  options.alpFile = iniparser_getstring(ini, "sim:alp_file", "");
  return options;
}

class Resource {
 public:
  int Open();
  int Close();
  int GetData(gps_device_data_t& block);
  int Send(const gps_send_data_t& block);
  int SetPower(bool on);
  int Reload();
  int Descriptor() const { return open_ && device_ ? wait_.get() : -1; }

 private:
  bool Connect(std::string& reason);
  bool OpenSerial(std::string& reason);
  bool DetectBaud();
  void Disconnect();
  void Lost(const char* reason);
  void TryReopen();
  void Fill();
  void Drain();
  void Deliver(gps_device_data_t& block);
  void SignalReady(bool ready);
  void Watch(bool on);
  // Puts a connected receiver into the requested power state.
  void ApplyPower();
  Setup SwitchOn();
  Setup SwitchOff();
  Setup Await(ublox::Scanner& scanner, Clock::duration wait, const std::function<bool()>& done);
  WriteResult WriteAll(std::span<const uint8_t> bytes);
  int Write(std::span<const uint8_t> bytes, const char* what);
  void Complain(const std::string& line);
  const char* Name() const { return kind_ == DeviceKind::Simulator ? "the embedded simulator" : path_.c_str(); }

  bool open_ = false;
  Power power_ = Power::Unset;  // kept across replugs; a request made while closed applies at the open
  bool receiverOn_ = false;     // switched on and its port set up: output is delivered
  DeviceKind kind_ = DeviceKind::Simulator;
  bool autoDevice_ = false;     // [gps] device = auto: looked for on every reopen
  std::string path_;
  int baud_ = 0;                // 0: not known yet (baud = auto)
  Port port_ = Port::Usb;
  PowerOff powerOff_ = PowerOff::GnssStop;
  gps::platform::Settings settings_;
  std::string lastComplaint_;   // the last failure logged, so a retry that fails the same way stays quiet

  UniqueFd device_;  // socket to the simulator or the serial line; empty while the device is gone
  std::unique_ptr<gps::sim::EmbeddedReceiver> simulator_;
  UniqueFd wait_;   // epoll set handed to the engine: the device while delivering, and ready_
  UniqueFd ready_;  // eventfd, readable while pending_ holds whole messages
  bool readySignalled_ = false;
  bool watching_ = false;
  Clock::time_point nextReopen_{};
  Clock::time_point nextSetup_{};
  Clock::duration setupRetry_{};  // zero until a set-up fails

  gps::platform::DropReport drops_;
  std::array<uint8_t, kPendingBytes> pending_{};
  size_t pendingBytes_ = 0;
  Clock::time_point lastByte_{};
};

void Resource::Complain(const std::string& line) {
  if (line == lastComplaint_) return;
  lastComplaint_ = line;
  Sys_log(3, "GPS resource: %s", line.c_str());
}

int Resource::Open() {
  if (open_) return GPS_RESOURCE_ALREADY_OPEN;
  settings_ = gps::platform::CurrentSettings();
  kind_ = settings_.device == "sim" ? DeviceKind::Simulator : DeviceKind::Serial;
  autoDevice_ = settings_.device == "auto";
  path_ = autoDevice_ ? std::string() : settings_.device;
  lastComplaint_.clear();
  std::optional<Port> port;
  if (!settings_.port.empty() && !(port = ublox::ParsePort(settings_.port))) {
    Sys_log(3, "GPS resource: [gps] port = %s in %s is no receiver port; use usb, uart1 or uart2",
            settings_.port.c_str(), IniPath().c_str());
    return GPS_RESOURCE_ERROR_ARGUMENT;
  }
  std::optional<PowerOff> powerOff;
  if (!settings_.powerOff.empty() && !(powerOff = ublox::ParsePowerOff(settings_.powerOff))) {
    Sys_log(3, "GPS resource: [gps] power_off = %s in %s is no power-off mode; use gnss-stop or backup",
            settings_.powerOff.c_str(), IniPath().c_str());
    return GPS_RESOURCE_ERROR_ARGUMENT;
  }
  if (kind_ == DeviceKind::Serial && settings_.baud != 0 && !gps::platform::SerialSpeed(settings_.baud)) {
    Sys_log(3, "GPS resource: [gps] baud = %d in %s is no serial line speed; use auto or one of %s", settings_.baud,
            IniPath().c_str(), gps::platform::SerialSpeedList());
    return GPS_RESOURCE_ERROR_ARGUMENT;
  }
  // A rate found on the line is kept across replugs.
  baud_ = settings_.baud;
  // The embedded simulator is a receiver on USB.
  port_ = port ? *port : kind_ == DeviceKind::Simulator ? Port::Usb
                         : autoDevice_                   ? Port::Usb
                                                         : ublox::PortOfDevice(path_, HostRoot());
  powerOff_ = powerOff ? *powerOff : ublox::DefaultPowerOff(port_);
  wait_.reset(epoll_create1(EPOLL_CLOEXEC));
  ready_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = ready_.get();
  if (!wait_ || !ready_ || epoll_ctl(wait_.get(), EPOLL_CTL_ADD, ready_.get(), &event) != 0) {
    Sys_log(3, "GPS resource: cannot create the wait set for %s: %s", Name(), std::strerror(errno));
    wait_.reset();
    ready_.reset();
    return GPS_RESOURCE_ERROR_DEVICE;
  }
  readySignalled_ = false;
  pendingBytes_ = 0;
  std::string reason;
  if (!Connect(reason)) {
    // A USB receiver that is not plugged in yet is a receiver that is gone:
    // the resource opens, and the device is picked up when it appears.
    // A receiver that talks at no rate yet is tried again the same way.
    if (kind_ == DeviceKind::Serial && (errno == ENOENT || errno == ENODEV || errno == ENXIO || errno == EIO)) {
      if (!autoDevice_ && errno != EIO)
        Sys_log(3, "GPS resource: %s is not there (%s); waiting for it, checking once a second", Name(),
                reason.c_str());
      nextReopen_ = Clock::now() + (errno == EIO ? kDetectionRetry : kReopenInterval);
      open_ = true;
      return 0;
    }
    Sys_log(3, "GPS resource: cannot open %s: %s; check [gps] device in %s", Name(), reason.c_str(),
            IniPath().c_str());
    wait_.reset();
    ready_.reset();
    return GPS_RESOURCE_ERROR_DEVICE;
  }
  open_ = true;
  return 0;
}

int Resource::Close() {
  if (!open_) return GPS_RESOURCE_ERROR_NOT_OPEN;
  Disconnect();
  wait_.reset();
  ready_.reset();
  pendingBytes_ = 0;
  open_ = false;
  // The engine switches a reopened receiver on again when it wants it on.
  power_ = Power::Unset;
  return 0;
}

// platform.ini read again: a changed device, speed, port or power-off mode
// is taken as a replug of the new receiver (closed, opened, and put in the
// power state it had); anything else leaves the open line alone.
int Resource::Reload() {
  if (!open_) return GPS_RESOURCE_ERROR_NOT_OPEN;
  const gps::platform::Settings fresh = gps::platform::ReadSettings();
  if (!fresh.unusable.empty()) return GPS_RESOURCE_ERROR_ARGUMENT;
  if (fresh.device == settings_.device && fresh.baud == settings_.baud && fresh.port == settings_.port &&
      fresh.powerOff == settings_.powerOff)
    return 0;
  Sys_log(5, "GPS resource: [gps] changed in %s; reopening the receiver (%s)", IniPath().c_str(),
          fresh.device.c_str());
  const Power power = power_;
  Close();
  gps::platform::ReloadSettings();
  const int opened = Open();
  if (opened == 0 && power != Power::Unset) SetPower(power == Power::On);
  return opened;
}

bool Resource::OpenSerial(std::string& reason) {
  if (autoDevice_) {
    const auto found = ublox::FindReceiver(HostRoot());
    if (!found) {
      Complain("no u-blox receiver found; looking again when one is plugged in");
      reason = "no u-blox receiver found";
      errno = ENOENT;
      return false;
    }
    if (*found != path_) Sys_log(5, "GPS resource: u-blox receiver found at %s", found->c_str());
    lastComplaint_.clear();  // a receiver found is news, whatever it does next
    path_ = *found;
    if (settings_.port.empty()) {
      port_ = ublox::PortOfDevice(path_, HostRoot());
      if (settings_.powerOff.empty()) powerOff_ = ublox::DefaultPowerOff(port_);
    }
  }
  device_ = gps::platform::OpenSerialPort(path_, *gps::platform::SerialSpeed(baud_ != 0 ? baud_ : 9600));
  if (!device_) {
    reason = std::strerror(errno);
    return false;
  }
  // USB has no line speed; a UART's is found by listening when not configured.
  if (baud_ == 0 && port_ != Port::Usb && !DetectBaud()) {
    reason = "no receiver talking at any rate";
    device_.reset();
    errno = EIO;
    return false;
  }
  return true;
}

// Tries each rate until whole messages with good checksums arrive; a version
// poll at each rate makes a receiver with no output enabled answer.
bool Resource::DetectBaud() {
  for (const int baud : kDetectionRates) {
    if (!gps::platform::SetSerialSpeed(device_.get(), *gps::platform::SerialSpeed(baud))) break;
    ublox::Scanner scanner;
    if (Write(ublox::VersionPoll(), "the version poll") != 0 || !device_) return false;
    if (Await(scanner, kBaudListen, [&] { return scanner.goodMessages() >= kBaudProof || scanner.Seen(kClassMon, kIdMonVer); }) == Setup::Done) {
      Sys_log(5, "GPS resource: %s talks at %d baud", Name(), baud);
      baud_ = baud;
      return true;
    }
    if (!device_) return false;
  }
  Complain(path_ + " sends no NMEA or UBX at any of 9600, 38400, 115200, 57600, 4800, 230400, 460800, 921600 "
                   "baud; check that the receiver is powered and its TX is wired to our RX, or set [gps] baud in " +
           IniPath());
  return false;
}

bool Resource::Connect(std::string& reason) {
  lastByte_ = Clock::now();
  receiverOn_ = false;
  if (kind_ == DeviceKind::Serial) {
    if (!OpenSerial(reason)) return false;
  } else {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
      reason = std::string("socket pair: ") + std::strerror(errno);
      return false;
    }
    UniqueFd ours(ends[0]);
    if (fcntl(ours.get(), F_SETFL, O_NONBLOCK) != 0) {
      reason = std::string("socket pair: ") + std::strerror(errno);
      close(ends[1]);
      return false;
    }
    auto options = SimulatorOptions(settings_);
    options.startPowered = true;  // a receiver plugged in runs; power is switched over the line
    std::string error;
    simulator_ = gps::sim::EmbeddedReceiver::Start(ends[1], options, &error);  // owns ends[1] from here
    if (!simulator_) {
      reason = error.empty() ? "the simulator did not start" : error;
      return false;
    }
    device_ = std::move(ours);
  }
  watching_ = false;
  ApplyPower();
  return true;
}

void Resource::Disconnect() {
  Watch(false);
  receiverOn_ = false;
  device_.reset();
  simulator_.reset();  // stops its thread and closes its end
  SignalReady(false);
}

// Adds the device to the engine's wait set only while data is delivered, so a
// receiver that talks while switched off cannot keep the engine awake.
void Resource::Watch(bool on) {
  if (!device_ || on == watching_) return;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = device_.get();
  if (epoll_ctl(wait_.get(), on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, device_.get(), &event) != 0) {
    Sys_log(3, "GPS resource: cannot %s %s in the wait set: %s", on ? "watch" : "unwatch", Name(),
            std::strerror(errno));
    return;
  }
  watching_ = on;
}

void Resource::SignalReady(bool ready) {
  if (!ready_ || ready == readySignalled_) return;
  uint64_t value = 1;
  const ssize_t n = ready ? write(ready_.get(), &value, sizeof value) : read(ready_.get(), &value, sizeof value);
  if (n == static_cast<ssize_t>(sizeof value)) readySignalled_ = ready;
}

void Resource::Lost(const char* reason) {
  Sys_log(3, "GPS resource: %s is gone (%s); reopening it once a second", Name(), reason);
  Disconnect();
  nextReopen_ = Clock::now() + kReopenInterval;
  // Whole messages already read still go to the engine; a message cut by the
  // loss would only be joined to unrelated bytes after the reopen.
  size_t whole = 0;
  while (whole < pendingBytes_) {
    const size_t n = gps::platform::WholeMessagesPrefix(
        std::span<const uint8_t>(pending_.data() + whole, pendingBytes_ - whole), GPS_DEVICE_DATA_BYTES);
    if (n == 0) break;
    whole += n;
  }
  pendingBytes_ = whole;
}

void Resource::TryReopen() {
  const auto now = Clock::now();
  if (now < nextReopen_) return;
  nextReopen_ = now + kReopenInterval;
  std::string reason;
  if (!Connect(reason)) {
    if (errno == EIO) nextReopen_ = now + kDetectionRetry;
    return;
  }
  Sys_log(4, "GPS resource: %s is back", Name());
}

void Resource::Fill() {
  while (device_ && pendingBytes_ < pending_.size()) {
    const ssize_t n = read(device_.get(), pending_.data() + pendingBytes_, pending_.size() - pendingBytes_);
    if (n > 0) {
      pendingBytes_ += static_cast<size_t>(n);
      lastByte_ = Clock::now();
    } else if (n == 0) {
      Lost("end of stream");
    } else if (errno == EINTR) {
      continue;
    } else if (errno == EAGAIN) {
      return;
    } else {
      Lost(std::strerror(errno));
    }
  }
}

void Resource::Drain() {
  std::array<uint8_t, 512> scratch;
  while (device_) {
    const ssize_t n = read(device_.get(), scratch.data(), scratch.size());
    if (n > 0) continue;
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) break;
    Lost(n == 0 ? "end of stream" : std::strerror(errno));
  }
  pendingBytes_ = 0;
}

void Resource::Deliver(gps_device_data_t& block) {
  const std::span<const uint8_t> pending(pending_.data(), pendingBytes_);
  size_t n = gps::platform::WholeMessagesPrefix(pending, GPS_DEVICE_DATA_BYTES);
  if (n == 0 && pendingBytes_ > 0 && Clock::now() - lastByte_ >= kIncompleteTailWait) {
    n = std::min<size_t>(pendingBytes_, GPS_DEVICE_DATA_BYTES);
    Sys_log(7, "GPS resource: passing on %zu bytes of a message that stopped arriving", n);
  }
  std::memcpy(block.data, pending_.data(), n);
  gps::platform::DroppedMessages dropped;
  block.length = static_cast<uint32_t>(gps::platform::DropCorruptMessages({block.data, n}, dropped));
  drops_.Add(dropped);
  std::memmove(pending_.data(), pending_.data() + n, pendingBytes_ - n);
  pendingBytes_ -= n;
  SignalReady(gps::platform::WholeMessagesPrefix(pending.first(pendingBytes_), GPS_DEVICE_DATA_BYTES) > 0);
}

int Resource::GetData(gps_device_data_t& block) {
  block.length = 0;
  if (!open_) return GPS_RESOURCE_ERROR_NOT_OPEN;
  if (!device_) TryReopen();
  if (device_ && power_ == Power::On && !receiverOn_ && Clock::now() >= nextSetup_) ApplyPower();
  if (!receiverOn_) {
    Drain();
    return 0;
  }
  Fill();
  Deliver(block);
  return 0;
}

// Reads the receiver's answers into `scanner` until `done` holds; the bytes
// are the set-up's, never delivered.
Setup Resource::Await(ublox::Scanner& scanner, Clock::duration wait, const std::function<bool()>& done) {
  const auto deadline = Clock::now() + wait;
  std::array<uint8_t, 512> buffer;
  while (!done()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return Setup::Failed;
    pollfd pfd{device_.get(), POLLIN, 0};
    if (poll(&pfd, 1, static_cast<int>(left)) < 0 && errno != EINTR) {
      Lost(std::strerror(errno));
      return Setup::Gone;
    }
    const ssize_t n = read(device_.get(), buffer.data(), buffer.size());
    if (n > 0) {
      scanner.Push(std::span<const uint8_t>(buffer.data(), static_cast<size_t>(n)));
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      Lost(n == 0 ? "end of stream" : std::strerror(errno));
      return Setup::Gone;
    }
  }
  return Setup::Done;
}

// Brings the receiver back from the power-off mode and makes its port output
// NMEA and UBX and take UBX; output is delivered only once it acknowledged.
Setup Resource::SwitchOn() {
  ublox::Scanner scanner;
  if (powerOff_ == PowerOff::Backup) {
    // A receiver in backup wakes on an edge on its RX line and drops what
    // arrives while it starts; then it must answer a version poll.
    static constexpr std::array<uint8_t, kWakeBytes> kWake = [] {
      std::array<uint8_t, kWakeBytes> bytes{};
      bytes.fill(0xFF);
      return bytes;
    }();
    if (Write(kWake, "the wake-up bytes") != 0) return device_ ? Setup::Failed : Setup::Gone;
    std::this_thread::sleep_for(kWakeSettle);
    const auto end = Clock::now() + kWakeCheck;
    Setup answered = Setup::Failed;
    while (answered == Setup::Failed && Clock::now() < end) {
      if (Write(ublox::VersionPoll(), "the version poll") != 0) return device_ ? Setup::Failed : Setup::Gone;
      answered = Await(scanner, kWakePollInterval, [&] { return scanner.Seen(kClassMon, kIdMonVer); });
    }
    if (answered == Setup::Gone) return answered;
    if (answered != Setup::Done) {
      Complain(std::string(Name()) + " does not answer after the wake-up (no MON-VER in 2 s); check that it is "
                                     "powered, that our TX reaches its RX and [gps] baud in " + IniPath() +
               "; trying again");
      return Setup::Failed;
    }
  }
  const auto setup = ublox::PortSetup(port_, static_cast<uint32_t>(baud_));
  if (Write(setup, "the port set-up") != 0) return device_ ? Setup::Failed : Setup::Gone;
  const Setup acked = Await(scanner, kAnswerWait, [&] { return scanner.Ack(kClassCfg, kIdCfgPrt).has_value(); });
  if (acked == Setup::Gone) return acked;
  const auto ack = scanner.Ack(kClassCfg, kIdCfgPrt);
  if (!ack || !*ack) {
    Complain(std::string(Name()) + (ack ? " refused" : " did not acknowledge") + " the set-up of its " +
             ublox::PortName(port_) + " port (CFG-PRT); check [gps] port in " + IniPath() +
             " and that the receiver takes UBX input; trying again");
    return Setup::Failed;
  }
  if (powerOff_ == PowerOff::GnssStop && Write(ublox::GnssStart(), "the GNSS start") != 0)
    return device_ ? Setup::Failed : Setup::Gone;
  return Setup::Done;
}

Setup Resource::SwitchOff() {
  const auto frame = powerOff_ == PowerOff::GnssStop ? ublox::GnssStop() : ublox::BackupUntilUartRx();
  if (Write(frame, powerOff_ == PowerOff::GnssStop ? "the GNSS stop" : "the backup request") != 0)
    return device_ ? Setup::Failed : Setup::Gone;
  return Setup::Done;
}

void Resource::ApplyPower() {
  receiverOn_ = false;
  Watch(false);
  if (power_ == Power::Unset || !device_) return;
  // Bytes from before the switch belong to the old state.
  Drain();
  SignalReady(false);
  if (!device_) return;
  if (power_ == Power::Off) {
    SwitchOff();
    return;
  }
  const Setup result = SwitchOn();
  if (result != Setup::Done) {
    setupRetry_ = setupRetry_ == Clock::duration::zero() ? Clock::duration(kSetupRetryFirst)
                                                        : std::min<Clock::duration>(2 * setupRetry_, kSetupRetryLongest);
    nextSetup_ = Clock::now() + setupRetry_;
    return;
  }
  setupRetry_ = Clock::duration::zero();
  if (!lastComplaint_.empty()) Sys_log(4, "GPS resource: %s answers again", Name());
  lastComplaint_.clear();
  receiverOn_ = true;
  Watch(true);
}

WriteResult Resource::WriteAll(std::span<const uint8_t> bytes) {
  const auto deadline = Clock::now() + kSendWait;
  while (!bytes.empty()) {
    // A socket whose simulator has gone must not raise SIGPIPE in the service.
    const ssize_t n = kind_ == DeviceKind::Simulator ? send(device_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL)
                                                     : write(device_.get(), bytes.data(), bytes.size());
    if (n > 0) {
      bytes = bytes.subspan(static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) return WriteResult::Gone;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return WriteResult::Stalled;
    pollfd pfd{device_.get(), POLLOUT, 0};
    const int ready = poll(&pfd, 1, static_cast<int>(left));
    if (ready < 0 && errno != EINTR) return WriteResult::Gone;
    if (ready > 0 && (pfd.revents & (POLLHUP | POLLERR | POLLNVAL))) {
      errno = EIO;
      return WriteResult::Gone;
    }
  }
  return WriteResult::Done;
}

int Resource::Write(std::span<const uint8_t> bytes, const char* what) {
  if (!device_) {
    Sys_log(7, "GPS resource: %s not sent: %s is gone", what, Name());
    return GPS_RESOURCE_ERROR_DEVICE;
  }
  switch (WriteAll(bytes)) {
    case WriteResult::Done:
      return 0;
    case WriteResult::Gone:
      Lost(std::strerror(errno));
      return GPS_RESOURCE_ERROR_DEVICE;
    case WriteResult::Stalled:
      Sys_log(3, "GPS resource: %s took no data for %lld ms; %s not sent whole (check the line's flow control)",
              Name(), static_cast<long long>(std::chrono::milliseconds(kSendWait).count()), what);
      return GPS_RESOURCE_ERROR_DEVICE;
  }
  return GPS_RESOURCE_ERROR_DEVICE;
}

int Resource::Send(const gps_send_data_t& block) {
  if (!open_) return GPS_RESOURCE_ERROR_NOT_OPEN;
  if (block.length > GPS_SEND_DATA_BYTES) {
    Sys_log(3, "GPS resource: refusing to send %u bytes; at most %u go in one call", block.length,
            GPS_SEND_DATA_BYTES);
    return GPS_RESOURCE_ERROR_ARGUMENT;
  }
  const std::span<const uint8_t> bytes(block.data, block.length);
  if (const auto carried = ublox::CarryDdcRate(bytes, port_)) return Write(*carried, "data");
  return Write(bytes, "data");
}

int Resource::SetPower(bool on) {
  power_ = on ? Power::On : Power::Off;
  if (!open_) return GPS_RESOURCE_ERROR_NOT_OPEN;  // applied at the next open
  if (!device_) {
    TryReopen();  // a device that comes back is put in the requested state
    return 0;
  }
  ApplyPower();
  if (!device_) return GPS_RESOURCE_ERROR_DEVICE;
  return on && !receiverOn_ ? GPS_RESOURCE_ERROR_DEVICE : 0;
}

// Never destroyed: the engine thread may still be in a call while the process exits.
Resource& Instance() {
  static auto* resource = new Resource;
  return *resource;
}

std::mutex g_mutex;

}  // namespace

int GPS_OpenResource(void) {
  std::lock_guard lock(g_mutex);
  return Instance().Open();
}

int GPS_CloseResource(void) {
  std::lock_guard lock(g_mutex);
  return Instance().Close();
}

int GPS_GetDeviceData(gps_device_data_t* block) {
  if (!block) return GPS_RESOURCE_ERROR_ARGUMENT;
  std::lock_guard lock(g_mutex);
  return Instance().GetData(*block);
}

int GPS_SendDataToGps(const gps_send_data_t* block) {
  if (!block) return GPS_RESOURCE_ERROR_ARGUMENT;
  std::lock_guard lock(g_mutex);
  return Instance().Send(*block);
}

int GPS_SetPowerState(const gps_power_state_t* state) {
  if (!state) return GPS_RESOURCE_ERROR_ARGUMENT;
  std::lock_guard lock(g_mutex);
  return Instance().SetPower(state->on == 1);
}

int GPS_ReloadResourceSettings(void) {
  std::lock_guard lock(g_mutex);
  return Instance().Reload();
}

int GPS_GetResourceDescriptor(void) {
  std::lock_guard lock(g_mutex);
  return Instance().Descriptor();
}
