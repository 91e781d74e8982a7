#pragma once

#include <string>
#include <vector>

#include "control/config/program_list.h"
#include "control/site/snapshot.h"

namespace control {

/// What a load would do about one program.
struct planned_step {
  enum class action { none, start, stop, skip, keep };

  std::string name;
  action what = action::none;
  std::string text;  ///< In words, with the reason.
};

/// What the daemon does with these entries at its next load, or at its start when none runs: one
/// step for each program, then those that run and have no entry.
std::vector<planned_step> make_plan(const std::vector<listed_program>& programs,
                                    const snapshot& now);

}  // namespace control
