#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "runner/file/program_file.h"
#include "runner/file/state_file.h"
#include "runner/launch/control_group.h"
#include "runner/launch/launch.h"
#include "runner/log/program_log.h"
#include "runner/log/steady_time.h"
#include "runner/supervise/known_process.h"
#include "runner/supervise/leftovers.h"
#include "runner/supervise/notify_socket.h"
#include "runner/supervise/pacing.h"
#include "runner/supervise/probe.h"
#include "runner/supervise/rest.h"
#include "runner/supervise/supervisor_chain.h"

namespace runner {

/// The life of one program, from the first reading of its file to its last descendant's end.
///
///     reading -> needs -> before -> starting -> running
///        ^                            |  stopping |
///        |                            v     v     v
///     waiting <--- after <--------- clearing
///
/// A launcher that has to wait for an earlier one, or for the end of what that left behind, begins
/// with `reading`, too. What is wrong before there is a process goes straight to `waiting`,
/// with a pause that grows. `ended` and `given_up` are waits without an end. A request to end skips
/// what has not begun, and leads through `stopping` and `clearing` out of the loop.
///
/// One thread, one loop, no handlers: signals, ends of processes and everything else are read from
/// descriptors. While nothing happens it sleeps without a limit, except in `needs`.
class supervision final {
 public:
  /// @param path of the program file.
  explicit supervision(std::string path);
  supervision(const supervision&) = delete;
  supervision& operator=(const supervision&) = delete;
  ~supervision();

  /// Runs the program until it is asked to end. Takes the process over: its signals, its name, its
  /// descriptors above 2.
  /// @return the exit status.
  int run();

 private:
  using deadline = std::optional<time_point>;

  enum class purpose { before, after, stop, question, hook };
  /// A process beside the program.
  struct side_command {
    pid_t pid = 0;
    purpose what = purpose::hook;
    const char* section = "";
    const char* key = "";
    unique_fd report;
    deadline limit = {};
    std::string mark = {};
    /// A copy: when it ends, the file may have been read again, and have the command no more.
    command_words words = {};
    bool is_over = false;  ///< It is being ended, and what it answers counts no more.
  };
  /// What a command beside the program may have left behind.
  struct remains {
    pid_t session = 0;
    std::string mark;
    time_point until;  ///< From then on it is killed.
    bool is_over = false;
  };
  /// What follows when nothing is left of the last step.
  enum class next_step : unsigned char { none, after, start, finish };

  // supervision.cpp: an attempt, step by step
  void begin_attempt();
  bool read_file();
  bool await_former_launcher();
  /// @return whether there is something that has to be waited for.
  bool end_leftovers();
  void tell_of_leftovers() const;
  bool open_log();
  void close_log();
  void await_needs();
  void look_at_needs();
  [[nodiscard]] const std::string* missing_need() const;
  void run_before();
  void start_program();
  void take_report();
  void become_ready();
  void finish_attempt();
  void pause(bool failed);

  // supervision_end.cpp: how a program ends
  void request_end();
  void end_program(const std::string& why);
  void ask_to_end();
  /// To all of the program's group, if there is one. @return as `kill`: whether anybody was there.
  bool signal_group(int signal) const;
  void look_whether_group_is_over();
  void stop_took_too_long();
  void program_ended(int status);
  void look_at_group();
  void begin_clearing();
  void clear_then(next_step step);
  void go_on_clearing();
  /// @return whether there was anybody.
  bool kill_children();
  void run_after();
  void leave();
  void child_ended(pid_t pid, int status);
  void side_ended(side_command ended, int status);

  // supervision_questions.cpp: readiness and health
  void ask_later();
  void ask();
  void answered(probe_answer answer);
  void ready_answered(bool good);
  void health_answered(bool good);
  void hear(const notice& said);
  [[nodiscard]] bool is_asking_for_readiness() const;
  [[nodiscard]] const probe_settings& question() const;
  void stop_asking();

  // supervision_commands.cpp: commands beside the program, and what is told
  [[nodiscard]] launch_order order_for(const command_words& words,
                                       const std::vector<std::string>& environment) const;
  [[nodiscard]] const command_words& command_of(const side_command& side) const;
  bool start_side(purpose what, const char* section, const char* key, deadline limit);
  void run_hook(const char* key);
  [[nodiscard]] environment_list told_variables() const;
  [[nodiscard]] bool has_side(purpose what) const;
  void end_side(side_command& one);
  void leave_behind(const side_command& ended, time_point until);
  void look_at_remains();
  [[nodiscard]] bool is_of_hook(pid_t child) const;
  void set_phase(program_phase phase);
  void say(const std::string& text);
  /// Tells what is wrong on standard error and in the log; the same only once in an attempt.
  void tell(const file_finding& what);
  /// The same, and the attempt counts as failed.
  void complain(const file_finding& what);
  /// "12.5", without zeros that say nothing.
  static std::string seconds_text(milliseconds duration);

  // supervision_loop.cpp
  void take_over_process();
  void wait();
  /// Until something happens or is due. @return as `poll`.
  int sleep();
  void collect_requests();
  void add_request(int fd, short events = POLLIN);
  [[nodiscard]] deadline next_deadline() const;
  void look_at_deadlines(time_point now);
  /// Handles one of the first `count` requests.
  void handle_next(std::size_t count);
  void handle(int fd);
  void link_ended();
  void former_ended();
  [[nodiscard]] bool has_process_without_handle() const;
  void look_at_processes();
  void take_signals();
  void take_signal(int signal);
  void reap();

  const std::string path_;
  const std::string name_;
  unique_fd signals_;
  supervisor_chain chain_;
  state_files files_;
  program_state state_;
  /// An earlier launcher of the same program that has not ended yet.
  std::optional<known_process> former_;
  /// What one left that was killed.
  std::optional<leftovers> left_;
  time_point left_limit_;
  milliseconds left_pause_{0};

  program_file file_;
  std::unique_ptr<program_log> log_;
  std::string log_text_;  ///< The section that `log_` was made from.
  control_group group_;
  pacing pacing_;

  pid_t pid_ = 0;
  pid_t session_ = 0;  ///< The program's, which may outlive it; 0 when that is over.
  unique_fd report_;
  notify_socket notify_;
  time_point needs_limit_;
  milliseconds needs_pause_{0};
  std::vector<side_command> sides_;
  std::uint64_t side_count_ = 0;  ///< All that there have been.
  std::vector<remains> remains_;

  bool is_first_ = true;    ///< No earlier launcher has been looked for yet, or one is waited for.
  bool is_ending_ = false;  ///< For good.
  bool is_done_ = false;
  bool was_launched_ = false;
  bool is_ready_ = false;
  bool is_asking_ = false;
  bool is_reap_due_ = false;
  next_step when_clear_ = next_step::none;
  int status_ = 0;       ///< As waitpid gave it.
  std::string trouble_;  ///< Why the attempt counts as failed, when its exit status does not say.
  std::string told_;     ///< The last that was told in this attempt.
  deadline phase_limit_;
  time_point launched_at_;
  milliseconds lived_{0};  ///< From the launch to the end; 0 before.

  probe probe_;
  deadline ask_at_;  ///< The next question, or the end of one that is not answered.
  deadline ready_limit_;
  milliseconds ask_pause_{0};
  std::uint64_t bad_answers_ = 0;

  resting_place rest_;
  std::vector<pollfd> requests_;
  std::size_t turn_ = 0;  ///< Which request is looked at first.
  time_point looked_at_processes_;
};

}  // namespace runner
