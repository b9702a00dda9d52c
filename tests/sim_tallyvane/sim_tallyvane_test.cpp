// tallyvane-sim driven through its FIFOs with the real packet classes and
// the real downlink call, as the updater would drive it.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "lc/downlink_frame.hpp"
#include "lc/qel_arm_control.hpp"
#include "sim_process.hpp"
#include "subprocess.hpp"
#include "temp_dir.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace std::chrono_literals;
using fwu::testing::ScopedEnv;
using fwu::testing::SimProcess;
using fwu::testing::TempDir;
using Bytes = std::vector<std::uint8_t>;
using Clock = std::chrono::steady_clock;
using namespace VYRCam;

std::uint16_t ByteSum(const Bytes& image) {
  unsigned sum = 0;
  for (auto b : image) sum += b;
  return static_cast<std::uint16_t>((256 - (sum & 0xFFFF)) & 0xFFFF);
}

std::string Hex4(unsigned v) {
  char t[8];
  std::snprintf(t, sizeof t, "%04x", v);
  return t;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The updater's side: packets down through Send_Dl_Us_Raw, frames up from
// the uplink FIFO.
class Host {
 public:
  explicit Host(std::vector<std::string> extraArgs = {})
      : env_("QUORVEX_TALLYVANE_DOWNLINK", dir_.File("down")), sim_(Args(extraArgs)) {
    if (!sim_.WaitForLine("READY")) throw std::runtime_error("sim not ready");
    upFd_ = open(dir_.File("up").c_str(), O_RDONLY | O_NONBLOCK);
    if (upFd_ < 0) throw std::runtime_error("uplink open");
  }
  ~Host() {
    if (upFd_ >= 0) close(upFd_);
  }

  TempDir& dir() { return dir_; }
  SimProcess& sim() { return sim_; }

  void Send(Packet& packet, unsigned sequence) {
    packet.SequenceNumber(sequence);
    Bytes bytes(static_cast<std::size_t>(packet.Length()));
    packet.Pack(bytes.data());
    ASSERT_NE(lc::QelArmControl::Send_Dl_Us_Raw(lc::kPacketChannel, bytes.data(), bytes.size()), 0);
  }

  // Raw uplink bytes that arrive within `timeout`.
  Bytes ReadRaw(std::chrono::milliseconds timeout, std::size_t atMost = SIZE_MAX) {
    Bytes got;
    const auto deadline = Clock::now() + timeout;
    while (got.size() < atMost) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) break;
      pollfd pfd{upFd_, POLLIN, 0};
      if (poll(&pfd, 1, static_cast<int>(left)) <= 0) continue;
      std::uint8_t buf[4096];
      const ssize_t n = read(upFd_, buf, std::min(sizeof buf, atMost - got.size()));
      if (n > 0) got.insert(got.end(), buf, buf + n);
    }
    return got;
  }

  // The next uplink packet (without its 0xAA 0xA9), or nothing in time.
  std::optional<Bytes> NextPacket(std::chrono::milliseconds timeout = 5s) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
      while (rx_.size() >= 2 && !(rx_[0] == 0xAA && rx_[1] == 0xA9)) rx_.erase(rx_.begin());
      if (rx_.size() >= 3 && rx_.size() >= 2u + rx_[2]) {
        Bytes packet(rx_.begin() + 2, rx_.begin() + 2 + rx_[2]);
        rx_.erase(rx_.begin(), rx_.begin() + 2 + rx_[2]);
        return packet;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return std::nullopt;
      const Bytes more = ReadRaw(std::min(left, std::chrono::milliseconds(20)));
      rx_.insert(rx_.end(), more.begin(), more.end());
    }
  }

  template <typename T>
  T Expect(std::chrono::milliseconds timeout = 5s) {
    T packet;
    const auto bytes = NextPacket(timeout);
    if (!bytes) {
      ADD_FAILURE() << "no packet of type " << int(packet.Type());
      return packet;
    }
    EXPECT_EQ(packet.Unpack(reinterpret_cast<const char*>(bytes->data()), bytes->size()), kUnpackOk)
        << "expected type " << int(packet.Type()) << ", got " << int((*bytes)[1]);
    return packet;
  }

  void ExpectAck(unsigned sequence) {
    const auto ack = Expect<DatalinkPacketAck>();
    EXPECT_TRUE(ack.AckIsOk());
    EXPECT_EQ(ack.AckedSequenceNumber(), sequence);
  }

  void ExpectSilence(std::chrono::milliseconds forHowLong = 150ms) {
    const auto packet = NextPacket(forHowLong);
    EXPECT_FALSE(packet) << "unexpected packet of type " << int((*packet)[1]);
  }

 private:
  std::vector<std::string> Args(const std::vector<std::string>& extra) {
    std::vector<std::string> args{"--uplink", dir_.File("up"), "--downlink", dir_.File("down")};
    for (std::string arg : extra) {
      // "@/name" names a file in the test's directory.
      if (arg.rfind("@/", 0) == 0) arg = dir_.File(arg.substr(2));
      args.push_back(arg);
    }
    return args;
  }

  TempDir dir_;
  ScopedEnv env_;
  SimProcess sim_;
  int upFd_ = -1;
  Bytes rx_;
};

