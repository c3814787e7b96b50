#include "AKUDoa/akudoatargetrange_p.h"

#include <algorithm>
#include <cmath>

#include "AKUDoa/base/akudoaarray.h"

void akudoa_find_target_freq_range(const AKUDoaTargetRangeSource& src, AKUCluster* cluster, fpoint2d target,
                                   const std::vector<doaFreqInfo>& L, int& lowFreq, int& highFreq, float& power)
{
    lowFreq = -1;
    highFreq = -1;
    if (L.empty() || !src.binPower || !cluster)
        return;
    const int R = src.rows;
    const int C = src.cols;
    const int M = src.micNum;
    const int N = src.frameSize;
    const int B = src.binPower->rows;
    const bool average = src.freqAverage;
    const int stride = average ? 2 : 1;

    // Accepted peaks: the band entry's bin (full FFT resolution, also with
    // averaging, so that the range converts with the FFT bin width) and the
    // peak's power.
    struct IdxType {
        int bin;
        float value;
    };
    std::vector<IdxType> F;
    // The search window may extend past the image; only the image is scanned.
    const int r0 = std::max(target.x - 8, 0), r1 = std::min(target.x + 8, R);
    const int c0 = std::max(target.y - 8, 0), c1 = std::min(target.y + 8, C);
    std::vector<fpoint2d> peaks;
    for (size_t k = 0; k < L.size(); k += static_cast<size_t>(stride)) {
        const int b = average ? (L[k].bin >> 1) : L[k].bin;
        if (b < 0 || b >= B)
            continue;
        peaks.clear();
        if (r0 < r1 && c0 < c1)
            array_findpeak2d(src.binPower->data[b], R, C, 0.0f, peaks, r0, r1, c0, c1);
        std::sort(peaks.begin(), peaks.end(), [](const fpoint2d& a, const fpoint2d& q) { return a.val > q.val; });
        for (const fpoint2d& pk : peaks) {
            if (pk.val < 0.01f)
                break;
            if (point_quad(pk, target) <= 9.0f) { // within three pixels
                F.push_back({L[k].bin, pk.val});
                break;
            }
        }
    }

    std::vector<int> bins;
    bins.reserve(F.size());
    for (const IdxType& e : F)
        bins.push_back(e.bin);
    const std::vector<std::vector<int>> K = cluster->doKCluster(bins, 3);
    // An empty cluster has no first or last bin: treated like a failed split.
    if (K.size() != 3 || K[0].empty() || K[1].empty() || K[2].empty())
        return;
    const size_t size0 = K[0].size(), size1 = K[1].size(), size2 = K[2].size();
    float s0 = 0.0f, s1 = 0.0f, s2 = 0.0f;
    size_t i = 0;
    for (size_t n = 0; n < size0 && i < F.size(); ++n)
        s0 += F[i++].value;
    for (size_t n = 0; n < size1 && i < F.size(); ++n)
        s1 += F[i++].value;
    for (size_t n = 0; n < size2 && i < F.size(); ++n)
        s2 += F[i++].value;
    const float total = s0 + s1 + s2;
    const int gap01 = K[1].front() - K[0].back();
    const int gap12 = K[2].front() - K[1].back();
    int lo = K[0].front();
    int hi = K[2].back();
    // Rules 1 to 3 cannot fire with positive powers; they are kept so the
    // decision table stays complete.
    if (0.05 * s0 > total) {
        hi = K[0].back();
        if (gap01 < 21) {
            hi = K[2].back();
            if (gap12 > 20)
                hi = K[1].back();
        }
    } else if (total < 0.05 * s1) {
        if (gap01 > 20)
            lo = K[1].front();
        if (gap12 > 20)
            hi = K[1].back();
    } else if (total < 0.05 * s2) {
        lo = K[2].front();
        if (gap12 < 21) {
            lo = K[0].front();
            if (gap01 > 20)
                lo = K[1].front();
        }
    } else if (size1 >= size0 && size1 >= size2) {
        if (gap01 > 20)
            lo = K[1].front();
        if (gap12 > 20)
            hi = K[1].back();
    } else if (size0 > size1 && size0 >= size2) {
        hi = K[0].back();
        if (gap01 < 21)
            hi = K[1].back();
    } else {
        lo = K[2].front();
        if (gap12 < 21)
            lo = K[1].front();
    }
    for (const IdxType& e : F)
        if (e.bin >= lo && e.bin <= hi)
            power += e.value;
    power = std::sqrt(power / static_cast<float>((M - 1) * M)) / static_cast<float>(N);
    lowFreq = (lo * src.sampleRate) / N;
    highFreq = (hi * src.sampleRate) / N;
}

float akudoa_target_amplitude(float sum, int micNum, int frameSize, bool spectrumSelf)
{
    sum = sum / static_cast<float>((micNum - 1) * micNum);
    float a;
    if (spectrumSelf)
        a = std::sqrt(sum);
    else
        a = sum < 0.0f ? 0.0f : std::sqrt(sum);
    return a / static_cast<float>(frameSize);
}
