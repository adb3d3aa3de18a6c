// A pseudo-terminal standing in for a serial receiver: the GPS resource driver
// opens its slave side (written into platform.ini as the device), the test
// reads what the engine sent from the master side and can answer through it.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/test_env.h"

namespace gps::test {

// A pseudo-terminal pair with the master side raw (no echo, no translation).
struct RawPty {
  int master;         // owned by the caller
  std::string slave;  // path of the slave side
};
RawPty OpenRawPty();

class PtyReceiver {
 public:
  // Writes $ROOT/platform.ini naming the slave as the u-blox device. One that
  // `answers` acknowledges CFG-PRT and answers MON-VER polls at once, as a
  // receiver does when the driver switches it on; without `answersVersion`
  // only CFG-PRT is acknowledged.
  explicit PtyReceiver(const TempRoot& root, int moduleType = 2, bool answers = false, bool answersVersion = true);
  ~PtyReceiver();
  PtyReceiver(const PtyReceiver&) = delete;
  PtyReceiver& operator=(const PtyReceiver&) = delete;

  const std::string& slavePath() const { return slave_; }
  // Everything the engine sent, waiting up to `quietMs` after the last byte.
  std::string Drain(int quietMs = 100);
  // Whole UBX frames in what Drain returns (other bytes are skipped).
  std::vector<std::string> DrainFrames(int quietMs = 100);
  void Send(const std::string& bytes);

 private:
  void Answer();
  int master_ = -1;
  std::string slave_;
  std::thread answerer_;
  std::atomic<bool> stop_{false};
  bool answersVersion_ = true;
  std::mutex mutex_;
  std::string inbox_;  // what the answering thread read and the test has not drained
};

// Splits a byte string into whole UBX frames.
std::vector<std::string> SplitUbxFrames(const std::string& bytes);

}  // namespace gps::test
