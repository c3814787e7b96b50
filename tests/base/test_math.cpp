// Four-lane math: documented special values, bit-for-bit agreement with the
// one-lane references, accuracy against double precision, and the NEON
// semantics of the portability shims the math relies on.

#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <random>
#include <vector>

#include "AKUDoa/base/akudoamath.h"
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

struct Lanes
{
    float v[4];
};

Lanes lanesOf(float32x4_t x)
{
    Lanes l;
    vst1q_f32(l.v, x);
    return l;
}

float32x4_t vec(float a, float b, float c, float d)
{
    // Read through volatile so that the compiler cannot evaluate a test's
    // expression at compile time: GCC folds a constant vaddvq_f32 left to
    // right on AArch64, not in the pairwise order of the instruction.
    volatile float in[4] = {a, b, c, d};
    const float v[4] = {in[0], in[1], in[2], in[3]};
    return vld1q_f32(v);
}

uint32_t ulane(uint32x4_t x, int i)
{
    uint32_t v[4];
    vst1q_u32(v, x);
    return v[i];
}

int32_t slane(int32x4_t x, int i)
{
    int32_t v[4];
    vst1q_s32(v, x);
    return v[i];
}

// Size of one unit in the last place of the float nearest to d.
double ulpOf(double d)
{
    d = std::fabs(d);
    if (d < FLT_MIN)
        return std::ldexp(1.0, -149);
    int e;
    std::frexp(d, &e);
    return std::ldexp(1.0, e - 24);
}

double ulpError(float got, double want)
{
    return std::fabs(static_cast<double>(got) - want) / ulpOf(want);
}

// Equal bits, or NaN on both sides (payloads are not part of the contract).
::testing::AssertionResult sameBits(float got, float want, float x)
{
    if (bitsOf(got) == bitsOf(want) || (std::isnan(got) && std::isnan(want)))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "x = " << x << ": vector " << got << ", reference " << want;
}

const float kPi = 3.14159265358979f;

// Arguments for the agreement sweeps: the special values the functions meet
// (clamps, zeros, signs, subnormals, infinities, NaN), dense grids over the
// working range and random bit patterns over every float.
std::vector<float> sweepArgs(float lo, float hi, size_t grid)
{
    std::vector<float> a = {0.0f, -0.0f, 1.0f, -1.0f, 0.5f, 2.0f, FLT_MIN, -FLT_MIN, FLT_MAX, -FLT_MAX,
                            floatOf(1u), floatOf(0x80000001u), floatOf(0x007fffffu),
                            std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN(), 88.37626f, -88.37626f, 88.3763f, -88.3763f,
                            100.0f, -100.0f, 0.70710677f, 0.7071068f, kPi / 4, kPi / 2, kPi, 2 * kPi, -kPi,
                            4096.0f, -4096.0f, 8192.0f, 2147483648.0f, 4294967296.0f, 1e10f, -1e10f};
    for (size_t i = 0; i < grid; ++i)
        a.push_back(lo + (hi - lo) * static_cast<float>(i) / static_cast<float>(grid - 1));
    std::mt19937 rng(20240611u);
    for (size_t i = 0; i < grid; ++i)
        a.push_back(floatOf(static_cast<uint32_t>(rng())));
    while (a.size() % 4)
        a.push_back(0.0f);
    return a;
}

template <class Vec, class Ref>
void expectAgreement(const std::vector<float>& args, Vec vecFn, Ref refFn)
{
    size_t failures = 0;
    for (size_t i = 0; i < args.size() && failures < 10; i += 4) {
        const Lanes r = lanesOf(vecFn(vld1q_f32(&args[i])));
        for (int k = 0; k < 4; ++k) {
            const ::testing::AssertionResult ok = sameBits(r.v[k], refFn(args[i + k]), args[i + k]);
            if (!ok) {
                ADD_FAILURE() << ok.message();
                ++failures;
            }
        }
    }
}

// Largest error in units of the last place over n evenly spaced arguments.
template <class Vec, class Ref>
double maxUlp(Vec vecFn, Ref refFn, double lo, double hi, int n, float* worst)
{
    double m = 0;
    for (int i = 0; i < n; i += 4) {
        float x[4];
        for (int k = 0; k < 4; ++k)
            x[k] = static_cast<float>(lo + (hi - lo) * (i + k) / (n - 1));
        const Lanes r = lanesOf(vecFn(vld1q_f32(x)));
        for (int k = 0; k < 4; ++k) {
            const double e = ulpError(r.v[k], refFn(static_cast<double>(x[k])));
            if (e > m) {
                m = e;
                *worst = x[k];
            }
        }
    }
    return m;
}

