#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "control/site/snapshot.h"

namespace control {

/// What a program is doing, whatever the configuration wants.
enum class actual {
  running,
  starting,
  restarting,  ///< Running, and it has ended again and again in the last minute.
  stopped,
  stopping,
  waiting,     ///< Its launcher starts it again later.
  ended,       ///< Its launcher does not start it again.
  given_up,    ///< It has ended more often than the daemon, or its launcher, starts a program.
  not_loaded,  ///< The daemon passes over its entry, or has not read it yet.
  removed,     ///< Running, and no entry names it any more.
  left_over,   ///< Running without a daemon.
};

/// One program as `status` shows it.
struct program_status {
  std::string name;
  std::string wanted;  ///< Its state in the file; empty when there is none.
  actual now = actual::stopped;
  std::string why;  ///< Where `now` needs an explanation.
  std::optional<process> child;
  std::optional<process> program;
  std::optional<process> launcher;  ///< keelmond-run, which the program is run by.
  std::vector<process> tree;
  double cpu_seconds = 0;  ///< Of all that runs below the daemon's child, or was waited for there.
  std::uint64_t memory = 0;  ///< Bytes; 0 unless a `memory_meter` has measured them.
};

/// The words for it in tables and in JSON.
const char* name_of(actual what);

/// Every listed program in the order of the file, then what is running and not listed, then what
/// was left over.
std::vector<program_status> list_programs(const snapshot& now, const site& place);

}  // namespace control
