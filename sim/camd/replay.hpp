// camd-sim --replay=FILE: camd as a recorded update saw it (QUORVEX_RECORD,
// see common/record.hpp). Each call is checked against the recording's next
// one (method and arguments, a byte array by length and CRC-32) and answered
// as recorded, after the recorded delay unless told to hurry. A call the
// recording does not have at that point is named on standard output,
// "REPLAY mismatch at line N: expected ..., got ...", answered with a D-Bus
// error, and ends the simulator, so that a replay never hangs.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/recording_reader.hpp"
#include "dbus/camd_methods.hpp"

namespace sdbus {
class MethodCall;
}

namespace CamdSim {

class Replay {
 public:
  // Lines of standard output (mismatch, completion, verdict).
  using Say = std::function<void(const std::string&)>;

  // Reads the recording; throws std::runtime_error naming a line it cannot use.
  Replay(const std::string& path, bool fast, Say say);

  // The camera index the recording was made with.
  const std::string& Camera() const { return camera_; }

  // Answers `call` of `method` from the recording. Event-loop thread.
  void Handle(const Updater::Camd::MethodInfo& method, sdbus::MethodCall& call);

 private:
  struct Entry {
    int line = 0;  // in the file, from 1
    std::string call;
    std::optional<std::int64_t> intReply;
    std::optional<bool> boolReply;
    std::string error, message;
    std::int64_t took = 0;
  };
  struct Chunk {
    int position = 0;
    std::vector<std::uint8_t> data;
  };

  // One line of the recording, while it is read.
  void Read(int number, const Updater::Json::Object& line);
  void Mismatch(const std::string& got, sdbus::MethodCall& call);
  // Follows the image the way camd keeps it, for the verdict.
  void Track(const std::string& method, const Entry& entry);
  void Answer(const Updater::Camd::MethodInfo& method, const Entry& entry, sdbus::MethodCall& call);

  bool fast_;
  Say say_;
  std::string camera_ = "0";
  std::vector<Entry> entries_;
  std::size_t next_ = 0;
  bool broken_ = false;

  std::int32_t announcedCrc_ = -1;
  std::int32_t announcedLength_ = -1;
  std::vector<std::uint8_t> image_;
  std::optional<Chunk> received_;                  // the chunk of the call being answered
  std::pair<std::int32_t, std::int32_t> offered_;  // checksum and length of the last announcement
  std::optional<Chunk> pending_;
  bool verdictGiven_ = false;
  // Last: it reads the file into the members above.
  Updater::Record::Recording recording_;
};

}  // namespace CamdSim
