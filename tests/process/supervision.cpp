#include "tests/process/supervision.h"

#include <sys/stat.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <stdexcept>

#include "common/log/log_file.h"
#include "process/child.h"
#include "process/recorder.h"
#include "process/supervisor_signals.h"
#include "tests/support/log_text.h"
#include "tests/support/scratch_dir.h"

supervision& supervision::begin() {
  static supervision* const instance = new supervision;
  return *instance;
}

supervision::supervision() {
  supervisor_signals::block();
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGCHLD, SIG_IGN);
  child::start();
  recorder::start();
  std::filesystem::create_directory("notify");
  g_logFile = new Tlog_file;
  if (!g_logFile->create_log_file("keelmond.log", false)) throw std::runtime_error("no log");
}

std::string supervision::log() const {
  return with_times_masked(read_file("keelmond.log"));
}

std::string write_program(const std::string& name, std::string_view body) {
  const std::string path = std::filesystem::current_path() / name;
  write_file(path, "#!/bin/sh\n" + std::string(body));
  if (::chmod(path.c_str(), 0755) != 0) throw std::runtime_error("cannot make it executable");
  return path;
}

Tfun_monitor& new_monitor(const std::string& command, const std::string& name, const char* state) {
  return *new Tfun_monitor(command.c_str(), name.c_str(), state);
}

std::string launched(int pid) {
  return "launched sub process PID: " + std::to_string(pid) + " \r\n<time>\r\n";
}

std::string exited(const std::string& pid, int error) {
  return "exited process PID: " + pid + "  errno: " + std::to_string(error) + "\r\n<time>\r\n";
}

bool exists(const std::string& path) {
  return std::filesystem::exists(path);
}

char state_of(pid_t pid) {
  const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
  const std::size_t at = status.find("State:\t");
  return at == std::string::npos ? '?' : status[at + 7];
}
