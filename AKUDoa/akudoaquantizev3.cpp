#include "AKUDoa/akudoaquantizev3.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "AKUDoa/akudoaquantizev3_p.h"
#include "AKUDoa/akudoatargetrange_p.h"
#include "AKUDoa/akucluster.h"
#include "AKUDoa/base/akudoaarray.h"
#include "AKUDoa/akugaussianprocessregression.h"
#include "AKUDoa/base/akudoalogging.h"
#include "AKUDoa/base/akudoamath.h"
#include "AKUDoa/base/akudoaneon.h"
#include "AKUDoa/iakudoaquantize_p.h"

namespace {

constexpr float kSoundSpeed = 340.0f; // m/s
constexpr double kPi = 3.14159265358979323846;

bool usesRegression(const StCamCfg* cfg)
{
    return cfg->doaVersionSelect == 53 || cfg->doaVersionSelect == 54;
}

// Phase factor of table row b: row b steers the bin below it (b - 1);
// with frequency averaging row t is the mean of the factors 2t - 1 and 2t.
// The offset is part of the engine's calibrated behaviour.
inline int firstFactor(int b, bool average)
{
    return average ? 2 * b - 1 : b - 1;
}

// Fills one steering row (2MP floats): pixel p owns [p*2M, p*2M+2M): the M
// cosines of psi_m = c * dist[p*Mp+m], then the M sines. With averaging the
// row is the mean of the rows for the coefficients c1 and c2. dist rows are
// padded to Mp (a multiple of four) so the four-lane math never reads past
// them; a count that is not a multiple of four only stores its real lanes.
void fillSteeringRow(const float* dist, int P, int M, int Mp, float c1, float c2, bool average, float* row)
{
    const float32x4_t vc1 = vdupq_n_f32(c1);
    const float32x4_t vc2 = vdupq_n_f32(c2);
    const float32x4_t half = vdupq_n_f32(0.5f);
    for (int p = 0; p < P; ++p) {
        const float* dp = dist + static_cast<size_t>(p) * Mp;
        float* out = row + static_cast<size_t>(p) * 2 * M;
        for (int m = 0; m < M; m += 4) {
            const float32x4_t dv = vld1q_f32(dp + m);
            float32x4_t s1, c1v;
            sincos_ps(vmulq_f32(vc1, dv), &s1, &c1v);
            if (average) {
                float32x4_t s2, c2v;
                sincos_ps(vmulq_f32(vc2, dv), &s2, &c2v);
                c1v = vmulq_f32(vaddq_f32(c1v, c2v), half);
                s1 = vmulq_f32(vaddq_f32(s1, s2), half);
            }
            if (m + 4 <= M) {
                vst1q_f32(out + m, c1v);
                vst1q_f32(out + M + m, s1);
            } else {
                float cl[4], sl[4];
                vst1q_f32(cl, c1v);
                vst1q_f32(sl, s1);
                for (int k = 0; m + k < M; ++k) {
                    out[m + k] = cl[k];
                    out[M + m + k] = sl[k];
                }
            }
        }
    }
}

inline int paddedMics(int M)
{
    return (M + 3) & ~3;
}

// Table blocks per row: every pixel, or one per mirror pair.
inline int steeringBlocks(const AKUDoaQuantizeV3Private* d)
{
    const int P = d->imageRows * d->imageCols;
    return d->compact ? (P + 1) / 2 : P;
}

// Switches steerQuant between the full and the mirror-pair layout. Going
// to pairs keeps the first blocks of every row (the table stays valid);
// going back leaves a zero table for the caller to load or build.
void setSteeringLayout(AKUDoaQuantizeV3Private* d, bool compact)
{
    if (d->compact == compact && d->steerQuant)
        return;
    mat2d_uint8* old = d->steerQuant;
    d->compact = compact;
    const int cols = 2 * d->micNum * steeringBlocks(d);
    d->steerQuant = create_mat2d_int8(d->binNum, cols);
    if (old && compact)
        for (int b = 0; b < d->binNum; ++b)
            std::memcpy(d->steerQuant->data[b], old->data[b], static_cast<size_t>(cols));
    destroy_mat2d_uint8(old);
}

} // namespace

AKUDoaQuantizeV3::AKUDoaQuantizeV3()
    : d(new AKUDoaQuantizeV3Private)
{
}

