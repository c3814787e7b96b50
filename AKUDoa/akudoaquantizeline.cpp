#include "AKUDoa/akudoaquantizeline.h"

#include <math.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "AKUDoa/akudoaquantizeline_p.h"
#include "AKUDoa/iakudoaquantize_p.h"

namespace {
constexpr double kPi = 3.14159265358979323846;
}

// ---------------------------------------------------------------------------
// AKUDoaQuantizeLinePrivate

void AKUDoaQuantizeLinePrivate::array_linespace(vec_fp32* v, float from, float to)
{
    if (!v || v->n <= 0)
        return;
    if (v->n == 1) {
        v->data[0] = from;
        return;
    }
    const float step = (to - from) / static_cast<float>(v->n - 1);
    for (int i = 0; i < v->n; ++i)
        v->data[i] = std::fmaf(static_cast<float>(i), step, from);
}

void AKUDoaQuantizeLinePrivate::array_linespace_sin(vec_fp32* v, float from, float to)
{
    array_linespace(v, from, to);
    if (!v)
        return;
    for (int i = 0; i < v->n; ++i)
        v->data[i] = static_cast<float>(std::sin(static_cast<double>(v->data[i]) * kPi / 180.0));
}

void AKUDoaQuantizeLinePrivate::createQuantizeParam()
{
    const int M = micNum;
    const int A = angleNum;
    const int B = binNum;
    const int base = rowBase();

    vec_fp32* sinTheta = create_vec_fp32(A);
    array_linespace_sin(sinTheta, kAngleFrom, kAngleTo);

    // Radians of phase per bin and metre of path difference.
    const double omega = static_cast<double>(sampleRate) * 2.0 * kPi / (static_cast<double>(frameSize) * kSoundSpeed);
    tablePositions.assign(cfg->micRadius + base, cfg->micRadius + base + M);
    std::vector<float> dist(static_cast<size_t>(A) * M); // phase per bin of angle a, microphone m
    for (int m = 0; m < M; ++m) {
        const float p = static_cast<float>(static_cast<double>(tablePositions[m]) * omega);
        for (int a = 0; a < A; ++a)
            dist[static_cast<size_t>(a) * M + m] = p * sinTheta->data[a];
    }
    destroy_vec_fp32(sinTheta);

    // One float row per bin and thread, quantized at once: the bytes equal
    // those of quantizing the whole float table (scale and rounding are per
    // row) without holding its B x 2MA floats (95 MB at 128 channels).
    const int cols = 2 * M * A;
#pragma omp parallel
    {
        std::vector<float> row(static_cast<size_t>(cols));
#pragma omp for schedule(dynamic, 1)
        for (int k = 0; k < B; ++k) {
            const float fk = static_cast<float>(k);
            for (int a = 0; a < A; ++a) {
                const float* da = dist.data() + static_cast<size_t>(a) * M;
                float* out = row.data() + static_cast<size_t>(a) * 2 * M;
                for (int m = 0; m < M; ++m) {
                    float s, c;
                    ::sincosf(fk * da[m], &s, &c);
                    out[m] = c;
                    out[M + m] = s;
                }
            }
            const float scale = akudoa_row_quant_scale(row.data(), cols);
            steerScale->data[k] = scale;
            akudoa_row_quantize(row.data(), cols, scale, reinterpret_cast<int8_t*>(steerQ->data[k]));
        }
    }
}

void AKUDoaQuantizeLinePrivate::release()
{
    if (micPlans) {
        for (int r = 0; r < planCount; ++r)
            if (micPlans[r])
                fftwf_destroy_plan(micPlans[r]);
        std::free(micPlans);
        micPlans = nullptr;
        planCount = 0;
    }
    destroy_mat2d_uint8(steerQ);
    steerQ = nullptr;
    destroy_vec_fp32(steerScale);
    steerScale = nullptr;
    destroy_vec_fp32(frameScale);
    frameScale = nullptr;
    destroy_vec_fp32(dotFactor);
    dotFactor = nullptr;
    destroy_vec_fp32(fftWindow);
    fftWindow = nullptr;
    destroy_mat2d_fp32(dotOut);
    dotOut = nullptr;
    destroy_mat2d_fp32(binMaps);
    binMaps = nullptr;
    destroy_mat2d_fp32(fftMean);
    fftMean = nullptr;
    destroy_mat2d_uint8(frameQ);
    frameQ = nullptr;
    destroy_mat2d_fp32(windowed);
    windowed = nullptr;
    destory_mat2d_fftwfcplx(micSpectra);
    micSpectra = nullptr;
    destroy_vec_fp32(heatAcc);
    heatAcc = nullptr;
}

// ---------------------------------------------------------------------------
// AKUDoaQuantizeLine

