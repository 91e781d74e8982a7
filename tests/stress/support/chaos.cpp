#include "tests/stress/support/chaos.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace stress {
namespace {

/// At most so many programs are added to those of the beginning.
constexpr std::size_t kMostPrograms = 24;

/// The acts that the environment leaves out, as "limit_memory,spoil_mark": to find out which one a
/// failure needs.
bool is_left_out(std::string_view name) {
  const char* given = std::getenv("KEELMOND_CHAOS_WITHOUT");
  if (given == nullptr) return false;
  const std::string names = "," + std::string(given) + ",";
  return names.find("," + std::string(name) + ",") != std::string::npos;
}

void set_modified(const fs::path& path, time_t when) {
  const timespec times[2] = {{0, UTIME_OMIT}, {when, 0}};
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

}  // namespace

template <typename Container>
auto& chaos::any_of(Container& items) {
  return *(std::begin(items) + between(random_, 0, static_cast<int>(std::size(items)) - 1));
}

const chaos::act chaos::kActs[] = {
    {"kill_one", 12, &chaos::kill_one},
    {"stop_one", 8, &chaos::stop_one},
    {"continue_one", 6, &chaos::continue_one},
    {"pause_supervisor", 2, &chaos::pause_supervisor},
    {"ask_for_reloads", 4, &chaos::ask_for_reloads},
    {"save_states", 4, &chaos::save_states},
    {"save_one_more", 1, &chaos::save_one_more},
    {"save_garbage", 2, &chaos::save_garbage},
    {"save_half", 2, &chaos::save_half},
    {"save_with_old_time", 1, &chaos::save_with_old_time},
    {"limit_processes", 1, &chaos::limit_processes},
    {"limit_descriptors", 1, &chaos::limit_descriptors},
    {"limit_memory", 1, &chaos::limit_memory},
    {"limit_file_size", 1, &chaos::limit_file_size},
    {"lift_limits", 4, &chaos::lift_limits},
    {"fill_disk", 1, &chaos::fill_disk},
    {"make_room", 2, &chaos::make_room},
    {"spoil_mark", 2, &chaos::spoil_mark},
    {"close_directory", 1, &chaos::close_directory},
    {"close_configuration", 1, &chaos::close_configuration},
    {"jump_in_time", 2, &chaos::jump_in_time},
};

chaos::chaos(installation& place, const small_disk& disk, std::vector<listed_program> programs,
             std::mt19937& random)
    : place_(place), disk_(disk), programs_(std::move(programs)), random_(random) {
  for (const act& one : kActs) {
    if (!is_left_out(one.name)) acts_.push_back(one);
  }
}

void chaos::harm() {
  const int all = std::accumulate(acts_.begin(), acts_.end(), 0,
                                  [](int sum, const act& one) { return sum + one.weight; });
  int drawn = between(random_, 1, all);
  for (const act& one : acts_) {
    drawn -= one.weight;
    if (drawn > 0) continue;
    story_ += std::string(one.name) + " ";
    (this->*one.body)();
    story_ += "\n";
    return;
  }
}

void chaos::repair() {
  lift_limits();
  make_room();
  restore_files();
  for (const auto& process : place_.processes())
    ::kill(process.pid, SIGCONT);
  is_held_ = false;
  shuffle_states();
  save(server_ini(programs_));
}

void chaos::restore_files() {
  fs::remove(place_.site() / "clock");
  for (const char* directory : {"notify", "programs", "config"})
    fs::permissions(place_.site() / directory, fs::perms::owner_all);
  is_closed_ = false;
  for (const auto& item : fs::directory_iterator(place_.site() / "notify")) {
    if (item.symlink_status().type() != fs::file_type::regular ||
        (item.status().permissions() & fs::perms::owner_write) == fs::perms::none) {
      fs::remove_all(item);
    }
  }
}

void chaos::end_leftovers() const {
  const pid_t daemon = place_.daemon();
  for (const auto& process : place_.processes()) {
    const bool is_left =
        process.pid != daemon &&
        (!process_table::is_below(process.pid, daemon) ||
         std::any_of(stopped_children_.begin(), stopped_children_.end(), [&](pid_t child) {
           return process.pid == child || process_table::is_below(process.pid, child);
         }));
    if (is_left) ::kill(process.pid, SIGKILL);
  }
}

void chaos::forget() {
  stopped_children_.clear();
  story_.clear();
}

// Processes -------------------------------------------------------------------------------------

std::vector<process_table::process> chaos::victims() const {
  auto all = place_.processes();
  std::erase_if(all, [this](const auto& process) { return process.pid == place_.daemon(); });
  return all;
}

void chaos::kill_one() {
  const auto all = victims();
  if (all.empty()) return;
  const auto& victim = any_of(all);
  constexpr int kSignals[] = {SIGKILL, SIGKILL, SIGKILL, SIGTERM, SIGUSR2, SIGHUP};
  const int sig = any_of(kSignals);
  tell(victim.name + " by " + std::to_string(sig));
  ::kill(victim.pid, sig);
}

void chaos::stop_one() {
  const auto all = victims();
  if (all.empty()) return;
  const auto& victim = any_of(all);
  tell(victim.name);
  if (victim.parent == place_.daemon()) stopped_children_.insert(victim.pid);
  ::kill(victim.pid, SIGSTOP);
}

void chaos::continue_one() {
  auto all = victims();
  std::erase_if(all, [](const auto& process) { return process.state != 'T'; });
  if (!all.empty()) ::kill(any_of(all).pid, SIGCONT);
}

void chaos::pause_supervisor() {
  place_.signal(SIGSTOP);
  sleep_ms(between(random_, 0, 50));
  place_.signal(SIGCONT);
}

void chaos::ask_for_reloads() {
  const int signals = between(random_, 1, 100);
  tell(std::to_string(signals));
  for (int i = 0; i < signals; ++i)
    place_.signal(SIGUSR1);
}

// The configuration -----------------------------------------------------------------------------

void chaos::save(const std::string& text) {
  if (is_held_) return;
  if (chance(50) && !is_full_) {
    save_for_user(place_, text);
  } else {
    // What a full disk does not take is lost.
    std::ofstream(place_.site() / "config" / "server.ini", std::ios::binary) << text;
  }
}

void chaos::shuffle_states() {
  for (listed_program& program : programs_)
    program.state = chance(75) ? "run" : "stop";
}

void chaos::save_states() {
  shuffle_states();
  save(server_ini(programs_));
}

void chaos::save_one_more() {
  if (programs_.size() >= kMostPrograms || is_full_ || is_held_ || is_closed_) return;
  programs_.push_back(place_.entry(place_.add_steady()));
  give_to_user(programs_.back().exepath);
  save(server_ini(programs_));
}

void chaos::save_garbage() {
  std::string text = chance(50) ? "[keelmond]\nlinux=9\nsvr1=" : "";
  for (int bytes = between(random_, 0, 5000); bytes > 0; --bytes)
    text += static_cast<char>(between(random_, 0, 255));
  save(text);
}

void chaos::save_half() {
  const std::string text = server_ini(programs_);
  const int length = between(random_, 0, static_cast<int>(text.size()));
  tell(std::to_string(length));
  save(text.substr(0, static_cast<std::size_t>(length)));
}

void chaos::save_with_old_time() {
  if (is_held_) return;
  save_states();
  constexpr time_t kTimes[] = {0, 1000000000, 4102444800};
  set_modified(place_.site() / "config" / "server.ini", any_of(kTimes));
}

/// Sees to it that the supervisor watches and has nothing to do with a save any more, so that it
/// sets no watch before the next one.
bool chaos::hold_watch() {
  if (is_held_) return true;
  if (is_full_ || !limits_.empty()) return false;
  // A save during the pause before is not seen; the next one is. Each gets more time than the last:
  // where one comes during every load, there is no pause.
  for (std::chrono::milliseconds limit(500);; limit *= 2) {
    save_for_user(place_, server_ini(programs_));
    const std::size_t before = pauses(place_);
    if (wait_until([&] { return pauses(place_) > before; }, limit)) break;
    if (limit > patience()) throw std::runtime_error("no pause:\n" + story_);
  }
  if (!wait_until([this] { return place_.is_watching(); }, patience())) {
    throw std::runtime_error("no watch is set:\n" + story_);
  }
  is_held_ = true;
  return true;
}

// What the machine has to give --------------------------------------------------------------------

void chaos::limit_to(int resource, rlim_t most) {
  tell(std::to_string(most));
  limit(place_.daemon(), resource, most);
  limits_.insert(resource);
}

void chaos::limit_processes() {
  limit_to(RLIMIT_NPROC, static_cast<rlim_t>(between(random_, 1, 60)));
}

void chaos::limit_descriptors() {
  if (hold_watch()) limit_to(RLIMIT_NOFILE, static_cast<rlim_t>(between(random_, 0, 8)));
}

void chaos::limit_memory() {
#ifndef KEELMOND_SANITIZED
  const auto used = static_cast<rlim_t>(status_number(place_.daemon(), "VmSize"));
  limit_to(RLIMIT_AS, (used + static_cast<rlim_t>(between(random_, 0, 200))) * 1024);
#endif
}

void chaos::limit_file_size() {
  limit_to(RLIMIT_FSIZE, static_cast<rlim_t>(between(random_, 0, 20000)));
}

void chaos::lift_limits() {
  for (const int resource : limits_)
    unlimit(place_.daemon(), resource);
  limits_.clear();
}

void chaos::fill_disk() {
  if (!disk_.mounted() || is_full_) return;
  disk_.fill();
  is_full_ = true;
}

void chaos::make_room() {
  if (is_full_) disk_.make_room();
  is_full_ = false;
}

// Files and the time ----------------------------------------------------------------------------

void chaos::spoil_mark() {
  const fs::path mark = place_.site() / "notify" / (any_of(programs_).name + ".dat");
  const int kind = between(random_, 0, 3);
  tell(std::to_string(kind));
  // The supervisor may be faster, or the directory closed.
  std::error_code in_use;
  fs::remove_all(mark, in_use);
  if (kind == 0) {
    ::mkfifo(mark.c_str(), 0666);
  } else if (kind == 1) {
    fs::create_directory(mark, in_use);
  } else if (kind == 2) {
    fs::create_symlink(mark.filename(), mark, in_use);
  } else {
    ::close(::open(mark.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0));
  }
}

void chaos::close_directory() {
  constexpr const char* kDirectories[] = {"notify", "programs"};
  const char* directory = any_of(kDirectories);
  tell(directory);
  fs::permissions(place_.site() / directory, fs::perms::none);
  is_closed_ = true;
}

void chaos::close_configuration() {
  if (hold_watch()) fs::permissions(place_.site() / "config", fs::perms::none);
}

void chaos::jump_in_time() {
  constexpr time_t kTimes[] = {0, 1, 1000000000, 2147483647, 2147483648, 4102444800, 253402214400};
  const fs::path clock = place_.site() / "clock";
  if (chance(20)) {
    fs::remove(clock);
    return;
  }
  ::close(::open(clock.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  set_modified(clock, any_of(kTimes));
}

// -----------------------------------------------------------------------------------------------

bool chaos::chance(int percent) {
  return between(random_, 1, 100) <= percent;
}

void chaos::tell(const std::string& what) {
  story_ += what + " ";
}

}  // namespace stress