void akudoa_planar_release(AKUDoaQuantizeV3Private* d)
{
    if (d->fftPlans) {
        for (int m = 0; m < d->micNum; ++m)
            if (d->fftPlans[m])
                fftwf_destroy_plan(d->fftPlans[m]);
        std::free(d->fftPlans);
    }
    destroy_vec_fp32(d->steerScale);
    destroy_vec_fp32(d->fftScale);
    destroy_vec_fp32(d->binWork);
    destroy_vec_fp32(d->dequantFactor);
    destroy_mat2d_uint8(d->steerQuant);
    destroy_mat2d_uint8(d->fftQuant);
    destroy_mat2d_fp32(d->beamComplex);
    destroy_mat2d_fp32(d->beamPower);
    destroy_mat1d_fp32(d->gprImage);
    destroy_mat2d_int32(d->beamInt);
    destroy_mat2d_fp32(d->fftData);
    destroy_vec_fp32(d->binWork2);
    destroy_vec_fp32(d->heatSum);
    destroy_vec_fp32(d->fftWindow);
    destroy_mat2d_fp32(d->timeBuf);
    destory_mat2d_fftwfcplx(d->specBuf);
    destroy_mat2d_fp32(d->gprBins);
    delete d->cluster;
    d->fftPlans = nullptr;
    d->steerScale = d->fftScale = d->binWork = d->dequantFactor = nullptr;
    d->steerQuant = d->fftQuant = nullptr;
    d->beamComplex = d->beamPower = d->fftData = d->timeBuf = d->gprBins = nullptr;
    d->gprImage = nullptr;
    d->beamInt = nullptr;
    d->binWork2 = d->heatSum = d->fftWindow = nullptr;
    d->specBuf = nullptr;
    d->cluster = nullptr;
}

AKUDoaQuantizeV3::~AKUDoaQuantizeV3()
{
    akudoa_planar_release(d);
    delete d;
}

void akudoa_planar_create(AKUDoaQuantizeV3Private* d, bool regression)
{
    const int N = d->frameSize;
    const int B = d->binNum;
    const int M = d->micNum;
    const int P = d->imageRows * d->imageCols;

    d->steerScale = create_vec_fp32(B);
    d->fftScale = create_vec_fp32(B);
    d->binWork = create_vec_fp32(B);
    d->dequantFactor = create_vec_fp32(B);
    d->steerQuant = create_mat2d_int8(B, 2 * M * steeringBlocks(d));
    d->fftQuant = create_mat2d_int8(B, 4 * M);
    d->beamComplex = create_mat2d_fp32(B, 2 * P);
    d->beamPower = create_mat2d_fp32(B, P);
    d->gprImage = create_mat1d_fp32(d->imageRows, d->imageCols);
    d->beamInt = create_mat2d_int32(B, 2 * P);
    d->fftData = create_mat2d_fp32(B, 4 * M);
    d->binWork2 = create_vec_fp32(B);
    d->heatSum = create_vec_fp32(P);
    d->fftWindow = create_vec_fp32(N);
    d->fftPlans = static_cast<fftwf_plan*>(std::calloc(static_cast<size_t>(M), sizeof(fftwf_plan)));
    d->timeBuf = create_mat2d_fp32(M, N);
    d->specBuf = create_mat2d_fftwfcplx(M, N);
    if (regression)
        d->gprBins = create_mat2d_fp32(B, P);

    // FFTW's planner is not thread safe: plans are made here, on the
    // caller's thread; executing distinct plans from workers is fine.
    for (int m = 0; m < M; ++m)
        d->fftPlans[m] = fftwf_plan_dft_r2c_1d(N, d->timeBuf->data[m],
                                               reinterpret_cast<fftwf_complex*>(d->specBuf->data[m]),
                                               FFTW_ESTIMATE);

    d->cluster = new AKUCluster;
    d->dot8 = akudoa_dot8_select();
}

