// The GPS resource driver: one receiver, the embedded simulator or a serial
// line, behind the C entry points the engine calls. One instance serves the
// process; a mutex serialises the engine thread's reads and sends with power
// and close requests from other threads.
#include "platform/gps_resource.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
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

#include "platform/message_align.h"
#include "platform/os.h"
#include "platform/root.h"
#include "platform/serial_port.h"
#include "platform/settings.h"
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

// UBX-RXM-PMREQ (class 0x02, id 0x41): u32 duration 0 (sleep until woken),
// u32 flags 0x00000002 (backup). The receiver wakes on activity on its input.
constexpr std::array<uint8_t, 16> BackupRequestFrame() {
  std::array<uint8_t, 16> frame{0xB5, 0x62, 0x02, 0x41, 0x08, 0x00, 0, 0, 0, 0, 0x02, 0, 0, 0, 0, 0};
  uint8_t a = 0, b = 0;
  for (size_t i = 2; i < 14; ++i) {
    a = static_cast<uint8_t>(a + frame[i]);
    b = static_cast<uint8_t>(b + a);
  }
  frame[14] = a;
  frame[15] = b;
  return frame;
}
constexpr auto kBackupRequest = BackupRequestFrame();

enum class DeviceKind { Simulator, Serial };
enum class Power { Unset, On, Off };  // Unset: never requested since the process started
enum class WriteResult { Done, Gone, Stalled };

std::string IniPath() { return gps::platform::Root() + "/platform.ini"; }

// [sim] keys that only the embedded simulator reads: ttff_ms, ant_off_polarity, alp_file.
gps::sim::EmbeddedOptions SimulatorOptions(const gps::platform::Settings& settings) {
  gps::sim::EmbeddedOptions options;
  options.model = settings.moduleType == 1 ? gps::sim::ReceiverModel::G7020 : gps::sim::ReceiverModel::M8030;
  options.scenarioFile = settings.simScenario;
  const std::string file = IniPath();
  if (access(file.c_str(), F_OK) != 0) return options;
  dictionary* ini = iniparser_load(file.c_str());
  if (!ini) return options;  // the settings loader has already said why
  const int ttffMs = iniparser_getint(ini, "sim:ttff_ms", static_cast<int>(options.ttffMs));
  if (ttffMs >= 0) {
    options.ttffMs = static_cast<uint32_t>(ttffMs);
  } else {
    Sys_log(4, "GPS resource: [sim] ttff_ms = %d in %s is negative; using %u", ttffMs, file.c_str(), options.ttffMs);
  }
  options.antOffPolarity = iniparser_getboolean(ini, "sim:ant_off_polarity", 0) == 1;
  options.alpFile = iniparser_getstring(ini, "sim:alp_file", "");
  iniparser_freedict(ini);
  return options;
}

class Resource {
 public:
  int Open();
  int Close();
  int GetData(gps_device_data_t& block);
  int Send(const gps_send_data_t& block);
  int SetPower(bool on);
  int Descriptor() const { return open_ && device_ ? wait_.get() : -1; }

 private:
  bool Connect(std::string& reason);
  void Disconnect();
  void Lost(const char* reason);
  void TryReopen();
  void Fill();
  void Drain();
  void Deliver(gps_device_data_t& block);
  void SignalReady(bool ready);
  void Watch(bool on);
  WriteResult WriteAll(std::span<const uint8_t> bytes);
  int Write(std::span<const uint8_t> bytes, const char* what);
  const char* Name() const { return kind_ == DeviceKind::Simulator ? "the embedded simulator" : path_.c_str(); }

  bool open_ = false;
  Power power_ = Power::Unset;  // kept across close and reopen
  DeviceKind kind_ = DeviceKind::Simulator;
  std::string path_;
  speed_t speed_ = B9600;
  gps::platform::Settings settings_;

