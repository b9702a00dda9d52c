#include "camera_model.hpp"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "common/crc16.hpp"

namespace CamdSim {

namespace {

long ToLong(const std::string& text) {
  std::size_t used = 0;
  const long value = std::stol(text, &used);
  if (used != text.size()) throw std::invalid_argument("not a number: " + text);
  return value;
}

// "Method" or "Method@RANGES"; "all" stands for every method.
MethodFault ParseMethodFault(const std::string& text) {
  const auto at = text.find('@');
  MethodFault fault;
  fault.method = text.substr(0, at);
  fault.calls = at == std::string::npos ? Ranges::All() : Ranges::Parse(text.substr(at + 1));
  if (fault.method.empty()) throw std::invalid_argument("missing method name in " + text);
  return fault;
}

// "RANGES:VALUE": the calls in RANGES answer VALUE. `form` names the
// option's shape for the complaint.
std::pair<Ranges, int> ParseRangedValue(const std::string& text, const std::string& form) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos) throw std::invalid_argument(form);
  return {Ranges::Parse(text.substr(0, colon)), static_cast<int>(ToLong(text.substr(colon + 1)))};
}

}  // namespace

Ranges Ranges::Parse(const std::string& text) {
  Ranges ranges;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (item.empty()) continue;
    const auto dash = item.find('-');
    if (dash == std::string::npos) {
      const long n = ToLong(item);
      ranges.spans_.emplace_back(n, n);
    } else {
      const long from = ToLong(item.substr(0, dash));
      const std::string rest = item.substr(dash + 1);
      ranges.spans_.emplace_back(from, rest.empty() ? -1 : ToLong(rest));
    }
  }
  if (ranges.spans_.empty()) throw std::invalid_argument("empty call range: " + text);
  return ranges;
}

bool Ranges::Contains(long n) const {
  return std::any_of(spans_.begin(), spans_.end(), [n](const auto& span) {
    return n >= span.first && (span.second < 0 || n <= span.second);
  });
}

std::string Usage() {
  return R"usage(Usage: camd-sim [OPTION]...
Serves camd's firmware interface (com.quorvex.common.Camd1.Firmware) on the
session bus named by DBUS_SESSION_BUS_ADDRESS and behaves like a camera taking
a firmware update. Log lines go to standard error, "camd-sim[*]: serving N
camera(s)" once its name is on the bus; standard output carries only the
verdict once the last chunk is acknowledged:
  VERDICT ok|bad camera=IDX bytes=N crc=xxxx [expected-bytes=N expected-crc=xxxx]

Camera:
  --camera=IDX           serve the camera with index text IDX (repeatable; default 0)
  --version=N            firmware version running in the camera (default 1); once
                         it holds the whole announced image with the announced
                         CRC, it runs the announced version
  --region=N             flash region reported by GetFlashRegion (default 0)
  --first=N              first position asked for (default 0; negative refuses)
  --preload=FILE         resume: the camera already holds bytes [0, first) of FILE
  --out=FILE             write the received image to FILE (FILE.IDX with several cameras)
  --verdict=FILE         append the verdict line to FILE too
  --quiet                log nothing per call (only "serving")

Faults (RANGES are 1-based call numbers of that method: 3 | 3-12 | 20- | 1,4-6):
  --info-false=N|forever UpdateInfoReceived answers false for the first N polls
  --lose-acks=RANGES     these WaitForAck calls answer 1 (lost); DequeuePacket then
                         discards the pending chunk
  --loss-rate=P          every WaitForAck answers 1 with probability P (0..1)
  --seed=N               seed for --loss-rate (default 1)
  --ack-status=RANGES:S  these WaitForAck calls answer status S
  --fail-send=RANGES     these SendFirmwareBlock calls answer false
  --negative-next=RANGES these GetNextFirmwareBlock calls answer -1
  --next=RANGES:POS      these GetNextFirmwareBlock calls answer position POS
  --refuse-announcement  SendUpdateAvailable answers false and keeps nothing
  --restart-at=N         the N-th WaitForAck call finds the update forgotten, as
                         a restarted camd would: chunks are then acknowledged
                         with 0, the next position follows them to the end of
                         the image and stays there, and the image never completes
  --error=METHOD[@RANGES]       answer with a D-Bus error (METHOD may be "all")
  --wrong-type=METHOD    answer every call with the other type (b for i, i for b)
  --slow=METHOD:MS       hold every reply of METHOD for MS milliseconds
  --exit-after=N         end the process (status 3) on receiving the N-th call

Replay (see docs/recording.md):
  --replay=FILE          answer as the update recorded in FILE (QUORVEX_RECORD) was
                         answered, call by call, each after its recorded delay; serve
                         the recording's camera; faults and camera options are ignored.
                         "REPLAY mismatch at line N: expected ..., got ..." on
                         standard output names the first call the recording does not
                         have at that point; it and every later call get a D-Bus
                         error. "REPLAY complete: N calls" follows the last recorded
                         call; a recording that delivered the image prints its
                         VERDICT line as the camera would.
  --replay-fast          no delays
  --help                 this text
)usage";
}