void AKUDoaQuantizeV3::doaInit(StCamCfg* cfg)
{
    d->cfg = cfg;
    d->imageRows = cfg->imageResolutionRow;
    d->imageCols = cfg->imageResolutionCol;
    d->micNum = cfg->channelNum;
    d->sampleRate = cfg->sampleFrequency;
    d->frameSize = cfg->frameSize;
    const int N = d->frameSize;
    const int B = cfg->freqAverage ? (N >> 2) + 1 : (N >> 1) + 1;
    d->binNum = B;
    d->compact = cfg->compactSteering && !cfg->focusDistanceEn;
    akudoa_planar_create(d, usesRegression(cfg));

    focusDisUpdate();

    // The frequencies assume 48 kHz and 1024 samples whatever the
    // configuration says; the line is defined that way.
    for (int i = 0; i < 512; ++i)
        AKUDOA_LOG() << i << ": Freq = " << ((i * 48000) >> 9) << "Sen scale ="
                     << cfg->micSensitivity[i];
}

void AKUDoaQuantizeV3::updateFFTWin(float* window, int length)
{
    if (!d->fftWindow || length != d->frameSize)
        return;
    std::memcpy(d->fftWindow->data, window, sizeof(float) * static_cast<size_t>(length));
}

// Loads the full-format cache straight into the mirror-pair table: the
// reader fills a list of equal blocks in file order, so the blocks of the
// stored pixels point into the table and the mirror blocks are null (read
// for the checksum, not kept). Peak memory stays at the compact table.
static bool loadFolded(AKUDoaQuantizeV3& engine, AKUDoaQuantizeV3Private* d)
{
    const int B = d->binNum;
    const int M = d->micNum;
    const int P = d->imageRows * d->imageCols;
    mat2d_uint8* table = d->steerQuant;
    // An even image halves each row exactly; an odd one needs pixel blocks.
    const bool halves = P % 2 == 0;
    const int per = halves ? 2 : P;
    mat2d_uint8 view;
    view.rows = B * per;
    view.cols = halves ? M * P : 2 * M;
    std::vector<uint8_t*> blocks(static_cast<size_t>(view.rows));
    for (int b = 0; b < B; ++b)
        for (int k = 0; k < per; ++k)
            blocks[static_cast<size_t>(b) * per + k] =
                k < (per + 1) / 2 ? table->data[b] + static_cast<size_t>(k) * view.cols : nullptr;
    view.data = blocks.data();
    d->steerQuant = &view;
    const bool ok = engine.loadQuantizeParam();
    d->steerQuant = table;
    return ok;
}

bool AKUDoaQuantizeV3::focusDisUpdate()
{
    const bool compact = d->cfg->compactSteering && !d->cfg->focusDistanceEn;
    if (d->cfg->compactSteering && d->cfg->focusDistanceEn)
        AKUDOA_LOG() << "DOA:compact_steering changes nothing in the near field, full steering table";
    setSteeringLayout(d, compact);
    if (compact) {
        if (loadFolded(*this, d))
            return true;
        // The cache keeps the full format: build and save the full table,
        // then fold it.
        setSteeringLayout(d, false);
        const bool saved = createQuantizeParam();
        setSteeringLayout(d, true);
        return saved;
    }
    if (loadQuantizeParam())
        return true;
    if (d->cfg->focusDistanceEn)
        return createQuantizeFocusDisParam();
    return createQuantizeParam();
}

void akudoa_planar_mirror_diff(const AKUDoaQuantizeV3Private* d, long& oneUnit, long& larger)
{
    oneUnit = larger = 0;
    const int M = d->micNum;
    const int P = d->imageRows * d->imageCols;
    for (int b = 0; b < d->binNum; ++b) {
        const int8_t* row = reinterpret_cast<const int8_t*>(d->steerQuant->data[b]);
        for (int p = 0; p < (P + 1) / 2; ++p) {
            const int8_t* s = row + static_cast<size_t>(p) * 2 * M;
            const int8_t* m = row + static_cast<size_t>(P - 1 - p) * 2 * M;
            for (int n = 0; n < 2 * M; ++n) {
                const int diff = std::abs(m[n] - (n < M ? s[n] : -s[n]));
                oneUnit += diff == 1;
                larger += diff > 1;
            }
        }
    }
}

float AKUDoaQuantizeV3::posDistance(float x1, float y1, float z1, float x2, float y2, float z2)
{
    return akudoa_pos_distance(x1, y1, z1, x2, y2, z2);
}

float akudoa_pos_distance(float x1, float y1, float z1, float x2, float y2, float z2)
{
    const float dx = x1 - x2;
    const float dy = y1 - y2;
    const float dz = z1 - z2;
    return std::sqrt(std::fmaf(dz, dz, std::fmaf(dx, dx, dy * dy)));
}

