#ifndef AKUDOA_TOOLS_CHECK_H
#define AKUDOA_TOOLS_CHECK_H

// The array health check behind `akudoa check`: per-microphone levels,
// clipping, DC and neighbour coherence, and, with one source in view, each
// microphone's delay against the beam steered at it.

#include <complex>
#include <string>
#include <vector>

#include "geometry.h"

namespace akutool {

// Thresholds, all against what the array itself does (its median), so the
// check does not depend on the source's level or the band.
struct CheckLimits {
    double deadBelowDb = 20;      // level this far below the median: dead
    double quietBelowDb = 6;      // ... or this far below with no coherence
    double noisyAboveDb = 10;     // level this far above the median with low coherence: noisy
    double coherenceShare = 0.5;  // "no coherence": below this share of the median coherence
    double clippedShare = 0.01;   // samples at the channel's own extreme value
    double clearPeakDb = 3;       // strongest peak this much above any other: one clear source
    double delaySpread = 5;       // delay off by this many robust deviations of the array ...
    double delayFloorSamples = 0.3; // ... and at least this many sample periods
};

struct MicReport {
    Vec3 position;
    int channel = 0;     // recording channel feeding the position
    double rmsDb = 0, peakDb = 0, clippedPct = 0, dc = 0, coherence = 0;
    bool delayKnown = false;
    double delayUs = 0, predictedUs = 0;
    double polarity = 1; // sign of the correlation with the beam at its peak
    std::string status = "ok";
    int swappedWith = -1;
};

// Level checks on the positions' signals (one vector per position).
// neighbours[i] lists the positions whose multiple coherence with i counts.
void checkLevels(const std::vector<std::vector<float>>& sig, const std::vector<std::vector<int>>& neighbours,
                 int frameSize, int sampleRate, double lowHz, double highHz, const CheckLimits& lim,
                 std::vector<MicReport>& mics);

// Delay checks: GCC-PHAT of every position's signal against the beam, in
// the band, compared with predictedS (seconds, relative to the array
// centre). Positions already flagged by the level checks are left out.
void checkDelays(const std::vector<std::vector<float>>& sig, const std::vector<float>& beam,
                 const std::vector<double>& predictedS, int sampleRate, double lowHz, double highHz,
                 const CheckLimits& lim, std::vector<MicReport>& mics);

// The k nearest other positions of each position.
std::vector<std::vector<int>> nearestNeighbours(const std::vector<Vec3>& pos, int k);

} // namespace akutool

#endif
