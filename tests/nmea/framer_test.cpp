// The framer: which bytes make a message, and when it is dispatched.
#include <gtest/gtest.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include "nmea/gps_framer.h"
#include "tests/support/message_recorder.h"
#include "tests/support/test_env.h"

namespace {

using gps::test::MessageRecorder;
using gps::test::UbxFrame;

const std::string kGga = "$GNGGA,171926.00,4404.14063,N,12118.85478,W,1,12,0.91,1147.2,M,-21.3,M,,*44\r\n";
const std::string kRmc = "$GNRMC,171926.00,A,4404.14063,N,12118.85478,W,0.117,,180315,,,A*76\r\n";

struct FramingCase {
  const char* legend;
  uint32_t moduleType;
  std::vector<std::string> chunks;
  std::vector<std::pair<uint32_t, size_t>> expected;  // (type, length) in order
};

class FramerTest : public testing::TestWithParam<FramingCase> {
 protected:
  gps::test::TempRoot root_;
};

TEST_P(FramerTest, DispatchesExactlyTheCompleteMessages) {
  const FramingCase& c = GetParam();
  gps::test::ResetEngine(c.moduleType);
  gps_message_t frame;
  gps_message_init(&frame);
  MessageRecorder recorder;
  for (const auto& chunk : c.chunks)
    analyze_gps(&gps_private_info, &frame, reinterpret_cast<const uint8_t*>(chunk.data()),
                static_cast<uint32_t>(chunk.size()));
  std::vector<std::pair<uint32_t, size_t>> got;
  for (const auto& m : recorder.messages()) got.emplace_back(m.type, m.length);
  EXPECT_EQ(got, c.expected) << c.legend;
}

const std::string kEmptyPoll = UbxFrame(0x0A, 0x04, "");
const std::string kLargest = UbxFrame(0x0B, 0x32, std::string(1016, 'x'));
const std::string kTooLarge = UbxFrame(0x0B, 0x32, std::string(1017, 'x'));
const std::string kWithDollar = UbxFrame(0x01, 0x07, "ab$cd\n");
const std::string kLongSentence = "$GPTXT," + std::string(1500, 'A') + "*00\r\n";

INSTANTIATE_TEST_SUITE_P(
    Cases, FramerTest,
    testing::Values(
        FramingCase{"GGA completes at its LF; length counts $, CR and LF", 2, {kGga}, {{1, 77}}},
        FramingCase{"two sentences and a frame in one chunk, in order", 2, {kGga + kEmptyPoll + kRmc},
                    {{1, kGga.size()}, {2, 8}, {1, kRmc.size()}}},
        FramingCase{"frame with no payload is complete after 8 bytes", 2, {kEmptyPoll}, {{2, 8}}},
        FramingCase{"largest frame that fits: 1016-byte payload", 2, {kLargest}, {{2, 1024}}},
        FramingCase{"a longer frame is passed over whole; what follows frames", 3, {kTooLarge + kGga},
                    {{1, kGga.size()}}},
        FramingCase{"'$' inside a passed-over frame is not a sentence", 3,
                    {UbxFrame(0x01, 0x35, "$" + std::string(1100, 'z') + "\n") + kGga}, {{1, kGga.size()}}},
        FramingCase{"'$' inside a UBX payload is data", 2, {kWithDollar}, {{2, 14}}},
        FramingCase{"'$' and 0xB5 inside a sentence are data", 2, {"$GPTXT,a$b\xB5" "c*00\r\n"}, {{1, 17}}},
        FramingCase{"stray 0xB5 before '$' loses that sentence", 2, {"\xB5" + kGga + kRmc}, {{1, kRmc.size()}}},
        FramingCase{"garbage between messages is ignored", 2, {"xx\r\n" + kGga + "\x01\x02" + kEmptyPoll},
                    {{1, kGga.size()}, {2, 8}}},
        FramingCase{"u-blox: a frame split over two chunks is abandoned", 2,
                    {kEmptyPoll.substr(0, 5), kEmptyPoll.substr(5)}, {}},
        FramingCase{"u-blox: a sentence split over two chunks is abandoned", 1,
                    {kGga.substr(0, 30), kGga.substr(30)}, {}},
        FramingCase{"modem: a frame split over two chunks completes", 3,
                    {kEmptyPoll.substr(0, 5), kEmptyPoll.substr(5)}, {{2, 8}}},
        FramingCase{"modem: a sentence in single bytes completes at its LF", 3,
                    [] {
                      std::vector<std::string> bytes;
                      for (char c : kGga) bytes.emplace_back(1, c);
                      return bytes;
                    }(),
                    {{1, kGga.size()}}},
        FramingCase{"sentence over 1024 bytes keeps 1024 and ends at its LF", 2, {kLongSentence + kGga},
                    {{1, 1024}, {1, kGga.size()}}}),
    [](const testing::TestParamInfo<FramingCase>& info) { return "case" + std::to_string(info.index); });

TEST(FramerBuffer, IsZeroFilledBehindEachNewMessage) {
  gps::test::TempRoot root;
  gps::test::ResetEngine(3);
  gps_message_t frame;
  gps_message_init(&frame);
  const std::string longer = "$GPTXT,01,01,02,a fairly long text of some length*00\r\n";
  for (uint8_t b : longer) gps_message_feed(&frame, b);
  const std::string shorter = "$GPGSA,A*00\r\n";
  uint32_t done = 0;
  for (uint8_t b : shorter) done = gps_message_feed(&frame, b);
  ASSERT_EQ(done, 1u);
  EXPECT_EQ(frame.length, shorter.size());
  EXPECT_EQ(std::string(reinterpret_cast<char*>(frame.buffer), frame.length), shorter);
  for (uint32_t i = frame.length; i < GPS_FRAME_BUFFER_BYTES; ++i) ASSERT_EQ(frame.buffer[i], 0) << i;
}

TEST(FramerListeners, EachAnalysedMessageSignalsTheMessageEvent) {
  gps::test::TempRoot root;
  gps::test::ResetEngine(2);
  const int messages = eventfd(0, EFD_NONBLOCK);
  const int hardware = eventfd(0, EFD_NONBLOCK);
  gps_private_info.listeners[0] = {static_cast<uint16_t>(messages), GPS_EVENT_MESSAGE};
  gps_private_info.listeners[1] = {static_cast<uint16_t>(hardware), GPS_EVENT_MON_HW};
  gps_private_info.listener_count = 2;
  gps::test::FeedReceiver(kGga + kEmptyPoll + kRmc);
  uint64_t count = 0;
  ASSERT_EQ(read(messages, &count, sizeof count), 8);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(read(hardware, &count, sizeof count), -1) << "a listener for other events is not signalled";
  close(messages);
  close(hardware);
  gps_private_info.listener_count = 0;
}

}  // namespace
