// gps-service: the process entry. It reads no arguments: the platform root
// (GPS_PLATFORM_ROOT) and its platform.ini say everything.
//
// Start-up failures end the process with a sysexits status (see
// service/lifecycle.h) after one line on stderr naming the file or path.
// Signals are taken on the dispatch loop through a signalfd: SIGTERM and
// SIGINT stop the service (entry and socket removed, status 0), SIGHUP re-reads
// platform.ini's [log] settings, SIGUSR1, SIGUSR2, SIGALRM and SIGPIPE are
// ignored.
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "engine/gps_thread.h"
#include "export/exporter.h"
#include "param/gps_optional_parameters.h"
#include "param/gps_parameters.h"
#include "platform/fs.h"
#include "platform/gps_resource.h"
#include "platform/oem.h"
#include "platform/os.h"
#include "platform/root.h"
#include "platform/service/config_store.h"
#include "platform/service/file_util.h"
#include "platform/settings.h"
#include "service/gps_core.h"
#include "service/lifecycle.h"

namespace {

using gps::platform::ProcessLine;
using namespace gps::service;

constexpr uint32_t kForever = 0xFFFFFFFFu;
// Below this hard limit on descriptors the engine, the receiver and a few
// clients do not fit.
constexpr rlim_t kMinDescriptors = 64;

// The signals the dispatch loop takes; blocked before any thread starts so
// that every thread inherits the mask and none is interrupted by them.
sigset_t HandledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

void IgnoreOrdinarySignals() {
  for (const int signal : {SIGUSR1, SIGUSR2, SIGALRM, SIGPIPE}) ::signal(signal, SIG_IGN);
}

// Also raises the soft limit to the hard one: every client costs a descriptor.
int DescriptorLimitProblem() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  if (limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_max >= kMinDescriptors) return 0;
  ProcessLine(3, "gps-service: the descriptor limit is %llu; the service needs at least %llu (raise ulimit -n or "
                 "LimitNOFILE=)", static_cast<unsigned long long>(limit.rlim_max),
              static_cast<unsigned long long>(kMinDescriptors));
  return kExitOsError;
}

// 0 when the lock is ours; else the exit status after saying why.
int TakeInstanceLock(InstanceLock& lock) {
  const std::string directory = gps::platform::Root() + "/run";
  const std::string path = directory + "/gps-service.lock";
  if (!gps::platform::MakeDirectories(directory)) {
    const int error = errno;
    ProcessLine(3, "gps-service: cannot create %s: %s; the platform root must be writable by the service's user",
                directory.c_str(), std::strerror(error));
    return ExitStatusForCreate(error);
  }
  switch (lock.take(path)) {
    case InstanceLock::Outcome::Taken:
      return 0;
    case InstanceLock::Outcome::HeldByOther:
      ProcessLine(3, "gps-service: another instance (pid %d) is running for the platform root %s; this one exits",
                  static_cast<int>(lock.holder()), gps::platform::Root().c_str());
      return kExitCantCreate;
    case InstanceLock::Outcome::Failed:
      break;
  }
  ProcessLine(3, "gps-service: cannot lock %s: %s; the platform root must be writable by the service's user",
              path.c_str(), std::strerror(lock.error()));
  return ExitStatusForCreate(lock.error());
}

