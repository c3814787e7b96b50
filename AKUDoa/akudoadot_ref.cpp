#include "AKUDoa/akudoadot_p.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#if !defined(AKUDOA_FORCE_SCALAR) && defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

void akudoa_dot8_ref(const int8_t* a, const int8_t* s, int m2, int npix, float f, float* outRe,
                     float* outIm)
{
    const int8_t* ai = a + m2;
    for (int p = 0; p < npix; ++p) {
        const int8_t* sp = s + static_cast<long>(p) * m2;
        int32_t re = 0;
        int32_t im = 0;
        for (int n = 0; n < m2; ++n) {
            re += static_cast<int32_t>(sp[n]) * a[n];
            im += static_cast<int32_t>(sp[n]) * ai[n];
        }
        outRe[p] = static_cast<float>(re) * f;
        outIm[p] = static_cast<float>(im) * f;
    }
}

void akudoa_dot8pair_ref(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re, float* im,
                         float* mre, float* mim)
{
    const int h = m2 / 2;
    for (int k = 0; k < npair; ++k) {
        const int8_t* sp = s + static_cast<long>(k) * m2;
        int32_t A = 0, B = 0, C = 0, D = 0;
        for (int n = 0; n < h; ++n) {
            A += static_cast<int32_t>(sp[n]) * a[n];
            B += static_cast<int32_t>(sp[h + n]) * a[h + n];
            C += static_cast<int32_t>(sp[n]) * a[m2 + n];
            D += static_cast<int32_t>(sp[h + n]) * a[m2 + h + n];
        }
        mre[-k] = static_cast<float>(A - B) * f;
        mim[-k] = static_cast<float>(C - D) * f;
        re[k] = static_cast<float>(A + B) * f;
        im[k] = static_cast<float>(C + D) * f;
    }
}

std::vector<AKUDoaDot8Path> akudoa_dot8_paths()
{
    std::vector<AKUDoaDot8Path> paths;
    paths.push_back({"ref", akudoa_dot8_ref, akudoa_dot8pair_ref});
#if !defined(AKUDOA_FORCE_SCALAR) && defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        paths.push_back({"avx2", akudoa_dot8_avx2, akudoa_dot8pair_avx2});
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vnni"))
        paths.push_back({"avx512vnni", akudoa_dot8_avx512, akudoa_dot8pair_avx512});
#endif
#if !defined(AKUDOA_FORCE_SCALAR) && defined(__aarch64__)
    paths.push_back({"neon", akudoa_dot8_neon, akudoa_dot8pair_neon});
#ifdef HWCAP_ASIMDDP
    if (getauxval(AT_HWCAP) & HWCAP_ASIMDDP)
        paths.push_back({"dotprod", akudoa_dot8_dotprod, akudoa_dot8pair_dotprod});
#endif
#endif
    return paths;
}

AKUDoaDot8Path akudoa_dot8_select()
{
    return akudoa_dot8_paths().back();
}

void akudoa_dot8_check(const char* path, const int8_t* a, const int8_t* s, int m2, int npix,
                       float f, const float* outRe, const float* outIm)
{
    std::vector<float> re(static_cast<size_t>(npix)), im(static_cast<size_t>(npix));
    akudoa_dot8_ref(a, s, m2, npix, f, re.data(), im.data());
    if (npix > 0 && (std::memcmp(re.data(), outRe, sizeof(float) * npix) != 0 ||
                     std::memcmp(im.data(), outIm, sizeof(float) * npix) != 0)) {
        std::fprintf(stderr, "akudoa: int8 beam sum path %s disagrees with the reference\n", path);
        std::abort();
    }
}

void akudoa_dot8pair_check(const char* path, const int8_t* a, const int8_t* s, int m2, int npair, float f,
                           const float* re, const float* im, const float* mre, const float* mim)
{
    for (int k = 0; k < npair; ++k) {
        float r[2], i[2]; // direct, then mirror (kept apart: the centre may alias)
        akudoa_dot8pair_ref(a, s + static_cast<long>(k) * m2, m2, 1, f, r, i, r + 1, i + 1);
        const bool self = mre - k == re + k;
        if (std::memcmp(&r[0], re + k, sizeof(float)) != 0 || std::memcmp(&i[0], im + k, sizeof(float)) != 0 ||
            (!self && (std::memcmp(&r[1], mre - k, sizeof(float)) != 0 ||
                       std::memcmp(&i[1], mim - k, sizeof(float)) != 0))) {
            std::fprintf(stderr, "akudoa: int8 mirror-pair sum path %s disagrees with the reference\n", path);
            std::abort();
        }
    }
}
