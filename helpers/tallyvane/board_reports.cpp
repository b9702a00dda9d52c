#include "helpers/tallyvane/board_reports.hpp"

#include <iostream>

#include "common/console.hpp"
#include "common/log.hpp"
#include "helpers/tallyvane/kept_texts.hpp"
#include "helpers/tallyvane/send_path.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Helpers {

using Updater::Log::Colour;

BoardReports::BoardReports(SendPath& send, Clock& clock)
    : send_(send), clock_(clock), lastProgressPrint(clock.Now()) {}

void BoardReports::OnDatalinkAck(const VYRCam::DatalinkPacketAck& ack) {
  if (!ack.AckIsOk()) return;
  send_.RemovePending(ack.AckedSequenceNumber());
}

void BoardReports::OnUpdateInfo(std::uint16_t partialVersion, std::uint32_t downloaded,
                                std::uint8_t blockSize, int flashRegion) {
  // The board's block size does not steer our chunk size; it only measures
  // a partial download.
  infoBlockSize = blockSize;
  infoAt = clock_.Monotonic().time_since_epoch().count();
  downloadedBlocks = static_cast<std::int32_t>(downloaded);
  partialDlVer = partialVersion;
  flashSector = flashRegion;
  // Last, so that whoever sees the flag also sees the values.
  haveUpdateInfo = 1;
  Changed();
  // The board's answer in full is for the designed console; a summary's
  // decision line names the versions that decide.
  if (!Console::Detail()) return;
  Log::Debug(Colour::Green, "Processed ACK for setUpdateInfo\n", "\tpartialDlVer: [", partialDlVer.load(),
             "]\n", "\t# DL blocks: [", downloadedBlocks.load(), "]\n", "\tflash Sector: [",
             flashSector.load(), "]");
}

void BoardReports::PrintProgress(int lastReceivedPos) const {
  if (!Console::Detail()) return;  // a summary has a progress line of the update thread's
  std::cout << "Processing ACK for firmware block, last byte: [" << lastReceivedPos << "], "
            << "next byte: [" << nextBlock.load() << "]" << '\n';
}

void BoardReports::Await(int lastByte) {
  const std::lock_guard<std::mutex> lock(awaitMutex_);
  lastSentBlock = lastByte;
  awaitedReported = false;
}

void BoardReports::StoreReport(int lastReceivedPos, int nextPos) {
  nextBlock = nextPos;
  if (lastReceivedPos == -1) firstBlock = nextPos;
  lastReceived = lastReceivedPos;
  lastAckedBlock = lastReceivedPos;
  blockReportReceived = 1;
}

bool BoardReports::TakeAwaitedReport(int lastReceivedPos, int nextPos) {
  const std::lock_guard<std::mutex> lock(awaitMutex_);
  if (lastReceivedPos != lastSentBlock || awaitedReported) return false;
  StoreReport(lastReceivedPos, nextPos);
  reportedAt = clock_.Monotonic().time_since_epoch().count();
  ++reportsTaken;
  awaitedReported = true;
  return true;
}

void BoardReports::OnBlockReport(int lastReceivedPos, std::uint32_t next) {
  const int nextPos = static_cast<int>(next);
  if (!chunkInFlightOnly_) {
    StoreReport(lastReceivedPos, nextPos);
  } else if (!TakeAwaitedReport(lastReceivedPos, nextPos)) {
    if (Console::Detail())
      std::cout << "Ignoring a report of byte [" << lastReceivedPos << "], next byte [" << nextPos
                << "]: not the first of the chunk in flight, which ends at [" << lastSentBlock.load() << "]"
                << '\n';
    return;
  }
  Changed();

  // The end of the image is always worth a line; otherwise the console
  // would scroll one line per chunk.
  if (nextPos == -1) {
    PrintProgress(lastReceivedPos);
    return;
  }
  const auto now = clock_.Now();
  const auto sinceLast =
      std::chrono::duration_cast<std::chrono::milliseconds>(now - lastProgressPrint).count();
  if (sinceLast <= progressPrintIntervalMs) return;
  lastProgressPrint = now;
  if (lastReceivedPos != -1) PrintProgress(lastReceivedPos);
}

void BoardReports::OnUpdateComplete() {
  if (updateCompleted) return;
  if (chunkInFlightOnly_) {
    reportsBeforeCompletion = reportsTaken.load();
    updateCompleted = 1;
    Changed();
    return;
  }
  blockReportReceived = 1;
  updateCompleted = 1;
  if (Console::Detail())
    std::cout << Kept::kLastAckedBlock << lastAckedBlock.load() << Kept::kLastSentBlockUnclosed
              << lastSentBlock.load() << ", setting them equal." << '\n';
  nextBlock = -1;
  const int sent = lastSentBlock;
  if (sent == -1) firstBlock = -1;
  lastReceived = sent;
  lastAckedBlock = sent;
  blockReportReceived = 1;
  PrintProgress(sent);

  VYRCam::ApplyUpdate apply;
  send_.SendPacket(apply);
  applySequence = static_cast<int>(apply.SequenceNumber() & 0xFF);
  Changed();
  // In a summary the machine's result says so, after the progress line is ended.
  if (Console::Detail()) Log::Debug(Colour::Green, "Tell UI, or whoever, that the update has completed!");
}

void BoardReports::OnUpdateError() {
  send_.DropPending();
  ResetUpdateState();
  ++updateErrors;
  Changed();
}

void BoardReports::ResetUpdateState() {
  updateCompleted = 0;
  partialDlVer = 0;
  downloadedBlocks = 0;
  haveUpdateInfo = 0;
  firstBlock = 0;
  lastReceived = -1;
  nextBlock = -1;
  blockReportReceived = 0;
  lastSentBlock = -1;
  lastAckedBlock = -1;
}

BoardReports::LinkState BoardReports::State() const {
  return LinkState{updateCompleted.load(), partialDlVer.load(),   downloadedBlocks.load(),
                   flashSector.load(),     haveUpdateInfo.load(), firstBlock.load(),
                   lastReceived.load(),    nextBlock.load(),      blockReportReceived.load(),
                   lastSentBlock.load(),   lastAckedBlock.load()};
}

}  // namespace Updater::Helpers
