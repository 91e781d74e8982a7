#include "control/config/config_editor.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "control/config/config_bytes.h"
#include "control/config/program_list.h"
#include "control/text/failure.h"
#include "tests/control/config/random_config.h"

namespace editor = control::config_editor;
using control::failure;
using control::listed_program;

namespace {

constexpr char kText[] =
    "# The list.\n"
    "[keelmond]\n"
    "linux = 3\n"
    "svr1 = alpha\n"
    "# the second\n"
    "svr2 = beta\n"
    "svr3 = gamma\n"
    "\n"
    "# About alpha.\n"
    "[alpha]\n"
    "exepath = /bin/alpha\n"
    "state = run\n"
    "\n"
    "[beta]\n"
    "# nothing yet\n"
    "\n"
    "# About gamma.\n"
    "[gamma]\n"
    "state=stop\n";

using programs = std::vector<std::vector<std::string>>;

programs programs_of(const std::string& text) {
  programs found;
  for (const listed_program& one : control::read_programs(control::parse_config(text), "/srv"))
    found.push_back({one.name, one.exepath, one.state});
  return found;
}

std::string replaced(std::string text, const std::string& old, const std::string& now) {
  const std::size_t at = text.find(old);
  EXPECT_NE(at, std::string::npos) << old;
  return text.replace(at, old.size(), now);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
    lines.push_back(text.substr(at, end - at));
    at = end;
  }
  return lines;
}

/// How many lines of `before` are not in `after`, in their order.
std::size_t lost_lines(const std::string& before, const std::string& after) {
  const auto old = lines_of(before);
  const auto now = lines_of(after);
  std::size_t kept = 0;
  std::size_t at = 0;
  // The longest common part is not needed: edits never move a line.
  for (const std::string& line : old) {
    const auto found = std::find(now.begin() + static_cast<std::ptrdiff_t>(at), now.end(), line);
    if (found == now.end()) continue;
    at = static_cast<std::size_t>(found - now.begin()) + 1;
    ++kept;
  }
  return old.size() - kept;
}

}  // namespace

TEST(config_editor, keeps_the_comments_of_a_section_that_is_listed_again) {
  const std::string before = std::string(kText) +
                             "\n[delta]\n# From the old machine.\nexepath = /bin/old\n"
                             "state = stop\nexepath = /bin/older\n";
  const std::string after = editor::add_program(before, {"delta", "", "run"});
  EXPECT_NE(after.find("[delta]\n# From the old machine.\nstate = run\n"), std::string::npos)
      << after;
  EXPECT_EQ(programs_of(after).back(), (std::vector<std::string>{"delta", "/srv/delta", "run"}));
}

TEST(config_editor, sets_a_state_where_it_stands) {
  EXPECT_EQ(editor::set_state(kText, {"alpha"}, "stop"),
            replaced(kText, "state = run", "state = stop"));
  EXPECT_EQ(editor::set_state(kText, {"gamma"}, "run"), replaced(kText, "state=stop", "state=run"));
}

TEST(config_editor, adds_a_state_that_is_missing) {
  EXPECT_EQ(editor::set_state(kText, {"beta"}, "run"),
            replaced(kText, "[beta]\n", "[beta]\nstate = run\n"));
}

TEST(config_editor, changes_the_last_of_repeated_keys_because_it_counts) {
  const std::string text =
      "[keelmond]\nlinux=1\nsvr1=ab\n[ab]\nstate=run\n[cd]\n[ab]\nstate=run\r\n";
  EXPECT_EQ(editor::set_state(text, {"ab"}, "stop"),
            replaced(text, "state=run\r\n", "state=stop\r\n"));
}

TEST(config_editor, sets_several_states_at_once) {
  const std::string text = editor::set_state(kText, {"alpha", "beta", "gamma"}, "stop");
  for (const auto& program : programs_of(text))
    EXPECT_EQ(program[2], "stop");
}

TEST(config_editor, knows_no_program_that_is_not_listed) {
  EXPECT_THROW(editor::set_state(kText, {"delta"}, "run"), failure);
  EXPECT_THROW(editor::remove_program(kText, "delta"), failure);
  EXPECT_THROW(editor::add_program(kText, {"alpha"}), failure);
}

TEST(config_editor, adds_a_program_behind_the_others) {
  const std::string text = editor::add_program(kText, {"delta", "/bin/delta", "stop"});
  std::string expected = replaced(kText, "linux = 3", "linux = 4");
  expected = replaced(expected, "svr3 = gamma\n", "svr3 = gamma\nsvr4 = delta\n");
  EXPECT_EQ(text, expected + "\n[delta]\nexepath = /bin/delta\nstate = stop\n");
}

