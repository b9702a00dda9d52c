// Console texts of the board helper that look like slips but are what this
// program has always printed, and what scripts and people reading logs
// match on. Each is kept on purpose: do not "fix" one.
#pragma once

namespace Updater::Helpers::Kept {

// KEPT ON PURPOSE: the board's name misspelt ("Talyvane").
inline constexpr const char* kWaitingForAck = "[Talyvane] waiting for ACK!";
// KEPT ON PURPOSE: "black" for "block".
inline constexpr const char* kNoBlockAck = "Returning without firmware black ACK!";
// KEPT ON PURPOSE: a location tag naming a function and line that no longer
// exist; printed as "[" kChecksumTagFunction "::" kChecksumTagLine "]  ".
inline constexpr const char* kChecksumTagFunction =
    "uint16_t Updater::Helpers::Tallyvane::tallyvane_checksum(const char*, size_t)";
inline constexpr int kChecksumTagLine = 542;
// KEPT ON PURPOSE: the last sent block's bracket is never closed.
inline constexpr const char* kLastAckedBlock = "Last acked block: [";
inline constexpr const char* kLastSentBlockUnclosed = "], last sent block: [";
// KEPT ON PURPOSE: "blockNum()" literally, not the position.
inline constexpr const char* kSendingBytesLiteral = "** Sending bytes from [blockNum()] to [";
// KEPT ON PURPOSE: another product's name for the board's queue.
inline constexpr const char* kClearingQueue = "Clearing Vexalume packet queue";
// KEPT ON PURPOSE: the camera's name for the board's acknowledgement.
inline constexpr const char* kExpiredAck = "VYR cam expired ACK [#";

}  // namespace Updater::Helpers::Kept
