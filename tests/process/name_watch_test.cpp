#include "process/name_watch.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/fault.h"
#include "tests/support/scratch_dir.h"

namespace {

using finding = name_watch::finding;
using strings = std::vector<std::string>;

/// The watches are numbered in the order in which they are added.
constexpr int kTop = 1;
constexpr int kConfig = 2;
/// The watch on the file itself, which somebody else has added.
constexpr int kFile = 9;

/// One event as the kernel writes it: a name is filled up with zeros.
std::string event(int watch, std::uint32_t mask, std::string_view name = {}) {
  inotify_event head{};
  head.wd = watch;
  head.mask = mask;
  head.len = name.empty() ? 0 : static_cast<std::uint32_t>(name.size() / 16 * 16 + 16);
  std::string text(reinterpret_cast<const char*>(&head), sizeof head);
  text += name;
  text.resize(sizeof head + head.len);
  return text;
}

/// Notes the directories that are watched instead of watching them.
class name_watch_of : public testing::Test {
 protected:
  name_watch_of() {
    faults.inotify_add_watch = [this](int, const char* path, std::uint32_t) {
      if (path == out_of_reach_) return -1;
      watched_.emplace_back(path);
      return static_cast<int>(watched_.size());
    };
  }

  scratch_dir scratch_;
  working_dir inside_{scratch_.path()};
  no_faults_afterwards clean_up_;
  strings watched_;
  std::string out_of_reach_;
};

TEST_F(name_watch_of, watches_each_directory_on_the_way) {
  EXPECT_TRUE(name_watch(0, "./config/server.ini").sees_the_name());
  EXPECT_EQ(watched_, (strings{"./", "./config/"}));
  watched_.clear();
  EXPECT_TRUE(name_watch(0, "/nowhere/server.ini").sees_the_name());
  EXPECT_EQ(watched_, (strings{"/", "/nowhere/"}));
}

TEST_F(name_watch_of, follows_links) {
  std::filesystem::create_directories("etc/keelmond");
  std::filesystem::create_symlink("etc/keelmond", "config");
  std::filesystem::create_symlink("../main.ini", "etc/keelmond/server.ini");
  EXPECT_TRUE(name_watch(0, "./config/server.ini").sees_the_name());
  EXPECT_EQ(watched_, (strings{"./", "./", "./etc/", "./etc/keelmond/", "./etc/keelmond/../"}));
}

TEST_F(name_watch_of, gives_up_where_links_go_round) {
  std::filesystem::create_symlink("server.ini", "server.ini");
  const name_watch names(0, "server.ini");
  EXPECT_EQ(watched_.size(), 41U) << "as often as the kernel, and once more";
}

TEST_F(name_watch_of, leaves_out_a_directory_that_it_cannot_watch) {
  out_of_reach_ = "./";
  EXPECT_TRUE(name_watch(0, "config/server.ini").sees_the_name());
  EXPECT_EQ(watched_, strings{"./config/"});
  out_of_reach_ = "./config/";
  EXPECT_FALSE(name_watch(0, "config/server.ini").sees_the_name());
}

TEST_F(name_watch_of, a_null_path_leads_nowhere) {
  EXPECT_FALSE(name_watch(0, nullptr).sees_the_name());
  EXPECT_EQ(watched_, strings());
}

TEST_F(name_watch_of, judges_events) {
  const name_watch names(0, "config/server.ini");
  const struct {
    const char* what;
    std::string events;
    finding expected;
  } cases[] = {
      {"none", "", finding::changed},
      {"a write", event(kFile, IN_MODIFY), finding::changed},
      {"the end of the watch on the file", event(kFile, IN_IGNORED), finding::changed},
      {"lost events", event(-1, IN_Q_OVERFLOW), finding::changed},
      {"moved in", event(kConfig, IN_MOVED_TO, "server.ini"), finding::replaced},
      {"moved away", event(kConfig, IN_MOVED_FROM, "server.ini"), finding::changed},
      {"created", event(kConfig, IN_CREATE, "server.ini"), finding::changed},
      {"a directory that is moved in", event(kTop, IN_MOVED_TO, "config"), finding::replaced},
      {"another name", event(kConfig, IN_MOVED_TO, "server.ini.swp"), finding::nothing},
      {"a name that only begins like it", event(kConfig, IN_CREATE, "server.in"), finding::nothing},
      {"a name that belongs elsewhere", event(kConfig, IN_MOVED_TO, "config"), finding::nothing},
      {"another name, then it",
       event(kConfig, IN_CREATE, "x") + event(kConfig, IN_MOVED_TO, "server.ini"),
       finding::replaced},
      {"it, then another name",
       event(kConfig, IN_MOVED_TO, "server.ini") + event(kConfig, IN_CREATE, "x"),
       finding::replaced},
      {"moved in, and the end of the watch on the old file",
       event(kConfig, IN_MOVED_TO, "server.ini") + event(kFile, IN_IGNORED), finding::replaced},
      {"moved in and written to",
       event(kConfig, IN_MOVED_TO, "server.ini") + event(kFile, IN_MODIFY), finding::changed},
      {"moved away, and another one moved in",
       event(kConfig, IN_MOVED_FROM, "server.ini") + event(kConfig, IN_MOVED_TO, "server.ini"),
       finding::replaced},
  };
  for (const auto& one : cases)
    EXPECT_EQ(names.judge(one.events.data(), one.events.size()), one.expected) << one.what;
}

}  // namespace
