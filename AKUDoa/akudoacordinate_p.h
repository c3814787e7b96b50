#ifndef AKUDOA_AKUDOACORDINATE_P_H
#define AKUDOA_AKUDOACORDINATE_P_H

#include "AKUDoa/akudoacordinate.h"
#include "AKUDoa/base/akudoamatrix.h"

// Coordinate-correction arithmetic behind the kernel's resampling. Kept apart
// from the kernel so that it can be tested without building an engine.
//
// A table holds rows * cols pairs (u, v): the fractional raw-map row and
// column that output cell (i, j) reads, at index 2 * (i * cols + j).

// Plain affine rule (every program but 4 and 54). factor is the section
// factor as a float; each "product times factor plus sum" is one fused
// multiply-add so the table is identical on every platform.
void akudoa_cordinate_generate(const CordinateMat& m, float factor, int rows, int cols, float* table);

// Affine rule followed by the radial lens correction of the gridding
// programs (4 and 54), with the calibration constants of the two supported
// image formats (32 x 24 and 64 x 48).
void akudoa_cordinate_generate_v4(const CordinateMat& m, float factor, int rows, int cols, float* table);

// Resamples raw (rows x cols) into out (same size) through table. Outside
// the raw map the weights are kept as computed (edge values scaled by
// 1 + overshoot), not clamped to the edge.
void akudoa_cordinate_resample(const float* table, const mat2d_fp32* raw, mat2d_fp32* out);

// Maps one target point (x = row, y = column) with the plain affine rule,
// rounding halves away from zero; val is kept.
fpoint2d akudoa_cordinate_point(const CordinateMat& m, float factor, fpoint2d p);

#endif
