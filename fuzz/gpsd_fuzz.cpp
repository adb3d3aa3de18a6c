// Fuzz target for the gpsd endpoint's command reader: arbitrary bytes from a
// client, in pieces, through the reader and the answers it leads to.
//
// Input layout: [0] the client writes in pieces of 1 + value % 64 bytes;
// [1...] the client's byte stream.
//
// Checked on every input: every answer is one line of valid JSON ending in
// "\r\n" with a class, so a client never receives something it cannot read.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "export/gpsd_protocol.h"

namespace {

void CheckLine(const std::string& line) {
  const bool oneLine = line.size() >= 2 && line.compare(line.size() - 2, 2, "\r\n") == 0 &&
                       line.find('\n') == line.size() - 1;
  const auto object = nlohmann::json::parse(line, nullptr, false);
  if (!oneLine || object.is_discarded() || !object.is_object() || !object.contains("class")) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t piece = 1 + data[0] % 64;
  const std::string_view stream(reinterpret_cast<const char*>(data + 1), size - 1);
  gps::exporter::CommandReader reader;
  gps::exporter::WatchState watch;
  for (size_t at = 0; at < stream.size(); at += piece) {
    for (const auto& command : reader.feed(stream.substr(at, piece))) {
      switch (command.kind) {
        case gps::exporter::CommandKind::Error:
          CheckLine(gps::exporter::ErrorObject(command.error));
          break;
        case gps::exporter::CommandKind::Watch:
          if (command.watch.device) watch.device = *command.watch.device;
          if (command.watch.raw) watch.raw = *command.watch.raw;
          if (watch.raw < 0 || watch.raw > 2) std::abort();
          CheckLine(gps::exporter::WatchObject(watch));
          break;
        case gps::exporter::CommandKind::Device:
          if (command.changesDevice) CheckLine(gps::exporter::ErrorObject("Device settings are read-only here"));
          break;
        default:
          break;
      }
    }
  }
  return 0;
}
