#include "sim/embedded_receiver.h"

#include <fcntl.h>
#include <unistd.h>

#include "sim/runner.h"
#include "sim/setup.h"

namespace gps::sim {

namespace {

class RunningReceiver final : public EmbeddedReceiver {
 public:
  RunningReceiver(int fd, Receiver receiver, uint32_t lineBaud)
      : runner_(fd, std::move(receiver), RunnerOptions{.ptySlavePath = {}, .maxQueuedBytes = 32 * 1024, .lineBaud = lineBaud}) {}

  bool Start(std::string* error) { return runner_.Start(error); }
  void SetPowered(bool on) override { runner_.SetPowered(on); }
  std::vector<std::vector<uint8_t>> ReceivedFrames() const override { return runner_.ReceivedFrames(); }

 private:
  Runner runner_;
};

}  // namespace

std::unique_ptr<EmbeddedReceiver> EmbeddedReceiver::Start(int fd, const EmbeddedOptions& options,
                                                          std::string* error) {
  std::optional<Receiver> receiver = MakeReceiver(options, error);
  if (!receiver) {
    close(fd);
    return nullptr;
  }
  const int flags = fcntl(fd, F_GETFL);
  if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  auto running = std::make_unique<RunningReceiver>(fd, std::move(*receiver), options.lineBaud);
  if (!running->Start(error)) return nullptr;  // the runner closes the descriptor
  return running;
}

}  // namespace gps::sim
