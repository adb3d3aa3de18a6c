#include "platform/service/config_store.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "platform/os.h"
#include "platform/root.h"
#include "platform/service/file_util.h"

namespace halvorda::service {
namespace {

// Keeps the first parse error for the log line instead of protobuf's own
// logging, and the keys this version does not know (a file written by a newer
// one), which are skipped rather than failing the parse.
class ParseProblems final : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, int column, const std::string& message) override {
    if (error.empty()) error = "line " + std::to_string(line + 1) + " column " + std::to_string(column + 1) + ": " + message;
  }
  void AddWarning(int line, int, const std::string& message) override {
    warnings.push_back("line " + std::to_string(line + 1) + ": " + message);
  }
  std::string error;
  std::vector<std::string> warnings;
};

bool ParseText(const std::string& text, google::protobuf::Message& message, ParseProblems& problems) {
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&problems);
  parser.AllowUnknownField(true);
  return parser.MergeFromString(text, &message);
}

bool ParseText(const std::string& text, google::protobuf::Message& message, std::string* error) {
  ParseProblems problems;
  const bool ok = ParseText(text, message, problems);
  if (!ok && error) *error = problems.error;
  return ok;
}

std::string PrintText(const google::protobuf::Message& message) {
  std::string text;
  google::protobuf::TextFormat::PrintToString(message, &text);
  return text;
}

}  // namespace

ConfigStore::ConfigStore(const std::string& serviceClass)
    : directory_(gps::platform::Root() + "/config"), name_(serviceClass + ".conf"), path_(directory_ + "/" + name_) {
  if (!gps::platform::MakeDirectories(directory_)) {
    Sys_log(3, "service: cannot create %s: %s.", directory_.c_str(), std::strerror(errno));
    return;
  }
  inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotify_ < 0 ||
      ::inotify_add_watch(inotify_, directory_.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) < 0) {
    Sys_log(3, "service: cannot watch %s: %s; outside changes go unnoticed.", directory_.c_str(), std::strerror(errno));
    if (inotify_ >= 0) ::close(inotify_);
    inotify_ = -1;
  }
}

ConfigStore::~ConfigStore() {
  if (inotify_ >= 0) ::close(inotify_);
}

bool ConfigStore::write(const std::string& text) {
  // Recorded first: the notification of this very write must find it.
  lastSeen_ = text;
  return WriteFileAtomically(path_, text);
}

std::optional<std::string> ConfigStore::readChecked() {
  std::string text;
  int error = 0;
  std::string refused;
  const ReadStatus status = ReadWholeFile(path_, kMaxConfigBytes, text, &error, &refused);
  readErrno_ = 0;
  if (status == ReadStatus::Missing) return std::string();
  if (status == ReadStatus::Failed) {
    // Nothing is known about the content (a FIFO or a device is not even
    // read): the file stays as it is and the caller keeps what it has.
    readErrno_ = error;
    Sys_log(3, "service: the stored configuration %s; the file is left as it is.", refused.c_str());
    return std::nullopt;
  }
  std::string problem;
  if (status == ReadStatus::TooLarge) {
    problem = "larger than 64 KiB";
  } else if (message_) {
    const std::unique_ptr<google::protobuf::Message> probe(message_->New());
    ParseProblems problems;
    if (!ParseText(text, *probe, problems)) {
      problem = problems.error.empty() ? "not a valid " + message_->GetDescriptor()->full_name() : problems.error;
    } else if (text != warnedFor_) {
      // Once per distinct content: the same file is read again on accept.
      warnedFor_ = text;
      for (const std::string& warning : problems.warnings)
        Sys_log(4, "service: configuration %s: %s Skipped; the other keys apply.", path_.c_str(), warning.c_str());
    }
  }
  if (problem.empty()) return text;
  const std::string aside = path_ + ".corrupt";
  Sys_log(3, "service: configuration %s is corrupt (%s); kept as %s, defaults written.", path_.c_str(),
          problem.c_str(), aside.c_str());
  ::rename(path_.c_str(), aside.c_str());
  write(defaults_);
  return defaults_;
}

os::Error ConfigStore::attach(google::protobuf::Message* message, bool writeDefaults) {
  if (!message) return ERROR_INVALID;
  message_ = message;
  defaults_ = PrintText(*message);
  struct stat st{};
  const bool missing = ::lstat(path_.c_str(), &st) != 0 && errno == ENOENT;
  const std::optional<std::string> text = readChecked();
  if (!text) {
    // The message keeps what the service built; nothing is written over a
    // file that may hold the user's settings.
    accepted_ = lastSeen_ = defaults_;
    return ERROR_IO;
  }
  accepted_ = lastSeen_ = *text;
  if (missing) {
    if (writeDefaults && !write(defaults_)) return ERROR_IO;
    return os::ERROR_NONE;
  }
  std::string error;
  if (!ParseText(accepted_, *message_, &error)) return ERROR_INVALID;  // checked above; cannot happen
  return os::ERROR_NONE;
}

void ConfigStore::detach() {
  message_ = nullptr;
  defaults_.clear();
}

os::Error ConfigStore::save() {
  if (!message_) return ERROR_INVALID;
  const std::string text = PrintText(*message_);
  if (!write(text)) return ERROR_IO;
  accepted_ = text;
  return os::ERROR_NONE;
}

os::Error ConfigStore::load(google::protobuf::Message& message) const {
  message.Clear();
  std::string error;
  if (!ParseText(accepted_, message, &error)) {
    Sys_log(3, "service: stored configuration does not fit %s: %s.", message.GetDescriptor()->full_name().c_str(),
            error.c_str());
    message.Clear();
    return ERROR_INVALID;
  }
  return os::ERROR_NONE;
}

os::Error ConfigStore::accept() {
  const std::optional<std::string> text = readChecked();
  if (!text) return ERROR_IO;  // the accepted content stays
  accepted_ = lastSeen_ = *text;
  return os::ERROR_NONE;
}

bool ConfigStore::takeOutsideChange() {
  if (inotify_ < 0) return false;
  alignas(inotify_event) char buffer[4096];
  bool touched = false;
  for (;;) {
    const ssize_t n = ::read(inotify_, buffer, sizeof buffer);
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if ((event->mask & IN_Q_OVERFLOW) || (event->len > 0 && name_ == event->name)) touched = true;
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  if (!touched) return false;
  // A corrupt file is replaced by the defaults inside readChecked, which
  // moves lastSeen_; compare with what was seen before.
  const std::string before = lastSeen_;
  const std::optional<std::string> now = readChecked();
  if (!now || *now == before) return false;  // unreadable: the current values stay
  lastSeen_ = *now;
  return true;
}

}  // namespace halvorda::service
