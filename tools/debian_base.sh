# shellcheck shell=bash
# A Debian to try packages in. Sourced, not run.
#
# The system itself is made once and never changed: whoever uses it works on a layer in memory, with
# process ids, mounts, a network and control groups of its own, and all of that ends with the first
# process in it.
#
#   root=...
#   make_base
#   in_base [OPTION of systemd-nspawn]... -- COMMAND...
#
# When that was started in the background, as $boot:
#
#   inside COMMAND...           runs a command there
#   await WHAT COMMAND...       waits until it succeeds, or calls `fail WHAT`
#   kill "$(keeper)"            tells the first process there to end
#
# What cannot be tried on this machine:
#
#   left_out WHAT               says so, and fails where all has to be tried

# shellcheck source=tools/archive.sh
# shellcheck disable=SC2154
source "$root/tools/archive.sh"

base=$root/build/package/base

# OpenRC is only put there, to be installed where it is tried: it changes what maintainer scripts
# do.
make_base() {
  [[ ! -e $base.done ]] || return 0
  local archive
  archive=$(debian_archive)
  rm -rf --one-file-system "$base"
  mkdir -p "$base"
  echo "Making a Debian 12 in $base"
  debootstrap --variant=minbase --include=systemd-sysv,procps,logrotate,mawk \
    bookworm "$base" "$archive" >"$base.log" 2>&1 || {
    tail "$base.log" >&2
    echo "debootstrap failed. What it says is in $base.log" >&2
    return 1
  }
  mkdir "$base/openrc"
  (cd "$base/openrc" && apt-get download -qq openrc libeinfo1 librc1 insserv) >>"$base.log" 2>&1
  # Nothing here has to survive a crash of the machine.
  echo force-unsafe-io >"$base/etc/dpkg/dpkg.cfg.d/host"
  touch "$base.done"
}

# systemd-nspawn puts groups below the one that it runs in, and leaves them there.
enter_own_groups() {
  local top
  groups=()
  for top in /sys/fs/cgroup /sys/fs/cgroup/unified /sys/fs/cgroup/systemd; do
    [[ -w $top/cgroup.procs ]] || continue
    mkdir "$top/keelmond_check.$BASHPID"
    groups+=("$top/keelmond_check.$BASHPID")
    echo $BASHPID >"${groups[-1]}/cgroup.procs"
  done
}

leave_own_groups() {
  local group
  for group in "${groups[@]}"; do
    echo $BASHPID >"$(dirname "$group")/cgroup.procs"
    find "$group" -depth -type d -exec rmdir {} \; 2>/dev/null || true
  done
}

in_base() (
  enter_own_groups
  trap leave_own_groups EXIT
  trap 'exit 1' INT TERM HUP
  nspawn=(systemd-nspawn --quiet --directory="$base" --machine="keelmond-$BASHPID"
    --volatile=overlay --keep-unit --register=no --private-network --link-journal=no --console=pipe
    --bind-ro="$root/tests/packaging:/checks" --bind-ro="$root/build/package/debs:/packages")
  while [[ $1 != -- ]]; do
    nspawn+=("$1")
    shift
  done
  "${nspawn[@]}" "${@:2}" </dev/null
)

# Whoever sets KEELMOND_CHECK_ALL has to know that everything was tried.
left_out() {
  echo "Left out: $*" >&2
  [[ -z ${KEELMOND_CHECK_ALL-} ]]
}

# Whether this machine lets us have such systems.
can_enter_base() {
  ((EUID == 0)) && in_base -- /bin/true
}

child_of() {
  ps -o pid= --ppid "$1" | head -n 1 | tr -d ' '
}

keeper() {
  local process=$boot
  until [[ -z $process || $(ps -o comm= -p "$process") == systemd-nspawn ]]; do
    process=$(child_of "$process")
  done
  echo "$process"
}

inside() {
  nsenter -t "$(child_of "$(keeper)")" -a \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "$@"
}

await() {
  local what=$1 tries=0
  shift
  until "$@" >/dev/null 2>&1; do
    if ((++tries == 600)) || ! kill -0 "$boot" 2>/dev/null; then
      fail "$what"
    fi
    sleep 0.1
  done
}