// Builds steerQuant and steerScale one table row at a time from the per
// pixel and microphone path terms dist (P x M). Row b uses the phase
// coefficient coef(factor) * dist; rows are independent, so they are built
// in parallel, each thread with one float row of its own. The bytes equal
// those of quantizing the whole float table at once (scale and rounding are
// per row), without ever holding it (1.6 GB at the defaults).
void akudoa_planar_build_steering(AKUDoaQuantizeV3Private* d, const std::vector<float>& dist, bool nearField,
                                  float k, bool average)
{
    const int M = d->micNum;
    const int P = d->imageRows * d->imageCols;
    const int B = d->binNum;
    const int cols = 2 * M * P;
#pragma omp parallel
    {
        std::vector<float> row(static_cast<size_t>(cols));
#pragma omp for schedule(dynamic, 1)
        for (int b = 0; b < B; ++b) {
            const int f1 = firstFactor(b, average);
            const int f2 = f1 + 1;
            const float c1 = nearField ? static_cast<float>(f1) * k : static_cast<float>(f1);
            const float c2 = nearField ? static_cast<float>(f2) * k : static_cast<float>(f2);
            fillSteeringRow(dist.data(), P, M, paddedMics(M), c1, c2, average, row.data());
            const float scale = akudoa_row_quant_scale(row.data(), cols);
            d->steerScale->data[b] = scale;
            akudoa_row_quantize(row.data(), cols, scale, reinterpret_cast<int8_t*>(d->steerQuant->data[b]));
        }
    }
}

static float angleDomainDistance(const StCamCfg* cfg)
{
    const float a = static_cast<float>(cfg->eangleDomain) * static_cast<float>(kPi) / 180.0f;
    return 0.70710677f / std::tan(a);
}

bool AKUDoaQuantizeV3::createQuantizeParam()
{
    const StCamCfg* cfg = d->cfg;
    const int NR = d->imageRows;
    const int NC = d->imageCols;
    const int M = d->micNum;
    const int P = NR * NC;
    const float k = static_cast<float>((2.0 * kPi * d->sampleRate) / static_cast<double>(d->frameSize * 340));
    const float T = cfg->imageThetaXYFactor;
    const float D = angleDomainDistance(cfg);

    const int Mp = paddedMics(M);
    std::vector<float> kr(static_cast<size_t>(Mp), 0.0f), phim(static_cast<size_t>(Mp), 0.0f);
    for (int m = 0; m < M; ++m) {
        kr[m] = cfg->micRadius[m] * k;
        phim[m] = cfg->micPhi[m];
    }

    // d[p][m] = kr[m] * cos(phi - phi_m) * sin(theta): the plane-wave path
    // term of microphone m for pixel p, in radians per unit phase factor.
    std::vector<float> dist(static_cast<size_t>(P) * Mp);
#pragma omp parallel for schedule(dynamic, 1)
    for (int i = 0; i < NR; ++i) {
        for (int j = 0; j < NC; ++j) {
            const float u = ((static_cast<float>(i) - static_cast<float>(NR) * 0.5f) + 0.5f) / static_cast<float>(NR);
            const float v = (((static_cast<float>(j) - static_cast<float>(NC) * 0.5f) + 0.5f) / static_cast<float>(NR)) / T;
            const float rho = std::sqrt(u * u + v * v);
            const float theta = std::atan2(rho, D);
            const float phi = std::atan2(v, u);
            const float s = std::sin(theta);
            float* dp = dist.data() + static_cast<size_t>(i * NC + j) * Mp;
            const float32x4_t vphi = vdupq_n_f32(phi);
            const float32x4_t vs = vdupq_n_f32(s);
            for (int m = 0; m < Mp; m += 4) {
                const float32x4_t c = cos_ps(vsubq_f32(vphi, vld1q_f32(phim.data() + m)));
                vst1q_f32(dp + m, vmulq_f32(vmulq_f32(vld1q_f32(kr.data() + m), c), vs));
            }
        }
    }
    akudoa_planar_build_steering(d, dist, false, k, cfg->freqAverage);
    return saveQuantizeParam();
}