// The files the start reads must each be missing or a regular file that can
// be read: a FIFO would block the start and a device would never end. A file
// refused is left as it is and the start stops.
int StartupFileProblem(const std::string& serviceClass) {
  const std::string root = gps::platform::Root();
  char parameters[64];
  std::snprintf(parameters, sizeof parameters, "/%s/%s", GPS_PARAMETERS_DISK, GPS_PARAMETERS_FILE);
  struct StartupFile {
    const char* what;
    std::string path;
    size_t maxBytes;
    bool largerIsCorrupt;  // its reader sets a larger file aside and goes on
  };
  const StartupFile files[] = {
      {"the permissions file", root + "/etc/permissions.ini", gps::platform::kMaxTextFileBytes, false},
      {"the stored configuration", root + "/config/" + serviceClass + ".conf", halvorda::service::kMaxConfigBytes,
       true},
      {"the parameters file", gps::platform::DiskPath(parameters).value_or(""), FILE_FS_MAX_WRITABLE_BYTES, false},
      {"the optional parameters", gps::platform::SystemPath(GPS_OPTIONAL_PARAMETERS_FILE).value_or(""),
       gps::platform::kMaxTextFileBytes, false},
  };
  for (const StartupFile& file : files) {
    std::string content;
    std::string problem;
    int error = 0;
    const auto status = gps::platform::ReadWholeFile(file.path, file.maxBytes, content, &error, &problem);
    if (status == gps::platform::ReadStatus::Ok || status == gps::platform::ReadStatus::Missing ||
        (status == gps::platform::ReadStatus::TooLarge && file.largerIsCorrupt))
      continue;
    ProcessLine(3, "gps-service: %s %s; make it a regular file the service's user can read, or remove it (it is "
                   "left as it is)", file.what, problem.c_str());
    return ExitStatusForCreate(error) == kExitOsError ? kExitOsError : kExitConfig;
  }
  return 0;
}

int ServiceProblem(const halvorda::service::Service& service) {
  if (!service.hasManifest()) {
    ProcessLine(3, "gps-service: the manifest %s cannot be used (see the lines above); the service does not start",
                GPS_SERVICE_MANIFEST);
    return kExitConfig;
  }
  if (const int problem = StartupFileProblem(service.getServiceClass()); problem != 0) return problem;
  if (!service.isListening()) {
    ProcessLine(3, "gps-service: cannot listen on %s (see the lines above); the service does not start",
                service.getSocketPath().c_str());
    return kExitCantCreate;
  }
  return 0;
}

// SIGHUP: the [log] settings of platform.ini take effect, and the receiver is
// reopened when its [gps] settings changed; clients and the stored
// configuration are left as they are.
void Reload() {
  const std::string state = "RELOADING=1\nMONOTONIC_USEC=" + std::to_string(MonotonicMs() * 1000);
  halvorda::service::NotifySystemd(state);
  const gps::platform::Settings fresh = gps::platform::ReadSettings();
  if (!fresh.unusable.empty()) {
    Sys_log(3, "%s; keeping the settings in use", fresh.unusable.c_str());
  } else {
    gps::platform::ApplyLogSettings(fresh);
    Sys_log(5, "platform.ini re-read: log threshold %d", fresh.logThreshold);
    GPS_ReloadResourceSettings();
  }
  halvorda::service::NotifySystemd("READY=1");
}

// Temporary files of writes cut short by a kill or a power cut, in the folders
// the service writes (the stored configuration, the run folder and its
// directory, the parameters disk). Only once the instance lock is held: no
// other instance is writing there now.
void RemoveLeftovers() {
  const std::string& root = gps::platform::Root();
  std::vector<std::string> folders = {root + "/config", root + "/run", halvorda::service::Directory::DefaultPath()};
  if (const auto disk = gps::platform::DiskPath(std::string("/") + GPS_PARAMETERS_DISK)) folders.push_back(*disk);
  for (const std::string& folder : folders) halvorda::service::RemoveStaleTemporaryFiles(folder);
}

// The entry is removed only while it is this process's.
void RemoveEntry(const std::string& serviceClass) {
  const auto entry = halvorda::service::Directory::Lookup(serviceClass);
  if (!entry || entry->pid != ::getpid()) return;
  halvorda::service::Directory directory;
  if (directory.connect("", kForever) == 0) directory.remove(serviceClass);
}

// Dispatches until SIGTERM or SIGINT; keeps systemd's watchdog fed while the
// engine thread runs.
void Serve(halvorda::service::Service& service, int signals) {
  Watchdog watchdog = Watchdog::FromEnvironment(MonotonicMs());
  for (;;) {
    service.dispatch(watchdog.enabled() ? static_cast<uint32_t>(watchdog.intervalMs()) : kForever);
    if (watchdog.due(MonotonicMs(), lib_GPS_thread_passes.load(std::memory_order_relaxed)))
      halvorda::service::NotifySystemd("WATCHDOG=1");
    signalfd_siginfo info{};
    while (::read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      if (info.ssi_signo == SIGHUP) {
        Reload();
        continue;
      }
      Sys_log(5, "%s stopping on SIG%s", service.getServiceClass().c_str(),
              sigabbrev_np(static_cast<int>(info.ssi_signo)));
      halvorda::service::NotifySystemd("STOPPING=1");
      return;
    }
  }
}

