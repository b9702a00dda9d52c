// Packets, and the control library against real files and FIFOs in a scratch directory.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>

#include "lc/downlink_frame.hpp"
#include "lc/qel_arm_control.hpp"
#include "temp_dir.hpp"
#include "vyrcam/libvyrcam.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace std::chrono_literals;
using namespace VYRCam;
using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;
using lc::QelArmControl;
using Package = std::pair<int, std::string>;
using MakePacket = std::function<std::unique_ptr<Packet>()>;

template <class T>
std::string RowName(const ::testing::TestParamInfo<T>& info) {
  return info.param.name;
}

Bytes Packed(const Packet& p) {
  Bytes out(static_cast<std::size_t>(p.Length()));
  p.Pack(out.data());
  return out;
}
// Through a heap copy of exactly the wire's bytes, so that the address sanitizer sees a read past them.
int Unpack(Packet& p, const Bytes& wire) {
  std::unique_ptr<char[]> copy(new char[wire.size()]);
  std::memcpy(copy.get(), wire.data(), wire.size());
  return p.Unpack(copy.get(), wire.size());
}
template <class T>
std::unique_ptr<Packet> Blank() {
  return std::make_unique<T>();
}

// Field values whose signs and high bits must survive; sequence number 0x5A; the check bytes are
// CRC-16/CCITT-FALSE, high byte first.
const Bytes kUpdateAvailableWire{0x0D, 0x11, 0x5A, 0xCD, 0xAB, 0x34, 0x12,
                                 0xEF, 0xBE, 0xAD, 0xDE, 0xA9, 0x69};
const Bytes kFirmwareBlockWire{0x0C, 0x12, 0x5A, 0xFB, 0xFF, 0xFF, 0xFF, 0x00, 0xAA, 0xA9, 0x3E, 0xB4};
const Bytes kUpdateInfoWire{0x10, 0x20, 0x5A, 0xFE, 0xFF, 0x01, 0x00, 0x00,
                            0x80, 0xC8, 0xFD, 0xFF, 0xFF, 0xFF, 0xC3, 0xD0};
const Bytes kReceivedBlockWire{0x0D, 0x21, 0x5A, 0xFF, 0xFF, 0xFF, 0xFF, 0x78, 0x56, 0x34, 0x12, 0xA5, 0xAC};

struct PacketCase {
  std::string name;
  MakePacket filled, blank;
  bool needsAck;
  Bytes wire;
};
void PrintTo(const PacketCase& row, std::ostream* os) { *os << row.name; }
constexpr bool kWantsAck = true, kNoAck = false;
template <class T>
PacketCase Case(std::string name, T packet, bool needsAck, Bytes wire) {
  packet.SequenceNumber(0x5A);
  return {std::move(name), [packet] { return std::make_unique<T>(packet); }, Blank<T>, needsAck, wire};
}

class APacket : public ::testing::TestWithParam<PacketCase> {};

TEST_P(APacket, PacksToItsDocumentedBytes) { EXPECT_EQ(Packed(*GetParam().filled()), GetParam().wire); }

TEST_P(APacket, SaysWhetherItWantsAnAck) { EXPECT_EQ(GetParam().filled()->NeedsAck(), GetParam().needsAck); }

TEST_P(APacket, UnpacksItsDocumentedBytesIntoTheSameFields) {
  const auto got = GetParam().blank();
  ASSERT_EQ(Unpack(*got, GetParam().wire), kUnpackOk);
  EXPECT_EQ(Packed(*got), GetParam().wire);
}

