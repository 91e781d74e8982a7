#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/misc/unique_fd.h"
#include "runner/file/key_table.h"
#include "runner/file/program_file.h"
#include "runner/log/rotated_name.h"
#include "tests/e2e/control/control_command.h"
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
  /// What makes it print something; % stands for the number of the request.
  const char* request;
  /// What it prints then; % as before, and $ for the port that the request came from.
  const char* printed;
};

std::ostream& operator<<(std::ostream& out, const example& one) {
  return out << one.file;
}

constexpr char kGet[] = "GET /line-% HTTP/1.0\r\n\r\n";

constexpr example kRedis{"kmd_redis", "redis-server", "6390", "PING\r\nQUIT\r\n",
                         "Accepted 127.0.0.1:$\n"};
constexpr example kNginx{"kmd_nginx", "nginx", "8390", kGet, "GET /line-% HTTP"};
constexpr example kPostgres{"kmd_postgres", "/usr/lib/postgresql/15/bin/postgres", "5490", "x",
                            "port=$\n"};
constexpr example kHttp{"kmd_http", "python3", "8391", kGet, "GET /line-% HTTP"};
constexpr example kNode{"kmd_node", "node", "8392", kGet, "GET /line-%\n"};

bool is_installed(const std::string& binary) {
  if (binary.front() == '/') return fs::exists(binary);
  for (const char* const directory : {"/usr/bin/", "/usr/sbin/", "/usr/local/bin/"}) {
    if (fs::exists(directory + binary)) return true;
  }
  return false;
}

std::string replaced(std::string text, const std::string& part, const std::string& other) {
  for (std::size_t at = text.find(part); at != std::string::npos;
       at = text.find(part, at + other.size()))
    text.replace(at, part.size(), other);
  return text;
}

/// What came back from a port, and the port that it was asked from.
struct reply {
  std::string text;
  std::string from;
};

/// Connects, asks, and reads until the other side has had enough. @return nothing when there is
/// nobody.
std::optional<reply> ask(const std::string& port, const std::string& request) {
  const unique_fd connection(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{20, 0};
  ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(std::stoul(port)));
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (::connect(connection.get(), any, size) != 0) return std::nullopt;
  ::getsockname(connection.get(), any, &size);
  ::send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL);
  ::shutdown(connection.get(), SHUT_WR);
  reply got{"", std::to_string(ntohs(address.sin_port))};
  char part[4096];
  for (ssize_t count; (count = ::read(connection.get(), part, sizeof part)) > 0;)
    got.text.append(part, static_cast<std::size_t>(count));
  return got;
}

/// An example that runs in an installation, with a port of its own, and a log that is rotated again
/// and again and never removed.
class example_run final {
 public:
  explicit example_run(const example& one) : example_(one), port_(free_port()) {}

  /// @return why it cannot be run here; empty when it has been started.
  std::string start() {
    if (!is_installed(example_.binary)) return example_.binary + std::string(" is not there");
    if (example_.file == kPostgres.file && !prepare_postgres())
      return "nobody may become the user postgres";
    name_ = place_.add(adapted(read_file(source() / example_.file)));
    for (const char* const beside : {"nginx.conf", "answer.js"})
      write_file(file(beside), adapted(read_file(source() / beside)));
    place_.start();
    return "";
  }

