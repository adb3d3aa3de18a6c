#include "engine/gps_thread.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "assist/assistnow.h"
#include "engine/gps_device.h"
#include "engine/gps_events.h"
#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"
#include "param/gps_parameters.h"
#include "platform/os.h"
#include "transport/dgprs_serial.h"
#include "transport/gps_trace.h"
#include "ubx/ubx_analyze.h"
#include "ubx/ubx_config.h"

namespace {

constexpr uint32_t kReadBytes = 2176;
constexpr int32_t kTransparentReadBytes = 1024;
constexpr int kWaitMs = 1000;
constexpr uint32_t kVersionPollTicks = 200;
// A channel that hung up or failed is tried again at most this often.
constexpr uint32_t kReopenTicks = 100;
// A wait that fails returns at once; this keeps a failing descriptor from
// turning the loop into a spin.
constexpr useconds_t kFailedWaitPauseUs = 100000;

// The request channels in the order they are watched and handled.
enum Channel : int {
  kStopAssistance,
  kReloadAssistance,
  kPower,
  kFixPeriodRequest,
  kFixPeriodSet,
  kLogging,
  kExternalCommand,
  kAssistanceMode,
  kForwardDevice,
  kPowerParameter,
  kModuleDevice,
  kAntOffRequest,
  kAntOffSet,
  kChannelCount,
};

int ChannelDescriptor(Channel channel) {
  switch (channel) {
    case kStopAssistance: return STOP_ASSISTANCE_eventfd;
    case kReloadAssistance: return RELOAD_ASSISTANCE_eventfd;
    case kPower: return CHANGE_POWER_STATE_eventfd;
    case kFixPeriodRequest: return fixUpdatePeriodRequestValue_eventfd;
    case kFixPeriodSet: return fixUpdatePeriodSetValue_eventfd;
    case kLogging: return CHANGE_LOGGING_STATE_eventfd;
    case kExternalCommand: return EXTERNAL_COMMAND_eventfd;
    case kAssistanceMode: return CHANGE_ASSISTANCE_MODE_eventfd;
    case kForwardDevice: return CHANGE_FORWARD_DEVICE_eventfd;
    case kPowerParameter: return CHANGE_POWER_PARAMETER_eventfd;
    case kModuleDevice: return CHANGE_MODULE_DEVICE_eventfd;
    case kAntOffRequest: return antOffPolarityRequestValue_eventfd;
    case kAntOffSet: return antOffPolaritySetValue_eventfd;
    case kChannelCount: break;
  }
  return -1;
}

// Everything the thread keeps between passes.
struct EngineThread {
  const char* name;
  gps_message_t receiverFrame;
  gps_message_t transparentFrame;
  uint8_t buffer[kReadBytes];
  bool forwarding;
  // The modem's channel hung up, failed or was not there: out of the wait,
  // opened again at most once a second.
  bool receiverAway;
  uint32_t receiverTryTick;
  // The transparent device went away while forwarding is wanted: tried again
  // at most once a second.
  bool transparentAway;
  uint32_t transparentTryTick;
};

uint32_t ReadLocked(const uint32_t& field) {
  lib_GPS_Lock();
  const uint32_t value = field;
  lib_GPS_Unlock();
  return value;
}

bool Readable(const pollfd& slot) { return (slot.revents & (POLLIN | POLLHUP | POLLERR)) != 0; }

// The transparent device's name, copied under the lock: callers change it.
void TransparentName(gps_private_info_t* infos, char (&name)[sizeof gps_private_info.transparent_device]) {
  lib_GPS_Lock();
  std::memcpy(name, infos->transparent_device, sizeof name);
  lib_GPS_Unlock();
  name[sizeof name - 1] = '\0';
}

void SetTransparentHandle(gps_private_info_t* infos, int32_t handle) {
  lib_GPS_Lock();
  infos->com_transp_handle = handle;
  lib_GPS_Unlock();
}

// Until the receiver has answered the version poll, the poll is repeated
// every 2 seconds of receiver traffic.
void PollVersionUntilConfigured(gps_private_info_t* infos) {
  if (infos->module_config_state == 2) return;
  const uint32_t now = OS_rtc_GetTickCounter();
  if (infos->module_config_state == 1 && now - infos->version_request_tick > kVersionPollTicks)
    infos->module_config_state = 0;
  if (infos->module_config_state == 0) {
    lib_GPS_ubx_PollVersion(infos);
    infos->module_config_state = 1;
    infos->version_request_tick = now;
  }
}

// The modem's channel hung up (the modem software exited or restarts) or
// failed: it leaves the wait, so a descriptor that reports the hang-up at
// every wait cannot keep the thread spinning, and it is opened again once a
// second. Said once per loss.
void LoseReceiver(EngineThread& thread, gps_private_info_t* infos, bool descriptorValid) {
  lib_GPS_Trace(3, "lib_GPS_thread: receiver channel closed by the modem; reopening it once a second.");
  if (descriptorValid) {
    lib_GPS_CloseDevice(infos);
  } else {
    infos->com_gps = GPS_INVALID_HANDLE;  // not ours to close any more: the number may be reused
  }
  thread.receiverAway = true;
  thread.receiverTryTick = OS_rtc_GetTickCounter();
}

void RetryReceiver(EngineThread& thread, gps_private_info_t* infos) {
  if (!thread.receiverAway) return;
  const uint32_t now = OS_rtc_GetTickCounter();
  if (now - thread.receiverTryTick < kReopenTicks) return;
  thread.receiverTryTick = now;
  if (lib_GPS_OpenDevice(infos) != 0) return;
  thread.receiverAway = false;
  lib_GPS_Trace(4, "lib_GPS_thread: receiver channel is back.");
  // A modem that restarted has its receiver stopped.
  if (ReadLocked(infos->power_state) != 0) lib_GPS_ChangePowerState(infos, 1);
}

// Bytes the modem sends while its receiver is off are not wanted; left
// unread they would wake every wait.
void DiscardReceiverBytes(EngineThread& thread, gps_private_info_t* infos) {
  const ssize_t n = read(static_cast<int>(infos->com_gps), thread.buffer, kReadBytes);
  if (n > 0) {
    lib_GPS_Trace(7, "lib_GPS_thread: %d bytes from the receiver while it is off, dropped", static_cast<int>(n));
  } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
    LoseReceiver(thread, infos, true);
  }
}

