// Throughput of the receiver stream path: the shared captures framed and
// analysed by the engine in message-aligned chunks, as the u-blox driver hands
// them over, and one GGA sentence on its own.
//
//   stream_bench [--benchmark_filter=REGEX] [--benchmark_min_time=SECONDS]
//
// Log lines keep the default threshold (6), so every line the engine would log
// on a terminal is still formatted, but they go to a sink that drops them: the
// figures are the engine's, not the terminal's.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <system_error>
#include <vector>

#include "engine/gps_private_info.h"
#include "nmea/gps_framer.h"
#include "param/gps_parameters.h"
#include "platform/message_align.h"
#include "platform/root.h"
#include "platform/settings.h"
#include "transport/gps_trace.h"

namespace {

namespace fs = std::filesystem;

// One chunk of a stream, as an offset into its bytes.
struct Chunk {
  size_t offset;
  size_t length;
};

// Receiver bytes cut into the chunks the engine is handed.
struct Stream {
  std::string name;
  std::vector<uint8_t> bytes;
  std::vector<Chunk> chunks;
  uint64_t nmeaMessages = 0;  // per pass, counted once before measuring
  uint64_t ubxMessages = 0;
};

uint64_t g_droppedLogLines = 0;

void DropLogLine(void* /*context*/, int /*level*/, const char* /*text*/) { ++g_droppedLogLines; }

// A platform root of its own, an engine record as gps-replay sets it up for a
// u-blox M8 receiver, and log lines going nowhere. The engine reads the real
// clock, so the last fix and course reach the parameters file once a minute as
// on a terminal (the first time while the streams are counted, before any
// measurement), not at every GGA as under gps-replay's compressed clock.
class Engine {
 public:
  Engine() {
    std::string pattern = (fs::temp_directory_path() / "gps-bench.XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
      std::perror("stream_bench: mkdtemp");
      std::exit(1);
    }
    root_ = pattern;
    setenv("GPS_PLATFORM_ROOT", root_.c_str(), 1);
    gps::platform::ReloadRoot();
    gps::platform::SetLogSink(&DropLogLine, nullptr);

    lib_GPS_ClearRecord(&gps_private_info);

    gps_private_info.module_type = GPS_MODULE_TYPE_UBX_M8030;
    lib_GPS_param_RestorePersistentStorage();
    lib_GPS_ResetInfosLocked(&gps_private_info);
    lib_GPS_TraceInit(1);
    gps_message_init(&frame_);
  }
  ~Engine() {
    gps::platform::SetLogSink(nullptr, nullptr);
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void Feed(const uint8_t* data, size_t length) {
    analyze_gps(&gps_private_info, &frame_, data, static_cast<uint32_t>(length));
  }
  void Feed(const Stream& stream) {
    for (const Chunk& chunk : stream.chunks) Feed(stream.bytes.data() + chunk.offset, chunk.length);
  }

 private:
  std::string root_;
  gps_message_t frame_;
};

Engine* g_engine = nullptr;

// The capture's receiver bytes: everything after its leading '#' lines.
std::vector<uint8_t> ReadCapture(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  size_t start = 0;
  while (start < bytes.size() && bytes[start] == '#') {
    const auto lf = std::find(bytes.begin() + static_cast<std::ptrdiff_t>(start), bytes.end(), '\n');
    start = lf == bytes.end() ? bytes.size() : static_cast<size_t>(lf - bytes.begin()) + 1;
  }
  bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(start));
  return bytes;
}

// Cuts `bytes` (appended at `base` of the stream) as the driver would: whole
// messages, and whatever is left at the end of the input as it is.
void CutChunks(std::span<const uint8_t> bytes, size_t base, std::vector<Chunk>& chunks) {
  size_t used = 0;
  while (used < bytes.size()) {
    const auto rest = bytes.subspan(used);
    size_t n = gps::platform::WholeMessagesPrefix(rest);
    if (n == 0) n = std::min(rest.size(), gps::platform::kMaxDeviceChunk);  // the input ends inside a message
    chunks.push_back({base + used, n});
    used += n;
  }
}

void Append(Stream& to, const Stream& from) {
  const size_t base = to.bytes.size();
  to.bytes.insert(to.bytes.end(), from.bytes.begin(), from.bytes.end());
  for (const Chunk& chunk : from.chunks) to.chunks.push_back({base + chunk.offset, chunk.length});
  to.nmeaMessages += from.nmeaMessages;
  to.ubxMessages += from.ubxMessages;
}

struct MessageCount {
  uint64_t nmea = 0;
  uint64_t ubx = 0;
};

void CountMessage(void* context, const gps_private_info_t* /*infos*/, const gps_message_t* message) {
  auto* count = static_cast<MessageCount*>(context);
  if (message->type == MESSAGE_TYPE_NMEA) ++count->nmea;
  if (message->type == MESSAGE_TYPE_UBLOX) ++count->ubx;
}

// What the engine itself frames in one pass; also warms the engine up.
void CountMessages(Stream& stream) {
  MessageCount count;
  lib_GPS_SetMessageObserver(&CountMessage, &count);
  g_engine->Feed(stream);
  lib_GPS_SetMessageObserver(nullptr, nullptr);
  stream.nmeaMessages = count.nmea;
  stream.ubxMessages = count.ubx;
}

void BM_Stream(benchmark::State& state, const Stream* stream) {
  if (stream->bytes.empty()) {
    state.SkipWithError("no capture in this group");
    return;
  }
  const uint64_t droppedBefore = g_droppedLogLines;
  for (auto _ : state) g_engine->Feed(*stream);
  const auto passes = static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream->bytes.size()));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(stream->nmeaMessages + stream->ubxMessages));
  state.counters["nmea"] = static_cast<double>(stream->nmeaMessages);
  state.counters["ubx"] = static_cast<double>(stream->ubxMessages);
  state.counters["chunks"] = static_cast<double>(stream->chunks.size());
  state.counters["log_lines"] = static_cast<double>(g_droppedLogLines - droppedBefore) / passes;
}

