#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "AKUDoa/akudoabalancebk.h"
#include "AKUDoa/akudoacamcfg.h"
#include "AKUDoa/base/akudoamatrix.h"

// Against a double-precision local mean with explicit mirrored indices
// (reflection about the edge cell, which is not repeated) for even and odd
// border sizes, then the threshold: the upper median of the positive ratios
// times the factor. Exact zeros stay zero; an all-zero map gives 0. One
// object re-initialised for every size.
TEST(BalanceBK, MatchesMirroredWindowReference)
{
    const struct { int rows, cols, padRows, padCols; float factor; int zeroEvery; float scale; } cases[] = {
        {10, 14, 4, 6, 0.0f, 5, 1}, {9, 12, 3, 5, 0.0f, 0, 1}, {12, 8, 6, 2, 1.3f, 7, 1}, {11, 16, 12, 12, 0.8f, 0, 1},
        {64, 48, 12, 12, 1.0f, 0, 1}, {64, 48, 12, 12, 1.0f, 1, 0}};
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> uni(0.5f, 20.0f);
    auto reflect = [](int i, int n) { return i < 0 ? -i : i >= n ? 2 * n - i - 2 : i; };
    AKUDoaBalanceBK bk;
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << k.rows << "x" << k.cols << " borders " << k.padRows << "," << k.padCols);
        StCamCfg cfg{};
        cfg.imageResolutionRow = k.rows, cfg.imageResolutionCol = k.cols, cfg.extendRows = k.padRows, cfg.extendCols = k.padCols;
        bk.doaInit(&cfg);
        mat2d_fp32 *in = create_mat2d_fp32(k.rows, k.cols), *out = create_mat2d_fp32(k.rows, k.cols);
        for (int r = 0; r < k.rows; ++r)
            for (int c = 0; c < k.cols; ++c)
                in->data[r][c] = (k.zeroEvery && (r * 7 + c) % k.zeroEvery == 0) ? 0.0f : uni(rng) * k.scale, out->data[r][c] = -7.0f;
        const float thr = bk.backNormalization(in, out, k.factor);
        std::vector<double> ratio, positive;
        for (int r = 0; r < k.rows; ++r)
            for (int c = 0; c < k.cols; ++c) {
                double s = 0.0;
                for (int dr = -k.padRows / 2; dr <= k.padRows - k.padRows / 2; ++dr)
                    for (int dc = -k.padCols / 2; dc <= k.padCols - k.padCols / 2; ++dc)
                        s += in->data[reflect(r + dr, k.rows)][reflect(c + dc, k.cols)];
                ratio.push_back(in->data[r][c] == 0 ? 0.0 : in->data[r][c] / (s / ((k.padRows + 1.0) * (k.padCols + 1))));
                if (ratio.back() > 0)
                    positive.push_back(ratio.back());
            }
        std::sort(positive.begin(), positive.end());
        const double wantThr = positive.empty() ? 0.0 : positive[positive.size() / 2] * k.factor;
        EXPECT_NEAR(thr, wantThr, 1e-5 * std::max(1.0, wantThr));
        for (int r = 0; r < k.rows; ++r)
            for (int c = 0; c < k.cols; ++c) {
                const double q = ratio[r * k.cols + c], want = q > thr ? (q - thr) * 1e-4 : 0.0;
                ASSERT_NEAR(out->data[r][c], want, 1e-9 + 1e-5 * want) << r << "," << c;
            }
        destroy_mat2d_fp32(in), destroy_mat2d_fp32(out);
    }
}
