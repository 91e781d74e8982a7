#include "tests/e2e/support/installation.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/supervisor_binary.h"
#include "tests/support/text.h"
#include "tests/support/unique_name.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

constexpr char kMark[] = "KEELMOND_TEST_INSTALLATION";

/// Adds to the options that a sanitizer has been given.
void add_options(const char* variable, const std::string& more) {
  const char* given = std::getenv(variable);
  ::setenv(variable, ((given != nullptr ? std::string(given) + ":" : "") + more).c_str(), 1);
}

void reset_signals() {
  for (int number = 1; number <= SIGRTMAX; ++number)
    ::signal(number, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

int open_to_append(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
}

/// Whether a sanitizer has found something. That a thread ended while LeakSanitizer looked at it is
/// none.
bool is_finding(const std::string& report) {
  const std::vector<std::string> lines = lines_of(report);
  return std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
    return !line.empty() && line.find("Unable to get registers from thread") == std::string::npos;
  });
}

}  // namespace

installation::installation(std::string_view site)
    : site_(scratch_.path() / site), mark_(std::string(kMark) + "=" + scratch_.path().string()) {
  fs::create_directories(site_ / "config");
  fs::create_directories(site_ / "notify");
  fs::create_directories(site_ / "programs");
  if (::mkfifo(scratch_.file("never").c_str(), 0600) != 0) throw std::runtime_error("mkfifo");
  save(std::vector<listed_program>{});
}

installation::~installation() {
  kill_everything();
  report_sanitizers();
}

bool installation::is_live(std::string_view program) const {
  return read("notify/" + std::string(program) + ".dat") == "1";
}

std::string installation::add_script(std::string_view body, std::string_view directory) {
  std::string name = unique_name();
  fs::create_directories(site_ / directory);
  write_script(site_ / directory / name, body);
  return name;
}

std::string installation::add_executable(std::string_view text) {
  std::string name = unique_name();
  write_executable(site_ / "programs" / name, text);
  return name;
}

void installation::write_script(const fs::path& path, std::string_view body) const {
  write_executable(path, "#!/bin/sh\n" + std::string(body));
}

void installation::write_executable(const fs::path& path, std::string_view text) const {
  // Made elsewhere and moved: a process that is forked meanwhile could hold it open for writing,
  // and then nobody can execute it.
  const fs::path draft = site_ / "draft";
  write_file(draft, text);
  fs::permissions(draft, fs::perms::owner_all);
  fs::rename(draft, path);
}

std::string installation::note_start(std::string_view text) const {
  return "echo \"$$ " + std::string(text) + "\" >> \"" + scratch_.path().string() +
         "/notes.${0##*/}\"\n";
}

std::string installation::stay() const {
  // Reading a pipe that nobody writes to needs no process beside the shell.
  return "read never <> \"" + scratch_.file("never") + "\"\n";
}

listed_program installation::entry(const std::string& name, std::string state) const {
  return {name, (site_ / "programs" / name).string(), std::move(state)};
}

std::vector<std::string> installation::notes(const std::string& name) const {
  std::vector<std::string> lines;
  std::istringstream text(scratch_.read("notes." + name));
  for (std::string line; std::getline(text, line);)
    lines.push_back(line);
  return lines;
}

std::vector<pid_t> installation::running(const std::string& name) const {
  // By the name, which is nobody else's: a process that is being executed has that before it has an
  // environment.
  std::vector<pid_t> pids;
  for (const auto& process : process_table::all()) {
    if (process.name == name) pids.push_back(process.pid);
  }
  return pids;
}

pid_t installation::wait_running(const std::string& name, std::size_t wanted) const {
  pid_t pid = 0;
  const bool runs = wait_until([&] {
    if (starts(name) != wanted) return false;
    pid = std::atoi(notes(name).back().c_str());
    return running(name) == std::vector<pid_t>{pid};
  });
  if (!runs) {
    throw std::runtime_error(name + " was started " + std::to_string(starts(name)) +
                             " times instead of " + std::to_string(wanted) + ", and " +
                             std::to_string(running(name).size()) + " run");
  }
  return pid;
}

void installation::save(std::string_view text) const {
  write_file(site_ / "config" / "server.ini.new", text);
  fs::rename(site_ / "config" / "server.ini.new", site_ / "config" / "server.ini");
}

void installation::edit(std::string_view text) const {
  edit_by([&] { save(text); });
}

void installation::edit_by(const std::function<void()>& modify) const {
  wait_watching();
  const std::size_t before = loads();
  modify();
  if (!wait_until([&] { return loads() > before && is_pausing(); })) {
    throw std::runtime_error("no reload:\n" + console());
  }
}

int installation::run(const start_options& options) {
  return children::wait_for_end(spawn(options)).value_or(-1);
}

