// Fuzz target for the restore of the parameters file: any 1216-byte record
// (shorter inputs are padded with zeros, longer ones cut) is written as
// gps_param.cfg and restored at start-up, and the state a client would get
// before the receiver has a fix of its own (the stored fix, if any) must
// serialise and parse again. A damaged record may lose its stored fix; it
// must never yield a message the client's parser refuses.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "engine/gps_private_info.h"
#include "fuzz/fuzz_root.h"
#include "param/gps_parameters.h"
#include "platform/root.h"
#include "service/gps_core.h"

namespace {

std::string g_file;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gps::fuzz::UseThrowawayRoot("gps-restore-fuzz");
  lib_GPS_param_RestorePersistentStorage();  // creates the disk and a default file
  g_file = gps::platform::Root() + "/fs/GPS/gps_param.cfg";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string record(GPS_PARAMETERS_FILE_BYTES, '\0');
  std::memcpy(record.data(), data, size < record.size() ? size : record.size());
  {
    std::ofstream out(g_file, std::ios::binary | std::ios::trunc);
    out.write(record.data(), static_cast<std::streamsize>(record.size()));
    if (!out) std::abort();
  }
  std::memset(&gps_private_info, 0, sizeof gps_private_info);  // no current fix: the stored one answers
  std::memset(&gps_parameters, 0, sizeof gps_parameters);
  lib_GPS_param_RestorePersistentStorage();

  halvorda::device::gps::SetGetStateResponse response;
  GPSCore::fillState(response);
  std::string wire;
  if (!response.SerializeToString(&wire)) std::abort();
  halvorda::device::gps::SetGetStateResponse parsed;
  if (!parsed.ParseFromString(wire)) std::abort();
  return 0;
}
