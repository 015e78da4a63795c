#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds a host project that takes the engine as a subproject, once with
# add_subdirectory and once with FetchContent, from a copy of the tree in a
# directory of another name. Usage: subproject.sh SOURCE_DIR
set -euo pipefail
source=$(cd "$1" && pwd)
work=$(mktemp -d /tmp/qkcam-subproject.XXXXXX)
trap 'rm -rf "$work"' EXIT
tar -C "$source" --exclude='./build*' --exclude='./.git' -cf - . | (mkdir "$work/engine" && tar -C "$work/engine" -xf -)
for fetch in OFF ON; do
  cmake -S "$source/tests/install/subproject" -B "$work/host-$fetch" -G Ninja \
    -DQKCAM_SOURCE="$work/engine" -DHOST_USES_FETCHCONTENT=$fetch > "$work/configure-$fetch.log" 2>&1 ||
    { cat "$work/configure-$fetch.log"; exit 1; }
  cmake --build "$work/host-$fetch" -j "$(nproc)" > "$work/build-$fetch.log" 2>&1 ||
    { tail -40 "$work/build-$fetch.log"; exit 1; }
  test -x "$work/host-$fetch/host_first_camera"
  echo "subproject build (FetchContent $fetch): library and host program built"
done