float32x4_t sinVec(float32x4_t x) { return sin_ps(x); }
float32x4_t cosVec(float32x4_t x) { return cos_ps(x); }

} // namespace

// --- documented special values ----------------------------------------------

TEST(SimdMathEdge, LogOfOneEZeroAndNegative)
{
    const Lanes r = lanesOf(log_ps(vec(1.0f, 2.7182817f, 0.0f, -1.0f)));
    EXPECT_EQ(bitsOf(r.v[0]), bitsOf(0.0f));
    EXPECT_LE(ulpError(r.v[1], 1.0), 1.0);
    // Invalid lanes are all-ones bits, log(0) included (not -inf).
    EXPECT_EQ(bitsOf(r.v[2]), 0xffffffffu);
    EXPECT_EQ(bitsOf(r.v[3]), 0xffffffffu);

    const Lanes n = lanesOf(log_ps(vec(-0.0f, -FLT_MIN, -std::numeric_limits<float>::infinity(), -1e30f)));
    for (float v : n.v)
        EXPECT_EQ(bitsOf(v), 0xffffffffu);
}

TEST(SimdMathEdge, LogOfPowersOfTwoIsExactMultipleOfLn2Parts)
{
    // m = 0.5 takes the 2m - 1 = 0 branch, so the result is e*(ln2 hi) +
    // e*(ln2 lo) with e = k: catches exponent off-by-one and a wrong mask.
    for (int k = -126; k <= 127; ++k) {
        const float x = std::ldexp(1.0f, k);
        const float got = vgetq_lane_f32(log_ps(vdupq_n_f32(x)), 0);
        EXPECT_LE(ulpError(got, k * std::log(2.0)), 1.0) << "2^" << k;
    }
}

TEST(SimdMathEdge, ExpOfZeroOneAndClamps)
{
    const Lanes r = lanesOf(exp_ps(vec(0.0f, 1.0f, 100.0f, -100.0f)));
    EXPECT_EQ(r.v[0], 1.0f);
    EXPECT_LE(ulpError(r.v[1], static_cast<double>(2.7182817f)), 1.0);
    // Above the clamp every lane gives e^88.37626. The steps floor
    // 88.37626*log2(e) + 0.5 = 127.99999 to 127, so this is 2^127 times
    // about sqrt(2): the largest result, finite, not +inf.
    const float top = vgetq_lane_f32(exp_ps(vdupq_n_f32(88.37626f)), 0);
    EXPECT_EQ(bitsOf(r.v[2]), bitsOf(top));
    EXPECT_TRUE(std::isfinite(top));
    EXPECT_LE(ulpError(top, std::exp(static_cast<double>(88.37626f))), 1.0);
    EXPECT_EQ(bitsOf(vgetq_lane_f32(exp_ps(vdupq_n_f32(std::numeric_limits<float>::infinity())), 0)), bitsOf(top));
    // At the lower clamp the scale 2^-127 has a zero exponent field: exactly 0.
    EXPECT_EQ(bitsOf(r.v[3]), bitsOf(0.0f));
    EXPECT_EQ(bitsOf(vgetq_lane_f32(exp_ps(vdupq_n_f32(-88.37626f)), 0)), bitsOf(0.0f));
    EXPECT_EQ(bitsOf(vgetq_lane_f32(exp_ps(vdupq_n_f32(-std::numeric_limits<float>::infinity())), 0)), bitsOf(0.0f));
}

TEST(SimdMathEdge, ExpPropagatesNaN)
{
    const Lanes r = lanesOf(exp_ps(vec(std::numeric_limits<float>::quiet_NaN(), 0.0f, -std::numeric_limits<float>::quiet_NaN(), 1.0f)));
    EXPECT_TRUE(std::isnan(r.v[0]));
    EXPECT_EQ(r.v[1], 1.0f);
    EXPECT_TRUE(std::isnan(r.v[2]));
}

