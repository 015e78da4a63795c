#!/bin/sh
# SPDX-License-Identifier: MIT
# Times a from-scratch build of the knowledge base in a fresh build directory:
# the generator, then generating and compiling the twenty model records with
# the vocabulary and the table. CXX picks the compiler, JOBS the parallelism.
set -eu
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
jobs=${JOBS:-2}

cmake -S "$src" -B "$build" -G Ninja -DQK_TESTS=OFF -DQK_BENCH=OFF \
    ${CXX:+-DCMAKE_CXX_COMPILER=$CXX} >/dev/null
objects=$(ninja -C "$build" -t targets all |
          sed -n 's#^\(CMakeFiles/qkcam_obj.dir/models/[^:]*\.o\):.*#\1#p')

t0=$(date +%s.%N)
ninja -C "$build" -j"$jobs" qk_modelgen >/dev/null
t1=$(date +%s.%N)
# shellcheck disable=SC2086
ninja -C "$build" -j"$jobs" $objects >/dev/null
t2=$(date +%s.%N)

echo "$t0 $t1 $t2 $jobs" | awk '{ printf "generator %.1f s, records generated and compiled %.1f s, models/ in all %.1f s (-j%d)\n", $2 - $1, $3 - $2, $3 - $1, $4 }'
