#include "sim/setup.h"

#include <time.h>

#include <fstream>
#include <iterator>

namespace gps::sim {

std::optional<Receiver> MakeReceiver(const EmbeddedOptions& options, std::string* error) {
  std::optional<Scenario> scenario = Scenario::DefaultRoute();
  if (!options.scenarioFile.empty()) {
    scenario = Scenario::Load(options.scenarioFile, error);
    if (!scenario) return std::nullopt;
  }
  ReceiverConfig config;
  config.model = options.model;
  config.ttffMs = options.ttffMs;
  config.antOffPolarity = options.antOffPolarity;
  config.startPowered = options.startPowered;
  config.port = options.port;
  config.ubxOnly = options.ubxOnly;
  if (const auto start = scenario->startUtcMs()) {
    config.utcAtStartMs = *start;
  } else {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    // Whole seconds, so that epochs fall on whole seconds as a receiver's do.
    config.utcAtStartMs = static_cast<int64_t>(ts.tv_sec) * 1000;
  }
  if (!options.alpFile.empty()) {
    std::ifstream in(options.alpFile, std::ios::binary);
    if (in) config.alpData.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return Receiver(config, std::move(*scenario));
}

}  // namespace gps::sim
