# The Python module against the command-line tool, physics and misuse.
import logging
import os
import subprocess
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import akudoa

CONFIG = """[AudioRecordingParam]
sample_frequency = 96000
channel_num = {mics}
frame_size = {frame}
[AcousticCameraParam]
image_resolution_row = 16
image_resolution_col = 12
image_correction_flag = 0
distanceMeasure_en = false
[DOA]
DOAVersionSelect = {program}
extra_en = false
"""


@pytest.fixture(scope="module")
def tmp(tmp_path_factory):
    d = tmp_path_factory.mktemp("akudoa")
    os.environ["AKUDOA_CACHE_DIR"] = f"{d}/cache/"
    return d


def config(tmp, mics=64, frame=256, program=3):
    path = tmp / f"cam-{mics}-{frame}-{program}.ini"
    path.write_text(CONFIG.format(mics=mics, frame=frame, program=program))
    return str(path)


def plane_wave(k, direction, seed=1):
    # One capture frame of a 20-40 kHz plane wave arriving from direction.
    channel, xy = k.microphones
    u = np.asarray(direction, float) / np.linalg.norm(direction)
    tau = -(xy @ u[:2]) / 340.0  # microphones nearer the source hear it first
    f = np.fft.rfftfreq(k.frame_size, 1.0 / k.sample_rate)
    phase = np.exp(2j * np.pi * np.random.default_rng(seed).random(f.size))
    spec = ((f >= 20000) & (f <= 40000)) * phase * np.exp(-2j * np.pi * f * tau[:, None])
    frame = np.zeros((k.needed_channels, k.frame_size), np.float32)
    frame[channel] = np.fft.irfft(spec, k.frame_size)
    return frame


peak = lambda m: np.unravel_index(np.argmax(m), m.shape)  # noqa: E731


def test_plane_wave_matches_the_command_line_tool(tmp):
    cfg = config(tmp)
    k = akudoa.Kernel(cfg)
    directions = [(0, 0, 1), (0.4, 0, 1), (0, 0.4, 1)]  # broadside, toward +x, toward +y
    frames = [plane_wave(k, d) for d in directions]
    maps = np.stack([k.heat_map(f) for f in frames])
    (r0, c0), (rx, cx), (ry, cy) = [peak(m) for m in maps]
    # Broadside at the centre; rows grow with x and columns with y (rotate_mode 1).
    assert abs(r0 - (k.rows - 1) / 2) <= 1 and abs(c0 - (k.cols - 1) / 2) <= 1
    assert rx > r0 + 1 and abs(cx - c0) <= 1 and cy > c0 + 1 and abs(ry - r0) <= 1
    if "AKUDOA_CLI" not in os.environ:
        pytest.skip("built without the command-line tool")
    raw = np.concatenate(frames, axis=1)[k.microphones[0]].T.astype("<f4").tobytes()  # one channel per microphone
    subprocess.run([os.environ["AKUDOA_CLI"], "image", "--config", cfg, "--in", "-", "--out", str(tmp / "out"),
                    "--cache", str(tmp / "cache")], input=raw, check=True, capture_output=True)
    cli = np.fromfile(tmp / "out" / "heatmap.f32", "<f4").reshape(maps.shape)
    assert np.array_equal(maps, cli)


def test_target_calls_see_the_source(tmp):
    k = akudoa.Kernel(config(tmp))
    frame = plane_wave(k, (0.4, 0.2, 1))
    m = k.heat_map(frame)
    (r, c), far = peak(m), (k.rows - 1 - peak(m)[0], k.cols - 1 - peak(m)[1])
    m2, low, high, power = k.heat_map_with_range(frame, r, c)
    assert np.array_equal(m, m2) and 0 <= low <= high and power > 0
    assert np.array_equal(k.heat_map(np.hstack([frame, 0 * frame])[:, :k.frame_size]), m)  # row stride
    assert k.target_power(r, c) > k.target_power(*far)
    at, away = [[k.pickup(frame, *cell) for _ in range(3)][-1] for cell in ((r, c), far)]  # it lags
    assert at.shape == (k.frame_size,) and np.sum(at**2) > 2 * np.sum(away**2)


def test_misuse_raises(tmp):
    k = akudoa.Kernel(config(tmp))
    good = plane_wave(k, (0, 0, 1))
    closed = akudoa.Kernel(config(tmp))
    closed.close()
    cases = [
        (TypeError, lambda: k.heat_map(good.astype(np.float64))),
        (TypeError, lambda: k.heat_map(good.astype(">f4"))),
        (ValueError, lambda: k.heat_map(np.ascontiguousarray(good.T))),
        (ValueError, lambda: k.heat_map(good[:100])),
        (ValueError, lambda: k.heat_map(np.repeat(good, 2, axis=1)[:, ::2])),
        (IndexError, lambda: k.heat_map(good, channel=k.channels)),
        (IndexError, lambda: k.target_power(k.rows, 0)),
        (IndexError, lambda: k.pickup(good, 0, -1)),
        (RuntimeError, lambda: k.extra_map(good)),
        (RuntimeError, lambda: k.line_maps(good)),
        (RuntimeError, lambda: k.heat_map_with_distance(good, 0, 0)),
        (ValueError, lambda: setattr(k, "program", 5)),
        (ValueError, lambda: setattr(k, "doa_window", (15, 0, 0, 0))),
        (ValueError, lambda: setattr(k, "focus_distance", -1.0)),
        (RuntimeError, lambda: closed.heat_map(good)),
        (ValueError, lambda: akudoa.Kernel(str(tmp / "missing.ini"))),
        (ValueError, lambda: akudoa.Kernel(config(tmp, mics=20))),  # the library would end the process
        (ValueError, lambda: akudoa.Kernel(config(tmp, frame=2048))),
    ]
    for i, (error, call) in enumerate(cases):
        with pytest.raises(error):
            call()
        assert np.array_equal(k.heat_map(good), k.heat_map(good)), i  # still usable


def test_two_threads_with_two_kernels_match_sequential(tmp):
    kernels = [akudoa.Kernel(config(tmp, program=p)) for p in (3, 4)]
    frames = [plane_wave(kernels[0], (0.1 * i, -0.2, 1), seed=i) for i in range(6)]
    alone = [[k.heat_map(f) for f in frames] for k in kernels]
    with ThreadPoolExecutor(2) as pool:  # one thread per kernel, both at once
        together = list(pool.map(lambda k: [k.heat_map(f) for f in frames], kernels))
    assert all(np.array_equal(a, b) for i in range(2) for a, b in zip(alone[i], together[i]))


def test_log_reaches_python_logging_only_when_enabled(tmp, caplog):
    caplog.set_level(logging.INFO, logger="akudoa")
    for on in (False, True):
        caplog.clear()
        akudoa.enable_logging(on)
        akudoa.Kernel(config(tmp))
        assert ("doakernel init: start" in [r.getMessage().strip() for r in caplog.records]) == on
    akudoa.enable_logging(False)