void ServeReceiver(EngineThread& thread, gps_private_info_t* infos) {
  lib_GPS_Trace(7, "READ on com_gps_handle : %d", static_cast<int>(infos->com_gps));
  const int count = lib_GPS_ReadDevice(infos, thread.buffer, kReadBytes);
  if (count > 0) {
    if (thread.forwarding) {
      [[maybe_unused]] ssize_t ignored = write(infos->com_transp_handle, thread.buffer, static_cast<size_t>(count));
    }
    lib_GPS_Trace(7, "Analyse GPS of %d bytes", count);
    analyze_gps(infos, &thread.receiverFrame, thread.buffer, static_cast<uint32_t>(count));
    PollVersionUntilConfigured(infos);
  } else if (!lib_GPS_IsUbxModule(infos->module_type) && (count == 0 || errno == EIO)) {
    // The modem software closed its end of the channel (it stopped or is
    // restarting): the channel is opened again when it comes back.
    LoseReceiver(thread, infos, true);
  }
}

void SendTransparentFrame(gps_private_info_t* infos, gps_message_t* frame) {
  const int written = lib_GPS_WriteDevice(infos, frame->buffer, frame->length);
  lib_GPS_Trace(7, "Full ublox message received: %d bytes; fwrite(GPS)=>%d", static_cast<int>(frame->length), written);
  lib_GPS_TraceHex(7, frame->length, frame->buffer, 1);
  if (lib_GPS_LoggingEnabled(infos)) lib_GPS_LogModuleTraces(infos, frame->buffer, frame->length);
  if (frame->type == MESSAGE_TYPE_UBLOX) lib_GPS_ubx_AnalyzeMessage(infos, frame, "TX");
}

// Forwarding stays wanted while its device is missing: said once, and the
// device is tried again each second.
void LoseTransparentDevice(EngineThread& thread, const char* name) {
  if (!thread.forwarding || thread.transparentAway) return;
  Sys_log(3, "lib_GPS_thread: TRANSPARENT device [%s] is gone; trying it again once a second", name);
  thread.transparentAway = true;
}

