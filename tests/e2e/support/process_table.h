#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What /proc tells of the processes on the machine (or in the test's own namespace).
namespace process_table {

struct process {
  pid_t pid;
  pid_t parent;
  pid_t session;
  char state;         ///< As ps prints it: 'R', 'S', 'T', ...
  long minor_faults;  ///< Page faults without the disk: one for the first write to a page after a
                      ///< fork.
  std::string name;   ///< At most 15 bytes.
};

/// The process, unless there is none with that id or it has ended and only waits to be reaped.
std::optional<process> find(pid_t pid);
bool is_alive(pid_t pid);
/// Whether `ancestor` is the process's parent, its parent's parent, ...
bool is_below(pid_t pid, pid_t ancestor);

/// All processes that have not ended.
std::vector<process> all();

/// All processes that have `setting`, as "NAME=value", in their environment.
std::vector<process> all_with(std::string_view setting);

/// One line of /proc/PID/status, for instance of "SigBlk", without its name and blanks.
std::string status_field(pid_t pid, std::string_view field);

/// How many threads the process has; 0 when there is none.
int count_threads(pid_t pid);

/// Where the stacks of the process's threads end just now; of those that wait in a system call.
/// Empty where the kernel does not tell.
std::vector<std::uintptr_t> stack_pointers(pid_t pid);
/// Whether the process has anything at an address.
bool is_mapped(pid_t pid, std::uintptr_t address);

/// How many inotify instances the process has open, and how many watches on what is written to a
/// file these have. A watch ends with its file, and its instance only when the process closes it.
int count_inotifies(pid_t pid);
int count_watches(pid_t pid);

}  // namespace process_table
