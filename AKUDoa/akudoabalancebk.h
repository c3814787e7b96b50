#ifndef AKUDOA_AKUDOABALANCEBK_H
#define AKUDOA_AKUDOABALANCEBK_H

// Background normalisation of a heat map: each cell is divided by the mean
// of the (padRows + 1) x (padCols + 1) window around it (borders mirrored so
// edge cells are judged against real neighbours), then everything not
// strictly above factor x the positive-part median is cleared and the excess
// is scaled by 1e-4.
//
// One instance per heat-map stream: backNormalization uses an owned scratch
// matrix and must not run concurrently on the same object.

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/base/akudoaexport.h"
#include "AKUDoa/base/akudoamatrix.h"

struct AKUDoaBalanceBKPrivate;

class AKUDOA_EXPORT AKUDoaBalanceBK {
public:
    // Presets: 64 x 48 map, 12-cell borders; no scratch until doaInit.
    AKUDoaBalanceBK();
    ~AKUDoaBalanceBK();

    AKUDoaBalanceBK(const AKUDoaBalanceBK&) = delete;
    AKUDoaBalanceBK& operator=(const AKUDoaBalanceBK&) = delete;

    // Takes the map size (imageResolutionRow x imageResolutionCol) and the
    // border sizes (extendRows, extendCols) from cfg, which stays the
    // caller's, and allocates the mirrored scratch.
    void doaInit(StCamCfg* cfg);

    // in and out are rows x cols (they may be the same matrix). Returns the
    // threshold applied (median x factor). Must follow doaInit; borders
    // larger than twice the map read outside it.
    float backNormalization(mat2d_fp32* in, mat2d_fp32* out, float factor);

private:
    AKUDoaBalanceBKPrivate* d;
};

#endif
