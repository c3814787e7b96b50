#ifndef AKUDOA_BASE_AKUDOANEON_H
#define AKUDOA_BASE_AKUDOANEON_H

// The library's one portable four-lane vector API. Vector code is written
// with AArch64 NEON intrinsic names and NEON semantics everywhere:
//
//  - AArch64: <arm_neon.h> itself.
//  - x86_64:  the same names over SSE2 (baseline) plus FMA when compiled with
//             -march=x86-64-v3. float32x4_t is __m128; int32x4_t and
//             uint32x4_t are distinct wrapper structs, so that code mixing
//             signed and unsigned vectors fails to compile here just as it
//             would on AArch64.
//  - AKUDOA_FORCE_SCALAR or any other architecture: plain four-lane structs,
//             std::fmaf for the fused operations.
//
// Every shim reproduces the AArch64 result bit for bit for finite inputs and
// for the special values the library's kernels can meet:
//  - vmaxq_f32/vminq_f32 return NaN when either lane is NaN (SSE maxps would
//    return its second operand) and order -0 below +0.
//  - vcvtq_s32_f32 truncates toward zero, saturates out-of-range values and
//    maps NaN to 0 (SSE would give 0x80000000); vcvtq_u32_f32 also maps
//    negative values to 0 and saturates at 0xffffffff.
//  - vfmaq_f32/vfmsq_f32 round once; vmlaq_f32/vmlsq_f32 round twice
//    (multiply, then add), as GCC emits them on AArch64 with
//    -ffp-contract=off.
//  - vaddvq_f32 sums as (a0 + a1) + (a2 + a3), the pairwise order of FADDP.
// NaN payloads and the quieting of signalling NaNs are not guaranteed to
// match. Lane indices and shift counts must be compile-time constants, as
// NEON requires.

#if !defined(AKUDOA_FORCE_SCALAR) && defined(__aarch64__)
#define AKUDOA_NEON_NATIVE 1
#include <arm_neon.h>

#elif !defined(AKUDOA_FORCE_SCALAR) && defined(__x86_64__)
#define AKUDOA_NEON_X86 1
#include <cmath>
#include <cstdint>
#include <immintrin.h>

typedef __m128 float32x4_t;
struct int32x4_t { __m128i v; };
struct uint32x4_t { __m128i v; };

// Loads and stores (no alignment requirement, as on NEON).
static inline float32x4_t vld1q_f32(const float* p) { return _mm_loadu_ps(p); }
static inline void vst1q_f32(float* p, float32x4_t a) { _mm_storeu_ps(p, a); }
static inline int32x4_t vld1q_s32(const int32_t* p) { return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))}; }
static inline void vst1q_s32(int32_t* p, int32x4_t a) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.v); }
static inline uint32x4_t vld1q_u32(const uint32_t* p) { return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))}; }
static inline void vst1q_u32(uint32_t* p, uint32x4_t a) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.v); }
static inline float32x4_t vld1q_dup_f32(const float* p) { return _mm_set1_ps(*p); }

// Broadcasts.
static inline float32x4_t vdupq_n_f32(float s) { return _mm_set1_ps(s); }
static inline float32x4_t vmovq_n_f32(float s) { return _mm_set1_ps(s); }
static inline int32x4_t vdupq_n_s32(int32_t s) { return {_mm_set1_epi32(s)}; }
static inline int32x4_t vmovq_n_s32(int32_t s) { return {_mm_set1_epi32(s)}; }
static inline uint32x4_t vdupq_n_u32(uint32_t s) { return {_mm_set1_epi32(static_cast<int32_t>(s))}; }
static inline uint32x4_t vmovq_n_u32(uint32_t s) { return {_mm_set1_epi32(static_cast<int32_t>(s))}; }

// Lanes. GCC's vector subscript keeps the lane index a plain expression.
static inline float vgetq_lane_f32(float32x4_t a, const int lane) { return a[lane]; }
static inline float32x4_t vsetq_lane_f32(float s, float32x4_t a, const int lane) { a[lane] = s; return a; }
static inline int32_t vgetq_lane_s32(int32x4_t a, const int lane)
{
    alignas(16) int32_t t[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(t), a.v);
    return t[lane];
}
static inline uint32_t vgetq_lane_u32(uint32x4_t a, const int lane)
{
    alignas(16) uint32_t t[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(t), a.v);
    return t[lane];
}