  [[nodiscard]] runner_place& place() { return place_; }
  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] program_state wait_running() {
    return place_.wait_phase(name_, program_phase::running);
  }
  [[nodiscard]] fs::path file(const std::string& name) const {
    return place_.site().site() / "programs" / name;
  }
  [[nodiscard]] std::optional<reply> request(int number) const {
    return ask(port_, replaced(example_.request, "%", std::to_string(number)));
  }
  /// What it prints for a request.
  [[nodiscard]] std::string printed(int number, const reply& got) const {
    return replaced(replaced(example_.printed, "%", std::to_string(number)), "$", got.from);
  }
  /// Everything that it has printed, of all files of its log.
  [[nodiscard]] std::string whole_log() const {
    return control(place_.site(), {"logs", name_, "-n", "1000000"}).output;
  }

 private:
  static fs::path source() { return fs::path(KEELMOND_SOURCE_DIR) / "examples" / "programs"; }

  [[nodiscard]] std::string adapted(std::string text) const {
    constexpr std::pair<const char*, const char*> kChanges[] = {
        {"keep = 5\n", ""},
        {"keep = 14\n", ""},
        {"size = 10M\n", "size = 1M\n"},
        {"size = 1M\n", "size = 1K\nkeep = 100000\n"},
        {"--save \"3600 1\"", "--save \"3600 1\" --loglevel verbose"},
        {"-c listen_addresses", "-c log_connections=on -c listen_addresses"}};
    text = replaced(std::move(text), example_.port, port_);
    for (const auto& [part, other] : kChanges)
      text = replaced(std::move(text), part, other);
    return text.starts_with("#!") ? text.substr(text.find('\n') + 1) : text;
  }

  bool prepare_postgres() {
    const passwd* const user = ::getpwnam("postgres");
    if (::geteuid() != 0 || user == nullptr) return false;
    const fs::path data = file("postgres-data");
    fs::create_directories(data);
    fs::permissions(data, fs::perms::owner_all);
    for (fs::path above = data.parent_path(); above != fs::temp_directory_path();
         above = above.parent_path())
      fs::permissions(above, fs::perms(0755));
    return ::chown(data.c_str(), user->pw_uid, user->pw_gid) == 0;
  }

  runner_place place_;
  example example_;
  std::string port_;
  std::string name_;
};

/// The program files of the documentation. Sections that stand alone have a command here as well.
std::vector<std::string> documented_examples() {
  const std::string text = read_file(fs::path(KEELMOND_SOURCE_DIR) / "docs" / "program-files.md");
  const std::string fence = "```ini\n";
  std::vector<std::string> examples;
  for (std::size_t at = text.find(fence); at != std::string::npos; at = text.find(fence, at)) {
    at += fence.size();
    const std::string block = text.substr(at, text.find("```\n", at) - at);
    examples.push_back(block.starts_with("#!") ? block
                                               : block + "[program]\ncommand = sleep 1000\n");
  }
  return examples;
}

class runner_examples : public testing::TestWithParam<example> {
 protected:
  void SetUp() override {
    const std::string obstacle = run_.start();
    if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  }

  /// Everything that runs below a process. Some programs write over their environment, so that is
  /// not what tells.
  [[nodiscard]] static std::set<pid_t> processes_below(pid_t ancestor) {
    std::set<pid_t> found;
    for (const auto& one : process_table::all()) {
      if (process_table::is_below(one.pid, ancestor)) found.insert(one.pid);
    }
    return found;
  }

  /// Whether nothing runs but the supervisor, and no file tells of the program.
  void expect_nothing_left() {
    std::vector<std::string> left;
    wait_until([&] {
      left.clear();
      for (const auto& one : process_table::all()) {
        if (one.name != "keelmond" && process_table::is_below(one.pid, ::getpid()))
          left.push_back(one.name);
      }
      return left.empty();
    });
    EXPECT_EQ(left, std::vector<std::string>{});
    for (const char* const file : {".state", ".ready", ".dat"})
      EXPECT_NE(run_.place().site().read("notify/" + run_.name() + file), "1") << file;
  }

  /// Asks from several sides at once. @return how often each line has to be in the log.
  [[nodiscard]] std::map<std::string, std::size_t> ask_often() const {
    constexpr int kSides = 4;
    constexpr int kRequests = 50;
    std::mutex all;
    std::map<std::string, std::size_t> lines;
    const auto ask_on = [&](int first) {
      for (int number = first; number < first + kRequests; ++number) {
        const auto got = run_.request(number);
        const std::lock_guard<std::mutex> one_at_a_time(all);
        if (got) ++lines[run_.printed(number, *got)];
      }
    };
    std::vector<std::thread> sides;
    sides.reserve(kSides);
    for (int side = 0; side < kSides; ++side)
      sides.emplace_back(ask_on, 1000 * (side + 1));
    for (std::thread& side : sides)
      side.join();
    EXPECT_GE(lines.size(), 2U * kRequests);
    return lines;
  }

  example_run run_{GetParam()};
};

}  // namespace

