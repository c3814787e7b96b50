#!/usr/bin/env bash
# The main job: installs the dependencies, builds the library and the akudoa
# program, simulates the example scene (two sources in the 20-40 kHz band)
# for the 128-microphone array, images it, and prints where the heat-map
# PNGs and the peak CSV are.
#   scripts/run-demo.sh [OUTPUT_DIR]     default out/demo
# Steering tables are cached in build/cache/ (AKUDOA_CACHE_DIR): the first
# run builds them, later runs load them.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-deps.sh

out=${1:-out/demo}
cmake -S . -B build -DAKUDOA_BUILD_TOOLS=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target akudoa_cli
export AKUDOA_CACHE_DIR="$PWD/build/cache/"
mkdir -p "$out" "$AKUDOA_CACHE_DIR"

config=examples/camera-128.ini
scene=examples/scene-two-sources.ini
build/tools/akudoa simulate --config "$config" --scene "$scene" --out "$out/recording.wav"
echo
build/tools/akudoa image --config "$config" --in "$out/recording.wav" --out "$out" --every 5 --colorbar
echo
echo "heat maps:  $(ls "$out"/frame_*.png | head -1) ... ($(ls "$out"/frame_*.png | wc -l) PNGs)"
echo "peak CSV:   $out/peaks.csv"
echo "raw maps:   $out/heatmap.f32 (shape in $out/heatmap.txt)"
echo "recording:  $out/recording.wav"
