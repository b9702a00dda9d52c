#include "replay.hpp"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "camera_model.hpp"
#include "dbus/camd_record.hpp"

namespace CamdSim {

namespace {

using Updater::Camd::MethodInfo;
using Updater::Camd::Reply;
using Updater::Record::Recording;

constexpr const char* kMismatchError = "com.quorvex.common.Camd1.Error.ReplayMismatch";

std::string CallText(const std::string& method, const std::string& args) { return method + "(" + args + ")"; }

}  // namespace

Replay::Replay(const std::string& path, bool fast, Say say)
    : fast_(fast),
      say_(std::move(say)),
      recording_(path, [this](int number, const Updater::Json::Object& line) { Read(number, line); }) {}

void Replay::Read(int number, const Updater::Json::Object& line) {
  if (number == 1 && line.String("target") == std::string("camera"))
    camera_ = line.String("index").value_or("0");
  const auto call = line.String(Updater::Camd::kCallKey);
  if (!call) return;  // the header, the exit status
  Entry entry;
  entry.line = number;
  entry.call = CallText(*call, line.String(Updater::Camd::kArgsKey).value_or(""));
  entry.intReply = line.Number(Updater::Camd::kReplyKey);
  entry.boolReply = line.Flag(Updater::Camd::kReplyKey);
  entry.error = line.String(Updater::Camd::kErrorKey).value_or("");
  entry.message = line.String(Updater::Camd::kMessageKey).value_or("");
  entry.took = std::max<std::int64_t>(0, line.Number(Updater::Camd::kTookKey).value_or(0));
  entries_.push_back(std::move(entry));
}

void Replay::Handle(const MethodInfo& method, sdbus::MethodCall& call) {
  const std::string in = method.in;
  std::string args;
  received_.reset();
  if (in == "iii") {
    std::int32_t version = 0, checksum = 0, length = 0;
    call >> version >> checksum >> length;
    args = Updater::Camd::ArgsText(version, checksum, length);
    offered_ = {checksum, length};
  } else if (in == "iay") {
    Chunk chunk;
    call >> chunk.position >> chunk.data;
    args = Updater::Camd::ArgsText(chunk.position, chunk.data);
    received_ = std::move(chunk);
  }
  const std::string got = CallText(method.name, args);
  if (broken_ || next_ >= entries_.size() || entries_[next_].call != got) return Mismatch(got, call);
  const Entry& entry = entries_[next_++];
  if (!fast_ && entry.took > 0) std::this_thread::sleep_for(std::chrono::milliseconds(entry.took));
  Track(method.name, entry);
  // Said before the answer goes: the updater may end as soon as it has it.
  if (next_ == entries_.size()) say_("REPLAY complete: " + std::to_string(entries_.size()) + " calls");
  Answer(method, entry, call);
}

// Only the first is named; every later call meets the same error, so that
// the updater ends along its own failure paths.
void Replay::Mismatch(const std::string& got, sdbus::MethodCall& call) {
  if (!broken_) {
    broken_ = true;
    say_(next_ >= entries_.size() ? recording_.MismatchAtEnd(got)
                                  : Recording::Mismatch(entries_[next_].line, entries_[next_].call, got));
  }
  call.createErrorReply(sdbus::Error(kMismatchError, "not in the recording: " + got)).send();
}

void Replay::Track(const std::string& method, const Entry& entry) {
  if (!entry.error.empty()) return;
  if (method == "SendUpdateAvailable" && entry.boolReply == true) {
    announcedCrc_ = offered_.first;
    announcedLength_ = offered_.second;
    image_.clear();
    pending_.reset();
    verdictGiven_ = false;
  } else if (method == "SendFirmwareBlock" && entry.boolReply == true) {
    pending_ = std::move(received_);
  } else if (method == "DequeuePacket") {
    pending_.reset();
  } else if (method == "WaitForAck" && (entry.intReply == 0 || entry.intReply == 3)) {
    if (pending_ && pending_->position >= 0) {
      const auto end = static_cast<std::size_t>(pending_->position) + pending_->data.size();
      if (end > image_.size()) image_.resize(end);
      std::copy(pending_->data.begin(), pending_->data.end(), image_.begin() + pending_->position);
    }
    pending_.reset();
    if (entry.intReply == 3 && !verdictGiven_) {
      verdictGiven_ = true;
      const unsigned crc = Crc16(image_);
      const bool ok =
          static_cast<int>(image_.size()) == announcedLength_ && static_cast<int>(crc) == announcedCrc_;
      char line[160];
      (void)std::snprintf(line, sizeof line, "VERDICT %s camera=%s bytes=%zu crc=%04x", ok ? "ok" : "bad",
                          camera_.c_str(), image_.size(), crc);
      say_(line);
    }
  }
}

void Replay::Answer(const MethodInfo& method, const Entry& entry, sdbus::MethodCall& call) {
  if (!entry.error.empty()) {
    call.createErrorReply(sdbus::Error(entry.error, entry.message)).send();
    return;
  }
  auto reply = call.createReply();
  if (method.reply == Reply::Int && entry.intReply) reply << static_cast<std::int32_t>(*entry.intReply);
  if (method.reply == Reply::Bool && entry.boolReply) reply << *entry.boolReply;
  reply.send();
}

}  // namespace CamdSim