Bytes MakeImage(std::size_t size) {
  Bytes image(size);
  for (std::size_t i = 0; i < size; ++i) image[i] = static_cast<std::uint8_t>((i * 7 + i / 251) & 0xFF);
  return image;
}

// Sends chunks where the sim asks until it reports nothing more wanted;
// returns the positions it asked for.
std::vector<std::uint32_t> Transfer(Host& host, const Bytes& image, std::uint32_t first, unsigned& seq,
                                    std::size_t chunk) {
  std::vector<std::uint32_t> asked{first};
  std::uint32_t next = first;
  while (next != 0xFFFFFFFFu && asked.size() < 10000) {
    const std::size_t n = std::min(chunk, image.size() - next);
    FirmwareBlock block(static_cast<int>(next), Bytes(image.begin() + next, image.begin() + next + n));
    host.Send(block, seq);
    host.ExpectAck(seq++);
    const auto report = host.Expect<ReceivedFirmwareBlock>();
    EXPECT_EQ(report.LastReceived(), static_cast<int>(next + n - 1));
    next = report.Next();
    asked.push_back(next);
  }
  return asked;
}

TEST(TallyvaneSim, FullTransferIsVerifiedWrittenAndApplied) {
  Host host({"--board-version", "3", "--partial-version", "2", "--downloaded-blocks", "5", "--block-size", "32",
             "--flash-region", "1", "--out", "@/image.out", "--version-file", "@/version"});
  EXPECT_EQ(ReadFile(host.dir().File("version")), "3\n");

  RequestUpdateInfo request;
  host.Send(request, 0);
  host.ExpectAck(0);
  const auto info = host.Expect<UpdateInfo>();
  EXPECT_EQ(info.PartialVersion(), 2);
  EXPECT_EQ(info.DownloadedBlocks(), 5u);
  EXPECT_EQ(info.BlockSize(), 32);
  EXPECT_EQ(info.FlashRegion(), 1);

  const Bytes image = MakeImage(1000);
  UpdateAvailable available(7, ByteSum(image), static_cast<std::uint32_t>(image.size()));
  host.Send(available, 1);
  host.ExpectAck(1);
  const auto first = host.Expect<ReceivedFirmwareBlock>();
  EXPECT_EQ(first.LastReceived(), -1);
  EXPECT_EQ(first.Next(), 0u);

  unsigned seq = 2;
  const auto asked = Transfer(host, image, 0, seq, 64);
  ASSERT_EQ(asked.size(), 17u);  // 15 full chunks and one of 40 bytes, then the end
  EXPECT_EQ(asked[1], 64u);
  EXPECT_EQ(asked[15], 960u);
  EXPECT_EQ(asked.back(), 0xFFFFFFFFu);
  host.Expect<UpdateComplete>();
  const auto verdict = host.sim().WaitForLine("VERDICT");
  ASSERT_TRUE(verdict);
  EXPECT_EQ(*verdict, "VERDICT ok bytes=1000 checksum=" + Hex4(ByteSum(image)) + " version=7");

  ApplyUpdate apply;
  host.Send(apply, seq);
  host.ExpectAck(seq);
  EXPECT_TRUE(host.sim().WaitForLine("APPLY"));
  EXPECT_EQ(host.sim().Wait(), 0);
  EXPECT_EQ(ReadFile(host.dir().File("image.out")), std::string(image.begin(), image.end()));
  EXPECT_EQ(ReadFile(host.dir().File("version")), "7\n");
  // The sim removes the FIFOs it made.
  EXPECT_NE(access(host.dir().File("up").c_str(), F_OK), 0);
}

