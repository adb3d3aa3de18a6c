#include "sim/modem_gps.h"

#include <time.h>

#include <algorithm>
#include <utility>

namespace gps::sim {

namespace {

// A clock more epochs late than this skips ahead rather than catching up.
constexpr uint64_t kMaxEpochBacklog = 5;
// Dilutions of precision of a GPS-only fix in open sky.
constexpr double kPdop = 1.9;
constexpr double kHdop = 1.1;
constexpr double kVdop = 1.5;

void PutU32(std::string& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out += static_cast<char>((value >> shift) & 0xFF);
}

uint32_t GetU32(std::string_view bytes, size_t at) {
  uint32_t value = 0;
  for (size_t k = 0; k < 4; ++k) value |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + k])) << (8 * k);
  return value;
}

int64_t RealClockUtcMs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  // Whole seconds, so that bursts fall on whole seconds as a receiver's do.
  return static_cast<int64_t>(ts.tv_sec) * 1000;
}

}  // namespace

std::string modem::EncodeResponse(uint32_t code, int32_t status, std::string_view bytes) {
  std::string out;
  out.reserve(kResponseHeaderBytes + bytes.size());
  PutU32(out, code);
  PutU32(out, static_cast<uint32_t>(status));
  PutU32(out, static_cast<uint32_t>(bytes.size()));
  out += bytes;
  return out;
}

ModemGps::ModemGps(ModemConfig config, Scenario scenario) : config_(std::move(config)), scenario_(std::move(scenario)) {
  config_.fixPeriodMs = std::max<uint32_t>(config_.fixPeriodMs, 1);
  utcAtStartMs_ =
      std::max<int64_t>(0, config_.utcAtStartMs.value_or(scenario_.startUtcMs().value_or(RealClockUtcMs())));
}

void ModemGps::Receive(std::span<const uint8_t> bytes, uint64_t nowMs) {
  input_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  while (input_.size() >= modem::kHeaderBytes) {
    const uint32_t code = GetU32(input_, 0);
    const uint32_t dataBytes = GetU32(input_, 4);
    if (dataBytes > modem::kMaxDataBytes) {
      // The header is garbage or from a host that lost track of the
      // exchange: refuse it and start afresh with the next bytes.
      commands_.push_back(code);
      responses_.push_back(modem::EncodeResponse(code, modem::kStatusTooMuchData));
      input_.clear();
      return;
    }
    if (input_.size() < modem::kHeaderBytes + dataBytes) return;
    // None of the modem's GPS commands takes data; what comes is skipped.
    input_.erase(0, modem::kHeaderBytes + dataBytes);
    commands_.push_back(code);
    Execute(code, nowMs);
  }
}

void ModemGps::Execute(uint32_t code, uint64_t nowMs) {
  switch (code) {
    case modem::kGetVersion: {
      std::string text = config_.versionText;
      text += '\0';
      responses_.push_back(modem::EncodeResponse(code, modem::kStatusDone, text));
      return;
    }
    case modem::kRun:
      // A second run while running changes nothing: the search goes on.
      if (!running_) {
        running_ = true;
        runMs_ = nowMs;
        // Bursts fall on whole fix periods of UTC, as a receiver's epochs do.
        const uint64_t utcNowMs = static_cast<uint64_t>(utcAtStartMs_) + nowMs;
        nextEpochMs_ =
            (utcNowMs / config_.fixPeriodMs + 1) * config_.fixPeriodMs - static_cast<uint64_t>(utcAtStartMs_);
      }
      responses_.push_back(modem::EncodeResponse(code, modem::kStatusDone));
      return;
    case modem::kStop:
      running_ = false;
      sentences_.clear();
      responses_.push_back(modem::EncodeResponse(code, modem::kStatusDone));
      return;
    default:
      responses_.push_back(modem::EncodeResponse(code, modem::kStatusUnknownCommand));
      return;
  }
}

void ModemGps::DiscardPartialCommand() { input_.clear(); }

std::optional<uint64_t> ModemGps::NextEpochMs() const {
  if (!running_) return std::nullopt;
  return nextEpochMs_;
}

void ModemGps::Advance(uint64_t nowMs) {
  if (!running_) return;
  const uint64_t period = config_.fixPeriodMs;
  if (nowMs >= nextEpochMs_ && (nowMs - nextEpochMs_) / period > kMaxEpochBacklog)
    nextEpochMs_ += (nowMs - nextEpochMs_) / period * period;
  for (; nextEpochMs_ <= nowMs; nextEpochMs_ += period) RunEpoch(nextEpochMs_);
}

void ModemGps::RunEpoch(uint64_t epochMs) {
  const uint64_t searchedMs = epochMs - runMs_;
  const uint32_t ttff = std::max<uint32_t>(config_.ttffMs, 1);
  const bool fixed = searchedMs >= config_.ttffMs;
  const int64_t utcMs = utcAtStartMs_ + static_cast<int64_t>(epochMs);
  const std::vector<SatelliteInView> sky = SkyModel::At(utcMs, static_cast<double>(searchedMs) / ttff, fixed).gps;
  const ScenarioPosition position = scenario_.At(static_cast<double>(epochMs) / 1000.0);

  NmeaFixState fix;
  fix.fixValid = fixed;
  // Time is decoded from the first satellites, before the position is known.
  fix.timeValid = fixed || searchedMs * 2 >= ttff;
  fix.utcMs = utcMs;
  fix.latitudeDeg = position.latitudeDeg;
  fix.longitudeDeg = position.longitudeDeg;
  fix.altitudeMslM = position.altitudeM;
  fix.geoidSeparationM = scenario_.geoidSeparationM();
  fix.speedMps = position.speedMps;
  fix.courseDeg = position.courseDeg;
  fix.satellitesUsed = static_cast<int>(std::count_if(sky.begin(), sky.end(), [](auto& s) { return s.usedInFix; }));
  if (fixed) {
    fix.pdop = kPdop;
    fix.hdop = kHdop;
    fix.vdop = kVdop;
  }

  sentences_.push_back(nmea_.Gga(fix));
  sentences_.push_back(nmea_.Rmc(fix));
  sentences_.push_back(nmea_.Vtg(fix));
  sentences_.push_back(nmea_.Gsa(fix, sky));
  for (std::string& s : NmeaGenerator::Gsv("GP", sky)) sentences_.push_back(std::move(s));
}

std::vector<std::string> ModemGps::TakeSentences() { return std::exchange(sentences_, {}); }
std::vector<std::string> ModemGps::TakeResponses() { return std::exchange(responses_, {}); }

}  // namespace gps::sim
