#include "AKUDoa/base/akudoamath.h"

#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "AKUDoa/base/akudoamath_p.h"

namespace {

uint32_t bitsOf(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

float floatOf(uint32_t u)
{
    float f;
    std::memcpy(&f, &u, sizeof f);
    return f;
}

// AArch64 FMAX/FMIN: NaN wins; -0 orders below +0.
float neonMax(float a, float b)
{
    if (std::isnan(a) || std::isnan(b))
        return a + b;
    if (a == b)
        return floatOf(bitsOf(a) & bitsOf(b));
    return a > b ? a : b;
}

float neonMin(float a, float b)
{
    if (std::isnan(a) || std::isnan(b))
        return a + b;
    if (a == b)
        return floatOf(bitsOf(a) | bitsOf(b));
    return a < b ? a : b;
}

// AArch64 FCVTZS/FCVTZU: toward zero, saturating, NaN -> 0.
int32_t neonCvtS32(float a)
{
    if (std::isnan(a))
        return 0;
    if (a >= 2147483648.0f)
        return INT32_MAX;
    if (a <= -2147483648.0f)
        return INT32_MIN;
    return static_cast<int32_t>(a);
}

uint32_t neonCvtU32(float a)
{
    if (std::isnan(a) || a <= 0.0f)
        return 0;
    if (a >= 4294967296.0f)
        return UINT32_MAX;
    return static_cast<uint32_t>(a);
}

#if defined(AKUDOA_CHECK_SIMD)
// Lanes agree when their bits are equal or both are NaN (payloads may differ).
void checkLanes(const char* what, float32x4_t x, float32x4_t got, float (*ref)(float))
{
    float in[4], out[4];
    vst1q_f32(in, x);
    vst1q_f32(out, got);
    for (int i = 0; i < 4; ++i) {
        const float want = ref(in[i]);
        if (bitsOf(want) != bitsOf(out[i]) && !(std::isnan(want) && std::isnan(out[i]))) {
            std::fprintf(stderr, "akudoa check: %s(%a) vector %a, reference %a\n", what, in[i], out[i], want);
            std::abort();
        }
    }
}
#endif

} // namespace

float log_ps_ref(float x)
{
    using namespace akudoa_math_const;
    const bool invalid = x <= 0.0f;
    x = neonMax(x, 0.0f);

    // Arithmetic shift of the raw bits (the sign bit only survives for -NaN).
    int32_t ei = static_cast<int32_t>(bitsOf(x)) >> 23;
    ei = static_cast<int32_t>(static_cast<uint32_t>(ei) - 127u);
    const float m = floatOf((bitsOf(x) & 0x807fffffu) | 0x3f000000u);
    float e = static_cast<float>(ei) + 1.0f;

    const bool below = m < kSqrtHalf;
    x = m - 1.0f;
    e = e - (below ? 1.0f : 0.0f);
    x = x + (below ? m : 0.0f);

    const float z = x * x;
    float y = kLogP0;
    for (int k = 0; k < 8; ++k)
        y = y * x + kLogP[k];
    y = y * x * z;

    y = y + e * kLn2Lo;
    y = y - z * 0.5f;
    x = x + y;
    x = x + e * kLn2Hi;
    return invalid ? floatOf(0xffffffffu) : x;
}

float exp_ps_ref(float x)
{
    using namespace akudoa_math_const;
    x = neonMin(x, kExpHi);
    x = neonMax(x, kExpLo);

    float fx = std::fmaf(x, kLog2e, 0.5f);
    const float t = static_cast<float>(neonCvtS32(fx));
    fx = t > fx ? t - 1.0f : t - 0.0f;

    x = x - fx * kLn2Hi;
    x = x - fx * kLn2Lo;

    const float z = x * x;
    float y = kExpP0;
    for (int k = 0; k < 5; ++k)
        y = y * x + kExpP[k];
    y = y * z + x;
    y = y + 1.0f;

    const uint32_t n = (static_cast<uint32_t>(neonCvtS32(fx)) + 127u) << 23;
    return y * floatOf(n);
}

void sincos_ps_ref(float x, float* s, float* c)
{
    using namespace akudoa_math_const;
    bool signSin = x < 0.0f;
    x = std::fabs(x);

    float y = x * kFourOverPi;
    uint32_t j = neonCvtU32(y);
    j = (j + 1u) & ~1u;
    y = static_cast<float>(j);

    const bool polyMask = (j & 2u) != 0;
    signSin = signSin != ((j & 4u) != 0);
    const bool cosPositive = ((j - 2u) & 4u) != 0;

    x = std::fmaf(y, kMinusDP1, x);
    x = std::fmaf(y, kMinusDP2, x);
    x = std::fmaf(y, kMinusDP3, x);

    const float z = x * x;
    float cp = kCosP0;
    cp = cp * z + kCosP1;
    cp = cp * z + kCosP2;
    cp = cp * z * z;
    cp = cp - 0.5f * z;
    cp = cp + 1.0f;

    float sp = kSinP0;
    sp = sp * z + kSinP1;
    sp = sp * z + kSinP2;
    sp = sp * z * x + x;

    const float sinVal = polyMask ? cp : sp;
    const float cosVal = polyMask ? sp : cp;
    *s = signSin ? -sinVal : sinVal;
    *c = cosPositive ? cosVal : -cosVal;
}

float sin_ps_ref(float x)
{
    float s, c;
    sincos_ps_ref(x, &s, &c);
    return s;
}

float cos_ps_ref(float x)
{
    float s, c;
    sincos_ps_ref(x, &s, &c);
    return c;
}

float32x4_t log_ps(float32x4_t x)
{
    const float32x4_t r = log_ps_inl(x);
#if defined(AKUDOA_CHECK_SIMD)
    checkLanes("log_ps", x, r, log_ps_ref);
#endif
    return r;
}

float32x4_t exp_ps(float32x4_t x)
{
    const float32x4_t r = exp_ps_inl(x);
#if defined(AKUDOA_CHECK_SIMD)
    checkLanes("exp_ps", x, r, exp_ps_ref);
#endif
    return r;
}

void sincos_ps(float32x4_t x, float32x4_t* s, float32x4_t* c)
{
    sincos_ps_inl(x, s, c);
#if defined(AKUDOA_CHECK_SIMD)
    checkLanes("sin_ps", x, *s, sin_ps_ref);
    checkLanes("cos_ps", x, *c, cos_ps_ref);
#endif
}

float32x4_t sin_ps(float32x4_t x)
{
    float32x4_t s, c;
    sincos_ps(x, &s, &c);
    return s;
}

float32x4_t cos_ps(float32x4_t x)
{
    float32x4_t s, c;
    sincos_ps(x, &s, &c);
    return c;
}
