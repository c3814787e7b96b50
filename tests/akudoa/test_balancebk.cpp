#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "AKUDoa/akudoabalancebk.h"
#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/base/akudoamatrix.h"

namespace {

StCamCfg config(int rows, int cols, int padRows, int padCols) {
    StCamCfg cfg;
    std::memset(&cfg, 0, sizeof(cfg));
    cfg.imageResolutionRow = rows;
    cfg.imageResolutionCol = cols;
    cfg.extendRows = padRows;
    cfg.extendCols = padCols;
    return cfg;
}

mat2d_fp32* filled(int rows, int cols, float v) {
    mat2d_fp32* m = create_mat2d_fp32(rows, cols);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) m->data[r][c] = v;
    return m;
}

// Reflection about the edge sample, which is not repeated: -1 -> 1, n -> n-2.
int reflect(int i, int n) {
    if (i < 0) return -i;
    if (i >= n) return 2 * n - i - 2;
    return i;
}

}  // namespace

TEST(BalanceBK, ConstantMapClearsEverything) {
    StCamCfg cfg = config(64, 48, 12, 12);
    AKUDoaBalanceBK bk;
    bk.doaInit(&cfg);
    for (float v : {1.0f, 3.5f}) {
        mat2d_fp32* in = filled(64, 48, v);
        mat2d_fp32* out = filled(64, 48, -7.0f);
        const float thr = bk.backNormalization(in, out, 1.0f);
        EXPECT_NEAR(thr, 1.0f, 1e-6f);  // every cell equals its window mean
        for (int r = 0; r < 64; ++r)
            for (int c = 0; c < 48; ++c) ASSERT_EQ(out->data[r][c], 0.0f) << r << "," << c;
        destroy_mat2d_fp32(in);
        destroy_mat2d_fp32(out);
    }
}

TEST(BalanceBK, ZeroMapGivesZeroThreshold) {
    StCamCfg cfg = config(64, 48, 12, 12);
    AKUDoaBalanceBK bk;
    bk.doaInit(&cfg);
    mat2d_fp32* in = filled(64, 48, 0.0f);
    mat2d_fp32* out = filled(64, 48, 5.0f);
    EXPECT_EQ(bk.backNormalization(in, out, 2.0f), 0.0f);
    for (int r = 0; r < 64; ++r)
        for (int c = 0; c < 48; ++c) ASSERT_EQ(out->data[r][c], 0.0f);
    destroy_mat2d_fp32(in);
    destroy_mat2d_fp32(out);
}

// A bright interior cell is divided by its window mean (100 + 168) / 169 and
// is the only cell left above the median (1) with factor 1.
TEST(BalanceBK, SingleBrightCellStandsOut) {
    StCamCfg cfg = config(64, 48, 12, 12);
    AKUDoaBalanceBK bk;
    bk.doaInit(&cfg);
    mat2d_fp32* in = filled(64, 48, 1.0f);
    in->data[30][20] = 100.0f;
    mat2d_fp32* out = create_mat2d_fp32(64, 48);
    const float thr = bk.backNormalization(in, out, 1.0f);
    EXPECT_NEAR(thr, 1.0f, 1e-6f);
    const double expect = (100.0 / (268.0 / 169.0) - 1.0) * 1e-4;
    for (int r = 0; r < 64; ++r) {
        for (int c = 0; c < 48; ++c) {
            if (r == 30 && c == 20) {
                EXPECT_NEAR(out->data[r][c], expect, 1e-6 * expect);
            } else {
                ASSERT_EQ(out->data[r][c], 0.0f) << r << "," << c;
            }
        }
    }
    destroy_mat2d_fp32(in);
    destroy_mat2d_fp32(out);
}

// Exact zeros stay zero even among large neighbours and with a zero
// threshold, where every other positive cell survives.
TEST(BalanceBK, ZeroCellsStayZero) {
    StCamCfg cfg = config(16, 20, 4, 4);
    AKUDoaBalanceBK bk;
    bk.doaInit(&cfg);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> uni(1.0f, 50.0f);
    mat2d_fp32* in = create_mat2d_fp32(16, 20);
    for (int r = 0; r < 16; ++r)
        for (int c = 0; c < 20; ++c) in->data[r][c] = ((r * 7 + c) % 5 == 0) ? 0.0f : uni(rng);
    mat2d_fp32* out = create_mat2d_fp32(16, 20);
    EXPECT_EQ(bk.backNormalization(in, out, 0.0f), 0.0f);
    for (int r = 0; r < 16; ++r) {
        for (int c = 0; c < 20; ++c) {
            if (in->data[r][c] == 0.0f) {
                EXPECT_EQ(out->data[r][c], 0.0f) << r << "," << c;
            } else {
                EXPECT_GT(out->data[r][c], 0.0f) << r << "," << c;
            }
        }
    }
    destroy_mat2d_fp32(in);
    destroy_mat2d_fp32(out);
}

