#include "AKUDoa/akudoaextra.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "AKUDoa/akudoaextra_p.h"
#include "AKUDoa/akudoacache_p.h"
#include "AKUDoa/akudoaquantizeparam_p.h"
#include "AKUDoa/base/akudoalogging.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr float kSoundSpeed = 340.0f;  // m/s
constexpr float kFocusDistance = 2.0f; // m, the plane the extended view looks at
constexpr int kLowHz = 15000;
constexpr int kHighHz = 40000;
constexpr int kBinStep = 5; // every fifth bin of the band is summed

struct ExtraNames {
    std::string scale;
    std::string table;
};

// Same fields as the V3 pair, except that the column count is the extended
// view's own.
ExtraNames extraNames(const StCamCfg* cfg, int cols, int binNum)
{
    std::ostringstream fields;
    if (cfg->focusDistanceEn)
        fields << "_fodis_" << cfg->focusDistance;
    fields << '_' << cfg->imageResolutionRow << '_' << cols << '_' << cfg->channelNum << '_' << cfg->eangleDomain
           << '_' << cfg->imageThetaXYFactor << '_' << binNum << ".data";
    const std::string dir = akudoa_cache_dir();
    return {dir + "ExtraQuantizeScaleParam_v3" + fields.str(), dir + "ExtraQuantizeParam_v3" + fields.str()};
}

} // namespace

std::vector<int> akudoa_extra_rows(int sampleRate, int frameSize, int binNum, bool average)
{
    const int lowBin = sampleRate ? (frameSize * kLowHz) / sampleRate : 0;
    const int highBin = sampleRate ? (frameSize * kHighHz) / sampleRate : 0;
    std::vector<int> rows;
    for (int b = lowBin; b < highBin; b += kBinStep) {
        const int row = average ? (b >> 1) : b;
        if (row >= 0 && row < binNum)
            rows.push_back(row);
    }
    return rows;
}

AKUDoaExtra::AKUDoaExtra()
    : d(new AKUDoaExtraPrivate)
{
}

AKUDoaExtra::~AKUDoaExtra()
{
    akudoa_planar_release(&d->core);
    delete d;
}

void AKUDoaExtra::doaInit(StCamCfg* cfg)
{
    AKUDoaQuantizeV3Private& c = d->core;
    c.cfg = cfg;
    c.imageRows = cfg->imageResolutionRow / 2;
    c.imageCols = cfg->imageResolutionCol / 2;
    c.micNum = cfg->channelNum;
    c.sampleRate = cfg->sampleFrequency;
    c.frameSize = cfg->frameSize;
    const int N = c.frameSize;
    c.binNum = d->freqAverage ? (N >> 2) + 1 : (N >> 1) + 1;
    akudoa_planar_create(&c, false);
    d->frameWindow.assign(static_cast<size_t>(N), 0.0f);
    createQuantizeExtraParam();
}

void AKUDoaExtra::createQuantizeExtraParam()
{
    AKUDoaQuantizeV3Private& c = d->core;
    const StCamCfg* cfg = c.cfg;
    const int R = c.imageRows;
    const int C = c.imageCols;
    const int M = c.micNum;
    const int P = R * C;
    const float k = static_cast<float>((2.0 * kPi * c.sampleRate) /
                                       static_cast<double>(static_cast<float>(c.frameSize) * kSoundSpeed));
    const float T = cfg->imageThetaXYFactor;

    std::vector<float> mx(static_cast<size_t>(M)), my(static_cast<size_t>(M));
    for (int m = 0; m < M; ++m) {
        mx[m] = std::cos(cfg->micPhi[m]) * cfg->micRadius[m];
        my[m] = std::sin(cfg->micPhi[m]) * cfg->micRadius[m];
    }
    // Sine grid over +-90 degrees (pi/2 as 1.5707964), both axes stepping by
    // 2/R', 2 m out; the columns narrowed by the thetaXY factor.
    const float s = 2.0f / static_cast<float>(R);
    std::vector<float> X(static_cast<size_t>(R)), Y(static_cast<size_t>(C));
    for (int i = 0; i < R; ++i)
        X[i] = kFocusDistance * std::sin(-((static_cast<float>(i - R / 2) + 0.5f) * s) * 1.5707964f);
    for (int j = 0; j < C; ++j)
        Y[j] = kFocusDistance * std::sin(-((static_cast<float>(j - C / 2) + 0.5f) * s) * 1.5707964f) / T;

    // Full path length from each grid point to each microphone; rows padded
    // to a multiple of four for the four-lane steering builder.
    const int Mp = (M + 3) & ~3;
    std::vector<float> dist(static_cast<size_t>(P) * Mp, 0.0f);
#pragma omp parallel for schedule(dynamic, 1)
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < C; ++j) {
            float* dp = dist.data() + static_cast<size_t>(i * C + j) * Mp;
            for (int m = 0; m < M; ++m)
                dp[m] = akudoa_pos_distance(mx[m], my[m], 0.0f, X[i], Y[j], kFocusDistance);
        }
    akudoa_planar_build_steering(&c, dist, true, k, d->freqAverage);
}

