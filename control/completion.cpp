#include "control/completion.h"

namespace control {
namespace {

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : " ") + word;
  return text;
}

std::string bash_script(const std::vector<completed_command>& commands) {
  std::string names;
  std::string cases;
  for (const completed_command& one : commands) {
    names += (names.empty() ? "" : " ") + one.name;
    std::string words = "words=\"" + joined(one.options) + "\"";
    if (one.takes_names) words += "; names=1";
    if (one.takes_file) words += "; files=1";
    cases += "    " + one.name + ") " + words + " ;;\n";
  }
  return R"sh(# Completion of keelmondctl for bash: eval "$(keelmondctl completion bash)"
_keelmondctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command="" words="" names="" files="" directory=() i
  COMPREPLY=()
  if [[ $previous == -C ]]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
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
  [[ -z $names || $current == -* ]] ||
    words+=" $(keelmondctl "${directory[@]}" names 2>/dev/null)"
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  [[ -z $files || $current == -* ]] ||
    mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- "$current")
}
complete -F _keelmondctl keelmondctl
)sh";
}

/// In single quotes, and for zsh with ":" escaped.
std::string quoted(const std::string& text) {
  std::string out;
  for (const char c : text)
    out += c == '\'' ? std::string("'\\''") : c == ':' ? std::string("\\:") : std::string(1, c);
  return out;
}

std::string zsh_script(const std::vector<completed_command>& commands) {
  std::string list;
  std::string cases;
  for (const completed_command& one : commands) {
    list += "    '" + one.name + ":" + quoted(one.description) + "'\n";
    std::string body = "compadd -- " + joined(one.options);
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
      "# Completion of keelmondctl for fish: keelmondctl completion fish | source\n"
      "complete -c keelmondctl -f\n"
      "complete -c keelmondctl -s C -x -a '(__fish_complete_directories)'\n";
  for (const completed_command& one : commands) {
    const std::string in_command =
        "complete -c keelmondctl -n '__fish_seen_subcommand_from " + one.name + "' ";
    script += "complete -c keelmondctl -n __fish_use_subcommand -a " + one.name + " -d '" +
              quoted(one.description) + "'\n";
    for (const std::string& option : one.options) {
      const bool is_long = option.starts_with("--");
      script += in_command + (is_long ? "-l " + option.substr(2) : "-s " + option.substr(1)) + "\n";
    }
    if (one.takes_names) script += in_command + "-a '(keelmondctl names 2>/dev/null)'\n";
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