TEST_P(runner_examples, is_killed_and_comes_back_and_leaves_nothing_when_it_is_stopped) {
  program_state state = run_.wait_running();
  const std::set<pid_t> first = processes_below(state.launcher);
  ASSERT_TRUE(first.contains(state.pid));
  ::kill(state.pid, SIGKILL);
  state = run_.place().wait_again(run_.name(), state.pid);
  for (const pid_t one : first)
    EXPECT_FALSE(process_table::is_alive(one)) << one;
  run_.place().stop(run_.name());
  expect_nothing_left();
}

TEST_P(runner_examples, loses_no_line_while_its_log_is_rotated_under_load) {
  const program_state state = run_.wait_running();
  const auto lines = ask_often();
  // A reload of the supervisor leaves it alone.
  installation& site = run_.place().site();
  site.edit_by([&] { site.save(site.read("config/server.ini")); });
  EXPECT_TRUE(process_table::is_alive(state.pid));
  EXPECT_EQ(run_.place().state(run_.name())->pid, state.pid);
  const std::string log = state.log;
  run_.place().stop(run_.name());
  EXPECT_GE(runner::find_rotated(log).size(), 2U);
  const std::string printed = run_.whole_log();
  for (const auto& [line, times] : lines)
    EXPECT_EQ(count(printed, line), times) << line;
  expect_nothing_left();
}

INSTANTIATE_TEST_SUITE_P(real_programs, runner_examples,
                         testing::Values(kRedis, kNginx, kPostgres, kHttp, kNode),
                         [](const testing::TestParamInfo<example>& one) {
                           return std::string(one.param.file);
                         });

TEST(runner_examples_reloaded, nginx_reads_its_configuration_anew_on_hup) {
  example_run nginx(kNginx);
  const std::string obstacle = nginx.start();
  if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  const program_state state = nginx.wait_running();
  const auto answers = [&](const std::string& text) {
    const auto got = nginx.request(0);
    return got && got->text.ends_with(text);
  };
  EXPECT_TRUE(wait_until([&] { return answers("\r\n\r\nup\n"); }));
  write_file(nginx.file("nginx.conf"),
             replaced(read_file(nginx.file("nginx.conf")), "\"up\\n\"", "\"anew\\n\""));
  const control_result sent = control(nginx.place().site(), {"signal", nginx.name(), "HUP"});
  EXPECT_EQ(sent.status, 0) << sent.errors;
  EXPECT_TRUE(wait_until([&] { return answers("\r\n\r\nanew\n"); }));
  EXPECT_EQ(nginx.wait_running().pid, state.pid);
  nginx.place().stop(nginx.name());
}

TEST(runner_examples_reloaded, postgres_reads_its_configuration_anew_on_hup) {
  example_run postgres(kPostgres);
  const std::string obstacle = postgres.start();
  if (!obstacle.empty()) GTEST_SKIP() << obstacle;
  const program_state state = postgres.wait_running();
  const fs::path configuration = postgres.file("postgres-data") / "postgresql.conf";
  write_file(configuration, read_file(configuration) + "log_statement = all\n");
  EXPECT_FALSE(contains(postgres.whole_log(), "log_statement"));
  const control_result sent = control(postgres.place().site(), {"signal", postgres.name(), "HUP"});
  EXPECT_EQ(sent.status, 0) << sent.errors;
  EXPECT_TRUE(wait_until([&] { return contains(postgres.whole_log(), "log_statement"); }))
      << postgres.whole_log();
  EXPECT_EQ(postgres.wait_running().pid, state.pid);
  postgres.place().stop(postgres.name());
}

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
  for (const std::string& block : documented_examples()) {
    for (const auto& one : runner::read_program_text(block, "/srv/kmd_x").findings) {
      // Nor need users, groups and environment files be there.
      if (one.key != "user" && !one.key.starts_with("group") &&
          !one.text.starts_with("cannot read "))
        ADD_FAILURE() << runner::in_one_line(block, one);
    }
  }
}

TEST(runner_examples_themselves, show_every_key_in_the_documentation) {
  std::set<std::string> shown;
  for (const std::string& block : documented_examples()) {
    for (const auto& one : runner::read_program_text(block, "/srv/kmd_x").settings.stated)
      shown.insert(one.section + "." + one.key);
  }
  for (const runner::key_rule& rule : runner::key_table()) {
    const std::string key = std::string(rule.section) + "." + std::string(rule.key);
    EXPECT_TRUE(shown.contains(key)) << key;
  }
}
