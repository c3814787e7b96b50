#ifndef AKUDOA_AKUDOATARGETRANGE_P_H
#define AKUDOA_AKUDOATARGETRANGE_P_H

#include <vector>

#include "AKUDoa/akucluster.h"
#include "AKUDoa/akudoafreqbands.h"
#include "AKUDoa/base/akudoamatrix.h"

// Target frequency-range search shared by the planar engines (V3 over its
// beamPower rows, V4 over its binMaps rows). Both keep, per table row, the
// pixel powers of the last frame as a rows x cols row-major image; nothing
// else of the engine is read.
struct AKUDoaTargetRangeSource {
    mat2d_fp32* binPower; // B rows of rows * cols pixel powers
    int rows;             // image rows R
    int cols;             // image columns C
    int micNum;           // M, for the (M - 1) * M normalisation
    int frameSize;        // N, samples per frame
    int sampleRate;       // Hz
    bool freqAverage;     // every second band entry, table row = bin >> 1
};

// Peaks within three pixels of target in each visited bin, split into three
// clusters of bins by `cluster`; the range is chosen from the clusters'
// shares, gaps and sizes. Sets both bounds to -1 first; on success writes
// them in Hz and adds the range's peak powers to `power`, then turns power
// into an amplitude (sqrt(power / ((M-1)M)) / N).
void akudoa_find_target_freq_range(const AKUDoaTargetRangeSource& src, AKUCluster* cluster, fpoint2d target,
                                   const std::vector<doaFreqInfo>& L, int& lowFreq, int& highFreq, float& power);

// Amplitude of a target pixel from its sensitivity-weighted power sum over
// the band: sqrt(sum / ((M-1)M)) / N. Without self-spectrum a negative sum
// (side lobe after the self terms were removed) reads 0; with it, NaN.
float akudoa_target_amplitude(float sum, int micNum, int frameSize, bool spectrumSelf);

#endif
