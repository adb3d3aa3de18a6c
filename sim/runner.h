// Serves a simulated Receiver on a file descriptor (one end of a socket
// pair, or a pseudo-terminal master) from a background thread, on the real
// monotonic clock.
//
// The thread waits in poll() on the descriptor and a stop pipe, never longer
// than until the receiver's next epoch, so output leaves on time and Stop
// returns at once. Output goes through a queue of whole messages written
// without blocking: a partial write resumes where it stopped, and when the
// peer stops reading the oldest whole messages are dropped once the queue
// holds more than maxQueuedBytes.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/receiver.h"

namespace gps::sim {

struct RunnerOptions {
  // Set when the descriptor is a pseudo-terminal master whose slave lives
  // at this path. While no client holds the slave open, output is dropped
  // (a receiver talking to nobody) and whatever the last client left unread
  // is flushed, so that the next client starts with fresh sentences.
  std::string ptySlavePath;
  size_t maxQueuedBytes = 32 * 1024;
  // The rate a UART receiver talks at. While the terminal line behind the
  // descriptor is set to another speed, what it writes arrives as noise (no
  // '$', no UBX sync) and what it is sent is lost. 0: any speed (USB).
  uint32_t lineBaud = 0;
};

class Runner {
 public:
  // Takes ownership of `fd`, which should be non-blocking.
  Runner(int fd, Receiver receiver, RunnerOptions options = {});
  ~Runner();  // Stop, then close the descriptor
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  bool Start(std::string* error);
  void Stop();

  // The power switch; off also discards output not yet written (a partly
  // written message is completed, so the line never carries half a message).
  void SetPowered(bool on);
  std::vector<std::vector<uint8_t>> ReceivedFrames() const;
  AlpStatus Alp() const;
  // Milliseconds of CLOCK_MONOTONIC since the runner was made.
  uint64_t NowMs() const;

 private:
  enum class Peer { Present, Absent, Gone };

  void Loop();
  // Collects the receiver's output into the queue; the mutex is held.
  void CollectOutput();
  void DropBeyond(size_t limit);
  void ReadInput();
  void WriteOutput();
  Peer CheckPtyClient(short revents);
  void FlushPtySlave() const;
  bool LineSpeedMatches() const;

  int fd_;
  bool isSocket_ = false;
  int stopPipe_[2] = {-1, -1};
  RunnerOptions options_;
  uint64_t startNs_ = 0;

  mutable std::mutex mutex_;
  Receiver receiver_;
  std::deque<std::string> queue_;  // guarded by mutex_
  size_t queuedBytes_ = 0;         // guarded by mutex_
  size_t frontWritten_ = 0;        // bytes of queue_.front() already written; guarded by mutex_

  Peer peer_ = Peer::Present;  // loop thread only
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace gps::sim
