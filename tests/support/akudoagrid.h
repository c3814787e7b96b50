#ifndef AKUDOA_TESTS_SUPPORT_AKUDOAGRID_H
#define AKUDOA_TESTS_SUPPORT_AKUDOAGRID_H

#include "AKUDoa/akudoacamcfg.h"
#include "support/akudoasim.h"

// Where the planar V3 grid looks, for placing simulated sources at pixels.

// Camera record for engine tests: 96 kHz, the given image and frame size,
// 43 degree angle domain, thetaXY factor 1.3, section factor 10, focus 1 m,
// half-turn orientation, unit sensitivity and the built-in layout of mics.
StCamCfg akugrid_camera(int mics, int rows, int cols, int frameSize = 1024, int program = 3);

// Plane wave that the engine images at unrotated pixel (k, c). The grid
// steers toward in-plane direction u of the pixel with phases e^{+j psi};
// against FFT spectra e^{-j w t} that focuses a source at the opposite
// in-plane direction, which the default half turn (rotate_mode 1) puts back
// at the pixel.
AkuSimSource akugrid_far_source(const StCamCfg& cfg, int k, int c, uint32_t seed = 1);

// Point on the focal grid of unrotated pixel (k, c) at the focus distance.
AkuSimSource akugrid_near_source(const StCamCfg& cfg, int k, int c, uint32_t seed = 1);

// Heat-map cell (r, col) at which unrotated pixel (k, c) appears.
void akugrid_rotated(int mode, int rows, int cols, int k, int c, int& r, int& col);

// Capture frame (128 rows, the layout's channels in array order) from an
// array-ordered frame, through the configuration's micIndex. Caller destroys.
mat2d_fp32* akugrid_capture_frame(const StCamCfg& cfg, const mat2d_fp32* arrayFrame);

// Index of the largest entry of a map (row-major) and its row and column.
void akugrid_argmax(const mat2d_fp32* map, int& row, int& col);

#endif
