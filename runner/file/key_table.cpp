#include "runner/file/key_table.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "common/misc/duration.h"
#include "runner/file/addresses.h"
#include "runner/file/values.h"
#include "runner/file/words.h"

namespace runner {
namespace {

using setting = program_file::setting;
using reading = key_reading;

constexpr std::string_view kCommand = "a command, with quotes around words that hold blanks";
constexpr std::string_view kTruth = "yes or no";
constexpr std::string_view kDuration =
    "a duration such as 0.5, 500ms, 10s, 2m or 1h, at most 100 years";
constexpr std::string_view kSize = "a size such as 4096, 64K, 10M or 1G";
constexpr std::string_view kCount = "a number";
constexpr std::string_view kPath = "a path";
constexpr std::string_view kNumberLimit =
    "SOFT or SOFT:HARD, each a number or unlimited, the soft one not above the hard one";
constexpr std::string_view kSizeLimit =
    "SOFT or SOFT:HARD, each a size such as 64M or unlimited, the soft one not above the hard one";

/// Puts what was read in its place, if anything was read.
template <typename Value, typename Place>
bool put(const std::optional<Value>& value, Place& place) {
  if (value) place = static_cast<Place>(*value);
  return value.has_value();
}

bool put_command(reading& into, const setting& given, command_words& place) {
  if (into.wants_shell(given.section)) {
    place = {"/bin/sh", "-c", given.value};
    return true;
  }
  into.error = split_words(given.value, place);
  return into.error.empty();
}

bool put_path(const reading& into, const setting& given, std::string& place) {
  place = into.absolute(given.value);
  return true;
}

template <int Resource, limit_unit Unit>
bool take_limit(reading& into, const setting& given) {
  const auto limit = parse_limit(given.value, Unit);
  if (limit) into.file.limits.resources.push_back({Resource, *limit, given.line});
  return limit.has_value();
}

bool take_user(reading& into, const setting& given) {
  const auto user = into.known.find_user(given.value);
  if (!user) {
    into.error = "no user is called \"" + given.value + "\"";
    return false;
  }
  identity& who = into.file.program.who;
  who.uid = user->uid;
  who.name = user->name;
  who.home = user->home;
  who.shell = user->shell;
  if (user->listed) who.gid = user->gid;
  return true;
}

bool check_group(reading& into, const std::string& name) {
  if (into.known.find_group(name)) return true;
  into.error = "no group is called \"" + name + "\"";
  return false;
}

bool check_groups(reading& into, const setting& given) {
  const std::vector<std::string> names = split_names(given.value);
  return std::all_of(names.begin(), names.end(),
                     [&](const std::string& name) { return check_group(into, name); });
}

bool take_needs(reading& into, const setting& given) {
  into.file.program.needs = split_names(given.value);
  const auto is_name = [](const std::string& name) {
    return name.find('/') == std::string::npos && name.front() != '.';
  };
  const auto& needs = into.file.program.needs;
  if (std::find(needs.begin(), needs.end(), into.file.log.name) != needs.end()) {
    into.error = into.file.log.name + " waits for itself";
    return false;
  }
  return !needs.empty() && std::all_of(needs.begin(), needs.end(), is_name);
}

bool take_target(reading& into, const setting& given) {
  constexpr std::string_view kNames[] = {"file", "syslog", "journal", "inherit"};
  constexpr log_target kTargets[] = {log_target::file, log_target::syslog, log_target::journal,
                                     log_target::inherit};
  const auto* const found = std::find(std::begin(kNames), std::end(kNames), given.value);
  if (found == std::end(kNames)) return false;
  into.file.log.target = kTargets[found - std::begin(kNames)];
  return true;
}

bool take_log_file(reading& into, const setting& given) {
  into.file.log.target = log_target::file;
  return put_path(into, given, into.file.log.file);
}

bool take_age(reading& into, const setting& given) {
  const auto age = parse_duration(given.value);
  if (!age || *age < std::chrono::seconds(1)) return false;
  into.file.log.age = std::chrono::duration_cast<std::chrono::seconds>(*age);
  return true;
}

bool take_keep(reading& into, const setting& given) {
  const auto keep = parse_integer(given.value, 0, 100000);
  return put(keep, into.file.log.keep);
}

bool take_policy(reading& into, const setting& given) {
  constexpr std::string_view kNames[] = {"always", "failure", "never"};
  const auto* const found = std::find(std::begin(kNames), std::end(kNames), given.value);
  if (found == std::end(kNames)) return false;
  into.file.restart.on = static_cast<restart_policy>(found - std::begin(kNames));
  return true;
}

/// A section has one probe; a second one is wrong.
bool is_first_probe(reading& into, const probe_settings& probe) {
  if (probe.how == probe_settings::kind::none) return true;
  into.error = "there is another way to ask in this section";
  return false;
}

bool take_tcp(reading& into, const setting& given, probe_settings& probe) {
  return is_first_probe(into, probe) && parse_tcp_address(given.value, probe);
}

bool take_http(reading& into, const setting& given, probe_settings& probe) {
  return is_first_probe(into, probe) && parse_http_address(given.value, probe);
}

bool take_probe_path(reading& into, const setting& given, probe_settings::kind how) {
  probe_settings& probe = into.file.ready.probe;
  if (!is_first_probe(into, probe)) return false;
  probe.how = how;
  return put_path(into, given, probe.path);
}

bool take_probe_command(reading& into, const setting& given, probe_settings& probe) {
  if (!is_first_probe(into, probe)) return false;
  probe.how = probe_settings::kind::command;
  return put_command(into, given, probe.command);
}

bool take_notify(reading& into, const setting& given) {
  const auto wanted = parse_truth(given.value);
  probe_settings& probe = into.file.ready.probe;
  if (!wanted || !*wanted) return wanted.has_value();
  if (!is_first_probe(into, probe)) return false;
  probe.how = probe_settings::kind::notify;
  return true;
}

/// Looked up where it is needed, so only its form counts here.
bool take_shell(reading& /*into*/, const setting& given) {
  return parse_truth(given.value).has_value();
}

constexpr char kHost[] = "PORT or HOST:PORT, the host as a numeric address";
constexpr char kUrl[] = "PORT/PATH or http://HOST:PORT/PATH, the host as a numeric address";

// Formatted as a table, for that is what it is.
// clang-format off
constexpr key_rule kRules[] = {
  {"program", "command", "(none)", kCommand,
   [](reading& r, const setting& e) { return put_command(r, e, r.file.program.command); }},
  {"program", "shell", "no", kTruth, take_shell},
  {"program", "directory", "(that of this file)", kPath,
   [](reading& r, const setting& e) { return put_path(r, e, r.file.program.directory); }},
  {"program", "user", "(the supervisor's)", "the name or number of a user", take_user},
  {"program", "group", "(the user's)", "the name or number of a group",
   [](reading& r, const setting& e) { return check_group(r, e.value); }},
  {"program", "groups", "(the user's)", "names or numbers of groups, with blanks between them",
   check_groups},
  {"program", "umask", "022", "an octal number from 000 to 777",
   [](reading& r, const setting& e) { return put(parse_mode(e.value), r.file.program.umask); }},
  {"program", "nice", "(the supervisor's)", "a number from -20 to 19",
   [](reading& r, const setting& e) {
     r.file.program.nice = parse_integer(e.value, -20, 19);
     return r.file.program.nice.has_value(); }},
  {"program", "oom_score", "(the supervisor's)", "a number from -1000 to 1000",
   [](reading& r, const setting& e) {
     r.file.program.oom_score = parse_integer(e.value, -1000, 1000);
     return r.file.program.oom_score.has_value(); }},
  {"program", "no_new_privileges", "no", kTruth,
   [](reading& r, const setting& e) {
     return put(parse_truth(e.value), r.file.program.no_new_privileges); }},
  {"program", "before", "(none)", kCommand,
   [](reading& r, const setting& e) { return put_command(r, e, r.file.program.before); }},
  {"program", "after", "(none)", kCommand,
   [](reading& r, const setting& e) { return put_command(r, e, r.file.program.after); }},
  {"program", "needs", "(none)", "names of programs, with blanks between them", take_needs},
  {"program", "needs_timeout", "60s", kDuration,
   [](reading& r, const setting& e) {
     return put(parse_duration(e.value), r.file.program.needs_timeout); }},
  {"program", "supervisor", "(found in the process tree)", kPath,
   [](reading& r, const setting& e) { return put_path(r, e, r.file.program.supervisor); }},

  {"environment", "clean", "no", kTruth,
   [](reading& r, const setting& e) {
     return put(parse_truth(e.value), r.file.environment.clean); }},
  {"environment", "file", "(none)", kPath, [](reading&, const setting&) { return true; }},

  {"limits", "nofile", "(the supervisor's)", kNumberLimit,
   take_limit<RLIMIT_NOFILE, limit_unit::number>},
  {"limits", "nproc", "(the supervisor's)", kNumberLimit,
   take_limit<RLIMIT_NPROC, limit_unit::number>},
  {"limits", "core", "(the supervisor's)", kSizeLimit, take_limit<RLIMIT_CORE, limit_unit::bytes>},
  {"limits", "as", "(the supervisor's)", kSizeLimit, take_limit<RLIMIT_AS, limit_unit::bytes>},
  {"limits", "data", "(the supervisor's)", kSizeLimit, take_limit<RLIMIT_DATA, limit_unit::bytes>},
  {"limits", "stack", "(the supervisor's)", kSizeLimit,
   take_limit<RLIMIT_STACK, limit_unit::bytes>},
  {"limits", "fsize", "(the supervisor's)", kSizeLimit,
   take_limit<RLIMIT_FSIZE, limit_unit::bytes>},
  {"limits", "memlock", "(the supervisor's)", kSizeLimit,
   take_limit<RLIMIT_MEMLOCK, limit_unit::bytes>},
  {"limits", "msgqueue", "(the supervisor's)", kSizeLimit,
   take_limit<RLIMIT_MSGQUEUE, limit_unit::bytes>},
  {"limits", "sigpending", "(the supervisor's)", kNumberLimit,
   take_limit<RLIMIT_SIGPENDING, limit_unit::number>},
  {"limits", "rtprio", "(the supervisor's)", kNumberLimit,
   take_limit<RLIMIT_RTPRIO, limit_unit::number>},
  {"limits", "memory", "(none)", kSize,
   [](reading& r, const setting& e) {
     return put(parse_size(e.value), r.file.limits.group.memory) &&
            r.file.limits.group.memory > 0; }},
  {"limits", "cpu", "(none)", "processors, such as 1.5 or 50%",
   [](reading& r, const setting& e) {
     return put(parse_processors(e.value), r.file.limits.group.processors); }},
  {"limits", "tasks", "(none)", "a number above 0",
   [](reading& r, const setting& e) {
     return put(parse_count(e.value), r.file.limits.group.tasks) &&
            r.file.limits.group.tasks > 0; }},

  {"log", "to", "(file where there is one, or else inherit)", "file, syslog, journal or inherit",
   take_target},
  {"log", "file", "(none)", kPath, take_log_file},
  {"log", "size", "10M", kSize,
   [](reading& r, const setting& e) { return put(parse_size(e.value), r.file.log.size); }},
  {"log", "age", "(any)", "a duration from a second to 100 years, such as 1d", take_age},
  {"log", "keep", "5", kCount, take_keep},
  {"log", "compress", "no", kTruth,
   [](reading& r, const setting& e) { return put(parse_truth(e.value), r.file.log.compress); }},
  {"log", "stamp", "no", kTruth,
   [](reading& r, const setting& e) { return put(parse_truth(e.value), r.file.log.stamp); }},
  {"log", "stderr", "same", "same or a path",
   [](reading& r, const setting& e) {
     return e.value == "same" || put_path(r, e, r.file.log.stderr_file); }},

  {"stop", "signal", "TERM", "the name of a signal, such as TERM or QUIT",
   [](reading& r, const setting& e) { return put(parse_signal(e.value), r.file.stop.signal); }},
  {"stop", "timeout", "10s", kDuration,
   [](reading& r, const setting& e) { return put(parse_duration(e.value), r.file.stop.timeout); }},
  {"stop", "command", "(none)", kCommand,
   [](reading& r, const setting& e) { return put_command(r, e, r.file.stop.command); }},
  {"stop", "shell", "no", kTruth, take_shell},

  {"restart", "delay", "0.2s", kDuration,
   [](reading& r, const setting& e) { return put(parse_duration(e.value), r.file.restart.delay); }},
  {"restart", "longest", "60s", kDuration,
   [](reading& r, const setting& e) {
     return put(parse_duration(e.value), r.file.restart.longest); }},
  {"restart", "steady", "10s", kDuration,
   [](reading& r, const setting& e) { return put(parse_duration(e.value), r.file.restart.steady); }},
  {"restart", "give_up", "0", "a number of attempts, or 0 for never",
   [](reading& r, const setting& e) { return put(parse_count(e.value), r.file.restart.give_up); }},
  {"restart", "on", "always", "always, failure or never", take_policy},

  {"ready", "tcp", "(none)", kHost,
   [](reading& r, const setting& e) { return take_tcp(r, e, r.file.ready.probe); }},
  {"ready", "http", "(none)", kUrl,
   [](reading& r, const setting& e) { return take_http(r, e, r.file.ready.probe); }},
  {"ready", "unix", "(none)", kPath,
   [](reading& r, const setting& e) {
     return take_probe_path(r, e, probe_settings::kind::unix_socket); }},
  {"ready", "file", "(none)", kPath,
   [](reading& r, const setting& e) { return take_probe_path(r, e, probe_settings::kind::file); }},
  {"ready", "command", "(none)", kCommand,
   [](reading& r, const setting& e) { return take_probe_command(r, e, r.file.ready.probe); }},
  {"ready", "shell", "no", kTruth, take_shell},
  {"ready", "notify", "no", kTruth, take_notify},
  {"ready", "timeout", "60s", kDuration,
   [](reading& r, const setting& e) { return put(parse_duration(e.value), r.file.ready.timeout); }},

  {"health", "command", "(none)", kCommand,
   [](reading& r, const setting& e) { return take_probe_command(r, e, r.file.health.probe); }},
  {"health", "shell", "no", kTruth, take_shell},
  {"health", "tcp", "(none)", kHost,
   [](reading& r, const setting& e) { return take_tcp(r, e, r.file.health.probe); }},
  {"health", "http", "(none)", kUrl,
   [](reading& r, const setting& e) { return take_http(r, e, r.file.health.probe); }},
  {"health", "every", "30s", "a duration above 0, at most 100 years, such as 30s",
   [](reading& r, const setting& e) {
     return put(parse_duration(e.value), r.file.health.every) &&
            r.file.health.every.count() > 0; }},
  {"health", "timeout", "5s", "a duration above 0, at most 100 years, such as 5s",
   [](reading& r, const setting& e) {
     return put(parse_duration(e.value), r.file.health.timeout) &&
            r.file.health.timeout.count() > 0; }},
  {"health", "failures", "3", "a number above 0",
   [](reading& r, const setting& e) {
     return put(parse_count(e.value), r.file.health.failures) && r.file.health.failures > 0; }},

  {"on", "failure", "(none)", kCommand,
   [](reading& r, const setting& e) { return put_command(r, e, r.file.on.failure); }},
  {"on", "ready", "(none)", kCommand,
   [](reading& r, const setting& e) { return put_command(r, e, r.file.on.ready); }},
  {"on", "give_up", "(none)", kCommand,
   [](reading& r, const setting& e) { return put_command(r, e, r.file.on.give_up); }},
  {"on", "shell", "no", kTruth, take_shell},
};
// clang-format on

}  // namespace

bool key_reading::wants_shell(std::string_view section) const {
  const program_file::setting* const given = file.find(section, "shell");
  return given != nullptr && parse_truth(given->value).value_or(false);
}

std::string key_reading::absolute(std::string_view path) const {
  if (path.starts_with('/')) return std::string(path);
  return directory + "/" + std::string(path);
}

std::span<const key_rule> key_table() {
  return kRules;
}

const key_rule* find_rule(std::string_view section, std::string_view key) {
  const auto* const found = std::find_if(
      std::begin(kRules), std::end(kRules),
      [&](const key_rule& rule) { return rule.section == section && rule.key == key; });
  return found == std::end(kRules) ? nullptr : found;
}

bool is_section(std::string_view name) {
  return std::any_of(std::begin(kRules), std::end(kRules),
                     [&](const key_rule& rule) { return rule.section == name; });
}

std::string list_keys(std::string_view section) {
  std::string list;
  for (const key_rule& rule : kRules) {
    if (rule.section == section) list += (list.empty() ? "" : ", ") + std::string(rule.key);
  }
  return list;
}

std::string list_sections() {
  std::string list;
  std::string_view last;
  for (const key_rule& rule : kRules) {
    if (rule.section != last) list += (list.empty() ? "" : ", ") + std::string(rule.section);
    last = rule.section;
  }
  return list;
}

}  // namespace runner
