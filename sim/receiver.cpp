#include "sim/receiver.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <utility>

namespace gps::sim {

namespace {

using ubx::PutI16;
using ubx::PutI32;
using ubx::PutU16;
using ubx::PutU32;
using ubx::PutU8;

// Message identities, as (class, id).
constexpr uint8_t kIdAckNak = 0x00, kIdAckAck = 0x01;
constexpr uint8_t kIdCfgPrt = 0x00, kIdCfgMsg = 0x01, kIdCfgRst = 0x04, kIdCfgRate = 0x08, kIdCfgRxm = 0x11, kIdCfgNavx5 = 0x23,
                  kIdCfgPm2 = 0x3B, kIdCfgOtp = 0x41;
constexpr uint8_t kIdNavStatus = 0x03, kIdNavSol = 0x06, kIdNavPvt = 0x07, kIdNavClock = 0x22, kIdNavSvinfo = 0x30;
constexpr uint8_t kIdMonVer = 0x04, kIdMonHw = 0x09, kIdMonLlc = 0x0D;
constexpr uint8_t kIdRxmPmreq = 0x41;
constexpr uint8_t kIdAidAlpsrv = 0x32;
constexpr uint8_t kNmeaGga = 0x00, kNmeaGll = 0x01, kNmeaGsa = 0x02, kNmeaGsv = 0x03, kNmeaRmc = 0x04,
                  kNmeaVtg = 0x05;

constexpr uint32_t kDefaultPeriodMs = 1000;
constexpr uint32_t kMinimumPeriodMs = 100;
// A client that fell this many epochs behind (a stalled owner) gets only the latest.
constexpr uint64_t kMaxEpochBacklog = 5;

// AssistNow Offline exchange.
constexpr size_t kAlpHeaderBytes = 16;
constexpr uint8_t kAlpIdSize = 0x10;
constexpr uint8_t kAlpTypeFirstBlock = 0x01;
constexpr uint8_t kAlpTypeRequest = 0x02;
constexpr uint8_t kAlpTypeClientData = 0xFF;
constexpr uint8_t kAlpRequestId2 = 0x5A;
constexpr uint16_t kAlpFirstRequestWord = 42;  // just after the 84 bytes of the first block
constexpr uint16_t kAlpWriteBackWords = 8;
constexpr uint32_t kAlpResendEpochs = 3;

constexpr uint32_t kLlcGenOtherBits = 0x00000410;
constexpr uint32_t kLlcGenAntOffPolarity = 0x00000080;

// GPS time runs ahead of UTC by the leap seconds since 1980 (18 since 2017).
constexpr int64_t kGpsEpochUnixMs = 315964800000;
constexpr int64_t kGpsLeapMs = 18000;
constexpr int64_t kWeekMs = 604800000;

constexpr double kWgs84A = 6378137.0;
constexpr double kWgs84E2 = 6.69437999014e-3;

// NMEA output fixed by the receiver's defaults; DOPs of a good open-sky fix.
constexpr double kPdop = 1.56, kHdop = 0.91, kVdop = 1.27;

double Radians(double degrees) { return degrees * std::numbers::pi / 180.0; }

std::vector<uint8_t> DefaultPm2() {
  std::vector<uint8_t> p(44, 0);
  PutU8(p, 0, 0x01);             // version
  PutU32(p, 4, 0x00029000);      // flags: updateRTC, updateEPH, cyclic tracking off
  PutU32(p, 8, kDefaultPeriodMs);  // updatePeriod
  PutU32(p, 12, 10000);          // searchPeriod
  return p;
}

void PutText(std::vector<uint8_t>& p, size_t at, size_t width, std::string_view text) {
  std::memcpy(p.data() + at, text.data(), std::min(width - 1, text.size()));
}

}  // namespace

struct Receiver::Epoch {
  uint64_t simMs = 0;
  int64_t utcMs = 0;
  uint32_t iTowMs = 0;
  uint16_t week = 0;
  bool fixed = false;
  ScenarioPosition position;
  double geoidSeparationM = 0;
  SkyModel::Sky sky;
  NmeaFixState nmea;
  int numSv = 0;
};

Receiver::Receiver(const ReceiverConfig& config, Scenario scenario)
    : config_(config), scenario_(std::move(scenario)), nmea_("GN") {
  otp_.assign(12, 0);
  if (config_.startPowered) SetPowered(true);
}

uint32_t Receiver::currentTtffMs() const { return alp_.ttffShortened ? config_.ttffMs / 4 : config_.ttffMs; }

void Receiver::Boot() {
  ResetMessageRates();
  ResetPorts();
  gnssStopped_ = false;
  fixPeriodMs_ = kDefaultPeriodMs;
  measRateMs_ = kDefaultPeriodMs;
  lpMode_ = 0;
  pm2_ = DefaultPm2();
  navx5_.assign(40, 0);
  reader_.Reset();
  bootMs_ = nowMs_;
  alpRequests_.clear();
  alp_.firstBlockReceived = false;
  alp_.complete = false;
  RestartAcquisition();
}

void Receiver::RestartAcquisition() {
  fixed_ = false;
  achievedTtffMs_ = 0;
  acquisitionStartMs_ = nowMs_;
  lastEpochMs_ = nowMs_;
  nextEpochMs_ = nowMs_ + fixPeriodMs_;
}

// A new fix period counts from the last epoch.
void Receiver::Reschedule() { nextEpochMs_ = std::max(nowMs_, lastEpochMs_ + fixPeriodMs_); }

void Receiver::ResetMessageRates() {
  rates_.clear();
  for (uint8_t id : {kNmeaGga, kNmeaGll, kNmeaGsa, kNmeaGsv, kNmeaRmc, kNmeaVtg})
    rates_.push_back({ubx::cls::kNmea, id, {1, 1, 1, 1, 1, 0}});
  alp_.outputEnabled = false;
}

void Receiver::ResetPorts() {
  for (size_t port = 0; port < 6; ++port) {
    ports_[port] = PortConfig{};
    if (config_.ubxOnly) ports_[port].outProto = kProtoUbx;
    if (port == 1 || port == 2) {
      ports_[port].mode = 0x000008D0;  // 8N1
      ports_[port].baud = 9600;
    }
  }
}

// Everything the receiver writes passes here: the host's port carries NMEA
// and UBX only while its output mask has them.
void Receiver::Emit(std::string message) {
  const uint16_t out = ports_[config_.port].outProto;
  const bool ubx = !message.empty() && static_cast<uint8_t>(message[0]) == ubx::kSync1;
  if ((out & (ubx ? kProtoUbx : kProtoNmea)) == 0) return;
  output_.push_back(std::move(message));
}

const Receiver::RateEntry* Receiver::FindRate(uint8_t messageClass, uint8_t messageId) const {
  for (const RateEntry& r : rates_)
    if (r.messageClass == messageClass && r.messageId == messageId) return &r;
  return nullptr;
}

Receiver::RateEntry* Receiver::FindRate(uint8_t messageClass, uint8_t messageId) {
  return const_cast<RateEntry*>(std::as_const(*this).FindRate(messageClass, messageId));
}

uint8_t Receiver::MessageRate(uint8_t messageClass, uint8_t messageId) const {
  const RateEntry* r = FindRate(messageClass, messageId);
  return r ? r->rates[config_.port] : 0;
}

bool Receiver::IsDue(uint8_t messageClass, uint8_t messageId) const {
  const uint8_t rate = MessageRate(messageClass, messageId);
  return rate > 0 && epochCount_ % rate == 0;
}

void Receiver::SetPowered(bool on) {
  if (on) {
    if (power_ != PowerState::Off) return;
    power_ = PowerState::On;
    Boot();
    return;
  }
  power_ = PowerState::Off;
  backupWakeMs_.reset();
  output_.clear();
  fixed_ = false;
}

std::optional<uint64_t> Receiver::NextEventMs() const {
  switch (power_) {
    case PowerState::On: return nextEpochMs_;
    case PowerState::Backup: return backupWakeMs_;
    case PowerState::Off: break;
  }
  return std::nullopt;
}

void Receiver::Advance(uint64_t nowMs) {
  if (nowMs < nowMs_) return;
  if (power_ == PowerState::Backup && backupWakeMs_ && *backupWakeMs_ <= nowMs) {
    nowMs_ = *backupWakeMs_;
    backupWakeMs_.reset();
    power_ = PowerState::On;
    bootMs_ = nowMs_;
    RestartAcquisition();
  }
  if (power_ == PowerState::On) {
    if (nowMs >= nextEpochMs_ && (nowMs - nextEpochMs_) / fixPeriodMs_ > kMaxEpochBacklog)
      nextEpochMs_ += (nowMs - nextEpochMs_) / fixPeriodMs_ * fixPeriodMs_;
    // With GNSS stopped there are no epochs: the schedule just moves on.
    while (gnssStopped_ && nextEpochMs_ <= nowMs) nextEpochMs_ += fixPeriodMs_;
    while (power_ == PowerState::On && nextEpochMs_ <= nowMs) {
      nowMs_ = nextEpochMs_;
      lastEpochMs_ = nextEpochMs_;
      RunEpoch(nextEpochMs_);
      nextEpochMs_ += fixPeriodMs_;
    }
  }
  nowMs_ = nowMs;
}

std::vector<std::string> Receiver::TakeOutput() { return std::exchange(output_, {}); }

std::string Receiver::TakeOutputBytes() {
  std::string bytes;
  for (const std::string& message : output_) bytes += message;
  output_.clear();
  return bytes;
}

// ---------------------------------------------------------------------------
// Navigation epochs

Receiver::Epoch Receiver::BuildEpoch(uint64_t epochMs) const {
  Epoch e;
  e.simMs = epochMs;
  e.utcMs = config_.utcAtStartMs + static_cast<int64_t>(epochMs);
  const int64_t gpsMs = e.utcMs - kGpsEpochUnixMs + kGpsLeapMs;
  e.week = static_cast<uint16_t>(gpsMs / kWeekMs);
  e.iTowMs = static_cast<uint32_t>(gpsMs % kWeekMs);
  e.fixed = fixed_;
  e.position = scenario_.At(static_cast<double>(epochMs) / 1000.0);
  e.geoidSeparationM = scenario_.geoidSeparationM();
  const uint64_t searchedMs = epochMs - acquisitionStartMs_;
  const uint32_t ttff = std::max<uint32_t>(currentTtffMs(), 1);
  e.sky = SkyModel::At(e.utcMs, static_cast<double>(searchedMs) / ttff, e.fixed);
  for (const auto* constellation : {&e.sky.gps, &e.sky.glonass})
    for (const SatelliteInView& sat : *constellation) e.numSv += sat.usedInFix ? 1 : 0;

  NmeaFixState& n = e.nmea;
  n.fixValid = e.fixed;
  // Time is decoded from the first satellites, before the position is known.
  n.timeValid = e.fixed || searchedMs * 2 >= ttff;
  n.utcMs = e.utcMs;
  n.latitudeDeg = e.position.latitudeDeg;
  n.longitudeDeg = e.position.longitudeDeg;
  n.altitudeMslM = e.position.altitudeM;
  n.geoidSeparationM = e.geoidSeparationM;
  n.speedMps = e.position.speedMps;
  n.courseDeg = e.position.courseDeg;
  n.satellitesUsed = e.numSv;
  if (e.fixed) {
    n.pdop = kPdop;
    n.hdop = kHdop;
    n.vdop = kVdop;
  }
  return e;
}

void Receiver::RunEpoch(uint64_t epochMs) {
  if (!fixed_ && epochMs - acquisitionStartMs_ >= currentTtffMs()) {
    fixed_ = true;
    achievedTtffMs_ = static_cast<uint32_t>(epochMs - acquisitionStartMs_);
  }
  const Epoch epoch = BuildEpoch(epochMs);
  EmitNmea(epoch);
  EmitUbx(epoch);
  if (alp_.outputEnabled && alp_.firstBlockReceived && !alp_.complete) SendAlpRequest();
  ++epochCount_;
}

void Receiver::EmitNmea(const Epoch& e) {
  if (IsDue(ubx::cls::kNmea, kNmeaRmc)) Emit(nmea_.Rmc(e.nmea));
  if (IsDue(ubx::cls::kNmea, kNmeaVtg)) Emit(nmea_.Vtg(e.nmea));
  if (IsDue(ubx::cls::kNmea, kNmeaGga)) Emit(nmea_.Gga(e.nmea));
  if (IsDue(ubx::cls::kNmea, kNmeaGsa)) {
    Emit(nmea_.Gsa(e.nmea, e.sky.gps));
    Emit(nmea_.Gsa(e.nmea, e.sky.glonass));
  }
  if (IsDue(ubx::cls::kNmea, kNmeaGsv)) {
    for (std::string& s : NmeaGenerator::Gsv("GP", e.sky.gps)) Emit(std::move(s));
    for (std::string& s : NmeaGenerator::Gsv("GL", e.sky.glonass)) Emit(std::move(s));
  }
  if (IsDue(ubx::cls::kNmea, kNmeaGll)) Emit(nmea_.Gll(e.nmea));
}

void Receiver::EmitUbx(const Epoch& e) {
  using namespace ubx::cls;
  if (IsDue(kNav, kIdNavPvt)) SendUbx(kNav, kIdNavPvt, NavPvt(e));
  if (IsDue(kNav, kIdNavStatus)) SendUbx(kNav, kIdNavStatus, NavStatus(e));
  if (IsDue(kNav, kIdNavSol)) SendUbx(kNav, kIdNavSol, NavSol(e));
  if (IsDue(kNav, kIdNavClock)) SendUbx(kNav, kIdNavClock, NavClock(e));
  if (IsDue(kNav, kIdNavSvinfo)) SendUbx(kNav, kIdNavSvinfo, NavSvinfo(e));
  if (IsDue(kMon, kIdMonHw)) SendUbx(kMon, kIdMonHw, MonHw());
}

// ---------------------------------------------------------------------------
// Host input

void Receiver::Receive(std::span<const uint8_t> bytes) {
  if (power_ == PowerState::Off || bytes.empty()) return;
  if (power_ == PowerState::Backup) {
    // Only a wake-up source wakes it: on a UART the first edge on RX (that
    // byte is lost); USB is none.
    if (!wakeOnRx_) return;
    power_ = PowerState::On;
    backupWakeMs_.reset();
    bootMs_ = nowMs_;
    RestartAcquisition();
    bytes = bytes.subspan(1);
  }
  std::vector<ubx::Frame> frames;
  reader_.Push(bytes, frames);
  for (const ubx::Frame& frame : frames) {
    // Whatever followed a backup request was sent to a sleeping receiver.
    if (power_ != PowerState::On) break;
    if ((ports_[config_.port].inProto & kProtoUbx) == 0) continue;
    received_.push_back(frame.bytes);
    HandleFrame(frame);
  }
}

void Receiver::HandleFrame(const ubx::Frame& frame) {
  const uint8_t messageClass = frame.messageClass();
  const uint8_t messageId = frame.messageId();
  if (!frame.checksumOk) {
    if (messageClass == ubx::cls::kCfg) SendAck(false, messageClass, messageId);
    return;
  }
  const std::span<const uint8_t> payload = frame.payload();
  switch (messageClass) {
    case ubx::cls::kCfg: HandleCfg(frame); break;
    case ubx::cls::kNav:
    case ubx::cls::kMon:
      if (payload.empty()) HandlePoll(messageClass, messageId);
      break;
    case ubx::cls::kRxm:
      if (messageId == kIdRxmPmreq) HandleBackupRequest(payload);
      break;
    case ubx::cls::kAid:
      if (messageId == kIdAidAlpsrv) HandleAlpsrv(payload);
      break;
    default: break;
  }
}

void Receiver::HandleCfg(const ubx::Frame& frame) {
  const uint8_t id = frame.messageId();
  const std::span<const uint8_t> p = frame.payload();
  const size_t n = p.size();
  auto answer = [&](const std::vector<uint8_t>& data) {
    SendUbx(ubx::cls::kCfg, id, data);
    SendAck(true, ubx::cls::kCfg, id);
  };
  auto nak = [&] { SendAck(false, ubx::cls::kCfg, id); };
  auto ack = [&] { SendAck(true, ubx::cls::kCfg, id); };

  switch (id) {
    case kIdCfgMsg: {
      if (n == 2) return answer(CfgMsgAnswer(p[0], p[1]));
      if (n != 3 && n != 8) return nak();
      RateEntry* r = FindRate(p[0], p[1]);
      if (!r) {
        rates_.push_back({p[0], p[1], {0, 0, 0, 0, 0, 0}});
        r = &rates_.back();
      }
      // The 3-byte form sets the port the command came on.
      if (n == 8) {
        std::copy(p.begin() + 2, p.end(), r->rates);
      } else {
        r->rates[config_.port] = p[2];
      }
      if (p[0] == ubx::cls::kAid && p[1] == kIdAidAlpsrv) alp_.outputEnabled = MessageRate(p[0], p[1]) > 0;
      return ack();
    }
    case kIdCfgPm2:
      if (n == 0) return answer(pm2_);
      if (n != 44 && n != 48) return nak();
      pm2_.assign(p.begin(), p.end());
      return ack();
    case kIdCfgRxm:
      if (n == 0) return answer({0x08, lpMode_});
      if (n != 2) return nak();
      lpMode_ = p[1];
      if (lpMode_ == 1) {
        // Power save mode: one fix per update period of the stored CFG-PM2.
        const uint32_t period = ubx::GetU32(pm2_, 8);
        fixPeriodMs_ = period == 0 ? measRateMs_ : std::max(period, kMinimumPeriodMs);
      } else {
        fixPeriodMs_ = measRateMs_;
      }
      Reschedule();
      return ack();
    case kIdCfgRate:
      if (n == 0) {
        std::vector<uint8_t> rate(6, 0);
        PutU16(rate, 0, measRateMs_);
        PutU16(rate, 2, 1);  // navRate
        PutU16(rate, 4, 1);  // timeRef: GPS time
        return answer(rate);
      }
      if (n != 6) return nak();
      measRateMs_ = std::max<uint16_t>(ubx::GetU16(p, 0), 50);
      if (lpMode_ != 1) fixPeriodMs_ = measRateMs_;
      Reschedule();
      return ack();
    case kIdCfgPrt: {
      // Poll: the port asked for (1 byte) or the port the poll came on (none).
      if (n <= 1) {
        const uint8_t port = n == 1 ? p[0] : config_.port;
        if (port >= 6) return nak();
        std::vector<uint8_t> answerPayload(20, 0);
        PutU8(answerPayload, 0, port);
        PutU32(answerPayload, 4, ports_[port].mode);
        PutU32(answerPayload, 8, ports_[port].baud);
        PutU16(answerPayload, 12, ports_[port].inProto);
        PutU16(answerPayload, 14, ports_[port].outProto);
        return answer(answerPayload);
      }
      if (n != 20 || p[0] >= 6) return nak();
      PortConfig& port = ports_[p[0]];
      port.inProto = ubx::GetU16(p, 12);
      port.outProto = ubx::GetU16(p, 14);
      if (p[0] == 1 || p[0] == 2) {
        port.mode = ubx::GetU32(p, 4);
        port.baud = ubx::GetU32(p, 8);
      }
      // Acknowledged on the new configuration.
      return ack();
    }
    case kIdCfgRst: {
      if (n != 4) return nak();
      ack();
      const uint8_t resetMode = p[2];
      if (resetMode == 0x08 || resetMode == 0x09) {
        // GNSS stop and start: the RF section sleeps or wakes, the interface
        // and the configuration stay.
        const bool wasStopped = gnssStopped_;
        gnssStopped_ = resetMode == 0x08;
        fixed_ = false;
        if (wasStopped && !gnssStopped_) RestartAcquisition();
        return;
      }
      if (resetMode == 0x00 || resetMode == 0x01 || resetMode == 0x04) {
        // Hardware and software resets reboot into the default configuration.
        Boot();
        Emit(NmeaGenerator::Txt("GP", 2, "Resetting GPS"));
        return;
      }
      const uint16_t navBbrMask = ubx::GetU16(p, 0);
      Emit(NmeaGenerator::Txt("GP", 2, "Resetting GPS"));
      ResetMessageRates();
      if (navBbrMask == 0xFFFF) {
        // A cold start clears the battery-backed memory, the ALP data with it.
        alp_.ttffShortened = false;
        alp_.firstBlockReceived = false;
        alp_.complete = false;
        alpRequests_.clear();
      }
      RestartAcquisition();
      return;
    }
    case kIdCfgOtp:
      if (n == 0) return answer(otp_);
      if (n != 12) return nak();
      otp_.assign(p.begin(), p.end());
      return ack();
    case kIdCfgNavx5:
      if (n == 0) return answer(navx5_);
      if (n != 40 && n != 44) return nak();
      navx5_.assign(p.begin(), p.end());
      return ack();
    default:
      // Configuration this receiver does not model is accepted as is.
      return ack();
  }
}

void Receiver::HandlePoll(uint8_t messageClass, uint8_t messageId) {
  if (messageClass == ubx::cls::kMon) {
    switch (messageId) {
      case kIdMonVer: return SendUbx(messageClass, messageId, MonVer());
      case kIdMonHw: return SendUbx(messageClass, messageId, MonHw());
      case kIdMonLlc: return SendUbx(messageClass, messageId, MonLlc());
      default: return;
    }
  }
  const Epoch e = BuildEpoch(nowMs_);
  switch (messageId) {
    case kIdNavPvt: return SendUbx(messageClass, messageId, NavPvt(e));
    case kIdNavStatus: return SendUbx(messageClass, messageId, NavStatus(e));
    case kIdNavSol: return SendUbx(messageClass, messageId, NavSol(e));
    case kIdNavClock: return SendUbx(messageClass, messageId, NavClock(e));
    case kIdNavSvinfo: return SendUbx(messageClass, messageId, NavSvinfo(e));
    default: return;
  }
}

void Receiver::HandleBackupRequest(std::span<const uint8_t> p) {
  uint32_t durationMs = 0;
  uint32_t flags = 0;
  uint32_t wakeupSources = 0;  // the 8-byte form names none
  if (p.size() == 8) {
    durationMs = ubx::GetU32(p, 0);
    flags = ubx::GetU32(p, 4);
  } else if (p.size() == 16) {
    durationMs = ubx::GetU32(p, 4);
    flags = ubx::GetU32(p, 8);
    wakeupSources = ubx::GetU32(p, 12);
  } else {
    return;
  }
  if ((flags & 0x2) == 0) return;
  power_ = PowerState::Backup;
  constexpr uint32_t kWakeUartRx = 0x08;
  wakeOnRx_ = (config_.port == 1 || config_.port == 2) && (wakeupSources & kWakeUartRx) != 0;
  if (durationMs > 0)
    backupWakeMs_ = nowMs_ + durationMs;
  else
    backupWakeMs_.reset();
  fixed_ = false;
  reader_.Reset();
}

// ---------------------------------------------------------------------------
// AssistNow Offline

void Receiver::PlanAlpRequests() {
  alpRequests_.clear();
  const size_t fileWords = config_.alpData.size() / 2;
  for (uint32_t k = 0; k < config_.alpRequestCount; ++k) {
    const size_t ofs = kAlpFirstRequestWord + static_cast<size_t>(k) * config_.alpRequestWords;
    size_t size = config_.alpRequestWords;
    if (!config_.alpData.empty()) {
      // Ask only for what the file holds; the host answers nothing beyond it.
      if (ofs >= fileWords) break;
      size = std::min(size, fileWords - ofs);
    }
    if (ofs + size > 0xFFFF || size == 0) break;
    AlpRequest request;
    request.ofsWords = static_cast<uint16_t>(ofs);
    request.sizeWords = static_cast<uint16_t>(size);
    request.id1 = static_cast<uint8_t>(k + 1);
    alpRequests_.push_back(request);
  }
}

void Receiver::SendAlpRequest() {
  const uint64_t resendMs = static_cast<uint64_t>(kAlpResendEpochs) * fixPeriodMs_;
  for (AlpRequest& request : alpRequests_) {
    if (request.served || (request.lastSentMs && nowMs_ - *request.lastSentMs < resendMs)) continue;
    std::vector<uint8_t> p(kAlpHeaderBytes, 0);
    PutU8(p, 0, kAlpIdSize);
    PutU8(p, 1, kAlpTypeRequest);
    PutU16(p, 2, request.ofsWords);
    PutU16(p, 4, request.sizeWords);
    PutU16(p, 6, alp_.fileId);
    PutU8(p, 10, request.id1);
    PutU8(p, 11, kAlpRequestId2);
    SendUbx(ubx::cls::kAid, kIdAidAlpsrv, p);
    request.lastSentMs = nowMs_;
    ++alp_.requestsSent;
    return;  // one request per epoch
  }
}

void Receiver::SendAlpWriteBack() {
  if (alpRequests_.empty()) return;
  const uint16_t ofs = alpRequests_.front().ofsWords;
  const size_t bytes = kAlpWriteBackWords * 2u;
  std::vector<uint8_t> p(kAlpHeaderBytes + bytes, 0);
  PutU8(p, 0, kAlpIdSize);
  PutU8(p, 1, kAlpTypeClientData);
  PutU16(p, 2, ofs);
  PutU16(p, 4, kAlpWriteBackWords);
  PutU16(p, 6, alp_.fileId);
  PutU16(p, 8, static_cast<uint16_t>(bytes));
  // The receiver returns the block as it keeps it: the bytes it was served.
  for (size_t i = 0; i < bytes && ofs * 2u + i < alpReceived_.size(); ++i)
    p.at(kAlpHeaderBytes + i) = alpReceived_[ofs * 2u + i];
  SendUbx(ubx::cls::kAid, kIdAidAlpsrv, p);
  ++alp_.writeBacksSent;
}

void Receiver::HandleAlpsrv(std::span<const uint8_t> p) {
  if (p.size() < kAlpHeaderBytes) return;
  const uint8_t type = p[1];
  const uint16_t ofs = ubx::GetU16(p, 2);
  const uint16_t size = ubx::GetU16(p, 4);
  const uint16_t fileId = ubx::GetU16(p, 6);
  const uint16_t dataSize = ubx::GetU16(p, 8);
  const std::span<const uint8_t> data = p.subspan(kAlpHeaderBytes);
  auto keep = [&](size_t atByte) {
    if (alpReceived_.size() < atByte + data.size()) alpReceived_.resize(atByte + data.size());
    std::copy(data.begin(), data.end(), alpReceived_.begin() + static_cast<std::ptrdiff_t>(atByte));
  };

  if (type == kAlpTypeFirstBlock && ofs == 0) {
    alp_.firstBlockReceived = true;
    alp_.fileId = fileId;
    alp_.firstBlockMatchesFile = !config_.alpData.empty() && data.size() <= config_.alpData.size() &&
                                 std::equal(data.begin(), data.end(), config_.alpData.begin());
    alp_.complete = false;
    keep(0);
    PlanAlpRequests();
    return;
  }
  if (type == kAlpTypeClientData || !alp_.firstBlockReceived || alp_.complete) return;

  AlpRequest* request = nullptr;
  for (AlpRequest& candidate : alpRequests_)
    if (candidate.ofsWords == ofs && candidate.lastSentMs) request = &candidate;
  const size_t expectedBytes = static_cast<size_t>(size) * 2;
  bool correct = request && type == kAlpTypeRequest && size == request->sizeWords && fileId == alp_.fileId &&
                 dataSize == expectedBytes && data.size() == expectedBytes && p[10] == request->id1 &&
                 p[11] == kAlpRequestId2;
  if (correct && !config_.alpData.empty()) {
    const size_t at = static_cast<size_t>(ofs) * 2;
    correct = at + expectedBytes <= config_.alpData.size() &&
              std::equal(data.begin(), data.end(), config_.alpData.begin() + static_cast<std::ptrdiff_t>(at));
  }
  if (!correct) {
    ++alp_.answersWrong;
    return;
  }
  // A request re-sent while its first answer was on the way gets two answers.
  if (request->served) return;
  ++alp_.answersCorrect;
  request->served = true;
  keep(static_cast<size_t>(ofs) * 2);
  if (std::all_of(alpRequests_.begin(), alpRequests_.end(), [](const AlpRequest& r) { return r.served; })) {
    alp_.complete = true;
    alp_.ttffShortened = true;
    SendAlpWriteBack();
  }
}

// ---------------------------------------------------------------------------
// Output messages

void Receiver::SendUbx(uint8_t messageClass, uint8_t messageId, const std::vector<uint8_t>& payload) {
  const std::vector<uint8_t> frame = ubx::EncodeFrame(messageClass, messageId, payload);
  Emit(std::string(frame.begin(), frame.end()));
}

void Receiver::SendAck(bool ack, uint8_t messageClass, uint8_t messageId) {
  SendUbx(ubx::cls::kAck, ack ? kIdAckAck : kIdAckNak, {messageClass, messageId});
}

std::vector<uint8_t> Receiver::CfgMsgAnswer(uint8_t messageClass, uint8_t messageId) const {
  std::vector<uint8_t> p(8, 0);
  p[0] = messageClass;
  p[1] = messageId;
  if (const RateEntry* r = FindRate(messageClass, messageId)) std::copy(r->rates, r->rates + 6, p.begin() + 2);
  return p;
}

std::vector<uint8_t> Receiver::NavPvt(const Epoch& e) const {
  std::vector<uint8_t> p(92, 0);
  const UtcTime t = UtcFromUnixMs(e.utcMs);
  PutU32(p, 0, e.iTowMs);
  PutU16(p, 4, static_cast<uint16_t>(t.year));
  PutU8(p, 6, static_cast<uint8_t>(t.month));
  PutU8(p, 7, static_cast<uint8_t>(t.day));
  PutU8(p, 8, static_cast<uint8_t>(t.hour));
  PutU8(p, 9, static_cast<uint8_t>(t.minute));
  PutU8(p, 10, static_cast<uint8_t>(t.second));
  PutU8(p, 11, e.nmea.timeValid ? (e.fixed ? 0x07 : 0x03) : 0x00);  // validDate, validTime, fullyResolved
  PutU32(p, 12, e.fixed ? 30 : 0xFFFFFFFF);                          // tAcc [ns]
  PutI32(p, 16, t.millisecond * 1000000);                            // nano [ns]
  PutU8(p, 20, e.fixed ? 3 : 0);                                     // fixType: 3D
  PutU8(p, 21, e.fixed ? 0x01 : 0x00);                               // flags: gnssFixOK
  PutU8(p, 22, e.nmea.timeValid ? 0xE0 : 0x00);                      // flags2: confirmed date and time
  PutU8(p, 23, static_cast<uint8_t>(e.numSv));
  if (e.fixed) {
    const double course = Radians(e.position.courseDeg);
    PutI32(p, 24, static_cast<int32_t>(std::llround(e.position.longitudeDeg * 1e7)));  // [1e-7 deg]
    PutI32(p, 28, static_cast<int32_t>(std::llround(e.position.latitudeDeg * 1e7)));
    PutI32(p, 32, static_cast<int32_t>(std::llround((e.position.altitudeM + e.geoidSeparationM) * 1000)));  // [mm]
    PutI32(p, 36, static_cast<int32_t>(std::llround(e.position.altitudeM * 1000)));
    PutU32(p, 40, 2400);  // hAcc [mm]
    PutU32(p, 44, 3700);  // vAcc [mm]
    PutI32(p, 48, static_cast<int32_t>(std::llround(e.position.speedMps * std::cos(course) * 1000)));  // velN [mm/s]
    PutI32(p, 52, static_cast<int32_t>(std::llround(e.position.speedMps * std::sin(course) * 1000)));  // velE
    PutI32(p, 56, 0);                                                                                // velD
    PutI32(p, 60, static_cast<int32_t>(std::llround(e.position.speedMps * 1000)));  // gSpeed [mm/s]
    PutI32(p, 64, static_cast<int32_t>(std::llround(e.position.courseDeg * 1e5)));  // headMot [1e-5 deg]
    PutU32(p, 68, 350);                                                             // sAcc [mm/s]
    PutU32(p, 72, 1500000);                                                         // headAcc [1e-5 deg]
    PutU16(p, 76, static_cast<uint16_t>(std::lround(kPdop * 100)));                 // pDOP [0.01]
    PutI32(p, 84, static_cast<int32_t>(std::llround(e.position.courseDeg * 1e5)));  // headVeh
  } else {
    PutU32(p, 40, 0xFFFFFFFF);
    PutU32(p, 44, 0xFFFFFFFF);
    PutU32(p, 68, 20000);
    PutU32(p, 72, 18000000);
    PutU16(p, 76, 9999);
  }
  return p;
}

std::vector<uint8_t> Receiver::NavStatus(const Epoch& e) const {
  std::vector<uint8_t> p(16, 0);
  PutU32(p, 0, e.iTowMs);
  PutU8(p, 4, e.fixed ? 3 : 0);                                            // gpsFix
  PutU8(p, 5, e.fixed ? 0x0D : (e.nmea.timeValid ? 0x0C : 0x00));          // gpsFixOk, wknSet, towSet
  PutU32(p, 8, e.fixed ? achievedTtffMs_ : 0);                             // ttff [ms]
  PutU32(p, 12, static_cast<uint32_t>(e.simMs - std::min(e.simMs, bootMs_)));  // msss [ms]
  return p;
}

std::vector<uint8_t> Receiver::NavSol(const Epoch& e) const {
  std::vector<uint8_t> p(52, 0);
  PutU32(p, 0, e.iTowMs);
  PutI16(p, 8, static_cast<int16_t>(e.week));
  PutU8(p, 10, e.fixed ? 3 : 0);
  PutU8(p, 11, e.fixed ? 0x0D : (e.nmea.timeValid ? 0x0C : 0x00));
  if (e.fixed) {
    // Geodetic to Earth-centred, Earth-fixed, WGS84.
    const double lat = Radians(e.position.latitudeDeg);
    const double lon = Radians(e.position.longitudeDeg);
    const double h = e.position.altitudeM + e.geoidSeparationM;
    const double n = kWgs84A / std::sqrt(1 - kWgs84E2 * std::sin(lat) * std::sin(lat));
    const double x = (n + h) * std::cos(lat) * std::cos(lon);
    const double y = (n + h) * std::cos(lat) * std::sin(lon);
    const double z = (n * (1 - kWgs84E2) + h) * std::sin(lat);
    const double course = Radians(e.position.courseDeg);
    const double vn = e.position.speedMps * std::cos(course);
    const double ve = e.position.speedMps * std::sin(course);
    const double vx = -std::sin(lat) * std::cos(lon) * vn - std::sin(lon) * ve;
    const double vy = -std::sin(lat) * std::sin(lon) * vn + std::cos(lon) * ve;
    const double vz = std::cos(lat) * vn;
    PutI32(p, 12, static_cast<int32_t>(std::llround(x * 100)));  // ecefX [cm]
    PutI32(p, 16, static_cast<int32_t>(std::llround(y * 100)));
    PutI32(p, 20, static_cast<int32_t>(std::llround(z * 100)));
    PutU32(p, 24, 350);  // pAcc [cm]
    PutI32(p, 28, static_cast<int32_t>(std::llround(vx * 100)));  // ecefVX [cm/s]
    PutI32(p, 32, static_cast<int32_t>(std::llround(vy * 100)));
    PutI32(p, 36, static_cast<int32_t>(std::llround(vz * 100)));
    PutU32(p, 40, 35);  // sAcc [cm/s]
    PutU16(p, 44, static_cast<uint16_t>(std::lround(kPdop * 100)));
  } else {
    PutU32(p, 24, 0xFFFFFFFF);
    PutU32(p, 40, 0xFFFFFFFF);
    PutU16(p, 44, 9999);
  }
  PutU8(p, 47, static_cast<uint8_t>(e.numSv));
  return p;
}

std::vector<uint8_t> Receiver::NavClock(const Epoch& e) const {
  std::vector<uint8_t> p(20, 0);
  PutU32(p, 0, e.iTowMs);
  // A crystal 512 ppb fast, its bias drifting through a 1 ms window.
  PutI32(p, 4, static_cast<int32_t>((e.simMs * 512 / 1000) % 1000000));  // clkB [ns]
  PutI32(p, 8, 512);                                                      // clkD [ns/s]
  PutU32(p, 12, e.fixed ? 25 : 0xFFFFFFFF);                               // tAcc [ns]
  PutU32(p, 16, e.fixed ? 180 : 0xFFFFFFFF);                              // fAcc [ps/s]
  return p;
}

std::vector<uint8_t> Receiver::NavSvinfo(const Epoch& e) const {
  std::vector<SatelliteInView> all = e.sky.gps;
  all.insert(all.end(), e.sky.glonass.begin(), e.sky.glonass.end());
  std::vector<uint8_t> p(8 + 12 * all.size(), 0);
  PutU32(p, 0, e.iTowMs);
  PutU8(p, 4, static_cast<uint8_t>(all.size()));                          // numCh
  PutU8(p, 5, config_.model == ReceiverModel::M8030 ? 4 : 3);             // globalFlags: chip generation
  for (size_t i = 0; i < all.size(); ++i) {
    const SatelliteInView& sat = all[i];
    const size_t at = 8 + 12 * i;
    const bool tracked = sat.snrDbHz >= 0;
    PutU8(p, at + 0, static_cast<uint8_t>(i));                           // chn
    PutU8(p, at + 1, static_cast<uint8_t>(sat.prn));                     // svid
    PutU8(p, at + 2, static_cast<uint8_t>((sat.usedInFix ? 0x01 : 0) | (e.fixed ? 0x0C : 0)));  // svUsed, orbit
    PutU8(p, at + 3, tracked ? (sat.usedInFix ? 7 : 4) : 1);            // quality
    PutU8(p, at + 4, static_cast<uint8_t>(tracked ? sat.snrDbHz : 0));   // cno [dBHz]
    p[at + 5] = static_cast<uint8_t>(static_cast<int8_t>(sat.elevationDeg));  // elev [deg]
    PutI16(p, at + 6, static_cast<int16_t>(sat.azimuthDeg));            // azim [deg]
    PutI32(p, at + 8, sat.usedInFix ? static_cast<int32_t>((sat.prn * 37) % 200 - 100) : 0);  // prRes [cm]
  }
  return p;
}

std::vector<uint8_t> Receiver::MonHw() const {
  std::vector<uint8_t> p(60, 0);
  // Noise and AGC wander a little from one report to the next; no jamming.
  const uint32_t wobble = static_cast<uint32_t>(epochCount_ * 7 % 13);
  PutU16(p, 16, static_cast<uint16_t>(82 + wobble));    // noisePerMS
  PutU16(p, 18, static_cast<uint16_t>(5800 + 11 * wobble));  // agcCnt, 0..8191
  PutU8(p, 20, 2);                                      // aStatus: OK
  PutU8(p, 21, 1);                                      // aPower: on
  PutU8(p, 22, 0x01);                                   // flags: RTC calibrated
  PutU32(p, 24, 0x000FFFFF);                            // usedMask
  for (size_t i = 0; i < 17; ++i) PutU8(p, 28 + i, static_cast<uint8_t>(i));  // VP: pin mapping
  PutU8(p, 45, static_cast<uint8_t>(6 + wobble % 4));   // jamInd
  return p;
}

std::vector<uint8_t> Receiver::MonVer() const {
  std::string_view sw, hw;
  std::vector<std::string_view> extensions;
  if (config_.model == ReceiverModel::G7020) {
    sw = "1.00 (59842)";
    hw = "00070000";
    extensions = {"PROTVER 14.00", "GPS;SBAS;GLO;QZSS"};
  } else {
    sw = "ROM CORE 3.01 (107888)";
    hw = "00080000";
    extensions = {"FWVER=SPG 3.01", "PROTVER=18.00", "GPS;GLO;GAL;BDS", "SBAS;IMES;QZSS"};
  }
  std::vector<uint8_t> p(40 + 30 * extensions.size(), 0);
  PutText(p, 0, 30, sw);
  PutText(p, 30, 10, hw);
  for (size_t i = 0; i < extensions.size(); ++i) PutText(p, 40 + 30 * i, 30, extensions[i]);
  return p;
}

std::vector<uint8_t> Receiver::MonLlc() const {
  std::vector<uint8_t> p(20, 0);
  PutU32(p, 0, 0x0000000C);  // llCom
  PutU32(p, 4, 0x00000001);  // llcClk
  PutU32(p, 16, kLlcGenOtherBits | (config_.antOffPolarity ? kLlcGenAntOffPolarity : 0));  // llcGen
  return p;
}

}  // namespace gps::sim
