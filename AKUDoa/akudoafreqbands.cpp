#include "AKUDoa/akudoafreqbands.h"

#include <algorithm>

#include "AKUDoa/akudoafreqbands_p.h"

namespace {

// Extra samples of the finer grid used by the frequency-domain pickup.
constexpr int32_t kExtFrameExtra = 128;

// Integer products of the bin arithmetic are formed in 64 bits and narrowed:
// identical to 32-bit arithmetic for every in-range input, without signed
// overflow for absurd ones.
inline int32_t mulDiv(int32_t a, int32_t b, int32_t c)
{
    return static_cast<int32_t>(static_cast<int64_t>(a) * b / c);
}

inline bool binLess(const doaFreqInfo& a, const doaFreqInfo& b) { return a.bin < b.bin; }

// Appends the bins of one range on the grid of an n-point FFT. Returns true
// when the range was non-empty (lo < hi), i.e. when it counts for the edges.
bool appendRange(std::vector<doaFreqInfo>& out, const freqBandWidth& band, int32_t n, int32_t fs,
                 int32_t& lo, int32_t& hi)
{
    lo = std::max(band.lowFreq, 0);
    hi = std::min(band.highFreq, fs >> 1);
    const int32_t step = band.step > 0 ? band.step : 1;
    if (lo < hi) {
        const int32_t nbins = (n >> 1) + 1;
        const int32_t loBin = mulDiv(n, lo, fs);
        // Inclusive bound that may reach nbins, one past the Nyquist bin:
        // the engines size their bin rows for it.
        const int32_t hiBin = std::min(nbins, mulDiv(n, hi, fs));
        for (int64_t bin = loBin; bin <= hiBin; bin += step) {
            const int32_t b = static_cast<int32_t>(bin);
            out.push_back({mulDiv(b, fs, n), b});
        }
        return true;
    }
    if (lo == hi) {
        const int32_t bin = mulDiv(n, lo, fs);
        out.push_back({mulDiv(fs, bin, n), bin});
    }
    return false;
}

// Walks a sorted list, collapsing adjacent equal bins to the first one.
template <typename Skip>
void buildCache(const std::vector<doaFreqInfo>& src, std::vector<doaFreqInfo>& cache, Skip skip)
{
    for (const doaFreqInfo& info : src) {
        if (skip(info))
            continue;
        if (cache.empty() || cache.back().bin != info.bin)
            cache.push_back(info);
    }
}

} // namespace

AKUDoaFreqBands::AKUDoaFreqBands(int frameSize, int sampleRate)
    : d(new AKUDoaFreqBandsPrivate)
{
    d->frameSize = frameSize;
    d->sampleRate = sampleRate;
}

AKUDoaFreqBands::~AKUDoaFreqBands()
{
    delete d;
    d = nullptr;
}

void AKUDoaFreqBands::updateBands(const std::vector<freqBandWidth>& bands)
{
    d->maxUpFreq = 0;
    d->minDownFreq = 999999;

    const int32_t fs = d->sampleRate;
    const int32_t n = d->frameSize;
    std::vector<doaFreqInfo> main;
    std::vector<doaFreqInfo> ext;
    // A manager built with a non-positive rate or length has no bin grid.
    if (fs > 0 && n > 0) {
        int32_t lo = 0;
        int32_t hi = 0;
        for (const freqBandWidth& band : bands) {
            if (appendRange(main, band, n, fs, lo, hi)) {
                d->maxUpFreq = std::max(d->maxUpFreq, hi);
                d->minDownFreq = std::min(d->minDownFreq, lo);
            }
        }
        std::sort(main.begin(), main.end(), binLess);

        const int32_t nExt = n + kExtFrameExtra;
        for (const freqBandWidth& band : bands)
            appendRange(ext, band, nExt, fs, lo, hi);
        std::sort(ext.begin(), ext.end(), binLess);
    }

    std::lock_guard<std::mutex> lock(d->mutex);
    d->bands.swap(main);
    d->dataCache.clear();
    d->extBands.swap(ext);
    d->extDataCache.clear();
}

std::vector<doaFreqInfo> AKUDoaFreqBands::data()
{
    return constData();
}

std::vector<doaFreqInfo> AKUDoaFreqBands::constData() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (d->dataCache.empty())
        buildCache(d->bands, d->dataCache, [this](const doaFreqInfo& info) { return containInBlackList(info); });
    return d->dataCache;
}

std::vector<doaFreqInfo> AKUDoaFreqBands::dataExt()
{
    return constDataExt();
}

std::vector<doaFreqInfo> AKUDoaFreqBands::constDataExt() const
{
    std::lock_guard<std::mutex> lock(d->mutex);
    if (d->extDataCache.empty())
        buildCache(d->extBands, d->extDataCache, [](const doaFreqInfo&) { return false; });
    return d->extDataCache;
}

int AKUDoaFreqBands::maxUpFreq()
{
    return d->maxUpFreq;
}

int AKUDoaFreqBands::minDownFreq()
{
    return d->minDownFreq;
}

void AKUDoaFreqBands::addBlackList(int freq)
{
    if (d->sampleRate <= 0)
        return;
    const doaFreqInfo info{freq, mulDiv(freq, d->frameSize, d->sampleRate)};
    // While the list is disabled nothing is "contained", so repeated calls
    // append duplicates; harmless for the bin test.
    if (!containInBlackList(info))
        d->blackList.push_back(info);
}

std::vector<doaFreqInfo> AKUDoaFreqBands::getBlackList()
{
    return d->blackList;
}

void AKUDoaFreqBands::clearBlackList()
{
    d->blackList.clear();
}

void AKUDoaFreqBands::enableBlackList()
{
    d->blackListEnable = true;
}

void AKUDoaFreqBands::disenableBlackList()
{
    d->blackListEnable = false;
}

bool AKUDoaFreqBands::getIsBlackListEnable()
{
    return d->blackListEnable;
}

bool AKUDoaFreqBands::containInBlackList(doaFreqInfo info) const
{
    if (!d->blackListEnable)
        return false;
    for (const doaFreqInfo& b : d->blackList) {
        if (b.bin == info.bin)
            return true;
    }
    return false;
}
