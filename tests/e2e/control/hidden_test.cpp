#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/control/control_command.h"
#include "tests/e2e/support/children.h"
#include "tests/e2e/support/installation.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

namespace {

/// A process that looks like a keelmond and that only root may look into, as another user's.
class hidden_keelmond final {
 public:
  hidden_keelmond() : pid_(::fork()) {
    if (pid_ == 0) {
      ::prctl(PR_SET_NAME, "keelmond");
      ::prctl(PR_SET_DUMPABLE, 0);
      const std::thread second([] { ::pause(); });
      for (;;)
        ::pause();
    }
    children::announce(pid_);
    EXPECT_TRUE(wait_until([&] { return process_table::count_threads(pid_) == 2; }));
  }
  hidden_keelmond(const hidden_keelmond&) = delete;
  hidden_keelmond& operator=(const hidden_keelmond&) = delete;
  ~hidden_keelmond() {
    ::kill(pid_, SIGKILL);
    children::wait_for_end(pid_);
  }

 private:
  pid_t pid_;
};

}  // namespace

TEST(control_hidden, daemon_is_not_taken_for_none) {
  if (::geteuid() == 0) GTEST_SKIP() << "nothing is hidden from root";
  installation place;
  const std::string name = place.add_steady();
  place.save({place.entry(name, "stop")});
  write_file(place.site() / "run.pid", "");
  const std::string before = place.read("config/server.ini");
  const hidden_keelmond other;
  const std::string other_name = place.add_steady();
  const std::string path = place.entry(other_name).exepath;
  const std::vector<std::vector<std::string>> commands = {
      {"start", name},  {"stop", name},
      {"remove", name}, {"wait", "--down", name},
      {"metrics"},      {"add", other_name, "--exepath", path, "--stopped"},
      {"plan"},         {"signal", name, "HUP"},
      {"edit"},         {"up"}};
  for (const std::vector<std::string>& command : commands) {
    const control_result done = control(place, command);
    EXPECT_EQ(done.status, 1) << command.front();
    EXPECT_TRUE(contains(done.errors, "another user's keelmond may run in ")) << done.errors;
  }
  EXPECT_EQ(place.read("config/server.ini"), before);
  const control_result status = control(place, {"status", "--json"});
  EXPECT_EQ(status.status, 4);
  EXPECT_TRUE(contains(status.output, "\"run_pid\": \"unknown\"")) << status.output;

  // Without a run.pid it runs elsewhere.
  fs::remove(place.site() / "run.pid");
  EXPECT_EQ(control(place, {"start", name}).status, 0);
}
