#ifndef AKUDOA_AKUDOAEXTRA_P_H
#define AKUDOA_AKUDOAEXTRA_P_H

#include <mutex>
#include <vector>

#include "AKUDoa/akudoaquantizev3_p.h"

// State of AKUDoaExtra: the planar record with the extended image size
// (core.imageRows = R', core.imageCols = C', P' = R' x C') plus the engine's
// own averaging flag. core.spectrumSelf starts true.
struct AKUDoaExtraPrivate {
    AKUDoaQuantizeV3Private core;
    bool freqAverage = true; // nothing changes it: the extended view always averages

    // Guards core.fftWindow: the kernel forwards window changes under its
    // engine lock while the extended readout runs without it.
    std::mutex windowMutex;
    std::vector<float> frameWindow; // the window of the frame being imaged (N)

    AKUDoaExtraPrivate() { core.spectrumSelf = true; }
};

// Rows of the table the extended view sums for a frame, in ascending order:
// bins lowBin, lowBin + 5, ... below highBin (lowBin = N*15000/fs, highBin =
// N*40000/fs, both 0 when fs is 0), halved with averaging, limited to B.
std::vector<int> akudoa_extra_rows(int sampleRate, int frameSize, int binNum, bool average);

#endif
