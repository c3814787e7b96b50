// NEON int8 beam sums: signed byte products widened to 16 bits (vmull),
// pairwise added into 32-bit lanes (vpadal). A product fits int16 even for
// -128 * -128, so the sums equal the reference for any int8 input.
#include "AKUDoa/akudoadot_p.h"

#include <arm_neon.h>

namespace {
// sx = sum s[n] * x[n], sy = sum s[n] * y[n] for n < len.
inline void sums8(const int8_t* s, const int8_t* x, const int8_t* y, int len, int32_t& sx, int32_t& sy)
{
    int32x4_t ax = vdupq_n_s32(0);
    int32x4_t ay = vdupq_n_s32(0);
    int n = 0;
    for (; n + 16 <= len; n += 16) {
        const int8x16_t sv = vld1q_s8(s + n);
        const int8x16_t xv = vld1q_s8(x + n);
        const int8x16_t yv = vld1q_s8(y + n);
        ax = vpadalq_s16(ax, vmull_s8(vget_low_s8(sv), vget_low_s8(xv)));
        ax = vpadalq_s16(ax, vmull_high_s8(sv, xv));
        ay = vpadalq_s16(ay, vmull_s8(vget_low_s8(sv), vget_low_s8(yv)));
        ay = vpadalq_s16(ay, vmull_high_s8(sv, yv));
    }
    if (n + 8 <= len) {
        const int8x8_t sv = vld1_s8(s + n);
        ax = vpadalq_s16(ax, vmull_s8(sv, vld1_s8(x + n)));
        ay = vpadalq_s16(ay, vmull_s8(sv, vld1_s8(y + n)));
        n += 8;
    }
    sx = vaddvq_s32(ax);
    sy = vaddvq_s32(ay);
    for (; n < len; ++n) {
        sx += static_cast<int32_t>(s[n]) * x[n];
        sy += static_cast<int32_t>(s[n]) * y[n];
    }
}
} // namespace

void akudoa_dot8_neon(const int8_t* a, const int8_t* s, int m2, int npix, float f, float* outRe,
                      float* outIm)
{
    const int8_t* ai = a + m2;
    const int n16 = m2 & ~15;
    const bool has8 = (m2 & 8) != 0;
    const int tail = m2 & ~7;
    for (int p = 0; p < npix; ++p) {
        const int8_t* sp = s + static_cast<long>(p) * m2;
        int32x4_t accR = vdupq_n_s32(0);
        int32x4_t accI = vdupq_n_s32(0);
        for (int n = 0; n < n16; n += 16) {
            const int8x16_t sv = vld1q_s8(sp + n);
            const int8x16_t rv = vld1q_s8(a + n);
            const int8x16_t iv = vld1q_s8(ai + n);
            accR = vpadalq_s16(accR, vmull_s8(vget_low_s8(sv), vget_low_s8(rv)));
            accR = vpadalq_s16(accR, vmull_high_s8(sv, rv));
            accI = vpadalq_s16(accI, vmull_s8(vget_low_s8(sv), vget_low_s8(iv)));
            accI = vpadalq_s16(accI, vmull_high_s8(sv, iv));
        }
        if (has8) {
            const int8x8_t sv = vld1_s8(sp + n16);
            accR = vpadalq_s16(accR, vmull_s8(sv, vld1_s8(a + n16)));
            accI = vpadalq_s16(accI, vmull_s8(sv, vld1_s8(ai + n16)));
        }
        int32_t re = vaddvq_s32(accR);
        int32_t im = vaddvq_s32(accI);
        for (int n = tail; n < m2; ++n) {
            re += static_cast<int32_t>(sp[n]) * a[n];
            im += static_cast<int32_t>(sp[n]) * ai[n];
        }
        outRe[p] = static_cast<float>(re) * f;
        outIm[p] = static_cast<float>(im) * f;
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8_check("neon", a, s, m2, npix, f, outRe, outIm);
#endif
}

void akudoa_dot8pair_neon(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re, float* im,
                          float* mre, float* mim)
{
    const int h = m2 / 2;
    for (int k = 0; k < npair; ++k) {
        const int8_t* sp = s + static_cast<long>(k) * m2;
        int32_t A, B, C, D;
        sums8(sp, a, a + m2, h, A, C);
        sums8(sp + h, a + h, a + m2 + h, h, B, D);
        mre[-k] = static_cast<float>(A - B) * f;
        mim[-k] = static_cast<float>(C - D) * f;
        re[k] = static_cast<float>(A + B) * f;
        im[k] = static_cast<float>(C + D) * f;
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8pair_check("neon", a, s, m2, npair, f, re, im, mre, mim);
#endif
}
