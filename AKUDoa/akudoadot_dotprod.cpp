// Armv8.2 dot-product int8 beam sums (SDOT: four signed byte products
// summed into each 32-bit lane, exact). Chosen at run time when the CPU
// reports the ASIMDDP capability.
#include "AKUDoa/akudoadot_p.h"

#include <arm_neon.h>

namespace {
// sx = sum s[n] * x[n], sy = sum s[n] * y[n] for n < len.
inline void sumsDot(const int8_t* s, const int8_t* x, const int8_t* y, int len, int32_t& sx, int32_t& sy)
{
    int32x4_t ax = vdupq_n_s32(0);
    int32x4_t ay = vdupq_n_s32(0);
    int n = 0;
    for (; n + 16 <= len; n += 16) {
        const int8x16_t sv = vld1q_s8(s + n);
        ax = vdotq_s32(ax, sv, vld1q_s8(x + n));
        ay = vdotq_s32(ay, sv, vld1q_s8(y + n));
    }
    sx = vaddvq_s32(ax);
    sy = vaddvq_s32(ay);
    if (n + 8 <= len) {
        const int8x8_t sv = vld1_s8(s + n);
        sx += vaddv_s32(vdot_s32(vdup_n_s32(0), sv, vld1_s8(x + n)));
        sy += vaddv_s32(vdot_s32(vdup_n_s32(0), sv, vld1_s8(y + n)));
        n += 8;
    }
    for (; n < len; ++n) {
        sx += static_cast<int32_t>(s[n]) * x[n];
        sy += static_cast<int32_t>(s[n]) * y[n];
    }
}
} // namespace

void akudoa_dot8_dotprod(const int8_t* a, const int8_t* s, int m2, int npix, float f,
                         float* outRe, float* outIm)
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
            accR = vdotq_s32(accR, sv, vld1q_s8(a + n));
            accI = vdotq_s32(accI, sv, vld1q_s8(ai + n));
        }
        int32_t re = vaddvq_s32(accR);
        int32_t im = vaddvq_s32(accI);
        if (has8) {
            const int8x8_t sv = vld1_s8(sp + n16);
            re += vaddv_s32(vdot_s32(vdup_n_s32(0), sv, vld1_s8(a + n16)));
            im += vaddv_s32(vdot_s32(vdup_n_s32(0), sv, vld1_s8(ai + n16)));
        }
        for (int n = tail; n < m2; ++n) {
            re += static_cast<int32_t>(sp[n]) * a[n];
            im += static_cast<int32_t>(sp[n]) * ai[n];
        }
        outRe[p] = static_cast<float>(re) * f;
        outIm[p] = static_cast<float>(im) * f;
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8_check("dotprod", a, s, m2, npix, f, outRe, outIm);
#endif
}

void akudoa_dot8pair_dotprod(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re,
                             float* im, float* mre, float* mim)
{
    const int h = m2 / 2;
    for (int k = 0; k < npair; ++k) {
        const int8_t* sp = s + static_cast<long>(k) * m2;
        int32_t A, B, C, D;
        sumsDot(sp, a, a + m2, h, A, C);
        sumsDot(sp + h, a + h, a + m2 + h, h, B, D);
        mre[-k] = static_cast<float>(A - B) * f;
        mim[-k] = static_cast<float>(C - D) * f;
        re[k] = static_cast<float>(A + B) * f;
        im[k] = static_cast<float>(C + D) * f;
    }
#if defined(AKUDOA_CHECK_SIMD)
    akudoa_dot8pair_check("dotprod", a, s, m2, npair, f, re, im, mre, mim);
#endif
}
