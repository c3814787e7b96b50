#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "AKUDoa/akugaussianprocessregression.h"
#include "AKUDoa/akugaussianprocessregression_p.h"

using GPR = AKUGaussianProcessRegression;

// Exact kernel values around one point (length squared inside, the constant
// on every kernel value), the same through every output form; predit2 writes
// whole groups of four columns only; no points write zeros.
TEST(Regression, KernelValuesAndOutputForms)
{
    const std::vector<fpoint2d> pts = {{2.0f, 3, 4}};
    const float side = 2.0f * std::exp(-0.5f), diag = 2.0f * std::exp(-1.0f);
    std::vector<float> a(8 * 10, -1.0f), v(8 * 10, -1.0f), k(16 * 16);
    mat2d_fp32* m = create_mat2d_fp32(8, 10);
    GPR::predit(pts, m, 1.0f, 0.0f);
    GPR::predit(pts, a.data(), 8, 10, 1.0f, 0.0f);
    GPR::predit2(pts, v.data(), 8, 10, 1.0f, 0.0f);
    const struct { int r, c; float want; } cells[] = {{3, 4, 2.0f}, {3, 5, side}, {4, 4, side}, {2, 4, side}, {3, 3, side}, {4, 5, diag}};
    for (const auto& c : cells)
        EXPECT_TRUE(m->data[c.r][c.c] == c.want && std::fabs(v[c.r * 10 + c.c] - c.want) <= 2.4e-7f * c.want) << c.r << "," << c.c;
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 10; ++c)
            EXPECT_TRUE(a[r * 10 + c] == m->data[r][c] && (v[r * 10 + c] == -1.0f) == (c >= 8)) << r << "," << c;
    destroy_mat2d_fp32(m);
    GPR::predit(pts, k.data(), 16, 16, 1.0f, 0.25f);
    EXPECT_TRUE(k[3 * 16 + 4] == 2.5f && k[15 * 16 + 15] == 0.5f);
    GPR::predit(pts, k.data(), 16, 16, 2.0f, 0.0f);
    EXPECT_EQ(k[5 * 16 + 4], side);
    GPR::predit({}, a.data(), 8, 10, 2.0f, 0.5f);
    GPR::predit2({}, v.data(), 8, 8, 2.0f, 0.5f);
    EXPECT_TRUE(std::all_of(a.begin(), a.end(), [](float x) { return x == 0.0f; }));
    EXPECT_TRUE(std::all_of(v.begin(), v.begin() + 64, [](float x) { return x == 0.0f; }));
}

// The four-lane path equals its one-lane twin bit for bit and the scalar
// predit within the rounding of the two formulas (-0.5 d^2 / s versus
// (-0.5 / s) d^2, expf versus exp_ps: a few ulp plus |exponent| ulp per term,
// and exp_ps flushes what expf leaves subnormal).
TEST(Regression, VectorPathAgreesWithScalarPaths)
{
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> row(-3, 26), col(-3, 30);
    std::uniform_real_distribution<float> weight(-2.0f, 5.0f);
    const int rows = 24, cols = 28;
    const double eps = std::numeric_limits<float>::epsilon();
    for (float l : {0.7f, 3.5f, 9.0f})
        for (float c : {0.0f, 0.1f}) {
            std::vector<fpoint2d> pts;
            for (int k = 0; k < 8; ++k)
                pts.push_back({weight(rng), row(rng), col(rng)});
            std::vector<float> fast(rows * cols), twin(fast.size()), scalar(fast.size());
            GPR::predit2(pts, fast.data(), rows, cols, l, c);
            gpr_predit2_ref(pts, twin.data(), rows, cols, l, c);
            GPR::predit(pts, scalar.data(), rows, cols, l, c);
            ASSERT_EQ(std::memcmp(fast.data(), twin.data(), fast.size() * sizeof(float)), 0) << "l " << l;
            for (int i = 0; i < rows; ++i)
                for (int j = 0; j < cols; ++j) {
                    double bound = 0.0;
                    for (const fpoint2d& p : pts) {
                        const double arg = 0.5 * (double(i - p.x) * (i - p.x) + double(j - p.y) * (j - p.y)) / (double(l) * l), e = std::exp(-arg);
                        bound += std::fabs(p.val) * (e * (8.0 + 2.0 * arg) + 4.0 * (e + c) + 2.0 * std::numeric_limits<float>::min() / eps);
                    }
                    ASSERT_NEAR(fast[i * cols + j], scalar[i * cols + j], eps * bound) << i << "," << j << " l " << l << " c " << c;
                }
        }
}

// Twelve isolated peaks of distinct height plus one on the border (ignored):
// the surface is that of the eight highest in descending order; unit weights
// put 1 at the strongest peak; a and b have no effect.
TEST(Regression, AutoProcessKeepsEightStrongestPeaks)
{
    const int rows = 32, cols = 32;
    std::vector<float> map(rows * cols, 0.0f), out(map.size()), expect(map.size());
    std::vector<fpoint2d> peaks;
    const float heights[12] = {5, 11, 2, 8, 12, 1, 7, 3, 10, 4, 9, 6};
    for (int k = 0; k < 12; ++k) {
        peaks.push_back({heights[k], 3 + 8 * (k / 4), 3 + 8 * (k % 4)});
        map[peaks.back().x * cols + peaks.back().y] = heights[k];
    }
    map[5] = 50.0f; // row 0
    std::sort(peaks.begin(), peaks.end(), [](const fpoint2d& a, const fpoint2d& b) { return a.val > b.val; });
    peaks.resize(8);
    GPR::predit_auto_process(map.data(), out.data(), rows, cols, 1.5f, 3.0f, 4.0f, false);
    GPR::predit2(peaks, expect.data(), rows, cols, 1.5f, 0.0f);
    EXPECT_EQ(out, expect);
    for (fpoint2d& p : peaks)
        p.val = 1.0f;
    GPR::predit_auto_process(map.data(), out.data(), rows, cols, 1.5f, 3.0f, 4.0f, true);
    GPR::predit2(peaks, expect.data(), rows, cols, 1.5f, 0.0f);
    EXPECT_EQ(out, expect);
}
