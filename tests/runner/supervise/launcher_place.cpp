#include "tests/runner/supervise/launcher_place.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <stdexcept>

#include "runner/supervise/supervision.h"
#include "tests/support/fault.h"
#include "tests/support/unique_name.h"
#include "tests/support/wait_until.h"

using runner::program_phase;
using runner::program_state;

namespace {

constexpr std::chrono::seconds kLimit{30};

[[noreturn]] void run(const scratch_dir& directory, const std::string& name,
                      const std::function<void()>& prepare) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int errors =
      ::open(directory.file("errors").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ::dup2(errors, STDERR_FILENO);
  if (prepare) prepare();
  ::_exit(runner::supervision(directory.file(name)).run());
}

}  // namespace

void have_no_process_handles() {
  const auto number = static_cast<std::uint32_t>(SYS_pidfd_open);
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(filter), filter};
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
    throw std::runtime_error("there are no filters of calls");
}

launcher_place::launcher_place() : name_(unique_name()) {
  std::filesystem::create_directory(directory_.path() / "notify");
}

launcher_place::~launcher_place() {
  if (pid_ == 0) return;
  send(SIGTERM);
  if (wait_end()) return;
  ADD_FAILURE() << "the launcher does not end";
  real::kill(pid_, SIGKILL);
  real::waitpid(pid_, nullptr, 0);
}

void launcher_place::write(std::string_view text) const {
  directory_.write(
      name_, "[program]\nsupervisor = " + directory_.path().string() + "\n" + std::string(text));
}

void launcher_place::start(const std::function<void()>& prepare) {
  std::fflush(nullptr);
  pid_ = real::fork();
  if (pid_ < 0) throw std::runtime_error("cannot fork");
  if (pid_ == 0) run(directory_, name_, prepare);
}

void launcher_place::send(int signal) const {
  real::kill(pid_, signal);
}

bool launcher_place::wait_end() {
  if (!wait_until([&] { return real::waitpid(pid_, nullptr, WNOHANG) == pid_; }, kLimit))
    return false;
  pid_ = 0;
  return true;
}

std::optional<program_state> launcher_place::state() const {
  return runner::parse_state(directory_.read("notify/" + name_ + ".state"));
}

program_state launcher_place::wait_phase(program_phase phase) const {
  std::optional<program_state> last;
  const bool is_there = wait_until(
      [&] {
        last = state();
        return last && last->phase == phase;
      },
      kLimit);
  if (!is_there) {
    throw std::runtime_error("it does not come to be " + std::string(runner::phase_name(phase)) +
                             ":\n" + directory_.read("notify/" + name_ + ".state") + errors());
  }
  return *last;
}

std::string launcher_place::wait_text(std::string_view file, const std::string& text) const {
  wait_until([&] { return directory_.read(file) == text; }, kLimit);
  return directory_.read(file);
}
