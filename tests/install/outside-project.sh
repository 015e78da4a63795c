#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs the build into a temporary prefix, moves the prefix (both package
# files must be relocatable), then builds host programs from there as an
# outside project would: the examples with find_package(qkcam), the smallest
# one with pkg-config, and runs them under the installed qkcam-virtual.
# Usage: outside-project.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d /tmp/qkcam-install.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/staged" > "$work/install.log"
mv "$work/staged" "$work/prefix"
prefix=$work/prefix

# Only the headers a host needs, under include/qkcam/ with their folders.
test -f "$prefix/include/qkcam/DevicePTP/DevicePTP.h"
test -f "$prefix/include/qkcam/usb/UsbLib_libusb.h"
test -f "$prefix/include/qkcam/rig/Rig.h"
test ! -e "$prefix/include/DevicePTP"
test ! -e "$prefix/include/qkcam/DevicePTP/PreviewKernels.h"
test ! -e "$prefix/include/qkcam/sim"
test -x "$prefix/bin/qkcam" && test -x "$prefix/bin/qkcam-list" && test -x "$prefix/bin/qkcam-virtual"
test -f "$prefix/lib/udev/rules.d/60-qkcam.rules"

# CMake package.
cmake -S "$source/examples" -B "$work/examples" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  > "$work/examples.log" 2>&1 || { cat "$work/examples.log"; exit 1; }
cmake --build "$work/examples" > "$work/examples-build.log" 2>&1 || { cat "$work/examples-build.log"; exit 1; }

# pkg-config.
libdir=$(dirname "$(find "$prefix" -name qkcam.pc)")
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs qkcam)
case "$flags" in *"$prefix"*) ;; *) echo "pkg-config flags miss the moved prefix: $flags"; exit 1 ;; esac
g++ -std=c++17 -o "$work/first_camera_pc" "$source/examples/first_camera.cpp" $flags

export LD_LIBRARY_PATH="$(dirname "$libdir")"
for program in "$work/examples/first_camera" "$work/first_camera_pc"; do
  out=$("$prefix/bin/qkcam-virtual" --camera SX160:QKI00001 -- "$program")
  grep -q "^qkcam [0-9]" <<< "$out" || { echo "$program: $out"; exit 1; }
  grep -q "^QKI00001 " <<< "$out" || { echo "$program: $out"; exit 1; }
done

# No build or source path in what was installed.
for path in "$source" "$(cd "$build" && pwd)"; do
  if grep -rlF "$path" "$prefix"; then
    echo "installed files hold the path $path"
    exit 1
  fi
done
echo "installed, moved and used: $(find "$prefix" -type f | wc -l) files"
