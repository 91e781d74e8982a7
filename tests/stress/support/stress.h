#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/support/installation.h"
#include "tests/support/golden.h"

/// What the stress tests share.
namespace stress {

/// By how much a supervisor with a sanitizer is given less to read.
#ifdef KEELMOND_SANITIZED
inline constexpr int kSlower = 8;
#else
inline constexpr int kSlower = 1;
#endif

/// How often something is done: the first number when KEELMOND_STRESS is "long", else the second.
int rounds(int in_long, int in_short);

/// How long something may take that is done often, on a machine that is busy with other things.
std::chrono::seconds patience();

/// Random numbers from a seed that the test's output names, and KEELMOND_STRESS_SEED sets.
std::mt19937 random_numbers();
/// A number from `low` to `high`.
int between(std::mt19937& random, int low, int high);
void sleep_ms(int milliseconds);

/// Makes AddressSanitizer look for no leaks when the supervisor ends. Where processes, threads or
/// descriptors are short that look fails, and with it the supervisor.
start_options without_leak_check(start_options options = {});

/// Starts the supervisor whose pause between two watches takes 10 milliseconds.
start_options fast(start_options options = {});
/// Its executable.
std::string fast_binary();

/// Waits until the supervisor, a fast one, watches again after its `pauses`th pause.
bool wait_armed(const installation& place, std::size_t pauses);
std::size_t pauses(const installation& place);

/// When a fast supervisor neither watched nor reloaded. One that lasts has no end yet.
struct pause {
  using clock = std::chrono::steady_clock;
  clock::time_point begin;
  clock::time_point end;
};
std::vector<pause> noted_pauses(const installation& place);

/// The open descriptors of a process, in ascending order.
std::vector<int> descriptors(pid_t pid);
/// A number of /proc/PID/status, for instance of "Threads" or "VmRSS".
long status_number(pid_t pid, std::string_view field);

/// Counts the loads that the console tells of, as `installation::loads` does, but reads every line
/// once only: for consoles that grow long.
class load_count final {
 public:
  explicit load_count(const installation& place);
  [[nodiscard]] std::size_t now();

 private:
  std::string console_;
  std::size_t read_ = 0;
  std::string line_;  ///< What has been read of a line that is not whole yet.
  std::size_t found_ = 0;
};

/// How many lines of the log tell of a launch and of an end.
std::size_t launches(const installation& place);
std::size_t ends(const installation& place);

/// The names in the stop commands that the console tells of, in their order.
std::vector<std::string> stopped_names(const installation& place);

/// Names of the programs that run; twice when one runs twice.
std::vector<std::string> running_names(const installation& place,
                                       const std::vector<std::string>& programs);

/// Whether from some moment on exactly the given programs run, each once. Waits for it.
bool settles(const installation& place, const std::vector<std::string>& all,
             std::vector<std::string> wanted);

/// Kills the program, after it has been started `starts` times. Throws when there is none: process
/// id 0 would be everything that runs this test.
void kill_running(const installation& place, const std::string& name, std::size_t starts = 1);

/// Asks for a reload and waits until it, or a later one, is over.
bool reload(const installation& place);

/// Shuts the supervisor down by SIGUSR2 and checks what always holds then: it has ended with status
/// 0, nothing of the installation is left, the log is closed and the pid file is gone.
void expect_clean_end(const installation& place);

/// Sets a limit of a running process; the one that nobody can raise again stays.
void limit(pid_t pid, int resource, rlim_t most);
/// Takes a limit away, as far as possible.
void unlimit(pid_t pid, int resource);

/// Gives the installation to an ordinary user who owns nothing else, and starts the supervisor as
/// that user. Tests that are run by an ordinary user keep that one.
/// @param binary the supervisor; the one that all tests run when it is empty.
start_options by_ordinary_user(const installation& place, start_options options = {},
                               std::string binary = {});
/// Gives a file that came later to that user, too.
void give_to_user(const std::string& file);
/// Replaces server.ini, for the user who was given the installation.
void save_for_user(const installation& place, const std::string& text);

}  // namespace stress