bool AKUDoaQuantizeV3::createQuantizeFocusDisParam()
{
    const StCamCfg* cfg = d->cfg;
    const int NR = d->imageRows;
    const int NC = d->imageCols;
    const int M = d->micNum;
    const int P = NR * NC;
    const float k = static_cast<float>((2.0 * kPi * d->sampleRate) /
                                       static_cast<double>(static_cast<float>(d->frameSize) * kSoundSpeed));
    const float T = cfg->imageThetaXYFactor;
    const float D = angleDomainDistance(cfg);
    const float F = cfg->focusDistance;
    const double alpha = std::atan2(static_cast<double>(cfg->micMaxRadius) * 0.5 + 0.5, static_cast<double>(D));

    std::vector<float> mx(static_cast<size_t>(M)), my(static_cast<size_t>(M));
    for (int m = 0; m < M; ++m) {
        mx[m] = std::cos(cfg->micPhi[m]) * cfg->micRadius[m];
        my[m] = std::sin(cfg->micPhi[m]) * cfg->micRadius[m];
    }
    // Focal grid in metres; both axes step by 2/NR, columns narrowed by T.
    std::vector<float> X(static_cast<size_t>(NR)), Y(static_cast<size_t>(NC));
    for (int i = 0; i < NR; ++i)
        X[i] = F * static_cast<float>(std::tan(-((i - NR / 2) + 0.5) * (2.0 / NR) * alpha));
    for (int j = 0; j < NC; ++j)
        Y[j] = F * static_cast<float>(std::tan(-((j - NC / 2) + 0.5) * (2.0 / NR) * alpha)) / T;

    // Full path length from the focal point of each pixel to each microphone.
    const int Mp = paddedMics(M);
    std::vector<float> dist(static_cast<size_t>(P) * Mp, 0.0f);
#pragma omp parallel for schedule(dynamic, 1)
    for (int i = 0; i < NR; ++i)
        for (int j = 0; j < NC; ++j) {
            float* dp = dist.data() + static_cast<size_t>(i * NC + j) * Mp;
            for (int m = 0; m < M; ++m)
                dp[m] = akudoa_pos_distance(mx[m], my[m], 0.0f, X[i], Y[j], F);
        }
    akudoa_planar_build_steering(d, dist, true, k, cfg->freqAverage);
    return saveQuantizeParam();
}

void akudoa_planar_frame(IAKUDoaQuantize& q, AKUDoaQuantizeV3Private* d, mat2d_fp32* frame, const float* win,
                         bool average, const std::vector<int>& rows, bool regression, mat2d_fp32* heatMap)
{
    const int NR = d->imageRows;
    const int NC = d->imageCols;
    const int P = NR * NC;
    const int B = d->binNum;
    const int M = d->micNum;
    const bool radius = d->focusRadiusMode;
    const bool self = d->spectrumSelf;
    const int count = static_cast<int>(rows.size());
    d->pending.leave(rows, B, average);
    AKUDoaOrderedSum sum(d->heatSum->data, P, rows, regression ? d->gprBins->data : d->beamPower->data,
                         regression ? nullptr : d->cfg);

    // One team for the whole frame. A band row's spectrum is quantized by the
    // thread that streams its table row, so the first table rows start right
    // after the channel FFTs.
#pragma omp parallel
    {
#pragma omp for schedule(dynamic, 1)
        for (int ch = 0; ch < M; ++ch)
            akudoa_planar_window_fft(d, frame, win, ch);
#pragma omp for schedule(dynamic, 1)
        for (int e = 0; e < count; ++e) {
            const int b = rows[static_cast<size_t>(e)];
            akudoa_planar_spectrum_row(d, b, average);
            akudoa_planar_row(q, d, b, radius, self);
            // Programs 53/54: the bin's image is re-rendered from its peaks.
            if (regression)
                AKUGaussianProcessRegression::predit_auto_process(d->beamPower->data[b], d->gprBins->data[b], NR,
                                                                  NC, 1.5f, 4.0f, 0.025f, d->cfg->targetQuantize);
            sum.finished(e);
        }
    }

    akudoa_planar_finish(d, self, heatMap);
}

void AKUDoaQuantizeV3::executeFFT(mat2d_fp32* frame)
{
    akudoa_planar_fft(d, frame, d->fftWindow->data, d->cfg->freqAverage);
}