// Float arithmetic.
static inline float32x4_t vaddq_f32(float32x4_t a, float32x4_t b) { return _mm_add_ps(a, b); }
static inline float32x4_t vsubq_f32(float32x4_t a, float32x4_t b) { return _mm_sub_ps(a, b); }
static inline float32x4_t vmulq_f32(float32x4_t a, float32x4_t b) { return _mm_mul_ps(a, b); }
static inline float32x4_t vmulq_n_f32(float32x4_t a, float s) { return _mm_mul_ps(a, _mm_set1_ps(s)); }
static inline float32x4_t vdivq_f32(float32x4_t a, float32x4_t b) { return _mm_div_ps(a, b); }
static inline float32x4_t vsqrtq_f32(float32x4_t a) { return _mm_sqrt_ps(a); }

// a + b*c, one rounding.
static inline float32x4_t vfmaq_f32(float32x4_t a, float32x4_t b, float32x4_t c)
{
#if defined(__FMA__)
    return _mm_fmadd_ps(b, c, a);
#else
    // Hosts compiled without FMA still get the fused result, lane by lane.
    float32x4_t r;
    for (int i = 0; i < 4; ++i)
        r[i] = std::fmaf(b[i], c[i], a[i]);
    return r;
#endif
}
// a - b*c, one rounding.
static inline float32x4_t vfmsq_f32(float32x4_t a, float32x4_t b, float32x4_t c)
{
#if defined(__FMA__)
    return _mm_fnmadd_ps(b, c, a);
#else
    float32x4_t r;
    for (int i = 0; i < 4; ++i)
        r[i] = std::fmaf(-b[i], c[i], a[i]);
    return r;
#endif
}
static inline float32x4_t vfmaq_n_f32(float32x4_t a, float32x4_t b, float s) { return vfmaq_f32(a, b, _mm_set1_ps(s)); }
// a + b*c and a - b*c with two roundings.
static inline float32x4_t vmlaq_f32(float32x4_t a, float32x4_t b, float32x4_t c) { return _mm_add_ps(a, _mm_mul_ps(b, c)); }
static inline float32x4_t vmlsq_f32(float32x4_t a, float32x4_t b, float32x4_t c) { return _mm_sub_ps(a, _mm_mul_ps(b, c)); }
static inline float32x4_t vmlaq_n_f32(float32x4_t a, float32x4_t b, float s) { return vmlaq_f32(a, b, _mm_set1_ps(s)); }
static inline float32x4_t vmlsq_n_f32(float32x4_t a, float32x4_t b, float s) { return vmlsq_f32(a, b, _mm_set1_ps(s)); }

static inline float32x4_t vnegq_f32(float32x4_t a) { return _mm_xor_ps(a, _mm_set1_ps(-0.0f)); }
static inline float32x4_t vabsq_f32(float32x4_t a) { return _mm_andnot_ps(_mm_set1_ps(-0.0f), a); }

// NaN in either lane gives NaN (a + b propagates it and quiets it); equal
// lanes are combined bitwise so that max(+0, -0) = +0 and min(+0, -0) = -0.
static inline float32x4_t vmaxq_f32(float32x4_t a, float32x4_t b)
{
    __m128 r = _mm_max_ps(a, b);
    const __m128 eq = _mm_cmpeq_ps(a, b);
    r = _mm_or_ps(_mm_andnot_ps(eq, r), _mm_and_ps(eq, _mm_and_ps(a, b)));
    const __m128 nan = _mm_cmpunord_ps(a, b);
    return _mm_or_ps(_mm_andnot_ps(nan, r), _mm_and_ps(nan, _mm_add_ps(a, b)));
}
static inline float32x4_t vminq_f32(float32x4_t a, float32x4_t b)
{
    __m128 r = _mm_min_ps(a, b);
    const __m128 eq = _mm_cmpeq_ps(a, b);
    r = _mm_or_ps(_mm_andnot_ps(eq, r), _mm_and_ps(eq, _mm_or_ps(a, b)));
    const __m128 nan = _mm_cmpunord_ps(a, b);
    return _mm_or_ps(_mm_andnot_ps(nan, r), _mm_and_ps(nan, _mm_add_ps(a, b)));
}

