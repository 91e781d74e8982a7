#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runner/file/environment_file.h"
#include "runner/file/finding.h"
#include "runner/log/log_settings.h"

/// A program file: an INI text that says how one program is run. Reading one starts nothing and
/// changes nothing; whoever wants to know what a file means, or whether it is right, asks here.
namespace runner {

using std::chrono::milliseconds;

/// The words of a command, ready to be executed; none for a command that is not there.
using command_words = std::vector<std::string>;

/// As whom a program runs. Only what is set is changed.
struct identity {
  std::optional<uid_t> uid;
  std::optional<gid_t> gid;
  /// The supplementary groups, when uid or gid is set.
  std::vector<gid_t> groups;
  std::string name;  ///< The user's, if he has one.
  std::string home;
  std::string shell;
  bool are_groups_named = false;  ///< The file lists the groups; else they are the account's.
};

struct resource_limit {
  int resource = 0;  ///< As for setrlimit.
  rlimit value{};
  std::size_t line = 0;
};

/// Limits that only a control group can hold; 0 where there is none.
struct group_limits {
  std::uint64_t memory = 0;  ///< Bytes.
  unsigned processors = 0;   ///< In hundredths of one.
  std::uint64_t tasks = 0;

  [[nodiscard]] bool any() const { return memory > 0 || processors > 0 || tasks > 0; }
};

struct program_section {
  command_words command;
  command_words before;
  command_words after;
  std::string directory;  ///< Absolute; the file's own unless set.
  identity who;
  mode_t umask = 022;
  std::optional<int> nice;
  std::optional<int> oom_score;
  bool no_new_privileges = false;
  std::vector<std::string> needs;
  milliseconds needs_timeout{60000};
  std::string supervisor;  ///< Absolute; empty to find it in the process tree.
};

struct environment_section {
  bool clean = false;
  /// In the order in which they are set: those of the file first.
  environment_list variables;
};

struct limits_section {
  std::vector<resource_limit> resources;
  group_limits group;
};

struct stop_section {
  int signal = 15;
  milliseconds timeout{10000};
  command_words command;
};

enum class restart_policy { always, failure, never };

struct restart_section {
  milliseconds delay{200};
  milliseconds longest{60000};
  milliseconds steady{10000};
  std::uint64_t give_up = 0;  ///< 0 for never.
  restart_policy on = restart_policy::always;
};

/// What is asked to find out whether a program answers.
struct probe_settings {
  enum class kind { none, tcp, http, unix_socket, file, command, notify };
  kind how = kind::none;
  std::string host;  ///< A numeric address.
  std::uint16_t port = 0;
  std::string path;  ///< Of a file or socket, or of a request.
  command_words command;
};

struct ready_section {
  probe_settings probe;
  milliseconds timeout{60000};
};

struct health_section {
  probe_settings probe;
  milliseconds every{30000};
  milliseconds timeout{5000};
  std::uint64_t failures = 3;
};

struct hooks_section {
  command_words failure;
  command_words ready;
  command_words give_up;
};

/// Everything that a program file says.
struct program_file {
  program_section program;
  environment_section environment;
  limits_section limits;
  log_settings log;
  stop_section stop;
  restart_section restart;
  ready_section ready;
  health_section health;
  hooks_section on;

  /// A key as it stands in the file.
  struct setting {
    std::string section;
    std::string key;
    std::string value;
    std::size_t line = 0;
  };
  std::vector<setting> stated;

  /// Null when the file does not have it.
  [[nodiscard]] const setting* find(std::string_view section, std::string_view key) const;
  /// The line of a key; 0 when the file does not have it.
  [[nodiscard]] std::size_t line_of(std::string_view section, std::string_view key) const;
};

/// The result of reading. Nothing of the settings is to be used when there are findings, except
/// that the log may be told of them.
struct program_file_result {
  program_file settings;
  file_findings findings;
  /// Whether the section `log` itself is right.
  bool log_is_right = false;
};

/// The longest program file or environment file that is read, in bytes.
inline constexpr std::size_t kLargestProgramFile = std::size_t{1024} * 1024;

/// Reads a file, and the environment file that it names.
/// @param path where it stands; relative paths in it are relative to its directory.
program_file_result read_program_file(const std::string& path);
/// The same for a text that would stand there.
program_file_result read_program_text(std::string_view text, const std::string& path);

/// Every key there is with its value, as a program file that says the same: those that are left out
/// are remarks.
std::string explain(const program_file& file);

/// Whether a file begins like one that keelmond-run runs.
bool is_program_file(std::string_view text);

/// The last component of a path: the program's name.
std::string program_name_of(const std::string& path);

}  // namespace runner
