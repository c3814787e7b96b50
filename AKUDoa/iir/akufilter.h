#ifndef AKUDOA_IIR_AKUFILTER_H
#define AKUDOA_IIR_AKUFILTER_H

// One second-order IIR section (biquad) run over blocks of audio, keeping
// its state between blocks.

#include <cstdint>

#include "AKUDoa/base/akudoaexport.h"

// Coefficients of one biquad, already normalised by a0:
//   y[n] = b0 x[n] + b1 x[n-1] + b2 x[n-2] - a1 y[n-1] - a2 y[n-2]
// a0 is 1 as produced by AKUIIRDesigner and never read by the filter.
typedef struct IIRCoef {
    float b0;
    float b1;
    float b2;
    float a0;
    float a1;
    float a2;
} IIRCoef_t;

struct AKUFilterPrivate;

// Transposed direct form II in single precision. Not thread safe: one
// filter instance per audio stream.
class AKUDOA_EXPORT AKUFilter {
public:
    explicit AKUFilter(IIRCoef_t coef);
    ~AKUFilter();

    AKUFilter(const AKUFilter&) = delete;
    AKUFilter& operator=(const AKUFilter&) = delete;

    // Replaces the coefficients and clears the state (logs them).
    void setCoef(IIRCoef_t coef);
    // Clears the state: the next block starts as in a fresh filter.
    void reset();

    // n samples from in to out; in and out may be the same buffer; n <= 0
    // does nothing. 16-bit samples are full scale at +-32767: inputs are
    // divided by 32767, outputs multiplied by 32767, truncated toward zero
    // and stored as the low 16 bits (beyond full scale they wrap, they are
    // not clipped).
    void filter(const float* in, float* out, int n);
    void filter(const short* in, short* out, int n);
    void filter(const short* in, float* out, int n);
    void filter(const float* in, short* out, int n);

private:
    AKUFilterPrivate* d;
};

#endif
