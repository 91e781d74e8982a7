#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/golden.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;
using std::chrono::milliseconds;

namespace {

std::string kept(const std::string& name) {
  return golden::read_entry(name) + "monitor " + name + " Start 11.\r\n";
}

/// Reloads by signal, within the pause too.
void reload(const installation& place) {
  const std::size_t before = place.loads();
  place.signal(SIGUSR1);
  ASSERT_TRUE(wait_until([&] { return place.loads() > before; }));
}

/// Writes the file as an editor does that empties it first, in pieces.
void save_in_place(const fs::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  // Part of what is tested, not a wait for something. Half a file must not lie there for as long as
  // a whole one would have to, and a busy machine sleeps longer than it is told to.
  std::this_thread::sleep_for(milliseconds(80));
  file << text.substr(0, text.size() / 2) << std::flush;
  std::this_thread::sleep_for(milliseconds(5));
  file << text.substr(text.size() / 2) << std::flush;
}

}  // namespace

TEST(reload, stops_a_program_that_is_set_to_stop) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t program = place.start_with(name);
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  const std::string before = place.console();

  place.edit({place.entry(name, "stop")});

  EXPECT_TRUE(wait_until([&] { return !process_table::is_alive(program); }));
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched + golden::kExited);
  EXPECT_TRUE(wait_until([&] { return !place.has("notify/" + name + ".dat"); }));
  const std::string stopping =
      before + golden::kLoad + golden::read_entry(name) + "monitor " + name + " stopped.\r\n";
  const std::string result = golden::stop_result(name);
  EXPECT_TRUE(wait_until([&] {
    return place.console() == stopping + result + golden::kWaitReturned ||
           place.console() == stopping + golden::kWaitReturned + result;
  })) << place.console();
  // An idle monitor looks at its state once a second.
  EXPECT_TRUE(keeps([&] { return place.starts(name) == 1; }, milliseconds(1200)));
}

TEST(reload, starts_a_stopped_program_again_within_about_a_second) {
  installation place;
  const std::string name = place.add_steady();
  place.start_with(name);
  place.edit({place.entry(name, "stop")});
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched + golden::kExited);
  place.wait_watching();
  const std::string before = place.console();

  const auto saved = std::chrono::steady_clock::now();
  place.edit({place.entry(name)});
  place.wait_running(name, 2);

  // A second, a load, a start: on a busy machine these take long.
  EXPECT_LT(std::chrono::steady_clock::now() - saved, std::chrono::seconds(10));
  // The same monitor: no "Start 22", no "Start 333".
  EXPECT_EQ(place.console(), before + golden::kLoad + kept(name));
  EXPECT_TRUE(wait_until([&] { return place.is_live(name); }));
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched + golden::kExited +
                        golden::kLaunched);
}

TEST(reload, starts_a_program_that_is_added) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  const pid_t running = place.start_with(first);
  const std::string before = place.console();

  place.edit({place.entry(first), place.entry(second)});

  place.wait_running(second);
  EXPECT_EQ(place.wait_running(first), running);
  EXPECT_TRUE(wait_until([&] { return place.is_live(second); }));
  EXPECT_EQ(place.console(), before + golden::kLoad + kept(first) + golden::started(second));
}

TEST(reload, keeps_a_program_running_whose_entry_is_gone) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  const pid_t running = place.start_with({first, second}).back();
  const std::string before = place.console();

  place.edit({place.entry(first)});

  EXPECT_EQ(place.console(), before + golden::kLoad + kept(first));
  EXPECT_EQ(place.wait_running(second), running);
  // It is still supervised.
  ::kill(running, SIGKILL);
  place.wait_running(second, 2);
}

TEST(reload, changes_the_path_of_a_known_program_only_for_the_next_start) {
  installation place;
  const std::string note = place.note_start("$0") + place.stay();
  const std::string name = place.add_script(note, "programs");
  const fs::path other = place.site() / "elsewhere" / name;
  fs::create_directory(other.parent_path());
  place.write_script(other, note);
  const std::string path = place.entry(name).exepath;
  const auto noted_path = [&] {
    const std::string line = place.notes(name).back();
    return line.substr(line.find(' ') + 1);
  };
  const pid_t first = place.start_with(name);

  place.edit({{name, other.string()}});
  ::kill(first, SIGKILL);
  place.wait_running(name, 2);
  EXPECT_EQ(noted_path(), path);

  ASSERT_EQ(place.shut_down_by(SIGUSR2), 0);
  place.start();
  place.wait_running(name, 3);
  EXPECT_EQ(noted_path(), other.string());
}

TEST(reload, sees_a_save_in_place_once_and_whole) {
  installation place;
  const std::string first = place.add_steady();
  const std::string second = place.add_steady();
  const pid_t running = place.start_with(first);
  const std::string before = place.console();

  place.edit_by([&] {
    save_in_place(place.site() / "config" / "server.ini",
                  server_ini({place.entry(first), place.entry(second)}));
  });

  place.wait_running(second);
  EXPECT_EQ(place.wait_running(first), running);
  EXPECT_EQ(place.console(), before + golden::kLoad + kept(first) + golden::started(second));
}

