// A service's stored configuration: one message in protobuf text format at
// $ROOT/config/<class>.conf, watched for changes made by anyone else.
//
// Three contents are kept apart:
//  - the defaults: the attached message as the service built it, before the
//    file was read; a corrupt file (read whole, content that does not parse)
//    is moved aside to <file>.corrupt and replaced by them. A file that
//    cannot be opened or read is left as it is and changes nothing. A key
//    this version does not know is skipped with a warning;
//  - the accepted content: what load() returns; it follows the service's
//    own saves and acceptConfig(), not the file directly, so a service reads
//    an outside change when it chooses to take it;
//  - the last content seen: an outside change is reported once per distinct
//    content, and never for the service's own saves.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/service/error.h"

namespace google::protobuf {
class Message;
}

namespace halvorda::service {

inline constexpr size_t kMaxConfigBytes = 64 * 1024;

class ConfigStore {
 public:
  explicit ConfigStore(const std::string& serviceClass);
  ~ConfigStore();
  ConfigStore(const ConfigStore&) = delete;
  ConfigStore& operator=(const ConfigStore&) = delete;

  // Attaches the message and fills it from the file: fields the file sets
  // replace the message's, the others keep what the service put there. With
  // writeDefaults and no file yet, the message is written as the file.
  // ERROR_IO: the file exists but could not be read (readErrno() says why);
  // the message keeps what the service built and the file is not touched.
  os::Error attach(google::protobuf::Message* message, bool writeDefaults);
  void detach();
  bool attached() const { return message_ != nullptr; }

  // Writes the attached message.
  os::Error save();
  // Clears the message and fills it from the accepted content.
  os::Error load(google::protobuf::Message& message) const;
  // Takes the file as it stands now as the accepted content; ERROR_IO (the
  // accepted content unchanged) when it cannot be read.
  os::Error accept();
  // The errno of the last read that failed for another reason than the
  // content (EACCES, EMFILE, ELOOP for a link, ...); 0 after a good read.
  int readErrno() const { return readErrno_; }

  // The inotify descriptor to wait on (-1 when watching failed).
  int watchDescriptor() const { return inotify_; }
  // Reads the pending notifications; true when the file now holds an
  // outside change not reported before.
  bool takeOutsideChange();

  const std::string& path() const { return path_; }

 private:
  // The file's content, checked against the attached message's type; a
  // corrupt file is replaced by the defaults; nullopt when it could not be
  // read.
  std::optional<std::string> readChecked();
  bool write(const std::string& text);

  std::string directory_;
  std::string name_;
  std::string path_;
  google::protobuf::Message* message_ = nullptr;
  std::string defaults_;
  std::string accepted_;
  std::string lastSeen_;
  std::string warnedFor_;  // content whose unknown keys were logged
  int readErrno_ = 0;
  int inotify_ = -1;
};

}  // namespace halvorda::service
