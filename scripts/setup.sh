#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, if any are missing.
set -euo pipefail

packages=(
  cmake make g++ pkg-config clang-format
  libcli11-dev libgtest-dev libgmock-dev libbenchmark-dev
  android-liblog-dev android-libbase-dev libselinux1-dev
  bubblewrap
  python3-matplotlib python3-numpy
  sysstat
)

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing: ${missing[*]}" >&2
sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
