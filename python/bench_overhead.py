#!/usr/bin/env python3
"""Per-frame cost of the Python call over the C++ call it makes.

    PYTHONPATH=build/python python3 python/bench_overhead.py [CAMERA.ini] [ROUNDS]

Default: examples/camera-128.ini (128 microphones, 64 x 48, 1024-sample
frames). Two figures:
- inside: each heat_map call's wall time minus the time the same call spent
  inside readHeatMap (measured by the module around that call), so both
  sides see the same load;
- apart: process CPU time per frame of heat_map against readHeatMap looped in
  C++ over the same frame, rounds alternating, fastest round of each (with one
  OpenMP thread unless OMP_NUM_THREADS says otherwise).
"""
import os
import sys
import time

os.environ.setdefault("OMP_NUM_THREADS", "1")
import numpy as np  # noqa: E402

import akudoa  # noqa: E402

config = sys.argv[1] if len(sys.argv) > 1 else "examples/camera-128.ini"
rounds = int(sys.argv[2]) if len(sys.argv) > 2 else 15
per_round = 20
k = akudoa.Kernel(config)
frame = np.random.default_rng(1).standard_normal((k.needed_channels, k.frame_size)).astype(np.float32)
k.heat_map(frame)  # warm-up: first touch of the engine's buffers
cxx, py, inside, frame_time = [], [], [], []
for _ in range(rounds):
    t0 = time.process_time()
    k._cxx_frame_seconds(frame, per_round)
    t1 = time.process_time()
    for _ in range(per_round):
        k.heat_map(frame)
    t2 = time.process_time()
    cxx.append((t1 - t0) / per_round)
    py.append((t2 - t1) / per_round)
    for _ in range(per_round):
        s0, w0 = k._kernel_seconds, time.perf_counter()
        k.heat_map(frame)
        w = time.perf_counter() - w0
        inside.append(w - (k._kernel_seconds - s0))
        frame_time.append(w)
ft = np.median(frame_time)
print(f"{config}: {k.channels} microphones, {k.rows} x {k.cols}, frames of {k.frame_size}, "
      f"OMP_NUM_THREADS={os.environ['OMP_NUM_THREADS']}")
print(f"inside: binding overhead median {np.median(inside) * 1e6:.1f} us, 90th percentile "
      f"{np.percentile(inside, 90) * 1e6:.1f} us per frame of {ft * 1e3:.2f} ms "
      f"= {100 * np.median(inside) / ft:.3f} % of the frame time")
c, p = min(cxx), min(py)
print(f"apart:  CPU per frame C++ {c * 1e3:.3f} ms, Python {p * 1e3:.3f} ms, "
      f"difference {100 * (p - c) / c:+.2f} % (noise of a shared machine included)")