const PacketCase kPackets[] = {
    Case("RequestUpdateInfo", RequestUpdateInfo(), kWantsAck, {0x05, 0x10, 0x5A, 0xDF, 0xA0}),
    Case("ApplyUpdate", ApplyUpdate(), kWantsAck, {0x05, 0x13, 0x5A, 0x8A, 0xF3}),
    Case("ClearPendingUpdate", ClearPendingUpdate(), kWantsAck, {0x05, 0x14, 0x5A, 0x13, 0x64}),
    Case("UpdateAvailable", UpdateAvailable(0xABCD, 0x1234, 0xDEADBEEF), kWantsAck, kUpdateAvailableWire),
    Case("FirmwareBlock", FirmwareBlock(-5, {0, 0xAA, 0xA9}), kWantsAck, kFirmwareBlockWire),
    Case("DatalinkPacketAck", DatalinkPacketAck(200, true), kNoAck,
         {0x07, 0x03, 0x5A, 0xC8, 0x01, 0xFB, 0xD7}),
    Case("UpdateInfo", UpdateInfo(0xFFFE, 0x80000001u, 0xC8, -3), kNoAck, kUpdateInfoWire),
    Case("ReceivedFirmwareBlock", ReceivedFirmwareBlock(-1, 0x12345678u), kNoAck, kReceivedBlockWire),
    Case("UpdateComplete", UpdateComplete(), kNoAck, {0x05, 0x23, 0x5A, 0x8F, 0x66}),
    Case("UpdateError", UpdateError(), kNoAck, {0x05, 0x24, 0x5A, 0x16, 0xF1}),
};
INSTANTIATE_TEST_SUITE_P(Classes, APacket, ::testing::ValuesIn(kPackets), RowName<PacketCase>);

// The first failure in the documented order: what has not fully arrived is truncated, whatever
// its length byte claims; the length before the type; the type before the check bytes.
struct RefusedWire {
  std::string name;
  MakePacket blank;
  Bytes wire;  // all of it at hand
  int result;
};
void PrintTo(const RefusedWire& row, std::ostream* os) { *os << row.name; }
Bytes WithLengthByte(Bytes wire, std::uint8_t length) {
  wire[0] = length;
  return wire;
}

class APacketGivenABadWire : public ::testing::TestWithParam<RefusedWire> {};

TEST_P(APacketGivenABadWire, ReportsTheFirstFailure) {
  EXPECT_EQ(Unpack(*GetParam().blank(), GetParam().wire), GetParam().result);
}

const RefusedWire kRefusedWires[] = {
    {"ShorterThanHeaderAndCheck", Blank<UpdateComplete>, {0x03, 0x23, 0x5A}, kUnpackTruncated},
    {"OneByteShortOfItsLength", Blank<ReceivedFirmwareBlock>, WithLengthByte(kReceivedBlockWire, 14),
     kUnpackTruncated},
    {"ImpossibleLengthPastTheBytes", Blank<UpdateInfo>, WithLengthByte(kUpdateInfoWire, 255),
     kUnpackTruncated},
    {"LengthBelowHeaderAndCheck", Blank<FirmwareBlock>, WithLengthByte(kFirmwareBlockWire, 4),
     kUnpackBadLength},
    {"FirmwareBlockWithoutAWholePosition", Blank<FirmwareBlock>, WithLengthByte(kFirmwareBlockWire, 8),
     kUnpackBadLength},
    {"PayloadOneByteShortForItsClass", Blank<UpdateInfo>, WithLengthByte(kUpdateInfoWire, 15),
     kUnpackBadLength},
    {"PayloadOfAnotherClass", Blank<UpdateComplete>, kUpdateInfoWire, kUnpackBadLength},
    {"AnotherType", Blank<UpdateComplete>, {0x05, 0x24, 0x5A, 0x16, 0xF1}, kUnpackWrongType},
    {"AChangedByte", Blank<UpdateComplete>, {0x05, 0x23, 0x5B, 0x8F, 0x66}, kUnpackBadChecksum},
};
INSTANTIATE_TEST_SUITE_P(Wires, APacketGivenABadWire, ::testing::ValuesIn(kRefusedWires),
                         RowName<RefusedWire>);

// The length byte could describe no bigger packet.
TEST(AFirmwareBlock, FillsAWholePacketWithTheMostDataItTakes) {
  EXPECT_EQ(FirmwareBlock(0, std::vector<unsigned char>(FirmwareBlock::kMaxData)).Length(), 255);
}

TEST(AFirmwareBlock, RefusesOneByteMore) {
  EXPECT_THROW(FirmwareBlock(0, std::vector<unsigned char>(FirmwareBlock::kMaxData + 1)), std::length_error);
}

