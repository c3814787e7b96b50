#ifndef AKUDOA_AKUDOAFREQBANDS_H
#define AKUDOA_AKUDOAFREQBANDS_H

#include <cstdint>
#include <vector>

#include "AKUDoa/base/akudoaexport.h"

// One FFT bin: its frequency (Hz, rounded down to the bin grid) and index.
struct doaFreqInfo {
    int32_t freq;
    int32_t bin;
};

// A wanted frequency range in Hz. lowFreq below 0 counts as 0, highFreq is
// clipped to half the sample rate, step <= 0 means every bin.
struct freqBandWidth {
    int32_t lowFreq;
    int32_t highFreq;
    int32_t step;
};

struct AKUDoaFreqBandsPrivate;

// Decides which FFT bins the engines sum over. The bin lists are guarded by
// an internal mutex and may be read from the frame thread while the control
// thread calls updateBands. The black-list operations take no lock and are
// meant for the control thread only. A black-list change reaches data() only
// after the next updateBands (the filtered list is cached on purpose).
class AKUDOA_EXPORT AKUDoaFreqBands {
public:
    AKUDoaFreqBands(int frameSize, int sampleRate);
    ~AKUDoaFreqBands();
    AKUDoaFreqBands(const AKUDoaFreqBands&) = delete;
    AKUDoaFreqBands& operator=(const AKUDoaFreqBands&) = delete;

    // Rebuilds the bin lists for the frame size and, for the frequency-domain
    // pickup, for a frame of frameSize + 128 samples; drops both caches.
    void updateBands(const std::vector<freqBandWidth>& bands);

    // Sorted, de-duplicated bins without black-listed ones.
    std::vector<doaFreqInfo> data();
    std::vector<doaFreqInfo> constData() const;
    // Sorted, de-duplicated bins on the frameSize + 128 grid (no black list).
    std::vector<doaFreqInfo> dataExt();
    std::vector<doaFreqInfo> constDataExt() const;

    int maxUpFreq();   // Hz, highest clipped upper edge; 0 when none
    int minDownFreq(); // Hz, lowest clipped lower edge; 999999 when none

    void addBlackList(int freq); // freq in Hz, black-lists its bin
    std::vector<doaFreqInfo> getBlackList();
    void clearBlackList();
    void enableBlackList();
    void disenableBlackList();
    bool getIsBlackListEnable();
    // Compares bins only; false whenever the black list is disabled.
    bool containInBlackList(doaFreqInfo info) const;

private:
    friend class AKUDoaFreqBandsInspector; // white-box access for tests
    AKUDoaFreqBandsPrivate* d;
};

#endif
