// Message-aligned delivery: chunks end only between messages, and however the
// stream arrives the engine sees every message exactly once.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "nmea/gps_framer.h"
#include "platform/message_align.h"
#include "tests/support/message_recorder.h"
#include "tests/support/test_env.h"

namespace {

using gps::platform::WholeMessagesPrefix;
using gps::test::UbxFrame;

size_t Prefix(const std::string& bytes, size_t limit = gps::platform::kMaxDeviceChunk) {
  return WholeMessagesPrefix({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, limit);
}

TEST(MessageAlign, PrefixEndsOnMessageBoundaries) {
  const std::string gga = "$GPGGA,1,2,3*00\r\n";
  const std::string frame = UbxFrame(0x01, 0x07, std::string(92, 'p'));
  const struct {
    const char* legend;
    std::string bytes;
    size_t limit;
    size_t expected;
  } cases[] = {
      {"nothing", "", 2176, 0},
      {"one whole sentence", gga, 2176, gga.size()},
      {"sentence without its line feed waits", gga.substr(0, 10), 2176, 0},
      {"whole sentence then a partial one", gga + gga.substr(0, 5), 2176, gga.size()},
      {"whole frame", frame, 2176, frame.size()},
      {"frame missing its checksum waits", frame.substr(0, frame.size() - 1), 2176, 0},
      {"frame header incomplete waits", frame.substr(0, 4), 2176, 0},
      {"lone 0xB5 at the end waits for its second byte", gga + "\xB5", 2176, gga.size()},
      {"0xB5 not followed by 0x62 passes through", "\xB5x" + gga, 2176, 2 + gga.size()},
      {"garbage passes through", "abc" + gga, 2176, 3 + gga.size()},
      {"limit stops before a message that does not fit", gga + gga, gga.size() + 3, gga.size()},
      {"sentence longer than any chunk goes in pieces", "$" + std::string(3000, 'x'), 2176, 2176},
      {"frame longer than any chunk goes in pieces", UbxFrame(0x0B, 0x32, std::string(3000, 'y')), 2176, 2176},
  };
  for (const auto& c : cases) EXPECT_EQ(Prefix(c.bytes, c.limit), c.expected) << c.legend;
}

// A receiver driver in miniature: bytes arrive in pieces, chunks go to the
// engine only as whole messages. pieceLimit 0 delivers the stream in one read.
std::vector<std::string> DeliverInPieces(const std::string& stream, unsigned seed, size_t pieceLimit) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<size_t> pieceSize(1, pieceLimit ? pieceLimit : 1);
  std::vector<std::string> chunks;
  std::string pending;
  size_t at = 0;
  while (at < stream.size()) {
    const size_t n = pieceLimit ? std::min(pieceSize(random), stream.size() - at) : stream.size();
    pending.append(stream, at, n);
    at += n;
    for (;;) {
      const size_t ready = Prefix(pending);
      if (ready == 0) break;
      chunks.push_back(pending.substr(0, ready));
      pending.erase(0, ready);
    }
  }
  if (!pending.empty()) chunks.push_back(pending);
  return chunks;
}

std::vector<std::string> FramedMessages(const std::vector<std::string>& chunks) {
  gps::test::ResetEngine(2);  // u-blox: framing restarts at every chunk
  gps::test::MessageRecorder recorder;
  for (const auto& chunk : chunks) gps::test::FeedReceiver(chunk);
  std::vector<std::string> out;
  for (const auto& m : recorder.messages()) out.push_back(m.bytes);
  return out;
}

TEST(MessageAlign, CapturesInRandomPiecesGiveTheMessagesOfADirectReplay) {
  const std::filesystem::path dir = GPS_CAPTURES_DIR;
  if (!std::filesystem::is_directory(dir)) GTEST_SKIP() << "captures not found at " << GPS_CAPTURES_DIR;
  gps::test::TempRoot root;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().extension() != ".log") continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::string stream((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto direct = FramedMessages(DeliverInPieces(stream, 0, 0));
    ASSERT_GT(direct.size(), 50u) << entry.path().filename();
    for (unsigned seed : {1u, 2u, 3u}) {
      for (size_t pieceLimit : {7u, 700u}) {
        const auto aligned = FramedMessages(DeliverInPieces(stream, seed, pieceLimit));
        EXPECT_TRUE(aligned == direct) << entry.path().filename() << " seed " << seed << " pieces up to "
                                       << pieceLimit << ": " << aligned.size() << " vs " << direct.size()
                                       << " messages";
      }
    }
  }
}

}  // namespace