TEST(TallyvaneSim, ResentAndOverlappingChunksOfChangingSizeStillAssemble) {
  Host host({"--out", "@/image.out"});
  const Bytes image = MakeImage(300);
  UpdateAvailable available(1, ByteSum(image), 300);
  host.Send(available, 0);
  host.ExpectAck(0);
  EXPECT_EQ(host.Expect<ReceivedFirmwareBlock>().Next(), 0u);

  // 0..99, then 50..99 again (a resend after a lost report), then the rest
  // in sizes that shrink and grow the way the updater's packet size does.
  unsigned seq = 1;
  auto send = [&](std::uint32_t at, std::size_t n) {
    FirmwareBlock block(static_cast<int>(at), Bytes(image.begin() + at, image.begin() + at + n));
    host.Send(block, seq);
    host.ExpectAck(seq++);
    return host.Expect<ReceivedFirmwareBlock>();
  };
  EXPECT_EQ(send(0, 100).Next(), 100u);
  const auto again = send(50, 50);
  EXPECT_EQ(again.LastReceived(), 99);
  EXPECT_EQ(again.Next(), 100u);
  std::uint32_t at = 100;
  for (std::size_t n : {1, 2, 4, 8, 16, 32, 64, 1, 2}) {
    EXPECT_EQ(send(at, n).Next(), at + n);
    at += static_cast<std::uint32_t>(n);
  }
  const auto last = send(at, 300 - at);
  EXPECT_EQ(last.LastReceived(), 299);
  EXPECT_EQ(last.Next(), 0xFFFFFFFFu);
  host.Expect<UpdateComplete>();
  EXPECT_EQ(host.sim().WaitForLine("VERDICT").value_or(""), "VERDICT ok bytes=300 checksum=" + Hex4(ByteSum(image)) + " version=1");
  EXPECT_EQ(ReadFile(host.dir().File("image.out")), std::string(image.begin(), image.end()));
}

TEST(TallyvaneSim, StartPositionIsAskedFirstAndTheRestAfterWrapping) {
  Host host({"--start", "600"});
  const Bytes image = MakeImage(1000);
  UpdateAvailable available(2, ByteSum(image), 1000);
  host.Send(available, 0);
  host.ExpectAck(0);
  const auto first = host.Expect<ReceivedFirmwareBlock>();
  ASSERT_EQ(first.Next(), 600u);
  unsigned seq = 1;
  const auto asked = Transfer(host, image, 600, seq, 200);
  EXPECT_EQ(asked, (std::vector<std::uint32_t>{600, 800, 0, 200, 400, 0xFFFFFFFFu}));
  host.Expect<UpdateComplete>();
  EXPECT_EQ(host.sim().WaitForLine("VERDICT").value_or("").rfind("VERDICT ok bytes=1000", 0), 0u);
}

TEST(TallyvaneSim, WrongChecksumIsReportedAndNotApplied) {
  Host host({"--version-file", "@/version", "--board-version", "4"});
  const Bytes image = MakeImage(100);
  UpdateAvailable available(9, static_cast<std::uint16_t>(ByteSum(image) + 1), 100);
  host.Send(available, 0);
  host.ExpectAck(0);
  host.Expect<ReceivedFirmwareBlock>();
  unsigned seq = 1;
  Transfer(host, image, 0, seq, 64);
  host.Expect<UpdateComplete>();
  EXPECT_EQ(host.sim().WaitForLine("VERDICT").value_or(""),
            "VERDICT bad-checksum bytes=100 checksum=" + Hex4(ByteSum(image)) +
                " expected=" + Hex4(static_cast<std::uint16_t>(ByteSum(image) + 1)));
  ApplyUpdate apply;
  host.Send(apply, seq);
  host.ExpectAck(seq);
  EXPECT_EQ(host.sim().Wait(), 1);
  EXPECT_EQ(ReadFile(host.dir().File("version")), "4\n");
}