TEST(config_editor, adds_the_first_program_to_an_empty_file) {
  const std::string text = editor::add_program("", {"delta"});
  EXPECT_EQ(programs_of(text), (programs{{"delta", "/srv/delta", "run"}}));
  EXPECT_EQ(text, "[keelmond]\nsvr1 = delta\nlinux = 1\n\n[delta]\nstate = run\n");
}

TEST(config_editor, keeps_carriage_returns) {
  const std::string text = "[keelmond]\r\nlinux=1\r\nsvr1=ab\r\n[ab]\r\nstate=run\r\n";
  EXPECT_EQ(editor::add_program(text, {"cd"}),
            "[keelmond]\r\nlinux=2\r\nsvr1=ab\r\nsvr2=cd\r\n[ab]\r\nstate=run\r\n\r\n[cd]\r\n"
            "state = run\r\n");
}

TEST(config_editor, removes_a_program_and_closes_the_gap) {
  std::string expected = replaced(kText, "linux = 3", "linux = 2");
  expected = replaced(expected, "svr2 = beta\nsvr3 = gamma\n", "svr2 = gamma\n");
  EXPECT_EQ(editor::remove_program(kText, "beta"),
            replaced(expected, "[beta]\n# nothing yet\n\n", ""));
}

TEST(config_editor, keeps_the_comments_above_the_next_section) {
  const std::string text = editor::remove_program(kText, "alpha");
  EXPECT_NE(text.find("# About gamma."), std::string::npos);
  EXPECT_NE(text.find("# nothing yet"), std::string::npos);
  EXPECT_EQ(text.find("/bin/alpha"), std::string::npos);
  EXPECT_EQ(programs_of(text),
            (programs{{"beta", "/srv/beta", ""}, {"gamma", "/srv/gamma", "stop"}}));
}

TEST(config_editor, closes_gaps_that_were_there_when_a_program_goes) {
  const std::string text = editor::remove_program(
      "[keelmond]\nlinux=9\nsvr3=ab\nsvr5=cd\nsvr9=ef\n[ab]\nstate=run\n", "cd");
  EXPECT_EQ(text, "[keelmond]\nlinux=2\nsvr1=ab\nsvr2=ef\n[ab]\nstate=run\n");
}

TEST(config_editor, refuses_what_would_change_more_than_was_asked) {
  // The section of this program is also the list.
  EXPECT_THROW(editor::remove_program("[keelmond]\nlinux=2\nsvr1=keelmond\nsvr2=ab\n", "keelmond"),
               failure);
  // A name of one letter has no section of its own.
  EXPECT_THROW(editor::set_state("[keelmond]\nlinux=1\nsvr1=x\n[x]\n", {"x"}, "run"), failure);
}

// For files as nobody writes them: what is asked for happens and nothing else, or it is refused.
TEST(config_editor, changes_in_any_file_what_was_asked_and_nothing_else) {
  int done = 0;
  for (unsigned seed = 0; seed < 4000; ++seed) {
    random_config random(seed);
    const std::string text = random.text();
    const std::string name = random.name();
    const programs before = programs_of(text);
    try {
      programs wanted = before;
      for (auto& program : wanted) {
        if (program[0] == name) program[2] = "stop";
      }
      const std::string changed = editor::set_state(text, {name}, "stop");
      ASSERT_EQ(programs_of(changed), wanted) << text;
      ASSERT_LE(lost_lines(text, changed), 2U) << text << "\n-->\n" << changed;
      ++done;
    } catch (const failure&) {
    }
    try {
      programs wanted = before;
      std::erase_if(wanted, [&](const auto& one) { return one[0] == name; });
      ASSERT_EQ(programs_of(editor::remove_program(text, name)), wanted) << text;
      ++done;
    } catch (const failure&) {
    }
    try {
      programs wanted = before;
      wanted.push_back({"added", "/bin/added", "run"});
      const std::string changed = editor::add_program(text, {"added", "/bin/added", "run"});
      ASSERT_EQ(programs_of(changed), wanted) << text;
      ASSERT_LE(lost_lines(text, changed), 4U) << text << "\n-->\n" << changed;
      ++done;
    } catch (const failure&) {
    }
  }
  // Refusing everything would pass as well.
  EXPECT_GT(done, 3000);
}
