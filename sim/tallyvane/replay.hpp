// tallyvane-sim --replay FILE: the board as a recorded update saw it
// (QUORVEX_RECORD; the board's line format is in common/board_record.hpp).
// Each packet the updater sends is checked against the recording's next one
// (type, sequence number, the whole packet, or for a FirmwareBlock its
// position and its chunk's length and CRC-32) and answered with the bytes
// the board's data device gave after it, each read() as one write(), at the
// recorded times unless --replay-fast. A packet the recording does not have
// at that point is named, "REPLAY mismatch at line N: expected ..., got ...",
// and answered with UpdateError, as is every packet after it, so that a
// replay never hangs.
#pragma once

#include <chrono>
#include <csignal>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "common/recording_reader.hpp"
#include "link.hpp"
#include "options.hpp"

namespace tallyvane_sim {

inline constexpr const char* kReplayUsage = R"(
Replay of a recorded update (QUORVEX_RECORD on the updater's side):
  --replay FILE             answer as the board in FILE did: each packet the
                            updater sends is checked against the recorded one
                            and followed by the bytes the board's device gave
                            after it, at the recorded times; the FIFOs,
                            --version-file (the recorded running version) and
                            nothing else of the above apply. "REPLAY mismatch
                            at line N: expected ..., got ..." names the first
                            packet the recording does not have at that point;
                            it and every later one get UpdateError. "REPLAY
                            complete: N frames" and the verdict follow the last
                            recorded frame; an ApplyUpdate there ends the sim.
  --replay-fast             without the recorded delays
)";

struct ReplayOptions {
  std::string path;  // empty: no replay
  bool fast = false;
};

// Takes --replay FILE (or --replay=FILE) and --replay-fast out of argv; the
// rest is for ParseOptions, argv[0] first. False with `error` set when
// --replay has no file.
bool TakeReplayOptions(int argc, char** argv, ReplayOptions& replay, std::vector<char*>& rest,
                       std::string& error);

class BoardReplay {
 public:
  // Reads the recording; throws std::runtime_error naming a line it cannot use.
  BoardReplay(const std::string& path, bool fast, Say say);

  // One downlink frame's packet.
  void OnPacket(const Bytes& packet);
  // Writes to `fd` whatever has come due.
  void Pump(int fd);
  std::chrono::milliseconds TimeToNext(std::chrono::milliseconds idle) const;
  // Every recorded frame replayed and written, the last one sent ApplyUpdate:
  // the board is done.
  bool Ended() const { return complete_ && applied_ && due_.empty(); }
  // The verdict on the image the updater sent, as the board gives it, said
  // once; true when it is ok.
  bool Verdict();
  bool Broken() const { return broken_; }
  // The running version the updater found, when the recording names it
  // ({"board_version":N}).
  std::optional<int> BoardVersion() const { return boardVersion_; }

 private:
  struct Entry {
    int line = 0;
    bool sent = false;  // tx: the updater's; rx: the board's
    std::string text;   // tx: Record::SentText
    Bytes bytes;        // rx
    std::chrono::milliseconds ms{0};
  };
  struct Due {
    Clock::time_point at;
    Bytes bytes;
  };

  // One line of the recording, while it is read; std::invalid_argument for a
  // line that is no frame.
  void Read(int number, const Updater::Json::Object& line);
  // Queues the board's reads up to the next packet of the updater's.
  void ScheduleReads();
  void Track(const Bytes& packet);
  void Answer(const Bytes& packet);

  bool fast_;
  Say say_;
  std::vector<Entry> entries_;
  std::size_t next_ = 0;
  std::deque<Due> due_;
  bool broken_ = false;
  bool complete_ = false;
  bool applied_ = false;
  bool verdictGiven_ = false;
  bool ok_ = false;
  std::optional<int> boardVersion_;

  bool announced_ = false;
  std::uint16_t hash_ = 0;
  std::uint16_t version_ = 0;
  Bytes image_;
  std::vector<bool> held_;
  std::size_t heldCount_ = 0;
  // Last: it reads the file into the members above.
  Updater::Record::Recording recording_;
};

// The replay's main loop on the opened FIFOs until the board is done or
// `stop` is set; returns the exit status: 0 when the image was delivered
// intact and nothing mismatched, 2 for a recording it cannot read, else 1.
// Writes the recorded running version to --version-file first, when both are there.
int RunReplay(const ReplayOptions& replayOptions, const Options& options, int down, int up,
              const volatile std::sig_atomic_t& stop, const Say& say);

}  // namespace tallyvane_sim
