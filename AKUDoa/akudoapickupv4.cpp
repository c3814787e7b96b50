#include "AKUDoa/akudoapickupv4.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/base/akudoamath.h"
#include "AKUDoa/base/akudoaneon.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
// Taps carried from one frame to the next.
constexpr int kKeep = AKUDOA_PICKUP_TAPS - 1;

inline float firOne_ref(const float* h, const float* t)
{
    float lane[4] = {0.f, 0.f, 0.f, 0.f};
    for (int k = 0; k < AKUDOA_PICKUP_TAPS; ++k)
        lane[k & 3] = std::fmaf(h[k], t[k], lane[k & 3]);
    return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

} // namespace

void akudoa_pickup_fir_sum_ref(float* const* hist, float* const* taps, int mics, int n_out, float* acc)
{
    for (int m = 0; m < mics; ++m) {
        const float* h = hist[m];
        const float* t = taps[m];
        for (int n = 0; n < n_out; ++n)
            acc[n] += firOne_ref(h + n, t);
    }
}

// Vectorised across four consecutive outputs instead of across the taps:
// accumulator i holds, for each of the four outputs, the lane-i chain of the
// reference (taps i, i + 4, ..., i + 20 in that order), so every output sees
// exactly the reference's roundings.
void akudoa_pickup_fir_sum(float* const* hist, float* const* taps, int mics, int n_out, float* acc)
{
#if defined(AKUDOA_CHECK_SIMD) && AKUDOA_CHECK_SIMD
    float* check = static_cast<float*>(std::malloc(sizeof(float) * (n_out > 0 ? n_out : 1)));
    if (n_out > 0)
        std::memcpy(check, acc, sizeof(float) * n_out);
    akudoa_pickup_fir_sum_ref(hist, taps, mics, n_out, check);
#endif
    const int nVec = n_out & ~3;
    for (int m = 0; m < mics; ++m) {
        const float* h = hist[m];
        const float* t = taps[m];
        float32x4_t tv[AKUDOA_PICKUP_TAPS];
        for (int k = 0; k < AKUDOA_PICKUP_TAPS; ++k)
            tv[k] = vdupq_n_f32(t[k]);
        for (int n = 0; n < nVec; n += 4) {
            const float* hn = h + n;
            float32x4_t a0 = vdupq_n_f32(0.f), a1 = a0, a2 = a0, a3 = a0;
            for (int j = 0; j < AKUDOA_PICKUP_TAPS; j += 4) {
                a0 = vfmaq_f32(a0, vld1q_f32(hn + j), tv[j]);
                a1 = vfmaq_f32(a1, vld1q_f32(hn + j + 1), tv[j + 1]);
                a2 = vfmaq_f32(a2, vld1q_f32(hn + j + 2), tv[j + 2]);
                a3 = vfmaq_f32(a3, vld1q_f32(hn + j + 3), tv[j + 3]);
            }
            const float32x4_t s = vaddq_f32(vaddq_f32(a0, a1), vaddq_f32(a2, a3));
            vst1q_f32(acc + n, vaddq_f32(vld1q_f32(acc + n), s));
        }
        for (int n = nVec; n < n_out; ++n)
            acc[n] += firOne_ref(h + n, t);
    }
#if defined(AKUDOA_CHECK_SIMD) && AKUDOA_CHECK_SIMD
    if (n_out > 0 && std::memcmp(check, acc, sizeof(float) * n_out) != 0)
        std::abort();
    std::free(check);
#endif
}

void akudoa_pickup_delays(const float* reach, const float* micPhi, int mics, float sinTheta, float phi, float* delay)
{
    const float32x4_t s = vdupq_n_f32(sinTheta);
    const float32x4_t p = vdupq_n_f32(phi);
    for (int m = 0; m + 4 <= mics; m += 4) {
        const float32x4_t c = cos_ps(vsubq_f32(p, vld1q_f32(micPhi + m)));
        vst1q_f32(delay + m, vmulq_f32(vmulq_f32(vld1q_f32(reach + m), s), c));
    }
}

