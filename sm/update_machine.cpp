#include "sm/update_machine.hpp"

#include <cstdio>
#include <cstdlib>

#include "sm/updater_msm.hpp"

namespace Updater::SM {

void AssertionFailed(const char* function) {
  // The same words and the same end as a failed assert(false). Nothing can
  // be done about a console that fails on the way to abort().
  (void)std::fflush(stdout);
  (void)std::fprintf(stderr, "%s: %s:%d: %s: Assertion `false' failed.\n", program_invocation_short_name,
               __FILE__, __LINE__, function);
  std::abort();
}

struct UpdateMachine::Impl {
  updaterMSM machine;
};

UpdateMachine::UpdateMachine() : impl_(std::make_unique<Impl>()) {}
UpdateMachine::~UpdateMachine() = default;

void UpdateMachine::SetHelper(Helpers::UpdateHelper* helper) { LendHelper(impl_->machine, helper); }

void UpdateMachine::start() { impl_->machine.start(); }

}  // namespace Updater::SM
