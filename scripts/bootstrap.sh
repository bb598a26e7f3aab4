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
  libindi-dev indi-bin iproute2
  python3 python3-pytest
  libcpp-httplib-dev nlohmann-json3-dev chromium
)
brew_packages=(cmake pkg-config hidapi spdlog fmt cli11 googletest google-benchmark cpp-httplib nlohmann-json)

# Homebrew has disabled its TinyXML (1.x) formula. Where it cannot install
# it, TinyXML's own release is built as a static library under this prefix,
# which the build finds through CMAKE_PREFIX_PATH.
tinyxml_prefix=${ZOR_TINYXML_PREFIX:-$HOME/.local/tinyxml}
tinyxml_release=https://downloads.sourceforge.net/project/tinyxml/tinyxml/2.6.2/tinyxml_2_6_2.tar.gz
tinyxml_sha256=15bdfdcec58a7da30adc87ac2b078e4417dbe5392f3afb719f9ba6d062645593

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
  [ ${#missing[@]} -eq 0 ] || brew install "${missing[@]}"
  brew list --versions tinyxml >/dev/null 2>&1 || brew install tinyxml 2>/dev/null || build_tinyxml
}

build_tinyxml() {
  [ -f "$tinyxml_prefix/lib/libtinyxml.a" ] && return 0
  echo "bootstrap: building TinyXML 2.6.2 in $tinyxml_prefix"
  local work
  work=$(mktemp -d)
  curl -fsSL "$tinyxml_release" -o "$work/tinyxml.tar.gz"
  echo "$tinyxml_sha256  $work/tinyxml.tar.gz" | shasum -a 256 -c - >/dev/null
  tar -xzf "$work/tinyxml.tar.gz" -C "$work"
  mkdir -p "$tinyxml_prefix/lib" "$tinyxml_prefix/include"
  local unit
  for unit in tinyxml tinyxmlparser tinyxmlerror tinystr; do
    c++ -O2 -fPIC -DTIXML_USE_STL -c "$work/tinyxml/$unit.cpp" -o "$work/$unit.o"
  done
  ar rcs "$tinyxml_prefix/lib/libtinyxml.a" "$work"/*.o
  cp "$work/tinyxml/tinyxml.h" "$work/tinyxml/tinystr.h" "$tinyxml_prefix/include/"
  rm -rf "$work"
}

case "$(uname -s)" in
  Linux) install_debian ;;
  Darwin) install_brew ;;
  *) echo "bootstrap: unsupported system $(uname -s)" >&2; exit 1 ;;
esac