// Horizontal reductions in the AArch64 order.
static inline float vaddvq_f32(float32x4_t a) { return (a[0] + a[1]) + (a[2] + a[3]); }
// Pairwise sums (a0 + a1, a2 + a3, b0 + b1, b2 + b3), as FADDP.
static inline float32x4_t vpaddq_f32(float32x4_t a, float32x4_t b) { return _mm_hadd_ps(a, b); }
static inline float vmaxvq_f32(float32x4_t a)
{
    const float32x4_t hi = _mm_movehl_ps(a, a);
    const float32x4_t m = vmaxq_f32(a, hi);
    return vgetq_lane_f32(vmaxq_f32(m, _mm_shuffle_ps(m, m, 1)), 0);
}
static inline float vminvq_f32(float32x4_t a)
{
    const float32x4_t hi = _mm_movehl_ps(a, a);
    const float32x4_t m = vminq_f32(a, hi);
    return vgetq_lane_f32(vminq_f32(m, _mm_shuffle_ps(m, m, 1)), 0);
}

// Comparisons: all-ones lanes where true, false for NaN.
static inline uint32x4_t vcltq_f32(float32x4_t a, float32x4_t b) { return {_mm_castps_si128(_mm_cmplt_ps(a, b))}; }
static inline uint32x4_t vcleq_f32(float32x4_t a, float32x4_t b) { return {_mm_castps_si128(_mm_cmple_ps(a, b))}; }
static inline uint32x4_t vcgtq_f32(float32x4_t a, float32x4_t b) { return {_mm_castps_si128(_mm_cmpgt_ps(a, b))}; }
static inline uint32x4_t vcgeq_f32(float32x4_t a, float32x4_t b) { return {_mm_castps_si128(_mm_cmpge_ps(a, b))}; }
static inline uint32x4_t vceqq_f32(float32x4_t a, float32x4_t b) { return {_mm_castps_si128(_mm_cmpeq_ps(a, b))}; }
static inline uint32x4_t vceqq_u32(uint32x4_t a, uint32x4_t b) { return {_mm_cmpeq_epi32(a.v, b.v)}; }
static inline uint32x4_t vceqq_s32(int32x4_t a, int32x4_t b) { return {_mm_cmpeq_epi32(a.v, b.v)}; }
static inline uint32x4_t vcgtq_s32(int32x4_t a, int32x4_t b) { return {_mm_cmpgt_epi32(a.v, b.v)}; }
static inline uint32x4_t vcltq_s32(int32x4_t a, int32x4_t b) { return {_mm_cmpgt_epi32(b.v, a.v)}; }
// (a AND b) != 0, per lane.
static inline uint32x4_t vtstq_u32(uint32x4_t a, uint32x4_t b)
{
    const __m128i zero = _mm_cmpeq_epi32(_mm_and_si128(a.v, b.v), _mm_setzero_si128());
    return {_mm_xor_si128(zero, _mm_set1_epi32(-1))};
}

// Bitwise select: bits of a where mask bits are set, else bits of b.
static inline float32x4_t vbslq_f32(uint32x4_t mask, float32x4_t a, float32x4_t b)
{
    const __m128 m = _mm_castsi128_ps(mask.v);
    return _mm_or_ps(_mm_and_ps(m, a), _mm_andnot_ps(m, b));
}
static inline uint32x4_t vbslq_u32(uint32x4_t mask, uint32x4_t a, uint32x4_t b)
{
    return {_mm_or_si128(_mm_and_si128(mask.v, a.v), _mm_andnot_si128(mask.v, b.v))};
}
static inline int32x4_t vbslq_s32(uint32x4_t mask, int32x4_t a, int32x4_t b)
{
    return {_mm_or_si128(_mm_and_si128(mask.v, a.v), _mm_andnot_si128(mask.v, b.v))};
}

