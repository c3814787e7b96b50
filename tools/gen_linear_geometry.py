#!/usr/bin/env python3
"""Writes the geometry file of the example linear array (examples/linear-2x64.bin).

Two parallel rows of 64 microphones at a 4.5 mm pitch, 128 capture channels:
array positions 0..63 are the first row (group 0 of the line engines), 64..127
the second row (group 1), each row numbered along the line from its negative
end. Both rows have the same positions along the line, so both line maps show
the same angles.

File layout (raw, little-endian, no header), channel_num entries each:
  int32  micIndex   capture channel feeding the position (identity here)
  float  micPhi     radians; 0, so that micRadius is the position along x
  float  micRadius  signed position along the line, metres, centred on 0

Run from the repository root:
    python3 tools/gen_linear_geometry.py examples/linear-2x64.bin
"""

import struct
import sys

ROWS = 2
PER_ROW = 64
PITCH = 0.0045  # metres: below half a wavelength at 40 kHz for +-80 degrees


def positions():
    centre = (PER_ROW - 1) / 2.0
    return [(m - centre) * PITCH for _ in range(ROWS) for m in range(PER_ROW)]


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "examples/linear-2x64.bin"
    x = positions()
    n = len(x)
    data = struct.pack("<%di" % n, *range(n))
    data += struct.pack("<%df" % n, *([0.0] * n))
    data += struct.pack("<%df" % n, *x)
    with open(out, "wb") as f:
        f.write(data)


if __name__ == "__main__":
    main()
