#include "tests/e2e/control/control_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "tests/e2e/support/children.h"

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds kLongest{300};

[[noreturn]] void become_control(const installation& place, const fs::path& files,
                                 std::vector<std::string> arguments) {
  const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  const int output = ::open((files / "output").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  const int errors = ::open((files / "errors").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (::dup2(input, 0) < 0 || ::dup2(output, 1) < 0 || ::dup2(errors, 2) < 0) ::_exit(120);
  ::closefrom(3);
  // What is started is found by this, and ended with the installation.
  ::setenv("KEELMOND_TEST_INSTALLATION", place.site().parent_path().c_str(), 1);
  arguments.insert(arguments.begin(), "keelmondctl");
  std::vector<char*> argv;
  for (std::string& argument : arguments)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  if (::chdir(place.site().c_str()) != 0) ::_exit(121);
  ::execv(KEELMONDCTL_BINARY, argv.data());
  ::_exit(122);
}

}  // namespace

running_control::running_control(const installation& place,
                                 const std::vector<std::string>& arguments)
    : pid_(::fork()) {
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) become_control(place, scratch_.path(), arguments);
  children::announce(pid_);
}

running_control::~running_control() {
  if (!children::status_of(pid_)) ::kill(pid_, SIGKILL);
}

control_result running_control::wait() {
  const int status = children::wait_for_end(pid_, kLongest).value_or(-1);
  return {status, output(), errors()};
}

control_result control(const installation& place, const std::vector<std::string>& arguments) {
  return running_control(place, arguments).wait();
}

bool holds_process(pid_t pid) {
  std::error_code gone;
  const fs::path descriptors = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& one : fs::directory_iterator(descriptors, gone)) {
    if (contains(fs::read_symlink(one.path(), gone).string(), "pidfd")) return true;
  }
  return false;
}

pid_t daemon_of(const installation& place) {
  for (const auto& process : place.processes()) {
    if (process.name == "keelmond" && process_table::count_threads(process.pid) > 1)
      return process.pid;
  }
  return 0;
}

std::string row_of(const std::string& table, const std::string& name) {
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string first;
    if (!(words >> first) || first != name) continue;
    std::string row = first;
    for (std::string word; words >> word;)
      row += " " + word;
    return row;
  }
  return "";
}