  UniqueFd device_;  // socket to the simulator or the serial line; empty while the device is gone
  std::unique_ptr<gps::sim::EmbeddedReceiver> simulator_;
  UniqueFd wait_;   // epoll set handed to the engine: the device while delivering, and ready_
  UniqueFd ready_;  // eventfd, readable while pending_ holds whole messages
  bool readySignalled_ = false;
  bool watching_ = false;
  Clock::time_point nextReopen_{};

  gps::platform::DropReport drops_;
  std::array<uint8_t, kPendingBytes> pending_{};
  size_t pendingBytes_ = 0;
  Clock::time_point lastByte_{};
};

int Resource::Open() {
  if (open_) return GPS_RESOURCE_ALREADY_OPEN;
  settings_ = gps::platform::CurrentSettings();
  kind_ = settings_.device == "sim" ? DeviceKind::Simulator : DeviceKind::Serial;
  path_ = settings_.device;
  if (kind_ == DeviceKind::Serial) {
    const auto speed = gps::platform::SerialSpeed(settings_.baud);
    if (!speed) {
      Sys_log(3, "GPS resource: [gps] baud = %d in %s is no serial line speed; use one of %s", settings_.baud,
              IniPath().c_str(), gps::platform::SerialSpeedList());
      return GPS_RESOURCE_ERROR_ARGUMENT;
    }
    speed_ = *speed;
  }
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
    if (kind_ == DeviceKind::Serial && (errno == ENOENT || errno == ENODEV || errno == ENXIO)) {
      Sys_log(3, "GPS resource: %s is not there (%s); waiting for it, checking once a second", Name(),
              reason.c_str());
      nextReopen_ = Clock::now() + kReopenInterval;
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
  return 0;
}

bool Resource::Connect(std::string& reason) {
  lastByte_ = Clock::now();
  if (kind_ == DeviceKind::Serial) {
    device_ = gps::platform::OpenSerialPort(path_, speed_);
    if (!device_) {
      reason = std::strerror(errno);
      return false;
    }
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
    options.startPowered = power_ == Power::On;
    std::string error;
    simulator_ = gps::sim::EmbeddedReceiver::Start(ends[1], options, &error);  // owns ends[1] from here
    if (!simulator_) {
      reason = error.empty() ? "the simulator did not start" : error;
      return false;
    }
    device_ = std::move(ours);
  }
  watching_ = false;
  Watch(power_ == Power::On);
  return true;
}

void Resource::Disconnect() {
  Watch(false);
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
  if (!Connect(reason)) return;
  Sys_log(4, "GPS resource: %s is back", Name());
  // A serial receiver that was unplugged comes back running.
  if (power_ == Power::Off && kind_ == DeviceKind::Serial) Write(kBackupRequest, "the backup request");
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
  if (power_ != Power::On) {
    Drain();
    return 0;
  }
  Fill();
  Deliver(block);
  return 0;
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
  return Write(std::span<const uint8_t>(block.data, block.length), "data");
}

int Resource::SetPower(bool on) {
  power_ = on ? Power::On : Power::Off;
  if (!open_) return GPS_RESOURCE_ERROR_NOT_OPEN;  // applied at the next open
  if (!device_) {
    TryReopen();  // a device that comes back is put in the requested state
    return 0;
  }
  // Bytes from before the switch belong to the old state.
  Drain();
  SignalReady(false);
  if (!device_) return GPS_RESOURCE_ERROR_DEVICE;
  int result = 0;
  if (kind_ == DeviceKind::Simulator) {
    simulator_->SetPowered(on);
  } else if (!on) {
    result = Write(kBackupRequest, "the backup request");
  } else {
    static constexpr std::array<uint8_t, kWakeBytes> kWake = [] {
      std::array<uint8_t, kWakeBytes> bytes{};
      bytes.fill(0xFF);
      return bytes;
    }();
    result = Write(kWake, "the wake-up bytes");
    std::this_thread::sleep_for(kWakeSettle);
  }
  Watch(on);
  return result;
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

int GPS_GetResourceDescriptor(void) {
  std::lock_guard lock(g_mutex);
  return Instance().Descriptor();
}
