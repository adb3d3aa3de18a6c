// The simulators' pseudo-terminal as a device node: a raw pty whose slave is
// reached through a symbolic link at the path the host opens.
#pragma once

#include <signal.h>

#include <string>

namespace gps::sim {

// A pseudo-terminal in raw mode: no echo, no line discipline, no CR LF
// translation, so the host sees the simulator's bytes unchanged. Returns the
// master (non-blocking, close-on-exec) and the slave's path, or -1 with a
// reason in `error`.
int OpenRawPty(std::string* slavePath, std::string* error);

// Links `link` to `target`. A stale symbolic link is replaced; anything else
// at `link` is left alone and refused with a message naming it.
bool CreateLink(const std::string& target, const std::string& link, std::string* error);

// Removes the link only while it still points at `target`, so that a link
// another simulator made meanwhile survives.
void RemoveLink(const std::string& target, const std::string& link);

// The simulator tools end on SIGINT or SIGTERM, taken with sigwait: call
// this before any thread starts so that no thread gets them asynchronously.
sigset_t BlockTerminationSignals();
// Waits for one of them.
void WaitForTermination(const sigset_t& signals);

}  // namespace gps::sim
