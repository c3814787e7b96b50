#include <gtest/gtest.h>

#include <cmath>

#include "AKUDoa/akudoacordinate_p.h"
#include "support/akudoagrid.h"

// Tables of the affine rule (offsets in raw cells times the section factor,
// slopes per output cell; row from (m0, m1, m2), column from (m3, m4, m5))
// and what the resampler reads through them: exact inside on a linear map,
// the edge value scaled by 1 + overshoot outside.
TEST(Cordinate, AffineTableAndResampling)
{
    const int rows = 6, cols = 5;
    AkuMat raw = akumat(rows, cols), out = akumat(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j)
            raw->data[i][j] = 3.0f * i + 5.0f * j - 13.5f;
    const struct { CordinateMat m; float factor; double u0, ui, uj, v0, vi, vj; } cases[] = {
        {{0, 0, 1, 0, 1, 0}, 10, 0, 1, 0, 0, 0, 1},                    // identity
        {{4, 0.25f, 0.5f, 2, 0.75f, 0}, 4, 1, 0.5, 0.25, 0.5, 0, 0.75}, // u = 1 + i/2 + j/4, v = 1/2 + 3j/4
        {{-1, -1, -1, -1, -1, -1}, 10, -0.1, -1, -1, -0.1, -1, -1}, // configuration defaults: before row and column 0
    };
    for (const auto& c : cases) {
        std::vector<float> table(rows * cols * 2);
        akudoa_cordinate_generate(c.m, c.factor, rows, cols, table.data());
        akudoa_cordinate_resample(table.data(), raw.get(), out.get());
        for (int i = 0; i < rows; ++i)
            for (int j = 0; j < cols; ++j) {
                const double u = c.u0 + c.ui * i + c.uj * j, v = c.v0 + c.vi * i + c.vj * j;
                ASSERT_NEAR(table[2 * (i * cols + j)], u, 1e-5) << c.factor << " " << i << "," << j;
                ASSERT_NEAR(table[2 * (i * cols + j) + 1], v, 1e-5) << c.factor << " " << i << "," << j;
                // Both before the first cell: the corner scaled twice; inside: exact on the linear map.
                const double want = u < 0 ? (1 + u) * (1 + v) * raw->data[0][0] : 3.0 * u + 5.0 * v - 13.5;
                EXPECT_NEAR(out->data[i][j], want, 1e-4 * (1 + std::fabs(want))) << c.factor << " " << i << "," << j;
            }
    }
}

// Points: row from x, column from y, halves rounded away from zero, value kept.
TEST(Cordinate, PointMapping)
{
    const struct { CordinateMat m; fpoint2d p; int x, y; } cases[] = {
        {{5, 0, 1, 0, 1, 0}, {0.75f, 2, 3}, 3, 3}, {{-5, 0, 1, 0, 1, 0}, {0.75f, -2, 1}, -3, 1}, {{0, 1, 0, 0, 0, 1}, {0.75f, 4, 9}, 9, 4}};
    for (const auto& c : cases) {
        const fpoint2d q = akudoa_cordinate_point(c.m, 10.0f, c.p);
        EXPECT_TRUE(q.x == c.x && q.y == c.y && q.val == 0.75f) << q.x << "," << q.y;
    }
}

// The gridding programs: the affine rule first, then the radial pull toward
// the centre, against a double-precision rendering of both image formats.
TEST(Cordinate, RadialCorrectionAfterTheAffineRule)
{
    const struct { int rows, cols; double k1, k2; bool adjust; CordinateMat m; } cases[] = {
        {32, 24, 0.0005, 0.005, false, {0, 0, 1, 0, 1, 0}}, {64, 48, 0.0001, 0.002, true, {0, 0, 1, 0, 1, 0}},
        {16, 16, 0.0001, 0.002, false, {0, 0, 1, 0, 1, 0}}, {32, 24, 0.0005, 0.005, false, {20, 0.1f, 0.9f, -10, 1.1f, 0}},
    };
    const float factor = 10.0f;
    for (const auto& c : cases) {
        std::vector<float> table(c.rows * c.cols * 2);
        akudoa_cordinate_generate_v4(c.m, factor, c.rows, c.cols, table.data());
        // The calibrated 64 x 48 format adds its own offsets and scales.
        const double rx1 = c.m.rx1 + (c.adjust ? factor - 19.0 : 0), ry1 = c.m.ry1 + (c.adjust ? factor / 20.0 - 11.0 : 0);
        const double rx3 = c.m.rx3 + (c.adjust ? 0.053 : 0), ry2 = c.m.ry2 + (c.adjust ? 0.07 : 0);
        const double hr = c.rows / 2, hc = c.cols / 2, cr = hr - 0.5, cc = hc - 0.5;
        for (int i = 0; i < c.rows; ++i)
            for (int j = 0; j < c.cols; ++j) {
                const double u = rx1 / factor + c.m.rx2 * j + rx3 * i, v = ry1 / factor + ry2 * j + c.m.ry3 * i;
                const double d = std::sqrt((j - cc) * (j - cc) + (i - cr) * (i - cr));
                ASSERT_NEAR(table[2 * (i * c.cols + j)], (u - hr) / ((d - cr) * c.k2 + 1.0) * 0.96 + hr, 2e-4) << c.rows << " " << i << "," << j;
                ASSERT_NEAR(table[2 * (i * c.cols + j) + 1], (v - hc) / (d * d * c.k1 + 1.0) + hc, 2e-4) << c.rows << " " << i << "," << j;
            }
    }
}
