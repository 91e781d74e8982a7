#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/e2e/support/children.h"
#include "tests/e2e/support/private_namespace.h"
#include "tests/e2e/support/supervisor_binary.h"
#include "tests/support/scratch_dir.h"

namespace fs = std::filesystem;

namespace {

/// A copy of what `run` needs of the tree. What it builds in there is the binary of this build.
class tree final {
 public:
  tree() {
    const fs::path source = KEELMOND_SOURCE_DIR;
    fs::create_directory(root());
    for (const char* part : {"run", "tools", "examples"})
      fs::copy(source / part, root() / part, fs::copy_options::recursive);
    fs::create_directory(scratch_.path() / "bin");
    scratch_.write("bin/cmake",
                   "#!/bin/sh\n"
                   "test \"$1\" = --build || exit 0\n"
                   "mkdir -p \"$2/process\" \"$2/control\" && cp " +
                       supervisor_binary() + " \"$2/process/keelmond\" && cp " +
                       KEELMONDCTL_BINARY + " \"$2/control/keelmondctl\"\n");
    fs::permissions(scratch_.path() / "bin" / "cmake", fs::perms::owner_all);
  }

  [[nodiscard]] fs::path root() const { return scratch_.path() / "tree"; }
  /// A directory that is not there.
  [[nodiscard]] std::string directory() const { return scratch_.file("site"); }

  /// Runs `run`. @return what it prints, and its exit status at the end.
  [[nodiscard]] std::string run(const std::string& arguments) const {
    const std::string command = "PATH=" + scratch_.file("bin") + ":$PATH " +
                                (root() / "run").string() + " " + arguments +
                                " 2>&1 </dev/null; echo exit status: $?";
    FILE* output = ::popen(command.c_str(), "r");  // NOLINT(cert-env33-c)
    std::string text;
    for (int c = 0; (c = std::fgetc(output)) != EOF;)
      text += static_cast<char>(c);
    ::pclose(output);
    return text;
  }

 private:
  scratch_dir scratch_;
};

}  // namespace

TEST(run_script, refuses_a_directory_without_a_configuration) {
  const tree place;
  EXPECT_EQ(place.run(place.directory()), "There is no " + place.directory() +
                                              "/config/server.ini. To have the example there:\n"
                                              "  ./run --example " +
                                              place.directory() + "\nexit status: 1\n");
  EXPECT_FALSE(fs::exists(place.directory()));
}

TEST(run_script, starts_what_the_configuration_of_a_directory_lists) {
  const tree place;
  constexpr char kNothing[] = "[keelmond]\nlinux = 0\n";
  fs::create_directories(place.directory() + "/config");
  write_file(place.directory() + "/config/server.ini", kNothing);
  const std::string printed = place.run(place.directory());
  const std::string head = "keelmond runs in " + place.directory() + " (PID ";
  ASSERT_NE(printed.find(head), std::string::npos) << printed;
  EXPECT_TRUE(printed.ends_with("exit status: 0\n")) << printed;
  EXPECT_EQ(read_file(place.directory() + "/config/server.ini"), kNothing);
  const pid_t daemon = std::atoi(printed.c_str() + printed.find(head) + head.size());
  ASSERT_GT(daemon, 1);
  ::kill(daemon, SIGUSR2);
  EXPECT_EQ(children::wait_for_end(daemon), 0);
}

TEST(run_script, starts_the_example_in_a_directory_that_it_makes) {
  if (!private_namespace::is_inside()) GTEST_SKIP() << "the names of the example may be in use";
  const tree place;
  const std::string printed = place.run("--example " + place.directory());
  const std::string head = "keelmond runs in " + place.directory() + " (PID ";
  ASSERT_NE(printed.find(head), std::string::npos) << printed;
  EXPECT_NE(printed.find("2 of 2 programs that are to run are alive"), std::string::npos)
      << printed;
  EXPECT_NE(printed.find("What to try next"), std::string::npos) << printed;
  EXPECT_TRUE(printed.ends_with("exit status: 0\n")) << printed;
  EXPECT_TRUE(fs::exists(place.directory() + "/config/server.ini"));
  const pid_t daemon = std::atoi(printed.c_str() + printed.find(head) + head.size());
  ASSERT_GT(daemon, 1);
  ::kill(daemon, SIGUSR2);
  EXPECT_EQ(children::wait_for_end(daemon), 0);
}

TEST(run_script, tells_who_may_not_build_before_it_asks_for_packages) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may write everywhere";
  const tree place;
  const fs::path packages = place.root() / "tools" / "packages.sh";
  write_file(packages, read_file(packages) + "install_needed() { echo asks for packages; }\n");
  fs::create_directories(place.root() / "build" / "release");
  write_file(place.root() / "build" / "run.log", "What an earlier build has said.\n");
  fs::permissions(place.root() / "build" / "release",
                  fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(place.run(""), "This user cannot write " + (place.root() / "build").string() +
                               ", where keelmond is built.\n"
                               "Run this as the user it belongs to, or from a copy of " +
                               place.root().string() + ".\nexit status: 1\n");
  fs::permissions(place.root() / "build" / "release", fs::perms::owner_all);
}
