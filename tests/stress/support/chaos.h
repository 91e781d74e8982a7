#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/e2e/support/installation.h"
#include "tests/stress/support/small_disk.h"

namespace stress {

/// Harm done at random to an installation whose supervisor runs, and its repair.
///
/// None of it ends the supervisor: the configuration can always be watched again when a watch is
/// over. Written for the test's thread; what it throws, and when, is as for `installation`.
class chaos final {
 public:
  /// @param programs those that the configuration lists, all of which have been started once.
  chaos(installation& place, const small_disk& disk, std::vector<listed_program> programs,
        std::mt19937& random);

  /// Does something bad.
  void harm();
  /// Takes back everything that can be, and saves a configuration in which some programs are to run
  /// and some are not. What was stopped goes on.
  void repair();

  /// Kills what is left of programs that the supervisor has given up: those whose child or shell
  /// was killed, and those whose child was stopped, which counts as ended.
  void end_leftovers() const;

  /// The programs as the last repair has listed them.
  [[nodiscard]] const std::vector<listed_program>& programs() const { return programs_; }
  /// What was done since the last `forget`.
  [[nodiscard]] const std::string& story() const { return story_; }
  /// Forgets what was done. Call it when everything is in order.
  void forget();

 private:
  struct act {
    const char* name;
    int weight;
    void (chaos::*body)();
  };
  static const act kActs[];

  // Processes.
  void kill_one();
  void stop_one();
  void continue_one();
  void pause_supervisor();
  void ask_for_reloads();

  // The configuration.
  void save_states();
  void save_one_more();
  void save_garbage();
  void save_half();
  void save_with_old_time();

  // What the machine has to give.
  void limit_processes();
  void limit_descriptors();
  void limit_memory();
  void limit_file_size();
  void lift_limits();
  void fill_disk();
  void make_room();

  // Files and the time.
  void spoil_mark();
  void close_directory();
  void close_configuration();
  void jump_in_time();

  [[nodiscard]] bool chance(int percent);
  template <typename Container>
  auto& any_of(Container& items);
  [[nodiscard]] std::vector<process_table::process> victims() const;
  void tell(const std::string& what);
  void limit_to(int resource, rlim_t most);
  void shuffle_states();
  void save(const std::string& text);
  bool hold_watch();
  void restore_files();

  installation& place_;
  const small_disk& disk_;
  std::vector<listed_program> programs_;
  std::mt19937& random_;
  std::vector<act> acts_;

  std::set<pid_t> stopped_children_;
  std::set<int> limits_;
  bool is_full_ = false;
  bool is_closed_ = false;  ///< Some directory is.
  /// While this holds, a watch that ends cannot be set again, and the supervisor would rightly end.
  bool is_held_ = false;
  std::string story_;
};

}  // namespace stress