// Integer bit operations.
static inline uint32x4_t vandq_u32(uint32x4_t a, uint32x4_t b) { return {_mm_and_si128(a.v, b.v)}; }
static inline uint32x4_t vorrq_u32(uint32x4_t a, uint32x4_t b) { return {_mm_or_si128(a.v, b.v)}; }
static inline uint32x4_t veorq_u32(uint32x4_t a, uint32x4_t b) { return {_mm_xor_si128(a.v, b.v)}; }
static inline uint32x4_t vbicq_u32(uint32x4_t a, uint32x4_t b) { return {_mm_andnot_si128(b.v, a.v)}; }
static inline uint32x4_t vmvnq_u32(uint32x4_t a) { return {_mm_xor_si128(a.v, _mm_set1_epi32(-1))}; }
static inline int32x4_t vandq_s32(int32x4_t a, int32x4_t b) { return {_mm_and_si128(a.v, b.v)}; }
static inline int32x4_t vorrq_s32(int32x4_t a, int32x4_t b) { return {_mm_or_si128(a.v, b.v)}; }
static inline int32x4_t veorq_s32(int32x4_t a, int32x4_t b) { return {_mm_xor_si128(a.v, b.v)}; }
static inline int32x4_t vbicq_s32(int32x4_t a, int32x4_t b) { return {_mm_andnot_si128(b.v, a.v)}; }

// Integer arithmetic (wrapping) and shifts by a constant.
static inline int32x4_t vaddq_s32(int32x4_t a, int32x4_t b) { return {_mm_add_epi32(a.v, b.v)}; }
static inline int32x4_t vsubq_s32(int32x4_t a, int32x4_t b) { return {_mm_sub_epi32(a.v, b.v)}; }
static inline uint32x4_t vaddq_u32(uint32x4_t a, uint32x4_t b) { return {_mm_add_epi32(a.v, b.v)}; }
static inline uint32x4_t vsubq_u32(uint32x4_t a, uint32x4_t b) { return {_mm_sub_epi32(a.v, b.v)}; }
static inline int32x4_t vshlq_n_s32(int32x4_t a, const int n) { return {_mm_slli_epi32(a.v, n)}; }
static inline int32x4_t vshrq_n_s32(int32x4_t a, const int n) { return {_mm_srai_epi32(a.v, n)}; }
static inline uint32x4_t vshlq_n_u32(uint32x4_t a, const int n) { return {_mm_slli_epi32(a.v, n)}; }
static inline uint32x4_t vshrq_n_u32(uint32x4_t a, const int n) { return {_mm_srli_epi32(a.v, n)}; }

// Reinterpretation (bits unchanged).
static inline uint32x4_t vreinterpretq_u32_f32(float32x4_t a) { return {_mm_castps_si128(a)}; }
static inline int32x4_t vreinterpretq_s32_f32(float32x4_t a) { return {_mm_castps_si128(a)}; }
static inline float32x4_t vreinterpretq_f32_u32(uint32x4_t a) { return _mm_castsi128_ps(a.v); }
static inline float32x4_t vreinterpretq_f32_s32(int32x4_t a) { return _mm_castsi128_ps(a.v); }
static inline int32x4_t vreinterpretq_s32_u32(uint32x4_t a) { return {a.v}; }
static inline uint32x4_t vreinterpretq_u32_s32(int32x4_t a) { return {a.v}; }