struct AScratchPlatform : ::testing::Test {
  AScratchPlatform() {
    setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
    setenv("QUORVEX_TALLYVANE_DOWNLINK", downlink.c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "version").c_str(), 1);
  }
  Package CameraPackage(int region) { return libVyrCam::FilesystemFirmwarePackage(region); }
  Updater::Testing::TempDir dir;
  const std::string downlink = dir / "downlink";
  const Package none{-1, ""};
};

// One file alone in the firmware directory, looked up for camera region 1.
struct PackageName {
  std::string name;
  std::string file;
  int version;  // -1: the file does not count
};
void PrintTo(const PackageName& row, std::ostream* os) { *os << row.name; }

class ACameraPackageName : public AScratchPlatform, public ::testing::WithParamInterface<PackageName> {};

TEST_P(ACameraPackageName, CountsOnlyWithExactlyDecimalDigitsForItsRegion) {
  dir.Write(GetParam().file);
  const Package expected = GetParam().version < 0 ? none : Package(GetParam().version, dir / GetParam().file);
  EXPECT_EQ(CameraPackage(1), expected);
}

const PackageName kPackageNames[] = {
    {"Plain", "camera-region1-10.bin", 10},
    {"VersionZero", "camera-region1-0.bin", 0},
    {"LargestVersion", "camera-region1-2147483647.bin", INT_MAX},
    {"WrapsPastInt", "camera-region1-4294967306.bin", -1},
    {"NoVersion", "camera-region1-.bin", -1},
    {"Letter", "camera-region1-x.bin", -1},
    {"TrailingLetter", "camera-region1-90a.bin", -1},
    {"Sign", "camera-region1--90.bin", -1},
    {"UpperCaseSuffix", "camera-region1-90.BIN", -1},
    {"OtherRegion", "camera-region2-90.bin", -1},
    {"BoardImage", "tallyvane-90.bin", -1},
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

TEST_F(AScratchPlatform, TakesASymlinkToAFile) {
  std::filesystem::create_symlink(dir.Write("image"), dir / "tallyvane-7.bin");
  EXPECT_EQ(QelArmControl::FilesystemFirmwarePackage(0), Package(7, dir / "tallyvane-7.bin"));
}

// "camera-region-1-" would read like another region's name.
TEST_F(AScratchPlatform, FindsNoCameraPackageForANegativeRegion) {
  dir.Write("camera-region-1-9.bin");
  EXPECT_EQ(CameraPackage(-1), none);
}

TEST_F(AScratchPlatform, FindsNoBoardPackageForASelectorOtherThanZero) {
  dir.Write("tallyvane-9.bin");
  EXPECT_EQ(QelArmControl::FilesystemFirmwarePackage(1), none);
}

TEST_F(AScratchPlatform, FindsNoPackageWhenTheDirectoryIsAFile) {
  setenv("QUORVEX_FIRMWARE_DIR", dir.Write("tallyvane-9.bin").c_str(), 1);
  EXPECT_EQ(QelArmControl::FilesystemFirmwarePackage(0), none);
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
    {"Plain", "42\n", 42},
    {"BlanksAround", " \t0 \r\n", 0},
    {"Largest", "2147483647", INT_MAX},
    {"PastInt", "2147483648", -1},
    {"Empty", "", -1},
    {"TrailingLetters", "12abc", -1},
    {"JustShortOfTooLong", std::string(62, ' ') + "5", 5},
    {"TooLong", std::string(63, ' ') + "5", -1},
};
INSTANTIATE_TEST_SUITE_P(Texts, ABoardVersionFile, ::testing::ValuesIn(kVersionTexts), RowName<VersionText>);

TEST_F(AScratchPlatform, ReadsNoBoardVersionFromAFifoWithoutAWriter) {
  ASSERT_EQ(mkfifo((dir / "version").c_str(), 0600), 0);
  const auto start = Clock::now();
  EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), -1);
  EXPECT_LT(Clock::now() - start, 500ms);
}

// A number in it would pass for the board's version, so a FIFO never counts.
TEST_F(AScratchPlatform, ReadsNoBoardVersionFromAFifoHoldingANumber) {
  ASSERT_EQ(mkfifo((dir / "version").c_str(), 0600), 0);
  const int writer = open((dir / "version").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(writer, "7\n", 2), 2);
  EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), -1);
  close(writer);
}

