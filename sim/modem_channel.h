// Serves the modem's GPS (ModemGps) on the master side of a pseudo-terminal
// from a background thread, on the real monotonic clock: the host opens the
// slave, writes commands and reads responses and NMEA from the same line.
//
// Output leaves in whole messages from one queue: a response goes ahead of
// the sentences still waiting, but never into a sentence already partly
// written. While no host holds the slave open nothing is written (and what
// the last host left unread is flushed), commands half received are
// forgotten, and the master is checked for a new host every 100 ms; the
// running state of the GPS is kept across hosts.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/modem_gps.h"

namespace gps::sim {

class ModemChannel {
 public:
  // Takes ownership of `ptyMaster`, which is made non-blocking. Sentences
  // beyond `maxQueuedBytes` not yet read by the host are dropped, oldest
  // first.
  ModemChannel(int ptyMaster, ModemGps modem, size_t maxQueuedBytes = 16 * 1024);
  ~ModemChannel();  // Stop, then close the descriptor
  ModemChannel(const ModemChannel&) = delete;
  ModemChannel& operator=(const ModemChannel&) = delete;

  bool Start(std::string* error);
  void Stop();

  bool running() const;
  size_t commandCount() const;
  std::vector<uint32_t> ReceivedCommands() const;

 private:
  struct Outgoing {
    std::string bytes;
    bool response = false;
  };

  void Loop();
  uint64_t NowMs() const;
  // Moves the modem's output into the queue; the mutex is held.
  void CollectOutput();
  void DropSentencesBeyond(size_t limit);
  void ReadInput();
  void WriteOutput();
  void HostGone();

  int fd_;
  std::string slavePath_;  // empty when the descriptor is not a pty master
  size_t maxQueuedBytes_;
  int stopPipe_[2] = {-1, -1};
  uint64_t startNs_ = 0;

  mutable std::mutex mutex_;
  ModemGps modem_;  // guarded by mutex_

  // Loop thread only.
  std::deque<Outgoing> queue_;
  size_t queuedSentenceBytes_ = 0;
  size_t frontWritten_ = 0;  // bytes of queue_.front() already on the line
  bool hostPresent_ = true;

  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace gps::sim
