#include "control/command_line.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "common/misc/duration.h"
#include "common/version/version.h"
#include "control/commands/add_remove.h"
#include "control/commands/check.h"
#include "control/commands/down.h"
#include "control/commands/edit.h"
#include "control/commands/init.h"
#include "control/commands/log.h"
#include "control/commands/logs.h"
#include "control/commands/metrics.h"
#include "control/commands/reload.h"
#include "control/commands/signals.h"
#include "control/commands/start_stop.h"
#include "control/commands/status.h"
#include "control/commands/up.h"
#include "control/commands/wait.h"
#include "control/completion.h"
#include "control/text/failure.h"
#include "control/text/quantity.h"
#include "control/text/table.h"
#include "runner/file/key_table.h"

namespace control {
namespace {

constexpr int kStatusUnknown = 4;
constexpr int kCheckFailed = 2;

/// What the command line asks for, once it has been understood.
struct request {
  std::string directory;
  std::string command;
  std::function<int(const session&)> run;
};

/// Registers one command whose options are kept as long as the parser.
template <typename Options>
Options& add_command(CLI::App& app, request& out, const std::string& name, const std::string& text,
                     int (*body)(const session&, const Options&), CLI::App*& command) {
  auto options = std::make_shared<Options>();
  command = app.add_subcommand(name, text)->group("Commands");
  command->callback([&out, name, options, body] {
    out.command = name;
    out.run = [options, body](const session& here) { return body(here, *options); };
  });
  return *options;
}

std::chrono::milliseconds to_duration(const std::string& text) {
  const auto duration = parse_duration(text);
  if (!duration)
    throw CLI::ValidationError("--timeout", text + " is no duration of at most 100 years");
  return *duration;
}

void add_timeout(CLI::App& command, std::chrono::milliseconds& out) {
  command
      .add_option_function<std::string>(
          "--timeout", [&out](const std::string& text) { out = to_duration(text); },
          "How long to wait, such as 500ms, 10s or 2m (default: " +
              format_short_duration(static_cast<double>(out.count()) / 1000) + ")")
      ->type_name("TIME");
}

/// As it is where it cannot be made so: an empty path, or one in a directory that is gone.
std::string absolute(const std::string& path) {
  std::error_code error;
  const std::filesystem::path whole = std::filesystem::absolute(path, error);
  return error ? path : whole.string();
}

/// A path becomes absolute, because the command works in the supervisor's directory.
CLI::Option* add_path(CLI::App& command, const std::string& name, std::string& out,
                      const std::string& text) {
  return command.add_option_function<std::string>(
      name, [&out](const std::string& path) { out = absolute(path); }, text);
}

void add_file(CLI::App& command, std::string& out, const std::string& text) {
  add_path(command, "FILE", out, text);
}

void add_life(CLI::App& app, request& out) {
  CLI::App* command = nullptr;
  init_options& init =
      add_command(app, out, "init", "Make config/server.ini and notify/", run_init, command);
  command->add_flag("--example", init.example, "With programs to play with");

  up_options& up =
      add_command(app, out, "up", "Start keelmond and wait for its programs", run_up, command);
  add_timeout(*command, up.timeout);
  CLI::Option* const foreground = command->add_flag(
      "--foreground", up.foreground, "Stay: for containers, systemd and other supervisors");
  command
      ->add_flag_callback(
          "--no-restart", [&up] { up.restart = false; },
          "In the foreground: end when keelmond was killed")
      ->needs(foreground);
  command->add_flag("--as-root", up.as_root,
                    "By root also where config/server.ini is another user's");

  down_options& down =
      add_command(app, out, "down", "Shut keelmond down, with its programs", run_down, command);
  add_timeout(*command, down.timeout);
  command->add_flag("--kill", down.kill, "Kill what has not ended in time");

  reload_options& reload =
      add_command(app, out, "reload", "Have config/server.ini read", run_reload, command);
  add_timeout(*command, reload.timeout);
}

void add_looking(CLI::App& app, request& out) {
  CLI::App* command = nullptr;
  status_options& status =
      add_command(app, out, "status", "Show the programs and what they do", run_status, command);
  command->add_option("NAME", status.names, "Programs, or patterns such as 'kmd_*'");
  CLI::Option* const json =
      command->add_flag("--json", status.json, "For programs; see docs/keelmondctl.md");
  command->add_flag("--watch", status.watch, "Again and again, until q is pressed")->excludes(json);
}

void add_checking(CLI::App& app, request& out) {
  CLI::App* command = nullptr;
  check_options& check = add_command(app, out, "check", "Say what is wrong with config/server.ini",
                                     run_check, command);
  add_file(*command, check.file, "Another file to check");
  command->add_flag("--json", check.json, "For programs; see docs/keelmondctl.md");

  plan_options& plan = add_command(
      app, out, "plan", "Say what keelmond would do with config/server.ini", run_plan, command);
  add_file(*command, plan.file, "Another file that may take its place");
}

void add_names(CLI::App& command, std::vector<std::string>& names, bool& all) {
  command.add_option("NAME", names, "Programs, or patterns such as 'kmd_*'");
  command.add_flag("--all", all, "All programs");
}

void add_steering(CLI::App& app, request& out) {
  CLI::App* command = nullptr;
  start_options& start =
      add_command(app, out, "start", "Set programs to run, and wait for them", run_start, command);
  add_names(*command, start.names, start.all);
  add_timeout(*command, start.timeout);

  stop_options& stop = add_command(app, out, "stop", "Set programs to stop, and wait for their end",
                                   run_stop, command);
  add_names(*command, stop.names, stop.all);
  add_timeout(*command, stop.timeout);
  command->add_flag("--force", stop.force, "Also where other processes have names that fit");

  restart_options& restart = add_command(
      app, out, "restart", "Stop programs, and wait for the new ones", run_restart, command);
  add_names(*command, restart.names, restart.all);
  add_timeout(*command, restart.timeout);
  command->add_option("--signal", restart.signal, "What ends them (default: USR2)")
      ->type_name("SIG");

  signal_options& signal =
      add_command(app, out, "signal", "Send a program a signal", run_signal, command);
  command->add_option("NAME", signal.name, "The program")->required();
  command->add_option("SIG", signal.signal, "Such as USR1, HUP or 9")->required();
}

void add_editing(CLI::App& app, request& out) {
  CLI::App* command = nullptr;
  add_options& add = add_command(app, out, "add", "List a program", run_add, command);
  command->add_option("NAME", add.name, "Its name")->required();
  command->add_option("COMMAND", add.text.command,
                      "Behind --: what it runs; a program file is written for that");
  add_path(*command, "--directory", add.text.directory, "Where the command runs")->type_name("DIR");
  command->add_option("--user", add.text.user, "As whom the command runs")->type_name("USER");
  command->add_option("--env", add.text.environment, "A variable of its environment")
      ->type_name("NAME=VALUE")
      ->allow_extra_args(false);
  add_path(*command, "--log", add.text.log, "The file that takes its output")->type_name("FILE");
  command
      ->add_option("--set", add.text.settings,
                   "Any other key of the program file, such as stop.timeout=30s")
      ->type_name("SECTION.KEY=VALUE")
      ->allow_extra_args(false);
  add_path(*command, "--exepath", add.exepath, "Its file (default: NAME in the directory)")
      ->type_name("PATH");
  command->add_flag("--stopped", add.stopped, "Do not start it yet");
  add_timeout(*command, add.timeout);

  remove_options& remove =
      add_command(app, out, "remove", "Stop a program and take it out", run_remove, command);
  command->add_option("NAME", remove.name, "Its name")->required();
  command->add_flag("--force", remove.force, "Also where other processes have names that fit");
  add_timeout(*command, remove.timeout);

  edit_options& edit = add_command(
      app, out, "edit", "Change config/server.ini in an editor, checked", run_edit, command);
  add_timeout(*command, edit.timeout);
}

void add_reporting(CLI::App& app, request& out) {
  CLI::App* command = nullptr;
  log_options& log = add_command(app, out, "log", "Show what has happened", run_log, command);
  command
      ->add_option_function<std::size_t>(
          "-n",
          [&log](std::size_t count) {
            log.count = count;
            log.count_given = true;
          },
          "How many events (default: 20)")
      ->type_name("N");
  command->add_flag("-f,--follow", log.follow, "Go on with what happens");
  command->add_option("--since", log.since, "Such as 10m, 2h or '2026-11-15 10:00'")
      ->type_name("TIME");
  command->add_flag("--json", log.json, "For programs; see docs/keelmondctl.md");

  logs_options& logs = add_command(
      app, out, "logs", "Show what programs have written to their logs", run_logs, command);
  add_names(*command, logs.names, logs.all);
  command->add_option("-n", logs.count, "How many lines (default: 20)")->type_name("N");
  command->add_flag("-f,--follow", logs.follow, "Go on with what is written");

  metrics_options& metrics =
      add_command(app, out, "metrics", "Write figures for Prometheus", run_metrics, command);
  add_path(*command, "--textfile", metrics.textfile, "To a file, for the node exporter")
      ->type_name("PATH");

  wait_options& wait = add_command(app, out, "wait", "Wait until programs are alive or have ended",
                                   run_wait, command);
  command->add_option("NAME", wait.names, "Programs, or patterns such as 'kmd_*'")->required();
  CLI::Option* const up = command->add_flag("--up", wait.up, "Until they are alive (the default)");
  command->add_flag("--down", wait.down, "Until they have ended")->excludes(up);
  command
      ->add_option_function<std::string>(
          "--timeout", [&wait](const std::string& text) { wait.timeout = to_duration(text); },
          "How long to wait, such as 10s (default: without end)")
      ->type_name("TIME");
}

/// What --set can begin with.
std::vector<std::string> beginnings_of_settings() {
  std::vector<std::string> beginnings;
  for (const runner::key_rule& rule : runner::key_table())
    beginnings.push_back(std::string(rule.section) + "." + std::string(rule.key) + "=");
  return beginnings;
}

/// What completions offer is what the parser takes.
std::vector<completed_command> commands_of(CLI::App& app) {
  std::vector<completed_command> commands;
  for (const CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (command->get_group().empty()) continue;
    completed_command one;
    one.name = command->get_name();
    one.description = command->get_description();
    for (const CLI::Option* const option : command->get_options()) {
      for (const std::string& name : option->get_snames())
        one.options.push_back("-" + name);
      for (const std::string& name : option->get_lnames())
        one.options.push_back("--" + name);
      one.takes_names = one.takes_names || option->get_name() == "NAME";
      one.takes_file = one.takes_file || option->get_name() == "FILE";
      if (option->get_name() == "--set") one.settings = beginnings_of_settings();
    }
    commands.push_back(std::move(one));
  }
  return commands;
}

void add_completion(CLI::App& app, request& out) {
  CLI::App* const completion =
      app.add_subcommand("completion", "Print a completion script")->group("Commands");
  auto shell = std::make_shared<std::string>();
  completion->add_option("SHELL", *shell, "bash, zsh or fish")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish"}));
  completion->callback([&app, &out, shell] {
    out.command = "completion";
    out.run = [&app, shell](const session&) {
      std::fputs(completion_script(*shell, commands_of(app)).c_str(), stdout);
      return exit_status::kDone;
    };
  });

  // For the scripts, and therefore not listed.
  app.add_subcommand("names", "")->group("")->callback([&out] {
    out.command = "names";
    out.run = [](const session& here) {
      for (const listed_program& program : here.look().programs)
        say(program.name);
      return exit_status::kDone;
    };
  });
}

/// `init` makes the directory, too.
void make_directory_for(const request& asked) {
  const char* const given = std::getenv("KEELMOND_DIR");
  const std::string wanted =
      asked.directory.empty() && given != nullptr ? std::string(given) : asked.directory;
  if (asked.command != "init" || wanted.empty()) return;
  std::error_code error;
  std::filesystem::create_directories(wanted, error);
}

/// What a command answers with that could not do its work: `status` and `check` say other things
/// by a 1.
int failed(const request& asked, int status) {
  if (status != exit_status::kFailed) return status;
  if (asked.command == "status") return kStatusUnknown;
  return asked.command == "check" ? kCheckFailed : status;
}

int run(const request& asked) {
  try {
    make_directory_for(asked);
    const session here{enter_site(asked.directory), asked.command};
    return asked.run(here);
  } catch (const failure& why) {
    std::fflush(stdout);
    std::fprintf(stderr, "keelmondctl %s: %s.\n", asked.command.c_str(),
                 printable(why.what()).c_str());
    return failed(asked, why.exit_status());
  } catch (const std::exception& why) {
    std::fprintf(stderr, "keelmondctl %s: %s.\n", asked.command.c_str(),
                 printable(why.what()).c_str());
    return failed(asked, exit_status::kFailed);
  }
}

/// The word in the place of the command; empty when there is none.
std::string first_word(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "-C") {
      ++i;
    } else if (!word.starts_with('-')) {
      return std::string(word);
    }
  }
  return {};
}

}  // namespace