int Send(const Bytes& bytes, int channel = lc::kPacketChannel) {
  return QelArmControl::Send_Dl_Us_Raw(channel, bytes.data(), bytes.size());
}

TEST_F(AScratchPlatform, FailsToSendAtOnceWhenNobodyReadsTheDownlink) {
  ASSERT_EQ(mkfifo(downlink.c_str(), 0600), 0);
  const auto start = Clock::now();
  EXPECT_EQ(Send({1}), 0);
  EXPECT_LT(Clock::now() - start, 100ms);
}

// It would swallow every frame and never answer.
TEST_F(AScratchPlatform, RefusesToSendIntoAPlainFile) {
  dir.Write("downlink");
  EXPECT_EQ(Send({1}), 0);
}

// The reading end of the downlink FIFO; a Send has finished writing when it returns.
struct ADownlink : AScratchPlatform {
  ADownlink() {
    mkfifo(downlink.c_str(), 0600);
    reader = open(downlink.c_str(), O_RDONLY | O_NONBLOCK);
  }
  ~ADownlink() override { close(reader); }
  Bytes Drain() {
    Bytes got(1 << 17);
    got.resize(static_cast<std::size_t>(std::max<ssize_t>(0, read(reader, got.data(), got.size()))));
    return got;
  }
  int reader = -1;
};

TEST_F(ADownlink, FramesEachSendWithSyncChannelAndLittleEndianLength) {
  const Bytes full(lc::kMaxDownlinkPayload, 0x5C);
  ASSERT_EQ(Send({1, 2, 3}, 0), 1);
  ASSERT_EQ(Send(full, 255), 1);
  Bytes expected{0xAA, 0xA9, 0, 3, 0, 1, 2, 3, 0xAA, 0xA9, 255, 0xFB, 0x0F};
  // `full`; an insert trips g++ 12's array-bounds check on armhf
  expected.resize(expected.size() + full.size(), 0x5C);
  EXPECT_EQ(Drain(), expected);
}

struct UnframeableSend {
  std::string name;
  int channel;
  std::size_t count;
};
void PrintTo(const UnframeableSend& row, std::ostream* os) { *os << row.name; }

class ADownlinkGivenAnUnframeableSend : public ADownlink,
                                        public ::testing::WithParamInterface<UnframeableSend> {};

TEST_P(ADownlinkGivenAnUnframeableSend, RefusesIt) {
  EXPECT_EQ(Send(Bytes(GetParam().count, 1), GetParam().channel), 0);
}

const UnframeableSend kUnframeableSends[] = {
    {"NoBytes", 5, 0},
    {"OneByteOverTheMost", 5, lc::kMaxDownlinkPayload + 1},
    {"NegativeChannel", -1, 1},
    {"ChannelPastAByte", 256, 1},
};
INSTANTIATE_TEST_SUITE_P(Sends, ADownlinkGivenAnUnframeableSend, ::testing::ValuesIn(kUnframeableSends),
                         RowName<UnframeableSend>);

TEST_F(ADownlink, RefusesToSendFromNoBuffer) { EXPECT_EQ(QelArmControl::Send_Dl_Us_Raw(5, nullptr, 3), 0); }

TEST_F(ADownlink, SurvivesAReaderThatHasGone) {
  close(reader);
  reader = -1;
  EXPECT_EQ(Send({2}), 0);
}

TEST_F(ADownlink, OpensTheDeviceAgainAfterAFailedWrite) {
  close(reader);
  ASSERT_EQ(Send({2}), 0);
  reader = open(downlink.c_str(), O_RDONLY | O_NONBLOCK);
  EXPECT_EQ(Send({3}), 1);
}

TEST_F(ADownlink, GivesUpWithinASecondWhenNobodyDrainsIt) {
  while (Send(Bytes(lc::kMaxDownlinkPayload, 9)) != 0) {
  }
  const auto start = Clock::now();
  EXPECT_EQ(Send(Bytes(lc::kMaxDownlinkPayload, 9)), 0);
  EXPECT_LT(Clock::now() - start, 1s);
}

}  // namespace
