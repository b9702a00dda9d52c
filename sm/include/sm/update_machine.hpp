// The update state machine as `main` and the end-to-end tests use it.
// The Boost.MSM definitions live in sm/updater_msm.hpp; this facade keeps
// their compile cost in one translation unit.
#pragma once

#include <memory>

#include "sm/update_helper.hpp"

namespace Updater::SM {

class UpdateMachine {
 public:
  UpdateMachine();
  ~UpdateMachine();
  UpdateMachine(const UpdateMachine&) = delete;
  UpdateMachine& operator=(const UpdateMachine&) = delete;

  // Lends `helper` to both machines (not owned; must outlive start()).
  void SetHelper(Helpers::UpdateHelper* helper);
  // Runs the whole update; returns when no event is pending any more.
  void start();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Updater::SM
