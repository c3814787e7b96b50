// AVX2 int8 beam sums. The spectrum bytes are sign-extended to int16 once
// per call; each 16-byte steering block is sign-extended and multiplied
// with vpmaddwd, so every product and pair sum is exact (no saturating
// byte multiply), which keeps the result equal to the reference for any
// int8 input.
#include "AKUDoa/akudoadot_p.h"

#include <immintrin.h>

namespace {
constexpr int kMaxM2 = 1024; // 512 microphones; larger arrays use the reference

// sx = sum s[n] * x[n], sy = sum s[n] * y[n] for n < len (x, y int16 copies).
inline void sums16(const int8_t* s, const int16_t* x, const int16_t* y, int len, int32_t& sx, int32_t& sy)
{
    __m256i ax = _mm256_setzero_si256();
    __m256i ay = _mm256_setzero_si256();
    int n = 0;
    for (; n + 16 <= len; n += 16) {
        const __m256i sv = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s + n)));
        ax = _mm256_add_epi32(ax, _mm256_madd_epi16(sv, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(x + n))));
        ay = _mm256_add_epi32(ay, _mm256_madd_epi16(sv, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(y + n))));
    }
    __m128i rx = _mm_add_epi32(_mm256_castsi256_si128(ax), _mm256_extracti128_si256(ax, 1));
    __m128i ry = _mm_add_epi32(_mm256_castsi256_si128(ay), _mm256_extracti128_si256(ay, 1));
    if (n + 8 <= len) {
        const __m128i sv = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s + n)));
        rx = _mm_add_epi32(rx, _mm_madd_epi16(sv, _mm_loadu_si128(reinterpret_cast<const __m128i*>(x + n))));
        ry = _mm_add_epi32(ry, _mm_madd_epi16(sv, _mm_loadu_si128(reinterpret_cast<const __m128i*>(y + n))));
        n += 8;
    }
    __m128i h = _mm_hadd_epi32(rx, ry);
    h = _mm_hadd_epi32(h, h);
    sx = _mm_cvtsi128_si32(h);
    sy = _mm_extract_epi32(h, 1);
    for (; n < len; ++n) {
        sx += static_cast<int32_t>(s[n]) * x[n];
        sy += static_cast<int32_t>(s[n]) * y[n];
    }
}
} // namespace

