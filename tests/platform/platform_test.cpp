// Packets, and the control library against real files and FIFOs in a scratch directory.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

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

Bytes Packed(const Packet& p) {
  Bytes out(static_cast<std::size_t>(p.Length()));
  return p.Pack(out.data()), out;
}
// A heap copy of exactly `count` bytes, so that the address sanitizer sees a read past it.
int UnpackExact(Packet& p, const Bytes& bytes, std::size_t count) {
  std::unique_ptr<char[]> copy(new char[count == 0 ? 1 : count]);
  if (count != 0) std::memcpy(copy.get(), bytes.data(), count);
  return p.Unpack(copy.get(), count);
}

// Every class, with field values whose signs and high bits must survive and the payload bytes the wire format
// documents for them; the first Unpack failure in the documented order (what has not fully arrived is
// truncated, whatever its length byte claims); the check bytes, CRC-16/CCITT-FALSE high byte first.
TEST(Packets, EveryClassPacksAsDocumentedAndUnpacksReportingTheFirstFailureInTheDocumentedOrder) {
  struct Sample { int type; bool needsAck; Bytes payload; std::shared_ptr<Packet> sent; std::function<std::unique_ptr<Packet>()> blank; };
  auto make = [](int type, bool needsAck, Bytes payload, auto sent) {
    using T = decltype(sent);
    sent.SequenceNumber(0x5A);
    return Sample{type, needsAck, std::move(payload), std::make_shared<T>(sent), [] { return std::make_unique<T>(); }};
  };
  const Sample samples[] = {
      make(16, true, {}, RequestUpdateInfo()), make(19, true, {}, ApplyUpdate()), make(20, true, {}, ClearPendingUpdate()),
      make(17, true, {0xCD, 0xAB, 0x34, 0x12, 0xEF, 0xBE, 0xAD, 0xDE}, UpdateAvailable(0xABCD, 0x1234, 0xDEADBEEF)),
      make(18, true, {0xFB, 0xFF, 0xFF, 0xFF, 0, 0xAA, 0xA9}, FirmwareBlock(-5, {0, 0xAA, 0xA9})),
      make(3, false, {0xC8, 0x01}, DatalinkPacketAck(200, true)),
      make(32, false, {0xFE, 0xFF, 0x01, 0, 0, 0x80, 0xC8, 0xFD, 0xFF, 0xFF, 0xFF}, UpdateInfo(0xFFFE, 0x80000001u, 0xC8, -3)),
      make(33, false, {0xFF, 0xFF, 0xFF, 0xFF, 0x78, 0x56, 0x34, 0x12}, ReceivedFirmwareBlock(-1, 0x12345678u)),
      make(35, false, {}, UpdateComplete()), make(36, false, {}, UpdateError())};
  for (const Sample& s : samples) {
    const Bytes wire = Packed(*s.sent);
    ASSERT_EQ(wire.size(), s.payload.size() + 5) << s.type;
    EXPECT_EQ((std::vector<int>{wire[0], wire[1], wire[2], s.sent->NeedsAck()}),
              (std::vector<int>{static_cast<int>(wire.size()), s.type, 0x5A, s.needsAck}));
    EXPECT_EQ(Bytes(wire.begin() + 3, wire.end() - 2), s.payload) << s.type;
    const auto got = s.blank();
    ASSERT_EQ(UnpackExact(*got, wire, wire.size()), kUnpackOk) << s.type;
    EXPECT_EQ(Packed(*got), wire) << s.type;
  }
  EXPECT_EQ(FirmwareBlock(0, std::vector<unsigned char>(FirmwareBlock::kMaxData)).Length(), 255);
  EXPECT_THROW(FirmwareBlock(0, std::vector<unsigned char>(FirmwareBlock::kMaxData + 1)), std::length_error);

  auto of = [&](int type) -> const Sample& { return *std::find_if(std::begin(samples), std::end(samples), [&](auto& s) { return s.type == type; }); };
  auto wire = [&](int type, std::size_t at = 2, int value = -1) {
    Bytes w = Packed(*of(type).sent);
    if (value >= 0) w[at] = static_cast<std::uint8_t>(value);
    return w;
  };
  const struct { int type; Bytes wire; std::size_t available; int code; } rows[] = {
      {32, wire(32, 0, 255), 16, kUnpackTruncated}, {35, wire(35, 0, 6), 5, kUnpackTruncated},
      {33, wire(33, 0, 14), 13, kUnpackTruncated},  {35, wire(35, 0, 3), 3, kUnpackTruncated},
      {35, wire(35), 4, kUnpackTruncated},          {18, wire(18, 0, 4), 12, kUnpackBadLength},
      {32, wire(32, 0, 15), 16, kUnpackBadLength},  {32, wire(35), 5, kUnpackBadLength},
      {35, wire(36), 5, kUnpackWrongType},          {35, wire(35, 2, 0x5B), 5, kUnpackBadChecksum},
  };
  for (const auto& row : rows)
    EXPECT_EQ(UnpackExact(*of(row.type).blank(), row.wire, row.available), row.code) << row.type << "/" << row.available;

  auto numbered = [](Packet&& p, int sequence) { return p.SequenceNumber(sequence), Packed(p); };
  EXPECT_EQ(numbered(FirmwareBlock(-2, {0xDE, 0xAD}), 255),
            (Bytes{0x0B, 0x12, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xDE, 0xAD, 0x96, 0xB5}));
}

