#!/usr/bin/env bash
# Cross-builds the tool and its in-process tests for arm64 with Debian's cross compiler, runs the
# tool under qemu, then the tests through ctest. The simulated headset and the tests that run
# inside it need this machine's sandbox and are not cross-built; the arm64 tool runs inside the
# host's simulated headset instead, built in HOST_BUILD_DIR (reused when already configured).
#   build-arm64.sh [--build-only] [BUILD_DIR [HOST_BUILD_DIR [CMAKE_OPTION...]]]
#       (default build/arm64 build/arm64-host); --build-only stops after the cross build, and a
#       later call without it reuses that build
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build_only=
if [[ "${1-}" == --build-only ]]; then
  build_only=1
  shift
fi
dir=${1:-build/arm64}
host_dir=${2:-$dir-host}
cmake_options=("${@:3}")

sudo=()
[[ $(id -u) -eq 0 ]] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  "${sudo[@]}" dpkg --add-architecture arm64
  fresh_architecture=1
fi
packages=(
  cmake make g++-aarch64-linux-gnu qemu-user libcli11-dev
  libgtest-dev:arm64 android-liblog-dev:arm64 android-libbase-dev:arm64 libselinux1-dev:arm64
)
missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
if [[ ${#missing[@]} -gt 0 || -n ${fresh_architecture-} ]]; then
  echo "Installing: ${missing[*]}" >&2
  "${sudo[@]}" apt-get update -qq
  "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

echo "== build $dir (aarch64)"
cmake -S "$root" -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEMBERLINE_WERROR=ON -DEMBERLINE_BENCH=OFF \
  "${cmake_options[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
[[ -z $build_only ]] || exit 0

# The tool runs as cmake/aarch64-linux-gnu.cmake runs the tests.
tool=(qemu-aarch64 -L / -E LD_LIBRARY_PATH=/usr/lib/aarch64-linux-gnu/android "$dir/emberline")
if ! readelf -h "$dir/emberline" | grep -q 'AArch64'; then
  echo "$dir/emberline is not an arm64 binary" >&2
  exit 1
fi

# The schema starts every plugin, and the plugins read the headset's nodes.
echo "== simulated headset for the emulated tool ($host_dir)"
bash scripts/setup.sh
[[ -f $host_dir/CMakeCache.txt ]] ||
  cmake -S "$root" -B "$host_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEMBERLINE_BENCH=OFF >/dev/null
cmake --build "$host_dir" -j "$(nproc)" --target emberline-sim
sim=$host_dir/sim/emberline-sim

echo "== emberline --schema --all (aarch64, emulated, in the simulated headset)"
"$sim" run --frozen -- "${tool[@]}" --schema --all
echo "== emberline --no-power --example -t 2 -c (aarch64, emulated)"
"${tool[@]}" --no-power --example -t 2 -c

echo "== tests (aarch64, emulated)"
cd "$dir"
# qemu-user does not run a fork made by a forked child reliably (the grandchild can hang or
# vanish), and the exit guard's test is exactly that; the native builds run it.
ctest --output-on-failure --timeout 300 -j "$(nproc)" -E '^ExitGuard\.'

