#ifndef AKUDOA_AKUDOADISTANCE_P_H
#define AKUDOA_AKUDOADISTANCE_P_H

#include <cstdint>

#include "AKUDoa/base/akudoamatrix.h"

// State of AKUDoaDistance. Containers are null until initDistance and owned
// by the object.
struct AKUDoaDistancePrivate {
    vec_fp32* candidates = nullptr;   // C candidate distances, metres
    mat2d_fp32* delayTable = nullptr; // (R*C cells) x (C candidates * M): k * (path - |P|), rad per bin
    mat2d_fp32* coarseResult = nullptr; // bins x 2C: per bin Re at i, Im at C + i
    mat2d_fp32* fineResult = nullptr;   // the same for the fine pass
    vec_fp32* coarsePower = nullptr;    // C: band-summed power per candidate
    vec_fp32* finePower = nullptr;      // C

    int32_t frameSize = 1024;  // N
    int32_t measureRows = 12;  // R of the measurement grid
    int32_t measureCols = 12;  // C of the measurement grid
    int32_t micNum = 128;      // M, a multiple of 4
    int32_t binNum = 513;      // rows of the result tables
    int32_t imageRows = 64;    // NR
    int32_t imageCols = 48;    // NC
    int32_t candidateNum = 256;

    int32_t initialised = 0;

    int32_t rotateMode = 0;    // copy of the camera record's rotate_mode
    int32_t freqAverage = 0;   // spectra rows hold bin pairs
};

#endif
