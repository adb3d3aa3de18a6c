// Message-aligned delivery: where a chunk may end. The driver's tests check
// the whole path with real captures in random pieces.
#include <gtest/gtest.h>


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

}  // namespace