// The engine thread is never stopped, so the process ends without running
// static destructors under it. Files are whole at any moment (every write is
// atomic) and log lines are never buffered; only a last fix handed to the
// parameters writer is waited for.
[[noreturn]] void Exit(int status) {
  lib_GPS_param_FlushParameters();
  ::_exit(status);
}

}  // namespace

int main() {
  // Log lines to stderr must not wait in a buffer when the process is killed.
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  IgnoreOrdinarySignals();
  const sigset_t handled = HandledSignals();
  pthread_sigmask(SIG_BLOCK, &handled, nullptr);

  // Nothing is opened before platform.ini is known to be usable.
  if (const std::string& unusable = gps::platform::CurrentSettings().unusable; !unusable.empty()) {
    ProcessLine(3, "gps-service: %s; the service does not start", unusable.c_str());
    return kExitConfig;
  }

  if (Oem_SystemFioctl(OEM_REQUEST_STARTUP_MODE, nullptr) != 0) {
    // Ready-only start: tell the directory and leave without serving.
    halvorda::service::Directory directory;
    directory.connect("", kForever);
    directory.setReady();
    directory.disconnect();
    return 0;
  }

  if (const int problem = DescriptorLimitProblem(); problem != 0) return problem;
  InstanceLock lock;
  if (const int problem = TakeInstanceLock(lock); problem != 0) return problem;
  RemoveLeftovers();
  const int signals = ::signalfd(-1, &handled, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signals < 0) {
    ProcessLine(3, "gps-service: signalfd: %s", std::strerror(errno));
    return kExitOsError;
  }

  int status = 0;
  {
    halvorda::service::Service service(GPS_SERVICE_MANIFEST, nullptr);
    if (const int problem = ServiceProblem(service); problem != 0) return problem;
    if (service.watchDescriptor(signals) != 0) {
      ProcessLine(3, "gps-service: cannot watch the signal descriptor: %s", std::strerror(errno));
      return kExitOsError;
    }
    const std::string serviceClass = service.getServiceClass();
    auto* directory = new halvorda::service::Directory;
    if (directory->connect("", kForever) != 0) {
      delete directory;
      ProcessLine(3, "gps-service: the service directory %s cannot be used (see the line above)",
                  halvorda::service::Directory::DefaultPath().c_str());
      return kExitCantCreate;
    }
    GPSCore core(&service);
    service.addInterface(&core);
    // The gpsd endpoint and the chrony source, when platform.ini names them.
    const auto exporter = gps::exporter::Exporter::StartConfigured();
    // Says where fixes come from, for gps-servicectl: a simulated position
    // must never pass for a measured one.
    const std::string& device = gps::platform::CurrentSettings().device;
    const halvorda::service::DirectoryAttributes attributes{{"receiver", device == "sim" ? "simulated" : device}};
    const halvorda::os::Error registered = directory->add(serviceClass, service.getAddress(), attributes);
    if (registered != 0) {
      ProcessLine(3, "gps-service: cannot register %s in %s: %s", serviceClass.c_str(),
                  halvorda::service::Directory::DefaultPath().c_str(), halvorda::service::ErrorName(registered));
      status = kExitCantCreate;
    } else if (const halvorda::os::Error ready = directory->setReady(); ready != 0) {
      // systemd would never see the start complete: the start fails, and no
      // entry of a process that is gone is left for clients to find.
      directory->remove(serviceClass);
      ProcessLine(3, "gps-service: cannot announce %s as ready (%s, see the line above); the service does not start",
                  serviceClass.c_str(), halvorda::service::ErrorName(ready));
      status = kExitCantCreate;
    }
    directory->disconnect();
    delete directory;
    if (status == 0) {
      Sys_log(7, "%s running", serviceClass.c_str());
      Serve(service, signals);
      // Clients stop finding the service before its socket goes with it.
      RemoveEntry(serviceClass);
    }
  }
  Exit(status);
}
