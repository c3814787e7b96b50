#ifndef AKUDOA_AKUDOAFREQBANDS_P_H
#define AKUDOA_AKUDOAFREQBANDS_P_H

#include <mutex>
#include <vector>

#include "AKUDoa/akudoafreqbands.h"

struct AKUDoaFreqBandsPrivate {
    std::vector<doaFreqInfo> bands;   // main list, sorted by bin, duplicates kept
    int32_t frameSize = 0;            // FFT length N
    int32_t sampleRate = 0;           // fs in Hz
    int32_t maxUpFreq = 0;            // Hz
    int32_t minDownFreq = 999999;     // Hz
    std::mutex mutex;                 // guards bands, extBands and both caches
    std::vector<doaFreqInfo> dataCache;    // filtered bands; empty = rebuild on demand
    std::vector<doaFreqInfo> extBands;     // bands on the (N + 128) grid, sorted by bin
    std::vector<doaFreqInfo> extDataCache; // filtered extBands; empty = rebuild on demand
    std::vector<doaFreqInfo> blackList;    // insertion order
    bool blackListEnable = false;
};

// Read-only view of the internal lists, for tests.
class AKUDoaFreqBandsInspector {
public:
    static std::vector<doaFreqInfo> rawBands(const AKUDoaFreqBands& b)
    {
        std::lock_guard<std::mutex> lock(b.d->mutex);
        return b.d->bands;
    }
    static std::vector<doaFreqInfo> rawExtBands(const AKUDoaFreqBands& b)
    {
        std::lock_guard<std::mutex> lock(b.d->mutex);
        return b.d->extBands;
    }
};

#endif
