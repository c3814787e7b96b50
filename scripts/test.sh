#!/usr/bin/env bash
# Sets up dependencies, builds the library and its tests, runs every test.
#   scripts/test.sh                    Release-type build in build/
#   AKUDOA_SANITIZE=1 scripts/test.sh  address + undefined sanitizers in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-deps.sh

jobs=$(nproc)
if [ "${AKUDOA_SANITIZE:-0}" = 1 ]; then
  dir=build-asan
  extra=(-DAKUDOA_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo)
else
  dir=build
  extra=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
fi
cmake -S . -B "$dir" -DAKUDOA_BUILD_TESTS=ON -DAKUDOA_WERROR="${AKUDOA_WERROR:-OFF}" "${extra[@]}" >/dev/null
cmake --build "$dir" -j"$jobs"
ctest --test-dir "$dir" --output-on-failure -j"$jobs" "$@"
