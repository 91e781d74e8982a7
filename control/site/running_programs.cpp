#include "control/site/running_programs.h"

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "control/proc/in_parallel.h"
#include "control/site/daemon_search.h"

namespace control {
namespace {

constexpr std::size_t kLongestProcessName = 15;
constexpr std::string_view kLauncher = "/keelmond-run";
constexpr std::string_view kStopCommand = "kill -USR2 `pgrep ";
/// A path is the first word of a command line; of a script's the one behind the interpreter, or
/// behind the interpreter's option.
constexpr std::size_t kPathAmong = 3;

/// The command of "sh -c COMMAND"; empty when the words are another one's.
std::string shell_command(const std::vector<std::string>& words) {
  if (words.size() < 3 || words[1] != "-c") return {};
  const std::string& shell = words[0];
  if (shell != "sh" && !shell.ends_with("/sh")) return {};
  return words.back();
}

/// What a map has for the key; null when it has nothing.
template <typename Map>
const typename Map::mapped_type* look_up(const Map& map, const std::string& key) {
  const auto at = map.find(key);
  return at == map.end() ? nullptr : &at->second;
}

}  // namespace

std::string process_name_of(const std::string& path) {
  return path.substr(path.rfind('/') + 1).substr(0, kLongestProcessName);
}

program_finder::program_finder(const proc_dir& proc, const process_table& table,
                               const std::vector<listed_program>& programs)
    : proc_(proc), table_(table) {
  for (const listed_program& entry : programs) {
    if (entry.refused != refusal::none) continue;
    by_path_[entry.exepath].push_back(&entry);
    by_name_[process_name_of(entry.name)].push_back(&entry);
  }
}

/// @return nothing for a child that runs a stop command.
std::optional<program_finder::description> program_finder::describe(const process& child) const {
  description what;
  what.found.child = child;
  for (const process* const one : table_.tree(child.pid)) {
    if (one->pid != child.pid) what.found.tree.push_back(*one);
  }
  if (what.found.tree.empty()) return what;
  const process& first = what.found.tree.front();
  // Still the daemon's program: it has been forked and has not executed anything.
  if (first.name == child.name && proc_.link(first.pid, "exe") == proc_.link(child.pid, "exe"))
    return what;
  what.words = proc_.command_line(first.pid);
  // In the midst of executing something: the words come last. A program may have none, too.
  if (what.words.empty() && look_up(by_name_, first.name) == nullptr) return what;
  what.command = shell_command(what.words);
  if (what.command.starts_with(kStopCommand)) return std::nullopt;
  if (what.command.empty()) {
    what.found.program = first;
  } else {
    what.found.program = below_shell(first, what.words);
  }
  if (what.found.program) {
    what.found.is_launcher = proc_.link(what.found.program->pid, "exe").ends_with(kLauncher);
  }
  return what;
}

/// What a shell waits for. Right after its fork that is still a shell with the same words.
std::optional<process> program_finder::below_shell(const process& shell,
                                                   const std::vector<std::string>& words) const {
  const auto below = table_.children(shell.pid);
  if (below.empty()) return std::nullopt;
  const process& first = *below.front();
  if (first.name == shell.name && proc_.command_line(first.pid) == words) return std::nullopt;
  return first;
}

const program_finder::entries* program_finder::entries_by_path(const description& what) const {
  const entries* found = nullptr;
  if (!what.command.empty()) found = look_up(by_path_, what.command);
  const std::size_t looked_at = what.command.empty() ? std::min(what.words.size(), kPathAmong) : 0;
  for (std::size_t i = 0; i < looked_at && found == nullptr; ++i)
    found = look_up(by_path_, what.words[i]);
  return found;
}

const program_finder::entries* program_finder::entries_for(const description& what) const {
  const entries* found = entries_by_path(what);
  // A program that has changed its command line, or an entry whose path has been changed since.
  if (found == nullptr && what.found.program) found = look_up(by_name_, what.found.program->name);
  return found;
}

void program_finder::name(description& what, std::unordered_map<std::string, int>& taken) const {
  const entries* const candidates = entries_for(what);
  if (candidates == nullptr) {
    if (what.found.program) what.found.name = what.found.program->name;
    return;
  }
  // Entries that run the same file cannot be told apart; each gets one of the processes.
  const auto fewest = std::min_element(candidates->begin(), candidates->end(),
                                       [&](const listed_program* a, const listed_program* b) {
                                         return taken[a->name] < taken[b->name];
                                       });
  what.found.name = (*fewest)->name;
  what.found.listed = true;
  ++taken[what.found.name];
}

std::vector<running_program> program_finder::below(const process& daemon) const {
  const std::vector<const process*> children = table_.children(daemon.pid);
  std::vector<std::optional<description>> described(children.size());
  in_parallel(children.size(), [&](std::size_t i) {
    if (children[i]->threads == 1) described[i] = describe(*children[i]);
  });
  std::vector<running_program> found;
  std::unordered_map<std::string, int> taken;
  for (std::optional<description>& one : described) {
    if (!one) continue;
    name(*one, taken);
    found.push_back(std::move(one->found));
  }
  return found;
}

bool program_finder::is_daemon(pid_t pid) const {
  const process* const one = table_.find(pid);
  return one != nullptr && one->name == kDaemonName && may_be_daemon(*one);
}

/// Whether nobody is left of those who started it: its parent has adopted it. The daemon has made a
/// session whose first process is gone.
bool program_finder::is_orphan(const process& one) const {
  const process* const parent = table_.find(one.parent);
  return table_.find(one.session) == nullptr &&
         (parent == nullptr || parent->session != one.session);
}

void program_finder::append_orphaned_programs(const std::string& directory,
                                              std::vector<running_program>& out) const {
  std::unordered_map<std::string, int> taken;
  for (const process& one : table_.all()) {
    if (one.name == kDaemonName || !is_orphan(one)) continue;
    description what;
    what.words = proc_.command_line(one.pid);
    what.command = shell_command(what.words);
    const entries* const candidates = entries_by_path(what);
    if (candidates == nullptr || !candidates->front()->exepath.starts_with(directory + "/"))
      continue;
    // The first process that is left, the program or its shell, takes the place of the child.
    what.found.child = one;
    for (const process* const below : table_.tree(one.pid))
      what.found.tree.push_back(*below);
    what.found.program = one;
    if (!what.command.empty()) {
      what.found.program = below_shell(one, what.words);
    }
    name(what, taken);
    out.push_back(std::move(what.found));
  }
}

std::vector<running_program> program_finder::left_over(
    const std::string& directory, const std::function<bool(const process&)>& was_launched) const {
  std::vector<running_program> found;
  std::unordered_map<std::string, int> taken;
  for (const process& child : table_.all()) {
    if (child.name != kDaemonName || child.threads > 1 || is_daemon(child.parent)) continue;
    std::optional<description> what = describe(child);
    if (!what || what->found.tree.empty()) continue;
    name(*what, taken);
    const auto is_here = [&] {
      // By the path alone: another directory may have a program of the same name.
      const entries* const by_path = entries_by_path(*what);
      if (by_path != nullptr && by_path->front()->exepath.starts_with(directory + "/")) return true;
      return entries_for(*what) != nullptr && proc_.environment(child.pid, "PWD") == directory;
    };
    if (was_launched(child) || is_here()) found.push_back(std::move(what->found));
  }
  append_orphaned_programs(directory, found);
  return found;
}

}  // namespace control
