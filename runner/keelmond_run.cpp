#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "common/version/version.h"
#include "runner/file/program_file.h"
#include "runner/supervise/supervision.h"

namespace {

constexpr int kWrongUse = 2;

constexpr char kUsage[] =
    "usage: keelmond-run FILE            run the program that FILE describes\n"
    "       keelmond-run --check FILE    say what is wrong in FILE, and start nothing\n"
    "       keelmond-run --explain FILE  show every key with its value\n"
    "       keelmond-run --version\n"
    "\n"
    "A program file usually runs itself: its first line is #!/usr/bin/keelmond-run\n";

void print(int fd, const std::string& text) {
  if (::write(fd, text.data(), text.size()) < 0) {
    // There is nobody to tell.
  }
}

/// @return the exit status.
int check(const std::string& path, bool explains) {
  const runner::program_file_result result = runner::read_program_file(path);
  for (const runner::file_finding& one : result.findings)
    print(STDERR_FILENO, runner::in_one_line(path, one) + "\n");
  if (!result.findings.empty()) return 1;
  if (explains) print(STDOUT_FILENO, runner::explain(result.settings));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view first = argc > 1 ? argv[1] : "";
  if (argc == 3 && (first == "--check" || first == "--explain"))
    return check(argv[2], first == "--explain");
  if (argc == 2 && first == "--version") {
    print(STDOUT_FILENO, std::string("keelmond-run ") + kVersion + "\n");
    return 0;
  }
  if (argc == 2 && first == "--help") {
    print(STDOUT_FILENO, kUsage);
    return 0;
  }
  if (argc != 2 || first.starts_with('-') || first.empty()) {
    print(STDERR_FILENO, kUsage);
    return kWrongUse;
  }
  return runner::supervision(argv[1]).run();
}