void akudoa_dot8_avx2(const int8_t* a, const int8_t* s, int m2, int npix, float f, float* outRe,
                      float* outIm)
{
    if (m2 > kMaxM2 || m2 <= 0) {
        akudoa_dot8_ref(a, s, m2, npix, f, outRe, outIm);
        return;
    }
    alignas(32) int16_t ar[kMaxM2];
    alignas(32) int16_t ai[kMaxM2];
    for (int n = 0; n < m2; ++n) {
        ar[n] = a[n];
        ai[n] = a[m2 + n];
    }
    const int n16 = m2 & ~15;
    const bool has8 = (m2 & 8) != 0;
    const int tail = m2 & ~7;
    // Two pixels per pass share the loads of the spectrum halves.
    int p = 0;
    for (; p + 2 <= npix; p += 2) {
        const int8_t* s0 = s + static_cast<long>(p) * m2;
        const int8_t* s1 = s0 + m2;
        __m256i r0 = _mm256_setzero_si256(), i0 = _mm256_setzero_si256();
        __m256i r1 = _mm256_setzero_si256(), i1 = _mm256_setzero_si256();
        for (int n = 0; n < n16; n += 16) {
            const __m256i av = _mm256_load_si256(reinterpret_cast<const __m256i*>(ar + n));
            const __m256i bv = _mm256_load_si256(reinterpret_cast<const __m256i*>(ai + n));
            const __m256i v0 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s0 + n)));
            const __m256i v1 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(s1 + n)));
            r0 = _mm256_add_epi32(r0, _mm256_madd_epi16(v0, av));
            i0 = _mm256_add_epi32(i0, _mm256_madd_epi16(v0, bv));
            r1 = _mm256_add_epi32(r1, _mm256_madd_epi16(v1, av));
            i1 = _mm256_add_epi32(i1, _mm256_madd_epi16(v1, bv));
        }
        __m128i a0 = _mm_add_epi32(_mm256_castsi256_si128(r0), _mm256_extracti128_si256(r0, 1));
        __m128i b0 = _mm_add_epi32(_mm256_castsi256_si128(i0), _mm256_extracti128_si256(i0, 1));
        __m128i a1 = _mm_add_epi32(_mm256_castsi256_si128(r1), _mm256_extracti128_si256(r1, 1));
        __m128i b1 = _mm_add_epi32(_mm256_castsi256_si128(i1), _mm256_extracti128_si256(i1, 1));
        if (has8) {
            const __m128i av = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ar + n16));
            const __m128i bv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ai + n16));
            const __m128i v0 = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s0 + n16)));
            const __m128i v1 = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(s1 + n16)));
            a0 = _mm_add_epi32(a0, _mm_madd_epi16(v0, av));
            b0 = _mm_add_epi32(b0, _mm_madd_epi16(v0, bv));
            a1 = _mm_add_epi32(a1, _mm_madd_epi16(v1, av));
            b1 = _mm_add_epi32(b1, _mm_madd_epi16(v1, bv));
        }
        // Horizontal sums of all four accumulators at once: re0 im0 re1 im1.
        const __m128i h = _mm_hadd_epi32(_mm_hadd_epi32(a0, b0), _mm_hadd_epi32(a1, b1));
        int32_t re0 = _mm_cvtsi128_si32(h);
        int32_t im0 = _mm_extract_epi32(h, 1);
        int32_t re1 = _mm_extract_epi32(h, 2);
        int32_t im1 = _mm_extract_epi32(h, 3);
        for (int n = tail; n < m2; ++n) {
            re0 += static_cast<int32_t>(s0[n]) * ar[n];
            im0 += static_cast<int32_t>(s0[n]) * ai[n];
            re1 += static_cast<int32_t>(s1[n]) * ar[n];
            im1 += static_cast<int32_t>(s1[n]) * ai[n];
        }
        outRe[p] = static_cast<float>(re0) * f;
        outIm[p] = static_cast<float>(im0) * f;
        outRe[p + 1] = static_cast<float>(re1) * f;
        outIm[p + 1] = static_cast<float>(im1) * f;
    }
    for (; p < npix; ++p) {
        const int8_t* sp = s + static_cast<long>(p) * m2;
        __m256i accR = _mm256_setzero_si256();
        __m256i accI = _mm256_setzero_si256();
        for (int n = 0; n < n16; n += 16) {
            const __m256i sv =
                _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(sp + n)));
            accR = _mm256_add_epi32(
                accR, _mm256_madd_epi16(sv, _mm256_load_si256(reinterpret_cast<const __m256i*>(ar + n))));
            accI = _mm256_add_epi32(
                accI, _mm256_madd_epi16(sv, _mm256_load_si256(reinterpret_cast<const __m256i*>(ai + n))));
        }
        __m128i r = _mm_add_epi32(_mm256_castsi256_si128(accR), _mm256_extracti128_si256(accR, 1));
        __m128i i = _mm_add_epi32(_mm256_castsi256_si128(accI), _mm256_extracti128_si256(accI, 1));
        if (has8) {
            const __m128i sv =
                _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(sp + n16)));
            r = _mm_add_epi32(r, _mm_madd_epi16(sv, _mm_loadu_si128(reinterpret_cast<const __m128i*>(ar + n16))));
            i = _mm_add_epi32(i, _mm_madd_epi16(sv, _mm_loadu_si128(reinterpret_cast<const __m128i*>(ai + n16))));
        }
        __m128i h = _mm_hadd_epi32(r, i); // r0+r1 r2+r3 i0+i1 i2+i3
        h = _mm_hadd_epi32(h, h);         // re im re im
        int32_t re = _mm_cvtsi128_si32(h);
        int32_t im = _mm_extract_epi32(h, 1);
        for (int n = tail; n < m2; ++n) {
            re += static_cast<int32_t>(sp[n]) * ar[n];
            im += static_cast<int32_t>(sp[n]) * ai[n];
        }
        outRe[p] = static_cast<float>(re) * f;
        outIm[p] = static_cast<float>(im) * f;
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8_check("avx2", a, s, m2, npix, f, outRe, outIm);
#endif
}

void akudoa_dot8pair_avx2(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re, float* im,
                          float* mre, float* mim)
{
    if (m2 > kMaxM2 || m2 <= 0) {
        akudoa_dot8pair_ref(a, s, m2, npair, f, re, im, mre, mim);
        return;
    }
    alignas(32) int16_t ar[kMaxM2];
    alignas(32) int16_t ai[kMaxM2];
    for (int n = 0; n < m2; ++n) {
        ar[n] = a[n];
        ai[n] = a[m2 + n];
    }
    const int h = m2 / 2;
    for (int k = 0; k < npair; ++k) {
        const int8_t* sp = s + static_cast<long>(k) * m2;
        int32_t A, B, C, D;
        sums16(sp, ar, ai, h, A, C);
        sums16(sp + h, ar + h, ai + h, h, B, D);
        mre[-k] = static_cast<float>(A - B) * f;
        mim[-k] = static_cast<float>(C - D) * f;
        re[k] = static_cast<float>(A + B) * f;
        im[k] = static_cast<float>(C + D) * f;
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8pair_check("avx2", a, s, m2, npair, f, re, im, mre, mim);
#endif
}
