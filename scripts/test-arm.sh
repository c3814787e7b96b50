#!/usr/bin/env bash
# Cross-builds the AArch64 variant in build-arm/ and runs the emulated subset
# under qemu-aarch64: every vector-kernel-versus-reference suite (names
# starting with Simd), the four-lane math, the small end-to-end imaging
# case (EndToEndSmall) and one frame of each planar engine (PlanarFrame). The subset runs twice: on a processor model with the
# Arm dot-product instructions and on one without, so both run-time paths
# are exercised. On each model the steering tables of a few small
# configurations must come out byte-identical to those of the native x86_64
# build (built in build/, as scripts/test.sh does).
#   scripts/test-arm.sh               set up (scripts/setup-deps.sh --arm), build, run
#   scripts/test-arm.sh -R Foo ...    extra arguments go to both ctest runs
# Environment: AKUDOA_WERROR=ON|OFF (default OFF), AKUDOA_ARM_CPUS (the
# models to run on, default "neoverse-n1 cortex-a72").
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-deps.sh --arm

dir=build-arm
jobs=$(nproc)
cpus=${AKUDOA_ARM_CPUS:-"neoverse-n1 cortex-a72"}
# gtest names are Suite.Case, or Instance/Suite.Case/N when parameterised.
subset='^([A-Za-z0-9_]+/)?(Simd[A-Za-z0-9_]*|EndToEndSmall|PlanarFrame)\.'

cmake -S . -B "$dir" \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-aarch64.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DAKUDOA_BUILD_TESTS=ON -DAKUDOA_BUILD_TOOLS=OFF -DAKUDOA_BUILD_BENCH=OFF \
  -DAKUDOA_WERROR="${AKUDOA_WERROR:-OFF}" >/dev/null
cmake --build "$dir" -j"$jobs"

# A suite that does not exist yet matches nothing and is not an error; the
# count shows how much of the subset actually ran.
count=$(ctest --test-dir "$dir" -N -R "$subset" | sed -n 's/^Total Tests: //p')
echo "test-arm: ${count:-0} tests in the emulated subset"

# Asimd dot product: bit 20 of AT_HWCAP. The loader reports the processor's
# capabilities, which proves that the model really has (or lacks) the feature.
hwcap_dotprod() {
  local cap
  cap=$(QEMU_CPU=$1 qemu-aarch64 /lib/ld-linux-aarch64.so.1 --list-diagnostics \
        | sed -n 's/^dl_hwcap=//p')
  if (( (${cap:-0} >> 20) & 1 )); then echo yes; else echo no; fi
}

# The native writer of the steering tables, with scripts/test.sh's settings.
cmake -S . -B build -DAKUDOA_BUILD_TESTS=ON -DAKUDOA_WERROR="${AKUDOA_WERROR:-OFF}" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" --target akudoa_steering_tables >/dev/null
tables=$dir/tables
rm -rf "$tables" && mkdir -p "$tables"
build/tests/akudoa_steering_tables "$tables/x86_64" >/dev/null

seen=""
for cpu in $cpus; do
  dp=$(hwcap_dotprod "$cpu")
  seen+=" $dp"
  echo "== AArch64 subset on qemu -cpu $cpu (dot product: $dp)"
  start=$SECONDS
  QEMU_CPU=$cpu ctest --test-dir "$dir" --output-on-failure -j"$jobs" \
    --no-tests=ignore -R "$subset" "$@"
  QEMU_CPU=$cpu qemu-aarch64 "$dir/tests/akudoa_steering_tables" "$tables/aarch64-$cpu" >/dev/null
  if ! diff -r "$tables/x86_64" "$tables/aarch64-$cpu"; then
    echo "test-arm: steering tables of the x86_64 and AArch64 ($cpu) builds differ" >&2
    exit 1
  fi
  echo "test-arm: steering tables byte-identical to x86_64 ($(find "$tables/x86_64" -type f | wc -l) files)"
  echo "test-arm: $cpu took $((SECONDS - start)) s"
done

# The default models must cover both dot-product paths.
if [ -z "${AKUDOA_ARM_CPUS:-}" ] && ! { [[ $seen == *yes* ]] && [[ $seen == *no* ]]; }; then
  echo "test-arm: the processor models did not cover both dot-product paths:$seen" >&2
  exit 1
fi
