#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (address + undefined-behaviour
# sanitizers, float-to-int conversions checked) in build-fuzz/ and runs each
# on a copy of its seed corpus for AKUDOA_FUZZ_SECONDS (default 120) seconds.
# Fails on any finding; the input that caused it is left in
# build-fuzz/findings/<target>/. Inputs found but not fixed yet wait in
# tests/fuzz/corpus/findings/<target>/; once fixed they move to
# tests/fuzz/corpus/<target>/ and stay there as regression cases.
#   scripts/fuzz.sh               every target
#   scripts/fuzz.sh init cache    only these
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-deps.sh --fuzz

seconds=${AKUDOA_FUZZ_SECONDS:-120}
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(init cache frame)

cmake -S . -B build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DAKUDOA_FUZZ=ON \
      -DAKUDOA_BUILD_TESTS=OFF -DAKUDOA_BUILD_TOOLS=OFF -DAKUDOA_WERROR="${AKUDOA_WERROR:-OFF}" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build-fuzz -j"$(nproc)"

# Leaks are not findings here: the INI dictionary lives for the process.
export ASAN_OPTIONS="detect_leaks=0:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-2}
# Each target's scratch files (INI files, cache pairs) stay in the build tree.
export TMPDIR=$PWD/build-fuzz/tmp
rm -rf "$TMPDIR"
mkdir -p "$TMPDIR"
status=0
for t in "${targets[@]}"; do
  work=build-fuzz/corpus/$t
  found=build-fuzz/findings/$t
  rm -rf "$work" "$found"
  mkdir -p "$work" "$found"
  cp tests/fuzz/corpus/"$t"/* "$work"/
  echo "== fuzz_$t for ${seconds}s"
  if ! build-fuzz/tests/fuzz/fuzz_"$t" -max_total_time="$seconds" -timeout=60 -rss_limit_mb=4096 \
       -max_len=65536 -print_final_stats=1 -artifact_prefix="$found"/ "$work" >"$found"/log 2>&1; then
    echo "fuzz_$t: finding (see $found/):"
    grep -E "ERROR|runtime error|SUMMARY" "$found"/log | head -5 || tail -20 "$found"/log
    status=1
  else
    grep -E "stat::number_of_executed_units|cov:" "$found"/log | tail -2
  fi
done
exit $status