// Conversions with the AArch64 rules: toward zero, saturating, NaN -> 0.
static inline int32x4_t vcvtq_s32_f32(float32x4_t a)
{
    // cvttps2dq gives 0x80000000 for NaN and every out-of-range lane; that is
    // already right for a <= -2^31.
    __m128i r = _mm_cvttps_epi32(a);
    const __m128i big = _mm_castps_si128(_mm_cmpge_ps(a, _mm_set1_ps(2147483648.0f)));
    r = _mm_or_si128(_mm_andnot_si128(big, r), _mm_and_si128(big, _mm_set1_epi32(0x7fffffff)));
    const __m128i ord = _mm_castps_si128(_mm_cmpord_ps(a, a));
    return {_mm_and_si128(r, ord)};
}
static inline uint32x4_t vcvtq_u32_f32(float32x4_t a)
{
    // maxps returns its second operand (0) for NaN, so NaN and negative
    // lanes become 0 here.
    const __m128 c = _mm_max_ps(a, _mm_setzero_ps());
    const __m128 two31 = _mm_set1_ps(2147483648.0f);
    const __m128i lo = _mm_cvttps_epi32(c);
    // Values in [2^31, 2^32) are converted after subtracting 2^31 (exact).
    const __m128i hi = _mm_xor_si128(_mm_cvttps_epi32(_mm_sub_ps(c, two31)), _mm_set1_epi32(INT32_MIN));
    const __m128i big = _mm_castps_si128(_mm_cmpge_ps(c, two31));
    __m128i r = _mm_or_si128(_mm_andnot_si128(big, lo), _mm_and_si128(big, hi));
    const __m128i sat = _mm_castps_si128(_mm_cmpge_ps(c, _mm_set1_ps(4294967296.0f)));
    return {_mm_or_si128(r, sat)};
}
static inline float32x4_t vcvtq_f32_s32(int32x4_t a) { return _mm_cvtepi32_ps(a.v); }
static inline float32x4_t vcvtq_f32_u32(uint32x4_t a)
{
    // High and low 16 bits convert exactly; the one addition rounds to
    // nearest-even, as UCVTF does.
    const __m128 hi = _mm_mul_ps(_mm_cvtepi32_ps(_mm_srli_epi32(a.v, 16)), _mm_set1_ps(65536.0f));
    const __m128 lo = _mm_cvtepi32_ps(_mm_and_si128(a.v, _mm_set1_epi32(0xffff)));
    return _mm_add_ps(hi, lo);
}

#else
#define AKUDOA_NEON_SCALAR 1
// Plain four-lane records; every operation is written lane by lane with the
// same rules as the vector paths.
#include <cmath>
#include <cstdint>
#include <cstring>

struct float32x4_t
{
    float val[4];
    float& operator[](int i) { return val[i]; }
    float operator[](int i) const { return val[i]; }
};
struct int32x4_t
{
    int32_t val[4];
    int32_t& operator[](int i) { return val[i]; }
    int32_t operator[](int i) const { return val[i]; }
};
struct uint32x4_t
{
    uint32_t val[4];
    uint32_t& operator[](int i) { return val[i]; }
    uint32_t operator[](int i) const { return val[i]; }
};

namespace akudoa_neon_scalar {
static inline uint32_t bits(float f) { uint32_t u; std::memcpy(&u, &f, 4); return u; }
static inline float fromBits(uint32_t u) { float f; std::memcpy(&f, &u, 4); return f; }
static inline float maxLane(float a, float b)
{
    if (std::isnan(a) || std::isnan(b))
        return a + b;
    if (a == b)
        return fromBits(bits(a) & bits(b));
    return a > b ? a : b;
}
static inline float minLane(float a, float b)
{
    if (std::isnan(a) || std::isnan(b))
        return a + b;
    if (a == b)
        return fromBits(bits(a) | bits(b));
    return a < b ? a : b;
}
static inline int32_t cvts(float a)
{
    if (std::isnan(a))
        return 0;
    if (a >= 2147483648.0f)
        return INT32_MAX;
    if (a <= -2147483648.0f)
        return INT32_MIN;
    return static_cast<int32_t>(a);
}
static inline uint32_t cvtu(float a)
{
    if (std::isnan(a) || a <= 0.0f)
        return 0;
    if (a >= 4294967296.0f)
        return UINT32_MAX;
    return static_cast<uint32_t>(a);
}
static inline uint32_t mask(bool b) { return b ? 0xffffffffu : 0u; }
} // namespace akudoa_neon_scalar

