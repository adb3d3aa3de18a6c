#include "platform/service/config_store.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/os.h"
#include "platform/root.h"
#include "platform/service/file_util.h"

namespace halvorda::service {
namespace {

// Keeps the first parse error for the log line instead of protobuf's own
// logging.
class FirstError final : public google::protobuf::io::ErrorCollector {
 public:
  void AddError(int line, int column, const std::string& message) override {
    if (text.empty()) text = "line " + std::to_string(line + 1) + " column " + std::to_string(column + 1) + ": " + message;
  }
  std::string text;
};

bool ParseText(const std::string& text, google::protobuf::Message& message, std::string* error) {
  google::protobuf::TextFormat::Parser parser;
  FirstError errors;
  parser.RecordErrorsTo(&errors);
  const bool ok = parser.MergeFromString(text, &message);
  if (!ok && error) *error = errors.text;
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

std::string ConfigStore::readChecked() {
  std::string text;
  const ReadStatus status = ReadWholeFile(path_, kMaxConfigBytes, text);
  if (status == ReadStatus::Missing) return {};
  std::string problem;
  if (status == ReadStatus::TooLarge) {
    problem = "larger than 64 KiB";
  } else if (status == ReadStatus::Failed) {
    problem = "unreadable";
  } else if (message_) {
    const std::unique_ptr<google::protobuf::Message> probe(message_->New());
    if (!ParseText(text, *probe, &problem)) {
      if (problem.empty()) problem = "not a valid " + message_->GetDescriptor()->full_name();
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
  const bool missing = ::access(path_.c_str(), F_OK) != 0;
  accepted_ = readChecked();
  lastSeen_ = accepted_;
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
  accepted_ = readChecked();
  lastSeen_ = accepted_;
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
  const std::string now = readChecked();
  if (now == before) return false;
  lastSeen_ = now;
  return true;
}

}  // namespace halvorda::service