void akudoa_pickup_target_for_gridded_cell(const StCamCfg& cfg, int rowA, int colA, int& row, int& col)
{
    const int rows = cfg.imageResolutionRow;
    const int cols = cfg.imageResolutionCol;
    const double xy = cfg.imageThetaXYFactor;
    // The gridding engine's geometry: grid size G, row stride S, half H,
    // column offset o, and the half angle alpha of its spatial-frequency axis.
    const int g = std::max(rows, cols) + 2;
    const int stride = g & ~1;
    const int half = g >> 1;
    const int off = ((stride - std::min(rows, cols)) >> 1) - 2;
    const float t4 = static_cast<float>(0.7071067811865476 / tanf(static_cast<float>((cfg.eangleDomain + 1) * kPi / 180.0)));
    const double alpha = atan2f(0.5f * cfg.micMaxRadius + 0.5f, t4);
    const double step = 2.0 * std::sin(alpha) / g;
    auto signedIndex = [&](int k) { return k < stride / 2 ? k : k - stride; };
    const int p = signedIndex((half + rowA + 1) % stride);
    const int q = signedIndex((half + off + 2 + colA) % stride);
    const double sx = p * step;
    const double sy = q * step / xy;
    // Invert the pickup's steering: direction sines (v, u) / sqrt(rho^2 + t^2).
    const double t = 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0);
    const double sigma2 = std::min(sx * sx + sy * sy, 0.999);
    const double scale = t / std::sqrt(1.0 - sigma2);
    const double v = sx * scale;
    const double u = sy * scale;
    row = static_cast<int>(std::lround(v * rows + rows * 0.5 - 0.5));
    col = static_cast<int>(std::lround(u * xy * rows + cols * 0.5 - 0.5));
}

AKUDoaPickupV4Private::~AKUDoaPickupV4Private()
{
    // The FFT work areas, taps, geometry copies and history, then the
    // remaining buffers and plans so that nothing outlives the pickup.
    destroy_vec_fp32(fftIn);
    destroy_vec_fp32(fftOut);
    destory_vec_fftwfcplx(spectrum);
    destory_vec_fftwfcplx(masked);
    destroy_mat2d_fp32(taps);
    destroy_vec_fp32(micReach);
    destroy_vec_fp32(micDelay);
    destroy_vec_fp32(micPhi);
    destroy_vec_fp32(spare);
    destroy_mat2d_fp32(history);
    destroy_mat2d_fp32(tapsSpare);
    destroy_vec_fp32(fftWindow);
    destroy_mat2d_fp32(sumBuf);
    destroy_mat2d_fp32(outBuf);
    if (forwardPlan)
        fftwf_destroy_plan(forwardPlan);
    if (inversePlan)
        fftwf_destroy_plan(inversePlan);
}

void AKUDoaPickupV4Private::fir_sinctap_param_create(vec_fp32* delays, mat2d_fp32* taps)
{
    for (int m = 0; m < taps->rows; ++m) {
        const float d = delays->data[m];
        float* row = taps->data[m];
        for (int t = 0; t < AKUDOA_PICKUP_TAPS; ++t) {
            const float x = static_cast<float>(t) - d + 1.0f;
            // x == 0 takes 1 as the table always did; a whole-sample delay
            // that puts the centre x - 12 at 0 takes the limit sin(s)/s -> 1.
            const float s = static_cast<float>(static_cast<double>(x - 12.0f) * kPi);
            const float sinc = (x == 0.0f || s == 0.0f) ? 1.0f : sinf(s) / s;
            const float w = 0.54f - 0.46f * cosf(static_cast<float>((static_cast<double>(x) + 0.5) * (2.0 * kPi) / 24.0));
            row[AKUDOA_PICKUP_TAPS - 1 - t] = w * sinc;
        }
    }
}

void AKUDoaPickupV4Private::computeDelays(float sinTheta, float phi)
{
    akudoa_pickup_delays(micReach->data, micPhi->data, micNum, sinTheta, phi, micDelay->data);
}

void AKUDoaPickupV4Private::copyPre(mat2d_fp32* frame)
{
    const int n = frameSize;
    for (int m = 0; m < micNum; ++m) {
        float* h = history->data[m];
        std::memmove(h, h + n, sizeof(float) * kKeep);
        std::memcpy(h + kKeep, frame->data[m], sizeof(float) * n);
    }
}

