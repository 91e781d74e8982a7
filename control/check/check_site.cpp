#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "control/check/check_config.h"

namespace control {
namespace {

/// Whether another user than the owner may put something else in its place. In a directory with
/// the sticky bit nobody may remove what belongs to another user.
bool others_may_write(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return false;
  return (status.st_mode & S_IWOTH) != 0 &&
         !(S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0);
}

void check_writable(const check_subject& subject, findings& out) {
  if (!counts_as_empty(subject.now, subject.place)) return;
  out.fail(0, "keelmond's user may not write the file: it counts as empty, and nothing is run",
           "give it to that user, or chmod u+w " + subject.place.config_file());
}

void check_permissions(const check_subject& subject, findings& out) {
  for (const std::string& path :
       {subject.place.directory, subject.place.directory + "/config", subject.place.config_file(),
        subject.place.directory + "/notify"}) {
    if (!others_may_write(path)) continue;
    out.warn(0, "every user may write " + path + ", and with it say what keelmond runs or shows",
             "chmod o-w " + path);
  }
}

/// Who may put another file in the place of a program says what is run.
void check_program_directories(const check_subject& subject, findings& out) {
  std::set<std::string> directories;
  for (const listed_program& program : subject.programs) {
    const std::size_t slash = program.exepath.rfind('/');
    if (slash != std::string::npos) directories.insert(program.exepath.substr(0, slash + 1));
  }
  for (const std::string& path : directories) {
    // The supervisor's own is looked at with what is in it.
    const bool is_own = subject.is_present_file && path == subject.place.directory + "/";
    if (is_own || !others_may_write(path)) continue;
    out.warn(0,
             "every user may write " + path + ", and with it replace a program that keelmond runs",
             "chmod o-w " + path);
  }
}

void check_notify(const check_subject& subject, findings& out) {
  struct stat status {};
  const std::string path = subject.place.directory + "/notify";
  if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    out.warn(0, "there is no directory " + path + ": no liveness files are written",
             "mkdir " + path);
  }
}

void check_still_running(const check_subject& subject, findings& out) {
  for (const running_program& one : subject.now.running) {
    if (one.name.empty()) continue;
    bool listed = false;
    for (const listed_program& program : subject.programs)
      listed = listed || program.name == one.name;
    if (listed || !one.program) continue;
    out.warn(0,
             one.name + " (PID " + std::to_string(one.program->pid) +
                 ") still runs and is started again when it ends, though no entry names it",
             "list it again with state = stop, or restart keelmond");
  }
}

}  // namespace

void check_site(const check_subject& subject, findings& out) {
  if (subject.is_present_file) {
    check_writable(subject, out);
    check_permissions(subject, out);
  }
  check_program_directories(subject, out);
  check_notify(subject, out);
  check_still_running(subject, out);
}

}  // namespace control