void ServeTransparentDevice(EngineThread& thread, gps_private_info_t* infos) {
  lib_GPS_Trace(4, "gps_private_info.com_transp_handle SET");
  int32_t total = 0;
  for (;;) {
    int32_t count = kTransparentReadBytes;
    DgprsSerRead(thread.buffer, &count, infos->com_transp_handle);
    if (count <= 0) break;
    lib_GPS_Trace(3, "lus = %d", count);
    total += count;
    for (int32_t i = 0; i < count; ++i) {
      if (gps_message_feed(&thread.transparentFrame, thread.buffer[i]) && infos->com_gps != GPS_INVALID_HANDLE)
        SendTransparentFrame(infos, &thread.transparentFrame);
    }
  }
  if (total != 0) return;
  // Readable with nothing to read: the far end closed. The settings are not
  // put back on a device that is gone.
  close(infos->com_transp_handle);
  SetTransparentHandle(infos, -1);
  lib_GPS_Trace(3, "selected() com_transp_handle recv() 0, device closed().");
  char name[sizeof infos->transparent_device];
  TransparentName(infos, name);
  // Reopened at once, unless it was opened less than a second ago: a device
  // that hangs up as soon as it opens must not keep the thread busy.
  const uint32_t now = OS_rtc_GetTickCounter();
  int32_t handle = -1;
  if (now - thread.transparentTryTick >= kReopenTicks) {
    thread.transparentTryTick = now;
    handle = DgprsSerOpen(name);
    SetTransparentHandle(infos, handle);
    Sys_log(3, "lib_GPS_patch: re-opened TRANSPARENT device [%s]=>%d", name, handle);
  }
  if (handle == -1) LoseTransparentDevice(thread, name);
}

// While forwarding is wanted and its device is missing, one open a second.
void RetryTransparentDevice(EngineThread& thread, gps_private_info_t* infos) {
  if (!thread.transparentAway) return;
  char name[sizeof infos->transparent_device];
  TransparentName(infos, name);
  if (!thread.forwarding || name[0] == '\0' || infos->com_transp_handle != -1) {
    thread.transparentAway = false;
    return;
  }
  const uint32_t now = OS_rtc_GetTickCounter();
  if (now - thread.transparentTryTick < kReopenTicks) return;
  thread.transparentTryTick = now;
  const int32_t handle = DgprsSerOpen(name);
  if (handle == -1) return;
  SetTransparentHandle(infos, handle);
  thread.transparentAway = false;
  Sys_log(4, "lib_GPS_thread: TRANSPARENT device [%s] is back=>%d", name, handle);
}

void HandlePower(EngineThread& thread, gps_private_info_t* infos) {
  lib_GPS_Trace(7, "%s received CHANGE_POWER_STATE_eventfd", thread.name);
  uint32_t on = 0;
  lib_GPS_Lock();
  // Switching on starts from a clean record: no fix from before counts.
  if (infos->power_state != 0) {
    on = 1;
    lib_GPS_ResetInfos(infos);
  }
  lib_GPS_Unlock();
  if (infos->com_gps != GPS_INVALID_HANDLE) lib_GPS_ChangePowerState(infos, on);
}

void HandleForwardDevice(EngineThread& thread, gps_private_info_t* infos) {
  lib_GPS_Lock();
  if (infos->transparent_device[0] == '\0') {
    if (infos->com_transp_handle != -1) DgprsSerClose(&infos->com_transp_handle);
    thread.forwarding = false;
    thread.transparentAway = false;
  } else if (infos->com_transp_handle == -1) {
    const int32_t handle = DgprsSerOpen(infos->transparent_device);
    thread.transparentTryTick = OS_rtc_GetTickCounter();
    if (handle != -1) {
      infos->com_transp_handle = handle;
      thread.forwarding = true;
      lib_GPS_Trace(4, "lib_GPS_thread: FORWARD (re)started)");
    } else {
      lib_GPS_Trace(3, "lib_GPS_thread: FORWARD (re)start failed [%s]", std::strerror(errno));
    }
  }
  lib_GPS_Unlock();
}

void HandleModuleDevice(EngineThread& thread, gps_private_info_t* infos) {
  lib_GPS_Lock();
  // A receiver that is away counts as open: the new name is the one to wait for.
  const bool open = infos->com_gps != GPS_INVALID_HANDLE || thread.receiverAway;
  const bool reopen = infos->module_device[0] != '\0' && open;
  if (open) {
    if (reopen) infos->power_state = 0;
    if (infos->com_gps != GPS_INVALID_HANDLE) lib_GPS_CloseDevice(infos);
  }
  lib_GPS_Unlock();
  thread.receiverAway = false;
  if (!reopen) return;
  // Opened without the lock: callers are not held up by the open.
  if (lib_GPS_OpenDevice(infos) != 0 && !lib_GPS_IsUbxModule(infos->module_type)) {
    lib_GPS_Trace(3, "lib_GPS_thread: receiver channel not there yet; trying it once a second.");
    thread.receiverAway = true;
    thread.receiverTryTick = OS_rtc_GetTickCounter();
  }
  lib_GPS_ResetInfosLocked(infos);
}

