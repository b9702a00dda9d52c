#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "vyrcam/packets.hpp"

namespace {

using namespace VYRCam;
using Bytes = std::vector<std::uint8_t>;

Bytes Packed(const Packet& p) {
  Bytes out(static_cast<std::size_t>(p.Length()));
  p.Pack(out.data());
  return out;
}

// Unpacks from a heap block of exactly `count` bytes, so that a read past
// `available` lands outside the allocation and the address sanitizer sees it.
int UnpackExact(Packet& p, const std::uint8_t* bytes, std::size_t count) {
  std::unique_ptr<char[]> copy(new char[count == 0 ? 1 : count]);
  if (count != 0) std::memcpy(copy.get(), bytes, count);
  return p.Unpack(copy.get(), count);
}

template <typename T>
T RoundTrip(const T& sent) {
  const Bytes wire = Packed(sent);
  T got;
  EXPECT_EQ(UnpackExact(got, wire.data(), wire.size()), kUnpackOk);
  EXPECT_EQ(got.Length(), sent.Length());
  EXPECT_EQ(got.SequenceNumber(), sent.SequenceNumber());
  EXPECT_EQ(got.Type(), sent.Type());
  return got;
}

// One sample of every packet class, each with a fresh default-constructed
// twin to unpack into.
struct Sample {
  const char* name;
  std::function<std::unique_ptr<Packet>()> make;
  std::function<std::unique_ptr<Packet>()> blank;
};

template <typename T, typename... Args>
Sample MakeSample(const char* name, Args... args) {
  return {name,
          [=] {
            auto p = std::make_unique<T>(args...);
            p->SequenceNumber(0x5A);
            return std::unique_ptr<Packet>(std::move(p));
          },
          [] { return std::unique_ptr<Packet>(std::make_unique<T>()); }};
}

std::vector<Sample> AllSamples() {
  return {
      MakeSample<RequestUpdateInfo>("RequestUpdateInfo"),
      MakeSample<UpdateAvailable>("UpdateAvailable", std::uint16_t{9}, std::uint16_t{0xFF12}, std::uint32_t{70000}),
      MakeSample<FirmwareBlock>("FirmwareBlock", 1024, std::vector<unsigned char>{1, 2, 3, 0xFF, 0}),
      MakeSample<ApplyUpdate>("ApplyUpdate"),
      MakeSample<ClearPendingUpdate>("ClearPendingUpdate"),
      MakeSample<DatalinkPacketAck>("DatalinkPacketAck", std::uint8_t{200}, true),
      MakeSample<UpdateInfo>("UpdateInfo", std::uint16_t{3}, std::uint32_t{17}, std::uint8_t{64}, 2),
      MakeSample<ReceivedFirmwareBlock>("ReceivedFirmwareBlock", 127, std::uint32_t{128}),
      MakeSample<UpdateComplete>("UpdateComplete"),
      MakeSample<UpdateError>("UpdateError"),
  };
}

TEST(Packets, FieldsSurviveRoundTrip) {
  const auto ua = RoundTrip(UpdateAvailable(0xABCD, 0x1234, 0xDEADBEEF));
  EXPECT_EQ(ua.Version(), 0xABCD);
  EXPECT_EQ(ua.Hash(), 0x1234);
  EXPECT_EQ(ua.Chunks(), 0xDEADBEEFu);

  const std::vector<unsigned char> data{0, 0xAA, 0xA9, 0xFF, 7};
  const auto fb = RoundTrip(FirmwareBlock(0x7FFFFFFF, data));
  EXPECT_EQ(fb.BlockNum(), 0x7FFFFFFF);
  EXPECT_EQ(fb.Data(), data);
  EXPECT_EQ(RoundTrip(FirmwareBlock(-5, {})).BlockNum(), -5);
  EXPECT_TRUE(RoundTrip(FirmwareBlock(3, {})).Data().empty());

  const auto ack = RoundTrip(DatalinkPacketAck(255, true));
  EXPECT_EQ(ack.AckedSequenceNumber(), 255);
  EXPECT_TRUE(ack.AckIsOk());
  EXPECT_FALSE(RoundTrip(DatalinkPacketAck(4, false)).AckIsOk());

  const auto info = RoundTrip(UpdateInfo(0xFFFE, 0x80000001u, 0xC8, -3));
  EXPECT_EQ(info.PartialVersion(), 0xFFFE);
  EXPECT_EQ(info.DownloadedBlocks(), 0x80000001u);
  EXPECT_EQ(info.BlockSize(), 0xC8);
  EXPECT_EQ(info.FlashRegion(), -3);

  const auto report = RoundTrip(ReceivedFirmwareBlock(-1, 0xFFFFFFFFu));
  EXPECT_EQ(report.LastReceived(), -1);
  EXPECT_EQ(report.Next(), 0xFFFFFFFFu);
  const auto report2 = RoundTrip(ReceivedFirmwareBlock(0x12345678, 0x9ABCDEF0u));
  EXPECT_EQ(report2.LastReceived(), 0x12345678);
  EXPECT_EQ(report2.Next(), 0x9ABCDEF0u);

  for (const Sample& s : AllSamples()) {
    SCOPED_TRACE(s.name);
    const auto sent = s.make();
    const Bytes wire = Packed(*sent);
    const auto got = s.blank();
    ASSERT_EQ(UnpackExact(*got, wire.data(), wire.size()), kUnpackOk);
    EXPECT_EQ(Packed(*got), wire);
  }
}

// The layout others parse by hand: length, type, sequence, little-endian
// payload, CRC-16/CCITT-FALSE high byte first.
TEST(Packets, WireBytesAreAsDocumented) {
  RequestUpdateInfo request;
  request.SequenceNumber(7);
  EXPECT_EQ(Packed(request), (Bytes{0x05, 0x10, 0x07, 0x54, 0xF8}));

  UpdateAvailable available(0x0102, 0xBEEF, 0x00012345);
  available.SequenceNumber(0x2A);
  EXPECT_EQ(Packed(available),
            (Bytes{0x0D, 0x11, 0x2A, 0x02, 0x01, 0xEF, 0xBE, 0x45, 0x23, 0x01, 0x00, 0xEA, 0x2C}));

  FirmwareBlock block(-2, {0xDE, 0xAD});
  block.SequenceNumber(255);
  EXPECT_EQ(Packed(block), (Bytes{0x0B, 0x12, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xDE, 0xAD, 0x96, 0xB5}));
}

TEST(Packets, FirmwareBlockSizeLimit) {
  const FirmwareBlock largest(0, std::vector<unsigned char>(FirmwareBlock::kMaxData, 0x33));
  EXPECT_EQ(largest.Length(), 255);
  EXPECT_EQ(RoundTrip(largest).Data().size(), FirmwareBlock::kMaxData);
  EXPECT_THROW(FirmwareBlock(0, std::vector<unsigned char>(FirmwareBlock::kMaxData + 1)), std::length_error);
}

TEST(Packets, EveryShortPrefixFails) {
  for (const Sample& s : AllSamples()) {
    SCOPED_TRACE(s.name);
    const Bytes wire = Packed(*s.make());
    for (std::size_t n = 0; n < wire.size(); ++n) {
      const auto got = s.blank();
      EXPECT_NE(UnpackExact(*got, wire.data(), n), kUnpackOk) << "prefix " << n;
    }
  }
}

TEST(Packets, TrailingBytesAreNotPartOfThePacket) {
  const Bytes wire = Packed(ReceivedFirmwareBlock(10, 11));
  Bytes longer = wire;
  longer.insert(longer.end(), {0xAA, 0xA9, 0x00});
  ReceivedFirmwareBlock got;
  EXPECT_EQ(UnpackExact(got, longer.data(), longer.size()), kUnpackOk);
  EXPECT_EQ(got.Next(), 11u);
}

TEST(Packets, EverySingleBitFlipFails) {
  for (const Sample& s : AllSamples()) {
    SCOPED_TRACE(s.name);
    const Bytes wire = Packed(*s.make());
    for (std::size_t bit = 0; bit < wire.size() * 8; ++bit) {
      Bytes bad = wire;
      bad[bit / 8] ^= static_cast<std::uint8_t>(1u << (bit % 8));
      // A larger length byte may claim more than there is; give it the room
      // so that the flip, not the truncation, is what is caught.
      bad.resize(std::max<std::size_t>(bad.size(), bad[0]), 0);
      const auto got = s.blank();
      EXPECT_NE(UnpackExact(*got, bad.data(), bad.size()), kUnpackOk) << "bit " << bit;
    }
  }
}

TEST(Packets, FailureCodesNameTheFault) {
  const Bytes wire = Packed(UpdateInfo(1, 2, 3, 4));
  UpdateInfo info;
  EXPECT_EQ(UnpackExact(info, wire.data(), 4), kUnpackTruncated);
  EXPECT_EQ(UnpackExact(info, wire.data(), wire.size() - 1), kUnpackTruncated);

  Bytes shortLength = wire;
  shortLength[0] = 4;
  EXPECT_EQ(UnpackExact(info, shortLength.data(), shortLength.size()), kUnpackBadLength);
  Bytes wrongLength = wire;
  wrongLength[0] = 15;
  EXPECT_EQ(UnpackExact(info, wrongLength.data(), wrongLength.size()), kUnpackBadLength);

  ReceivedFirmwareBlock report;
  EXPECT_EQ(UnpackExact(report, wire.data(), wire.size()), kUnpackWrongType);

  Bytes badCrc = wire;
  badCrc.back() ^= 0x80;
  EXPECT_EQ(UnpackExact(info, badCrc.data(), badCrc.size()), kUnpackBadChecksum);

  EXPECT_EQ(info.Unpack(nullptr, 0), kUnpackTruncated);
}

TEST(Packets, FailedUnpackKeepsPreviousValues) {
  UpdateInfo info(11, 22, 33, 44);
  info.SequenceNumber(9);
  const Bytes before = Packed(info);
  Bytes other = Packed(UpdateInfo(1, 2, 3, 4));
  other[5] ^= 1;
  EXPECT_NE(UnpackExact(info, other.data(), other.size()), kUnpackOk);
  EXPECT_EQ(Packed(info), before);

  FirmwareBlock block(100, {1, 2, 3});
  const Bytes cut = Packed(FirmwareBlock(7, {9}));
  EXPECT_NE(UnpackExact(block, cut.data(), cut.size() - 1), kUnpackOk);
  EXPECT_EQ(block.BlockNum(), 100);
  EXPECT_EQ(block.Data().size(), 3u);
}

TEST(Packets, SequenceNumberKeepsLowEightBits) {
  RequestUpdateInfo p;
  EXPECT_EQ(p.SequenceNumber(), 0u);
  p.SequenceNumber(255);
  EXPECT_EQ(p.SequenceNumber(), 255u);
  p.SequenceNumber(256);
  EXPECT_EQ(p.SequenceNumber(), 0u);
  p.SequenceNumber(0x1234);
  EXPECT_EQ(p.SequenceNumber(), 0x34u);
  EXPECT_EQ(Packed(p)[2], 0x34);
}

TEST(Packets, HostPacketsWantAnAckBoardPacketsDoNot) {
  for (const Sample& s : AllSamples()) {
    SCOPED_TRACE(s.name);
    const auto p = s.make();
    EXPECT_EQ(p->NeedsAck(), p->Type() < 32 && p->Type() != kDatalinkPacketAck);
  }
  EXPECT_TRUE(FirmwareBlock().NeedsAck());
  EXPECT_TRUE(RequestUpdateInfo().NeedsAck());
  EXPECT_FALSE(DatalinkPacketAck().NeedsAck());
  EXPECT_FALSE(UpdateError().NeedsAck());
}

TEST(Packets, EachClassCarriesItsTypeCode) {
  const std::vector<int> codes{kRequestUpdateInfo, kUpdateAvailable,  kFirmwareBlock,         kApplyUpdate,
                               kClearPendingUpdate, kDatalinkPacketAck, kUpdateInfo,          kReceivedFirmwareBlock,
                               kUpdateComplete,     kUpdateError};
  const auto samples = AllSamples();
  ASSERT_EQ(samples.size(), codes.size());
  for (std::size_t i = 0; i < samples.size(); ++i) {
    EXPECT_EQ(samples[i].make()->Type(), codes[i]) << samples[i].name;
    EXPECT_EQ(Packed(*samples[i].make())[1], codes[i]) << samples[i].name;
  }
}

}  // namespace