void AKUDoaPickupV4Private::processPickup(AKUDoaFreqBands& bands, vec_fp32* out)
{
    const int n = frameSize;
    const int half = n / 2;
    float** sum = sumBuf->data;
    float** res = outBuf->data;

    std::memcpy(sum[2], sum[0], sizeof(float) * n);
    std::memcpy(res[2], res[0], sizeof(float) * n);
    std::memset(sum[0], 0, sizeof(float) * n);

    akudoa_pickup_fir_sum(history->data, taps->data, micNum, n, sum[0]);

    // Block straddling the previous and the current frame.
    std::memcpy(sum[1], sum[2] + half, sizeof(float) * half);
    std::memcpy(sum[1] + half, sum[0], sizeof(float) * (n - half));

    const bool fullBand = cfg->pickupFullBand;
    const std::vector<doaFreqInfo> list = fullBand ? std::vector<doaFreqInfo>() : bands.data();
    const float* win = fftWindow->data;
    akudoa_fftwf_complex* fwd = spectrum->data;
    akudoa_fftwf_complex* mask = masked->data;
    const int nGroups = 4 * (n / 4);
    for (int p = 0; p < 2; ++p) {
        std::memset(fftIn->data, 0, sizeof(float) * n);
        std::memset(mask, 0, sizeof(akudoa_fftwf_complex) * n);
        for (int i = 0; i < nGroups; ++i)
            fftIn->data[i] = sum[p][i] * win[i];
        fftwf_execute(forwardPlan);
        if (fullBand) {
            // Only the first N/2 + 1 entries reach the inverse transform.
            for (int k = 0; k <= half; ++k) {
                mask[k][0] = fwd[k][0] * win[k];
                mask[k][1] = fwd[k][1] * win[k];
            }
        } else {
            for (size_t i = 0; i < list.size(); ++i) {
                const int k = list.at(i).bin;
                if (k < 0 || k >= n)
                    continue;
                // The window value of the same index weights the bin.
                mask[k][0] = fwd[k][0] * win[k];
                mask[k][1] = fwd[k][1] * win[k];
            }
        }
        fftwf_execute(inversePlan);
        std::memcpy(res[p], fftOut->data, sizeof(float) * n);
    }

    float* o = out->data;
    for (int i = 0; i < half; ++i) {
        o[i] = res[2][half + i] + res[1][i];
        o[half + i] = res[1][half + i] + res[0][i];
    }
    // Fixed output scale 4 / (N sqrt(M)): N undoes the unnormalised inverse
    // transform, sqrt(M) keeps uncorrelated channel noise at one channel's level.
    const float scale = 4.0f / (static_cast<float>(n) * sqrtf(static_cast<float>(micNum)));
    for (int i = 0; i < n; ++i)
        o[i] *= scale;
}

AKUDoaPickupV4::AKUDoaPickupV4()
    : d(new AKUDoaPickupV4Private)
{
}

AKUDoaPickupV4::~AKUDoaPickupV4()
{
    delete d;
}

void AKUDoaPickupV4::initPickup(StCamCfg* cfg)
{
    d->cfg = cfg;
    d->micNum = cfg->channelNum;
    d->rows = cfg->imageResolutionRow;
    d->cols = cfg->imageResolutionCol;
    d->rotateMode = cfg->rotateMode;
    d->frameSize = cfg->frameSize;
    d->sampleRate = cfg->sampleFrequency;
    const int m = d->micNum;
    const int n = d->frameSize;

    d->taps = create_mat2d_fp32(m, AKUDOA_PICKUP_TAPS);
    d->tapsSpare = create_mat2d_fp32(m, AKUDOA_PICKUP_TAPS);
    d->micReach = create_vec_fp32(m);
    d->micDelay = create_vec_fp32(m);
    d->micPhi = create_vec_fp32(m);
    d->spare = create_vec_fp32(n);
    d->history = create_mat2d_fp32(m, n + kKeep);
    d->fftIn = create_vec_fp32(n);
    d->spectrum = create_vec_fftwfcplx(n);
    d->masked = create_vec_fftwfcplx(n);
    // The complex buffers come uninitialised; the transforms write only
    // N/2 + 1 of N entries.
    std::memset(d->spectrum->data, 0, sizeof(akudoa_fftwf_complex) * n);
    std::memset(d->masked->data, 0, sizeof(akudoa_fftwf_complex) * n);
    d->fftOut = create_vec_fp32(n);
    d->fftWindow = create_vec_fp32(n);
    d->sumBuf = create_mat2d_fp32(3, n);
    d->outBuf = create_mat2d_fp32(3, n);
    d->forwardPlan = fftwf_plan_dft_r2c_1d(n, d->fftIn->data, reinterpret_cast<fftwf_complex*>(d->spectrum->data), FFTW_ESTIMATE);
    d->inversePlan = fftwf_plan_dft_c2r_1d(n, reinterpret_cast<fftwf_complex*>(d->masked->data), d->fftOut->data, FFTW_ESTIMATE);

    // Whole samples per metre at 340 m/s: 96000 Hz gives 282, not 282.35.
    d->samplesPerMetre = static_cast<float>(cfg->sampleFrequency / 340);
    for (int i = 0; i < m; ++i) {
        d->micReach->data[i] = cfg->micRadius[i] * d->samplesPerMetre;
        d->micPhi->data[i] = cfg->micPhi[i];
    }
    initTargetPoint(d->rows / 2, d->cols / 2);
}

