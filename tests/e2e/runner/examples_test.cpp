#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "common/misc/unique_fd.h"
#include "runner/file/program_file.h"
#include "tests/e2e/runner/http_server.h"
#include "tests/e2e/runner/program_files.h"
#include "tests/support/wait_until.h"

namespace fs = std::filesystem;

using runner::program_phase;
using runner::program_state;

namespace {

/// A real program that has a program file among the examples.
struct example {
  const char* file;
  const char* binary;
  const char* port;
  /// What makes it print something.
  const char* request;
  const char* log;
};

constexpr example kExamples[] = {
    {"kmd_redis", "redis-server", "6390", "PING\r\nQUIT\r\n", "redis.log"},
    {"kmd_nginx", "nginx", "8390", "GET / HTTP/1.0\r\n\r\n", "nginx.log"},
    {"kmd_postgres", "/usr/lib/postgresql/15/bin/postgres", "5490", "x", "postgres.log"},
    {"kmd_http", "python3", "8391", "GET / HTTP/1.0\r\n\r\n", "http.log"},
    {"kmd_node", "node", "8392", "GET / HTTP/1.0\r\n\r\n", "node.log"},
};

bool is_installed(const std::string& binary) {
  if (binary.front() == '/') return fs::exists(binary);
  for (const char* const directory : {"/usr/bin/", "/usr/sbin/", "/usr/local/bin/"}) {
    if (fs::exists(directory + binary)) return true;
  }
  return false;
}

void replace_all(std::string& text, const std::string& part, const std::string& other) {
  for (std::size_t at = text.find(part); at != std::string::npos;
       at = text.find(part, at + other.size()))
    text.replace(at, part.size(), other);
}

/// Connects, asks, and reads until the other side has had enough.
void ask(const std::string& port, const std::string& request) {
  const unique_fd connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{2, 0};
  ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port.c_str())));
  if (::connect(connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    return;
  ::send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL);
  ::shutdown(connection.get(), SHUT_WR);
  char answer[4096];
  while (::read(connection.get(), answer, sizeof answer) > 0) {
  }
}

class runner_examples : public testing::TestWithParam<example> {
 protected:
  void SetUp() override {
    if (!is_installed(GetParam().binary)) GTEST_SKIP() << GetParam().binary << " is not there";
    if (GetParam().file == std::string("kmd_postgres") && !prepare_postgres())
      GTEST_SKIP() << "nobody may become the user postgres";
    port_ = free_port();
    name_ = place_.add(adapted(read_file(source() / GetParam().file)));
    for (const char* const beside : {"nginx.conf", "answer.js"})
      write_file(programs() / beside, adapted(read_file(source() / beside)));
    place_.start();
  }

  static fs::path source() { return fs::path(KEELMOND_SOURCE_DIR) / "examples" / "programs"; }
  [[nodiscard]] fs::path programs() { return place_.site().site() / "programs"; }

  /// The example with a free port, and a log that soon has to be rotated.
  [[nodiscard]] std::string adapted(std::string text) const {
    replace_all(text, GetParam().port, port_);
    replace_all(text, "size = 10M", "size = 1K");
    replace_all(text, "size = 1M", "size = 1K");
    replace_all(text, "--save \"3600 1\"", "--save \"3600 1\" --loglevel verbose");
    replace_all(text, "-c listen_addresses", "-c log_connections=on -c listen_addresses");
    return text.starts_with("#!") ? text.substr(text.find('\n') + 1) : text;
  }

  bool prepare_postgres() {
    const passwd* const user = ::getpwnam("postgres");
    if (::geteuid() != 0 || user == nullptr) return false;
    const fs::path data = programs() / "postgres-data";
    fs::create_directories(data);
    fs::permissions(data, fs::perms::owner_all);
    for (fs::path above = programs(); above != fs::temp_directory_path();
         above = above.parent_path())
      fs::permissions(above, fs::perms(0755));
    return ::chown(data.c_str(), user->pw_uid, user->pw_gid) == 0;
  }

  /// Everything that runs below the launcher. Some programs write over their environment, so that
  /// is not what tells.
  [[nodiscard]] static std::set<pid_t> processes_below(pid_t launcher) {
    std::set<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const pid_t pid = std::atoi(entry.path().filename().c_str());
      if (pid > 0 && process_table::is_below(pid, launcher)) found.insert(pid);
    }
    return found;
  }

  runner_place place_;
  std::string name_;
  std::string port_;
};

}  // namespace

TEST_P(runner_examples, is_killed_and_comes_back_and_leaves_nothing_when_it_is_stopped) {
  program_state state = place_.wait_phase(name_, program_phase::running);
  const std::set<pid_t> first = processes_below(state.launcher);
  ASSERT_TRUE(first.contains(state.pid));
  ::kill(state.pid, SIGKILL);
  state = place_.wait_again(name_, state.pid);
  for (const pid_t one : first)
    EXPECT_FALSE(process_table::is_alive(one)) << one;
  const std::set<pid_t> second = processes_below(state.launcher);
  place_.stop(name_);
  for (const pid_t one : second)
    EXPECT_FALSE(process_table::is_alive(one)) << one;
}

TEST_P(runner_examples, has_its_log_rotated_under_load_and_is_reloaded) {
  const program_state state = place_.wait_phase(name_, program_phase::running);
  const std::string rotated = std::string(GetParam().log) + ".";
  const auto is_rotated = [&] {
    ask(port_, GetParam().request);
    return std::any_of(fs::directory_iterator(programs()), {}, [&](const auto& entry) {
      return entry.path().filename().string().starts_with(rotated);
    });
  };
  EXPECT_TRUE(wait_until(is_rotated, std::chrono::seconds(30)));
  // A reload of the supervisor leaves it alone.
  place_.site().edit_by([&] { place_.site().save(place_.site().read("config/server.ini")); });
  EXPECT_TRUE(process_table::is_alive(state.pid));
  EXPECT_EQ(place_.state(name_)->pid, state.pid);
  place_.stop(name_);
}

INSTANTIATE_TEST_SUITE_P(real_programs, runner_examples, testing::ValuesIn(kExamples),
                         [](const testing::TestParamInfo<example>& one) {
                           return std::string(one.param.file);
                         });

TEST(runner_examples_themselves, are_right) {
  for (const auto& entry :
       fs::directory_iterator(fs::path(KEELMOND_SOURCE_DIR) / "examples" / "programs")) {
    const std::string path = entry.path().string();
    if (!runner::is_program_file(read_file(path))) continue;
    for (const auto& one : runner::read_program_file(path).findings) {
      // Users of other programs need not be there.
      if (one.key != "user") ADD_FAILURE() << runner::in_one_line(path, one);
    }
  }
}

TEST(runner_examples_themselves, are_right_in_the_documentation) {
  const std::string text = read_file(fs::path(KEELMOND_SOURCE_DIR) / "docs" / "program-files.md");
  const std::string fence = "```ini\n#!";
  std::size_t examples = 0;
  for (std::size_t at = text.find(fence); at != std::string::npos; at = text.find(fence, at + 1)) {
    ++examples;
    const std::string block = text.substr(at + 7, text.find("```\n", at + 7) - at - 7);
    for (const auto& one : runner::read_program_text(block, "/srv/kmd_x").findings) {
      // Nor need users and groups be there.
      if (one.key != "user" && !one.key.starts_with("group"))
        ADD_FAILURE() << runner::in_one_line(block, one);
    }
  }
  EXPECT_GE(examples, 10U);
}
