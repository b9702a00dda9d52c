// Packets, downlink frames, and the control library against real files and FIFOs in a scratch directory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <memory>

#include "lc/downlink_frame.hpp"
#include "lc/qel_arm_control.hpp"
#include "text.hpp"
#include "vyrcam/libvyrcam.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace VYRCam;
using Bytes = std::vector<std::uint8_t>;
using lc::QelArmControl;
using Updater::Testing::RowName;
using Package = std::pair<int, std::string>;
using MakePacket = std::function<std::unique_ptr<Packet>()>;

Bytes Packed(const Packet& p) {
  Bytes out(static_cast<std::size_t>(p.Length()));
  p.Pack(out.data());
  return out;
}
// `wire` holds exactly its bytes, so the address sanitizer sees a read past them.
int Unpack(Packet& p, const Bytes& wire) {
  return p.Unpack(reinterpret_cast<const char*>(wire.data()), wire.size());
}
template <class T>
std::unique_ptr<Packet> Blank() {
  return std::make_unique<T>();
}
Bytes Relength(Bytes wire, std::uint8_t length) {
  wire[0] = length;
  return wire;
}

// Field values whose signs and high bits must survive; sequence number 0x5A; the check bytes are
// CRC-16/CCITT-FALSE, high byte first.
const Bytes kAvailableWire{0x0D, 0x11, 0x5A, 0xCD, 0xAB, 0x34, 0x12, 0xEF, 0xBE, 0xAD, 0xDE, 0xA9, 0x69};
const Bytes kBlockWire{0x0C, 0x12, 0x5A, 0xFB, 0xFF, 0xFF, 0xFF, 0x00, 0xAA, 0xA9, 0x3E, 0xB4};
const Bytes kInfoWire{0x10, 0x20, 0x5A, 0xFE, 0xFF, 0x01, 0x00, 0x00,
                      0x80, 0xC8, 0xFD, 0xFF, 0xFF, 0xFF, 0xC3, 0xD0};
const Bytes kReceivedWire{0x0D, 0x21, 0x5A, 0xFF, 0xFF, 0xFF, 0xFF, 0x78, 0x56, 0x34, 0x12, 0xA5, 0xAC};

struct PacketCase {
  std::string name;
  MakePacket filled, blank;
  Bytes wire;
};
void PrintTo(const PacketCase& row, std::ostream* os) { *os << row.name; }
template <class T>
PacketCase Case(std::string name, T packet, Bytes wire) {
  packet.SequenceNumber(0x5A);
  return {std::move(name), [packet] { return std::make_unique<T>(packet); }, Blank<T>, wire};
}

class APacket : public ::testing::TestWithParam<PacketCase> {};

TEST_P(APacket, PacksToItsDocumentedBytes) { EXPECT_EQ(Packed(*GetParam().filled()), GetParam().wire); }

TEST_P(APacket, UnpacksItsDocumentedBytesIntoTheSameFields) {
  const auto got = GetParam().blank();
  ASSERT_EQ(Unpack(*got, GetParam().wire), kUnpackOk);
  EXPECT_EQ(Packed(*got), GetParam().wire);
}

const PacketCase kPackets[] = {
    Case("RequestUpdateInfo", RequestUpdateInfo(), {0x05, 0x10, 0x5A, 0xDF, 0xA0}),
    Case("ApplyUpdate", ApplyUpdate(), {0x05, 0x13, 0x5A, 0x8A, 0xF3}),
    Case("ClearPendingUpdate", ClearPendingUpdate(), {0x05, 0x14, 0x5A, 0x13, 0x64}),
    Case("UpdateAvailable", UpdateAvailable(0xABCD, 0x1234, 0xDEADBEEF), kAvailableWire),
    Case("FirmwareBlock", FirmwareBlock(-5, {0, 0xAA, 0xA9}), kBlockWire),
    Case("DatalinkPacketAck", DatalinkPacketAck(200, true), {0x07, 0x03, 0x5A, 0xC8, 0x01, 0xFB, 0xD7}),
    Case("UpdateInfo", UpdateInfo(0xFFFE, 0x80000001u, 0xC8, -3), kInfoWire),
    Case("ReceivedFirmwareBlock", ReceivedFirmwareBlock(-1, 0x12345678u), kReceivedWire),
    Case("UpdateComplete", UpdateComplete(), {0x05, 0x23, 0x5A, 0x8F, 0x66}),
    Case("UpdateError", UpdateError(), {0x05, 0x24, 0x5A, 0x16, 0xF1}),
};
INSTANTIATE_TEST_SUITE_P(Classes, APacket, ::testing::ValuesIn(kPackets), RowName<PacketCase>);

