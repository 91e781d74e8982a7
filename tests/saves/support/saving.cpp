#include "tests/saves/support/saving.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/ordinary_user.h"
#include "tests/stress/support/stress.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

namespace saving {
namespace {

/// Where people's files are, for the editors: neither /tmp nor $TMPDIR.
constexpr char kScratch[] = "/var/tmp";
/// A pause that has not been seen by then is over: somebody else's save took too long.
constexpr milliseconds kPauseOver{3000};
/// A save that has not been loaded by then is not going to be.
constexpr milliseconds kLongestReload{10000};

bool is_installed(const std::string& program) {
  std::istringstream path(std::getenv("PATH"));
  for (std::string directory; std::getline(path, directory, ':');) {
    if (::access((directory + "/" + program).c_str(), X_OK) == 0) return true;
  }
  return false;
}

fs::path whole_of(const installation& place) {
  return place.site().parent_path() / "whole" / "server.ini";
}

/// One installation in which saves are made, and its supervisor.
class save_site final {
 public:
  explicit save_site(const way& how) : steady_(place_.add_steady()) {
    fs::create_directories(whole_of(place_).parent_path());
    fs::create_directories(place_.site().parent_path() / "home");
    place_.save(text(0));
    run(place_, how.prepare, {"", name_of(0)});
    place_.start(how.for_other_user ? stress::by_ordinary_user(place_) : start_options{});
    save_ = how.begin(place_);
  }

  [[nodiscard]] bool is_watching() const { return place_.is_watching(); }
  [[nodiscard]] bool is_pausing() const { return place_.is_pausing(); }

  void save() {
    // Another file each time: the last one may be the configuration by now.
    fs::remove(whole_of(place_));
    write_file(whole_of(place_), text(++saves_));
    save_({name_of(saves_ - 1), name_of(saves_)});
  }

  [[nodiscard]] bool has_taken() const {
    return place_.console().find("read ini file " + name_of(saves_) + " \r\n") != std::string::npos;
  }

  /// What has become of a save that was not taken.
  [[nodiscard]] std::string state() const {
    std::ostringstream text;
    text << "save " << saves_ << ", loads: " << place_.loads() << ", "
         << (!process_table::is_alive(place_.daemon()) ? "the supervisor has ended"
             : is_watching()                           ? "the supervisor watches"
                                                       : "the supervisor watches nothing");
    return text.str() + "\n" + place_.errors() + "the end of the console:\n" + console_end();
  }

  /// What holds as long as every save is taken.
  void expect_no_harm() const {
    EXPECT_EQ(place_.loads(), count(place_.console(), "read ini file name"))
        << "a file that was not whole was loaded";
    place_.wait_running(steady_);
  }

 private:
  [[nodiscard]] std::string console_end() const {
    const std::string console = place_.console();
    return console.substr(console.size() - std::min<std::size_t>(console.size(), 300));
  }

  [[nodiscard]] std::string text(int number) const {
    const listed_program program = place_.entry(steady_);
    return "[" + program.name + "]\nexepath = " + program.exepath +
           "\nstate = run\n\n[keelmond]\nlinux = 2\nsvr1 = " + program.name +
           "\nsvr2 = " + name_of(number) + "\n";
  }

  installation place_;
  std::string steady_;
  save_function save_;
  int saves_ = 0;
};

/// A series of saves at one site, in steps: several of them take turns.
class series final {
 public:
  series(const way& how, int saves) : how_(how), left_(saves) {}

  [[nodiscard]] bool is_over() const { return left_ == 0 && !site_; }
  [[nodiscard]] int missed() const { return missed_; }

  /// Does what can be done without waiting.
  void go_on(std::mt19937& random) {
    if (!site_) {
      site_ = std::make_unique<save_site>(how_);
      pause_over_ = true;
    }
    if (left_ == 0) {
      save_at_the_end_of_the_pause(random);
    } else if (saved_) {
      if (site_->has_taken()) {
        over(true);
      } else if (steady::now() - *saved_ > kLongestReload) {
        over(false);
      }
    } else if (!due_) {
      pause_over_ = pause_over_ || site_->is_pausing() || steady::now() - taken_ > kPauseOver;
      if (!pause_over_ || !site_->is_watching()) return;
      due_ = steady::now() + milliseconds(stress::between(random, 10, stress::rounds(1000, 200)));
    } else if (steady::now() >= *due_) {
      site_->save();
      saved_ = steady::now();
    }
  }