void HandleChannel(EngineThread& thread, gps_private_info_t* infos, Channel channel) {
  const int fd = ChannelDescriptor(channel);
  switch (channel) {
    case kStopAssistance:
      ClearEvent(fd);
      if (ReadLocked(infos->assistnow) == ASSISTNOW_OFFLINE) lib_GPS_DisableAssistanceLocked(infos);
      break;
    case kReloadAssistance:
      ClearEvent(fd);
      if (ReadLocked(infos->assistnow) == ASSISTNOW_OFFLINE) lib_GPS_StartOfflineAssistanceLocked(infos);
      break;
    case kPower:
      ClearEvent(fd);
      HandlePower(thread, infos);
      break;
    case kFixPeriodRequest:
      lib_GPS_Trace(7, "lib_GPS_thread: received fixUpdatePeriodRequestValue_eventfd.");
      ClearEvent(fd);
      lib_GPS_Lock();
      if (infos->power_state != 0) lib_GPS_PollFixUpdatePeriodConfiguration(infos);
      lib_GPS_Unlock();
      break;
    case kFixPeriodSet:
      lib_GPS_Trace(7, "lib_GPS_thread: received fixUpdatePeriodSetValue_eventfd.");
      ClearEvent(fd);
      lib_GPS_Lock();
      if (infos->power_state != 0) lib_GPS_SendFixUpdatePeriodConfiguration(infos);
      lib_GPS_Unlock();
      break;
    case kLogging:
      lib_GPS_Trace(7, "lib_GPS_thread: received CHANGE_LOGGING_STATE_eventfd. loggingIsEnabled = %i.",
                    lib_GPS_LoggingEnabled(infos));
      ClearEvent(fd);
      // Nothing is opened here: the next recorded frame starts a new file.
      lib_GPS_Lock();
      if (lib_GPS_LoggingEnabled(infos) != 1) lib_GPS_StopModuleTraces(infos);
      lib_GPS_Unlock();
      break;
    case kExternalCommand:
      ClearEvent(fd);
      lib_GPS_Lock();
      lib_GPS_PerformExternalCommand(infos);
      lib_GPS_Unlock();
      break;
    case kAssistanceMode:
      ClearEvent(fd);
      lib_GPS_Trace(7, "Assistance Mode changed");
      lib_GPS_Lock();
      lib_GPS_ChangeAssistanceMode(infos);
      lib_GPS_Unlock();
      break;
    case kForwardDevice:
      ClearEvent(fd);
      HandleForwardDevice(thread, infos);
      break;
    case kPowerParameter:
      ClearEvent(fd);
      lib_GPS_Lock();
      infos->power_state = lib_GPS_param_GetPowerModePolicy() == 1 ? 1 : 0;
      SignalEvent(CHANGE_POWER_STATE_eventfd);
      lib_GPS_Unlock();
      break;
    case kModuleDevice:
      ClearEvent(fd);
      HandleModuleDevice(thread, infos);
      break;
    case kAntOffRequest:
      lib_GPS_Trace(7, "lib_GPS_thread: received antOffPolarityRequestValue_eventfd.");
      ClearEvent(fd);
      lib_GPS_RequestAntOffPolarityValue(infos);
      break;
    case kAntOffSet:
      lib_GPS_Trace(7, "lib_GPS_thread: received antOffPolaritySetValue_eventfd.");
      ClearEvent(fd);
      lib_GPS_SetAntOffPolarityValue(infos);
      break;
    case kChannelCount:
      break;
  }
}

void Start(EngineThread& thread, gps_private_info_t* infos) {
  lib_GPS_Trace(4, "%s", thread.name);
  gps_message_init(&thread.receiverFrame);
  gps_message_init(&thread.transparentFrame);
  lib_GPS_ResetInfosLocked(infos);
  char name[sizeof infos->transparent_device];
  TransparentName(infos, name);
  const int32_t handle = name[0] != '\0' ? DgprsSerOpen(name) : -1;
  SetTransparentHandle(infos, handle);
  if (name[0] != '\0') Sys_log(4, "lib_GPS_thread: TRANSPARENT device is [%s]=>%d", name, handle);
  thread.forwarding = handle != -1;
  thread.transparentAway = false;
  thread.transparentTryTick = OS_rtc_GetTickCounter();
  // The modem software may not have created its channel yet.
  thread.receiverAway = !lib_GPS_IsUbxModule(infos->module_type) && infos->com_gps == GPS_INVALID_HANDLE;
  thread.receiverTryTick = OS_rtc_GetTickCounter();
}