TEST(SimdMathEdge, SinCosAtQuarterTurns)
{
    float32x4_t s, c;
    sincos_ps(vec(0.0f, kPi / 2, kPi, -kPi / 2), &s, &c);
    Lanes sl = lanesOf(s), cl = lanesOf(c);
    EXPECT_EQ(bitsOf(sl.v[0]), bitsOf(0.0f));
    EXPECT_EQ(sl.v[1], 1.0f);
    EXPECT_LT(std::fabs(sl.v[2]), 1e-7f);
    EXPECT_EQ(sl.v[3], -1.0f);
    EXPECT_EQ(cl.v[0], 1.0f);
    EXPECT_LT(std::fabs(cl.v[1]), 1e-7f);
    EXPECT_EQ(cl.v[2], -1.0f);
    EXPECT_LT(std::fabs(cl.v[3]), 1e-7f);
    // The floats nearest pi/2 and pi lie just above them.
    EXPECT_LT(cl.v[1], 0.0f);
    EXPECT_LT(sl.v[2], 0.0f);

    // sin_ps and cos_ps are the two halves of sincos_ps.
    const float32x4_t x = vec(0.3f, -1.7f, 12.5f, -2000.25f);
    sincos_ps(x, &s, &c);
    const Lanes s2 = lanesOf(sin_ps(x)), c2 = lanesOf(cos_ps(x));
    sl = lanesOf(s);
    cl = lanesOf(c);
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(bitsOf(s2.v[k]), bitsOf(sl.v[k]));
        EXPECT_EQ(bitsOf(c2.v[k]), bitsOf(cl.v[k]));
    }
}

TEST(SimdMathEdge, SineIsOddCosineIsEvenInEveryOctant)
{
    // Sign masks per octant: sin(-x) = -sin(x) and cos(-x) = cos(x) exactly,
    // and signs follow the quadrant of x.
    for (int i = 0; i < 64; ++i) {
        const float x = 0.1f + i * (kPi / 8);
        float32x4_t s, c;
        sincos_ps(vec(x, -x, x, -x), &s, &c);
        const Lanes sl = lanesOf(s), cl = lanesOf(c);
        EXPECT_EQ(bitsOf(sl.v[1]), bitsOf(-sl.v[0])) << x;
        EXPECT_EQ(bitsOf(cl.v[1]), bitsOf(cl.v[0])) << x;
        EXPECT_EQ(sl.v[0] > 0, std::sin(static_cast<double>(x)) > 0) << x;
        EXPECT_EQ(cl.v[0] > 0, std::cos(static_cast<double>(x)) > 0) << x;
    }
}

// --- vector path against the one-lane references ----------------------------

TEST(SimdMathRef, LogMatchesReferenceBitForBit)
{
    std::vector<float> args = sweepArgs(-2.0f, 1000.0f, 60000);
    // Mantissas around the sqrt(1/2) switch, over many exponents.
    for (int k = -20; k <= 20; ++k)
        for (int d = -8; d <= 8; ++d)
            args.push_back(std::ldexp(floatOf(bitsOf(0.70710677f) + d), k));
    while (args.size() % 4)
        args.push_back(1.0f);
    ASSERT_GE(args.size(), 100000u);
    expectAgreement(args, [](float32x4_t x) { return log_ps(x); }, log_ps_ref);
    expectAgreement(args, [](float32x4_t x) { return log_ps_inl(x); }, log_ps_ref);
}

TEST(SimdMathRef, ExpMatchesReferenceBitForBit)
{
    std::vector<float> args = sweepArgs(-100.0f, 100.0f, 60000);
    // Exact integers and half-integers of x*log2(e), where the floor flips.
    for (int k = -130; k <= 130; ++k)
        for (float h : {0.0f, 0.5f, -0.5f})
            for (int d = -2; d <= 2; ++d)
                args.push_back(floatOf(bitsOf(static_cast<float>((k + h) * 0.6931471805599453)) + d));
    while (args.size() % 4)
        args.push_back(0.0f);
    ASSERT_GE(args.size(), 100000u);
    expectAgreement(args, [](float32x4_t x) { return exp_ps(x); }, exp_ps_ref);
    expectAgreement(args, [](float32x4_t x) { return exp_ps_inl(x); }, exp_ps_ref);
}

TEST(SimdMathRef, SinCosMatchReferenceBitForBit)
{
    std::vector<float> args = sweepArgs(-5000.0f, 5000.0f, 60000);
    // Octant boundaries k*pi/4, where j and the masks change.
    for (int k = -400; k <= 400; ++k)
        for (int d = -1; d <= 1; ++d)
            args.push_back(floatOf(bitsOf(static_cast<float>(k * 0.7853981633974483)) + d));
    while (args.size() % 4)
        args.push_back(0.0f);
    ASSERT_GE(args.size(), 100000u);
    expectAgreement(args, sinVec, sin_ps_ref);
    expectAgreement(args, cosVec, cos_ps_ref);
    expectAgreement(args, [](float32x4_t x) { return sin_ps_inl(x); }, sin_ps_ref);
    expectAgreement(args, [](float32x4_t x) { return cos_ps_inl(x); }, cos_ps_ref);
}

