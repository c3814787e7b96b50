#include "AKUDoa/iakudoaquantize.h"

#include <algorithm>
#include <cmath>

#include "AKUDoa/iakudoaquantize_p.h"
#include "AKUDoa/base/akudoaneon.h"

float akudoa_row_maxabs(const float* x, int cols)
{
    // Four running lanes, as the vector unit reads them; the maximum does not
    // depend on the order, so the lanes only mirror the whole-group rule.
    float lane[4] = {std::fabs(x[0]), std::fabs(x[1]), std::fabs(x[2]), std::fabs(x[3])};
    const int groups = cols / 4;
    for (int g = 1; g < groups; ++g) {
        for (int k = 0; k < 4; ++k) {
            const float a = std::fabs(x[4 * g + k]);
            if (a > lane[k])
                lane[k] = a;
        }
    }
    float m = lane[0];
    for (int k = 1; k < 4; ++k)
        if (lane[k] > m)
            m = lane[k];
    return m;
}

float akudoa_row_quant_scale(const float* x, int cols)
{
    return 127.0f / akudoa_row_maxabs(x, cols);
}

void akudoa_row_quantize(const float* x, int cols, float scale, int8_t* q)
{
    const float s2 = 2.0f * scale;
    const int n = (cols / 8) * 8;
    if (!std::isfinite(s2)) {
        // An all-zero row has an infinite scale; its products are 0 * inf.
        // Write the zeros that the conversion yields on every target
        // instead of converting NaN, which C++ leaves undefined.
        for (int c = 0; c < n; ++c)
            q[c] = 0;
        return;
    }
    for (int c = 0; c < n; ++c)
        q[c] = akudoa_quantize_one(x[c], s2);
}

IAKUDoaQuantize::~IAKUDoaQuantize() = default;

void akudoa_spectrum_row(const akudoa_fftwf_complex* const* spectra, int M, int b, bool average, float* row,
                         akudoa_fftwf_complex* pairs)
{
    for (int m = 0; m < M; ++m) {
        const akudoa_fftwf_complex* X = spectra[m];
        float re, im;
        if (average) {
            re = X[2 * b][0] + X[2 * b + 1][0];
            im = X[2 * b][1] + X[2 * b + 1][1];
        } else {
            re = X[b][0];
            im = X[b][1];
        }
        if (pairs) {
            pairs[m][0] = re;
            pairs[m][1] = im;
        }
        row[m] = re;
        row[M + m] = -im;
        row[2 * M + m] = im;
        row[3 * M + m] = re;
    }
}

float akudoa_bin_gain(const StCamCfg* cfg, int b)
{
    return b < AKUDOA_MAX_SENSITIVITY_BINS ? cfg->micSensitivity[b] : 1.0f;
}

void akudoa_add_row(float* heat, int P, const float* in, float w)
{
    const float32x4_t wv = vdupq_n_f32(w);
    int p = 0;
    for (; p + 4 <= P; p += 4)
        vst1q_f32(heat + p, vfmaq_f32(vld1q_f32(heat + p), vld1q_f32(in + p), wv));
    for (; p < P; ++p)
        heat[p] = std::fmaf(in[p], w, heat[p]);
}

AKUDoaOrderedSum::AKUDoaOrderedSum(float* heat, int P, const std::vector<int>& rows, float* const* maps,
                                   const StCamCfg* cfg)
    : heat_(heat), P_(P), rows_(rows), maps_(maps), cfg_(cfg), done_(new std::atomic<bool>[rows.size()])
{
    std::fill(heat, heat + P, 0.0f);
    for (size_t e = 0; e < rows.size(); ++e)
        done_[e].store(false, std::memory_order_relaxed);
}

