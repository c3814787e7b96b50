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

std::vector<AKUDoaDot8Path> akudoa_dot8_paths()
{
    std::vector<AKUDoaDot8Path> paths;
    paths.push_back({"ref", akudoa_dot8_ref});
#if !defined(AKUDOA_FORCE_SCALAR) && defined(__x86_64__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2"))
        paths.push_back({"avx2", akudoa_dot8_avx2});
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vnni"))
        paths.push_back({"avx512vnni", akudoa_dot8_avx512});
#endif
#if !defined(AKUDOA_FORCE_SCALAR) && defined(__aarch64__)
    paths.push_back({"neon", akudoa_dot8_neon});
#ifdef HWCAP_ASIMDDP
    if (getauxval(AT_HWCAP) & HWCAP_ASIMDDP)
        paths.push_back({"dotprod", akudoa_dot8_dotprod});
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
