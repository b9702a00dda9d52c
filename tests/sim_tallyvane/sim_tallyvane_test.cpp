// The board simulator in-process; as a program it is exercised by the helper's transfer test.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "board.hpp"
#include "lc/downlink_frame.hpp"
#include "link.hpp"
#include "temp_dir.hpp"

namespace {

using namespace tallyvane_sim;
using namespace VYRCam;

struct Bench {
  explicit Bench(const Options& o) : options(o) {}
  // Hands `packet` to the board, then takes in the board packets that come
  // back intact, skipping damaged bytes one by one.
  void Exchange(Packet& packet) {
    packet.SequenceNumber(sequence++);
    Bytes bytes(static_cast<std::size_t>(packet.Length()));
    board.OnFrame(lc::kPacketChannel, (packet.Pack(bytes.data()), bytes));
    uplink.Flush();
    Bytes up(1 << 16);
    up.resize(static_cast<std::size_t>(std::max<ssize_t>(0, pread(fileno(file.get()), up.data(), up.size(), consumed))));
    consumed += static_cast<off_t>(up.size());
    bool reported = false, errored = false;
    for (std::size_t at = 0; at < up.size();) {
      ReceivedFirmwareBlock report; UpdateComplete done; UpdateError error; DatalinkPacketAck ack;
      Packet* intact = nullptr;
      for (Packet* candidate : std::initializer_list<Packet*>{&report, &done, &error, &ack})
        if (up[at] == 0xAA && at + 2 < up.size() && up[at + 1] == 0xA9 &&
            candidate->Unpack(reinterpret_cast<const char*>(&up[at + 2]), up.size() - at - 2) == kUnpackOk)
          intact = candidate;
      skipped += intact == nullptr;
      at += intact == nullptr ? 1 : 2 + static_cast<std::size_t>(intact->Length());
      if (intact == &report) next = report.Next();
      reported |= intact == &report, complete |= intact == &done, errored |= intact == &error;
    }
    restarts += errored;
    resends += !reported && !complete && !errored;
  }

  const Options options;
  std::string verdict;  // the last VERDICT line
  std::uint32_t next = 0;
  bool complete = false;
  int resends = 0, skipped = 0, restarts = 0;
  std::unique_ptr<FILE, int (*)(FILE*)> file{std::tmpfile(), &std::fclose};
  off_t consumed = 0;
  unsigned sequence = 0;
  Say say = [this](const std::string& line) { verdict = line.rfind("VERDICT", 0) == 0 ? line : verdict; };
  UplinkWriter uplink{fileno(file.get()), options, say};
  Board board{options, [this](Bytes p, auto delay, std::string what) { uplink.Queue(std::move(p), delay, what); }, say};
};

// Each fault set must cost the host what it names (a resend, skipped bytes, a restart) and no more, and the
// transfer still completes; the verdict judges the announced checksum.
TEST(SimTransfer, CompletesThroughFaultsAndJudgesTheImage) {
  const struct { const char* name; void (*faults)(Options&); int hashError; bool resent, skipped, restarted; } rows[] = {
      {"start_wraps", [](Options& o) { o.start = 600; }, 0, false, false, false},
      {"dropped_and_corrupted", [](Options& o) { o.dropReports = {3}, o.corruptFrames = {4, 5}, o.dropAckEvery = 2; }, 0,
       true, true, false},
      {"garbage_split_coalesced",
       [](Options& o) { o.garbageBefore = {3, 8}, o.splitFrames = {5}, o.coalesceFrames = {6, 9}; }, 0, false, true, false},
      {"error_mid_way", [](Options& o) { o.errorAfterChunks = 3; }, 0, false, false, true},
      {"bad_checksum", [](Options&) {}, 1, false, false, false}};
  Bytes image(1000);
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Updater::Testing::TempDir dir;
    Options options;
    options.out = dir / "image.out";
    row.faults(options);
    Bench bench(options);
    UpdateAvailable announce(7, static_cast<std::uint16_t>(ByteSumChecksum(image) + row.hashError), 1000);
    bench.Exchange(announce);
    EXPECT_EQ(bench.next, options.start);
    // After a restart the board has forgotten the update; without a fresh report, the same position goes again.
    for (int round = 0, restarts = 0; round < 100 && !bench.complete && bench.next < image.size(); ++round) {
      const auto end = image.begin() + std::min<std::size_t>(bench.next + 64, image.size());
      FirmwareBlock block(static_cast<int>(bench.next), Bytes(image.begin() + bench.next, end));
      bench.Exchange(std::exchange(restarts, bench.restarts) != bench.restarts ? static_cast<Packet&>(announce) : block);
    }
    ASSERT_TRUE(bench.complete);
    EXPECT_EQ((std::vector<bool>{bench.resends > 0, bench.skipped > 0, bench.restarts > 0}),
              (std::vector<bool>{row.resent, row.skipped, row.restarted}));
    EXPECT_EQ(bench.verdict.rfind(row.hashError ? "VERDICT bad-checksum bytes=1000" : "VERDICT ok bytes=1000 checksum=", 0),
              0u) << bench.verdict;
    std::ifstream in(options.out, std::ios::binary);
    EXPECT_EQ(Bytes(std::istreambuf_iterator<char>(in), {}), image);
  }
}

}  // namespace
