// The engine's only worker thread: it owns the receiver and the transparent
// device and carries out the requests other threads post on the event channels.
#pragma once

#include <atomic>
#include <cstdint>

// Passes of the engine thread's loop (one at least every second while it
// runs); the service's watchdog reads it to tell a live engine from a hung one.
inline std::atomic<uint32_t> lib_GPS_thread_passes{0};

// Entry of the engine thread; the argument is its name text, kept for the
// life of the process. Never returns.
void* lib_GPS_thread(void* threadName);
