#!/usr/bin/env python3
# Images a recording frame by frame and saves its strongest heat map:
#   python3 python/examples/image_recording.py CAMERA.ini RECORDING.wav [OUT.png]
# The recording is a 32-bit float WAV with one channel per capture channel, as
# `akudoa simulate` writes it (scripts/run-demo.sh: out/demo/recording.wav).
import struct
import sys

import numpy as np

import akudoa


def read_float_wav(path):
    data, pos, channels = open(path, "rb").read(), 12, 0
    while pos + 8 <= len(data):  # RIFF chunks: 'fmt ' gives the channel count, 'data' the samples
        tag, size = data[pos:pos + 4], struct.unpack("<I", data[pos + 4:pos + 8])[0]
        if tag == b"fmt ":
            channels, rate = struct.unpack("<HI", data[pos + 10:pos + 16])
        elif tag == b"data":
            return np.frombuffer(data, "<f4", size // 4, pos + 8).reshape(-1, channels), rate
        pos += 8 + size + (size & 1)
    raise ValueError(f"{path}: no data chunk")


samples, rate = read_float_wav(sys.argv[2])
with akudoa.Kernel(sys.argv[1]) as camera:
    assert rate == camera.sample_rate, f"the recording has {rate} Hz, the camera {camera.sample_rate} Hz"
    n = camera.frame_size  # frames are (channels, samples): one transposing copy of each block
    maps = [camera.heat_map(np.ascontiguousarray(samples[i:i + n].T)) for i in range(0, len(samples) - n + 1, n)]
best = max(maps, key=np.max)
row, col = np.unravel_index(np.argmax(best), best.shape)
print(f"{len(maps)} frames of {n} samples; strongest peak at row {row}, column {col}")
try:
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    plt.imshow(best, cmap="inferno"), plt.colorbar(label="power"), plt.title(f"peak at ({row}, {col})")
    plt.savefig(sys.argv[3] if len(sys.argv) > 3 else "heatmap.png")
except ImportError:
    print("matplotlib is not installed: no PNG written")
