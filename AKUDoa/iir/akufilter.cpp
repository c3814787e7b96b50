#include "AKUDoa/iir/akufilter.h"

#include <cmath>
#include <cstdint>

#include "AKUDoa/base/akudoalogging.h"

struct AKUFilterPrivate {
    IIRCoef_t coef;
    float s1;  // state of the transposed direct form II
    float s2;
};

namespace {

const float kShortScale = 32767.0f;

inline float fromShort(short v) { return static_cast<float>(v) / kShortScale; }

// Truncation toward zero with saturation at the 32-bit range (as the Arm
// conversion instruction does; NaN gives 0), then the low 16 bits only.
inline short toShort(float y) {
    const float v = y * kShortScale;
    int32_t i;
    if (std::isnan(v))
        i = 0;
    else if (v >= 2147483648.0f)
        i = INT32_MAX;
    else if (v <= -2147483648.0f)
        i = INT32_MIN;
    else
        i = static_cast<int32_t>(v);
    return static_cast<short>(static_cast<uint16_t>(static_cast<uint32_t>(i) & 0xFFFFu));
}

// Runs the section over n samples; Load and Store convert the sample types.
template <typename In, typename Out, typename Load, typename Store>
inline void runSection(AKUFilterPrivate* d, const In* in, Out* out, int n, Load load, Store store) {
    if (n <= 0) return;
    const IIRCoef_t c = d->coef;
    float s1 = d->s1;
    float s2 = d->s2;
    for (int i = 0; i < n; ++i) {
        const float x = load(in[i]);
        const float y = std::fmaf(c.b0, x, s1);
        s1 = (c.b1 * x - c.a1 * y) + s2;
        s2 = c.b2 * x - c.a2 * y;
        out[i] = store(y);
    }
    d->s1 = s1;
    d->s2 = s2;
}

}  // namespace

AKUFilter::AKUFilter(IIRCoef_t coef) : d(new AKUFilterPrivate{coef, 0.0f, 0.0f}) {}

AKUFilter::~AKUFilter() { delete d; }

void AKUFilter::setCoef(IIRCoef_t coef) {
    d->coef = coef;
    d->s1 = 0.0f;
    d->s2 = 0.0f;
    // Location kept stable for hosts that filter the log by it.
    AKUMessage("../../V5/AKUDoa/iir/akufilter", 67, "void AKUFilter::setCoef(IIRCoef)").debug()
        << "filter coef" << coef.a0 << coef.a1 << coef.a2 << coef.b0 << coef.b1 << coef.b2;
}

void AKUFilter::reset() {
    d->s1 = 0.0f;
    d->s2 = 0.0f;
}

void AKUFilter::filter(const float* in, float* out, int n) {
    runSection(d, in, out, n, [](float v) { return v; }, [](float y) { return y; });
}

void AKUFilter::filter(const short* in, short* out, int n) {
    runSection(d, in, out, n, fromShort, toShort);
}

void AKUFilter::filter(const short* in, float* out, int n) {
    runSection(d, in, out, n, fromShort, [](float y) { return y; });
}

void AKUFilter::filter(const float* in, short* out, int n) {
    runSection(d, in, out, n, [](float v) { return v; }, toShort);
}
