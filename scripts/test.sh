#!/usr/bin/env bash
# Sets up dependencies, builds the library and its tests, runs every test.
#   scripts/test.sh                    Release-type build in build/
#   AKUDOA_SANITIZE=1 scripts/test.sh  address + undefined sanitizers in build-asan/
#   AKUDOA_SANITIZE=thread scripts/test.sh -R Concurren
#                                      thread sanitizer in build-tsan/ (OpenMP
#                                      runs one thread: its runtime is not
#                                      instrumented, so only the library's own
#                                      threads are checked)
#   AKUDOA_CHECK_SIMD=1 scripts/test.sh
#                                      check mode in build-check/: every vector
#                                      kernel also runs its scalar reference
#                                      and aborts on any disagreement
# Extra arguments go to ctest.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-deps.sh

jobs=$(nproc)
if [ "${AKUDOA_SANITIZE:-0}" = 1 ]; then
  dir=build-asan
  extra=(-DAKUDOA_SANITIZE=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo)
elif [ "${AKUDOA_SANITIZE:-0}" = thread ]; then
  dir=build-tsan
  extra=(-DAKUDOA_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAKUDOA_BUILD_TOOLS=OFF)
  export OMP_NUM_THREADS=1 TSAN_OPTIONS="halt_on_error=1 ${TSAN_OPTIONS:-}"
elif [ "${AKUDOA_CHECK_SIMD:-0}" = 1 ]; then
  dir=build-check
  extra=(-DAKUDOA_CHECK_SIMD=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo)
else
  dir=build
  # The Python module only here: plain python cannot load a sanitized library.
  # The benchmark program is built (not run) so that it keeps compiling.
  extra=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DAKUDOA_BUILD_PYTHON=ON -DAKUDOA_BUILD_BENCH=ON)
fi
cmake -S . -B "$dir" -DAKUDOA_BUILD_TESTS=ON -DAKUDOA_WERROR="${AKUDOA_WERROR:-OFF}" "${extra[@]}" >/dev/null
cmake --build "$dir" -j"$jobs"
ctest --test-dir "$dir" --output-on-failure -j"$jobs" "$@"
