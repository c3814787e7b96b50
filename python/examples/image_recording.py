#!/usr/bin/env python3
"""Images a float WAV recording frame by frame and saves the strongest map.

    python3 python/examples/image_recording.py CAMERA.ini RECORDING.wav [OUT.png]

The recording is the one `akudoa simulate` writes (scripts/run-demo.sh puts
it in out/demo/recording.wav): 32-bit float, one channel per capture channel.
"""
import struct
import sys

import numpy as np

import akudoa


def read_float_wav(path):
    data, pos, channels, rate = open(path, "rb").read(), 12, 0, 0
    while pos + 8 <= len(data):  # RIFF chunks: 'fmt ' gives the layout, 'data' the samples
        tag, size = data[pos:pos + 4], struct.unpack("<I", data[pos + 4:pos + 8])[0]
        if tag == b"fmt ":
            _, channels, rate, _, _, bits = struct.unpack("<HHIIHH", data[pos + 8:pos + 24])
            assert bits == 32, "expected a 32-bit float WAV"
        elif tag == b"data":
            return np.frombuffer(data, "<f4", size // 4, pos + 8).reshape(-1, channels), rate
        pos += 8 + size + (size & 1)
    raise ValueError(f"{path}: no data chunk")


config, recording = sys.argv[1], sys.argv[2]
out = sys.argv[3] if len(sys.argv) > 3 else "heatmap.png"
samples, rate = read_float_wav(recording)
with akudoa.Kernel(config) as camera:
    assert rate == camera.sample_rate, f"{recording} is sampled at {rate} Hz, {config} expects {camera.sample_rate}"
    n = camera.frame_size
    maps = [camera.heat_map(np.ascontiguousarray(samples[i:i + n].T)) for i in range(0, len(samples) - n + 1, n)]
best = max(maps, key=np.max)
row, col = np.unravel_index(np.argmax(best), best.shape)
print(f"{len(maps)} frames of {n} samples; strongest peak at row {row}, column {col}")
try:
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
except ImportError:
    sys.exit("matplotlib is not installed: no PNG written")
plt.imshow(best, cmap="inferno")
plt.colorbar(label="power")
plt.title(f"{recording}: peak at ({row}, {col})")
plt.savefig(out, dpi=100)
print(f"wrote {out}")
