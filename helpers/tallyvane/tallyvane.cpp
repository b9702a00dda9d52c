#include "helpers/tallyvane/tallyvane.hpp"

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "common/console.hpp"
#include "helpers/tallyvane/concurrent_session.hpp"
#include "helpers/tallyvane/designed_update.hpp"
#include "helpers/tallyvane/kept_texts.hpp"

namespace Updater::Helpers {

namespace {
constexpr const char* kConcurrentMode = "concurrent";

std::unique_ptr<UpdateMode> MakeMode(bool concurrent, SendPath& send, BoardReports& board, ReceiveLoop& link,
                                     Clock& clock) {
  if (concurrent) return std::make_unique<ConcurrentSession>(send, board, link, clock);
  return std::make_unique<DesignedUpdate>(send, board, link, clock);
}
}  // namespace

Tallyvane::Tallyvane(std::string devicePath, Updater::Clock& clock, bool concurrent)
    : send_(clock),
      board_(send_, clock),
      link_(std::move(devicePath), clock, board_),
      mode_(MakeMode(concurrent, send_, board_, link_, clock)) {}

Tallyvane::~Tallyvane() = default;

bool Tallyvane::ConcurrentFromEnvironment() {
  const char* mode = std::getenv("QUORVEX_TALLYVANE_READER");
  if (mode == nullptr || *mode == '\0') return false;
  if (std::strcmp(mode, kConcurrentMode) == 0) return true;
  std::cerr << "QUORVEX_TALLYVANE_READER=[" << mode << "] is not \"" << kConcurrentMode
            << "\"; the receive loop runs after the update" << std::endl;
  return false;
}

void Tallyvane::Close() {}

int Tallyvane::CheckForUpdate() { return mode_->CheckForUpdate(); }

bool Tallyvane::HaveUpdateFile() { return mode_->HaveUpdateFile(); }

int Tallyvane::GetFirstUpdateBlock() { return mode_->GetFirstUpdateBlock(); }

int Tallyvane::SendFirmwareBlock(int position) { return mode_->SendFirmwareBlock(position); }

int Tallyvane::WaitForAck(unsigned /*block*/) {
  if (Console::Detail()) std::cout << Kept::kWaitingForAck << '\n';
  return mode_->WaitForAck();
}

int Tallyvane::GetNextFirmwareBlock() { return mode_->GetNextFirmwareBlock(); }

}  // namespace Updater::Helpers
