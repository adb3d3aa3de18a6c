// The simulated u-blox receiver (UBX-G7020 or UBX-M8030 class) as a pure
// state machine: no descriptors, no threads, no clock of its own. The owner
// feeds it the host's bytes and the time in milliseconds; it answers with
// whole NMEA sentences and UBX frames.
//
// Behaviour in short:
//  - Powered, it writes one navigation epoch every fix period (1000 ms by
//    default): RMC, VTG, GGA, GSA (GPS and GLONASS), GSV (GP and GL groups),
//    GLL, then the UBX messages switched on by CFG-MSG. Before its time to
//    first fix the sentences say "no fix" (GGA quality 0, RMC V, VTG N).
//  - CFG messages are acknowledged: ACK-ACK when well formed, ACK-NAK for a
//    bad checksum or a length the message cannot have. Empty CFG payloads are
//    polls: answered with the configuration, then ACK-ACK.
//  - MON-VER, MON-LLC, MON-HW and the NAV messages can be polled (empty payload).
//  - CFG-PM2 stores the update period, CFG-RXM with lpMode 1 makes it the fix
//    period (lpMode 0 returns to 1000 ms). CFG-RST restarts the acquisition,
//    announces "Resetting GPS" and clears the message configuration; a cold
//    start (navBbrMask 0xFFFF) also forgets the offline assistance.
//  - It is attached to one port (USB or UART1) and keeps the u-blox port
//    rules: a message comes out only at the rate set for that port (the
//    8-rate CFG-MSG sets every port, the 3-rate form the port it came on),
//    NMEA only while the port's CFG-PRT output mask has NMEA, UBX only while
//    it has UBX, and UBX input is taken only while the input mask has UBX.
//  - CFG-RST: reset mode 0x08 stops GNSS (no epochs, the interface still
//    answers), 0x09 starts it again with a fresh acquisition; 0x02 restarts
//    the acquisition; the hardware and software resets (0x00, 0x01, 0x04)
//    reboot it with the default configuration.
//  - RXM-PMREQ with the backup flag puts it into backup: silent and deaf
//    until the requested duration is over, or, on a UART port, until a byte
//    arrives when UART RX is among the wake-up sources (16-byte form, bit 3).
//    On USB nothing over the line wakes it: only a power cycle.
//  - AssistNow Offline: with AID-ALPSRV output on and the first ALP block
//    received, it asks the host for further parts of the ALP data (one
//    request per fix period, re-sent when unanswered), checks each answer,
//    writes one block back (type 0xFF) and, once all its requests were served
//    correctly, acquires in a quarter of its time to first fix.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/embedded_receiver.h"
#include "sim/nmea_generator.h"
#include "sim/scenario.h"
#include "sim/ubx_codec.h"

namespace gps::sim {

struct ReceiverConfig {
  ReceiverModel model = ReceiverModel::M8030;
  uint32_t ttffMs = 3000;        // after power-on, wake-up and restarts
  bool antOffPolarity = false;   // bit 7 of llcGen in the MON-LLC answer
  bool startPowered = true;
  int64_t utcAtStartMs = 0;      // Unix time (ms) at simulated time 0
  // The ALP file the host serves, to check its answers byte for byte; empty
  // means only the answers' headers and sizes are checked.
  std::vector<uint8_t> alpData;
  // AssistNow Offline requests: count, and size of each in 2-byte words.
  uint32_t alpRequestCount = 3;
  uint16_t alpRequestWords = 64;
  uint8_t port = 3;              // the port the host is on: 3 USB, 1 UART1
  bool ubxOnly = false;          // NMEA output off on every port at boot
};

// CFG-PRT output and input protocol mask bits.
inline constexpr uint16_t kProtoUbx = 0x0001;
inline constexpr uint16_t kProtoNmea = 0x0002;

struct AlpStatus {
  bool outputEnabled = false;       // CFG-MSG 0B 32 rate > 0
  bool firstBlockReceived = false;  // type 1, ofs 0 block from the host
  uint16_t fileId = 0;              // from the first block
  bool firstBlockMatchesFile = false;
  uint32_t requestsSent = 0;
  uint32_t answersCorrect = 0;
  uint32_t answersWrong = 0;
  uint32_t writeBacksSent = 0;      // type 0xFF messages
  bool complete = false;            // every request served correctly
  bool ttffShortened = false;       // acquisitions now take ttffMs / 4
};

enum class PowerState { Off, On, Backup };

class Receiver {
 public:
  Receiver(const ReceiverConfig& config, Scenario scenario);

  // Moves the simulated clock to `nowMs` (never backwards) and writes every
  // epoch that fell due on the way.
  void Advance(uint64_t nowMs);
  // Bytes from the host, at the current simulated time.
  void Receive(std::span<const uint8_t> bytes);
  // The power switch: off is silent and deaf, on starts a fresh boot
  // (default configuration, acquisition from scratch).
  void SetPowered(bool on);

  // Output produced since the last call, one whole sentence or frame per entry.
  std::vector<std::string> TakeOutput();
  // The same, concatenated.
  std::string TakeOutputBytes();

