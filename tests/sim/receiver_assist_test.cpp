// AssistNow Offline between the receiver and a host that answers its
// AID-ALPSRV requests as the engine does.
#include <gtest/gtest.h>

#include <functional>

#include "sim/receiver.h"
#include "tests/sim/sim_test_support.h"

namespace gps::sim {
namespace {

using namespace testing;
using Bytes = std::vector<uint8_t>;

constexpr uint16_t kFileId = 0xFECA;

Bytes AlpFile(size_t size) {
  Bytes file(size);
  for (size_t i = 0; i < size; ++i) file[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return file;
}

// The first block: 16-byte header, then the first 84 bytes of the file.
Bytes FirstBlock(const Bytes& file) {
  Bytes p = {0x10, 0x01, 0x00, 0x00, 0x2A, 0x00, kFileId & 0xFF, kFileId >> 8, 84, 0, 0, 0, 0, 0, 0, 0};
  p.insert(p.end(), file.begin(), file.begin() + 84);
  return Frame(0x0B, 0x32, p);
}

// The host's answer to a 16-byte request: the header echoed with dataSize,
// then size * 2 bytes of the file from byte ofs * 2.
Bytes Answer(const Bytes& request, const Bytes& file) {
  const size_t ofs = U16(request, 2), size = U16(request, 4);
  Bytes p(request.begin(), request.begin() + 16);
  p[0] = 0x10;
  p[6] = kFileId & 0xFF, p[7] = kFileId >> 8;
  p[8] = static_cast<uint8_t>(size * 2), p[9] = static_cast<uint8_t>(size * 2 >> 8);
  p[12] = p[13] = p[14] = p[15] = 0;
  p.insert(p.end(), file.begin() + static_cast<long>(ofs * 2), file.begin() + static_cast<long>(ofs * 2 + size * 2));
  return p;
}

Receiver StartAssisted(const Bytes& file, uint32_t ttffMs) {
  ReceiverConfig config;
  config.ttffMs = ttffMs;
  config.alpData = file;
  Receiver r = MakeTestReceiver(config);
  Send(r, Frame(0x06, 0x01, {0x0B, 0x32, 1, 0, 0, 0, 0, 0}));
  Send(r, FirstBlock(file));
  return r;
}

TEST(SimAssist, ServedRequestsShortenTheTimeToFirstFix) {
  const Bytes file = AlpFile(4000);
  Receiver r = StartAssisted(file, 20000);
  EXPECT_TRUE(r.alp().firstBlockReceived);
  EXPECT_TRUE(r.alp().firstBlockMatchesFile);
  std::vector<Bytes> requests;
  Bytes writeBack;
  for (uint64_t t = 1000; t <= 6000; t += 1000) {
    for (const UbxOut& f : RunUntil(r, t, 1000).Frames(0x0B, 0x32)) {
      ASSERT_EQ(f.payload.size(), 16u);
      requests.push_back(f.payload);
      for (const UbxOut& back : Send(r, Frame(0x0B, 0x32, Answer(f.payload, file))).Frames(0x0B, 0x32))
        writeBack = back.payload;
    }
  }
  ASSERT_EQ(requests.size(), 3u) << "one request per epoch";
  for (size_t k = 0; k < requests.size(); ++k) {
    EXPECT_EQ(requests[k][0], 0x10) << "idSize";
    EXPECT_EQ(U16(requests[k], 2), 42 + 64 * k) << "ofs in words, after the first block";
    EXPECT_EQ(U16(requests[k], 4), 64) << "size in words";
    EXPECT_EQ(U16(requests[k], 6), kFileId);
  }
  EXPECT_EQ(r.alp().answersCorrect, 3u);
  EXPECT_EQ(r.alp().answersWrong, 0u);
  EXPECT_TRUE(r.alp().complete);

  ASSERT_EQ(writeBack.size(), 32u);
  EXPECT_EQ(writeBack[1], 0xFF) << "client data";
  EXPECT_EQ(U16(writeBack, 2), 42);
  EXPECT_EQ(U16(writeBack, 4), 8);
  EXPECT_EQ(U16(writeBack, 6), kFileId);
  EXPECT_EQ(Bytes(writeBack.begin() + 16, writeBack.end()), Bytes(file.begin() + 84, file.begin() + 100));

  EXPECT_EQ(r.currentTtffMs(), 5000u);
  EXPECT_TRUE(r.hasFix()) << "fixed after a quarter of 20 s";
}

TEST(SimAssist, WrongAnswersAreCountedAndAskedAgain) {
  struct Case {
    const char* legend;
    std::function<void(Bytes&)> spoil;
  } cases[] = {
      {"a data byte differs from the file", [](Bytes& p) { p[16 + 5] ^= 1; }},
      {"another file id", [](Bytes& p) { p[6] = 0x01; }},
      {"dataSize not size * 2", [](Bytes& p) { p[8] = 0; }},
      {"data cut short", [](Bytes& p) { p.erase(p.end() - 2, p.end()); }},
      {"another offset", [](Bytes& p) { p[2] += 2; }},
      {"id1 not echoed", [](Bytes& p) { p[10] ^= 0x40; }},
  };
  const Bytes file = AlpFile(4000);
  for (const Case& c : cases) {
    Receiver r = StartAssisted(file, 20000);
    const std::vector<UbxOut> first = RunUntil(r, 1000).Frames(0x0B, 0x32);
    ASSERT_EQ(first.size(), 1u) << c.legend;
    Bytes answer = Answer(first[0].payload, file);
    c.spoil(answer);
    Send(r, Frame(0x0B, 0x32, answer));
    EXPECT_EQ(r.alp().answersWrong, 1u) << c.legend;
    EXPECT_EQ(r.alp().answersCorrect, 0u) << c.legend;
    // The unanswered request comes back after three epochs.
    bool askedAgain = false;
    for (const UbxOut& f : RunUntil(r, 4000).Frames(0x0B, 0x32)) askedAgain |= f.payload == first[0].payload;
    EXPECT_TRUE(askedAgain) << c.legend;
    EXPECT_EQ(r.currentTtffMs(), 20000u) << c.legend;
  }
}

TEST(SimAssist, NeedsOutputEnabledAndChecksSizesWithoutAFile) {
  // AID-ALPSRV output off: the first block is kept but nothing is asked.
  ReceiverConfig config;
  Receiver quiet = MakeTestReceiver(config);
  Send(quiet, FirstBlock(AlpFile(200)));
  EXPECT_TRUE(RunUntil(quiet, 5000).Frames(0x0B, 0x32).empty());

  // Without the file any data of the right size is taken.
  Receiver r = MakeTestReceiver(config);
  Send(r, Frame(0x06, 0x01, {0x0B, 0x32, 0x01}));
  Send(r, FirstBlock(AlpFile(200)));
  const Bytes other = AlpFile(1000);
  for (uint64_t t = 1000; t <= 3000; t += 1000)
    for (const UbxOut& f : RunUntil(r, t, 1000).Frames(0x0B, 0x32))
      Send(r, Frame(0x0B, 0x32, Answer(f.payload, other)));
  EXPECT_EQ(r.alp().answersCorrect, 3u);
  EXPECT_EQ(r.alp().writeBacksSent, 1u);

  // A cold start forgets the assistance.
  Send(r, Frame(0x06, 0x04, {0xFF, 0xFF, 0x02, 0x00}));
  EXPECT_EQ(r.currentTtffMs(), 3000u);
}

}  // namespace
}  // namespace gps::sim