std::optional<Options> ParseOptions(const std::vector<std::string>& args, std::string& message,
                                    bool& helpRequested) {
  Options options;
  helpRequested = false;
  try {
    for (const auto& arg : args) {
      if (arg == "--help" || arg == "-h") {
        helpRequested = true;
        message = Usage();
        return std::nullopt;
      }
      if (arg == "--quiet") {
        options.quiet = true;
        continue;
      }
      if (arg == "--replay-fast") {
        options.replayFast = true;
        continue;
      }
      if (arg == "--refuse-announcement") {
        options.refuseAnnouncement = true;
        continue;
      }
      const auto eq = arg.find('=');
      if (arg.rfind("--", 0) != 0 || eq == std::string::npos)
        throw std::invalid_argument("unknown argument " + arg);
      const std::string name = arg.substr(2, eq - 2);
      const std::string value = arg.substr(eq + 1);
      if (name == "camera") {
        options.cameras.push_back(value);
      } else if (name == "version") {
        options.firmwareVersion = static_cast<int>(ToLong(value));
      } else if (name == "region") {
        options.flashRegion = static_cast<int>(ToLong(value));
      } else if (name == "first") {
        options.firstBlock = static_cast<int>(ToLong(value));
      } else if (name == "preload") {
        options.preloadPath = value;
      } else if (name == "out") {
        options.outPath = value;
      } else if (name == "verdict") {
        options.verdictPath = value;
      } else if (name == "info-false") {
        options.infoFalsePolls = value == "forever" ? -1 : ToLong(value);
      } else if (name == "lose-acks") {
        options.lostAcks = Ranges::Parse(value);
      } else if (name == "loss-rate") {
        options.lossRate = std::stod(value);
      } else if (name == "seed") {
        options.seed = static_cast<unsigned>(ToLong(value));
      } else if (name == "ack-status") {
        options.ackStatuses.push_back(ParseRangedValue(value, "--ack-status needs RANGES:S"));
      } else if (name == "fail-send") {
        options.failedSends = Ranges::Parse(value);
      } else if (name == "next") {
        options.nextPositions.push_back(ParseRangedValue(value, "--next needs RANGES:POS"));
      } else if (name == "restart-at") {
        options.restartAtAck = ToLong(value);
      } else if (name == "negative-next") {
        options.negativeNext = Ranges::Parse(value);
      } else if (name == "error") {
        options.errors.push_back(ParseMethodFault(value));
      } else if (name == "wrong-type") {
        options.wrongTypes.push_back(value);
      } else if (name == "slow") {
        const auto colon = value.find(':');
        if (colon == std::string::npos) throw std::invalid_argument("--slow needs METHOD:MS");
        options.slowMs[value.substr(0, colon)] = static_cast<int>(ToLong(value.substr(colon + 1)));
      } else if (name == "replay") {
        options.replayPath = value;
      } else if (name == "exit-after") {
        options.exitAfterCalls = ToLong(value);
      } else {
        throw std::invalid_argument("unknown option --" + name);
      }
    }
  } catch (const std::exception& e) {
    message = std::string("camd-sim: ") + e.what() + "\n(see --help)";
    return std::nullopt;
  }
  if (options.cameras.empty()) options.cameras.push_back("0");
  return options;
}

std::uint16_t Crc16(const std::vector<std::uint8_t>& data) {
  Updater::Crc16CcittFalse crc;
  crc.process_bytes(data.data(), data.size());
  return crc.checksum();
}

Camera::Camera(std::string index, const Options& options)
    : index_(std::move(index)),
      options_(options),
      random_(options.seed),
      runningVersion_(options.firmwareVersion) {}

