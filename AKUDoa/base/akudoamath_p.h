#ifndef AKUDOA_BASE_AKUDOAMATH_P_H
#define AKUDOA_BASE_AKUDOAMATH_P_H

// Inline bodies of the four-lane math, for callers inside the library that
// want them inlined into their loops (steering tables, pickup, regression),
// and the one-lane scalar renderings of the same steps: the test oracle and
// the check-mode reference. Every fused multiply-add is written out; every
// other product is rounded before it is added (-ffp-contract=off).

#include "AKUDoa/base/akudoaneon.h"

namespace akudoa_math_const {
// log
constexpr float kSqrtHalf = 0.70710677f;
constexpr float kLogP0 = 0.070376836f;
constexpr float kLogP[8] = {-0.1151461f, 0.116769984f, -0.12420141f, 0.14249323f,
                            -0.16668057f, 0.20000714f, -0.24999994f, 0.3333333f};
// ln 2 split in two parts for the Cody-Waite reconstruction/reduction.
constexpr float kLn2Lo = -0.00021219444f;
constexpr float kLn2Hi = 0.693359375f;
// exp
constexpr float kExpHi = 88.37626f;
constexpr float kExpLo = -88.37626f;
constexpr float kLog2e = 1.442695f;
constexpr float kExpP0 = 0.00019875691f;
constexpr float kExpP[5] = {0.0013981999f, 0.008333452f, 0.041665796f, 0.16666666f, 0.5f};
// sin/cos: pi/4 split in three parts for the extended-precision reduction.
constexpr float kFourOverPi = 1.2732395f;
constexpr float kMinusDP1 = -0.78515625f;
constexpr float kMinusDP2 = -0.00024187565f;
constexpr float kMinusDP3 = -3.774895e-8f;
constexpr float kCosP0 = 2.4433157e-5f;
constexpr float kCosP1 = -0.0013887316f;
constexpr float kCosP2 = 0.041666646f;
constexpr float kSinP0 = -0.00019515296f;
constexpr float kSinP1 = 0.008332161f;
constexpr float kSinP2 = -0.16666655f;
} // namespace akudoa_math_const

static inline float32x4_t log_ps_inl(float32x4_t x)
{
    using namespace akudoa_math_const;
    const float32x4_t one = vdupq_n_f32(1.0f);
    const uint32x4_t invalid = vcleq_f32(x, vdupq_n_f32(0.0f));
    x = vmaxq_f32(x, vdupq_n_f32(0.0f));

    int32x4_t ei = vshrq_n_s32(vreinterpretq_s32_f32(x), 23);
    ei = vsubq_s32(ei, vdupq_n_s32(127));
    // Mantissa scaled into [0.5, 1).
    uint32x4_t mb = vandq_u32(vreinterpretq_u32_f32(x), vdupq_n_u32(0x807fffffu));
    mb = vorrq_u32(mb, vdupq_n_u32(0x3f000000u));
    const float32x4_t m = vreinterpretq_f32_u32(mb);
    float32x4_t e = vaddq_f32(vcvtq_f32_s32(ei), one);

    // Below sqrt(1/2) use 2m - 1 and one less in the exponent.
    const uint32x4_t mask = vcltq_f32(m, vdupq_n_f32(kSqrtHalf));
    const float32x4_t tmp = vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(m), mask));
    x = vsubq_f32(m, one);
    e = vsubq_f32(e, vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(one), mask)));
    x = vaddq_f32(x, tmp);

    const float32x4_t z = vmulq_f32(x, x);
    float32x4_t y = vdupq_n_f32(kLogP0);
    for (int k = 0; k < 8; ++k)
        y = vaddq_f32(vmulq_f32(y, x), vdupq_n_f32(kLogP[k]));
    y = vmulq_f32(vmulq_f32(y, x), z);

    y = vaddq_f32(y, vmulq_f32(e, vdupq_n_f32(kLn2Lo)));
    y = vsubq_f32(y, vmulq_f32(z, vdupq_n_f32(0.5f)));
    x = vaddq_f32(x, y);
    x = vaddq_f32(x, vmulq_f32(e, vdupq_n_f32(kLn2Hi)));
    return vreinterpretq_f32_u32(vorrq_u32(vreinterpretq_u32_f32(x), invalid));
}

