#!/usr/bin/env bash
# Fails when a file includes a header of a layer above its own, or names a header other than by
# its path from the source root.  check_layers.sh SRC_DIR
set -uo pipefail
src=$1
cd "$src" || exit 2

# Layers from the bottom; a file may include headers of its own layer and those below.
layer_of() {
  case $1 in
    platform/*) echo 0 ;;
    plugin.* | crash_restore.* | json/*) echo 1 ;;
    plugins/* | ar_sys_stats/*) echo 2 ;;
    emberline.* | command_line.*) echo 3 ;;
    main.cpp) echo 4 ;;
    *) echo 9 ;;
  esac
}

status=0
while IFS= read -r file; do
  mine=$(layer_of "$file")
  while IFS= read -r included; do
    if [[ ! -f $included ]]; then
      echo "$file: \"$included\" is not a path from the source root"
      status=1
    elif (($(layer_of "$included") > mine)); then
      echo "$file: includes \"$included\" from a higher layer"
      status=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.h' -o -name '*.cpp' | sed 's|^\./||' | sort)
exit $status