AKUDoaQuantizeLine::AKUDoaQuantizeLine()
    : d(new AKUDoaQuantizeLinePrivate)
{
}

AKUDoaQuantizeLine::~AKUDoaQuantizeLine()
{
    d->release();
    delete d;
}

void AKUDoaQuantizeLine::doaInit(StCamCfg* cfg)
{
    d->release(); // a repeated doaInit starts afresh instead of leaking
    d->cfg = cfg;
    d->micNum = cfg->channelNum;
    d->sampleRate = cfg->sampleFrequency;
    d->frameSize = cfg->frameSize;
    const int N = d->frameSize;
    d->binNum = cfg->freqAverage ? (N >> 2) + 1 : (N >> 1) + 1;
    if (d->groupNum == 2)
        d->micNum = d->micNum >> 1;
    const int M = d->micNum;
    const int B = d->binNum;
    const int A = d->angleNum;
    const int rows = d->groupNum * M;

    d->steerQ = create_mat2d_int8(B, 2 * M * A);
    d->steerScale = create_vec_fp32(B);
    d->frameScale = create_vec_fp32(B);
    d->dotFactor = create_vec_fp32(B);
    d->fftWindow = create_vec_fp32(N);
    d->dotOut = create_mat2d_fp32(B, 2 * A);
    d->binMaps = create_mat2d_fp32(B, A);
    d->fftMean = create_mat2d_fp32(B, 4 * M);
    d->frameQ = create_mat2d_int8(B, 4 * M);
    d->windowed = create_mat2d_fp32(rows, N);
    d->micSpectra = create_mat2d_fftwfcplx(rows, N);
    d->heatAcc = create_vec_fp32(A);

    // FFTW's planner is not thread safe: plans are made here, on the caller's
    // thread, for the rows of both groups so that setGroupId never plans.
    d->micPlans = static_cast<fftwf_plan*>(std::calloc(static_cast<size_t>(rows), sizeof(fftwf_plan)));
    d->planCount = rows;
    for (int r = 0; r < rows; ++r)
        d->micPlans[r] = fftwf_plan_dft_r2c_1d(N, d->windowed->data[r],
                                               reinterpret_cast<fftwf_complex*>(d->micSpectra->data[r]),
                                               FFTW_ESTIMATE);

    d->dot8 = akudoa_dot8_select();
    d->createQuantizeParam();
}

void AKUDoaQuantizeLine::setGroupId(int id)
{
    d->groupId = id;
    if (!d->cfg || !d->steerQ)
        return; // before doaInit: the table is built for this group there
    const float* pos = d->cfg->micRadius + d->rowBase();
    if (!std::equal(d->tablePositions.begin(), d->tablePositions.end(), pos))
        d->createQuantizeParam();
}

void AKUDoaQuantizeLine::updateFFTWin(float* window, int length)
{
    if (!d->fftWindow || length != d->frameSize)
        return;
    std::memcpy(d->fftWindow->data, window, sizeof(float) * static_cast<size_t>(length));
}

void AKUDoaQuantizeLine::executeFFT(mat2d_fp32* frame)
{
    const int M = d->micNum;
    const int N = d->frameSize;
    const int B = d->binNum;
    const int base = d->rowBase();
    // A whole-array frame holds the group at its array rows; a frame of the
    // group alone starts with it.
    const int frameBase = frame->rows >= d->groupNum * M ? base : 0;
    const int count = std::max(0, std::min(M, frame->rows - frameBase));
    const int samples = std::min(frame->cols, N);
    const float* win = d->fftWindow->data;
#pragma omp parallel for schedule(dynamic, 1)
    for (int m = 0; m < count; ++m) {
        const float* in = frame->data[frameBase + m];
        float* t = d->windowed->data[base + m];
        for (int i = 0; i < samples; ++i)
            t[i] = in[i] * win[i];
        fftwf_execute(d->micPlans[base + m]);
    }

    const bool average = d->cfg->freqAverage;
    for (int k = 0; k < B; ++k)
        akudoa_spectrum_row(d->micSpectra->data + base, M, k, average, d->fftMean->data[k]);
    quantizeScale(d->fftMean, d->frameScale);
    quantize(d->fftMean, d->frameScale, d->frameQ);
}

void AKUDoaQuantizeLine::matRowDotInt8(mat2d_uint8* frameQ, mat2d_uint8* steerQ, vec_fp32* factor, mat2d_fp32* out,
                                       int row)
{
    // The planar engine's kernels: the same sums over 2M bytes per angle,
    // exact in int32 on every path.
    const int m2 = frameQ->cols / 2;
    const int A = (2 * steerQ->cols) / frameQ->cols;
    float* o = out->data[row];
    d->dot8.fn(reinterpret_cast<const int8_t*>(frameQ->data[row]), reinterpret_cast<const int8_t*>(steerQ->data[row]),
               m2, A, factor->data[row], o, o + A);
}

