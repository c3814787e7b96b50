#include "AKUDoa/akugaussianprocessregression.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AKUDoa/akugaussianprocessregression_p.h"
#include "AKUDoa/base/akudoaarray.h"
#include "AKUDoa/base/akudoamath_p.h"

namespace {

// The engines render at most this many peaks: it bounds the per-call cost
// to rows * cols * 8 kernel evaluations.
const size_t kMaxPeaks = 8;

}  // namespace

float AKUGaussianProcessRegressionPrivate::kernel(fpoint2d p, fpoint2d q, float s, float c) {
    const float dx = static_cast<float>(p.x - q.x);
    const float dy = static_cast<float>(p.y - q.y);
    const float d2 = dx * dx + dy * dy;
    return std::exp(-0.5f * d2 / s) + c;
}

float32x4_t AKUGaussianProcessRegressionPrivate::kernel(float32x4_t X, float32x4_t Y, fpoint2d q, float s,
                                                        float c) {
    const float32x4_t dx = vsubq_f32(X, vdupq_n_f32(static_cast<float>(q.x)));
    const float32x4_t dy = vsubq_f32(Y, vdupq_n_f32(static_cast<float>(q.y)));
    const float32x4_t d2 = vaddq_f32(vmulq_f32(dx, dx), vmulq_f32(dy, dy));
    const float32x4_t e = exp_ps_inl(vmulq_n_f32(d2, -0.5f / s));
    return vaddq_f32(e, vdupq_n_f32(c));
}

void gpr_predit2_ref(const std::vector<fpoint2d>& pts, float* out, int rows, int cols, float l, float c) {
    const float s = l * l;
    const float k = -0.5f / s;
    const int groups = cols / 4;
    for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < 4 * groups; ++j) {
            float acc = 0.0f;
            for (const fpoint2d& p : pts) {
                const float dx = static_cast<float>(i) - static_cast<float>(p.x);
                const float dy = static_cast<float>(j) - static_cast<float>(p.y);
                const float d2 = dx * dx + dy * dy;
                const float kv = exp_ps_ref(d2 * k) + c;
                acc = std::fmaf(kv, p.val, acc);
            }
            out[static_cast<size_t>(i) * static_cast<size_t>(cols) + static_cast<size_t>(j)] = acc;
        }
    }
}

void AKUGaussianProcessRegression::predit(std::vector<fpoint2d> pts, mat2d_fp32* out, float l, float c) {
    const float s = l * l;
    for (int i = 0; i < out->rows; ++i) {
        float* row = out->data[i];
        for (int j = 0; j < out->cols; ++j) {
            const fpoint2d cell{0.0f, i, j};
            float v = 0.0f;
            for (const fpoint2d& p : pts)
                v = std::fmaf(p.val, AKUGaussianProcessRegressionPrivate::kernel(cell, p, s, c), v);
            row[j] = v;
        }
    }
}

void AKUGaussianProcessRegression::predit(std::vector<fpoint2d> pts, float* out, int rows, int cols, float l,
                                          float c) {
    const float s = l * l;
    for (int i = 0; i < rows; ++i) {
        float* row = out + static_cast<size_t>(i) * static_cast<size_t>(cols);
        for (int j = 0; j < cols; ++j) {
            const fpoint2d cell{0.0f, i, j};
            float v = 0.0f;
            for (const fpoint2d& p : pts)
                v = std::fmaf(p.val, AKUGaussianProcessRegressionPrivate::kernel(cell, p, s, c), v);
            row[j] = v;
        }
    }
}

void AKUGaussianProcessRegression::predit2(std::vector<fpoint2d> pts, float* out, int rows, int cols, float l,
                                           float c) {
    const float s = l * l;
    const int groups = cols / 4;
    const float lane[4] = {0.0f, 1.0f, 2.0f, 3.0f};
    const float32x4_t laneOffset = vld1q_f32(lane);
    for (int i = 0; i < rows; ++i) {
        float* row = out + static_cast<size_t>(i) * static_cast<size_t>(cols);
        const float32x4_t X = vdupq_n_f32(static_cast<float>(i));
        for (int g = 0; g < groups; ++g) {
            const float32x4_t Y = vaddq_f32(vdupq_n_f32(static_cast<float>(4 * g)), laneOffset);
            float32x4_t acc = vdupq_n_f32(0.0f);
            for (const fpoint2d& p : pts)
                acc = vfmaq_f32(acc, AKUGaussianProcessRegressionPrivate::kernel(X, Y, p, s, c), vdupq_n_f32(p.val));
            vst1q_f32(row + 4 * g, acc);
        }
    }
#if defined(AKUDOA_CHECK_SIMD)
    if (rows > 0 && groups > 0) {
        const size_t n = static_cast<size_t>(rows) * static_cast<size_t>(cols);
        float* ref = static_cast<float*>(std::malloc(n * sizeof(float)));
        gpr_predit2_ref(pts, ref, rows, cols, l, c);
        for (int i = 0; i < rows; ++i) {
            for (int j = 0; j < 4 * groups; ++j) {
                const size_t at = static_cast<size_t>(i) * static_cast<size_t>(cols) + static_cast<size_t>(j);
                if (std::memcmp(&ref[at], &out[at], sizeof(float)) != 0 && !(std::isnan(ref[at]) && std::isnan(out[at]))) {
                    std::fprintf(stderr, "akudoa check: predit2 (%d, %d) vector %a, reference %a\n", i, j, out[at],
                                 ref[at]);
                    std::abort();
                }
            }
        }
        std::free(ref);
    }
#endif
}

void AKUGaussianProcessRegression::predit_auto_process(float* map, float* out, int rows, int cols, float l,
                                                       float a, float b, bool unitWeights) {
    // Threshold and kernel constant are switched off (a * 0, b * 0); the
    // parameters stay in the interface for the engines that pass them.
    std::vector<fpoint2d> peaks;
    array_findpeak2d(map, rows, cols, a * 0.0f, peaks, 1, rows - 1, 1, cols - 1);
    std::vector<fpoint2d> selection;
    selection.reserve(kMaxPeaks);
    for (fpoint2d& p : peaks) {
        if (selection.size() >= kMaxPeaks) break;
        if (unitWeights) p.val = 1.0f;
        selection.push_back(p);
    }
    predit2(selection, out, rows, cols, l, b * 0.0f);
}