TEST(TallyvaneSim, ChunkPastTheAnnouncedLengthIsABadLength) {
  Host host;
  const Bytes image = MakeImage(10);
  UpdateAvailable available(1, ByteSum(image), 10);
  host.Send(available, 0);
  host.ExpectAck(0);
  host.Expect<ReceivedFirmwareBlock>();
  Bytes longer = image;
  longer.push_back(0);
  FirmwareBlock block(0, longer);
  host.Send(block, 1);
  host.ExpectAck(1);
  EXPECT_EQ(host.Expect<ReceivedFirmwareBlock>().Next(), 0xFFFFFFFFu);
  EXPECT_EQ(host.sim().WaitForLine("VERDICT").value_or(""), "VERDICT bad-length bytes=11 expected=10");
}

TEST(TallyvaneSim, EmptyImageIsCompleteAtOnce) {
  Host host;
  UpdateAvailable available(1, 256, 0);
  host.Send(available, 0);
  host.ExpectAck(0);
  const auto report = host.Expect<ReceivedFirmwareBlock>();
  EXPECT_EQ(report.LastReceived(), -1);
  EXPECT_EQ(report.Next(), 0xFFFFFFFFu);
  host.Expect<UpdateComplete>();
  EXPECT_EQ(host.sim().WaitForLine("VERDICT").value_or(""), "VERDICT ok bytes=0 checksum=0100 version=1");
}

TEST(TallyvaneSim, AcknowledgementsAreDroppedAsScripted) {
  Host host({"--drop-ack-seq", "2,2,6", "--drop-ack-every", "5"});
  // ClearPendingUpdate is answered by its acknowledgement only.
  const std::vector<unsigned> sent{0, 1, 2, 2, 2, 3, 4, 5, 6, 7};
  std::vector<unsigned> acked;
  for (unsigned seq : sent) {
    ClearPendingUpdate clear;
    host.Send(clear, seq);
  }
  while (const auto packet = host.NextPacket(300ms)) {
    DatalinkPacketAck ack;
    ASSERT_EQ(ack.Unpack(reinterpret_cast<const char*>(packet->data()), packet->size()), kUnpackOk);
    acked.push_back(ack.AckedSequenceNumber());
  }
  // Acks counted 1..10: the 3rd and 4th are seq 2 (listed twice), the 5th
  // is every-fifth, the 9th is seq 6 (listed), the 10th every-fifth.
  EXPECT_EQ(acked, (std::vector<unsigned>{0, 1, 3, 4, 5}));
  EXPECT_TRUE(host.sim().WaitForLine("DROP DatalinkPacketAck seq=6", 1s));
}

TEST(TallyvaneSim, ReportsAreDelayedAndDropped) {
  Host host({"--report-delay-ms", "700", "--drop-reports", "2"});
  const Bytes image = MakeImage(20);
  UpdateAvailable available(1, ByteSum(image), 20);
  const auto sent = Clock::now();
  host.Send(available, 0);
  host.ExpectAck(0);
  EXPECT_LT(Clock::now() - sent, 600ms) << "acknowledgements are not delayed";
  EXPECT_EQ(host.Expect<ReceivedFirmwareBlock>().Next(), 0u);
  EXPECT_GE(Clock::now() - sent, 700ms);

  FirmwareBlock block(0, Bytes(image.begin(), image.begin() + 10));
  host.Send(block, 1);
  host.ExpectAck(1);
  host.ExpectSilence(1000ms);  // report 2 withheld
  host.Send(block, 2);
  host.ExpectAck(2);
  const auto report = host.Expect<ReceivedFirmwareBlock>();
  EXPECT_EQ(report.LastReceived(), 9);
  EXPECT_EQ(report.Next(), 10u);
}

TEST(TallyvaneSim, UpdateErrorAfterTheConfiguredChunkForgetsTheUpdate) {
  Host host({"--error-after", "2"});
  const Bytes image = MakeImage(40);
  UpdateAvailable available(1, ByteSum(image), 40);
  host.Send(available, 0);
  host.ExpectAck(0);
  host.Expect<ReceivedFirmwareBlock>();
  FirmwareBlock one(0, Bytes(image.begin(), image.begin() + 10));
  host.Send(one, 1);
  host.ExpectAck(1);
  EXPECT_EQ(host.Expect<ReceivedFirmwareBlock>().Next(), 10u);
  FirmwareBlock two(10, Bytes(image.begin() + 10, image.begin() + 20));
  host.Send(two, 2);
  host.ExpectAck(2);
  host.Expect<UpdateError>();
  FirmwareBlock three(20, Bytes(image.begin() + 20, image.begin() + 30));
  host.Send(three, 3);
  host.ExpectAck(3);
  host.ExpectSilence();
  // A new announcement starts over, and the error is not injected again.
  host.Send(available, 4);
  host.ExpectAck(4);
  EXPECT_EQ(host.Expect<ReceivedFirmwareBlock>().Next(), 0u);
  unsigned seq = 5;
  Transfer(host, image, 0, seq, 16);
  host.Expect<UpdateComplete>();
}