int Send(const Bytes& bytes, int channel = lc::kPacketChannel) {
  return QelArmControl::Send_Dl_Us_Raw(channel, bytes.data(), bytes.size());
}

struct PlatformTest : ::testing::Test {
  PlatformTest() {
    setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
    setenv("QUORVEX_TALLYVANE_DOWNLINK", downlink.c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", (dir / "version").c_str(), 1);
  }
  Updater::Testing::TempDir dir;
  const std::string downlink = dir / "downlink";
};

// The package with the highest version in a matching name, and the board's version as one decimal number.
TEST_F(PlatformTest, FirmwarePackageAndBoardVersionAreReadStrictly) {
  using Package = std::pair<int, std::string>;
  auto camera = [](int region) { return VYRCam::libVyrCam::FilesystemFirmwarePackage(region); };
  auto board = [] { return QelArmControl::FilesystemFirmwarePackage(0); };
  const Package none(-1, "");
  // Every name that must not count carries a higher number than the winners.
  for (const char* name : {"camera-region1-9.bin", "camera-region1-10.bin", "camera-region12-50.bin", "tallyvane-99.bin",
        "tallyvane-100.bin", "camera-region1-70.bin.bak", "camera-region1-x.bin", "camera-region1-.bin", "camera-region1-80",
        "camera-region1--90.bin", "camera-region1-+90.bin", "camera-region1- 90.bin", "camera-region1-90a.bin",
        "camera-region1-90.BIN", "xcamera-region1-90.bin", "camera-region01-90.bin", "camera-region1-2147483648.bin",
        "camera-region1-99999999999999999999.bin", "tallyvane-2147483648.bin", "camera-region-1-90.bin"}) dir.Write(name);
  std::filesystem::create_directory(dir / "camera-region1-20.bin");
  std::filesystem::create_symlink(dir / "missing", dir / "tallyvane-200.bin");
  EXPECT_EQ(camera(1), Package(10, dir / "camera-region1-10.bin"));
  EXPECT_EQ(camera(12), Package(50, dir / "camera-region12-50.bin"));
  EXPECT_TRUE(camera(3) == none && camera(-1) == none);
  EXPECT_EQ(board(), Package(100, dir / "tallyvane-100.bin"));
  std::filesystem::create_symlink(dir / "tallyvane-99.bin", dir / "tallyvane-2147483647.bin");
  EXPECT_EQ(board(), Package(INT_MAX, dir / "tallyvane-2147483647.bin"));

  EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), -1);
  for (const auto& [text, version] : std::vector<std::pair<std::string, int>>{
           {"42\n", 42}, {"7", 7}, {"  0  \r\n", 0}, {"2147483647\n", INT_MAX}, {"", -1}, {"abc", -1},
           {"12abc", -1}, {"1 2", -1}, {"-3", -1}, {"+3", -1}, {"0x10", -1}, {"2147483648", -1}, {"4.5", -1},
           {std::string(100, ' ') + "5", -1}}) {
    dir.Write("version", text);
    EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), version) << "'" << text << "'";
  }
  std::filesystem::remove(dir / "version");
  ASSERT_EQ(mkfifo((dir / "version").c_str(), 0600), 0);
  const auto start = Clock::now();
  EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), -1) << "a FIFO without a writer";
  EXPECT_LT(Clock::now() - start, 500ms);
  const int writer = open((dir / "version").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(writer, "7\n", 2), 2);
  EXPECT_EQ(QelArmControl::TallyvaneFirmwareVer(), -1) << "a FIFO, even one holding a number";
  close(writer);
  setenv("QUORVEX_FIRMWARE_DIR", (dir / "tallyvane-99.bin").c_str(), 1);  // a file, not a directory
  EXPECT_EQ(board(), none);
}

