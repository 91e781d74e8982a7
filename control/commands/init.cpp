#include "control/commands/init.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/misc/small_file.h"
#include "common/misc/unique_fd.h"
#include "control/examples.h"
#include "control/text/failure.h"

namespace control {
namespace {

constexpr char kSample[] =
    R"(# The programs that keelmond keeps running in this directory.
# A line that starts with # % / ; or @ is a comment. There are no comments behind a value.
# `keelmondctl add NAME` writes an entry, `keelmondctl check` says what is wrong with them.

[keelmond]
# How many entries follow: svr1, svr2, ...
linux = 0
# svr1 = kmd_web

# One section for each program, named like its entry. The name is also what `pgrep` looks for when
# the program is to be stopped, so it is at most 15 characters long and no other process has it.
#
# [kmd_web]
# The full path of a file. Without it, the file of that name in this directory.
# exepath = /srv/programs/kmd_web
# "run" keeps it running, "stop" stops it.
# state = run
)";

failure cannot(const char* what, const std::string& path) {
  return failure("cannot " + std::string(what) + " " + path + ": " + std::strerror(errno));
}

void make_directory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0) {
    say("made " + path);
  } else if (errno != EEXIST) {
    throw cannot("make", path);
  }
}

void make_file(const std::string& path, std::string_view text, mode_t mode) {
  const unique_fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!file.valid() && errno == EEXIST) {
    say("kept " + path);
    return;
  }
  if (!file.valid() || !write_whole(file.get(), text)) {
    throw cannot("write", path);
  }
  say("made " + path);
}

/// The example's programs have no `exepath`: the shell gets the directory and the name.
void require_plain_word(const std::string& directory) {
  const bool plain = std::all_of(directory.begin(), directory.end(), [](char c) {
    return std::strchr("/._+@:,=-", c) != nullptr || (c >= '0' && c <= '9') ||
           (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  });
  if (plain) return;
  throw failure("the shell would not take the path " + directory +
                " as one plain word, so the example cannot run there: choose another directory");
}

}  // namespace

int run_init(const session& here, const init_options& options) {
  const std::string& directory = here.place.directory;
  if (options.example) require_plain_word(directory);
  make_directory(directory + "/config");
  make_directory(directory + "/notify");
  make_file(here.place.config_file(), options.example ? kExampleConfig : kSample, 0644);
  if (!options.example) return exit_status::kDone;
  for (const example_program& program : kExamplePrograms)
    make_file(directory + "/" + program.name, program.text, 0755);
  return exit_status::kDone;
}

}  // namespace control
