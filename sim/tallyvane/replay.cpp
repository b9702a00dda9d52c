#include "replay.hpp"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "board.hpp"
#include "common/board_record.hpp"
#include "lc/downlink_frame.hpp"
#include "vyrcam/packets.hpp"

namespace tallyvane_sim {

namespace {

constexpr std::chrono::milliseconds kWriteLimit{1000};

Bytes FromHex(const std::string& hex) {
  if (hex.size() % 2 != 0) throw std::invalid_argument("odd hex");
  Bytes bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2)
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

std::string Hex4(unsigned value) {
  char text[8];
  (void)std::snprintf(text, sizeof text, "%04x", value & 0xFFFF);
  return text;
}

}  // namespace

bool TakeReplayOptions(int argc, char** argv, ReplayOptions& replay, std::vector<char*>& rest,
                       std::string& error) {
  rest.assign(argv, argv + std::min(argc, 1));
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--replay-fast") {
      replay.fast = true;
    } else if (arg.rfind("--replay=", 0) == 0) {
      replay.path = arg.substr(9);
    } else if (arg == "--replay") {
      if (i + 1 >= argc) {
        error = "missing value for --replay";
        return false;
      }
      replay.path = argv[++i];
    } else {
      rest.push_back(argv[i]);
    }
  }
  rest.push_back(nullptr);
  return true;
}

BoardReplay::BoardReplay(const std::string& path, bool fast, Say say)
    : fast_(fast),
      say_(std::move(say)),
      recording_(path, [this](int number, const Updater::Json::Object& line) { Read(number, line); }) {
  ScheduleReads();
}

void BoardReplay::Read(int number, const Updater::Json::Object& line) {
  if (const auto version = line.Number("board_version")) boardVersion_ = static_cast<int>(*version);
  const auto dir = line.String("dir");
  if (!dir) return;  // the header, the version, the exit status
  Entry entry;
  entry.line = number;
  try {
    if (*dir != "tx" && *dir != "rx") throw std::invalid_argument("direction");
    entry.sent = *dir == "tx";
    if (entry.sent) entry.text = Updater::Record::SentText(line);
    if (!entry.sent) entry.bytes = FromHex(line.String("hex").value_or(""));
  } catch (const std::exception&) {
    throw std::invalid_argument("not a recorded frame");
  }
  entry.ms = std::chrono::milliseconds(std::max<std::int64_t>(0, line.Number("ms").value_or(0)));
  entries_.push_back(std::move(entry));
}

void BoardReplay::ScheduleReads() {
  auto at = Clock::now();
  for (; next_ < entries_.size() && !entries_[next_].sent; ++next_) {
    if (!fast_) at += entries_[next_].ms;
    due_.push_back({at, entries_[next_].bytes});
  }
  if (next_ == entries_.size()) complete_ = true;
}

void BoardReplay::OnPacket(const Bytes& packet) {
  const std::string got = Updater::Record::SentText(Updater::Record::BoardSent(packet.data(), packet.size()));
  if (broken_ || next_ >= entries_.size() || entries_[next_].text != got) {
    if (!broken_) {
      say_(next_ >= entries_.size()
               ? recording_.MismatchAtEnd(got)
               : Updater::Record::Recording::Mismatch(entries_[next_].line, entries_[next_].text, got));
      broken_ = true;
      complete_ = false;
      due_.clear();
    }
    return Answer(packet);
  }
  ++next_;
  Track(packet);
  applied_ = packet.size() > 1 && packet[1] == VYRCam::kApplyUpdate;
  ScheduleReads();
}

void BoardReplay::Answer(const Bytes&) {
  VYRCam::UpdateError error;
  Bytes frame{lc::kSync0, lc::kSync1};
  frame.resize(2 + static_cast<std::size_t>(error.Length()));
  error.Pack(frame.data() + 2);
  due_.push_back({Clock::now(), std::move(frame)});
}

