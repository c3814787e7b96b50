#include "AKUDoa/akudoadistance.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "AKUDoa/akudoadistance_p.h"
#include "AKUDoa/base/akudoaarray.h"
#include "AKUDoa/base/akudoamath.h"
#include "AKUDoa/base/akudoaneon.h"

namespace {

// 2 pi * 96000: the phase constant assumes 96 kHz sampling whatever the
// configuration says (k = this / (N * 340) rad per metre and FFT bin).
constexpr double kTwoPiFs = 603185.7894892403;
constexpr int kSoundSpeed = 340; // m/s
constexpr double kPi = 3.14159265358979323846;

// Coarse pass: every 16th candidate starting at 7; fine pass: +-8 around the
// coarse winner.
constexpr int kCoarseFirst = 7;
constexpr int kCoarseStep = 16;
constexpr int kFineHalfSpan = 8;

inline float laneSum(float32x4_t v)
{
    return (vgetq_lane_f32(v, 0) + vgetq_lane_f32(v, 1)) + (vgetq_lane_f32(v, 2) + vgetq_lane_f32(v, 3));
}

// Beam sum of one candidate: delays holds the M table phases of the
// candidate, bins one engine spectrum row [re, -im, im, re]. The weight of
// microphone m is the phasor at t*f1 (t its table phase), or with `pair` the
// mean of the phasors at t*f1 and t*f2.
inline void beamCandidate(const float* delays, const float* bins, int M, float f1, float f2, bool pair,
                          float& re, float& im)
{
    const float32x4_t half = vdupq_n_f32(0.5f);
    float32x4_t accRe = vdupq_n_f32(0.0f);
    float32x4_t accIm = vdupq_n_f32(0.0f);
    for (int m = 0; m < M; m += 4) {
        const float32x4_t t = vld1q_f32(delays + m);
        float32x4_t wi, wr;
        sincos_ps(vmulq_n_f32(t, f1), &wi, &wr);
        if (pair) {
            float32x4_t s2, c2;
            sincos_ps(vmulq_n_f32(t, f2), &s2, &c2);
            wr = vmulq_f32(half, vaddq_f32(wr, c2));
            wi = vmulq_f32(half, vaddq_f32(wi, s2));
        }
        const float32x4_t xRe = vld1q_f32(bins + m);
        const float32x4_t xIm = vld1q_f32(bins + 2 * M + m);
        accRe = vmlaq_f32(accRe, wr, xRe);
        accIm = vmlaq_f32(accIm, wr, xIm);
        accRe = vmlaq_f32(accRe, wi, vld1q_f32(bins + M + m));     // -im
        accIm = vmlaq_f32(accIm, wi, vld1q_f32(bins + 3 * M + m)); // re
    }
    re = laneSum(accRe);
    im = laneSum(accIm);
}

// Phase factors of spectrum row `row`: its own bin, or with averaging the
// two factors 2 row - 1 and 2 row whose phasors are averaged.
inline void binFactors(int row, bool averaged, float& f1, float& f2)
{
    f1 = static_cast<float>(averaged ? 2 * row - 1 : row);
    f2 = static_cast<float>(2 * row);
}

} // namespace

AKUDoaDistance::AKUDoaDistance()
    : d(new AKUDoaDistancePrivate)
{
}

static void releaseContainers(AKUDoaDistancePrivate* p)
{
    destroy_vec_fp32(p->candidates);
    destroy_mat2d_fp32(p->delayTable);
    destroy_mat2d_fp32(p->coarseResult);
    destroy_mat2d_fp32(p->fineResult);
    destroy_vec_fp32(p->coarsePower);
    destroy_vec_fp32(p->finePower);
    p->candidates = nullptr;
    p->delayTable = nullptr;
    p->coarseResult = nullptr;
    p->fineResult = nullptr;
    p->coarsePower = nullptr;
    p->finePower = nullptr;
}

AKUDoaDistance::~AKUDoaDistance()
{
    releaseContainers(d);
    delete d;
}

