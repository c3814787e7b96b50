// Armv8.2 dot-product int8 beam sums (SDOT: four signed byte products
// summed into each 32-bit lane, exact). Chosen at run time when the CPU
// reports the ASIMDDP capability.
#include "AKUDoa/akudoadot_p.h"

#include <arm_neon.h>

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
