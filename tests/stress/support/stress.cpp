#include "tests/stress/support/stress.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/ordinary_user.h"
#include "tests/e2e/support/supervisor_binary.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace stress {
namespace {

bool is_long() {
  const char* form = std::getenv("KEELMOND_STRESS");
  return form != nullptr && std::string_view(form) == "long";
}

void own(const fs::path& path, uid_t user) {
  if (::lchown(path.c_str(), user, user) != 0) throw std::runtime_error("chown");
}

/// Becomes the user that a process belongs to: only that one may always limit it.
bool become_owner_of(pid_t pid) {
  const auto user = static_cast<uid_t>(status_number(pid, "Uid"));
  const auto group = static_cast<gid_t>(status_number(pid, "Gid"));
  return user == ::geteuid() ||
         (::setresgid(group, group, group) == 0 && ::setresuid(user, user, user) == 0);
}

/// Sets the limit that a process meets to what `most` makes of the limits that it has.
template <typename Function>
void set_limit(pid_t pid, int resource, Function most) {
  const auto kind = static_cast<__rlimit_resource>(resource);
  const pid_t owner = ::fork();
  if (owner == 0) {
    rlimit limits{};
    bool done = become_owner_of(pid) && ::prlimit(pid, kind, nullptr, &limits) == 0;
    limits.rlim_cur = most(limits);
    done = done && ::prlimit(pid, kind, &limits, nullptr) == 0;
    ::_exit(done ? 0 : 1);
  }
  children::announce(owner);
  if (children::wait_for_end(owner) != 0) throw std::runtime_error("prlimit");
}

[[noreturn]] void execute(const std::string& binary) {
  char name[] = "keelmond";
  char* argv[] = {name, nullptr};
  ::execv(binary.c_str(), argv);
  ::_exit(124);
}

}  // namespace

int rounds(int in_long, int in_short) {
  return is_long() ? in_long : in_short;
}

std::chrono::seconds patience() {
  return std::chrono::seconds(rounds(1800, 60));
}

