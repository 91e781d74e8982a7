#include "tests/e2e/runner/program_files.h"

#include <algorithm>
#include <stdexcept>

#include "tests/support/wait_until.h"

using runner::program_phase;
using runner::program_state;

namespace {

constexpr std::chrono::seconds kLimit{60};
constexpr std::string_view kFirstLine = "#!" KEELMOND_RUN_BINARY "\n";

}  // namespace

std::string shell_text(const std::string& command, const std::string& more) {
  return "[program]\nshell = yes\ncommand = " + command + "\n" + more;
}

std::string runner_place::add(std::string_view text) {
  const std::string name = place_.add_executable(std::string(kFirstLine) + std::string(text));
  programs_.push_back(place_.entry(name));
  return name;
}

std::string runner_place::add_steady(std::string_view more) {
  return add("[program]\ncommand = " + path_of(place_.add_steady()) + "\n" + std::string(more));
}

void runner_place::write(const std::string& name, std::string_view text) {
  place_.write_executable(path_of(name), std::string(kFirstLine) + std::string(text));
}

void runner_place::start(const start_options& options) {
  place_.save(programs_);
  place_.start(options);
}

void runner_place::stop(const std::string& name) {
  const auto program = std::find_if(programs_.begin(), programs_.end(),
                                    [&](const listed_program& one) { return one.name == name; });
  program->state = "stop";
  place_.edit(programs_);
  if (!wait_until([&] { return place_.running(name).empty(); }, kLimit))
    throw std::runtime_error(name + " does not end");
}

std::string runner_place::wait_text(const std::string& file, const std::string& text) const {
  wait_until([&] { return read(file) == text; }, kLimit);
  return read(file);
}

bool runner_place::tells(const std::string& text) const {
  return wait_until([&] { return contains(place_.errors(), text); }, kLimit);
}

std::optional<program_state> runner_place::state(const std::string& name) const {
  return runner::parse_state(place_.read("notify/" + name + ".state"));
}

program_state runner_place::wait_phase(const std::string& name, program_phase phase) const {
  std::optional<program_state> last;
  const bool is_there = wait_until(
      [&] {
        last = state(name);
        return last && last->phase == phase;
      },
      kLimit);
  if (!is_there) {
    throw std::runtime_error(name + " does not come to be " +
                             std::string(runner::phase_name(phase)) + ":\n" +
                             place_.read("notify/" + name + ".state") + place_.errors());
  }
  return *last;
}

program_state runner_place::wait_again(const std::string& name, pid_t before) const {
  std::optional<program_state> last;
  const bool is_there = wait_until(
      [&] {
        last = state(name);
        return last && last->phase == program_phase::running && last->pid != before;
      },
      kLimit);
  if (!is_there) throw std::runtime_error(name + " does not run again:\n" + place_.errors());
  return *last;
}

bool runner_place::runs_once(const std::string& name, pid_t launcher) const {
  return wait_until([&] { return place_.running(name) == std::vector<pid_t>{launcher}; }, kLimit);
}