// --- accuracy against double precision --------------------------------------
// Bounds measured over every float of each range (log: all positive normal
// floats 0.83 ulp; exp on [-87.3, 88.3] 0.99 ulp; sin/cos on [-pi, pi] 1.35 /
// 1.48 ulp; sin/cos absolute error up to |x| = 8192: 7.9e-8), asserted with
// some margin on a sampled subset.

TEST(SimdMathAccuracy, LogWithinOneUlp)
{
    float worst = 0;
    double m = 0;
    for (int band = -126; band < 128; band += 7) {
        const double lo = std::ldexp(1.0, band);
        m = std::max(m, maxUlp([](float32x4_t x) { return log_ps(x); }, [](double x) { return std::log(x); }, lo, 2 * lo, 400, &worst));
    }
    m = std::max(m, maxUlp([](float32x4_t x) { return log_ps(x); }, [](double x) { return std::log(x); }, 0.5, 2.0, 100000, &worst));
    EXPECT_LE(m, 1.0) << "worst at " << worst;
}

TEST(SimdMathAccuracy, ExpWithinOneAndAQuarterUlp)
{
    float worst = 0;
    const double m = maxUlp([](float32x4_t x) { return exp_ps(x); }, [](double x) { return std::exp(x); }, -87.3, 88.3, 200000, &worst);
    EXPECT_LE(m, 1.25) << "worst at " << worst;
}

TEST(SimdMathAccuracy, SinCosWithinTwoUlpOnOneTurn)
{
    float worst = 0;
    const double ms = maxUlp(sinVec, [](double x) { return std::sin(x); }, -kPi, kPi, 200000, &worst);
    EXPECT_LE(ms, 2.0) << "sin worst at " << worst;
    const double mc = maxUlp(cosVec, [](double x) { return std::cos(x); }, -kPi, kPi, 200000, &worst);
    EXPECT_LE(mc, 2.0) << "cos worst at " << worst;
}

TEST(SimdMathAccuracy, SinCosAbsoluteErrorUpToEightThousand)
{
    // Far from the origin the three-part reduction keeps the absolute error
    // near one ulp of 1; relative error near the zeros grows with |x|.
    double worst = 0;
    float at = 0;
    const int n = 200000;
    for (int i = 0; i < n; i += 4) {
        float x[4];
        for (int k = 0; k < 4; ++k)
            x[k] = static_cast<float>(-8192.0 + 16384.0 * (i + k) / (n - 1));
        float32x4_t s, c;
        sincos_ps(vld1q_f32(x), &s, &c);
        const Lanes sl = lanesOf(s), cl = lanesOf(c);
        for (int k = 0; k < 4; ++k) {
            const double es = std::fabs(sl.v[k] - std::sin(static_cast<double>(x[k])));
            const double ec = std::fabs(cl.v[k] - std::cos(static_cast<double>(x[k])));
            if (std::max(es, ec) > worst) {
                worst = std::max(es, ec);
                at = x[k];
            }
        }
    }
    EXPECT_LE(worst, 1.0e-7) << "worst at " << at;
}

// --- NEON semantics of the portability shims --------------------------------