void AKUDoaQuantizeLine::ComplexNormOffset(mat2d_fp32* in, mat2d_fp32* out, float offset, int row)
{
    const int h = 4 * (in->cols / 8);
    const float* x = in->data[row];
    float* o = out->data[row];
    for (int i = 0; i < h; ++i)
        o[i] = std::fmaf(x[h + i], x[h + i], std::fmaf(x[i], x[i], offset));
}

void AKUDoaQuantizeLine::executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap)
{
    const std::vector<doaFreqInfo> L = bands.data();
    if (L.empty())
        return;
    executeFFT(frame);
    const int M = d->micNum;
    const int B = d->binNum;
    const int A = d->angleNum;
    const bool self = d->spectrumSelf;
    float* acc = d->heatAcc->data;
    std::fill(acc, acc + A, 0.0f);

    // Each entry fills its own bin rows of dotFactor, dotOut and binMaps.
    const int count = static_cast<int>(L.size());
#pragma omp parallel for schedule(dynamic, 1)
    for (int e = 0; e < count; ++e) {
        const int k = L[e].bin;
        if (k < 0 || k >= B)
            continue; // a band edge one past the Nyquist bin has no table row
        dequantizeScale(d->frameScale, d->steerScale, d->dotFactor, k);
        matRowDotInt8(d->frameQ, d->steerQ, d->dotFactor, d->dotOut, k);
        // Without self terms: minus sum |X_m|^2 (re and -im of every microphone).
        const float offset = self ? 0.0f : -vec_power_fp32(d->fftMean->data[k], 2u * M);
        ComplexNormOffset(d->dotOut, d->binMaps, offset, k);
    }

    // Summed on this thread in band order: the line map is the plain sum over
    // the bins and does not depend on which worker finished first.
    for (int e = 0; e < count; ++e) {
        const int k = L[e].bin;
        if (k >= 0 && k < B)
            ComplexAdd(d->binMaps, d->heatAcc, k);
    }

    const float norm = 1.0f / static_cast<float>((M - 1) * M);
    const float invN = 1.0f / static_cast<float>(d->frameSize);
    for (int i = 0; i < A; ++i) {
        float x = acc[i] * norm;
        if (!self && x < 0.0f)
            x = 0.0f;
        acc[i] = std::sqrt(x) * invN;
    }

    if (!heatMap)
        return;
    const int R = heatMap->rows;
    const int Q = heatMap->cols;
    for (int i = 0; i < R; ++i)
        for (int j = 0; j < Q; ++j) {
            const long idx = static_cast<long>(i) * Q + j;
            if (idx < A)
                heatMap->data[R - 1 - i][Q - 1 - j] = acc[idx];
        }
}

void AKUDoaQuantizeLine::powerSpec(vec_fp32* spectrum, int channel)
{
    if (!spectrum || !d->micSpectra || channel < 0 || channel >= d->micNum)
        return;
    akudoa_reverse_power_spectrum(reinterpret_cast<const float*>(d->micSpectra->data[d->rowBase() + channel]),
                                  d->frameSize, spectrum);
}

void AKUDoaQuantizeLine::setSpectrumSelf(bool on)
{
    d->spectrumSelf = on;
}

void AKUDoaQuantizeLine::setFocusRadiusMode(bool on)
{
    d->focusRadiusMode = on;
}

mat2d_fp32* AKUDoaQuantizeLine::getFFTMean()
{
    return d->fftMean;
}

void AKUDoaQuantizeLine::findTargetFreqRange(fpoint2d, AKUDoaFreqBands&, int& lowFreq, int& highFreq, float& power)
{
    lowFreq = -1;
    highFreq = -1;
    power = 0.0f;
}

float AKUDoaQuantizeLine::getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands)
{
    const int A = d->angleNum;
    const int M = d->micNum;
    const long idx = static_cast<long>(target.x) + static_cast<long>(target.y) * A;
    if (!d->binMaps || idx < 0 || idx >= A)
        return 0.0f; // outside the line map
    const std::vector<doaFreqInfo> L = bands.data();
    float sum = 0.0f;
    for (const doaFreqInfo& e : L)
        if (e.bin >= 0 && e.bin < d->binNum)
            sum += d->binMaps->data[e.bin][idx];
    sum = sum / static_cast<float>((M - 1) * M);
    float a;
    if (d->spectrumSelf)
        a = std::sqrt(sum);
    else
        a = sum < 0.0f ? 0.0f : std::sqrt(sum);
    return a / static_cast<float>(d->frameSize);
}
