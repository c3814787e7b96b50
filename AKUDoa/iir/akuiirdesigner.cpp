#include "AKUDoa/iir/akuiirdesigner.h"

#include <cmath>

namespace {

// Shared quantities of the cookbook forms, in single precision except the
// normalised angular frequency (double, then rounded).
struct Common {
    float c;      // cos w
    float alpha;  // sin w / (2 q)
    float A;      // 10^(gainDb / 40): square root of the linear gain
    float r;      // 2 sqrt(A) alpha, the shelves' slope term
};

Common common(float f0, float q, float gainDb, float fs) {
    const float w = static_cast<float>(2.0 * 3.141592653589793 * static_cast<double>(f0) / static_cast<double>(fs));
    Common k;
    const float s = std::sin(w);
    k.c = std::cos(w);
    k.alpha = s * 0.5f / q;
    k.A = std::pow(10.0f, gainDb / 40.0f);
    k.r = 2.0f * std::sqrt(k.A) * k.alpha;
    return k;
}

}  // namespace

IIRCoef_t AKUIIRDesigner::createLowPass(float f0, float q, float gainDb, float fs) {
    const Common k = common(f0, q, gainDb, fs);
    const float d = 1.0f + k.alpha;
    IIRCoef_t o;
    o.b0 = (1.0f - k.c) * 0.5f / d;
    o.b1 = (1.0f - k.c) / d;
    o.b2 = o.b0;
    o.a0 = 1.0f;
    o.a1 = -2.0f * k.c / d;
    o.a2 = (1.0f - k.alpha) / d;
    return o;
}

IIRCoef_t AKUIIRDesigner::createHighPass(float f0, float q, float gainDb, float fs) {
    const Common k = common(f0, q, gainDb, fs);
    const float d = 1.0f + k.alpha;
    IIRCoef_t o;
    o.b0 = (1.0f + k.c) * 0.5f / d;
    o.b1 = -(1.0f + k.c) / d;
    o.b2 = o.b0;
    o.a0 = 1.0f;
    o.a1 = -2.0f * k.c / d;
    o.a2 = (1.0f - k.alpha) / d;
    return o;
}

IIRCoef_t AKUIIRDesigner::createLowShift(float f0, float q, float gainDb, float fs) {
    const Common k = common(f0, q, gainDb, fs);
    const float A = k.A, c = k.c, r = k.r;
    const float d = (A + 1.0f) + (A - 1.0f) * c + r;
    IIRCoef_t o;
    o.b0 = A * ((A + 1.0f) - (A - 1.0f) * c + r) / d;
    o.b1 = 2.0f * A * ((A - 1.0f) - (A + 1.0f) * c) / d;
    o.b2 = A * ((A + 1.0f) - (A - 1.0f) * c - r) / d;
    o.a0 = 1.0f;
    o.a1 = -2.0f * ((A - 1.0f) + (A + 1.0f) * c) / d;
    o.a2 = ((A + 1.0f) + (A - 1.0f) * c - r) / d;
    return o;
}

IIRCoef_t AKUIIRDesigner::createHighShift(float f0, float q, float gainDb, float fs) {
    const Common k = common(f0, q, gainDb, fs);
    const float A = k.A, c = k.c, r = k.r;
    const float d = (A + 1.0f) - (A - 1.0f) * c + r;
    IIRCoef_t o;
    o.b0 = A * ((A + 1.0f) + (A - 1.0f) * c + r) / d;
    o.b1 = -2.0f * A * ((A - 1.0f) + (A + 1.0f) * c) / d;
    o.b2 = A * ((A + 1.0f) + (A - 1.0f) * c - r) / d;
    o.a0 = 1.0f;
    o.a1 = 2.0f * ((A - 1.0f) - (A + 1.0f) * c) / d;
    o.a2 = ((A + 1.0f) - (A - 1.0f) * c - r) / d;
    return o;
}

IIRCoef_t AKUIIRDesigner::createNotch(float f0, float q, float gainDb, float fs) {
    const Common k = common(f0, q, gainDb, fs);
    const float d = 1.0f + k.alpha / k.A;
    IIRCoef_t o;
    o.b0 = (1.0f + k.alpha * k.A) / d;
    o.b1 = -2.0f * k.c / d;
    o.b2 = (1.0f - k.alpha * k.A) / d;
    o.a0 = 1.0f;
    o.a1 = -2.0f * k.c / d;
    o.a2 = (1.0f - k.alpha / k.A) / d;
    return o;
}