TEST_F(PlatformTest, DownlinkGetsOneWholeFramePerCallFromAnyThreadAndFailsQuickly) {
  EXPECT_EQ(Send({1}), 0);
  dir.Write("downlink");
  EXPECT_EQ(Send({1}), 0) << "a plain file would swallow every frame";
  std::filesystem::remove(downlink);
  ASSERT_EQ(mkfifo(downlink.c_str(), 0600), 0);
  auto start = Clock::now();
  EXPECT_EQ(Send({1, 2, 3}), 0);
  EXPECT_LT(Clock::now() - start, 100ms);
  // The reading end; a Send has finished writing when it returns.
  int reader = open(downlink.c_str(), O_RDONLY | O_NONBLOCK);
  auto drain = [&] {
    Bytes got(1 << 17);
    return got.resize(static_cast<std::size_t>(std::max<ssize_t>(0, read(reader, got.data(), got.size())))), got;
  };
  const Bytes big(lc::kMaxDownlinkPayload, 0x5C);
  ASSERT_EQ((std::vector<int>{Send({1, 2, 3}), Send({0x42}, 200), Send(big)}), (std::vector<int>{1, 1, 1}));
  EXPECT_EQ(Send({}) + Send(Bytes(lc::kMaxDownlinkPayload + 1, 1)) + Send({1}, -1) + Send({1}, 256), 0);
  EXPECT_EQ(QelArmControl::Send_Dl_Us_Raw(5, nullptr, 3), 0);
  Bytes expected{0xAA, 0xA9, 5, 3, 0, 1, 2, 3, 0xAA, 0xA9, 200, 1, 0, 0x42, 0xAA, 0xA9, 5,
                 static_cast<std::uint8_t>(big.size() & 0xFF), static_cast<std::uint8_t>(big.size() >> 8)};
  expected.resize(expected.size() + big.size(), 0x5C);  // `big`; an insert trips g++ 12's array-bounds check on armhf
  EXPECT_EQ(drain(), expected);
  close(reader);
  EXPECT_EQ(Send({2}), 0) << "a reader that has gone raises SIGPIPE; we must still be here";

  // The helper sends from its receive thread and its update thread at once,
  // and must not hang when the board stops reading.
  reader = open(downlink.c_str(), O_RDONLY | O_NONBLOCK);
  std::vector<std::thread> senders;
  for (int t = 0; t < 4; ++t)
    senders.emplace_back([t] { for (int i = 0; i < 100 && Send(Bytes(1000 + 37 * t, static_cast<std::uint8_t>(t))) != 0; ++i) {} });
  for (auto& s : senders) s.join();
  start = Clock::now();
  EXPECT_EQ(Send(Bytes(lc::kMaxDownlinkPayload, 9)), 0) << "a pipe that nobody drains must fill up";
  EXPECT_LT(Clock::now() - start, 1s);
  const Bytes got = drain();
  close(reader);
  EXPECT_GT(got.size(), 40000u);
  for (std::size_t at = 0, count = 0; at < got.size(); at += lc::kDownlinkHeaderBytes + count) {
    ASSERT_LT(at + lc::kDownlinkHeaderBytes, got.size());
    const std::uint8_t owner = got[at + 5];
    ASSERT_TRUE(got[at] == 0xAA && got[at + 1] == 0xA9 && owner < 4) << "at " << at;
    count = got[at + 3] | (got[at + 4] << 8);
    ASSERT_EQ(Bytes(got.begin() + at + 5, got.begin() + std::min(got.size(), at + 5 + count)),
              Bytes(1000 + 37 * owner, owner)) << "at " << at;
  }
}

}  // namespace