TEST(reload, sees_a_save_by_renaming_though_a_program_was_started_since_the_watch_began) {
  // A child that had inherited the watch, or a configuration file, would keep it alive.
  installation place;
  const listed_program first = place.entry(place.add_steady());
  const listed_program second = place.entry(place.add_steady());
  place.save({first});
  place.start();
  ::kill(place.wait_running(first.name), SIGKILL);
  place.wait_running(first.name, 2);
  ASSERT_TRUE(place.is_watching());
  place.edit({first, second});
  place.wait_running(second.name);
}

TEST(reload, does_not_see_a_save_within_the_pause_but_the_next_one_after_it) {
  installation place;
  const listed_program first = place.entry(place.add_steady());
  const listed_program unseen = place.entry(place.add_steady());
  const listed_program second = place.entry(place.add_steady());
  place.save({first});
  place.start();
  place.edit({first});
  place.save({first, unseen});
  place.edit({first, second});
  place.wait_running(second.name);
  EXPECT_EQ(place.loads(), 3U);
  EXPECT_EQ(place.starts(unseen.name), 0U);
}

TEST(reload, pauses_for_two_seconds) {
  installation place;
  place.start();
  // A busy machine makes it longer than it has to be: the shortest of a few counts.
  constexpr milliseconds kLittleMore{3500};
  milliseconds pause = milliseconds::max();
  for (int i = 0; i < 4 && pause >= kLittleMore; ++i) {
    const auto saved = std::chrono::steady_clock::now();
    place.edit(std::vector<listed_program>{});
    place.wait_watching();
    const auto taken = std::chrono::steady_clock::now() - saved;
    pause = std::min(pause, std::chrono::duration_cast<milliseconds>(taken));
  }
  EXPECT_GE(pause, milliseconds(2000));
  EXPECT_LT(pause, kLittleMore);
}

TEST(reload, happens_for_a_signal_too_and_within_the_pause) {
  installation place;
  const listed_program first = place.entry(place.add_steady());
  const listed_program second = place.entry(place.add_steady());
  place.start();
  place.edit({first});
  place.wait_running(first.name);
  place.save({first, second});
  reload(place);
  place.wait_running(second.name);
  EXPECT_TRUE(place.is_pausing());
  // The signal has not cut the pause short, and none of this was an error.
  place.wait_watching();
  EXPECT_EQ(place.loads(), 3U);
  EXPECT_EQ(place.errors(), "");
}

TEST(reload, survives_a_burst_of_signals) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t program = place.start_with(name);
  for (int i = 0; i < 200; ++i)
    place.signal(SIGUSR1);
  EXPECT_TRUE(wait_until([&] { return place.loads() >= 2; }));
  EXPECT_EQ(place.wait_running(name), program);
  EXPECT_EQ(place.shut_down_by(SIGUSR2), 0);
}

TEST(reload, marks_a_running_program_anew_whether_or_not_anything_changed) {
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name)});
  place.start();
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched);
  fs::remove(place.site() / "notify" / (name + ".dat"));
  reload(place);
  EXPECT_TRUE(wait_until([&] { return place.is_live(name); }));
}

TEST(reload, removes_the_mark_of_a_program_that_is_to_stop_though_it_never_ran) {
  installation place;
  const std::string name = place.add_steady();
  const fs::path mark = place.site() / "notify" / (name + ".dat");
  const std::string lines =
      golden::kLoad + golden::read_entry(name) + "monitor " + name + " stopped 333.\r\n";
  write_file(mark, "1");
  place.save({place.entry(name, "stop")});
  place.start();
  EXPECT_FALSE(fs::exists(mark));
  EXPECT_EQ(place.console(), golden::console_start(place) + lines);

  write_file(mark, "1");
  reload(place);
  EXPECT_TRUE(wait_until([&] { return !fs::exists(mark); }));
  expect_console(place, golden::console_start(place) + lines + lines);
  EXPECT_EQ(place.starts(name), 0U);
}

TEST(reload, lets_a_program_run_out_whose_state_is_neither_run_nor_stop) {
  installation place;
  const std::string name = place.add_steady();
  const pid_t program = place.start_with(name);
  place.save({place.entry(name, "pause")});
  reload(place);
  EXPECT_TRUE(keeps([&] { return process_table::is_alive(program); }));
  ::kill(program, SIGKILL);
  expect_log(place, std::string(golden::kLogStart) + golden::kLaunched + golden::kExited);
  EXPECT_TRUE(keeps([&] { return place.starts(name) == 1; }));
  place.save({place.entry(name)});
  reload(place);
  place.wait_running(name, 2);
}

TEST(reload, starts_a_program_whose_file_has_come_to_be) {
  installation place;
  const std::string name = place.add_steady();
  const fs::path path = place.entry(name).exepath;
  const fs::path away = place.site() / "away";
  fs::rename(path, away);
  place.save({place.entry(name)});
  place.start();
  EXPECT_EQ(place.starts(name), 0U);
  fs::rename(away, path);
  reload(place);
  place.wait_running(name);
}