void AKUDoaExtra::updateFFTWin(float* window, int length)
{
    AKUDoaQuantizeV3Private& c = d->core;
    if (!c.fftWindow || length != c.frameSize)
        return;
    std::lock_guard<std::mutex> lock(d->windowMutex);
    std::memcpy(c.fftWindow->data, window, sizeof(float) * static_cast<size_t>(length));
}

void AKUDoaExtra::executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap)
{
    (void)bands; // the extended view sums its own fixed bins
    AKUDoaQuantizeV3Private& c = d->core;
    {
        // A window change from another thread lands between frames.
        std::lock_guard<std::mutex> lock(d->windowMutex);
        std::copy(c.fftWindow->data, c.fftWindow->data + c.frameSize, d->frameWindow.begin());
    }
    // The bins are five apart, so they and their halves are distinct and
    // ascending.
    const std::vector<int> rows = akudoa_extra_rows(c.sampleRate, c.frameSize, c.binNum, d->freqAverage);
    akudoa_planar_frame(*this, &c, frame, d->frameWindow.data(), d->freqAverage, rows, false, heatMap);
}

void AKUDoaExtra::powerSpec(vec_fp32* spectrum, int channel)
{
    akudoa_planar_power_spec(&d->core, spectrum, channel);
}

void AKUDoaExtra::setSpectrumSelf(bool on)
{
    d->core.spectrumSelf = on;
}

void AKUDoaExtra::setFocusRadiusMode(bool on)
{
    d->core.focusRadiusMode = on;
}

mat2d_fp32* AKUDoaExtra::getFFTMean()
{
    return nullptr;
}

void AKUDoaExtra::findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq, int& highFreq,
                                      float& power)
{
    (void)target;
    (void)bands;
    (void)lowFreq;
    (void)highFreq;
    (void)power;
}

float AKUDoaExtra::getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands)
{
    (void)target;
    (void)bands;
    return 0.0f;
}

float AKUDoaExtra::posDistance(float x1, float y1, float z1, float x2, float y2, float z2)
{
    return akudoa_pos_distance(x1, y1, z1, x2, y2, z2);
}

// Fingerprint of the extended view's table: always near field at its own
// focus plane, always averaged.
static uint64_t extraKey(const AKUDoaQuantizeV3Private& c, bool average)
{
    return akudoa_cache_key(c, "extra", true, kFocusDistance, average);
}

bool AKUDoaExtra::saveQuantizeParam()
{
    const AKUDoaQuantizeV3Private& c = d->core;
    if (!c.cfg || !c.steerQuant || !c.steerScale)
        return false;
    const ExtraNames names = extraNames(c.cfg, c.imageCols, c.binNum);
    return akudoa_cache_save("AKUDoaExtra", {names.scale, names.table}, extraKey(c, d->freqAverage),
                             c.steerScale->data, static_cast<size_t>(c.binNum), c.steerQuant->data,
                             static_cast<size_t>(c.steerQuant->cols));
}

bool AKUDoaExtra::loadQuantizeParam()
{
    AKUDoaQuantizeV3Private& c = d->core;
    if (!c.cfg || !c.steerQuant || !c.steerScale)
        return false;
    // Rows are read into a copy first so that a rejected pair leaves the
    // engine's table as it was.
    const ExtraNames names = extraNames(c.cfg, c.imageCols, c.binNum);
    const size_t cols = static_cast<size_t>(c.steerQuant->cols);
    std::vector<uint8_t> table(cols * static_cast<size_t>(c.steerQuant->rows));
    std::vector<uint8_t*> rows(static_cast<size_t>(c.steerQuant->rows));
    for (int b = 0; b < c.steerQuant->rows; ++b)
        rows[b] = table.data() + cols * static_cast<size_t>(b);
    if (!akudoa_cache_load("AKUDoaExtra", {names.scale, names.table}, extraKey(c, d->freqAverage),
                           c.steerScale->data, static_cast<size_t>(c.binNum), rows.data(), cols))
        return false;
    for (int b = 0; b < c.steerQuant->rows; ++b)
        std::memcpy(c.steerQuant->data[b], rows[b], cols);
    return true;
}
