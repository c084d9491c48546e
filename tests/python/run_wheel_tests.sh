#!/usr/bin/env bash
# Builds the wheel from a CMake build tree, installs it into a fresh virtual
# environment of Debian's interpreter (with its numpy and matplotlib), and runs
# the package's tests there, outside the source tree.
#   run_wheel_tests.sh SOURCE_DIR BUILD_DIR FRFCAM_CLI
set -euo pipefail
src=$(cd "$1" && pwd)
build=$(cd "$2" && pwd)
cli=$(cd "$(dirname "$3")" && pwd)/$(basename "$3")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ! FRFCAM_BUILD_DIR="$build" /usr/bin/python3 -m build --wheel --no-isolation \
    --outdir "$work/dist" "$src/python" >"$work/build.log" 2>&1; then
  cat "$work/build.log"
  exit 1
fi
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
"$work/venv/bin/python" -m pip install --no-index --quiet "$work"/dist/frfcam-*.whl
cd "$work"
FRFCAM_CLI="$cli" MPLBACKEND=Agg "$work/venv/bin/python" -m unittest discover -s "$src/tests/python" -t "$src/tests/python" -v