#define AKUDOA_NEON_LANES_F(expr) { float32x4_t r; for (int i = 0; i < 4; ++i) r.val[i] = (expr); return r; }
#define AKUDOA_NEON_LANES_S(expr) { int32x4_t r; for (int i = 0; i < 4; ++i) r.val[i] = (expr); return r; }
#define AKUDOA_NEON_LANES_U(expr) { uint32x4_t r; for (int i = 0; i < 4; ++i) r.val[i] = (expr); return r; }

static inline float32x4_t vld1q_f32(const float* p) AKUDOA_NEON_LANES_F(p[i])
static inline void vst1q_f32(float* p, float32x4_t a) { for (int i = 0; i < 4; ++i) p[i] = a.val[i]; }
static inline int32x4_t vld1q_s32(const int32_t* p) AKUDOA_NEON_LANES_S(p[i])
static inline void vst1q_s32(int32_t* p, int32x4_t a) { for (int i = 0; i < 4; ++i) p[i] = a.val[i]; }
static inline uint32x4_t vld1q_u32(const uint32_t* p) AKUDOA_NEON_LANES_U(p[i])
static inline void vst1q_u32(uint32_t* p, uint32x4_t a) { for (int i = 0; i < 4; ++i) p[i] = a.val[i]; }
static inline float32x4_t vld1q_dup_f32(const float* p) AKUDOA_NEON_LANES_F(*p)

static inline float32x4_t vdupq_n_f32(float s) AKUDOA_NEON_LANES_F(s)
static inline float32x4_t vmovq_n_f32(float s) AKUDOA_NEON_LANES_F(s)
static inline int32x4_t vdupq_n_s32(int32_t s) AKUDOA_NEON_LANES_S(s)
static inline int32x4_t vmovq_n_s32(int32_t s) AKUDOA_NEON_LANES_S(s)
static inline uint32x4_t vdupq_n_u32(uint32_t s) AKUDOA_NEON_LANES_U(s)
static inline uint32x4_t vmovq_n_u32(uint32_t s) AKUDOA_NEON_LANES_U(s)

static inline float vgetq_lane_f32(float32x4_t a, const int lane) { return a.val[lane]; }
static inline float32x4_t vsetq_lane_f32(float s, float32x4_t a, const int lane) { a.val[lane] = s; return a; }
static inline int32_t vgetq_lane_s32(int32x4_t a, const int lane) { return a.val[lane]; }
static inline uint32_t vgetq_lane_u32(uint32x4_t a, const int lane) { return a.val[lane]; }

static inline float32x4_t vaddq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_F(a.val[i] + b.val[i])
static inline float32x4_t vsubq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_F(a.val[i] - b.val[i])
static inline float32x4_t vmulq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_F(a.val[i] * b.val[i])
static inline float32x4_t vmulq_n_f32(float32x4_t a, float s) AKUDOA_NEON_LANES_F(a.val[i] * s)
static inline float32x4_t vdivq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_F(a.val[i] / b.val[i])
static inline float32x4_t vsqrtq_f32(float32x4_t a) AKUDOA_NEON_LANES_F(std::sqrt(a.val[i]))
static inline float32x4_t vfmaq_f32(float32x4_t a, float32x4_t b, float32x4_t c) AKUDOA_NEON_LANES_F(std::fmaf(b.val[i], c.val[i], a.val[i]))
static inline float32x4_t vfmsq_f32(float32x4_t a, float32x4_t b, float32x4_t c) AKUDOA_NEON_LANES_F(std::fmaf(-b.val[i], c.val[i], a.val[i]))
static inline float32x4_t vfmaq_n_f32(float32x4_t a, float32x4_t b, float s) AKUDOA_NEON_LANES_F(std::fmaf(b.val[i], s, a.val[i]))
static inline float32x4_t vmlaq_f32(float32x4_t a, float32x4_t b, float32x4_t c) AKUDOA_NEON_LANES_F(a.val[i] + b.val[i] * c.val[i])
static inline float32x4_t vmlsq_f32(float32x4_t a, float32x4_t b, float32x4_t c) AKUDOA_NEON_LANES_F(a.val[i] - b.val[i] * c.val[i])
static inline float32x4_t vmlaq_n_f32(float32x4_t a, float32x4_t b, float s) AKUDOA_NEON_LANES_F(a.val[i] + b.val[i] * s)
static inline float32x4_t vmlsq_n_f32(float32x4_t a, float32x4_t b, float s) AKUDOA_NEON_LANES_F(a.val[i] - b.val[i] * s)
static inline float32x4_t vnegq_f32(float32x4_t a) AKUDOA_NEON_LANES_F(akudoa_neon_scalar::fromBits(akudoa_neon_scalar::bits(a.val[i]) ^ 0x80000000u))
static inline float32x4_t vabsq_f32(float32x4_t a) AKUDOA_NEON_LANES_F(akudoa_neon_scalar::fromBits(akudoa_neon_scalar::bits(a.val[i]) & 0x7fffffffu))
static inline float32x4_t vmaxq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_F(akudoa_neon_scalar::maxLane(a.val[i], b.val[i]))
static inline float32x4_t vminq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_F(akudoa_neon_scalar::minLane(a.val[i], b.val[i]))

