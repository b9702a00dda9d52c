// The counter-link helper on one thread and a fake clock, the test (or the board simulator) playing the
// board: frames fed one read() at a time, the downlink read back from a FIFO.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <iostream>
#include <tuple>

#include "fake_clock.hpp"
#include "helpers/tallyvane/tallyvane.hpp"
#include "board.hpp"
#include "lc/downlink_frame.hpp"
#include "link.hpp"
#include "temp_dir.hpp"
#include "text.hpp"
#include "vyrcam/packets.hpp"

namespace {

using namespace std::chrono_literals;
using namespace VYRCam;
using Bytes = std::vector<std::uint8_t>;
using Updater::Helpers::Tallyvane;
using namespace Updater::Testing;

Bytes Frame(const Packet& packet) {  // 0xAA 0xA9 and the packed packet, as the board writes it
  Bytes out{0xAA, 0xA9};
  out.resize(2 + static_cast<std::size_t>(packet.Length()));
  return packet.Pack(out.data() + 2), out;
}
Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
std::vector<long long> Fields(const Tallyvane::LinkState& s) {  // every field, in declaration order
  return {s.updateCompleted, s.partialDlVer, s.downloadedBlocks, s.flashSector, s.haveUpdateInfo, s.firstBlock,
          s.lastReceived,    s.nextBlock,    s.blockReportReceived, s.lastSentBlock, s.lastAckedBlock};
}

class LinkTest : public testing::Test {
 protected:
  // The downlink device is a FIFO whose read end stays open, so that every write lands.
  LinkTest() {
    mkfifo((dir / "downlink").c_str(), 0600);
    tap = open((dir / "downlink").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    setenv("QUORVEX_TALLYVANE_DOWNLINK", (dir / "downlink").c_str(), 1);
    setenv("QUORVEX_FIRMWARE_DIR", dir.path().c_str(), 1);
    setenv("QUORVEX_TALLYVANE_VERSION_FILE", dir.Write("board-version", "5\n").c_str(), 1);
    std::cout << std::dec;  // a helper before us may have left it in hexadecimal
    Tallyvane::lastProgressPrint = clock.Now() - 1h;
  }
  ~LinkTest() override { close(tap); }
  std::vector<Bytes> Sent() {  // the packets written since the last call, in order; each on the helper's channel
    Bytes got(1 << 16);
    got.resize(static_cast<std::size_t>(std::max<ssize_t>(0, read(tap, got.data(), got.size()))));
    std::vector<Bytes> out;
    for (std::size_t at = 0, count = 0; at + lc::kDownlinkHeaderBytes <= got.size(); at += 5 + count) {
      EXPECT_TRUE(got[at] == 0xAA && got[at + 1] == 0xA9 && got[at + 2] == Tallyvane::kDownlinkChannel);
      count = got[at + 3] | (got[at + 4] << 8);
      out.emplace_back(got.begin() + at + 5, got.begin() + std::min(got.size(), at + 5 + count));
    }
    return out;
  }
  void Feed(const Bytes& bytes) { helper.Receive(bytes.data(), bytes.size()); }
  std::string Printed(const Bytes& bytes) { return Stdout([&] { Feed(bytes); }); }
  void AckEverything() {
    for (auto sequence : helper.PendingSequences()) Feed(Frame(DatalinkPacketAck(sequence, true)));
  }
  void SendAndReport(int reportedOffset = 0) {  // one chunk the way the machine sends it, reported by the board
    ASSERT_TRUE(helper.SendBlock(0, Bytes(4, 0x5A)));
    AckEverything();
    Feed(Frame(ReceivedFirmwareBlock(helper.State().lastSentBlock + reportedOffset, 0)));
  }
  TempDir dir;
  int tap = -1;
  FakeClock clock;
  Tallyvane helper{dir / "no-device", clock};
};

// The progress line's throttle; reads cut into frames and resynchronised; the link state the frames leave.
TEST_F(LinkTest, ReadsAreCutIntoFramesResynchroniseOnTheSyncBytesAndUpdateTheLinkState) {
  // Exactly the interval since the last progress line is still quiet; the end of the image always prints.
  const struct { std::chrono::milliseconds wait; int last; std::uint32_t next; bool printed; } steps[] = {
      {0ms, 0, 64, true},           {500ms, 64, 128, false},      {500ms, 128, 192, false},
      {0ms, 192, 0xFFFFFFFF, true}, {0ms, 192, 0xFFFFFFFF, true}, {1ms, 192, 256, true}};
  for (const auto& step : steps) {
    clock.Advance(step.wait);
    const std::string line = "Processing ACK for firmware block, last byte: [" + std::to_string(step.last) +
                             "], next byte: [" + std::to_string(static_cast<int>(step.next)) + "]\n";
    EXPECT_EQ(Printed(Frame(ReceivedFirmwareBlock(step.last, step.next))), step.printed ? line : "") << step.last;
  }
  // One read each, on a fresh helper. After a frame that does not unpack, every byte up to the next sync bytes
  // (or the end of the read) costs a dump and a "CHOKE"; a packet without sync bytes in front is never taken.
  // syslog() mirrors its records to stderr under LOG_PERROR, so all failure reports are seen.
  auto cut = [](Bytes frame, std::size_t by) { return Bytes(frame.begin(), frame.end() - by); };
  auto flip = [](Bytes frame, std::size_t at) { return frame[at] ^= 0x10, frame; };
  auto typed = [](std::uint8_t type) { auto f = Frame(UpdateComplete()); return f[3] = type, f; };
  auto dump = [](const Bytes& read, std::size_t from) {
    std::string out = "*** Received:\n";
    for (auto i = from; i < read.size(); ++i) out += {"0123456789ABCDEF"[read[i] >> 4], "0123456789ABCDEF"[read[i] & 15], ' '};
    return out + "\nCHOKE\n";
  };
  const auto report = Frame(ReceivedFirmwareBlock(-1, 128)), badCrc = flip(Frame(ReceivedFirmwareBlock(10, 20)), 14);
  const Bytes unsynced(report.begin() + 2, report.end());
  const std::string red = "\033[0;31mfw-updater Debug: [ERROR] -- Failed to Unpack ", reset = "]\033[0m\n",
                    badReport = red + "ReceivedFirmwareBlock [4" + reset;
  const struct { Bytes read; std::size_t chokes; bool gulp; int next; std::string failure; } rows[] = {
      {{0xAA, 0xA9}, 0, false, -1, ""}, {{0x01, 0x02}, 0, false, -1, ""}, {Concat({{0x00}, report}), 0, true, -1, ""},
      {Concat({{0xAA, 0x00}, report}), 0, true, -1, ""}, {Concat({{0x12, 0x34}, unsynced}), 0, true, -1, ""},
      {Concat({report, {0x55, 0x66, 0x77}, Frame(ReceivedFirmwareBlock(128, 192))}), 0, true, 128, ""},
      {Concat({typed(34), report}), 7, false, 128, ""}, {Concat({typed(40), report}), 7, false, 128, ""},
      {Concat({badCrc, report}), 15, false, 128, badReport},
      {Concat({badCrc, {0x12, 0x34}, unsynced}), 30, false, -1, badReport},
      {Concat({badCrc, {0xAA, 0x00}, unsynced}), 30, false, -1, badReport},
      {Concat({typed(34), {0x12, 0x34}, unsynced}), 22, false, -1, ""},
      {cut(Frame(UpdateInfo(1, 2, 64, 3)), 4), 14, false, -1, red + "UpdateInfo [1" + reset},
      {flip(Frame(UpdateComplete()), 4), 7, false, -1, red + "UpdateComplete [4" + reset},
      {flip(Frame(DatalinkPacketAck(7, true)), 8), 9, false, -1, "Failed to Unpack DataLink Packet ACK [4]"},
      {cut(Frame(UpdateError()), 1), 6, false, -1, "Failed to Unpack UpdateError [1]"},
  };
  openlog("tallyvane-test", LOG_PERROR, LOG_USER);
  for (const auto& row : rows) {
    Tallyvane fresh{dir / "no-device", clock};
    std::string out;
    const auto err = Stderr([&] { out = Stdout([&] { fresh.Receive(row.read.data(), row.read.size()); }); });
    SCOPED_TRACE(out + err);  // failed frames set neither the update information nor the completion
    EXPECT_EQ(std::make_tuple(CountOf(out, "CHOKE\n"), fresh.State().nextBlock, CountOf(out + err, "Failed to Unpack"),
                              fresh.State().haveUpdateInfo + fresh.State().updateCompleted),
              std::make_tuple(row.chokes, row.next, std::size_t{!row.failure.empty()}, 0));
    // The dumps come first, after a red failure line; without a CHOKE only a GULP may be printed.
    EXPECT_EQ(out.find(dump(row.read, 0) + dump(row.read, 1)),
              row.chokes == 0 ? std::string::npos : out.rfind(row.failure, 0) == 0 ? row.failure.size() : 0);
    EXPECT_TRUE(row.chokes > 0 || out == (row.gulp ? "GULP; ignoring this frame's data\n" : ""));
    EXPECT_NE((out + err).find(row.failure), std::string::npos);
  }
  closelog();
  // Frames of one read in order, a completion handled once, then an update error that resets
  // everything but the flash sector (not part of an update's progress) and prints nothing.
  Feed(Concat({Frame(UpdateInfo(0x1234, 0xFFFFFFFE, 32, 7)), Frame(ReceivedFirmwareBlock(-1, 10)),
               Frame(ReceivedFirmwareBlock(10, 20))}));
  // Blocks sign-extended from 32 bits; the first block is set only by the first report, the next by the last.
  EXPECT_EQ(Fields(helper.State()), (std::vector<long long>{0, 0x1234, -2, 7, 1, 10, 10, 20, 1, -1, 10}));
  EXPECT_NE(Printed(Frame(UpdateComplete())).find("that the update has completed!"), std::string::npos);
  const auto apply = Sent();
  EXPECT_TRUE(apply.size() == 1 && apply[0][1] == kApplyUpdate);
  Feed(Frame(DatalinkPacketAck(0, true)));  // so that a second ApplyUpdate could not be held back by the queue
  EXPECT_EQ(Printed(Frame(UpdateComplete())), "");
  EXPECT_TRUE(Sent().empty());
  EXPECT_EQ(Fields(helper.State()), (std::vector<long long>{1, 0x1234, -2, 7, 1, -1, -1, -1, 1, -1, -1}));
  helper.SendBlock(40, Bytes(8, 0x11));
  Feed(Frame(ReceivedFirmwareBlock(40, 80)));
  ASSERT_EQ(helper.PendingCount(), 1u);
  EXPECT_EQ(Printed(Frame(UpdateError())), "");
  EXPECT_EQ(helper.PendingCount(), 0u);
  EXPECT_EQ(Fields(helper.State()), (std::vector<long long>{0, 0, 0, 7, 0, 0, -1, -1, 0, -1, -1}));
}

// Packets that want an acknowledgement queue behind the one on the wire; only the oldest is resent, once it
// has waited more than 3 s; sequences wrap at 256. The acknowledgement wait adapts the packet size.
TEST_F(LinkTest, SendPathQueuesResendsWrapsSequencesAndTheAckWaitAdaptsThePacketSize) {
  RequestUpdateInfo request; ClearPendingUpdate clear; DatalinkPacketAck noAck(1, true);  // never queued
  EXPECT_EQ((std::vector<bool>{helper.SendPacket(request), helper.SendPacket(clear), helper.SendPacket(noAck)}),
            (std::vector<bool>{true, false, true}));
  const auto sent = Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_TRUE(sent[0][1] == kRequestUpdateInfo && sent[1][1] == kDatalinkPacketAck);
  ASSERT_EQ(helper.PendingSequences(), (Bytes{0, 1}));
  auto resend = [&](std::chrono::nanoseconds wait) {
    return clock.Advance(wait), Stderr([&] { EXPECT_TRUE(helper.ResendExpired()); });
  };
  EXPECT_EQ(resend(3000ms), "");
  EXPECT_EQ(resend(1ns), "VYR cam expired ACK [#0], resending.\n");
  EXPECT_EQ(resend(0ns), "");  // the resend restarted its timer
  EXPECT_EQ(Sent(), (std::vector<Bytes>{sent[0]}));
  Feed(Frame(DatalinkPacketAck(0, false)));  // a refusal changes nothing
  EXPECT_EQ(helper.PendingSequences(), (Bytes{0, 1}));
  Feed(Concat({Frame(DatalinkPacketAck(0, true)), Frame(DatalinkPacketAck(9, true))}));
  EXPECT_EQ(helper.PendingSequences(), (Bytes{1}));
  EXPECT_EQ(resend(3001ms), "VYR cam expired ACK [#1], resending.\n");  // the one queued behind leaves the same way
  const auto again = Sent();
  EXPECT_TRUE(again.size() == 1 && again[0][1] == kClearPendingUpdate);
  // Once nothing is outstanding there is nothing to miss.
  EXPECT_EQ((std::vector<bool>{helper.RemovePending(9), helper.RemovePending(1), helper.RemovePending(9)}),
            (std::vector<bool>{false, true, true}));
  auto out = Stdout([&] { for (int i = 3; i < 258; ++i) ASSERT_TRUE(helper.SendPacket(noAck)); });
  const auto wrapped = Sent();
  ASSERT_EQ(wrapped.size(), 255u);
  for (std::size_t i = 0; i < wrapped.size(); ++i) ASSERT_EQ(wrapped[i][2], (i + 3) % 256) << i;
  EXPECT_NE(out.find(" ** Sending message pkt # [255]\n ** Sending message pkt # [0]\n"), std::string::npos);
  // The packet size drops to 1 after a failed wait and climbs back to 64.
  ASSERT_TRUE(helper.SendBlock(0, {1}));  // never reported by the board
  EXPECT_EQ(Stderr([&] { out = Stdout([&] { EXPECT_EQ(helper.WaitForAck(0), 1); }); }),
            "Caught ACK timeout! Still waiting...\n");
  EXPECT_NE(out.find("Tallyvane ACK status: 1\n\033[0;36mfw-updater Debug: Clearing Vexalume packet queue\033[0m\n"
                     "********************* Dropping packet size to [1]\n"), std::string::npos);
  EXPECT_EQ(helper.PacketSize(), 1);
  EXPECT_EQ(helper.PendingCount(), 0u);
  // Three attempts, each 167 polls of 30 ms and 12 pauses of 250 ms.
  EXPECT_EQ(std::make_tuple(clock.Sleeps(), clock.Slept()),
            std::make_tuple(3 * (167 + 12), 3 * (167 * 30ms + 12 * 250ms)));
  for (int expected : {2, 4, 8, 16, 32, 64, 64}) {  // at the top it stays there, without a word about it
    SendAndReport();
    const std::string bump = expected != helper.PacketSize() ? "Bumping packet size to [" + std::to_string(expected) + "]\n" : "";
    EXPECT_EQ(Stdout([&] { EXPECT_EQ(helper.WaitForAck(0), 0); }), "[Talyvane] waiting for ACK!\nTallyvane ACK status: 0\n" + bump);
    EXPECT_EQ(helper.PacketSize(), expected);
  }
  // A report beyond the last sent block is taken as a missed acknowledgement, once.
  SendAndReport(100);
  const std::string both = std::to_string(helper.State().lastAckedBlock);
  const auto slept = clock.Slept();
  out = Stdout([&] { EXPECT_EQ(helper.WaitForAck(0), 0); });
  EXPECT_EQ(CountOf(out, "************************************* Debug: Possible missed ACK?\n"), 1u);
  EXPECT_NE(out.find("Last Acked: [" + both + "], last sent: [" + both + "]\n"), std::string::npos);
  EXPECT_EQ(std::to_string(helper.State().lastSentBlock), both);
  EXPECT_EQ(clock.Slept() - slept, 30ms + 250ms) << "one 30 ms poll for the report, one pause before the second round";
}

// A board that never answers costs 102 polls 100 ms apart. Chunks are read at the positions the board names,
// from the image as it is at that moment.
TEST_F(LinkTest, UpdateCheckGivesUpOnASilentBoardAndChunksAreReadAtTheBoardsPositions) {
  EXPECT_EQ(Stdout([&] { EXPECT_EQ(helper.CheckForUpdate(), 0); }),
            " ** Sending message pkt # [0]\n\033[0;31mfw-updater Debug: [ERROR] -- Error asking tallyvane for update "
            "info status, not updating\033[0m\n");
  EXPECT_EQ(std::make_tuple(clock.Sleeps(), clock.Slept()), std::make_tuple(102, 102 * 100ms));
  Stdout([&] {  // 256 less the byte sum, in 16 bits
    EXPECT_EQ(std::make_tuple(Tallyvane::tallyvane_checksum("", 0), Tallyvane::tallyvane_checksum("abc", 3)),
              std::make_tuple(256, 65498));
  });
  const auto image = RandomBytes(1000, 5);
  const auto path = dir.Write("tallyvane-7.bin", image);
  Feed(Frame(UpdateInfo(0, 0, 64, 1)));  // the board has answered already
  Stdout([&] { ASSERT_EQ(helper.CheckForUpdate(), 1); });
  AckEverything(), Sent();
  EXPECT_TRUE(helper.HaveUpdateFile());
  const auto send = [&](int at, int result) { return Stderr([&] { EXPECT_EQ(helper.SendFirmwareBlock(at), result) << at; }); };
  const auto past = [](int at, int read) {
    return "Chunk #[" + std::to_string(at) + "] extends past file (length [1000]), this should be the last chunk!\n"
           "Couldn't read full [64] bytes into chunk, only read [" + std::to_string(read) + "] bytes.\n";
  };
  const auto chunk = [&](int at, const std::string& warning) {  // the data of the one block it sends
    EXPECT_EQ(send(at, 1), warning);
    const auto sent = Sent();
    FirmwareBlock block;
    EXPECT_TRUE(sent.size() == 1 && block.Unpack(reinterpret_cast<const char*>(sent[0].data()), sent[0].size()) == 0);
    AckEverything();
    return std::string(block.Data().begin(), block.Data().end());
  };
  EXPECT_EQ(chunk(100, ""), image.substr(100, 64));
  EXPECT_EQ(chunk(960, past(960, 40)), image.substr(960));
  EXPECT_TRUE(chunk(1000, past(1000, 0)).empty());
  EXPECT_EQ(send(1001, 0), "Calculated chunk start of [1001] which is larger than the firmware file... aborting update.\n");
  // A chunk that ends exactly at the end is not announced as running past it; each chunk reopens the image.
  dir.Write("tallyvane-7.bin", std::string(1000, 'x'));
  EXPECT_EQ(chunk(936, ""), std::string(64, 'x'));
  std::filesystem::remove(path);
  send(0, 0);
  EXPECT_TRUE(Sent().empty());
  // A FIFO swapped in since the scan is refused at once; so is a directory that others may write.
  const auto refused = [](const std::string& what) {  // the red line
    return "\033[0;31mfw-updater Debug: [ERROR] -- " + what + "; not updating\033[0m\n";
  };
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(Stdout([&] { send(0, 0); }), refused("Firmware package [" + path + "] is not a regular file"));
  std::filesystem::remove(path);
  dir.Write("tallyvane-7.bin", image);
  chmod(dir.path().c_str(), 0703);
  EXPECT_EQ(Stdout([&] { send(0, 0); }),
            refused("Firmware directory [" + dir.path() + "] is writable by group or others"));
}

// The helper against the board simulator, which answers whenever the helper waits. An image no newer than the
// board's, or none, is no update; a newer one is announced and sent through the board's faults, each costing
// what it names. A lost or damaged acknowledgement strands the next chunk behind the unacknowledged one, and an
// error report ends the update; anything else is survived. The board judges the image by the announced byte
// sum, so an image replaced after the check arrives with a bad one.
TEST_F(LinkTest, UpdatesTheSimulatedBoardThroughItsFaults) {
  using tallyvane_sim::Options;
  const std::string ok = "VERDICT ok bytes=";
  const struct { const char* name; void (*faults)(Options&); std::size_t chunks, chokes, gulps; std::string verdict;
                 bool replaced = false; std::size_t imageBytes = 1000; std::string boardVersion = "5"; } rows[] = {
      {"clean", [](Options&) {}, 16, 0, 0, ok},
      // Several checksum pieces, the sum carried across them.
      {"large image", [](Options&) {}, 3125, 0, 0, ok, false, 200000},
      {"the board's version", [](Options&) {}, 0, 0, 0, "", false, 1000, "7"},
      {"no image, and the board's version unknown", [](Options&) {}, 0, 0, 0, "", false, 0, "garbage"},
      {"split and coalesced frames", [](Options& o) { o.splitFrames = {5}, o.coalesceFrames = {6, 9}; }, 16, 0, 0, ok},
      {"start mid-image", [](Options& o) { o.start = 600; }, 17, 0, 0, ok},  // up to the end, then from 0
      {"report dropped", [](Options& o) { o.dropReports = {5}; }, 17, 0, 0, ok},
      {"report corrupted", [](Options& o) { o.corruptFrames = {10}; }, 17, 15, 0, ok},
      {"garbage before a report", [](Options& o) { o.garbageBefore = {10}; }, 17, 0, 1, ok},
      {"acknowledgement corrupted", [](Options& o) { o.corruptFrames = {9}; }, 3, 9, 0, ""},
      {"acknowledgement dropped", [](Options& o) { o.dropAckEvery = 5; }, 3, 0, 0, ""},
      {"error mid-way", [](Options& o) { o.errorAfterChunks = 3; }, 3, 0, 0, ""},
      {"image replaced after the check", [](Options&) {}, 16, 0, 0, "VERDICT bad-checksum bytes=1000", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto image = RandomBytes(row.imageBytes, 9);
    std::filesystem::remove(dir / "tallyvane-7.bin"), std::filesystem::remove(dir / "received.bin");
    if (row.imageBytes) dir.Write("tallyvane-7.bin", image);
    dir.Write("board-version", row.boardVersion);
    Options options;
    options.out = dir / "received.bin";
    row.faults(options);
    int uplink[2];  // the board's frames, all read at once as the receive loop would
    ASSERT_EQ(pipe2(uplink, O_NONBLOCK | O_CLOEXEC), 0);
    std::string said, verdict;
    const tallyvane_sim::Say say = [&](const std::string& line) { (line.rfind("VERDICT", 0) ? said : verdict) += line; };
    tallyvane_sim::UplinkWriter writer(uplink[1], options, say);
    tallyvane_sim::Board board(options, [&](Bytes p, auto delay, std::string what) { writer.Queue(p, delay, what); }, say);
    Tallyvane host{dir / "no-device", clock};
    Tallyvane::sentBlockCounter = 0;  // as in a process of its own
    clock.onSleep = [&, start = clock.Slept()] {
      if (clock.Slept() - start > 10h) throw std::runtime_error("the helper waits for ever");  // a fault that hangs the update
      for (const auto& packet : Sent()) board.OnFrame(lc::kPacketChannel, packet);
      writer.Flush();
      Bytes got(1 << 16);
      got.resize(static_cast<std::size_t>(std::max<ssize_t>(0, read(uplink[0], got.data(), got.size()))));
      host.Receive(got.data(), got.size());
    };
    const auto out = Capture([&] {  // as the machine drives it, up to the last chunk or a failure
      try {
        if (host.CheckForUpdate() != 1) return;
        if (row.replaced) dir.Write("tallyvane-7.bin", RandomBytes(1000, 10));
        for (int block = host.GetFirstUpdateBlock(); host.SendFirmwareBlock(block);)
          if (host.WaitForAck(block) == 0 && (block = host.GetNextFirmwareBlock()) == -1) break;
      } catch (const std::runtime_error& e) { ADD_FAILURE() << e.what(); }
    }).out;
    clock.onSleep = nullptr;
    close(uplink[0]), close(uplink[1]);
    EXPECT_EQ(std::make_tuple(CountOf(said, "RX UpdateAvailable"), CountOf(said, "RX FirmwareBlock"), CountOf(out, "CHOKE\n"),
                              CountOf(out, "GULP"), verdict.substr(0, row.verdict.size()), host.HaveUpdateFile()),
              std::make_tuple(std::size_t{row.chunks > 0}, row.chunks, row.chokes, row.gulps, row.verdict, row.imageBytes > 0))
        << verdict;
    EXPECT_EQ(ReadFile(dir / "received.bin") == image && CountOf(verdict, " version=7"), row.verdict == ok);
  }
}

}  // namespace