std::mt19937 random_numbers() {
  const char* given = std::getenv("KEELMOND_STRESS_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                         : std::random_device{}();
  // At once: forked processes would tell it again.
  std::cout << "KEELMOND_STRESS_SEED=" << seed << std::endl;
  return std::mt19937(seed);
}

int between(std::mt19937& random, int low, int high) {
  return std::uniform_int_distribution<int>(low, high)(random);
}

void sleep_ms(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

start_options without_leak_check(start_options options) {
  options.before_exec = [before = std::move(options.before_exec)] {
    if (before) before();
    const char* given = std::getenv("ASAN_OPTIONS");
    const std::string all = (given != nullptr ? std::string(given) + ":" : "") + "detect_leaks=0";
    ::setenv("ASAN_OPTIONS", all.c_str(), 1);
  };
  return options;
}

start_options fast(start_options options) {
  options.before_exec = [before = std::move(options.before_exec)] {
    if (before) before();
    execute(fast_binary());
  };
  return options;
}

std::string fast_binary() {
  return KEELMOND_FAST_BINARY;
}

std::size_t pauses(const installation& place) {
  std::error_code none;
  const auto size = fs::file_size(place.site() / "pauses", none);
  // Each has two times, and one as long as it lasts.
  constexpr std::size_t kTime = sizeof(std::int64_t);
  return none ? 0 : (static_cast<std::size_t>(size) / kTime + 1) / 2;
}

std::vector<pause> noted_pauses(const installation& place) {
  std::istringstream notes(place.read("pauses"));
  const auto next = [&notes] {
    char bytes[sizeof(std::int64_t)];
    std::int64_t time = 0;
    if (!notes.read(bytes, sizeof bytes)) return pause::clock::time_point::max();
    std::memcpy(&time, bytes, sizeof time);
    return pause::clock::time_point{std::chrono::nanoseconds(time)};
  };
  std::vector<pause> found;
  for (pause one{next(), next()}; one.begin != pause::clock::time_point::max();
       one = {next(), next()}) {
    found.push_back(one);
  }
  return found;
}

bool wait_armed(const installation& place, std::size_t wanted) {
  return wait_until([&] { return pauses(place) >= wanted && place.is_watching(); }, patience());
}

std::vector<int> descriptors(pid_t pid) {
  std::vector<int> found;
  std::error_code gone;
  const fs::path directory = fs::path("/proc") / std::to_string(pid) / "fd";
  for (fs::directory_iterator at(directory, gone), end; !gone && at != end; at.increment(gone))
    found.push_back(std::stoi(at->path().filename().string()));
  std::sort(found.begin(), found.end());
  return found;
}

long status_number(pid_t pid, std::string_view field) {
  return std::strtol(process_table::status_field(pid, field).c_str(), nullptr, 10);
}

load_count::load_count(const installation& place)
    : console_((place.site().parent_path() / "console").string()) {}

std::size_t load_count::now() {
  std::ifstream in(console_, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(read_));
  char part[65536];
  while (in.read(part, sizeof part), in.gcount() > 0) {
    read_ += static_cast<std::size_t>(in.gcount());
    line_.append(part, static_cast<std::size_t>(in.gcount()));
  }
  const std::size_t whole = line_.rfind('\n') + 1;
  found_ += count(std::string_view(line_).substr(0, whole), "loadServerConfig : ");
  line_.erase(0, whole);
  return found_;
}

std::size_t launches(const installation& place) {
  return count(place.log(), "launched sub process PID: ");
}

std::size_t ends(const installation& place) {
  return count(place.log(), "exited process PID: ");
}

std::vector<std::string> stopped_names(const installation& place) {
  constexpr std::string_view kStop = "kill -USR2 result: kill -USR2 `pgrep ";
  std::vector<std::string> names;
  for (const std::string& line : lines_of(place.console())) {
    if (line.starts_with(kStop)) {
      names.push_back(line.substr(kStop.size(), line.rfind('`') - kStop.size()));
    }
  }
  return names;
}

std::vector<std::string> running_names(const installation& place,
                                       const std::vector<std::string>& programs) {
  std::vector<std::string> names;
  for (const auto& process : place.processes()) {
    if (std::find(programs.begin(), programs.end(), process.name) != programs.end()) {
      names.push_back(process.name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool settles(const installation& place, const std::vector<std::string>& all,
             std::vector<std::string> wanted) {
  std::sort(wanted.begin(), wanted.end());
  // Twice the same: what is about to run twice gets the time to do so.
  const auto as_wanted = [&] { return running_names(place, all) == wanted; };
  for (const auto end = std::chrono::steady_clock::now() + patience();
       std::chrono::steady_clock::now() < end;) {
    if (wait_until(as_wanted) && keeps(as_wanted)) return true;
  }
  return false;
}

void kill_running(const installation& place, const std::string& name, std::size_t starts) {
  const pid_t pid = place.wait_running(name, starts);
  if (pid <= 0) throw std::runtime_error(name + " does not run");
  ::kill(pid, SIGKILL);
}

bool reload(const installation& place) {
  const std::size_t before = place.loads();
  place.signal(SIGUSR1);
  if (!wait_until([&] { return place.loads() > before; }, patience())) return false;
  // The load has begun. It is over when the one after it begins.
  place.signal(SIGUSR1);
  return wait_until([&] { return place.loads() > before + 1; }, patience());
}

void expect_clean_end(const installation& place) {
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
  const std::string log = place.log();
  EXPECT_TRUE(log.ends_with(golden::kClosed))
      << log.substr(log.size() - std::min<std::size_t>(log.size(), 300));
  EXPECT_TRUE(wait_until([&] { return place.processes().empty(); })) << "programs are left";
  EXPECT_EQ(place.log().size(), log.size());
  EXPECT_FALSE(place.has("run.pid"));
}

void limit(pid_t pid, int resource, rlim_t most) {
  set_limit(pid, resource, [most](const rlimit&) { return most; });
}

void unlimit(pid_t pid, int resource) {
  set_limit(pid, resource, [](const rlimit& now) { return now.rlim_max; });
}

start_options by_ordinary_user(const installation& place, start_options options,
                               std::string binary) {
  if (binary.empty()) binary = supervisor_binary();
  const bool is_root = ::geteuid() == 0;
  const uid_t user = is_root ? ordinary_user::id() : ::geteuid();
  if (is_root) {
    // The tree may lie where the user must not look.
    const fs::path scratch = place.site().parent_path();
    const fs::path within_reach = scratch / "bin" / "keelmond";
    fs::create_directories(within_reach.parent_path());
    fs::copy_file(binary, within_reach, fs::copy_options::overwrite_existing);
    binary = within_reach.string();
    own(scratch, user);
    for (const auto& item : fs::recursive_directory_iterator(scratch))
      own(item.path(), user);
  }
  options.before_exec = [before = std::move(options.before_exec), user, is_root, binary] {
    if (before) before();
    if (is_root && (::setresgid(user, user, user) != 0 || ::setresuid(user, user, user) != 0)) {
      ::_exit(125);
    }
    execute(binary);
  };
  return options;
}

void give_to_user(const std::string& file) {
  if (::geteuid() == 0) own(file, ordinary_user::id());
}

void save_for_user(const installation& place, const std::string& text) {
  const fs::path draft = place.site() / "config" / "draft";
  write_file(draft, text);
  give_to_user(draft);
  fs::rename(draft, place.site() / "config" / "server.ini");
}

}  // namespace stress
