// The engine's only worker thread: it owns the receiver and the transparent
// device and carries out the requests other threads post on the event channels.
#pragma once

// Entry of the engine thread; the argument is its name text, kept for the
// life of the process. Never returns.
void* lib_GPS_thread(void* threadName);