void installation::start(const start_options& options) {
  const std::vector<pid_t> before = daemons();
  const auto came_up = [&] {
    for (const pid_t pid : daemons()) {
      if (std::find(before.begin(), before.end(), pid) == before.end()) daemon_ = pid;
    }
    return is_watching();
  };
  daemon_ = 0;
  const int status = run(options);
  if (status != 0 || !wait_until(came_up)) {
    throw std::runtime_error("the supervisor did not start: " + std::to_string(status) + "\n" +
                             console() + errors());
  }
}

pid_t installation::start_with(const std::string& name) {
  return start_with(std::vector<std::string>{name}).front();
}

std::vector<pid_t> installation::start_with(const std::vector<std::string>& names) {
  std::vector<listed_program> programs;
  programs.reserve(names.size());
  for (const std::string& name : names)
    programs.push_back(entry(name));
  save(programs);
  start();
  std::vector<pid_t> running;
  running.reserve(names.size());
  for (const std::string& name : names)
    running.push_back(wait_running(name));
  return running;
}

pid_t installation::spawn(const start_options& options) const {
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) become_supervisor(options);
  children::announce(pid);
  return pid;
}

void installation::become_supervisor(const start_options& options) const {
  const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int output =
      options.output >= 0 ? options.output : open_to_append(scratch_.file("console"));
  const int errors = open_to_append(scratch_.file("errors"));
  if (::dup2(input, 0) < 0 || ::dup2(output, 1) < 0 || ::dup2(errors, 2) < 0) ::_exit(120);
  ::closefrom(3);
  reset_signals();
  ::umask(022);
  ::setenv(kMark, scratch_.path().c_str(), 1);
  const std::string report = "log_path=" + scratch_.file("sanitizer");
  add_options("ASAN_OPTIONS", report);
  add_options("UBSAN_OPTIONS", report + ":print_stacktrace=1");
  // The handlers run only where a thread waits and holds nothing, so they may do what others
  // must not. And every child would sleep for a second on its way out.
  add_options("TSAN_OPTIONS", report + ":report_signal_unsafe=0:atexit_sleep_ms=20");

  const std::string binary = supervisor_binary();
  std::vector<std::string> arguments = options.arguments;
  arguments.insert(arguments.begin(), "keelmond");
  std::vector<char*> argv;
  for (std::string& argument : arguments)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  if (::chdir(site_.c_str()) != 0) ::_exit(121);
  if (options.before_exec) options.before_exec();
  ::execv(binary.c_str(), argv.data());
  ::_exit(122);
}

void installation::signal(int number) const {
  if (daemon_ <= 0 || ::kill(daemon_, number) != 0) throw std::runtime_error("no daemon to signal");
}

int installation::shut_down_by(int number) const {
  signal(number);
  return wait_end();
}

int installation::wait_end() const {
  return children::wait_for_end(daemon_).value_or(-1);
}

std::size_t installation::loads() const {
  return count(console(), "loadServerConfig : ");
}

void installation::wait_watching() const {
  if (!wait_until([this] { return is_watching(); })) {
    throw std::runtime_error("the configuration is not watched:\n" + console() + errors());
  }
}

std::vector<pid_t> installation::children() const {
  std::vector<pid_t> pids;
  for (const auto& process : processes()) {
    if (process.name == "keelmond" && process.parent == daemon_) pids.push_back(process.pid);
  }
  return pids;
}

std::vector<pid_t> installation::daemons() const {
  // A daemon has been left by its parents and belongs to the session of one that is gone. So has a
  // child whose daemon has ended, but whoever asks knows those from before.
  std::vector<pid_t> pids;
  for (const auto& process : processes()) {
    if (process.name == "keelmond" && process.parent == ::getpid() &&
        process.session != process.pid && process.session != ::getsid(0)) {
      pids.push_back(process.pid);
    }
  }
  return pids;
}

std::vector<process_table::process> installation::processes() const {
  return process_table::all_with(mark_);
}

void installation::kill_everything() const {
  // The daemon first, for it starts programs anew.
  if (daemon_ > 0 && !children::status_of(daemon_)) ::kill(daemon_, SIGKILL);
  // A process that is being executed has no environment for a moment, so one look is not enough.
  int looks_without = 0;
  const bool all_gone = wait_until([&] {
    const auto left = processes();
    for (const auto& process : left)
      ::kill(process.pid, SIGKILL);
    looks_without = left.empty() ? looks_without + 1 : 0;
    return looks_without == 3;
  });
  if (!all_gone) ADD_FAILURE() << "processes of the test cannot be ended";
}

void installation::report_sanitizers() const {
  for (const auto& item : fs::directory_iterator(scratch_.path())) {
    const std::string name = item.path().filename().string();
    if (!name.starts_with("sanitizer.")) continue;
    const std::string report = read_file(item.path());
    if (is_finding(report)) ADD_FAILURE() << report;
  }
}
