// Command line of tallyvane-sim.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace tallyvane_sim {

struct Options {
  std::string uplink;       // FIFO the sim writes board frames into
  std::string downlink;     // FIFO the sim reads host frames from
  std::string out;          // where the received image goes; empty: nowhere
  std::string versionFile;  // running-version file to keep; empty: none
  int boardVersion = 1;

  // Answer to RequestUpdateInfo.
  std::uint16_t partialVersion = 0;
  std::uint32_t downloadedBlocks = 0;
  std::uint8_t blockSize = 64;
  int flashRegion = 0;

  std::uint32_t start = 0;  // first byte position asked for
  std::uint32_t maxImageBytes = 16u * 1024 * 1024;

  // Faults. Frame and report numbers count from 1.
  unsigned dropAckEvery = 0;
  std::multiset<unsigned> dropAckSeq;
  unsigned dropReportEvery = 0;
  std::set<unsigned> dropReports;
  unsigned reportDelayMs = 0;
  std::set<unsigned> corruptFrames;
  std::set<unsigned> coalesceFrames;
  std::set<unsigned> splitFrames;
  unsigned splitGapMs = 20;
  std::set<unsigned> garbageBefore;
  unsigned errorAfterChunks = 0;  // 0: never
  std::set<unsigned> duplicateReports;
  unsigned muteAfterChunks = 0;   // 0: never
  unsigned stuckAfterChunks = 0;  // 0: never
  unsigned answerDelayMs = 0;
  unsigned answerJitterMs = 0;
  unsigned staleAfterReports = 0;    // 0: never
  unsigned completeAfterChunks = 0;  // 0: never
  unsigned forgetAfterChunks = 0;    // 0: never
};

extern const char* const kUsage;

// Fills `options` from argv. Returns false with `error` set on a bad
// command line; `help` is set when --help was asked for.
bool ParseOptions(int argc, char** argv, Options& options, bool& help, std::string& error);

}  // namespace tallyvane_sim