// Against a double-precision local mean with explicit mirrored indices, for
// even and odd border sizes (catches an off-by-one in the reflection, a
// missing corner, a window shifted by a cell) and the threshold rule.
TEST(BalanceBK, MatchesMirroredWindowReference) {
    struct Case {
        int rows, cols, padRows, padCols;
        float factor;
    } cases[] = {{10, 14, 4, 6, 0.0f}, {9, 12, 3, 5, 0.0f}, {12, 8, 6, 2, 1.3f}, {11, 16, 12, 12, 0.8f}};
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> uni(0.5f, 20.0f);
    for (const Case& k : cases) {
        SCOPED_TRACE(testing::Message() << k.rows << "x" << k.cols << " borders " << k.padRows << "," << k.padCols);
        StCamCfg cfg = config(k.rows, k.cols, k.padRows, k.padCols);
        AKUDoaBalanceBK bk;
        bk.doaInit(&cfg);
        mat2d_fp32* in = create_mat2d_fp32(k.rows, k.cols);
        for (int r = 0; r < k.rows; ++r)
            for (int c = 0; c < k.cols; ++c) in->data[r][c] = uni(rng);
        mat2d_fp32* out = create_mat2d_fp32(k.rows, k.cols);
        const float thr = bk.backNormalization(in, out, k.factor);

        const int hR = k.padRows / 2, hC = k.padCols / 2;
        const double area = double(k.padRows + 1) * (k.padCols + 1);
        std::vector<double> ratio;
        for (int r = 0; r < k.rows; ++r) {
            for (int c = 0; c < k.cols; ++c) {
                double s = 0.0;
                for (int dr = -hR; dr <= k.padRows - hR; ++dr)
                    for (int dc = -hC; dc <= k.padCols - hC; ++dc)
                        s += in->data[reflect(r + dr, k.rows)][reflect(c + dc, k.cols)];
                ratio.push_back(in->data[r][c] / (s / area));
            }
        }
        // Upper median of the (all positive) ratios, times the factor.
        std::vector<double> sorted = ratio;
        std::sort(sorted.begin(), sorted.end());
        const double wantThr = sorted[sorted.size() / 2] * k.factor;
        EXPECT_NEAR(thr, wantThr, 1e-5 * std::max(1.0, wantThr));
        for (int r = 0; r < k.rows; ++r) {
            for (int c = 0; c < k.cols; ++c) {
                const double q = ratio[static_cast<size_t>(r * k.cols + c)];
                const double want = (q > thr) ? (q - thr) * 1e-4 : 0.0;
                ASSERT_NEAR(out->data[r][c], want, 1e-9 + 1e-5 * want) << r << "," << c;
            }
        }
        destroy_mat2d_fp32(in);
        destroy_mat2d_fp32(out);
    }
}

// Re-initialising with another size works on the new size, up to its last
// corner cell.
TEST(BalanceBK, ReinitialisedForAnotherSize) {
    AKUDoaBalanceBK bk;
    StCamCfg a = config(8, 8, 2, 2);
    bk.doaInit(&a);
    StCamCfg b = config(6, 10, 4, 4);
    bk.doaInit(&b);
    mat2d_fp32* in = filled(6, 10, 2.0f);
    in->data[5][9] = 20.0f;
    mat2d_fp32* out = create_mat2d_fp32(6, 10);
    const float thr = bk.backNormalization(in, out, 1.0f);
    EXPECT_GT(out->data[5][9], 0.0f);
    EXPECT_LT(out->data[5][9], (20.0f / 2.0f) * 1e-4f);
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 10; ++c)
            if (r != 5 || c != 9) {
                EXPECT_EQ(out->data[r][c], 0.0f) << r << "," << c << " thr " << thr;
            }
    destroy_mat2d_fp32(in);
    destroy_mat2d_fp32(out);
}
