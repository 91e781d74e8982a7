#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "process/recorder.h"
#include "process/server_config.h"
#include "tests/process/supervision.h"
#include "tests/support/golden.h"
#include "tests/support/in_child.h"
#include "tests/support/log_text.h"
#include "tests/support/scratch_dir.h"
#include "tests/support/server_ini.h"
#include "tests/support/text.h"

namespace {

/// What a load logs whose first entry is to be found in `directory`, by which the process goes.
std::string logged_in(const std::string& directory, bool is_removed) {
  const std::filesystem::path top = std::filesystem::current_path();
  write_file("server.ini", server_ini({{"aa"}, {"bb", "/nowhere/bb"}}));
  std::filesystem::create_directories(directory);
  const std::size_t before = read_file("keelmond.log").size();
  {
    const working_dir there(directory);
    if (is_removed) std::filesystem::remove(directory);
    loadServerConfig((top / "server.ini").c_str());
  }
  return with_times_masked(read_file("keelmond.log").substr(before));
}

std::string refusal_for(int error) {
  return "server.ini: entry svr1 (aa) refused: the path of the working directory cannot be read (" +
         std::string(std::strerror(error)) + ").\r\n<time>\r\n";
}

TEST(server_config_surroundings, an_entry_without_exepath_is_refused_where_the_directory_is_gone) {
  in_child([] {
    const supervision& world = supervision::begin();
    EXPECT_EQ(logged_in(std::filesystem::current_path() / "gone", true), refusal_for(ENOENT));
    EXPECT_TRUE(contains(world.printed(), golden::read_entry("aa") + golden::read_entry("bb")))
        << "the next one is read";
  });
}

TEST(server_config_surroundings, an_entry_without_exepath_is_refused_where_the_path_is_too_long) {
  in_child([] {
    const supervision& world = supervision::begin();
    std::string deep = std::filesystem::current_path();
    while (deep.size() < 1024)
      deep += "/" + std::string(200, 'd');
    EXPECT_EQ(logged_in(deep, false), refusal_for(ERANGE));
    EXPECT_TRUE(contains(world.printed(), golden::read_entry("aa") + golden::read_entry("bb")))
        << "the next one is read";
  });
}

TEST(server_config_surroundings, each_load_has_the_log_follow_a_change_of_the_time_zone) {
  in_child([] {
    supervision::begin();
    const auto hour_after_a_load = [](const char* zone) {
      ::setenv("TZ", zone, 1);
      loadServerConfig("server.ini");
      const std::string before = read_file("keelmond.log");
      recorder::append("a line\r\n");
      return std::stoi(read_file("keelmond.log").substr(before.size() + 8 + 11, 2));
    };
    const int here = hour_after_a_load("UTC0");
    EXPECT_NEAR((hour_after_a_load("XXX-5") - here + 24) % 24, 5, 1);
  });
}

}  // namespace
