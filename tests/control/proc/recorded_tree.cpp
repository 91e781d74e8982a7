#include "tests/control/proc/recorded_tree.h"

#include <filesystem>

namespace fs = std::filesystem;

recorded_tree::recorded_tree(const std::vector<recorded_process>& processes) {
  scratch_.write("uptime", "5000.00 4000.00\n");
  scratch_.write("stat", "cpu 1 2 3\nbtime 1700000000\nprocesses 5\n");
  for (const recorded_process& one : processes) {
    // The fields of proc(5), of which those that nobody asks for are 0.
    const std::string line = std::to_string(one.pid) + " (" + one.name + ") " + one.state + " " +
                             std::to_string(one.parent) + " 0 " + std::to_string(one.session) +
                             " 0 -1 0 0 0 0 0 " + std::to_string(one.cpu) + " 0 0 0 20 0 " +
                             std::to_string(one.threads) + " 0 " + std::to_string(one.started) +
                             " 0 " + std::to_string(one.resident) + "\n";
    std::string words;
    for (const std::string& word : one.words)
      words += word + '\0';
    write(one.pid, "stat", line);
    write(one.pid, "cmdline", words);
  }
}

void recorded_tree::write(pid_t pid, const std::string& name, const std::string& text) const {
  const fs::path path = scratch_.path() / std::to_string(pid) / name;
  fs::create_directories(path.parent_path());
  write_file(path, text);
}

void recorded_tree::link(pid_t pid, const std::string& name, const std::string& target) const {
  const fs::path path = scratch_.path() / std::to_string(pid) / name;
  fs::create_directories(path.parent_path());
  fs::create_symlink(target, path);
}
