#ifndef AKUDOA_AKUGAUSSIANPROCESSREGRESSION_P_H
#define AKUDOA_AKUGAUSSIANPROCESSREGRESSION_P_H

#include <vector>

#include "AKUDoa/base/akudoamatrix.h"
#include "AKUDoa/base/akudoaneon.h"

// Kernels of AKUGaussianProcessRegression. s is the squared kernel length
// (cells^2), c the constant added to each value.
class AKUGaussianProcessRegressionPrivate {
public:
    // exp(-0.5 * ((p.x - q.x)^2 + (p.y - q.y)^2) / s) + c, integer
    // differences, standard single-precision exponential.
    static float kernel(fpoint2d p, fpoint2d q, float s, float c);
    // Per lane exp_ps(-0.5 / s * ((X - q.x)^2 + (Y - q.y)^2)) + c; X holds
    // row indices, Y column indices, both as floats.
    static float32x4_t kernel(float32x4_t X, float32x4_t Y, fpoint2d q, float s, float c);
};

// One-lane rendering of predit2 with the scalar twin of exp_ps: bit-identical
// to the four-lane path (the test oracle and the check-mode reference).
void gpr_predit2_ref(const std::vector<fpoint2d>& pts, float* out, int rows, int cols, float l, float c);

#endif