int run_command_line(int argc, char** argv) {
  CLI::App app("Steers the keelmond of a directory.", "keelmondctl");
  request asked;
  app.add_option("-C", asked.directory,
                 "The supervisor's directory (default: $KEELMOND_DIR, else the current one)")
      ->type_name("DIR");
  app.set_version_flag("--version", std::string("keelmondctl ") + kVersion, "Print the version");
  app.require_subcommand(1);
  app.get_formatter()->label("SUBCOMMAND", "COMMAND");
  const std::string word = first_word(argc, argv);
  app.failure_message([&](const CLI::App*, const CLI::Error& error) {
    const bool no_command = word.empty() && error.get_name() == "RequiredError";
    const std::string what = no_command ? "there is no command" : error.what();
    return "keelmondctl: " + what + ". See `keelmondctl --help`.\n";
  });
  app.fallthrough();
  add_looking(app, asked);
  add_life(app, asked);
  add_steering(app, asked);
  add_editing(app, asked);
  add_checking(app, asked);
  add_reporting(app, asked);
  add_completion(app, asked);
  const auto is_word = [&](const CLI::App* command) { return command->get_name() == word; };
  if (!word.empty() && app.get_subcommands(is_word).empty()) {
    std::fprintf(stderr, "keelmondctl: there is no command %s. See `keelmondctl --help`.\n",
                 word.c_str());
    return exit_status::kUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? exit_status::kDone : exit_status::kUsage;
  }
  return run(asked);
}

}  // namespace control