// The first failure in the documented order: what has not fully arrived is truncated, whatever
// its length byte claims.
struct BadWire {
  std::string name;
  MakePacket blank;
  Bytes wire;  // all of it at hand
  int result;
};
void PrintTo(const BadWire& row, std::ostream* os) { *os << row.name; }
class APacketGivenABadWire : public ::testing::TestWithParam<BadWire> {};

TEST_P(APacketGivenABadWire, ReportsTheFirstFailure) {
  EXPECT_EQ(Unpack(*GetParam().blank(), GetParam().wire), GetParam().result);
}

const BadWire kBadWires[] = {
    {"ShorterThanHeaderAndCheck", Blank<UpdateComplete>, {0x04, 0x23, 0x5A, 0x8F}, kUnpackTruncated},
    {"OneByteShortOfItsLength", Blank<UpdateInfo>, Relength(kInfoWire, 17), kUnpackTruncated},
    {"LengthBelowHeaderAndCheck", Blank<FirmwareBlock>, Relength(kBlockWire, 4), kUnpackBadLength},
    {"BlockWithoutAWholePosition", Blank<FirmwareBlock>, Relength(kBlockWire, 8), kUnpackBadLength},
    {"PayloadOneByteShortForItsClass", Blank<UpdateInfo>, Relength(kInfoWire, 15), kUnpackBadLength},
    {"AnotherType", Blank<UpdateComplete>, {0x05, 0x24, 0x5A, 0x16, 0xF1}, kUnpackWrongType},
};
INSTANTIATE_TEST_SUITE_P(Wires, APacketGivenABadWire, ::testing::ValuesIn(kBadWires), RowName<BadWire>);

struct AScratchPlatform : ::testing::Test {
  AScratchPlatform() {
    setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "version").c_str(), 1);
  }
  Package CameraPackage(int region) { return libVyrCam::FilesystemFirmwarePackage(region); }
  Updater::Testing::TempDir dir;
  const Package none{-1, ""};
};

// One file alone in the firmware directory, looked up for a camera region. A negative region would
// build "camera-region-1-", which reads like another region's name.
struct PackageName {
  std::string name;
  std::string file;
  int region;
  int version;  // -1: the file does not count
};
void PrintTo(const PackageName& row, std::ostream* os) { *os << row.name; }
class ACameraPackageName : public AScratchPlatform, public ::testing::WithParamInterface<PackageName> {};

TEST_P(ACameraPackageName, CountsOnlyWithExactlyDecimalDigitsForItsRegion) {
  dir.Write(GetParam().file);
  const Package expected = GetParam().version < 0 ? none : Package(GetParam().version, dir / GetParam().file);
  EXPECT_EQ(CameraPackage(GetParam().region), expected);
}

const PackageName kPackageNames[] = {
    {"VersionZero", "camera-region1-0.bin", /*region=*/1, /*version=*/0},
    {"LargestVersion", "camera-region1-2147483647.bin", /*region=*/1, /*version=*/INT_MAX},
    {"WrapsPastInt", "camera-region1-4294967306.bin", /*region=*/1, /*version=*/-1},
    {"NoVersion", "camera-region1-.bin", /*region=*/1, /*version=*/-1},
    {"Letter", "camera-region1-x.bin", /*region=*/1, /*version=*/-1},
    {"Sign", "camera-region1--90.bin", /*region=*/1, /*version=*/-1},
    {"UpperCaseSuffix", "camera-region1-90.BIN", /*region=*/1, /*version=*/-1},
    {"OtherRegion", "camera-region2-90.bin", /*region=*/1, /*version=*/-1},
    {"NegativeRegion", "camera-region-1-9.bin", /*region=*/-1, /*version=*/-1},
};
INSTANTIATE_TEST_SUITE_P(Names, ACameraPackageName, ::testing::ValuesIn(kPackageNames), RowName<PackageName>);

