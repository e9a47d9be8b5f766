#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, if any are missing.
set -euo pipefail

packages=(
  cmake make g++ pkg-config clang-format
  libcli11-dev libgtest-dev libgmock-dev libbenchmark-dev
  android-liblog-dev android-libbase-dev libselinux1-dev
  bubblewrap
  protobuf-compiler
  python3-matplotlib python3-numpy
  postgresql python3-psycopg2
  sysstat
  clang libclang-rt-14-dev
)

# A library may also be installed for another architecture (scripts/build-arm64.sh adds arm64):
# only this machine's own build, or an architecture-free one, counts.
native=$(dpkg --print-architecture)
missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Architecture} ${Status}\n' "$package" 2>/dev/null |
    grep -qE "^($native|all) install ok installed$" || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}" >&2
sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
