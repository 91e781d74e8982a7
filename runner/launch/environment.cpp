#include "runner/launch/environment.h"

#include <algorithm>

namespace runner {
namespace {

constexpr char kUsualPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::string_view name_of(std::string_view variable) {
  return variable.substr(0, variable.find('='));
}

void set(std::vector<std::string>& list, std::string_view name, std::string_view value) {
  std::string text = std::string(name) + "=" + std::string(value);
  const auto known = std::find_if(list.begin(), list.end(),
                                  [&](const std::string& one) { return name_of(one) == name; });
  if (known == list.end()) {
    list.push_back(std::move(text));
  } else {
    *known = std::move(text);
  }
}

/// What a service manager above the supervisor has told the supervisor, and nobody else.
bool concerns_launcher(std::string_view name) {
  return name == "NOTIFY_SOCKET" || name == "WATCHDOG_USEC" || name == "WATCHDOG_PID" ||
         name == "LISTEN_FDS" || name == "LISTEN_PID" || name == "LISTEN_FDNAMES";
}

/// What says who the user is.
bool says_who(std::string_view name) {
  return name == "USER" || name == "LOGNAME" || name == "HOME" || name == "SHELL";
}

}  // namespace

std::vector<std::string> build_environment(const program_file& file, const char* const* inherited,
                                           const environment_list& more) {
  std::vector<std::string> list;
  if (file.environment.clean) {
    set(list, "PATH", kUsualPath);
  } else {
    for (; *inherited != nullptr; ++inherited) {
      if (!concerns_launcher(name_of(*inherited))) list.emplace_back(*inherited);
    }
    if (variable_of(list, "PATH").empty()) set(list, "PATH", kUsualPath);
  }
  const identity& who = file.program.who;
  if (!who.name.empty()) {
    set(list, "USER", who.name);
    set(list, "LOGNAME", who.name);
    set(list, "HOME", who.home);
    set(list, "SHELL", who.shell.empty() ? "/bin/sh" : who.shell);
  } else if (who.uid) {
    // Nothing says what he is called and where he lives, and the supervisor's own is wrong.
    std::erase_if(list, [](const std::string& one) { return says_who(name_of(one)); });
  }
  for (const auto& [name, value] : file.environment.variables)
    set(list, name, value);
  for (const auto& [name, value] : more)
    set(list, name, value);
  return list;
}

std::string variable_of(const std::vector<std::string>& environment, std::string_view name) {
  const auto known = std::find_if(environment.begin(), environment.end(),
                                  [&](const std::string& one) { return name_of(one) == name; });
  return known == environment.end() ? "" : known->substr(name.size() + 1);
}

}  // namespace runner
