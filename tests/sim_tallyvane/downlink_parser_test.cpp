#include <vector>

#include <gtest/gtest.h>

#include "board.hpp"
#include "lc/downlink_frame.hpp"
#include "link.hpp"

namespace {

using tallyvane_sim::Bytes;
using tallyvane_sim::DownlinkParser;

Bytes Frame(int channel, const Bytes& payload) {
  return lc::EncodeDownlinkFrame(channel, payload.data(), payload.size());
}

std::vector<DownlinkParser::Frame> All(DownlinkParser& parser) {
  std::vector<DownlinkParser::Frame> frames;
  DownlinkParser::Frame f;
  while (parser.Next(f)) frames.push_back(f);
  return frames;
}

TEST(DownlinkParser, ReassemblesFramesFedOneByteAtATime) {
  Bytes stream = Frame(5, {1, 2, 3});
  const Bytes second = Frame(7, Bytes(300, 0xAA));
  stream.insert(stream.end(), second.begin(), second.end());
  DownlinkParser parser;
  std::vector<DownlinkParser::Frame> frames;
  for (std::uint8_t b : stream) {
    parser.Feed(&b, 1);
    for (auto& f : All(parser)) frames.push_back(f);
  }
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[0].channel, 5);
  EXPECT_EQ(frames[0].payload, (Bytes{1, 2, 3}));
  EXPECT_EQ(frames[1].channel, 7);
  EXPECT_EQ(frames[1].payload, Bytes(300, 0xAA));
  EXPECT_EQ(parser.TakeSkipped(), 0u);
  EXPECT_EQ(parser.Buffered(), 0u);
}

TEST(DownlinkParser, SkipsGarbageAndFalseHeaders) {
  // 0xAA 0xA9 followed by a zero length is not a header; neither is a lone 0xAA.
  Bytes stream{0x00, 0xAA, 0x01, 0xAA, 0xA9, 0x05, 0x00, 0x00};
  const Bytes good = Frame(5, {9});
  stream.insert(stream.end(), good.begin(), good.end());
  DownlinkParser parser;
  parser.Feed(stream.data(), stream.size());
  const auto frames = All(parser);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].payload, Bytes{9});
  EXPECT_EQ(parser.TakeSkipped(), 8u);
  EXPECT_EQ(parser.TakeSkipped(), 0u);
}

TEST(DownlinkParser, WaitsForTheRestOfAFrameAndForALoneSyncByte) {
  DownlinkParser parser;
  const Bytes frame = Frame(5, {1, 2});
  parser.Feed(frame.data(), frame.size() - 1);
  EXPECT_TRUE(All(parser).empty());
  parser.Feed(&frame.back(), 1);
  EXPECT_EQ(All(parser).size(), 1u);

  const std::uint8_t sync = 0xAA;
  parser.Feed(&sync, 1);
  EXPECT_TRUE(All(parser).empty());
  EXPECT_EQ(parser.Buffered(), 1u);
  parser.Feed(frame.data() + 1, frame.size() - 1);
  EXPECT_EQ(All(parser).size(), 1u);
  EXPECT_EQ(parser.TakeSkipped(), 0u);
}

TEST(DownlinkParser, OversizedLengthIsResynchronisedNotAwaited) {
  DownlinkParser parser;
  Bytes stream{0xAA, 0xA9, 5, 0xFF, 0xFF};
  const Bytes good = Frame(5, {4});
  stream.insert(stream.end(), good.begin(), good.end());
  parser.Feed(stream.data(), stream.size());
  const auto frames = All(parser);
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].payload, Bytes{4});
}

TEST(ByteSumChecksum, IsTwoFiftySixMinusTheSixteenBitSum) {
  EXPECT_EQ(tallyvane_sim::ByteSumChecksum({}), 256);
  EXPECT_EQ(tallyvane_sim::ByteSumChecksum({0x80, 0x80}), 0);
  EXPECT_EQ(tallyvane_sim::ByteSumChecksum({200, 100}), 65492);
  // The sum wraps at 65536: 258 bytes of 0xFF sum to 65790 = 254 mod 65536.
  EXPECT_EQ(tallyvane_sim::ByteSumChecksum(Bytes(258, 0xFF)), 2);
}

}  // namespace