static inline float vaddvq_f32(float32x4_t a) { return (a.val[0] + a.val[1]) + (a.val[2] + a.val[3]); }
static inline float32x4_t vpaddq_f32(float32x4_t a, float32x4_t b)
{
    float32x4_t r;
    r.val[0] = a.val[0] + a.val[1];
    r.val[1] = a.val[2] + a.val[3];
    r.val[2] = b.val[0] + b.val[1];
    r.val[3] = b.val[2] + b.val[3];
    return r;
}
static inline float vmaxvq_f32(float32x4_t a)
{
    using akudoa_neon_scalar::maxLane;
    return maxLane(maxLane(a.val[0], a.val[2]), maxLane(a.val[1], a.val[3]));
}
static inline float vminvq_f32(float32x4_t a)
{
    using akudoa_neon_scalar::minLane;
    return minLane(minLane(a.val[0], a.val[2]), minLane(a.val[1], a.val[3]));
}

static inline uint32x4_t vcltq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] < b.val[i]))
static inline uint32x4_t vcleq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] <= b.val[i]))
static inline uint32x4_t vcgtq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] > b.val[i]))
static inline uint32x4_t vcgeq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] >= b.val[i]))
static inline uint32x4_t vceqq_f32(float32x4_t a, float32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] == b.val[i]))
static inline uint32x4_t vceqq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] == b.val[i]))
static inline uint32x4_t vceqq_s32(int32x4_t a, int32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] == b.val[i]))
static inline uint32x4_t vcgtq_s32(int32x4_t a, int32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] > b.val[i]))
static inline uint32x4_t vcltq_s32(int32x4_t a, int32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask(a.val[i] < b.val[i]))
static inline uint32x4_t vtstq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::mask((a.val[i] & b.val[i]) != 0))

static inline float32x4_t vbslq_f32(uint32x4_t m, float32x4_t a, float32x4_t b)
    AKUDOA_NEON_LANES_F(akudoa_neon_scalar::fromBits((m.val[i] & akudoa_neon_scalar::bits(a.val[i])) | (~m.val[i] & akudoa_neon_scalar::bits(b.val[i]))))
