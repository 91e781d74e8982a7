#include "runner/file/state_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"
#include "runner/file/process_stat.h"
#include "runner/file/values.h"

namespace runner {
namespace {

constexpr std::string_view kPhases[] = {"reading", "needs",    "before",   "starting",
                                        "running", "stopping", "clearing", "after",
                                        "waiting", "ended",    "given_up"};

std::optional<program_phase> find_phase(std::string_view name) {
  const auto* const found = std::find(std::begin(kPhases), std::end(kPhases), name);
  if (found == std::end(kPhases)) return {};
  return static_cast<program_phase>(found - std::begin(kPhases));
}

template <typename Number>
void take_number(std::string_view text, Number& out) {
  if (const auto number = parse_count(text)) out = static_cast<Number>(*number);
}

/// @return false when the line says of no phase that there is.
bool take_line(std::string_view key, std::string_view value, program_state& out) {
  if (key == "phase") {
    const auto phase = find_phase(value);
    if (phase) out.phase = *phase;
    return phase.has_value();
  }
  if (key == "since") take_number(value, out.since);
  if (key == "pid") take_number(value, out.pid);
  if (key == "started") take_number(value, out.started);
  if (key == "attempt") take_number(value, out.attempt);
  if (key == "next") take_number(value, out.next);
  if (key == "status") out.status = value;
  if (key == "says") out.says = value;
  if (key == "log") out.log = value;
  if (key == "launcher") take_number(value, out.launcher);
  if (key == "launcher_started") take_number(value, out.launcher_started);
  if (key == "mark") out.mark = value;
  return true;
}

/// Never two writers at once: one program has one launcher.
void replace_file(const std::string& path, std::string_view text) {
  const std::string draft = path + ".new";
  const unique_fd file(::open(draft.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!file.valid()) return;
  const bool is_whole = write_whole(file.get(), text);
  // A full disk is no reason to leave something on it.
  if (!is_whole || ::rename(draft.c_str(), path.c_str()) != 0) ::unlink(draft.c_str());
}

}  // namespace

std::string_view phase_name(program_phase phase) {
  return kPhases[static_cast<std::size_t>(phase)];
}

std::string print_state(const program_state& state) {
  std::string text = "phase " + std::string(phase_name(state.phase)) + "\n";
  const auto add = [&](const char* key, std::uint64_t number) {
    text += std::string(key) + " " + std::to_string(number) + "\n";
  };
  add("since", static_cast<std::uint64_t>(state.since));
  add("pid", static_cast<std::uint64_t>(state.pid));
  add("started", state.started);
  add("attempt", state.attempt);
  add("next", static_cast<std::uint64_t>(state.next));
  if (!state.status.empty()) text += "status " + state.status + "\n";
  if (!state.says.empty()) text += "says " + state.says + "\n";
  if (!state.log.empty()) text += "log " + state.log + "\n";
  add("launcher", static_cast<std::uint64_t>(state.launcher));
  add("launcher_started", state.launcher_started);
  if (!state.mark.empty()) text += "mark " + state.mark + "\n";
  return text;
}

std::optional<program_state> parse_state(std::string_view text) {
  program_state state;
  bool has_phase = false;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const std::size_t blank = line.find(' ');
    if (blank == std::string_view::npos) continue;
    const std::string_view key = line.substr(0, blank);
    if (!take_line(key, line.substr(blank + 1), state)) return {};
    has_phase = has_phase || key == "phase";
  }
  if (!has_phase) return {};
  return state;
}

state_files::state_files(const std::string& directory, const std::string& name)
    : directory_(directory) {
  if (directory.empty()) return;
  const std::string begin = directory + "/notify/" + name;
  state_ = begin + ".state";
  ready_ = begin + ".ready";
}

void state_files::write(const program_state& state) const {
  if (!state_.empty()) replace_file(state_, print_state(state));
}

void state_files::set_ready(bool ready) const {
  if (ready_.empty()) return;
  if (ready) {
    replace_file(ready_, "1");
  } else {
    ::unlink(ready_.c_str());
  }
}

void state_files::remove() const {
  set_ready(false);
  if (!state_.empty()) ::unlink(state_.c_str());
}

std::optional<program_state> state_files::read() const {
  std::string text;
  if (state_.empty() || !read_small_file(AT_FDCWD, state_.c_str(), text)) return {};
  return parse_state(text);
}

bool state_files::is_ready() const {
  if (ready_.empty() || ::access(ready_.c_str(), F_OK) != 0) return false;
  // A launcher that was killed could not remove the file.
  const auto state = read();
  if (!state) return false;
  const auto launcher = read_process_stat(state->launcher);
  return launcher && launcher->started == state->launcher_started;
}

}  // namespace runner
