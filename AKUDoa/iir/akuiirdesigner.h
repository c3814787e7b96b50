#ifndef AKUDOA_IIR_AKUIIRDESIGNER_H
#define AKUDOA_IIR_AKUIIRDESIGNER_H

// Audio-EQ-cookbook biquads. Arguments: f0 corner or centre frequency (Hz),
// q quality factor, gainDb shelf or peak gain (dB; ignored by the low- and
// high-pass), fs sample rate (Hz). Nothing is checked: q = 0 or fs = 0 give
// infinities or NaN. Coefficients come back normalised (a0 = 1).

#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/iir/akufilter.h"

class AKUDOA_EXPORT AKUIIRDesigner {
public:
    static IIRCoef_t createLowPass(float f0, float q, float gainDb, float fs);
    static IIRCoef_t createHighPass(float f0, float q, float gainDb, float fs);
    // Low shelf: gainDb below f0, unity above.
    static IIRCoef_t createLowShift(float f0, float q, float gainDb, float fs);
    // High shelf: unity below f0, gainDb above.
    static IIRCoef_t createHighShift(float f0, float q, float gainDb, float fs);
    // Peaking section: gainDb at f0 (a cut when negative), unity far from it;
    // gainDb = 0 is the identity.
    static IIRCoef_t createNotch(float f0, float q, float gainDb, float fs);
};

#endif
