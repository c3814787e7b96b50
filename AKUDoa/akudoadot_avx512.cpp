// AVX-512 VNNI int8 beam sums. vpdpbusd multiplies unsigned by signed
// bytes, so each steering byte is biased by +128 (xor 0x80) and the bias is
// taken back once per bin: sum (s+128)*a = sum s*a + 128*sum a. All terms
// stay far inside int32, so the result equals the reference for any int8
// input. A block shorter than 64 bytes is read with a byte mask; the
// spectrum copy is zero past m2, so the masked lanes add nothing.
#include "AKUDoa/akudoadot_p.h"

// GCC 12 reports the deliberately undefined upper lanes inside the 512-bit
// extract intrinsics as maybe-uninitialized; the values are never read.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

namespace {
constexpr int kMaxM2 = 1024; // 512 microphones; larger arrays use the reference
}

void akudoa_dot8_avx512(const int8_t* a, const int8_t* s, int m2, int npix, float f,
                        float* outRe, float* outIm)
{
    if (m2 > kMaxM2 || m2 <= 0) {
        akudoa_dot8_ref(a, s, m2, npix, f, outRe, outIm);
        return;
    }
    alignas(64) int8_t ar[kMaxM2 + 64] = {};
    alignas(64) int8_t ai[kMaxM2 + 64] = {};
    int32_t biasR = 0;
    int32_t biasI = 0;
    for (int n = 0; n < m2; ++n) {
        ar[n] = a[n];
        ai[n] = a[m2 + n];
        biasR += a[n];
        biasI += a[m2 + n];
    }
    biasR *= 128;
    biasI *= 128;
    const int n64 = m2 & ~63;
    const int rest = m2 - n64;
    const __mmask64 restMask = rest ? ((~0ULL) >> (64 - rest)) : 0;
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    for (int p = 0; p < npix; ++p) {
        const int8_t* sp = s + static_cast<long>(p) * m2;
        __m512i accR = _mm512_setzero_si512();
        __m512i accI = _mm512_setzero_si512();
        for (int n = 0; n < n64; n += 64) {
            const __m512i su = _mm512_xor_si512(_mm512_loadu_si512(sp + n), flip);
            accR = _mm512_dpbusd_epi32(accR, su, _mm512_load_si512(ar + n));
            accI = _mm512_dpbusd_epi32(accI, su, _mm512_load_si512(ai + n));
        }
        if (rest) {
            const __m512i su = _mm512_xor_si512(_mm512_maskz_loadu_epi8(restMask, sp + n64), flip);
            accR = _mm512_dpbusd_epi32(accR, su, _mm512_load_si512(ar + n64));
            accI = _mm512_dpbusd_epi32(accI, su, _mm512_load_si512(ai + n64));
        }
        const __m256i r8 = _mm256_add_epi32(_mm512_castsi512_si256(accR), _mm512_extracti64x4_epi64(accR, 1));
        const __m256i i8 = _mm256_add_epi32(_mm512_castsi512_si256(accI), _mm512_extracti64x4_epi64(accI, 1));
        const __m256i h8 = _mm256_hadd_epi32(r8, i8); // per half: r r i i
        __m128i h = _mm_add_epi32(_mm256_castsi256_si128(h8), _mm256_extracti128_si256(h8, 1));
        h = _mm_hadd_epi32(h, h); // re im re im
        const int32_t re = _mm_cvtsi128_si32(h) - biasR;
        const int32_t im = _mm_extract_epi32(h, 1) - biasI;
        outRe[p] = static_cast<float>(re) * f;
        outIm[p] = static_cast<float>(im) * f;
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8_check("avx512vnni", a, s, m2, npix, f, outRe, outIm);
#endif
}

void akudoa_dot8pair_avx512(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re,
                            float* im, float* mre, float* mim)
{
    if (m2 > kMaxM2 || m2 <= 0) {
        akudoa_dot8pair_ref(a, s, m2, npair, f, re, im, mre, mim);
        return;
    }
    // The four spectrum quarters, each zero-padded to whole 64-byte blocks.
    const int h = m2 / 2;
    alignas(64) int8_t q[4][kMaxM2 / 2 + 64] = {};
    int32_t bias[4] = {0, 0, 0, 0};
    const int offs[4] = {0, h, m2, m2 + h}; // A: re of cos, B: re of sin, C, D: the imaginary halves
    for (int t = 0; t < 4; ++t)
        for (int n = 0; n < h; ++n) {
            q[t][n] = a[offs[t] + n];
            bias[t] += a[offs[t] + n];
        }
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    const int whole = h & ~63;
    const int rest = h - whole;
    // Masked-off lanes read 0, flip to 128 and meet zero padding.
    const __mmask64 restMask = rest ? (~0ULL) >> (64 - rest) : 0;
    const __m128i biasV = _mm_setr_epi32(128 * bias[0], 128 * bias[1], 128 * bias[2], 128 * bias[3]);
    const __m128 fv = _mm_set1_ps(f);
    for (int k = 0; k < npair; ++k) {
        const int8_t* sp = s + static_cast<long>(k) * m2;
        __m512i acc[4] = {_mm512_setzero_si512(), _mm512_setzero_si512(), _mm512_setzero_si512(),
                          _mm512_setzero_si512()};
        const auto step = [&](__m512i lo, __m512i hi, int n) {
            lo = _mm512_xor_si512(lo, flip);
            hi = _mm512_xor_si512(hi, flip);
            acc[0] = _mm512_dpbusd_epi32(acc[0], lo, _mm512_load_si512(q[0] + n));
            acc[1] = _mm512_dpbusd_epi32(acc[1], hi, _mm512_load_si512(q[1] + n));
            acc[2] = _mm512_dpbusd_epi32(acc[2], lo, _mm512_load_si512(q[2] + n));
            acc[3] = _mm512_dpbusd_epi32(acc[3], hi, _mm512_load_si512(q[3] + n));
        };
        for (int n = 0; n < whole; n += 64)
            step(_mm512_loadu_si512(sp + n), _mm512_loadu_si512(sp + h + n), n);
        if (rest)
            step(_mm512_maskz_loadu_epi8(restMask, sp + whole), _mm512_maskz_loadu_epi8(restMask, sp + h + whole),
                 whole);
        // The four sums at once: halves folded, then pairwise adds leave
        // (A, B, C, D) in each 128-bit lane; the lanes added, the bias off.
        __m256i r[4];
        for (int t = 0; t < 4; ++t)
            r[t] = _mm256_add_epi32(_mm512_castsi512_si256(acc[t]), _mm512_extracti64x4_epi64(acc[t], 1));
        const __m256i abcd = _mm256_hadd_epi32(_mm256_hadd_epi32(r[0], r[1]), _mm256_hadd_epi32(r[2], r[3]));
        const __m128i sums = _mm_sub_epi32(
            _mm_add_epi32(_mm256_castsi256_si128(abcd), _mm256_extracti128_si256(abcd, 1)), biasV);
        const __m128i swapped = _mm_shuffle_epi32(sums, _MM_SHUFFLE(2, 3, 0, 1)); // B A D C
        const __m128 plus = _mm_mul_ps(_mm_cvtepi32_ps(_mm_add_epi32(sums, swapped)), fv);  // A+B . C+D .
        const __m128 minus = _mm_mul_ps(_mm_cvtepi32_ps(_mm_sub_epi32(sums, swapped)), fv); // A-B . C-D .
        // Mirror first: the centre pixel of an odd image is its own mirror
        // and keeps the direct sums.
        mre[-k] = _mm_cvtss_f32(minus);
        mim[-k] = _mm_cvtss_f32(_mm_movehl_ps(minus, minus));
        re[k] = _mm_cvtss_f32(plus);
        im[k] = _mm_cvtss_f32(_mm_movehl_ps(plus, plus));
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8pair_check("avx512vnni", a, s, m2, npair, f, re, im, mre, mim);
#endif
}