void AKUDoaOrderedSum::finished(int e)
{
    const int count = static_cast<int>(rows_.size());
    done_[e].store(true);
    // Sequentially consistent flags: a thread that finds `busy_` taken has
    // published its row first, and the adder looks at the next row again
    // after letting go, so no finished row is left behind.
    while (!busy_.exchange(true)) {
        int n = next_.load();
        for (; n < count && done_[n].load(); ++n) {
            const int b = rows_[static_cast<size_t>(n)];
            akudoa_add_row(heat_, P_, maps_[b], cfg_ ? akudoa_bin_gain(cfg_, b) : 1.0f);
        }
        next_.store(n);
        busy_.store(false);
        if (n >= count || !done_[n].load())
            return;
    }
}

void IAKUDoaQuantize::quantizeScale(mat2d_fp32* m, vec_fp32* scale)
{
    for (int r = 0; r < m->rows; ++r)
        scale->data[r] = akudoa_row_quant_scale(m->data[r], m->cols);
}

void IAKUDoaQuantize::quantizeScale(mat2d_fp32* m, vec_fp32* scale, vec_fp32* maxAbs)
{
    for (int r = 0; r < m->rows; ++r) {
        const float mx = akudoa_row_maxabs(m->data[r], m->cols);
        maxAbs->data[r] = mx;
        scale->data[r] = 127.0f / mx;
    }
}

void IAKUDoaQuantize::quantize(mat2d_fp32* m, vec_fp32* scale, mat2d_uint8* q)
{
    for (int r = 0; r < m->rows; ++r)
        akudoa_row_quantize(m->data[r], m->cols, scale->data[r],
                            reinterpret_cast<int8_t*>(q->data[r]));
}

void IAKUDoaQuantize::dequantizeScale(vec_fp32* a, vec_fp32* b, vec_fp32* out, int i)
{
    out->data[i] = 1.0f / (a->data[i] * b->data[i]);
}

void IAKUDoaQuantize::dequantize(mat2d_int32* acc, vec_fp32* factor, mat2d_fp32* out, int row)
{
    const int n = (acc->cols / 4) * 4;
    const float f = factor->data[row];
    const int32_t* in = acc->data[row];
    float* o = out->data[row];
    for (int c = 0; c < n; ++c)
        o[c] = static_cast<float>(in[c]) * f;
}

void IAKUDoaQuantize::ComplexAdd(mat2d_fp32* m, vec_fp32* sum, int row)
{
    const float* in = m->data[row];
    for (int i = 0; i < sum->n; ++i)
        sum->data[i] += in[i];
}

void IAKUDoaQuantize::ComplexAdd(mat1d_fp32* m, vec_fp32* sum)
{
    for (int i = 0; i < sum->n; ++i)
        sum->data[i] += m->data[i];
}

void IAKUDoaQuantize::ComplexAddWithScale(mat2d_fp32* m, vec_fp32* sum, float w, int row)
{
    const float* in = m->data[row];
    for (int i = 0; i < sum->n; ++i)
        sum->data[i] = std::fmaf(in[i], w, sum->data[i]);
}

void IAKUDoaQuantize::ComplexAddWithScale(mat1d_fp32* m, vec_fp32* sum, float w)
{
    for (int i = 0; i < sum->n; ++i)
        sum->data[i] = std::fmaf(m->data[i], w, sum->data[i]);
}

float IAKUDoaQuantize::vec_power_fp32(float* x, unsigned n)
{
    float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    const unsigned groups = n / 4;
    for (unsigned j = 0; j < groups; ++j)
        for (unsigned k = 0; k < 4; ++k)
            lane[k] = std::fmaf(x[4 * j + k], x[4 * j + k], lane[k]);
    return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

void akudoa_reverse_power_spectrum(const float* x, int available, vec_fp32* spectrum)
{
    const int n = spectrum->n < available ? spectrum->n : available;
    for (int i = 0; i < n; ++i)
        spectrum->data[n - 1 - i] = x[2 * i] * x[2 * i] + x[2 * i + 1] * x[2 * i + 1];
}

bool IAKUDoaQuantize::pickupTargetForCell(int, int, int&, int&) const
{
    return false;
}