float AKUDoaDistance::posDistance(float x1, float y1, float z1, float x2, float y2, float z2)
{
    const float dx = x1 - x2;
    const float dy = y1 - y2;
    const float dz = z1 - z2;
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

void AKUDoaDistance::initDistance(StCamCfg* cfg)
{
    AKUDoaDistancePrivate* p = d;
    releaseContainers(p); // a repeated call rebuilds from scratch

    p->frameSize = cfg->frameSize;
    p->micNum = cfg->channelNum;
    p->imageRows = cfg->imageResolutionRow;
    p->imageCols = cfg->imageResolutionCol;
    p->measureRows = static_cast<int32_t>(cfg->distanceMeasureRow);
    p->measureCols = static_cast<int32_t>(cfg->distanceMeasureCol);
    p->rotateMode = cfg->rotateMode;
    p->freqAverage = cfg->freqAverage ? 1 : 0;
    const float thetaXY = cfg->imageThetaXYFactor;
    const int angleDomain = cfg->eangleDomain;
    const float maxRadius = cfg->micMaxRadius;

    const int N = p->frameSize;
    const int M = p->micNum;
    const int C = p->candidateNum;
    const int R = p->measureRows;
    const int Cm = p->measureCols;

    p->candidates = create_vec_fp32(C);
    for (int i = 0; i < C; ++i)
        p->candidates->data[i] = static_cast<float>(i * 0.01 + 0.1);

    const float k = static_cast<float>(kTwoPiFs / static_cast<double>(N * kSoundSpeed));
    p->binNum = p->freqAverage ? (N >> 2) + 1 : (N >> 1) + 1;

    std::vector<float> micX(static_cast<size_t>(std::max(M, 0)));
    std::vector<float> micY(micX.size());
    for (int m = 0; m < M; ++m) {
        micX[m] = cfg->micRadius[m] * std::cos(cfg->micPhi[m]);
        micY[m] = cfg->micRadius[m] * std::sin(cfg->micPhi[m]);
    }

    // View geometry of the planar engine's near-field grid.
    const float D = 0.70710677f / std::tan(static_cast<float>(angleDomain * kPi / 180.0));
    const double theta = std::atan2(0.5 * maxRadius + 0.5, static_cast<double>(D));
    const double s = 2.0 / static_cast<double>(p->imageRows > p->imageCols ? p->imageRows : p->imageCols);
    std::vector<float> rowTan(static_cast<size_t>(std::max(R, 0)));
    std::vector<float> colTan(static_cast<size_t>(std::max(Cm, 0)));
    for (int r = 0; r < R; ++r)
        rowTan[r] = static_cast<float>(std::tan(-((r - 1.5 - R * 0.5 + 0.5) * s) * theta));
    for (int c = 0; c < Cm; ++c)
        colTan[c] = static_cast<float>(std::tan(-((c - 0.5 - Cm * 0.5 + 0.5) * s) * theta / thetaXY));

    const int cells = std::max(R, 0) * std::max(Cm, 0);
    p->delayTable = create_mat2d_fp32(cells, C * M);
#pragma omp parallel for schedule(dynamic, 1)
    for (int cell = 0; cell < cells; ++cell) {
        const float tx = rowTan[cell / Cm];
        const float ty = colTan[cell % Cm];
        float* out = p->delayTable->data[cell];
        for (int i = 0; i < C; ++i) {
            const float dist = p->candidates->data[i];
            const double fx = dist * tx;
            const double fy = dist * ty;
            const double centre = posDistance(dist * tx, dist * ty, dist, 0.0f, 0.0f, 0.0f);
            for (int m = 0; m < M; ++m) {
                // r_m - |P| as (|m|^2 - 2 P.m) / (r_m + |P|): no cancellation
                // of two nearly equal lengths.
                const double r = posDistance(dist * tx, dist * ty, dist, micX[m], micY[m], 0.0f);
                const double num = micX[m] * static_cast<double>(micX[m]) + micY[m] * static_cast<double>(micY[m])
                                 - 2.0 * (fx * micX[m] + fy * micY[m]);
                out[i * M + m] = static_cast<float>(k * (num / (r + centre)));
            }
        }
    }

    p->coarseResult = create_mat2d_fp32(p->binNum, 2 * C);
    p->fineResult = create_mat2d_fp32(p->binNum, 2 * C);
    p->coarsePower = create_vec_fp32(C);
    p->finePower = create_vec_fp32(C);
    p->initialised = 1;
}

bool AKUDoaDistance::targetCell(fpoint2d target, int& row, int& col) const
{
    const AKUDoaDistancePrivate* p = d;
    if (!p->initialised)
        return false;
    const int NR = p->imageRows;
    const int NC = p->imageCols;
    int i = target.x;
    int j = target.y;
    switch (p->rotateMode) {
    case 1: i = NR - 1 - target.x; j = NC - 1 - target.y; break;
    case 2: j = NC - 1 - target.y; break;
    case 3: i = NR - 1 - target.x; break;
    default: break; // 0, and the raw orientation for modes the engine does not copy
    }
    // Engine pixel offsets from the axis in its pitch (2/NR), rescaled to the
    // measurement pitch (2/max(NR, NC)); see the header.
    const double g = static_cast<double>(NR > NC ? NR : NC) / static_cast<double>(NR);
    const double oi = (i + 0.5 - NR * 0.5) * g;
    const double oj = (j + 0.5 - NC * 0.5) * g;
    const double r = std::floor(oi + 1.0 + p->measureRows * 0.5 + 0.5);
    const double c = std::floor(oj + p->measureCols * 0.5 + 0.5);
    if (!(r >= 0.0 && r < p->measureRows && c >= 0.0 && c < p->measureCols))
        return false;
    row = static_cast<int>(r);
    col = static_cast<int>(c);
    return true;
}

void AKUDoaDistance::executeDoa(mat2d_fp32* spectra, AKUDoaFreqBands& bands, fpoint2d target, float& distance)
{
    AKUDoaDistancePrivate* p = d;
    if (!p->initialised)
        return;
    int r = 0;
    int c = 0;
    if (!targetCell(target, r, c))
        return;
    if (spectra == nullptr || spectra->data == nullptr || spectra->cols < 4 * p->micNum)
        return;
    const int cell = r * p->measureCols + c;
    const int C = p->candidateNum;
    const int rows = std::min(p->binNum, spectra->rows);

    const std::vector<doaFreqInfo> list = bands.data();
    const int n = static_cast<int>(list.size());
    const int stride = p->freqAverage ? 2 : 1;
    const bool averaged = p->freqAverage != 0;

    std::memset(p->coarsePower->data, 0, sizeof(float) * static_cast<size_t>(C));
#pragma omp parallel for schedule(dynamic, 1)
    for (int e = 0; e < n; e += stride) {
        const int row = averaged ? (list[e].bin >> 1) : list[e].bin;
        if (row < 0 || row >= rows) // a band edge past the last spectrum row
            continue;
        matRowDotFp32L1(spectra, cell, row);
#pragma omp critical
        ComplexAddCpx(p->coarseResult, p->coarsePower, 0.0f, row);
    }

    float best = 0.0f;
    int index = 0;
    vec_fp32_find_max(p->coarsePower, best, index);
    const int first = std::max(index, kFineHalfSpan) - kFineHalfSpan;
    const int last = std::min(index + kFineHalfSpan, C);

    std::memset(p->finePower->data, 0, sizeof(float) * static_cast<size_t>(C));
#pragma omp parallel for schedule(dynamic, 1)
    for (int e = 0; e < n; e += stride) {
        const int row = averaged ? (list[e].bin >> 1) : list[e].bin;
        if (row < 0 || row >= rows)
            continue;
        matRowDotFp32L2(spectra, cell, row, first, last);
#pragma omp critical
        ComplexAddCpx(p->fineResult, p->finePower, 0.0f, row);
    }

    index = 0;
    vec_fp32_find_max(p->finePower, best, index);
    distance = p->candidates->data[index];
}

float AKUDoaDistance::vec_power_fp32(float* a, unsigned int n)
{
    if (n < 4)
        return 0.0f;
    float32x4_t acc = vdupq_n_f32(0.0f);
    for (unsigned int i = 0; i + 4 <= n; i += 4) {
        const float32x4_t v = vld1q_f32(a + i);
        acc = vfmaq_f32(acc, v, v);
    }
    return laneSum(acc);
}

void AKUDoaDistance::ComplexAddCpx(mat2d_fp32* m, vec_fp32* acc, float bias, int row)
{
    const int half = m->cols / 2;
    const float* in = m->data[row];
    float* out = acc->data;
    for (int i = 0; i < acc->n; ++i) {
        const float re = in[i];
        const float im = in[half + i];
        out[i] += re * re + im * im + bias;
    }
}

void AKUDoaDistance::matRowDotFp32L1(mat2d_fp32* spectra, int pixel, int row)
{
    AKUDoaDistancePrivate* p = d;
    const int C = p->candidateNum;
    const int M = p->micNum;
    float* out = p->coarseResult->data[row];
    std::memset(out, 0, sizeof(float) * 2 * static_cast<size_t>(C));
    const float* bins = spectra->data[row];
    const float* delays = p->delayTable->data[pixel];
    float f1, f2;
    binFactors(row, p->freqAverage != 0, f1, f2);
    for (int i = kCoarseFirst; i < C; i += kCoarseStep)
        beamCandidate(delays + static_cast<size_t>(i) * M, bins, M, f1, f2, p->freqAverage != 0, out[i], out[C + i]);
}

void AKUDoaDistance::matRowDotFp32L2(mat2d_fp32* spectra, int pixel, int row, int first, int last)
{
    AKUDoaDistancePrivate* p = d;
    const int C = p->candidateNum;
    const int M = p->micNum;
    float* out = p->fineResult->data[row];
    std::memset(out, 0, sizeof(float) * 2 * static_cast<size_t>(C));
    const float* bins = spectra->data[row];
    const float* delays = p->delayTable->data[pixel];
    const bool averaged = p->freqAverage != 0;
    float f1, f2;
    binFactors(row, averaged, f1, f2);
    first = std::max(first, 0);
    last = std::min(last, C);
    for (int i = first; i < last; ++i)
        beamCandidate(delays + static_cast<size_t>(i) * M, bins, M, f1, f2, averaged, out[i], out[C + i]);
}
