#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/support/installation.h"

namespace fs = std::filesystem;

namespace {

/// The scripts of docs/configuration.md that stand in front of a server.
std::vector<std::string> documented_scripts() {
  const std::string text = read_file(fs::path(KEELMOND_SOURCE_DIR) / "docs" / "configuration.md");
  const std::string fence = "```sh\n";
  std::vector<std::string> scripts;
  for (std::size_t at = text.find(fence); at != std::string::npos; at = text.find(fence, at)) {
    at += fence.size();
    const std::string block = text.substr(at, text.find("```\n", at) - at);
    if (block.starts_with("#!")) scripts.push_back(block);
  }
  return scripts;
}

}  // namespace

TEST(documented_scripts, outlive_their_server_however_often_they_are_told_to_stop) {
  const std::vector<std::string> scripts = documented_scripts();
  EXPECT_EQ(scripts.size(), 2U);
  for (const std::string& script : scripts) {
    SCOPED_TRACE(script);
    installation place;
    const std::string name = place.add_executable(script);
    // In place of the servers, one that ends when the test wants it to.
    const fs::path programs = place.site() / "bin";
    fs::create_directory(programs);
    for (const char* const server : {"redis-server", "python3"}) {
      place.write_script(programs / server, "cd '" + place.site().string() +
                                                "'\ntrap 'echo told >>told' TERM\n>server\n"
                                                "while [ ! -e end ]; do sleep 0.01; done\n");
    }
    start_options options;
    options.before_exec = [&] {
      ::setenv("PATH", (programs.string() + ":" + ::getenv("PATH")).c_str(), 1);
    };
    place.save({place.entry(name)});
    place.start(options);
    ASSERT_TRUE(wait_until([&] { return place.has("server"); }));
    const std::vector<pid_t> running = place.running(name);
    EXPECT_EQ(running.size(), 1U);
    place.edit({place.entry(name, "stop")});
    EXPECT_TRUE(wait_until([&] { return count(place.read("told"), "told") == 1; }));
    place.signal(SIGUSR1);
    EXPECT_TRUE(wait_until([&] { return count(place.read("told"), "told") == 2; }));
    EXPECT_TRUE(keeps([&] { return place.running(name) == running; }));
    write_file(place.site() / "end", "");
    EXPECT_TRUE(wait_until([&] { return place.running(name).empty(); }));
  }
}