TEST(SimdMathNeon, ConversionsTruncateSaturateAndZeroNaN)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const int32x4_t s1 = vcvtq_s32_f32(vec(2.7f, -2.7f, -0.5f, nan));
    EXPECT_EQ(slane(s1, 0), 2);
    EXPECT_EQ(slane(s1, 1), -2);
    EXPECT_EQ(slane(s1, 2), 0);
    EXPECT_EQ(slane(s1, 3), 0);
    const int32x4_t s2 = vcvtq_s32_f32(vec(3e9f, -3e9f, 2147483648.0f, -2147483648.0f));
    EXPECT_EQ(slane(s2, 0), INT32_MAX);
    EXPECT_EQ(slane(s2, 1), INT32_MIN);
    EXPECT_EQ(slane(s2, 2), INT32_MAX);
    EXPECT_EQ(slane(s2, 3), INT32_MIN);

    const uint32x4_t u1 = vcvtq_u32_f32(vec(-1.0f, -0.5f, nan, 2.9f));
    EXPECT_EQ(ulane(u1, 0), 0u);
    EXPECT_EQ(ulane(u1, 1), 0u);
    EXPECT_EQ(ulane(u1, 2), 0u);
    EXPECT_EQ(ulane(u1, 3), 2u);
    const uint32x4_t u2 = vcvtq_u32_f32(vec(3e9f, 2147483648.0f, 4294967040.0f, 5e9f));
    EXPECT_EQ(ulane(u2, 0), 3000000000u);
    EXPECT_EQ(ulane(u2, 1), 2147483648u);
    EXPECT_EQ(ulane(u2, 2), 4294967040u);
    EXPECT_EQ(ulane(u2, 3), UINT32_MAX);

    // Unsigned to float rounds once, to nearest even.
    const uint32_t big[4] = {UINT32_MAX, 0x80000001u, 16777217u, 16777219u};
    const Lanes f = lanesOf(vcvtq_f32_u32(vld1q_u32(big)));
    EXPECT_EQ(f.v[0], 4294967296.0f);
    EXPECT_EQ(f.v[1], 2147483648.0f);
    EXPECT_EQ(f.v[2], 16777216.0f);
    EXPECT_EQ(f.v[3], 16777220.0f);
    const int32_t sv[4] = {-16777219, INT32_MIN, INT32_MAX, 7};
    const Lanes g = lanesOf(vcvtq_f32_s32(vld1q_s32(sv)));
    EXPECT_EQ(g.v[0], -16777220.0f);
    EXPECT_EQ(g.v[1], -2147483648.0f);
    EXPECT_EQ(g.v[2], 2147483648.0f);
    EXPECT_EQ(g.v[3], 7.0f);
}

TEST(SimdMathNeon, MaxMinPropagateNaNAndOrderSignedZeros)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const Lanes mx = lanesOf(vmaxq_f32(vec(nan, 1.0f, 0.0f, -0.0f), vec(1.0f, nan, -0.0f, 0.0f)));
    EXPECT_TRUE(std::isnan(mx.v[0]));
    EXPECT_TRUE(std::isnan(mx.v[1]));
    EXPECT_EQ(bitsOf(mx.v[2]), bitsOf(0.0f));
    EXPECT_EQ(bitsOf(mx.v[3]), bitsOf(0.0f));
    const Lanes mn = lanesOf(vminq_f32(vec(nan, 1.0f, 0.0f, -0.0f), vec(1.0f, nan, -0.0f, 0.0f)));
    EXPECT_TRUE(std::isnan(mn.v[0]));
    EXPECT_TRUE(std::isnan(mn.v[1]));
    EXPECT_EQ(bitsOf(mn.v[2]), bitsOf(-0.0f));
    EXPECT_EQ(bitsOf(mn.v[3]), bitsOf(-0.0f));
    const Lanes ord = lanesOf(vmaxq_f32(vec(-3.0f, 2.0f, -1e30f, 5.0f), vec(-4.0f, 3.0f, 1e-30f, 5.0f)));
    EXPECT_EQ(ord.v[0], -3.0f);
    EXPECT_EQ(ord.v[1], 3.0f);
    EXPECT_EQ(ord.v[2], 1e-30f);
    EXPECT_EQ(ord.v[3], 5.0f);
    EXPECT_TRUE(std::isnan(vmaxvq_f32(vec(1.0f, 2.0f, nan, 0.0f))));
    EXPECT_EQ(vmaxvq_f32(vec(1.0f, 7.0f, -9.0f, 3.0f)), 7.0f);
    EXPECT_EQ(vminvq_f32(vec(1.0f, 7.0f, -9.0f, 3.0f)), -9.0f);
}

TEST(SimdMathNeon, HorizontalSumIsPairwise)
{
    // (a0 + a1) + (a2 + a3); 1e8 + 1 rounds back to 1e8. The lanes pass
    // through volatile storage: GCC 12 folds vaddvq_f32 of constant vectors
    // left to right, unlike the FADDP instructions it emits at run time.
    volatile float a[8] = {1e8f, -1e8f, 1.0f, 1.0f, 1.0f, 1e8f, -1e8f, 1.0f};
    float v[8];
    for (int i = 0; i < 8; ++i)
        v[i] = a[i];
    EXPECT_EQ(vaddvq_f32(vld1q_f32(v)), 2.0f);     // (a0+a2)+(a1+a3) gives 0
    EXPECT_EQ(vaddvq_f32(vld1q_f32(v + 4)), 0.0f); // left to right gives 1
}

