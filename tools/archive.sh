# shellcheck shell=bash
# Says where this machine gets Debian's packages from. Sourced, not run.

# Prints the address of the Debian archive that apt is configured with, the same for every suite.
debian_archive() {
  local address
  # shellcheck disable=SC2016  # for apt to replace
  address=$(apt-get indextargets --format '$(REPO_URI)' \
    'Created-By: Packages' 'Origin: Debian' 'Label: Debian' | sed -n 1p)
  if [[ -z $address ]]; then
    echo "apt knows no archive of Debian here. Is it configured with one? See: apt-get update" >&2
    return 1
  fi
  printf '%s\n' "$address"
}
