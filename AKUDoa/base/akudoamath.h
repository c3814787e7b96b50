#ifndef AKUDOA_BASE_AKUDOAMATH_H
#define AKUDOA_BASE_AKUDOAMATH_H

// Four-lane single-precision log, exp, sin and cos (Cephes polynomials).
// Branch-free: special cases are handled with lane masks, and only the ones
// documented per function are treated. Results are bit-identical on AArch64,
// x86_64 and the scalar build.

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoaneon.h"

// Natural logarithm. Lanes <= 0 (0 included) give a NaN with all bits set;
// NaN, +inf and subnormal inputs are not treated and give finite nonsense.
AKUDOA_EXPORT float32x4_t log_ps(float32x4_t x);

// e^x for x clamped to [-88.37626, 88.37626]: the upper clamp gives +inf,
// the lower one 0. NaN propagates.
AKUDOA_EXPORT float32x4_t exp_ps(float32x4_t x);

// Sine and cosine in radians, both written. Accurate for |x| up to a few
// thousand; no further reduction is done beyond that.
AKUDOA_EXPORT void sincos_ps(float32x4_t x, float32x4_t* s, float32x4_t* c);
AKUDOA_EXPORT float32x4_t sin_ps(float32x4_t x);
AKUDOA_EXPORT float32x4_t cos_ps(float32x4_t x);

#endif
