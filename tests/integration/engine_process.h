// The engine as the service runs it: started once per process by gps_dll_init
// and never stopped. Each engine life of a test therefore runs in a child
// process of its own, under the test's platform root, with a simulated
// receiver behind the real resource driver.
#pragma once

#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sim/embedded_receiver.h"
#include "tests/support/test_env.h"

namespace gps::test {

// Runs `body` in a forked child and expects it to end without a failed
// expectation. The child is killed (and the test fails) after `limit`.
void InEngineProcess(const std::function<void()>& body, std::chrono::seconds limit = std::chrono::seconds(60));

// A simulated u-blox receiver on a pseudo-terminal named in platform.ini as
// the serial receiver, and the optional-parameters file, written before the
// engine starts.
struct SimulatedReceiver {
  SimulatedReceiver(const TempRoot& root, sim::EmbeddedOptions options, const std::string& optionalIni = "");
  std::vector<std::vector<uint8_t>> Frames() const { return receiver->ReceivedFrames(); }
  // Frames of one class and id, in arrival order.
  std::vector<std::vector<uint8_t>> Frames(uint8_t cls, uint8_t id) const;
  std::unique_ptr<sim::EmbeddedReceiver> receiver;
};

void WriteOptionalParameters(const TempRoot& root, const std::string& ini);

// CPU time the engine thread ("gps-engine") of this process has used so far,
// from its own CPU clock.
std::chrono::nanoseconds EngineThreadCpuTime();

// Polls `done` every 10 ms until it holds or `limit` passes.
template <typename Done>
bool WaitFor(Done done, std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

}  // namespace gps::test