void akudoa_planar_window_fft(AKUDoaQuantizeV3Private* d, mat2d_fp32* frame, const float* win, int ch)
{
    if (ch >= std::min(frame->rows, d->micNum))
        return;
    const int samples = std::min(frame->cols, d->frameSize);
    const float* in = frame->data[ch];
    float* t = d->timeBuf->data[ch];
    for (int i = 0; i < samples; ++i)
        t[i] = in[i] * win[i];
    fftwf_execute(d->fftPlans[ch]);
}

void akudoa_planar_spectrum_row(AKUDoaQuantizeV3Private* d, int b, bool average)
{
    float* row = d->fftData->data[b];
    akudoa_spectrum_row(d->specBuf->data, d->micNum, b, average, row);
    const int cols = d->fftData->cols;
    d->fftScale->data[b] = akudoa_row_quant_scale(row, cols);
    akudoa_row_quantize(row, cols, d->fftScale->data[b], reinterpret_cast<int8_t*>(d->fftQuant->data[b]));
}

void akudoa_planar_fft(AKUDoaQuantizeV3Private* d, mat2d_fp32* frame, const float* win, bool average)
{
#pragma omp parallel for schedule(dynamic, 1)
    for (int ch = 0; ch < d->micNum; ++ch)
        akudoa_planar_window_fft(d, frame, win, ch);
#pragma omp parallel for schedule(static)
    for (int b = 0; b < d->binNum; ++b)
        akudoa_planar_spectrum_row(d, b, average);
    d->pending.clear();
}

void AKUDoaQuantizeV3::matRowDotInt8(mat2d_uint8* fftQ, mat2d_uint8* steerQ, vec_fp32* factor, mat2d_fp32* out, int row)
{
    akudoa_planar_dot_row(d, fftQ, steerQ, factor, out, row);
}

void AKUDoaQuantizeV3::matRowDotInt8WithRadius(mat2d_uint8* fftQ, mat2d_uint8* steerQ, vec_fp32* factor,
                                               mat2d_fp32* out, int row)
{
    akudoa_planar_dot_row_radius(d, fftQ, steerQ, factor, out, row);
}

void AKUDoaQuantizeV3::ComplexNormOffset(mat2d_fp32* in, mat2d_fp32* out, float offset, int row)
{
    akudoa_planar_norm_offset(in, out, offset, row);
}

void akudoa_planar_dot_row(AKUDoaQuantizeV3Private* d, mat2d_uint8* fftQ, mat2d_uint8* steerQ, vec_fp32* factor,
                           mat2d_fp32* out, int row)
{
    const int m2 = fftQ->cols / 2;
    float* o = out->data[row];
    if (d->compact) {
        const int P = d->imageRows * d->imageCols;
        d->dot8.pair(reinterpret_cast<const int8_t*>(fftQ->data[row]),
                     reinterpret_cast<const int8_t*>(steerQ->data[row]), m2, (P + 1) / 2, factor->data[row], o, o + P,
                     o + P - 1, o + 2 * P - 1);
        return;
    }
    const int P = (2 * steerQ->cols) / fftQ->cols;
    d->dot8.fn(reinterpret_cast<const int8_t*>(fftQ->data[row]), reinterpret_cast<const int8_t*>(steerQ->data[row]),
               m2, P, factor->data[row], o, o + P);
}

void akudoa_planar_dot_row_radius(AKUDoaQuantizeV3Private* d, mat2d_uint8* fftQ, mat2d_uint8* steerQ,
                                  vec_fp32* factor, mat2d_fp32* out, int row)
{
    const int m2 = fftQ->cols / 2;
    const int NR = d->imageRows;
    const int NC = d->imageCols;
    const int P = NR * NC;
    const int r0 = std::max((NR >> 1) - (NC >> 2), 0);
    const int r1 = std::min((NR >> 1) + (NC >> 2), NR);
    const int c0 = NC >> 2;
    const int c1 = std::min((NC >> 2) + (NC >> 1), NC);
    const int8_t* a = reinterpret_cast<const int8_t*>(fftQ->data[row]);
    const int8_t* s = reinterpret_cast<const int8_t*>(steerQ->data[row]);
    float* o = out->data[row];
    if (d->compact) {
        // Each pair that has a pixel in the square is computed, which also
        // refreshes its partner outside the square when the square is not
        // point symmetric (odd images); a symmetric square needs only the
        // pairs stored in its first half.
        const int npair = (P + 1) / 2;
        const bool symmetric = r0 + r1 == NR && c0 + c1 == NC;
        const float f = factor->data[row];
        for (int r = r0; r < r1; ++r) {
            const int p0 = r * NC + c0;
            const int p1 = r * NC + c1;
            if (p0 < npair) {
                const int e = std::min(p1, npair);
                d->dot8.pair(a, s + static_cast<size_t>(p0) * m2, m2, e - p0, f, o + p0, o + P + p0, o + P - 1 - p0,
                             o + 2 * P - 1 - p0);
            }
            const int q0 = std::max(p0, npair);
            if (!symmetric && q0 < p1) {
                const int k0 = P - p1; // pairs of the pixels q0 .. p1-1
                d->dot8.pair(a, s + static_cast<size_t>(k0) * m2, m2, P - q0 - k0, f, o + k0, o + P + k0,
                             o + P - 1 - k0, o + 2 * P - 1 - k0);
            }
        }
        return;
    }
    for (int r = r0; r < r1; ++r) {
        const int p0 = r * NC + c0;
        d->dot8.fn(a, s + static_cast<size_t>(p0) * m2, m2, c1 - c0, factor->data[row], o + p0, o + P + p0);
    }
}