TEST(TallyvaneSim, UplinkFramesAreCorruptedPaddedSplitAndCoalescedAsAsked) {
  Host host({"--corrupt-frame", "1", "--garbage-before", "2", "--split-frame", "3", "--split-gap-ms", "400",
             "--coalesce-frame", "4"});
  const auto ackFrame = [](unsigned seq) {
    DatalinkPacketAck ack(static_cast<std::uint8_t>(seq), true);
    ack.SequenceNumber(0);
    Bytes frame{0xAA, 0xA9};
    frame.resize(2 + static_cast<std::size_t>(ack.Length()));
    ack.Pack(frame.data() + 2);
    return frame;
  };

  ClearPendingUpdate clear;
  host.Send(clear, 0);
  Bytes corrupted = ackFrame(0);
  corrupted.back() ^= 1;
  const Bytes got1 = host.ReadRaw(1s, corrupted.size());
  EXPECT_EQ(got1, corrupted);
  DatalinkPacketAck ack;
  EXPECT_EQ(ack.Unpack(reinterpret_cast<const char*>(got1.data() + 2), got1.size() - 2), kUnpackBadChecksum);

  host.Send(clear, 1);
  Bytes padded{0x55, 0x00, 0xAA, 0x13};
  const Bytes frame2 = ackFrame(1);
  padded.insert(padded.end(), frame2.begin(), frame2.end());
  EXPECT_EQ(host.ReadRaw(1s, padded.size()), padded);

  host.Send(clear, 2);
  const Bytes frame3 = ackFrame(2);
  const std::size_t half = frame3.size() / 2;
  EXPECT_EQ(host.ReadRaw(2s, half), Bytes(frame3.begin(), frame3.begin() + half));
  EXPECT_TRUE(host.ReadRaw(100ms).empty()) << "the second half waits out the gap";
  EXPECT_EQ(host.ReadRaw(2s, frame3.size() - half), Bytes(frame3.begin() + half, frame3.end()));

  host.Send(clear, 3);
  EXPECT_TRUE(host.ReadRaw(200ms).empty()) << "a coalesced frame waits for the next one";
  host.Send(clear, 4);
  Bytes both = ackFrame(3);
  const Bytes frame5 = ackFrame(4);
  both.insert(both.end(), frame5.begin(), frame5.end());
  EXPECT_EQ(host.ReadRaw(1s, both.size()), both);
}

TEST(TallyvaneSim, CoalescedFrameGoesAloneWhenNothingFollows) {
  Host host({"--coalesce-frame", "1"});
  ClearPendingUpdate clear;
  host.Send(clear, 0);
  host.ExpectSilence(200ms);
  host.ExpectAck(0);
}

