# shellcheck shell=bash
# Installs the Debian packages that a script of this tree finds missing. Sourced, not run.
#
#   need g++ command -v g++     # package, then the command that succeeds when it is there
#   need libgtest-dev test -e /usr/include/gtest/gtest.h
#   need clang-tidy-14/clang-tidy command -v clang-tidy-14    # the first that Debian has
#   install_needed
#
# Nothing is printed, fetched or written when everything is there.

packages_needed=()

need() {
  local package=$1
  shift
  "$@" >/dev/null 2>&1 || packages_needed+=("$package")
}

# Replaces each choice of packages by the first that apt knows, or by the last.
choose_packages() {
  local i
  for i in "${!packages_needed[@]}"; do
    while [[ ${packages_needed[i]} == */* ]] && ! is_packaged "${packages_needed[i]%%/*}"; do
      packages_needed[i]=${packages_needed[i]#*/}
    done
    packages_needed[i]=${packages_needed[i]%%/*}
  done
}

is_packaged() {
  [[ -n $(apt-cache --quiet=2 show "$1" 2>/dev/null) ]]
}

install_needed() {
  ((${#packages_needed[@]})) || return 0
  local as_root=()
  if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
      echo "Packages are missing. As root, run: apt-get install ${packages_needed[*]}" >&2
      return 1
    fi
    as_root=(sudo)
  fi
  if ! command -v apt-get >/dev/null; then
    echo "Missing, and there is no apt-get to install it with: ${packages_needed[*]}" >&2
    return 1
  fi

  "${as_root[@]}" apt-get update -qq </dev/null
  choose_packages
  echo "Installing with apt-get: ${packages_needed[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq -o Dpkg::Use-Pty=0 --no-install-recommends "${packages_needed[@]}" \
    </dev/null >/dev/null
  packages_needed=()
}

# What building the product takes.
need_build_tools() {
  need g++ command -v g++
  need cmake command -v cmake
  need ninja-build command -v ninja
  need libcli11-dev test -e /usr/include/CLI/CLI.hpp
  need nlohmann-json3-dev test -e /usr/include/nlohmann/json.hpp
}

# What the tests save the configuration with.
need_save_tools() {
  need vim command -v vim
  need emacs-nox command -v emacs
  need nano command -v nano
  need ed command -v ed
  need sed command -v sed
  need perl command -v perl
  need python3 command -v python3
  need crudini command -v crudini
  need patch command -v patch
  need diffutils command -v diff
  need rsync command -v rsync
  need git command -v git
  need tar command -v tar
  need coreutils command -v install
}
