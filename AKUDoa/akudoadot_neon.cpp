// NEON int8 beam sums: signed byte products widened to 16 bits (vmull),
// pairwise added into 32-bit lanes (vpadal). A product fits int16 even for
// -128 * -128, so the sums equal the reference for any int8 input.
#include "AKUDoa/akudoadot_p.h"

#include <arm_neon.h>

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