TEST(TallyvaneSim, DownlinkStreamIsParsedAcrossWritesAndGarbage) {
  Host host;
  auto packed = [](Packet&& p, unsigned seq) {
    p.SequenceNumber(seq);
    Bytes b(static_cast<std::size_t>(p.Length()));
    p.Pack(b.data());
    return lc::EncodeDownlinkFrame(lc::kPacketChannel, b.data(), b.size());
  };
  const int fd = open(host.dir().File("down").c_str(), O_WRONLY | O_NONBLOCK);
  ASSERT_GE(fd, 0);
  Bytes stream{0x13, 0xAA, 0x00};
  const Bytes a = packed(ClearPendingUpdate(), 10);
  const Bytes b = packed(ClearPendingUpdate(), 11);
  const Bytes c = packed(ClearPendingUpdate(), 12);
  stream.insert(stream.end(), a.begin(), a.end());
  stream.insert(stream.end(), b.begin(), b.begin() + 4);
  ASSERT_EQ(write(fd, stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
  host.ExpectAck(10);
  host.ExpectSilence();
  Bytes rest(b.begin() + 4, b.end());
  rest.insert(rest.end(), c.begin(), c.end());
  ASSERT_EQ(write(fd, rest.data(), rest.size()), static_cast<ssize_t>(rest.size()));
  host.ExpectAck(11);
  host.ExpectAck(12);
  EXPECT_TRUE(host.sim().WaitForLine("WARN skipped 3 downlink bytes", 1s));

  // A damaged packet and one on another channel are not acknowledged.
  Bytes damaged = packed(ClearPendingUpdate(), 13);
  damaged.back() ^= 0x40;
  Bytes other = packed(ClearPendingUpdate(), 14);
  other[2] = 4;
  damaged.insert(damaged.end(), other.begin(), other.end());
  ASSERT_EQ(write(fd, damaged.data(), damaged.size()), static_cast<ssize_t>(damaged.size()));
  host.ExpectSilence(300ms);
  EXPECT_TRUE(host.sim().WaitForLine("WARN bad ClearPendingUpdate code=4", 1s));
  EXPECT_TRUE(host.sim().WaitForLine("WARN channel 4 ignored", 1s));
  close(fd);
}

TEST(TallyvaneSim, SignalEndsTheRunWithWhatWasReceived) {
  Host host({"--out", "@/partial.out"});
  const Bytes image = MakeImage(100);
  UpdateAvailable available(1, ByteSum(image), 100);
  host.Send(available, 0);
  host.ExpectAck(0);
  host.Expect<ReceivedFirmwareBlock>();
  FirmwareBlock block(0, Bytes(image.begin(), image.begin() + 30));
  host.Send(block, 1);
  host.ExpectAck(1);
  host.Expect<ReceivedFirmwareBlock>();
  host.sim().Signal(SIGTERM);
  EXPECT_EQ(host.sim().Wait(), 1);
  EXPECT_EQ(host.sim().WaitForLine("VERDICT", 1s).value_or(""), "VERDICT incomplete bytes=30 expected=100");
  Bytes expected(image.begin(), image.begin() + 30);
  expected.resize(100, 0);
  EXPECT_EQ(ReadFile(host.dir().File("partial.out")), std::string(expected.begin(), expected.end()));
}

TEST(TallyvaneSim, NoAnnouncementMeansNoVerdict) {
  Host host;
  host.sim().Signal(SIGINT);
  EXPECT_EQ(host.sim().Wait(), 1);
  EXPECT_TRUE(host.sim().WaitForLine("VERDICT none", 1s));
}

TEST(TallyvaneSimCommandLine, HelpAndBadArguments) {
  using Updater::Testing::RunProcess;
  const auto help = RunProcess(TALLYVANE_SIM_BIN, {"--help"}, {{}, {}, 10s, {}, {}});
  EXPECT_EQ(help.exitStatus, 0);
  EXPECT_NE(help.out.find("--uplink PATH"), std::string::npos);
  EXPECT_NE(help.out.find("--error-after N"), std::string::npos);

  TempDir dir;
  const std::string file = dir.Write("plain");
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {},
           {"--uplink", dir.File("u")},
           {"--uplink", dir.File("u"), "--downlink", dir.File("u")},
           {"--uplink", dir.File("u"), "--downlink", dir.File("d"), "--bogus"},
           {"--uplink", dir.File("u"), "--downlink", dir.File("d"), "--drop-ack-seq", "1,x"},
           {"--uplink", dir.File("u"), "--downlink", dir.File("d"), "--drop-ack-seq", "256"},
           {"--uplink", dir.File("u"), "--downlink", dir.File("d"), "--start"},
           {"--uplink", file, "--downlink", dir.File("d")},
           {"--uplink", dir.File("made"), "--downlink", file},
       }) {
    const auto run = RunProcess(TALLYVANE_SIM_BIN, args, {{}, {}, 10s, {}, {}});
    EXPECT_EQ(run.exitStatus, 2) << run.err;
    EXPECT_FALSE(run.err.empty());
  }
  // A refused start leaves no FIFO behind.
  EXPECT_NE(access(dir.File("made").c_str(), F_OK), 0);
  EXPECT_NE(access(dir.File("d").c_str(), F_OK), 0);
}

}  // namespace