static inline float32x4_t exp_ps_inl(float32x4_t x)
{
    using namespace akudoa_math_const;
    const float32x4_t one = vdupq_n_f32(1.0f);
    x = vminq_f32(x, vdupq_n_f32(kExpHi));
    x = vmaxq_f32(x, vdupq_n_f32(kExpLo));

    // fx = floor(x*log2(e) + 0.5), built from a truncation toward zero.
    float32x4_t fx = vfmaq_f32(vdupq_n_f32(0.5f), x, vdupq_n_f32(kLog2e));
    const float32x4_t t = vcvtq_f32_s32(vcvtq_s32_f32(fx));
    const uint32x4_t gt = vcgtq_f32(t, fx);
    fx = vsubq_f32(t, vreinterpretq_f32_u32(vandq_u32(gt, vreinterpretq_u32_f32(one))));

    x = vsubq_f32(x, vmulq_f32(fx, vdupq_n_f32(kLn2Hi)));
    x = vsubq_f32(x, vmulq_f32(fx, vdupq_n_f32(kLn2Lo)));

    const float32x4_t z = vmulq_f32(x, x);
    float32x4_t y = vdupq_n_f32(kExpP0);
    for (int k = 0; k < 5; ++k)
        y = vaddq_f32(vmulq_f32(y, x), vdupq_n_f32(kExpP[k]));
    y = vaddq_f32(vmulq_f32(y, z), x);
    y = vaddq_f32(y, one);

    // 2^fx through the exponent field; fx = 128 gives +inf, fx = -127 gives 0.
    int32x4_t n = vaddq_s32(vcvtq_s32_f32(fx), vdupq_n_s32(127));
    n = vshlq_n_s32(n, 23);
    return vmulq_f32(y, vreinterpretq_f32_s32(n));
}

static inline void sincos_ps_inl(float32x4_t x, float32x4_t* ysin, float32x4_t* ycos)
{
    using namespace akudoa_math_const;
    uint32x4_t signSin = vcltq_f32(x, vdupq_n_f32(0.0f));
    x = vabsq_f32(x);

    // Octant index j, rounded up to even: x - j*pi/4 lies in [-pi/4, pi/4].
    float32x4_t y = vmulq_f32(x, vdupq_n_f32(kFourOverPi));
    uint32x4_t j = vcvtq_u32_f32(y);
    j = vaddq_u32(j, vdupq_n_u32(1));
    j = vandq_u32(j, vdupq_n_u32(~1u));
    y = vcvtq_f32_u32(j);

    const uint32x4_t polyMask = vtstq_u32(j, vdupq_n_u32(2));
    signSin = veorq_u32(signSin, vtstq_u32(j, vdupq_n_u32(4)));
    const uint32x4_t cosPositive = vtstq_u32(vsubq_u32(j, vdupq_n_u32(2)), vdupq_n_u32(4));

    x = vfmaq_f32(x, y, vdupq_n_f32(kMinusDP1));
    x = vfmaq_f32(x, y, vdupq_n_f32(kMinusDP2));
    x = vfmaq_f32(x, y, vdupq_n_f32(kMinusDP3));

    const float32x4_t z = vmulq_f32(x, x);
    float32x4_t c = vdupq_n_f32(kCosP0);
    c = vaddq_f32(vmulq_f32(c, z), vdupq_n_f32(kCosP1));
    c = vaddq_f32(vmulq_f32(c, z), vdupq_n_f32(kCosP2));
    c = vmulq_f32(vmulq_f32(c, z), z);
    c = vsubq_f32(c, vmulq_f32(vdupq_n_f32(0.5f), z));
    c = vaddq_f32(c, vdupq_n_f32(1.0f));

    float32x4_t s = vdupq_n_f32(kSinP0);
    s = vaddq_f32(vmulq_f32(s, z), vdupq_n_f32(kSinP1));
    s = vaddq_f32(vmulq_f32(s, z), vdupq_n_f32(kSinP2));
    s = vaddq_f32(vmulq_f32(vmulq_f32(s, z), x), x);

    const float32x4_t sinVal = vbslq_f32(polyMask, c, s);
    const float32x4_t cosVal = vbslq_f32(polyMask, s, c);
    *ysin = vbslq_f32(signSin, vnegq_f32(sinVal), sinVal);
    *ycos = vbslq_f32(cosPositive, cosVal, vnegq_f32(cosVal));
}

static inline float32x4_t sin_ps_inl(float32x4_t x)
{
    float32x4_t s, c;
    sincos_ps_inl(x, &s, &c);
    return s;
}

static inline float32x4_t cos_ps_inl(float32x4_t x)
{
    float32x4_t s, c;
    sincos_ps_inl(x, &s, &c);
    return c;
}

// One-lane renderings of the same steps, written with plain scalar code
// (AArch64 rules for max, conversions and integer wrap-around spelt out).
float log_ps_ref(float x);
float exp_ps_ref(float x);
void sincos_ps_ref(float x, float* s, float* c);
float sin_ps_ref(float x);
float cos_ps_ref(float x);

#endif