bool HungUp(const pollfd& slot) { return (slot.revents & (POLLHUP | POLLERR)) != 0; }

void RunPass(EngineThread& thread, gps_private_info_t* infos) {
  RetryReceiver(thread, infos);
  RetryTransparentDevice(thread, infos);

  pollfd slots[kChannelCount + 2];
  nfds_t used = 0;
  const int receiverFd = lib_GPS_DeviceWaitDescriptor(infos);
  if (receiverFd >= 0) slots[used++] = {receiverFd, POLLIN, 0};
  const nfds_t firstChannel = used;
  for (int c = 0; c < kChannelCount; ++c) slots[used++] = {ChannelDescriptor(static_cast<Channel>(c)), POLLIN, 0};
  const int transparentFd = infos->com_transp_handle;
  const nfds_t transparentSlot = used;
  if (transparentFd != -1) slots[used++] = {transparentFd, POLLIN, 0};

  // poll rather than select: the service process may hold descriptors above
  // FD_SETSIZE. A descriptor that is no longer valid fails the wait, as it would
  // with select.
  int ready = poll(slots, used, kWaitMs);
  const bool ubx = lib_GPS_IsUbxModule(infos->module_type);
  for (nfds_t i = 0; ready > 0 && i < used; ++i) {
    if (!(slots[i].revents & POLLNVAL)) continue;
    // A descriptor closed behind the thread's back leaves the wait; the
    // channel it stood for is opened again like one that hung up.
    if (receiverFd >= 0 && i == 0 && !ubx) LoseReceiver(thread, infos, false);
    if (transparentFd != -1 && i == transparentSlot && infos->com_transp_handle == transparentFd) {
      SetTransparentHandle(infos, -1);
      char name[sizeof infos->transparent_device];
      TransparentName(infos, name);
      LoseTransparentDevice(thread, name);
    }
    ready = -1;
    errno = EBADF;
  }
  if (ready < 0) {
    char name[sizeof infos->transparent_device];
    TransparentName(infos, name);
    if (name[0] != '\0' && !thread.forwarding) {
      lib_GPS_Trace(4, "lib_GPS_thread: SignalEvent(CHANGE_FORWARD_DEVICE_eventfd)");
      SignalEvent(CHANGE_FORWARD_DEVICE_eventfd);
    }
    if (errno != EINTR) usleep(kFailedWaitPauseUs);
    return;
  }

  // A powered u-blox receiver is read on every pass, woken or not, so it is
  // served at least once a second even with nothing to wait on. The modem's
  // line is a blocking descriptor that carries nothing until the modem has
  // been told to run: it is read only when the wait found data on it, so that
  // a pending power request is never stuck behind a read.
  const bool receiverReadable = receiverFd >= 0 && Readable(slots[0]);
  const bool powered = ReadLocked(infos->power_state) != 0;
  if (!ubx && receiverFd >= 0 && HungUp(slots[0]) && !(slots[0].revents & POLLIN)) {
    LoseReceiver(thread, infos, true);
  } else if (powered && infos->com_gps != GPS_INVALID_HANDLE && (ubx || receiverReadable)) {
    ServeReceiver(thread, infos);
  } else if (!ubx && receiverReadable) {
    DiscardReceiverBytes(thread, infos);
  }

  if (transparentFd != -1 && Readable(slots[transparentSlot]) && infos->com_transp_handle == transparentFd)
    ServeTransparentDevice(thread, infos);

  for (int c = 0; c < kChannelCount; ++c) {
    if (Readable(slots[firstChannel + static_cast<nfds_t>(c)])) HandleChannel(thread, infos, static_cast<Channel>(c));
  }
}

}  // namespace

void* lib_GPS_thread(void* threadName) {
  static EngineThread thread;
  thread.name = static_cast<const char*>(threadName);
  gps_private_info_t* infos = &gps_private_info;
  Start(thread, infos);
  for (;;) { RunPass(thread, infos); lib_GPS_thread_passes.fetch_add(1, std::memory_order_relaxed); }
  return nullptr;
}
