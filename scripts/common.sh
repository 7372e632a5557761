# What the scripts of this folder share; to be sourced by bash.
# shellcheck shell=bash

# shellcheck disable=SC2034 # for the scripts
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

die() {
  echo "${0##*/}: $*" >&2
  exit 2
}

require_root() {
  [ "$(id -u)" -eq 0 ] || die "must run as root: it makes network namespaces"
}

is_installed() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# install_missing PACKAGE...: installs those Debian packages that are missing and says which.
install_missing() {
  local missing=() package
  command -v dpkg-query >/dev/null || die "not a Debian system; needed are the programs of: $*"
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "Installing missing Debian packages with apt-get: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  # One at a time: apt-get does not wait for another one that reads the lists.
  mkdir -p /run/lock
  exec 9>/run/lock/tarnwick-install
  flock 9
  run_quietly apt-get -o DPkg::Lock::Timeout=300 update -qq
  run_quietly apt-get -o DPkg::Lock::Timeout=300 install -qq -y --no-install-recommends "${missing[@]}"
  exec 9>&-
}

# run_quietly COMMAND...: shows its output only when it fails.
run_quietly() {
  local output
  if ! output=$("$@" 2>&1); then
    printf '%s\n' "$output" >&2
    die "failed: $*"
  fi
}
