#include "AKUDoa/akudoabalancebk.h"

#include <cstring>

#include "AKUDoa/base/akudoaarray.h"

struct AKUDoaBalanceBKPrivate {
    mat2d_fp32* padded = nullptr;  // (rows + padRows) x (cols + padCols), mirrored copy of the input
    int32_t rows = 64;
    int32_t cols = 48;
    int32_t padRows = 12;
    int32_t padCols = 12;
    StCamCfg* cfg = nullptr;  // not owned
};

namespace {

// The excess above the threshold is reported on this small scale.
const float kExcessScale = 0.0001f;

}  // namespace

AKUDoaBalanceBK::AKUDoaBalanceBK() : d(new AKUDoaBalanceBKPrivate) {}

AKUDoaBalanceBK::~AKUDoaBalanceBK() {
    destroy_mat2d_fp32(d->padded);
    delete d;
}

void AKUDoaBalanceBK::doaInit(StCamCfg* cfg) {
    d->rows = cfg->imageResolutionRow;
    d->cols = cfg->imageResolutionCol;
    d->padRows = cfg->extendRows;
    d->padCols = cfg->extendCols;
    d->cfg = cfg;
    // A repeated init replaces the scratch (sizes may have changed).
    destroy_mat2d_fp32(d->padded);
    d->padded = create_mat2d_fp32(d->rows + d->padRows, d->cols + d->padCols);
}

float AKUDoaBalanceBK::backNormalization(mat2d_fp32* in, mat2d_fp32* out, float factor) {
    const int rows = d->rows, cols = d->cols;
    const int hR = d->padRows / 2;
    const int hC = d->padCols / 2;
    const float inv = 1.0f / static_cast<float>((d->padRows + 1) * (d->padCols + 1));
    mat2d_fp32* pad = d->padded;
    const int pRows = pad->rows, pCols = pad->cols;

    for (int p = 0; p < pRows; ++p) std::memset(pad->data[p], 0, sizeof(float) * static_cast<size_t>(pCols));

    // Rows: reflection about the edge row, which is not repeated.
    for (int p = 0; p < pRows; ++p) {
        int src;
        if (p < hR)
            src = hR - p;
        else if (p >= hR + rows)
            src = hR + 2 * rows - p - 2;
        else
            src = p - hR;
        std::memcpy(pad->data[p] + hC, in->data[src], sizeof(float) * static_cast<size_t>(cols));
    }
    // Columns, over every padded row so that the corners are mirrored too.
    for (int p = 0; p < pRows; ++p) {
        float* row = pad->data[p];
        for (int q = 0; q < hC; ++q) row[q] = row[2 * hC - q];
        for (int q = hC + cols; q < pCols; ++q) row[q] = row[2 * (hC + cols) - q - 2];
    }

    // Local contrast: the window whose top-left padded cell is (r, c) is the
    // one centred on input cell (r, c) for even border sizes.
    for (int r = 0; r < rows; ++r) {
        const float* src = in->data[r];
        float* dst = out->data[r];
        for (int c = 0; c < cols; ++c) {
            const float v = src[c];
            if (v == 0.0f) {
                dst[c] = 0.0f;
                continue;
            }
            const float s = mat2d_fp32_partSum(pad, d->padRows + 1, d->padCols + 1, r, c);
            dst[c] = (s == 0.0f) ? 0.0f : v / (inv * s);
        }
    }

    const float threshold = mat2d_fp32_median(out) * factor;
    for (int r = 0; r < rows; ++r) {
        float* dst = out->data[r];
        for (int c = 0; c < cols; ++c) dst[c] = (dst[c] > threshold) ? (dst[c] - threshold) * kExcessScale : 0.0f;
    }
    return threshold;
}
