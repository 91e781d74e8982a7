#pragma once

#include <chrono>
#include <string_view>

#include "control/config/config_bytes.h"
#include "control/proc/proc_dir.h"
#include "control/proc/process.h"
#include "control/site/site.h"

namespace control {

/// Has the daemon load its configuration (SIGUSR1) and waits until it has acted on it.
/// @return false when that was not seen in time.
bool reload(const proc_dir& proc, const process& daemon, const site& place,
            std::chrono::milliseconds limit);

/// Saves a configuration as `save_config` does and sees to it that the daemon loads it: where the
/// daemon watches the file that is replaced it needs no help, in its pause and where it watches
/// another file it gets SIGUSR1.
/// @return false when the load was not seen in time; the file is saved.
bool save_and_load(const proc_dir& proc, const process& daemon, const site& place,
                   std::string_view text, const config_bytes& before,
                   std::chrono::milliseconds limit);

}  // namespace control