static inline uint32x4_t vbslq_u32(uint32x4_t m, uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U((m.val[i] & a.val[i]) | (~m.val[i] & b.val[i]))
static inline int32x4_t vbslq_s32(uint32x4_t m, int32x4_t a, int32x4_t b)
    AKUDOA_NEON_LANES_S(static_cast<int32_t>((m.val[i] & static_cast<uint32_t>(a.val[i])) | (~m.val[i] & static_cast<uint32_t>(b.val[i]))))

static inline uint32x4_t vandq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(a.val[i] & b.val[i])
static inline uint32x4_t vorrq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(a.val[i] | b.val[i])
static inline uint32x4_t veorq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(a.val[i] ^ b.val[i])
static inline uint32x4_t vbicq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(a.val[i] & ~b.val[i])
static inline uint32x4_t vmvnq_u32(uint32x4_t a) AKUDOA_NEON_LANES_U(~a.val[i])
static inline int32x4_t vandq_s32(int32x4_t a, int32x4_t b) AKUDOA_NEON_LANES_S(a.val[i] & b.val[i])
static inline int32x4_t vorrq_s32(int32x4_t a, int32x4_t b) AKUDOA_NEON_LANES_S(a.val[i] | b.val[i])
static inline int32x4_t veorq_s32(int32x4_t a, int32x4_t b) AKUDOA_NEON_LANES_S(a.val[i] ^ b.val[i])
static inline int32x4_t vbicq_s32(int32x4_t a, int32x4_t b) AKUDOA_NEON_LANES_S(a.val[i] & ~b.val[i])

// Signed lanes wrap as on the hardware: the arithmetic is done unsigned.
static inline int32x4_t vaddq_s32(int32x4_t a, int32x4_t b)
    AKUDOA_NEON_LANES_S(static_cast<int32_t>(static_cast<uint32_t>(a.val[i]) + static_cast<uint32_t>(b.val[i])))
static inline int32x4_t vsubq_s32(int32x4_t a, int32x4_t b)
    AKUDOA_NEON_LANES_S(static_cast<int32_t>(static_cast<uint32_t>(a.val[i]) - static_cast<uint32_t>(b.val[i])))
static inline uint32x4_t vaddq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(a.val[i] + b.val[i])
static inline uint32x4_t vsubq_u32(uint32x4_t a, uint32x4_t b) AKUDOA_NEON_LANES_U(a.val[i] - b.val[i])
static inline int32x4_t vshlq_n_s32(int32x4_t a, const int n) AKUDOA_NEON_LANES_S(static_cast<int32_t>(static_cast<uint32_t>(a.val[i]) << n))
static inline int32x4_t vshrq_n_s32(int32x4_t a, const int n) AKUDOA_NEON_LANES_S(a.val[i] >> n)
static inline uint32x4_t vshlq_n_u32(uint32x4_t a, const int n) AKUDOA_NEON_LANES_U(a.val[i] << n)
static inline uint32x4_t vshrq_n_u32(uint32x4_t a, const int n) AKUDOA_NEON_LANES_U(a.val[i] >> n)

static inline uint32x4_t vreinterpretq_u32_f32(float32x4_t a) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::bits(a.val[i]))
static inline int32x4_t vreinterpretq_s32_f32(float32x4_t a) AKUDOA_NEON_LANES_S(static_cast<int32_t>(akudoa_neon_scalar::bits(a.val[i])))
static inline float32x4_t vreinterpretq_f32_u32(uint32x4_t a) AKUDOA_NEON_LANES_F(akudoa_neon_scalar::fromBits(a.val[i]))
static inline float32x4_t vreinterpretq_f32_s32(int32x4_t a) AKUDOA_NEON_LANES_F(akudoa_neon_scalar::fromBits(static_cast<uint32_t>(a.val[i])))
static inline int32x4_t vreinterpretq_s32_u32(uint32x4_t a) AKUDOA_NEON_LANES_S(static_cast<int32_t>(a.val[i]))
static inline uint32x4_t vreinterpretq_u32_s32(int32x4_t a) AKUDOA_NEON_LANES_U(static_cast<uint32_t>(a.val[i]))

static inline int32x4_t vcvtq_s32_f32(float32x4_t a) AKUDOA_NEON_LANES_S(akudoa_neon_scalar::cvts(a.val[i]))
static inline uint32x4_t vcvtq_u32_f32(float32x4_t a) AKUDOA_NEON_LANES_U(akudoa_neon_scalar::cvtu(a.val[i]))
static inline float32x4_t vcvtq_f32_s32(int32x4_t a) AKUDOA_NEON_LANES_F(static_cast<float>(a.val[i]))
static inline float32x4_t vcvtq_f32_u32(uint32x4_t a) AKUDOA_NEON_LANES_F(static_cast<float>(a.val[i]))

#undef AKUDOA_NEON_LANES_F
#undef AKUDOA_NEON_LANES_S
#undef AKUDOA_NEON_LANES_U
#endif

#endif
