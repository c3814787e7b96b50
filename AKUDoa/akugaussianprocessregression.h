#ifndef AKUDOA_AKUGAUSSIANPROCESSREGRESSION_H
#define AKUDOA_AKUGAUSSIANPROCESSREGRESSION_H

// Renders a handful of weighted grid points into a smooth surface: every
// cell (i, j) receives sum_p p.val * (exp(-0.5 d^2 / l^2) + c), d being the
// grid distance from (i, j) to (p.x, p.y). No training, no solve: the point
// weights are the coefficients. Points are added in vector order with fused
// multiply-adds; cells are visited row by row.
//
// All functions are static and keep no state; they may run concurrently on
// distinct outputs.

#include <vector>

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

class AKUDOA_EXPORT AKUGaussianProcessRegression {
public:
    // l: kernel length in grid cells (squared inside); c: constant added to
    // every kernel value. An empty point list writes zeros.
    static void predit(std::vector<fpoint2d> pts, mat2d_fp32* out, float l, float c);
    // Same into a row-major rows x cols array.
    static void predit(std::vector<fpoint2d> pts, float* out, int rows, int cols, float l, float c);
    // Four cells per step with the four-lane exponential. Writes only the
    // first 4 * floor(cols / 4) columns of each row; the rest keep what out
    // held (callers use widths that are multiples of four).
    static void predit2(std::vector<fpoint2d> pts, float* out, int rows, int cols, float l, float c);
    // Finds the peaks of map strictly above 0 away from the one-cell border,
    // keeps the 8 strongest (weights set to 1 when unitWeights) and renders
    // them with predit2 into out (rows x cols, row-major). The parameters a
    // and b are accepted but multiplied by zero: threshold and kernel
    // constant are 0.
    static void predit_auto_process(float* map, float* out, int rows, int cols, float l, float a, float b,
                                    bool unitWeights);
};

#endif