TEST(SimdMathNeon, FusedAndUnfusedMultiplyAdd)
{
    // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24: the last term survives only when
    // the product is not rounded before the addition.
    const float b = 1.0f + std::ldexp(1.0f, -12);
    const float a = 1.0f + std::ldexp(1.0f, -11);
    const float32x4_t vb = vdupq_n_f32(b);
    EXPECT_EQ(vgetq_lane_f32(vfmaq_f32(vdupq_n_f32(-a), vb, vb), 0), std::ldexp(1.0f, -24));
    EXPECT_EQ(vgetq_lane_f32(vfmsq_f32(vdupq_n_f32(a), vb, vb), 0), -std::ldexp(1.0f, -24));
    EXPECT_EQ(vgetq_lane_f32(vmlaq_f32(vdupq_n_f32(-a), vb, vb), 0), 0.0f);
    EXPECT_EQ(vgetq_lane_f32(vmlsq_f32(vdupq_n_f32(a), vb, vb), 0), 0.0f);
}

TEST(SimdMathNeon, MasksShiftsAndSelects)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const uint32x4_t lt = vcltq_f32(vec(1.0f, 2.0f, nan, -0.0f), vec(2.0f, 1.0f, 0.0f, 0.0f));
    EXPECT_EQ(ulane(lt, 0), 0xffffffffu);
    EXPECT_EQ(ulane(lt, 1), 0u);
    EXPECT_EQ(ulane(lt, 2), 0u);
    EXPECT_EQ(ulane(lt, 3), 0u);
    const uint32x4_t le = vcleq_f32(vec(-0.0f, nan, 1.0f, 3.0f), vec(0.0f, nan, 1.0f, 2.0f));
    EXPECT_EQ(ulane(le, 0), 0xffffffffu);
    EXPECT_EQ(ulane(le, 1), 0u);
    EXPECT_EQ(ulane(le, 2), 0xffffffffu);
    EXPECT_EQ(ulane(le, 3), 0u);

    const int32_t v[4] = {-8, -1, 7, INT32_MIN};
    const int32x4_t s = vld1q_s32(v);
    EXPECT_EQ(slane(vshrq_n_s32(s, 2), 0), -2);
    EXPECT_EQ(slane(vshrq_n_s32(s, 2), 1), -1);
    EXPECT_EQ(slane(vshrq_n_s32(s, 2), 2), 1);
    EXPECT_EQ(slane(vshrq_n_s32(s, 31), 3), -1);
    EXPECT_EQ(slane(vshlq_n_s32(s, 29), 2), static_cast<int32_t>(0xe0000000u));

    // Bitwise select, not a lane blend on the sign bit.
    const uint32_t m[4] = {0xffff0000u, 0u, 0xffffffffu, 0x80000000u};
    const Lanes sel = lanesOf(vbslq_f32(vld1q_u32(m), vdupq_n_f32(-1.5f), vdupq_n_f32(2.25f)));
    EXPECT_EQ(bitsOf(sel.v[0]), (bitsOf(-1.5f) & 0xffff0000u) | (bitsOf(2.25f) & 0x0000ffffu));
    EXPECT_EQ(sel.v[1], 2.25f);
    EXPECT_EQ(sel.v[2], -1.5f);
    EXPECT_EQ(sel.v[3], -2.25f);

    EXPECT_EQ(bitsOf(vgetq_lane_f32(vnegq_f32(vdupq_n_f32(0.0f)), 0)), 0x80000000u);
    EXPECT_EQ(bitsOf(vgetq_lane_f32(vabsq_f32(vdupq_n_f32(-0.0f)), 0)), 0u);
    EXPECT_EQ(ulane(vbicq_u32(vdupq_n_u32(0xf0f0u), vdupq_n_u32(0x3030u)), 0), 0xc0c0u);
    EXPECT_EQ(ulane(vtstq_u32(vdupq_n_u32(6u), vdupq_n_u32(4u)), 0), 0xffffffffu);
    EXPECT_EQ(ulane(vtstq_u32(vdupq_n_u32(6u), vdupq_n_u32(1u)), 0), 0u);
    EXPECT_EQ(ulane(vsubq_u32(vdupq_n_u32(0u), vdupq_n_u32(2u)), 0), 0xfffffffeu);
}
