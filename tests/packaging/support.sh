# shellcheck shell=bash
# What the checks of the packages share, to be sourced. They run in a system of their own, as root.
set -euo pipefail

home=/var/lib/keelmond

fail() {
  printf 'FAILED: %s\n' "$*" >&2
  exit 1
}

# expect WHAT COMMAND...: COMMAND has to succeed.
expect() {
  local what=$1
  shift
  "$@" >/tmp/said 2>&1 || {
    cat /tmp/said >&2
    fail "$what ($*)"
  }
}

# refuse WHAT COMMAND...: COMMAND has to fail.
refuse() {
  local what=$1
  shift
  ! "$@" >/tmp/said 2>&1 || fail "$what ($*)"
}

# await WHAT COMMAND...: COMMAND has to succeed within a minute.
await() {
  local what=$1 tries=0
  shift
  until "$@" >/tmp/said 2>&1; do
    ((++tries < 600)) || {
      cat /tmp/said >&2
      fail "$what ($*)"
    }
    sleep 0.1
  done
}

equal() {
  [[ $1 == "$2" ]]
}

# The number of processes of the program $1. One that forks has another for a moment.
count() {
  pgrep -xc "$1" || true
}

runs_times() {
  equal "$(count "$1")" "$2"
}

# Whether the program $1 has the variable $2 in its environment: NAME, or NAME=VALUE.
has_variable() {
  grep -qzE "^$2(=|\$)" "/proc/$(pgrep -ox "$1")/environ"
}

# As operating.md says: a directory of the user keelmond's with the example in it.
make_site() {
  install -d -o keelmond -g keelmond -m 0750 "$home/$1"
  runuser -u keelmond -- keelmondctl -C "$home/$1" init --example >/dev/null
}

# The daemon's process id in the site $1.
daemon_of() {
  keelmondctl -C "$home/$1" status --json | tr -d '\n ' |
    sed -n 's/.*"daemon":{[^}]*"pid":\([0-9]*\).*/\1/p'
}