void Camera::RequestUpdateInfo() { infoRequested_ = true; }

bool Camera::UpdateInfoReceived() {
  ++infoPolls_;
  if (options_.infoFalsePolls < 0 || infoPolls_ <= options_.infoFalsePolls) return false;
  return infoRequested_;
}

bool Camera::SendUpdateAvailable(int version, int checksum, int length) {
  if (options_.refuseAnnouncement) return false;
  announcedVersion_ = version;
  announcedCrc_ = checksum;
  announcedLength_ = length;
  // Grown as chunks arrive: an announcement alone (say of 2 GiB) costs nothing.
  image_.clear();
  held_ = 0;
  chunksHeld_ = 0;
  pending_.reset();
  done_ = false;
  nextPosition_ = options_.firstBlock;
  if (!options_.preloadPath.empty() && options_.firstBlock > 0) {
    std::ifstream in(options_.preloadPath, std::ios::binary);
    image_.resize(static_cast<std::size_t>(std::min(std::max(length, 0), options_.firstBlock)));
    in.read(reinterpret_cast<char*>(image_.data()), static_cast<std::streamsize>(image_.size()));
    held_ = static_cast<long>(in.gcount());
    image_.resize(static_cast<std::size_t>(held_));
  }
  return true;
}

int Camera::GetFirstUpdateBlock() const { return options_.firstBlock; }

bool Camera::SendFirmwareBlock(int position, std::vector<std::uint8_t> data) {
  ++sendCalls_;
  if (options_.failedSends.Contains(sendCalls_)) return false;
  pending_ = Chunk{position, std::move(data)};
  return true;
}

int Camera::WaitForAck() {
  ++ackCalls_;
  if (ackCalls_ == options_.restartAtAck) ClearPendingUpdate();
  // Once complete the camera keeps saying so: the updater polls on after
  // any status but 0.
  if (done_) return 3;
  for (const auto& [calls, status] : options_.ackStatuses)
    if (calls.Contains(ackCalls_)) return status;
  if (options_.lostAcks.Contains(ackCalls_)) return 1;
  if (options_.lossRate > 0 && std::uniform_real_distribution<double>(0, 1)(random_) < options_.lossRate)
    return 1;
  if (!pending_) return 1;  // nothing was sent since the last acknowledgement or drop

  const Chunk chunk = std::move(*pending_);
  pending_.reset();
  if (chunk.position >= 0) {
    const auto begin = static_cast<std::size_t>(chunk.position);
    const auto end = begin + chunk.data.size();
    if (end > image_.size()) image_.resize(end);
    std::copy(chunk.data.begin(), chunk.data.end(), image_.begin() + static_cast<long>(begin));
    held_ = std::max<long>(held_, static_cast<long>(end));
  }
  ++chunksHeld_;
  nextPosition_ = chunk.position + static_cast<int>(chunk.data.size());
  if (announcedLength_ >= 0 && nextPosition_ >= announcedLength_) {
    done_ = true;
    if (Intact(Crc16(image_))) runningVersion_ = announcedVersion_;
    return 3;
  }
  return 0;
}

int Camera::GetNextFirmwareBlock() {
  ++nextCalls_;
  if (options_.negativeNext.Contains(nextCalls_)) return -1;
  for (const auto& [calls, position] : options_.nextPositions)
    if (calls.Contains(nextCalls_)) return position;
  return nextPosition_;
}

void Camera::DequeuePacket() {
  if (pending_) ++dequeued_;
  pending_.reset();
}

void Camera::ClearPendingUpdate() {
  pending_.reset();
  announcedLength_ = -1;
  image_.clear();
  held_ = 0;
  done_ = false;
}

std::string Camera::Verdict() const {
  const unsigned crc = Crc16(image_);
  const bool ok = Intact(crc);
  char buf[200];
  // Both lines fit the buffer: an index is cut short at worst.
  (void)std::snprintf(buf, sizeof buf, "VERDICT %s camera=%s bytes=%ld crc=%04x", ok ? "ok" : "bad",
                      index_.c_str(), held_, crc);
  std::string line = buf;
  if (!ok) {
    (void)std::snprintf(buf, sizeof buf, " expected-bytes=%d expected-crc=%04x", announcedLength_,
                        static_cast<unsigned>(announcedCrc_ & 0xFFFF));
    line += buf;
  }
  return line;
}

}  // namespace CamdSim
