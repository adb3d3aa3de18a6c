// The transparent (forward) device: a serial port in raw mode, 115200 8N1,
// through which an outside tool watches the receiver and talks to it.
#pragma once

#include <cstdint>

void DgprsSerInit(int32_t* handle);
// Handle, or -1 when the path is missing or does not open.
int32_t DgprsSerOpen(const char* path);
// *count: bytes wanted on entry, bytes read on return.
void DgprsSerRead(uint8_t* buffer, int32_t* count, int32_t handle);
// *count: bytes to write on entry, the write's result on return.
void DgprsSerWrite(const uint8_t* buffer, int32_t* count, int32_t handle);
// Restores the settings found at open, closes, sets *handle to -1.
void DgprsSerClose(int32_t* handle);
