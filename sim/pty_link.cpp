#include "sim/pty_link.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace gps::sim {

namespace {

std::string ErrnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

}  // namespace

int OpenRawPty(std::string* slavePath, std::string* error) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0) {
    *error = ErrnoText("posix_openpt");
    return -1;
  }
  char name[128];
  if (grantpt(master) != 0 || unlockpt(master) != 0 || ptsname_r(master, name, sizeof name) != 0) {
    *error = ErrnoText("pseudo-terminal set-up");
    close(master);
    return -1;
  }
  // The settings live as long as the master, across hosts opening and
  // closing the slave.
  const int slave = open(name, O_RDWR | O_NOCTTY);
  termios tio{};
  if (slave < 0 || tcgetattr(slave, &tio) != 0) {
    *error = ErrnoText(name);
    if (slave >= 0) close(slave);
    close(master);
    return -1;
  }
  cfmakeraw(&tio);
  tcsetattr(slave, TCSANOW, &tio);
  close(slave);
  fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
  fcntl(master, F_SETFD, FD_CLOEXEC);
  *slavePath = name;
  return master;
}

bool CreateLink(const std::string& target, const std::string& link, std::string* error) {
  struct stat st{};
  if (lstat(link.c_str(), &st) == 0) {
    if (!S_ISLNK(st.st_mode)) {
      *error = "refusing to replace " + link + ": not a symbolic link";
      return false;
    }
    if (unlink(link.c_str()) != 0) {
      *error = ErrnoText(link);
      return false;
    }
  }
  if (symlink(target.c_str(), link.c_str()) != 0) {
    *error = ErrnoText(link);
    return false;
  }
  return true;
}

void RemoveLink(const std::string& target, const std::string& link) {
  char buffer[256];
  const ssize_t n = readlink(link.c_str(), buffer, sizeof buffer - 1);
  if (n > 0 && std::string(buffer, static_cast<size_t>(n)) == target) unlink(link.c_str());
}

sigset_t BlockTerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

void WaitForTermination(const sigset_t& signals) {
  int signal = 0;
  sigwait(&signals, &signal);
}

}  // namespace gps::sim