  // When the next epoch (or backup wake-up) is due; nullopt when off.
  std::optional<uint64_t> NextEventMs() const;

  // Every UBX frame received from the host while powered, whole, in order
  // (bad checksums included).
  const std::vector<std::vector<uint8_t>>& ReceivedFrames() const { return received_; }

  PowerState power() const { return power_; }
  bool hasFix() const { return fixed_; }
  uint32_t fixPeriodMs() const { return fixPeriodMs_; }
  // The time to first fix that the current or next acquisition takes.
  uint32_t currentTtffMs() const;
  const AlpStatus& alp() const { return alp_; }
  uint64_t nowMs() const { return nowMs_; }

  // The current message rate of (class, id) on the host's port, 0 when off.
  uint8_t MessageRate(uint8_t messageClass, uint8_t messageId) const;
  bool gnssStopped() const { return gnssStopped_; }
  uint16_t outputProtocols() const { return ports_[config_.port].outProto; }

 private:
  struct RateEntry {
    uint8_t messageClass;
    uint8_t messageId;
    uint8_t rates[6];
  };
  struct PortConfig {
    uint16_t inProto = 0x0007;  // UBX, NMEA, RTCM2
    uint16_t outProto = kProtoUbx | kProtoNmea;
    uint32_t mode = 0;
    uint32_t baud = 0;
  };
  struct AlpRequest {
    uint16_t ofsWords = 0;
    uint16_t sizeWords = 0;
    uint8_t id1 = 0;
    bool served = false;
    std::optional<uint64_t> lastSentMs;
  };
  struct Epoch;

  void Boot();
  void RestartAcquisition();
  void Reschedule();
  void ResetMessageRates();
  void ResetPorts();
  void Emit(std::string message);
  RateEntry* FindRate(uint8_t messageClass, uint8_t messageId);
  const RateEntry* FindRate(uint8_t messageClass, uint8_t messageId) const;
  bool IsDue(uint8_t messageClass, uint8_t messageId) const;

  void RunEpoch(uint64_t epochMs);
  Epoch BuildEpoch(uint64_t epochMs) const;
  void EmitNmea(const Epoch& epoch);
  void EmitUbx(const Epoch& epoch);

  void HandleFrame(const ubx::Frame& frame);
  void HandleCfg(const ubx::Frame& frame);
  void HandlePoll(uint8_t messageClass, uint8_t messageId);
  void HandleAlpsrv(std::span<const uint8_t> payload);
  void HandleBackupRequest(std::span<const uint8_t> payload);

  void SendUbx(uint8_t messageClass, uint8_t messageId, const std::vector<uint8_t>& payload);
  void SendAck(bool ack, uint8_t messageClass, uint8_t messageId);
  void SendAlpRequest();
  void SendAlpWriteBack();
  void PlanAlpRequests();

  std::vector<uint8_t> NavPvt(const Epoch& e) const;
  std::vector<uint8_t> NavStatus(const Epoch& e) const;
  std::vector<uint8_t> NavSol(const Epoch& e) const;
  std::vector<uint8_t> NavClock(const Epoch& e) const;
  std::vector<uint8_t> NavSvinfo(const Epoch& e) const;
  std::vector<uint8_t> MonHw() const;
  std::vector<uint8_t> MonVer() const;
  std::vector<uint8_t> MonLlc() const;
  std::vector<uint8_t> CfgMsgAnswer(uint8_t messageClass, uint8_t messageId) const;

  ReceiverConfig config_;
  Scenario scenario_;
  NmeaGenerator nmea_;
  ubx::FrameReader reader_;

  PowerState power_ = PowerState::Off;
  uint64_t nowMs_ = 0;
  uint64_t bootMs_ = 0;             // power-on or wake-up, for msss
  uint64_t acquisitionStartMs_ = 0;
  uint64_t nextEpochMs_ = 0;
  uint64_t lastEpochMs_ = 0;
  std::optional<uint64_t> backupWakeMs_;
  uint64_t epochCount_ = 0;
  bool fixed_ = false;
  uint32_t achievedTtffMs_ = 0;

  uint32_t fixPeriodMs_ = 1000;
  std::vector<uint8_t> pm2_;        // last CFG-PM2 payload (44 or 48 bytes)
  uint8_t lpMode_ = 0;
  uint16_t measRateMs_ = 1000;      // CFG-RATE, kept for its poll
  std::vector<uint8_t> otp_;        // last CFG-OTP record
  std::vector<uint8_t> navx5_;      // last CFG-NAVX5 payload
  std::vector<RateEntry> rates_;
  PortConfig ports_[6];
  bool gnssStopped_ = false;
  bool wakeOnRx_ = false;           // in backup: a byte on the line wakes it

  AlpStatus alp_;
  std::vector<AlpRequest> alpRequests_;
  std::vector<uint8_t> alpReceived_;  // data bytes of the answers, at their offsets

  std::vector<std::vector<uint8_t>> received_;
  std::vector<std::string> output_;
};

}  // namespace gps::sim
