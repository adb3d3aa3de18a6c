// Turns the options of the embedded receiver (also those of the ubx-sim
// tool) into a ready Receiver: scenario loaded, ALP file read, clock set.
#pragma once

#include <optional>
#include <string>

#include "sim/embedded_receiver.h"
#include "sim/receiver.h"

namespace gps::sim {

// nullopt, with a reason in `error`, when the scenario file cannot be read
// or parsed. An unreadable ALP file is not an error: the receiver then
// checks only the headers and sizes of the host's answers.
std::optional<Receiver> MakeReceiver(const EmbeddedOptions& options, std::string* error);

}  // namespace gps::sim
