#!/usr/bin/env bash
# Installs the build and test dependencies that are missing; a quick no-op
# when everything is already present.
set -euo pipefail

debian_packages=(
  build-essential cmake pkg-config git
  libhidapi-dev libtinyxml-dev libspdlog-dev libfmt-dev
  libsdbus-c++-dev libsystemd-dev dbus libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-dev
  libgnustep-base-dev
)
brew_packages=(cmake pkg-config hidapi tinyxml spdlog fmt cli11 googletest google-benchmark)

install_debian() {
  local missing=()
  for p in "${debian_packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "bootstrap: installing ${missing[*]}"
  local sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

install_brew() {
  local missing=()
  for p in "${brew_packages[@]}"; do
    brew list --versions "$p" >/dev/null 2>&1 || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  brew install "${missing[@]}"
}

case "$(uname -s)" in
  Linux) install_debian ;;
  Darwin) install_brew ;;
  *) echo "bootstrap: unsupported system $(uname -s)" >&2; exit 1 ;;
esac
