// What camd-sim does for one camera, without any D-Bus in the way: the
// camera side of a firmware update and the faults it can be told to show.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace CamdSim {

// A set of 1-based call numbers: "3", "3-12", "20-" (from 20 on), "1,4-6".
class Ranges {
 public:
  static Ranges Parse(const std::string& text);  // throws std::invalid_argument
  static Ranges All() { return Parse("1-"); }
  bool Contains(long n) const;
  bool Empty() const { return spans_.empty(); }

 private:
  std::vector<std::pair<long, long>> spans_;  // inclusive; -1 as upper end: open
};

// A fault tied to the calls of one method, e.g. an error reply on the 2nd
// to 6th call of GetFlashRegion.
struct MethodFault {
  std::string method;
  Ranges calls;
};

struct Options {
  std::vector<std::string> cameras;  // index texts
  int firmwareVersion = 1;
  int flashRegion = 0;
  int firstBlock = 0;
  std::string preloadPath;  // resume: bytes [0, firstBlock) of this file are already held
  std::string outPath;      // where the received image goes
  std::string verdictPath;  // the verdict line also goes here
  bool quiet = false;

  // Faults.
  long infoFalsePolls = 0;  // UpdateInfoReceived answers false this often; <0: forever
  Ranges lostAcks;          // WaitForAck calls answering 1
  double lossRate = 0.0;    // WaitForAck answering 1 at random
  unsigned seed = 1;
  std::vector<std::pair<Ranges, int>> ackStatuses;    // WaitForAck calls answering a given status
  Ranges failedSends;                                 // SendFirmwareBlock calls answering false
  Ranges negativeNext;                                // GetNextFirmwareBlock calls answering -1
  std::vector<std::pair<Ranges, int>> nextPositions;  // GetNextFirmwareBlock calls answering a given position
  bool refuseAnnouncement = false;                    // SendUpdateAvailable answers false and keeps nothing
  long restartAtAck = 0;            // >0: on this WaitForAck call the update is forgotten, as after a restart
  std::vector<MethodFault> errors;  // D-Bus error replies
  std::vector<std::string> wrongTypes;  // methods answering with the other type
  std::map<std::string, int> slowMs;    // reply delay per method
  long exitAfterCalls = 0;              // >0: the process ends on receiving this call

  std::string replayPath;   // answer from this recording instead (see replay.hpp)
  bool replayFast = false;  // ... without its delays
};

// Parses the command line; on --help or an error fills `message` and returns
// nullopt (`helpRequested` tells which).
std::optional<Options> ParseOptions(const std::vector<std::string>& args, std::string& message,
                                    bool& helpRequested);
std::string Usage();

// CRC-16/CCITT-FALSE, the checksum camd checks the image against.
std::uint16_t Crc16(const std::vector<std::uint8_t>& data);

class Camera {
 public:
  Camera(std::string index, const Options& options);

  const std::string& Index() const { return index_; }

  void RequestUpdateInfo();
  bool UpdateInfoReceived();
  int GetFlashRegion() const { return options_.flashRegion; }
  // The announced version once the whole image is held intact, like a camera
  // that has applied it; until then --version.
  int GetCameraFirmwareVersion() const { return runningVersion_; }
  bool SendUpdateAvailable(int version, int checksum, int length);
  int GetFirstUpdateBlock() const;
  bool SendFirmwareBlock(int position, std::vector<std::uint8_t> data);
  int WaitForAck();
  int GetNextFirmwareBlock();
  void DequeuePacket();
  int GetPreviouslyDownloadedChunks() const { return chunksHeld_; }
  void ClearPendingUpdate();

  // Set once the last chunk has been acknowledged.
  bool Done() const { return done_; }
  // "VERDICT ok camera=0 bytes=N crc=xxxx" (or "bad", with what was expected).
  std::string Verdict() const;
  const std::vector<std::uint8_t>& Image() const { return image_; }
  int Dequeued() const { return dequeued_; }

 private:
  bool Intact(unsigned crc) const {
    return done_ && held_ == announcedLength_ && static_cast<int>(crc) == announcedCrc_;
  }

  struct Chunk {
    int position;
    std::vector<std::uint8_t> data;
  };

  std::string index_;
  const Options& options_;
  std::mt19937 random_;

  bool infoRequested_ = false;
  long infoPolls_ = 0;
  long sendCalls_ = 0;
  long ackCalls_ = 0;
  long nextCalls_ = 0;

  int runningVersion_;
  int announcedVersion_ = -1;
  int announcedCrc_ = -1;
  int announcedLength_ = -1;
  std::vector<std::uint8_t> image_;
  long held_ = 0;  // bytes [0, held_) are in place
  int nextPosition_ = 0;
  int chunksHeld_ = 0;
  std::optional<Chunk> pending_;
  int dequeued_ = 0;
  bool done_ = false;
};

}  // namespace CamdSim
