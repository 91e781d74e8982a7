#include "control/completion.h"

#include "control/text/joined.h"

namespace control {
namespace {

/// What the --set of one of them can begin with.
std::vector<std::string> settings_of(const std::vector<completed_command>& commands) {
  for (const completed_command& one : commands) {
    if (!one.settings.empty()) return one.settings;
  }
  return {};
}

std::string bash_script(const std::vector<completed_command>& commands) {
  std::string names;
  std::string cases;
  for (const completed_command& one : commands) {
    names += (names.empty() ? "" : " ") + one.name;
    std::string words = "words=\"" + joined(one.options, " ") + "\"";
    if (one.takes_names) words += "; names=1";
    if (one.takes_file) words += "; files=1";
    cases += "    " + one.name + ") " + words + " ;;\n";
  }
  return R"sh(# Completion of keelmondctl for bash: eval "$(keelmondctl completion bash)"
_keelmondctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command="" words="" names="" files="" directory=() i name
  COMPREPLY=()
  if [[ $previous == -C ]]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
    return
  fi
  if [[ $previous == --set ]]; then
    compopt -o nospace 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -W ")sh" +
         joined(settings_of(commands), " ") + R"sh(" -- "$current")
    return
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      -C) directory=(-C "${COMP_WORDS[++i]}") ;;
      -*) ;;
      *) command=${command:-${COMP_WORDS[i]}} ;;
    esac
  done
  case $command in
    "") words=")sh" +
         names + R"sh( -C --help" ;;
)sh" + cases +
         R"sh(  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  # Not by compgen, which would expand what a name holds.
  [[ -z $names || $current == -* ]] || while IFS= read -r name; do
    printf -v name %q "$name"
    [[ $name != "$current"* ]] || COMPREPLY+=("$name")
  done < <(keelmondctl "${directory[@]}" names 2>/dev/null)
  [[ -z $files || $current == -* ]] ||
    mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$current")
}
complete -F _keelmondctl keelmondctl
)sh";
}

/// The text as it is written between single quotes.
std::string quoted(const std::string& text) {
  std::string out;
  for (const char c : text)
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out;
}

/// The same where ":" begins a description.
std::string without_colons(const std::string& text) {
  std::string out;
  for (const char c : text)
    out += c == ':' ? std::string("\\:") : std::string(1, c);
  return out;
}

std::string zsh_script(const std::vector<completed_command>& commands) {
  std::string list;
  std::string cases;
  for (const completed_command& one : commands) {
    list += "    '" + one.name + ":" + quoted(without_colons(one.description)) + "'\n";
    std::string body = "compadd -- " + joined(one.options, " ");
    if (one.takes_names)
      body += "; compadd -- ${(f)\"$(keelmondctl $directory names 2>/dev/null)\"}";
    if (one.takes_file) body += "; _files";
    cases += "    " + one.name + ") " + body + " ;;\n";
  }
  return R"sh(#compdef keelmondctl
# Completion of keelmondctl for zsh: keelmondctl completion zsh > a directory of $fpath/_keelmondctl
_keelmondctl() {
  local command="" i
  local -a directory commands
  commands=(
)sh" + list +
         R"sh(  )
  if [[ ${words[CURRENT-1]} == -C ]]; then
    _files -/
    return
  fi
  if [[ ${words[CURRENT-1]} == --set ]]; then
    compadd -S '' -- )sh" +
         joined(settings_of(commands), " ") + R"sh(
    return
  fi
  for ((i = 2; i < CURRENT; ++i)); do
    case ${words[i]} in
      -C) directory=(-C ${words[++i]}) ;;
      -*) ;;
      *) command=${command:-${words[i]}} ;;
    esac
  done
  case $command in
    "") _describe command commands; compadd -- -C --help ;;
)sh" + cases +
         R"sh(  esac
}
compdef _keelmondctl keelmondctl
)sh";
}

std::string fish_script(const std::vector<completed_command>& commands) {
  std::string script =
      R"sh(# Completion of keelmondctl for fish: keelmondctl completion fish | source
function __keelmondctl_command
    set -l words (commandline -opc)
    set -e words[1]
    while set -q words[1]
        switch $words[1]
            case -C
                set -e words[1]
            case '-*'
            case '*'
                echo $words[1]
                return
        end
        set -e words[1]
    end
    return 1
end
function __keelmondctl_in
    set -l command (__keelmondctl_command)
    and test "$command" = $argv[1]
end
function __keelmondctl_names
    set -l words (commandline -opc)
    set -l directory
    if set -l at (contains -i -- -C $words)
        set directory -C $words[(math $at + 1)]
    end
    keelmondctl $directory names 2>/dev/null
end
complete -c keelmondctl -f
complete -c keelmondctl -s C -x -a '(__fish_complete_directories)'
)sh";
  for (const completed_command& one : commands) {
    const std::string in_command =
        "complete -c keelmondctl -n '__keelmondctl_in " + one.name + "' ";
    script += "complete -c keelmondctl -n 'not __keelmondctl_command' -a " + one.name + " -d '" +
              quoted(one.description) + "'\n";
    for (const std::string& option : one.options) {
      const bool is_long = option.starts_with("--");
      script += in_command + (is_long ? "-l " + option.substr(2) : "-s " + option.substr(1));
      if (option == "--set") script += " -x -a '" + joined(one.settings, " ") + "'";
      script += "\n";
    }
    if (one.takes_names) script += in_command + "-a '(__keelmondctl_names)'\n";
    if (one.takes_file) script += in_command + "-F\n";
  }
  return script;
}

}  // namespace

std::string completion_script(const std::string& shell,
                              const std::vector<completed_command>& commands) {
  if (shell == "bash") return bash_script(commands);
  if (shell == "zsh") return zsh_script(commands);
  if (shell == "fish") return fish_script(commands);
  return {};
}

}  // namespace control
