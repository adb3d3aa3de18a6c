#include "platform/service/manifest.h"

#include <iniparser.h>

#include <memory>

#include "platform/os.h"
#include "platform/root.h"
#include "platform/service/file_util.h"

namespace halvorda::service {
namespace {

std::string ClassFromFileName(const std::string& path) {
  const size_t slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

}  // namespace

std::string ManifestPath(const std::string& uri) {
  std::string path = uri;
  if (path.rfind("file://", 0) == 0) path.erase(0, 7);
  if (path.empty() || path.front() != '/') path = gps::platform::Root() + "/" + path;
  return path;
}

os::Error LoadManifest(const std::string& uri, Manifest& manifest) {
  const std::string path = ManifestPath(uri);
  std::string text;
  std::string problem;
  const ReadStatus status = ReadWholeFile(path, gps::platform::kMaxTextFileBytes, text, nullptr, &problem);
  if (status == ReadStatus::Missing) {
    manifest.serviceClass = ClassFromFileName(path);
    manifest.address = "run/" + manifest.serviceClass + ".sock";
    if (manifest.serviceClass.empty()) return ERROR_INVALID;
    Sys_log(4, "service: no manifest at %s; writing one for class %s at %s.", path.c_str(),
            manifest.serviceClass.c_str(), manifest.address.c_str());
    const std::string defaults = "; Service manifest, written with defaults on first start.\n[service]\nclass = " +
                                 manifest.serviceClass + "\naddress = " + manifest.address + "\n";
    if (!gps::platform::MakeDirectories(ParentDirectory(path)) || !WriteFileAtomically(path, defaults))
      Sys_log(3, "service: cannot write the manifest %s; using its defaults.", path.c_str());
    return os::ERROR_NONE;
  }
  if (status != ReadStatus::Ok) {
    Sys_log(3, "service: the manifest %s.", problem.c_str());
    return ERROR_INVALID;
  }
  const gps::platform::IniDictionary ini = gps::platform::ParseIni(text);
  if (!ini) {
    Sys_log(3, "service: cannot read the manifest %s.", path.c_str());
    return ERROR_INVALID;
  }
  manifest.serviceClass = iniparser_getstring(ini.get(), "service:class", "");
  manifest.address = iniparser_getstring(ini.get(), "service:address", "");
  if (manifest.serviceClass.empty() || manifest.address.empty() ||
      manifest.serviceClass.find('/') != std::string::npos) {
    Sys_log(3, "service: the manifest %s lacks a usable class or address.", path.c_str());
    return ERROR_INVALID;
  }
  return os::ERROR_NONE;
}

}  // namespace halvorda::service
