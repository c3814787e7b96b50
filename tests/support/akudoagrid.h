#ifndef AKUDOA_TESTS_SUPPORT_AKUDOAGRID_H
#define AKUDOA_TESTS_SUPPORT_AKUDOAGRID_H

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "support/akudoasim.h"

// Where the planar grids look, for placing simulated sources at pixels, and
// the small pieces every imaging test needs.

// Owns a matrix made by create_mat2d_fp32.
struct AkuMatFree {
    void operator()(mat2d_fp32* m) const { destroy_mat2d_fp32(m); }
};
using AkuMat = std::unique_ptr<mat2d_fp32, AkuMatFree>;
inline AkuMat akumat(int rows, int cols, float fill = 0.0f)
{
    AkuMat m(create_mat2d_fp32(rows, cols));
    for (int r = 0; r < rows; ++r)
        std::fill(m->data[r], m->data[r] + cols, fill);
    return m;
}

// Camera record for engine tests: 96 kHz, the given image and frame size,
// 43 degree angle domain, thetaXY factor 1.3, section factor 10, focus 1 m,
// half-turn orientation, unit sensitivity and the built-in layout of mics.
StCamCfg akugrid_camera(int mics, int rows, int cols, int frameSize = 1024, int program = 3);

// Plane wave that the steering-table engine images at unrotated pixel
// (k, c). The grid steers toward in-plane direction u of the pixel with
// phases e^{+j psi}; against FFT spectra e^{-j w t} that focuses a source at
// the opposite in-plane direction, which the default half turn
// (rotate_mode 1) puts back at the pixel.
AkuSimSource akugrid_far_source(const StCamCfg& cfg, int k, int c, uint32_t seed = 1);

// Point on the focal grid of unrotated pixel (k, c) at the focus distance.
AkuSimSource akugrid_near_source(const StCamCfg& cfg, int k, int c, uint32_t seed = 1);

// Source the gridding engine images at pixel (r, c) with rotate_mode 1 (its
// unturned image): a plane wave, or a point at distance dist when dist > 0.
// The grid spans spatial frequencies up to half the grid, scaled to the
// sine of alpha (from the angle domain and the array radius).
AkuSimSource akugrid_gridding_source(const StCamCfg& cfg, int r, int c, double dist = 0.0, uint32_t seed = 1);

// Heat-map cell (r, col) at which unrotated pixel (k, c) appears.
void akugrid_rotated(int mode, int rows, int cols, int k, int c, int& r, int& col);

// Array-ordered frame of the sources on the configuration's microphones.
AkuMat akugrid_frame(const StCamCfg& cfg, const std::vector<AkuSimSource>& sources);

// Capture frame (128 rows, the layout's channels in array order) from an
// array-ordered frame, through the configuration's micIndex. Caller destroys.
mat2d_fp32* akugrid_capture_frame(const StCamCfg& cfg, const mat2d_fp32* arrayFrame);

// Steering rows then scales of a steering-table engine, as cached; a file's
// bytes.
std::vector<uint8_t> akugrid_table_bytes(const AKUDoaQuantizeV3Private& d);
std::vector<uint8_t> akugrid_file_bytes(const std::string& path);

// Index of the largest entry of a map (row-major) and its row and column.
void akugrid_argmax(const mat2d_fp32* map, int& row, int& col);
int akugrid_argmax(const std::vector<float>& v);
std::vector<float> akugrid_flat(const mat2d_fp32* m);

// An engine on its own copy of a configuration, with a band list and a
// rectangular window (the simulator's frames are exact DFT bins); the image
// is rows x cols of the configuration divided by `divisor`.
template <class Engine>
struct AkuImager {
    StCamCfg cfg;
    Engine engine;
    AKUDoaFreqBands bands;
    int rows, cols;
    explicit AkuImager(const StCamCfg& c, int lowHz = 20000, int highHz = 40000, int divisor = 1)
        : cfg(c), bands(c.frameSize, c.sampleFrequency), rows(c.imageResolutionRow / divisor), cols(c.imageResolutionCol / divisor)
    {
        engine.doaInit(&cfg);
        setWindow(1.0f);
        bands.updateBands({{lowHz, highHz, 1}});
    }
    void setWindow(float value)
    {
        std::vector<float> w(static_cast<size_t>(cfg.frameSize), value);
        engine.updateFFTWin(w.data(), cfg.frameSize);
    }
    std::vector<float> image(mat2d_fp32* frame, float fill = 0.0f)
    {
        AkuMat heat = akumat(rows, cols, fill);
        engine.executeDOA(frame, bands, heat.get());
        return akugrid_flat(heat.get());
    }
};

#endif
