#ifndef AKUDOA_AKUDOADOT_P_H
#define AKUDOA_AKUDOADOT_P_H

#include <cstdint>
#include <vector>

// int8 beam sums of one steering-table row.
//
//   a    : 2*m2 quantized spectrum bytes of the bin: the first m2 are paired
//          with a steering block to give the real part, the next m2 the
//          imaginary part (m2 = 2 * microphones).
//   s    : npix consecutive steering blocks of m2 bytes each.
//   f    : dequantization factor of the bin.
//   outRe[p] = float(sum_n s[p*m2+n] * a[n]) * f
//   outIm[p] = float(sum_n s[p*m2+n] * a[m2+n]) * f
//
// The sums are exact in int32 for any int8 input up to m2 = 65536, so every
// vector path equals the scalar reference bit for bit. m2 need not be a
// multiple of any block width: each path handles the remainder.
typedef void (*AKUDoaDot8Fn)(const int8_t* a, const int8_t* s, int m2, int npix, float f,
                             float* outRe, float* outIm);

// Plain scalar version: the oracle of the tests and the fallback.
void akudoa_dot8_ref(const int8_t* a, const int8_t* s, int m2, int npix, float f, float* outRe,
                     float* outIm);

#if !defined(AKUDOA_FORCE_SCALAR) && defined(__x86_64__)
void akudoa_dot8_avx2(const int8_t* a, const int8_t* s, int m2, int npix, float f, float* outRe,
                      float* outIm);
void akudoa_dot8_avx512(const int8_t* a, const int8_t* s, int m2, int npix, float f, float* outRe,
                        float* outIm);
#endif
#if !defined(AKUDOA_FORCE_SCALAR) && defined(__aarch64__)
void akudoa_dot8_neon(const int8_t* a, const int8_t* s, int m2, int npix, float f, float* outRe,
                      float* outIm);
void akudoa_dot8_dotprod(const int8_t* a, const int8_t* s, int m2, int npix, float f,
                         float* outRe, float* outIm);
#endif

// Beam sums of a table that keeps one block per mirror pair of pixels. The
// mirror of a far-field pixel sees the opposite direction, so its block is
// the conjugate (same cosines, negated sines) of the stored one. With
// h = m2 / 2 (m2 even: M cosines then M sines per block) and, for pair k,
//   A = sum_{n<h} s[n] * a[n]         B = sum_{n<h} s[h+n] * a[h+n]
//   C = sum_{n<h} s[n] * a[m2+n]      D = sum_{n<h} s[h+n] * a[m2+h+n]
// the stored pixel gets re[k] = float(A + B) * f, im[k] = float(C + D) * f
// (exactly what the full kernel gives for that block) and its mirror
// mre[-k] = float(A - B) * f, mim[-k] = float(C - D) * f. The mirror is
// written first, so a pixel that is its own mirror (the centre of an odd
// image, mre == re for that k) keeps the stored pixel's values.
typedef void (*AKUDoaDot8PairFn)(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re,
                                 float* im, float* mre, float* mim);

void akudoa_dot8pair_ref(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re, float* im,
                         float* mre, float* mim);
#if !defined(AKUDOA_FORCE_SCALAR) && defined(__x86_64__)
void akudoa_dot8pair_avx2(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re, float* im,
                          float* mre, float* mim);
void akudoa_dot8pair_avx512(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re,
                            float* im, float* mre, float* mim);
#endif
#if !defined(AKUDOA_FORCE_SCALAR) && defined(__aarch64__)
void akudoa_dot8pair_neon(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re, float* im,
                          float* mre, float* mim);
void akudoa_dot8pair_dotprod(const int8_t* a, const int8_t* s, int m2, int npair, float f, float* re,
                             float* im, float* mre, float* mim);
#endif

// One instruction-set path: the full-table kernel and its mirror-pair twin.
struct AKUDoaDot8Path {
    const char* name;
    AKUDoaDot8Fn fn;
    AKUDoaDot8PairFn pair = nullptr;
};

// Every path this CPU can run, the reference first. Detects the CPU; call
// it once (engine set-up, tests), never per frame.
std::vector<AKUDoaDot8Path> akudoa_dot8_paths();
// The fastest path this CPU can run (the last of akudoa_dot8_paths()).
AKUDoaDot8Path akudoa_dot8_select();

// Check mode: recomputes with the reference and aborts on any difference.
void akudoa_dot8_check(const char* path, const int8_t* a, const int8_t* s, int m2, int npix,
                       float f, const float* outRe, const float* outIm);
void akudoa_dot8pair_check(const char* path, const int8_t* a, const int8_t* s, int m2, int npair, float f,
                           const float* re, const float* im, const float* mre, const float* mim);

#endif