void akudoa_planar_norm_offset(mat2d_fp32* in, mat2d_fp32* out, float offset, int row)
{
    const int P = in->cols / 2;
    const int n = (in->cols / 8) * 4;
    const float* re = in->data[row];
    const float* im = re + P;
    float* o = out->data[row];
    const float32x4_t off = vdupq_n_f32(offset);
    int p = 0;
    for (; p + 4 <= n; p += 4) {
        const float32x4_t r = vld1q_f32(re + p);
        const float32x4_t i = vld1q_f32(im + p);
        vst1q_f32(o + p, vfmaq_f32(vfmaq_f32(off, r, r), i, i));
    }
    for (; p < n; ++p)
        o[p] = std::fmaf(im[p], im[p], std::fmaf(re[p], re[p], offset));
}

void akudoa_planar_row(IAKUDoaQuantize& q, AKUDoaQuantizeV3Private* d, int b, bool radius, bool self)
{
    q.dequantizeScale(d->fftScale, d->steerScale, d->dequantFactor, b);
    if (radius)
        akudoa_planar_dot_row_radius(d, d->fftQuant, d->steerQuant, d->dequantFactor, d->beamComplex, b);
    else
        akudoa_planar_dot_row(d, d->fftQuant, d->steerQuant, d->dequantFactor, d->beamComplex, b);
    // Without self terms: minus sum |X_m|^2 (re and -im of every channel).
    const float offset = self ? 0.0f : -q.vec_power_fp32(d->fftData->data[b], 2u * d->micNum);
    akudoa_planar_norm_offset(d->beamComplex, d->beamPower, offset, b);
}

void akudoa_planar_finish(AKUDoaQuantizeV3Private* d, bool self, mat2d_fp32* heatMap)
{
    const int NR = d->imageRows;
    const int NC = d->imageCols;
    const int P = NR * NC;
    const int M = d->micNum;
    float* h = d->heatSum->data;
    const float norm = 1.0f / static_cast<float>((M - 1) * M);
    const float invN = 1.0f / static_cast<float>(d->frameSize);
    for (int p = 0; p < P; ++p) {
        float x = h[p] * norm;
        if (!self && x < 0.0f)
            x = 0.0f;
        h[p] = std::sqrt(x) * invN;
    }

    // 0: as is; 1: half turn (the default); 2: left-right mirror; 3: up-down
    // mirror; any other mode leaves the caller's map as it was. Cells that
    // fall outside a map of another size are skipped. Without a map the
    // per-bin powers stay available to the target analysis.
    const int mode = d->cfg->rotateMode;
    if (!heatMap || mode < 0 || mode > 3)
        return;
    const bool flipRows = mode == 1 || mode == 3;
    const bool flipCols = mode == 1 || mode == 2;
    for (int r = 0; r < NR; ++r) {
        const int tr = flipRows ? NR - 1 - r : r;
        if (tr >= heatMap->rows)
            continue;
        for (int c = 0; c < NC; ++c) {
            const int tc = flipCols ? NC - 1 - c : c;
            if (tc < heatMap->cols)
                heatMap->data[tr][tc] = h[r * NC + c];
        }
    }
}