// The image as the board keeps it: chunks inside the announced length.
void BoardReplay::Track(const Bytes& packet) {
  if (packet.size() > 1 && packet[1] == VYRCam::kUpdateAvailable) {
    VYRCam::UpdateAvailable offer;
    if (offer.Unpack(reinterpret_cast<const char*>(packet.data()), packet.size()) != 0) return;
    announced_ = true;
    hash_ = offer.Hash();
    version_ = offer.Version();
    image_.assign(offer.Chunks(), 0);
    held_.assign(offer.Chunks(), false);
    heldCount_ = 0;
    verdictGiven_ = false;
  } else if (packet.size() > 1 && packet[1] == VYRCam::kFirmwareBlock) {
    VYRCam::FirmwareBlock block;
    if (block.Unpack(reinterpret_cast<const char*>(packet.data()), packet.size()) != 0 ||
        block.BlockNum() < 0)
      return;
    for (std::size_t i = 0; i < block.Data().size(); ++i) {
      const std::size_t at = static_cast<std::size_t>(block.BlockNum()) + i;
      if (at >= image_.size()) break;
      image_[at] = block.Data()[i];
      if (!held_[at]) ++heldCount_;
      held_[at] = true;
    }
  }
}

void BoardReplay::Pump(int fd) {
  while (!due_.empty() && due_.front().at <= Clock::now()) {
    const Bytes bytes = std::move(due_.front().bytes);
    due_.pop_front();
    if (lc::WriteWithin(fd, bytes.data(), bytes.size(), kWriteLimit) < bytes.size())
      say_("WARN uplink full, dropped part of " + std::to_string(bytes.size()) + " bytes");
  }
  if (complete_ && due_.empty() && !verdictGiven_) {
    say_("REPLAY complete: " + std::to_string(entries_.size()) + " frames");
    Verdict();
  }
}

std::chrono::milliseconds BoardReplay::TimeToNext(std::chrono::milliseconds idle) const {
  if (due_.empty()) return idle;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due_.front().at - Clock::now());
  return std::clamp(left + std::chrono::milliseconds(1), std::chrono::milliseconds(0), idle);
}

bool BoardReplay::Verdict() {
  if (verdictGiven_) return ok_;
  verdictGiven_ = true;
  const std::string bytes = std::to_string(heldCount_);
  const std::uint16_t sum = ByteSumChecksum(image_);
  if (!announced_) {
    say_("VERDICT none");
  } else if (heldCount_ < image_.size()) {
    say_("VERDICT incomplete bytes=" + bytes + " expected=" + std::to_string(image_.size()));
  } else if (sum != hash_) {
    say_("VERDICT bad-checksum bytes=" + bytes + " checksum=" + Hex4(sum) + " expected=" + Hex4(hash_));
  } else {
    ok_ = true;
    say_("VERDICT ok bytes=" + bytes + " checksum=" + Hex4(sum) + " version=" + std::to_string(version_));
  }
  return ok_;
}

int RunReplay(const ReplayOptions& replayOptions, const Options& options, int down, int up,
              const volatile std::sig_atomic_t& stop, const Say& say) {
  std::unique_ptr<BoardReplay> replay;
  try {
    replay = std::make_unique<BoardReplay>(replayOptions.path, replayOptions.fast, say);
  } catch (const std::exception& e) {
    std::cerr << "tallyvane-sim: " << e.what() << '\n';
    return 2;
  }
  if (const auto version = replay->BoardVersion())
    Board(
        options, [](const Bytes&, std::chrono::milliseconds, const std::string&) {}, say)
        .WriteVersionFile(*version);
  say("READY uplink=" + options.uplink + " downlink=" + options.downlink + " replay=" + replayOptions.path);
  DownlinkParser parser;
  while (stop == 0 && !replay->Ended()) {
    pollfd pfd{down, POLLIN, 0};
    const int ready =
        poll(&pfd, 1, static_cast<int>(replay->TimeToNext(std::chrono::milliseconds(100)).count()));
    if (ready > 0 && (pfd.revents & POLLIN) != 0) {
      std::uint8_t buffer[4096];
      const ssize_t n = read(down, buffer, sizeof buffer);
      if (n > 0) parser.Feed(buffer, static_cast<std::size_t>(n));
    }
    DownlinkParser::Frame frame;
    while (parser.Next(frame))
      if (frame.channel == lc::kPacketChannel) replay->OnPacket(frame.payload);
    replay->Pump(up);
  }
  replay->Pump(up);
  return replay->Verdict() && !replay->Broken() ? 0 : 1;
}

}  // namespace tallyvane_sim
