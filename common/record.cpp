#include "common/record.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <utility>

namespace Updater::Record {

Recorder::Recorder(std::string path, Json::Object header, std::ostream& warnings)
    : path_(std::move(path)), header_(std::move(header)), warnings_(warnings) {}

// A run that ends without naming a package still leaves what it recorded.
Recorder::~Recorder() {
  const std::lock_guard<std::mutex> lock(mutex_);
  WriteHeaderLocked();
  if (file_ != nullptr) (void)std::fclose(file_);
}

void Recorder::Package(const std::string& name, std::int64_t size, std::int64_t checksum) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (headerWritten_) return;
  header_.Add("package", name).Add("size", size).Add("checksum", checksum);
  WriteHeaderLocked();
}

void Recorder::WriteHeader() {
  const std::lock_guard<std::mutex> lock(mutex_);
  WriteHeaderLocked();
}

void Recorder::Exchange(Json::Object line) {
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto since = last_ ? std::chrono::duration_cast<std::chrono::milliseconds>(now - *last_).count() : 0;
  last_ = now;
  line.Add("ms", std::int64_t{since});
  if (headerWritten_)
    WriteLocked(line.Text());
  else if (!failed_)
    held_.push_back(line.Text());
}

void Recorder::Exit(int status) {
  const std::lock_guard<std::mutex> lock(mutex_);
  WriteHeaderLocked();
  WriteLocked(Json::Object().Add("exit", status).Text());
}

void Recorder::WriteHeaderLocked() {
  if (headerWritten_) return;
  headerWritten_ = true;
  WriteLocked(header_.Text());
  for (const auto& line : held_) WriteLocked(line);
  held_.clear();
}

// Each line is flushed at once: a run that is killed keeps what it recorded.
void Recorder::WriteLocked(const std::string& line) {
  if (failed_) return;
  if (file_ == nullptr) {
    file_ = std::fopen(path_.c_str(), "ae");
    if (file_ == nullptr) return FailLocked(errno);
  }
  if (std::fputs(line.c_str(), file_) < 0 || std::fputc('\n', file_) < 0 || std::fflush(file_) != 0)
    FailLocked(errno);
}

void Recorder::FailLocked(int error) {
  failed_ = true;
  held_.clear();
  warnings_ << "Not recording to [" << path_ << "]: " << std::strerror(error) << std::endl;
}

namespace {
std::unique_ptr<Recorder> gRecorder;
}  // namespace

void Start(const std::string& target, const std::string& index) {
  const char* path = std::getenv(kVariable);
  if (path == nullptr || *path == '\0' || gRecorder) return;
  Json::Object header;
  header.Add("recording", 1).Add("program", "firmware-updater").Add("version", FWU_VERSION);
  header.Add("target", target).Add("index", index);
  // The settings that change how the run meets its target's answers.
  if (const char* stall = std::getenv("QUORVEX_STALL_SECONDS")) header.Add("stall_seconds", stall);
  if (const char* reader = std::getenv("QUORVEX_TALLYVANE_READER")) header.Add("reader", reader);
  gRecorder = std::make_unique<Recorder>(path, std::move(header), std::cerr);
}

Recorder* Active() { return gRecorder.get(); }

}  // namespace Updater::Record