// The cutting into chunks alone, which the driver (and gps-replay) does before
// the engine sees the bytes.
void BM_MessageAlign(benchmark::State& state, const Stream* stream) {
  std::vector<Chunk> chunks;
  chunks.reserve(stream->chunks.size());
  for (auto _ : state) {
    chunks.clear();
    CutChunks(stream->bytes, 0, chunks);
    benchmark::DoNotOptimize(chunks.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream->bytes.size()));
}

// One fix sentence of a NEO-M8N, as the only message of its chunk.
void BM_GgaSentence(benchmark::State& state) {
  static constexpr char kGga[] = "$GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44\r\n";
  const auto* data = reinterpret_cast<const uint8_t*>(kGga);
  const size_t length = sizeof kGga - 1;
  for (auto _ : state) g_engine->Feed(data, length);
  state.SetItemsProcessed(state.iterations());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(length));
  if (gps_private_info.fix_quality != 1 || std::strcmp(gps_private_info.latitude, "4404.14063N") != 0)
    state.SkipWithError("the GGA sentence did not give its fix");
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(GPS_CAPTURES_DIR, error))
    if (entry.path().extension() == ".log") files.push_back(entry.path());
  if (error || files.empty()) {
    std::fprintf(stderr, "stream_bench: no captures (*.log) in %s\n", GPS_CAPTURES_DIR);
    return 1;
  }
  std::sort(files.begin(), files.end());

  Engine engine;
  g_engine = &engine;

  // Streams live until the end of main; the benchmarks keep pointers to them.
  std::vector<Stream> captures(files.size());
  Stream nmeaOnly, mixed, all;
  nmeaOnly.name = "nmea_only";
  mixed.name = "nmea_ubx_mixed";
  all.name = "all";
  for (size_t i = 0; i < files.size(); ++i) {
    Stream& capture = captures[i];
    capture.name = files[i].filename().string();
    capture.bytes = ReadCapture(files[i]);
    CutChunks(capture.bytes, 0, capture.chunks);
    CountMessages(capture);
    // Grouped by what the engine framed, not by file name.
    if (capture.nmeaMessages > 0 && capture.ubxMessages == 0) Append(nmeaOnly, capture);
    if (capture.nmeaMessages > 0 && capture.ubxMessages > 0) Append(mixed, capture);
    Append(all, capture);
  }

  // Without a warm-up the first benchmark runs on a cold processor and reads
  // well below the same bytes measured later.
  const auto warmUpEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
  while (std::chrono::steady_clock::now() < warmUpEnd) engine.Feed(all);

  for (const Stream* group : {&nmeaOnly, &mixed, &all})
    benchmark::RegisterBenchmark(("Stream/" + group->name).c_str(), BM_Stream, group);
  for (const Stream& capture : captures)
    benchmark::RegisterBenchmark(("Capture/" + capture.name).c_str(), BM_Stream, &capture);
  benchmark::RegisterBenchmark("GgaSentence", BM_GgaSentence);
  benchmark::RegisterBenchmark("MessageAlign/all", BM_MessageAlign, &all);

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  g_engine = nullptr;
  return 0;
}