 private:
  void over(bool taken) {
    due_.reset();
    saved_.reset();
    taken_ = steady::now();
    pause_over_ = false;
    --left_;
    if (!taken) {
      ++missed_;
      std::printf("missed: %s\n", site_->state().c_str());
    } else if (left_ == 0) {
      site_->expect_no_harm();
    }
    // After a save that was missed nothing can be said of the next one.
    if (!taken || (left_ == 0 && stress::rounds(0, 1) == 1)) site_.reset();
  }

  /// One more save that may fall into the pause or not, or have its steps on both sides of its end.
  /// It need not be taken, and must not be the end of everything.
  void save_at_the_end_of_the_pause(std::mt19937& random) {
    const auto now = steady::now();
    if (saved_) {
      const bool watches = site_->is_watching();
      if (!watches && now - *saved_ < kLongestReload) return;
      EXPECT_TRUE(watches) << "after a save at the end of a pause: " << site_->state();
      site_.reset();
    } else if (!due_) {
      if (site_->is_pausing() || now - taken_ > kPauseOver)
        due_ = now + milliseconds(stress::between(random, 1800, 2050));
    } else if (now >= *due_) {
      site_->save();
      saved_ = steady::now();
    }
  }

  const way& how_;
  std::unique_ptr<save_site> site_;
  /// When the last save was seen to be loaded; the pause begins a little later.
  steady::time_point taken_;
  bool pause_over_ = true;
  std::optional<steady::time_point> due_;
  std::optional<steady::time_point> saved_;
  int left_;
  int missed_ = 0;
};

}  // namespace

place_for_backups::place_for_backups() {
  const char* before = std::getenv("TMPDIR");
  before_ = before != nullptr ? before : "";
  ::setenv("TMPDIR", kScratch, 1);
}

place_for_backups::~place_for_backups() {
  before_.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", before_.c_str(), 1);
}

std::ostream& operator<<(std::ostream& out, const way& how) {
  return out << how.name;
}

way by_shell(const std::string& name, const std::string& program, const std::string& commands,
             const std::string& prepare) {
  return {name, program, prepare, [commands](const installation& place) {
            return [&place, commands](const change& names) { run(place, commands, names); };
          }};
}

std::string name_of(int number) {
  return "name" + std::to_string(1'000'000 + number);
}

void use_defaults(const installation& place) {
  ::unsetenv("TMPDIR");
  ::setenv("HOME", (place.site().parent_path() / "home").c_str(), 1);
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ::setenv("TERM", "vt100", 1);
  if (::chdir(place.site().c_str()) != 0) ::_exit(126);
}

void run(const installation& place, const std::string& commands, const change& names) {
  const std::string owner = std::to_string(ordinary_user::id());
  const pid_t shell = ::fork();
  if (shell == 0) {
    use_defaults(place);
    ::setenv("OLD", names.before.c_str(), 1);
    ::setenv("NEW", names.after.c_str(), 1);
    ::setenv("OWNER", owner.c_str(), 1);
    ::setenv("WHOLE", whole_of(place).c_str(), 1);
    ::execl("/bin/sh", "sh", "-ec", commands.c_str(), nullptr);
    ::_exit(127);
  }
  children::announce(shell);
  const auto status = children::wait_for_end(shell);
  if (status != 0) {
    throw std::runtime_error(commands + ": " + std::to_string(status.value_or(-1)));
  }
}

void expect_all_taken(const way& how) {
  if (!is_installed(how.program)) GTEST_SKIP() << how.program << " is not installed";
  const place_for_backups scratch;
  auto random = stress::random_numbers();
  const int sites = stress::rounds(5, 1);
  const int saves = stress::rounds(4, how.in_short);
  std::vector<std::unique_ptr<series>> all_series;
  for (int i = 0; i < sites; ++i)
    all_series.push_back(std::make_unique<series>(how, saves));
  int missed = 0;
  while (!all_series.empty()) {
    for (const auto& one : all_series)
      one->go_on(random);
    std::erase_if(all_series, [&](const auto& one) {
      if (one->is_over()) missed += one->missed();
      return one->is_over();
    });
    stress::sleep_ms(2);
  }
  std::printf("taken: %d of %d\n", sites * saves - missed, sites * saves);
  EXPECT_EQ(missed, 0);
}

}  // namespace saving
