#ifndef AKUDOA_TESTS_SUPPORT_AKUDOASIM_H
#define AKUDOA_TESTS_SUPPORT_AKUDOASIM_H

#include <cstdint>
#include <vector>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/base/akudoamatrix.h"

// Microphone array signal simulator for the imaging tests.
//
// Sources are band-limited periodic signals: every DFT bin k of an N-point
// frame whose frequency k*fs/N lies in [lowHz, highHz] carries the given
// amplitude and a pseudo-random phase (seeded, so frames are reproducible).
// Each microphone receives each source with an exact fractional delay,
// applied as a phase e^{-j w tau} per bin, and, for a point source, 1/r
// spreading. The frame is the inverse DFT in double precision, so a
// rectangular analysis window sees exact bins (no leakage).
//
// Geometry: metres, microphones in the plane z = 0, the scene at z > 0.
struct AkuSimSource {
    bool pointSource = false; // false: plane wave from direction (x, y, z)
    double x = 0.0, y = 0.0, z = 1.0; // direction (any length) or position
    double amplitude = 1.0;   // per-bin amplitude (at 1 m for a point source)
    double lowHz = 20000.0;
    double highHz = 40000.0;
    uint32_t seed = 1;
};

constexpr double kAkuSimSoundSpeed = 340.0; // m/s, the planar engines' value

struct AkuSimArray {
    std::vector<double> x, y, z; // metres
    int count() const { return static_cast<int>(x.size()); }
};

// Array positions of the first M entries of the configuration's geometry
// (micRadius * cos/sin micPhi, z = 0).
AkuSimArray akusim_array_from_cfg(const StCamCfg& cfg);

// Fills micIndex/micPhi/micRadius with a built-in layout: 8 and 16 are
// rings (0.025 m and 0.06 m), 128 the seven-ring layout, 36/48/64 its
// subsets, as the kernel does. Returns false for other counts.
bool akusim_fill_layout(StCamCfg& cfg, int micCount);

// M x N frame (one row per microphone, in array order). Caller destroys it.
mat2d_fp32* akusim_frame(const AkuSimArray& array, const std::vector<AkuSimSource>& sources, int sampleRate,
                         int frameSize);

#endif