void akudoa_planar_power_spec(AKUDoaQuantizeV3Private* d, vec_fp32* spectrum, int channel)
{
    if (!spectrum || !d->specBuf || channel < 0 || channel >= d->micNum)
        return;
    akudoa_reverse_power_spectrum(reinterpret_cast<const float*>(d->specBuf->data[channel]), d->frameSize, spectrum);
}

void AKUDoaQuantizeV3::executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap)
{
    const std::vector<doaFreqInfo> L = bands.data();
    const int B = d->binNum;
    const bool average = d->cfg->freqAverage;
    const bool regression = usesRegression(d->cfg);
    if (regression && !d->gprBins)
        d->gprBins = create_mat2d_fp32(B, d->imageRows * d->imageCols);
    // Table rows of the band entries in band order; a band edge one past the
    // Nyquist bin has no row. The bins are sorted and distinct, and so are
    // their halves two entries apart.
    const size_t stride = average ? 2 : 1;
    std::vector<int> rows;
    for (size_t k = 0; k < L.size(); k += stride) {
        const int b = average ? (L[k].bin >> 1) : L[k].bin;
        if (b >= 0 && b < B)
            rows.push_back(b);
    }
    akudoa_planar_frame(*this, d, frame, d->fftWindow->data, average, rows, regression, heatMap);
}

void AKUDoaQuantizeV3::powerSpec(vec_fp32* spectrum, int channel)
{
    akudoa_planar_power_spec(d, spectrum, channel);
}

void AKUDoaQuantizeV3::setSpectrumSelf(bool on)
{
    d->spectrumSelf = on;
}

void AKUDoaQuantizeV3::setFocusRadiusMode(bool on)
{
    d->focusRadiusMode = on;
}

mat2d_fp32* AKUDoaQuantizeV3::getFFTMean()
{
    AKUDoaQuantizeV3Private* p = d;
    p->pending.complete([p](int b, bool average) { akudoa_planar_spectrum_row(p, b, average); });
    return d->fftData;
}

float AKUDoaQuantizeV3::getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands)
{
    const int R = d->imageRows;
    const int C = d->imageCols;
    const int M = d->micNum;
    const int r = target.x;
    const int c = target.y;
    int idx;
    switch (d->cfg->rotateMode) {
    case 0: idx = r * C + c; break;
    case 1: idx = (R - r) * C - c - 1; break;
    case 2: idx = r * C + (C - c - 1); break;
    case 3: idx = (R - r - 1) * C + c; break;
    default: idx = r + R * c; break;
    }
    if (idx < 0 || idx >= R * C)
        return 0.0f; // a target outside the image has no pixel
    const std::vector<doaFreqInfo> L = bands.data();
    float sum = 0.0f;
    for (const doaFreqInfo& e : L) {
        if (e.bin < 0 || e.bin >= d->binNum || e.bin >= AKUDOA_MAX_SENSITIVITY_BINS)
            continue;
        sum = std::fmaf(d->beamPower->data[e.bin][idx], d->cfg->micSensitivity[e.bin], sum);
    }
    return akudoa_target_amplitude(sum, M, d->frameSize, d->spectrumSelf);
}

void AKUDoaQuantizeV3::findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq, int& highFreq,
                                           float& power)
{
    const AKUDoaTargetRangeSource src{d->beamPower, d->imageRows, d->imageCols, d->micNum,
                                      d->frameSize, d->sampleRate, d->cfg && d->cfg->freqAverage};
    akudoa_find_target_freq_range(src, d->cluster, target, bands.data(), lowFreq, highFreq, power);
}

bool AKUDoaQuantizeV3::pickupTargetForCell(int row, int col, int& pickupRow, int& pickupCol) const
{
    // This engine draws the wave from direction -w at its raw pixel with
    // steering direction w; the pickup steers at +w of its stored target.
    // The two grids coincide, so the stored target is the cell on an axis
    // that the rotation mode flips and its mirror rows - 1 - row otherwise.
    const StCamCfg& c = *d->cfg;
    const int mode = c.rotateMode;
    const bool flipRows = mode == 1 || mode == 3;
    const bool flipCols = mode == 1 || mode == 2;
    pickupRow = flipRows ? row : c.imageResolutionRow - 1 - row;
    pickupCol = flipCols ? col : c.imageResolutionCol - 1 - col;
    return true;
}
