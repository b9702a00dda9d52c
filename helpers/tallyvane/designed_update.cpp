#include "helpers/tallyvane/designed_update.hpp"

#include <iostream>

#include "common/console.hpp"
#include "common/log.hpp"
#include "common/record.hpp"
#include "helpers/tallyvane/board_reports.hpp"
#include "helpers/tallyvane/kept_texts.hpp"
#include "helpers/tallyvane/receive_loop.hpp"
#include "helpers/tallyvane/send_path.hpp"
#include "sm/ack_status.hpp"
#include "vyrcam/packets.hpp"

namespace Updater::Helpers {

using namespace std::chrono_literals;

namespace {
constexpr std::chrono::nanoseconds kBlockReportTimeout{5'000'999'999};
constexpr auto kBlockReportPoll = 30ms;
constexpr auto kAckRetryPause = 250ms;
constexpr int kAckRounds = 12;
constexpr int kAckAttempts = 3;
constexpr auto kUpdateInfoPoll = 100ms;
constexpr int kUpdateInfoRounds = 102;
constexpr auto kFirstBlockPoll = 30ms;
}  // namespace

DesignedUpdate::DesignedUpdate(SendPath& send, BoardReports& board, ReceiveLoop& link, Clock& clock)
    : UpdateMode(send, board, clock), link_(link) {}

void DesignedUpdate::EndRun() {
  // The board is read from here until the process is ended: what is read
  // is recorded as it comes, not held for a package.
  if (auto* recorder = Record::Active()) recorder->WriteHeader();
  link_.RunReader();
}

int DesignedUpdate::CheckForUpdate() {
  VYRCam::RequestUpdateInfo request;
  send_.SendPacket(request);

  int round = 0;
  for (; round < kUpdateInfoRounds && !board_.haveUpdateInfo; ++round) clock_.Sleep(kUpdateInfoPoll);
  if (round == kUpdateInfoRounds) {
    Log::Error("Error asking tallyvane for update info status, not updating");
    return 0;
  }

  Image::File image;
  if (!ReadPackage(image)) return 0;
  Announce();
  return 1;
}

int DesignedUpdate::GetFirstUpdateBlock() {
  for (;;) {
    const int first = board_.nextBlock;
    if (first != -1) return first;
    clock_.Sleep(kFirstBlockPoll);
  }
}

int DesignedUpdate::SendFirmwareBlock(int position) {
  if (packetSize < 1) {
    std::cerr << "Invalid chunk size: [" << packetSize << "], "
              << "can't update tallyvane firmware." << '\n';
    return 0;
  }

  // Opened afresh per chunk: the image may be replaced between updates and
  // a long-lived handle would keep reading the old one.
  Image::File image;
  if (image.Open(firmwarePath) != Image::Opened::Yes) return 0;
  const std::streamoff length = Image::Length(image);
  if (Console::Detail())
    std::cout << "This block: [" << position << "], blockSize: [" << packetSize << "]" << '\n';

  const auto chunk = Image::ReadChunk(image, length, position, packetSize);
  if (!chunk) return 0;
  return SendBlock(position, *chunk) ? 1 : 0;
}

bool DesignedUpdate::SendCounted(VYRCam::FirmwareBlock& block, int /*position*/, std::size_t /*bytes*/) {
  const bool sent = send_.SendPacket(block);
  if (sent) {
    // A count of blocks, compared later with the board's byte positions;
    // AwaitBlockAck() copes with the two drifting apart.
    const int counter = ++sentBlockCounter;
    if (Console::Detail()) std::cout << "Setting last sent byte to [" << counter << "]" << '\n';
    board_.lastSentBlock = counter;
  }
  return sent;
}

bool DesignedUpdate::WaitForBlockReport() {
  const auto start = clock_.Now();
  for (;;) {
    const std::uint8_t seen = board_.blockReportReceived;
    clock_.Sleep(kBlockReportPoll);
    if (seen) return true;
    if (clock_.Now() - start > kBlockReportTimeout) return false;
  }
}

int DesignedUpdate::AwaitBlockAck() {
  WaitForBlockReport();
  for (int round = 0; round < kAckRounds; ++round) {
    const int acked = board_.lastAckedBlock;
    const int sent = board_.lastSentBlock;
    if (acked == sent) return kAcked;
    if (acked > sent) {
      if (Console::Detail())
        std::cout << "************************************* Debug: Possible missed ACK?" << '\n';
      board_.lastSentBlock = acked;
    }
    if (Console::Detail())
      std::cout << "Last Acked: [" << board_.lastAckedBlock.load() << "], last sent: ["
                << board_.lastSentBlock.load() << "]" << '\n';
    clock_.Sleep(kAckRetryPause);
  }
  if (Console::Detail()) std::cout << Kept::kNoBlockAck << '\n';
  return kResend;
}

int DesignedUpdate::WaitForAck() {
  int status = kResend;
  for (int attempt = 0; attempt < kAckAttempts; ++attempt) {
    status = AwaitBlockAck();
    if (status == kAcked) break;
  }
  if (status == kAcked) ReportProgress(board_.lastReceived + 1);
  return AfterAckWait(status);
}

}  // namespace Updater::Helpers
