#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# `pip install .` from a copy of the checkout, offline, with the system's
# setuptools and pybind11 (no build isolation, no index), into a directory of
# its own; then the installed package finds a camera under the launcher.
# Usage: pip.sh SOURCE_DIR QKCAM_VIRTUAL
set -euo pipefail
source=$(cd "$1" && pwd)
launcher=$(realpath "$2")
work=$(mktemp -d /tmp/qkcam-pip.XXXXXX)
trap 'rm -rf "$work"' EXIT
tar -C "$source" --exclude='./build*' --exclude='./.git' -cf - . | (mkdir "$work/src" && tar -C "$work/src" -xf -)
/usr/bin/python3 -m pip install --no-build-isolation --no-index --no-deps --target "$work/site" "$work/src" \
  > "$work/pip.log" 2>&1 || { tail -40 "$work/pip.log"; exit 1; }
run=$(cd "$work" && PYTHONPATH="$work/site" "$launcher" --camera SX160:QKPIP001 -- /usr/bin/python3 -c \
  'import qkcam; print(qkcam.__file__); print(qkcam.__version__, *(c.serial for c in qkcam.cameras()))')
grep -q "^$work/site/qkcam/__init__.py$" <<< "$run"
grep -q "^[0-9.]* QKPIP001$" <<< "$run"
echo "pip install from the checkout: $(tail -1 <<< "$run")"
