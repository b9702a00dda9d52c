#include "options.hpp"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <map>
#include <type_traits>

namespace tallyvane_sim {

const char* const kUsage =
    R"(Usage: tallyvane-sim --uplink PATH --downlink PATH [options]

Plays the counter-link board on the far side of its two devices. Both paths
are created as FIFOs when absent (an existing FIFO is reused) and removed
again at exit when the sim created them. The sim opens both O_RDWR, so that
neither side ever waits for the other to open: frames written before the
updater opens the uplink wait in the pipe, and Send_Dl_Us_Raw always finds a
reader while the sim runs.

  --uplink PATH             board -> host frames: 0xAA 0xA9, then the packet
  --downlink PATH           host -> board frames, as Send_Dl_Us_Raw writes
                            them (point QUORVEX_TALLYVANE_DOWNLINK here)
  --out FILE                write the received image here
  --version-file PATH       write --board-version here at start, and the
                            announced version after an ApplyUpdate that
                            follows a good image (for QUORVEX_TALLYVANE_VERSION_FILE)
  --board-version N         running firmware version (default 1)
  --partial-version N       UpdateInfo: version of a partial download (0)
  --downloaded-blocks N     UpdateInfo: downloaded blocks (0)
  --block-size N            UpdateInfo: block size (64)
  --flash-region N          UpdateInfo: flash region (0)
  --start N                 first byte position asked for (0)
  --max-image-bytes N       larger announced images get UpdateError (16 MiB)
  --help                    this text

Fault injection. LIST is comma-separated numbers counted from 1; frames are
all uplink frames in the order written, reports all ReceivedFirmwareBlock
packets (the first one, after UpdateAvailable, is report 1).
  --drop-ack-every N        withhold every Nth DatalinkPacketAck
  --drop-ack-seq LIST       withhold the ack for these sequence numbers
                            (0..255), once per listed occurrence
  --drop-report-every N     withhold every Nth block report
  --drop-reports LIST       withhold these block reports
  --report-delay-ms N       send block reports (and UpdateComplete) N ms late
  --corrupt-frame LIST      flip the lowest bit of these frames' last byte
                            (the packet's check value)
  --coalesce-frame LIST     hold these frames back and write each together
                            with the next frame in one write() (alone after
                            500 ms if no frame follows)
  --split-frame LIST        write these frames in two write()s
  --split-gap-ms N          pause between the two halves (20)
  --garbage-before LIST     write 4 garbage bytes (55 00 AA 13) in a write()
                            of their own before these frames
  --error-after N           after the Nth stored chunk send UpdateError
                            instead of a report and forget the update (once)
  --duplicate-reports LIST  send these block reports twice, the copy 20 ms
                            after the first, when the host has moved on
  --mute-after N            after the Nth stored chunk answer nothing any
                            more: a board that stopped mid-transfer
  --stuck-after N           from the Nth stored chunk on, every report asks
                            for the chunk just received again
  --answer-delay-ms N       write every frame N ms late, acknowledgements
                            too, as a board busy erasing flash does; frames
                            keep their order
  --answer-jitter-ms N      vary each such delay at random by up to N ms
                            either way, never below 0 (the same sequence in
                            every run)
  --stale-after N           from the Nth report on, follow every report at
                            once with the one before it again
  --complete-after N        after the Nth stored chunk, follow its report with
                            an UpdateComplete (once), however much is held
  --forget-after N          after the Nth stored chunk forget the update, as a
                            restarted board: every frame is still
                            acknowledged, no chunk is reported any more (once;
                            a new UpdateAvailable starts over)

Behaviour. Every well-formed downlink packet that wants an acknowledgement
is acknowledged with DatalinkPacketAck (its sequence number, ok). Then:
RequestUpdateInfo -> UpdateInfo. UpdateAvailable (version, byte-sum
checksum, length in bytes) starts a transfer: the sim reports
(last -1, next START). Each FirmwareBlock is stored at its position and
reported as (last = position + length - 1, next = first byte not yet held at
or after position + length, wrapping to 0). When every byte is held, the
report says next 0xFFFFFFFF, UpdateComplete follows, the image is checked
against the announced length and checksum (256 - byte sum) mod 65536,
written to --out, and a verdict line is printed. ClearPendingUpdate forgets
the transfer. ApplyUpdate ends the sim; so do SIGINT and SIGTERM.

Output, one line each, flushed: "READY" once the FIFOs exist and are open;
"RX <Type> seq=S ..." per packet received; "TX <n> <Type> ..." per frame
written; "DROP ..." per withheld packet; "FORGET ..." when the update is
forgotten; "WARN ..." for malformed input; "VERDICT ok bytes=N
checksum=xxxx version=V", "VERDICT bad-checksum bytes=N checksum=xxxx
expected=yyyy", "VERDICT bad-length bytes=N expected=M", "VERDICT
incomplete bytes=R expected=M" or "VERDICT none"; "APPLY" on ApplyUpdate.
At exit without a verdict for the current transfer, the bytes
held so far are written (gaps as zeros) and an incomplete (or none) verdict
is printed.

Exit status: 0 when the last verdict was ok, 1 otherwise, 2 for a bad
command line.
)";

namespace {

bool ParseUnsigned(const std::string& text, unsigned long long max, unsigned long long& value) {
  if (text.empty() || text[0] < '0' || text[0] > '9') return false;
  errno = 0;
  char* end = nullptr;
  value = std::strtoull(text.c_str(), &end, 0);
  return errno == 0 && *end == '\0' && value <= max;
}

bool ParseSigned(const std::string& text, int& value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v < INT_MIN || v > INT_MAX) return false;
  value = static_cast<int>(v);
  return true;
}

template <typename Set>
bool ParseList(const std::string& text, unsigned long long max, Set& into) {
  std::size_t at = 0;
  while (at <= text.size()) {
    const std::size_t comma = text.find(',', at);
    const std::string item = text.substr(at, comma == std::string::npos ? std::string::npos : comma - at);
    unsigned long long v = 0;
    if (!ParseUnsigned(item, max, v)) return false;
    into.insert(static_cast<unsigned>(v));
    if (comma == std::string::npos) break;
    at = comma + 1;
  }
  return true;
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options& o, bool& help, std::string& error) {
  help = false;
  using Handler = std::function<bool(const std::string&)>;
  auto number = [](auto& field, unsigned long long max) {
    return Handler([&field, max](const std::string& v) {
      unsigned long long n = 0;
      if (!ParseUnsigned(v, max, n)) return false;
      field = static_cast<std::remove_reference_t<decltype(field)>>(n);
      return true;
    });
  };
  auto positive = [](unsigned& field) {
    return Handler([&field](const std::string& v) {
      unsigned long long n = 0;
      if (!ParseUnsigned(v, UINT_MAX, n) || n == 0) return false;
      field = static_cast<unsigned>(n);
      return true;
    });
  };
  auto text = [](std::string& field) {
    return Handler([&field](const std::string& v) {
      field = v;
      return !v.empty();
    });
  };
  auto frames = [](std::set<unsigned>& field) {
    return Handler([&field](const std::string& v) { return ParseList(v, UINT_MAX, field); });
  };
  const std::map<std::string, Handler> handlers{
      {"--uplink", text(o.uplink)},
      {"--downlink", text(o.downlink)},
      {"--out", text(o.out)},
      {"--version-file", text(o.versionFile)},
      {"--board-version", Handler([&o](const std::string& v) { return ParseSigned(v, o.boardVersion); })},
      {"--partial-version", number(o.partialVersion, 0xFFFF)},
      {"--downloaded-blocks", number(o.downloadedBlocks, 0xFFFFFFFFull)},
      {"--block-size", number(o.blockSize, 0xFF)},
      {"--flash-region", Handler([&o](const std::string& v) { return ParseSigned(v, o.flashRegion); })},
      {"--start", number(o.start, 0xFFFFFFFEull)},
      {"--max-image-bytes", number(o.maxImageBytes, 0xFFFFFFFFull)},
      {"--drop-ack-every", positive(o.dropAckEvery)},
      {"--drop-ack-seq", Handler([&o](const std::string& v) { return ParseList(v, 255, o.dropAckSeq); })},
      {"--drop-report-every", positive(o.dropReportEvery)},
      {"--drop-reports", frames(o.dropReports)},
      {"--report-delay-ms", number(o.reportDelayMs, 600000)},
      {"--corrupt-frame", frames(o.corruptFrames)},
      {"--coalesce-frame", frames(o.coalesceFrames)},
      {"--split-frame", frames(o.splitFrames)},
      {"--split-gap-ms", number(o.splitGapMs, 60000)},
      {"--garbage-before", frames(o.garbageBefore)},
      {"--error-after", positive(o.errorAfterChunks)},
      {"--duplicate-reports", frames(o.duplicateReports)},
      {"--mute-after", positive(o.muteAfterChunks)},
      {"--stuck-after", positive(o.stuckAfterChunks)},
      {"--answer-delay-ms", number(o.answerDelayMs, 600000)},
      {"--answer-jitter-ms", number(o.answerJitterMs, 600000)},
      {"--stale-after", positive(o.staleAfterReports)},
      {"--complete-after", positive(o.completeAfterChunks)},
      {"--forget-after", positive(o.forgetAfterChunks)},
  };

  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      help = true;
      return true;
    }
    std::string name = arg;
    std::string value;
    bool haveValue = false;
    if (const std::size_t eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      haveValue = true;
    }
    const auto handler = handlers.find(name);
    if (handler == handlers.end()) {
      error = "unknown option: " + arg;
      return false;
    }
    if (!haveValue) {
      if (i + 1 >= argc) {
        error = "missing value for " + name;
        return false;
      }
      value = argv[++i];
    }
    if (!handler->second(value)) {
      error = "bad value for ";
      error.append(name).append(": ").append(value);
      return false;
    }
  }
  if (o.uplink.empty() || o.downlink.empty()) {
    error = "--uplink and --downlink are required";
    return false;
  }
  if (o.uplink == o.downlink) {
    error = "--uplink and --downlink must differ";
    return false;
  }
  return true;
}

}  // namespace tallyvane_sim