void AKUDoaPickupV4::initTargetPoint(int row, int col)
{
    AKUDoaPickupV4Private* p = d;
    const int rows = p->rows;
    const int cols = p->cols;
    // row == rows and col == cols count as inside on purpose.
    if (row < 0 || row > rows || col < 0 || col > cols) {
        const int cr = rows / 2;
        const int cc = cols / 2;
        if (cr == p->targetRow && cc == p->targetCol)
            return;
        p->targetRow = cr;
        p->targetCol = cc;
    } else {
        if (row == p->targetRow && col == p->targetCol)
            return;
        switch (p->cfg->rotateMode) {
        case 0:
            p->targetRow = row;
            p->targetCol = col;
            break;
        case 1:
            p->targetRow = rows - row;
            p->targetCol = cols - col;
            break;
        case 2:
            p->targetRow = row;
            p->targetCol = cols - col;
            break;
        case 3:
            p->targetRow = rows - row;
            p->targetCol = col;
            break;
        default:
            break; // unknown mode: keep the stored target
        }
    }

    p->applyTarget();
}

void AKUDoaPickupV4::steerTo(int row, int col)
{
    AKUDoaPickupV4Private* p = d;
    if (row < 0 || row > p->rows || col < 0 || col > p->cols) {
        row = p->rows / 2;
        col = p->cols / 2;
    }
    if (row == p->targetRow && col == p->targetCol)
        return;
    p->targetRow = row;
    p->targetCol = col;
    p->applyTarget();
}

void AKUDoaPickupV4Private::applyTarget()
{
    AKUDoaPickupV4Private* p = this;
    const int rows = p->rows;
    const int cols = p->cols;
    const int r = p->targetRow;
    const int c = p->targetCol;
    const float t = 0.70710677f / tanf(static_cast<float>(p->cfg->eangleDomain) * static_cast<float>(kPi) / 180.0f);
    // Both offsets are divided by the row count: columns use the row pitch,
    // narrowed by the angle scale factor.
    const float v = static_cast<float>((static_cast<double>(static_cast<float>(r) - static_cast<float>(rows) * 0.5f) + 0.5) * (1.0 / rows));
    const float u = static_cast<float>((static_cast<double>(static_cast<float>(c) - static_cast<float>(cols) * 0.5f) + 0.5) * (1.0 / rows))
                    / p->cfg->imageThetaXYFactor;
    const float rho = sqrtf(u * u + v * v);
    const float theta = atan2f(rho, t);
    const float phi = atan2f(u, v);
    p->computeDelays(sinf(theta), phi);
    fir_sinctap_param_create(p->micDelay, p->taps);
}

void AKUDoaPickupV4::updateFFTWin(float* window, int length)
{
    if (length == d->frameSize && d->fftWindow)
        std::memcpy(d->fftWindow->data, window, sizeof(float) * length);
}

void AKUDoaPickupV4::executePickup(mat2d_fp32* frame, AKUDoaFreqBands& bands, vec_fp32* out)
{
    d->copyPre(frame);
    d->processPickup(bands, out);
}