TEST_F(AScratchPlatform, PicksTheNumericallyHighestVersion) {
  dir.Write("tallyvane-99.bin");
  dir.Write("tallyvane-100.bin");
  EXPECT_EQ(QelArmControl::FilesystemFirmwarePackage(0), Package(100, dir / "tallyvane-100.bin"));
}

TEST_F(AScratchPlatform, SkipsANewerNameThatIsADirectory) {
  dir.Write("camera-region1-10.bin");
  std::filesystem::create_directory(dir / "camera-region1-20.bin");
  EXPECT_EQ(CameraPackage(1), Package(10, dir / "camera-region1-10.bin"));
}

struct VersionText {
  std::string name;
  std::string text;
  int version;  // -1: not a version
};
void PrintTo(const VersionText& row, std::ostream* os) { *os << row.name; }
class ABoardVersionFile : public AScratchPlatform, public ::testing::WithParamInterface<VersionText> {};

TEST_P(ABoardVersionFile, HoldsOneDecimalNumberBetweenBlanks) {
  dir.Write("version", GetParam().text);
  EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), GetParam().version);
}

const VersionText kVersionTexts[] = {
    {"BlanksAround", " \t0 \r\n", 0},
    {"Largest", "2147483647", INT_MAX},
    {"PastInt", "2147483648", -1},
    {"Empty", "", -1},
    {"TrailingLetters", "12abc", -1},
    {"JustShortOfTooLong", std::string(62, ' ') + "5", 5},
    {"TooLong", std::string(63, ' ') + "5", -1},
};
INSTANTIATE_TEST_SUITE_P(Texts, ABoardVersionFile, ::testing::ValuesIn(kVersionTexts), RowName<VersionText>);

// A number in it would pass for the board's version, so a FIFO never counts.
TEST_F(AScratchPlatform, ReadsNoBoardVersionFromAFifoHoldingANumber) {
  ASSERT_EQ(mkfifo((dir / "version").c_str(), 0600), 0);
  const int writer = open((dir / "version").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(writer, "7\n", 2), 2);
  EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), -1);
  close(writer);
}

// As Send_Dl_Us_Raw puts it on the downlink device; empty when refused.
Bytes Frame(const Bytes& payload, int channel = lc::kPacketChannel) {
  return lc::EncodeDownlinkFrame(channel, payload.data(), payload.size());
}

TEST(ADownlinkFrame, StartsWithSyncChannelAndLittleEndianLength) {
  EXPECT_EQ(Frame({1, 2, 3}, 0), (Bytes{0xAA, 0xA9, 0, 3, 0, 1, 2, 3}));
}

TEST(ADownlinkFrame, TakesTheMostPayloadOnTheLastChannel) {
  Bytes expected{0xAA, 0xA9, 255, 0xFB, 0x0F};
  // then the payload; an insert trips g++ 12's array-bounds check on armhf
  expected.resize(expected.size() + lc::kMaxDownlinkPayload, 0x5C);
  EXPECT_EQ(Frame(Bytes(lc::kMaxDownlinkPayload, 0x5C), 255), expected);
}

struct RefusedFrame {
  std::string name;
  Bytes payload;
  int channel = lc::kPacketChannel;
};
void PrintTo(const RefusedFrame& row, std::ostream* os) { *os << row.name; }
const RefusedFrame kRefusedFrames[] = {
    {"NoBytes", {}},
    {"OneByteOverTheMost", Bytes(lc::kMaxDownlinkPayload + 1)},
    {"NegativeChannel", {1}, -1},
    {"ChannelPastAByte", {1}, 256},
};
class ADownlinkFrameOutOfBounds : public ::testing::TestWithParam<RefusedFrame> {};

TEST_P(ADownlinkFrameOutOfBounds, IsRefused) {
  EXPECT_EQ(Frame(GetParam().payload, GetParam().channel), Bytes{});
}
INSTANTIATE_TEST_SUITE_P(Refusals, ADownlinkFrameOutOfBounds, ::testing::ValuesIn(kRefusedFrames),
                         RowName<RefusedFrame>);

}  // namespace
