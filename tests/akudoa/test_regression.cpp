#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "AKUDoa/akugaussianprocessregression.h"
#include "AKUDoa/akugaussianprocessregression_p.h"
#include "AKUDoa/base/akudoamatrix.h"

namespace {

const float kSentinel = -123.5f;

float at(const std::vector<float>& v, int cols, int r, int c) {
    return v[static_cast<size_t>(r) * static_cast<size_t>(cols) + static_cast<size_t>(c)];
}

// Within n units in the last place of the expected value.
void expectUlps(float got, float want, int n) {
    const float ulp = std::nextafter(std::fabs(want), std::numeric_limits<float>::infinity()) - std::fabs(want);
    EXPECT_LE(std::fabs(got - want), n * ulp) << "got " << got << " want " << want;
}

}  // namespace

TEST(Regression, SinglePointSurfaceValues) {
    const std::vector<fpoint2d> pts = {{2.0f, 3, 4}};
    const float side = 2.0f * std::exp(-0.5f);

    mat2d_fp32* m = create_mat2d_fp32(8, 8);
    AKUGaussianProcessRegression::predit(pts, m, 1.0f, 0.0f);
    EXPECT_EQ(m->data[3][4], 2.0f);
    EXPECT_EQ(m->data[3][5], side);
    EXPECT_EQ(m->data[4][4], side);
    EXPECT_EQ(m->data[2][4], side);
    EXPECT_EQ(m->data[3][3], side);
    EXPECT_EQ(m->data[4][5], 2.0f * std::exp(-1.0f));

    std::vector<float> a(64, kSentinel);
    AKUGaussianProcessRegression::predit(pts, a.data(), 8, 8, 1.0f, 0.0f);
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) EXPECT_EQ(at(a, 8, r, c), m->data[r][c]) << r << "," << c;

    std::vector<float> v(64, kSentinel);
    AKUGaussianProcessRegression::predit2(pts, v.data(), 8, 8, 1.0f, 0.0f);
    EXPECT_EQ(at(v, 8, 3, 4), 2.0f);
    expectUlps(at(v, 8, 3, 5), side, 2);
    expectUlps(at(v, 8, 4, 4), side, 2);
    destroy_mat2d_fp32(m);

    // The constant rides on every kernel value, also far from the point.
    std::vector<float> k(16 * 16);
    AKUGaussianProcessRegression::predit(pts, k.data(), 16, 16, 1.0f, 0.25f);
    EXPECT_EQ(at(k, 16, 3, 4), 2.5f);
    EXPECT_EQ(at(k, 16, 15, 15), 0.5f);

    // The length is squared: l = 2 at distance 2 is exp(-0.5).
    AKUGaussianProcessRegression::predit(pts, k.data(), 16, 16, 2.0f, 0.0f);
    EXPECT_EQ(at(k, 16, 5, 4), side);
}

TEST(Regression, EmptyPointListWritesZeros) {
    std::vector<float> a(6 * 8, kSentinel), b(6 * 8, kSentinel);
    AKUGaussianProcessRegression::predit({}, a.data(), 6, 8, 2.0f, 0.5f);
    AKUGaussianProcessRegression::predit2({}, b.data(), 6, 8, 2.0f, 0.5f);
    for (float x : a) EXPECT_EQ(x, 0.0f);
    for (float x : b) EXPECT_EQ(x, 0.0f);
}

TEST(Regression, Predit2WritesWholeGroupsOfFourOnly) {
    const std::vector<fpoint2d> pts = {{1.0f, 1, 2}, {0.5f, 3, 9}};
    std::vector<float> v(5 * 10, kSentinel);
    AKUGaussianProcessRegression::predit2(pts, v.data(), 5, 10, 1.5f, 0.0f);
    for (int r = 0; r < 5; ++r) {
        for (int c = 0; c < 8; ++c) EXPECT_NE(at(v, 10, r, c), kSentinel) << r << "," << c;
        EXPECT_EQ(at(v, 10, r, 8), kSentinel) << r;
        EXPECT_EQ(at(v, 10, r, 9), kSentinel) << r;
    }
    std::vector<float> narrow(4 * 3, kSentinel);
    AKUGaussianProcessRegression::predit2(pts, narrow.data(), 4, 3, 1.5f, 0.0f);
    for (float x : narrow) EXPECT_EQ(x, kSentinel);
}

// The four-lane path against its one-lane twin (bit for bit) and against the
// scalar predit with the standard exponential. The two formulas differ in
// rounding (-0.5 d^2 / s versus (-0.5 / s) d^2, expf versus exp_ps), so each
// term may differ relatively by a few ulp plus |exponent| ulp; the bound sums
// that over the points, in units of float epsilon.
TEST(SimdRegression, Predit2AgreesWithScalarPaths) {
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> row(-3, 26), col(-3, 30);
    std::uniform_real_distribution<float> weight(-2.0f, 5.0f);
    const int rows = 24, cols = 28;
    const float eps = std::numeric_limits<float>::epsilon();
    for (float l : {0.7f, 3.5f, 9.0f}) {
        for (float c : {0.0f, 0.1f}) {
            std::vector<fpoint2d> pts;
            for (int k = 0; k < 8; ++k) pts.push_back({weight(rng), row(rng), col(rng)});
            std::vector<float> fast(static_cast<size_t>(rows * cols)), twin(fast.size()), scalar(fast.size());
            AKUGaussianProcessRegression::predit2(pts, fast.data(), rows, cols, l, c);
            gpr_predit2_ref(pts, twin.data(), rows, cols, l, c);
            AKUGaussianProcessRegression::predit(pts, scalar.data(), rows, cols, l, c);
            ASSERT_EQ(std::memcmp(fast.data(), twin.data(), fast.size() * sizeof(float)), 0) << "l " << l;
            for (int i = 0; i < rows; ++i) {
                for (int j = 0; j < cols; ++j) {
                    double bound = 0.0;
                    for (const fpoint2d& p : pts) {
                        const double d2 = double(i - p.x) * (i - p.x) + double(j - p.y) * (j - p.y);
                        const double arg = 0.5 * d2 / (double(l) * l);
                        const double e = std::exp(-arg);
                        // exp_ps returns 0 where expf goes subnormal (about
                        // e^-87.3 and below): allow two FLT_MIN per term.
                        bound += std::fabs(p.val) * (e * (8.0 + 2.0 * arg) + 4.0 * (e + c)) +
                                 std::fabs(p.val) * 2.0 * std::numeric_limits<float>::min() / eps;
                    }
                    ASSERT_NEAR(at(fast, cols, i, j), at(scalar, cols, i, j), eps * bound)
                        << "cell " << i << "," << j << " l " << l << " c " << c;
                }
            }
        }
    }
}

TEST(Regression, AutoProcessIgnoresBorderPeaks) {
    const int rows = 12, cols = 16;
    std::vector<float> map(static_cast<size_t>(rows * cols), 0.0f);
    map[5] = 9.0f;  // row 0, column 5
    std::vector<float> out(map.size(), kSentinel);
    AKUGaussianProcessRegression::predit_auto_process(map.data(), out.data(), rows, cols, 2.0f, 1.0f, 1.0f, false);
    for (float x : out) EXPECT_EQ(x, 0.0f);
}

TEST(Regression, AutoProcessUnitWeights) {
    const int rows = 12, cols = 16;
    std::vector<float> map(static_cast<size_t>(rows * cols), 0.0f);
    map[5 * cols + 6] = 37.0f;
    std::vector<float> out(map.size());
    AKUGaussianProcessRegression::predit_auto_process(map.data(), out.data(), rows, cols, 2.0f, 3.0f, 4.0f, true);
    EXPECT_EQ(at(out, cols, 5, 6), 1.0f);
    EXPECT_EQ(*std::max_element(out.begin(), out.end()), 1.0f);
    // b is switched off: no constant far from the peak.
    EXPECT_LT(at(out, cols, 11, 15), 1e-6f);

    AKUGaussianProcessRegression::predit_auto_process(map.data(), out.data(), rows, cols, 2.0f, 3.0f, 4.0f, false);
    EXPECT_EQ(at(out, cols, 5, 6), 37.0f);
}

// Twelve isolated peaks of distinct height: the surface is exactly that of
// the eight highest, in descending order of height.
TEST(Regression, AutoProcessKeepsEightStrongestPeaks) {
    const int rows = 32, cols = 32;
    std::vector<float> map(static_cast<size_t>(rows * cols), 0.0f);
    std::vector<fpoint2d> peaks;
    const float heights[12] = {5, 11, 2, 8, 12, 1, 7, 3, 10, 4, 9, 6};
    for (int k = 0; k < 12; ++k) {
        const fpoint2d p{heights[k], 3 + 8 * (k / 4), 3 + 8 * (k % 4)};
        map[static_cast<size_t>(p.x * cols + p.y)] = p.val;
        peaks.push_back(p);
    }
    std::sort(peaks.begin(), peaks.end(), [](const fpoint2d& a, const fpoint2d& b) { return a.val > b.val; });
    const std::vector<fpoint2d> top8(peaks.begin(), peaks.begin() + 8);

    const float l = 1.5f;
    std::vector<float> out(map.size()), expect(map.size());
    AKUGaussianProcessRegression::predit_auto_process(map.data(), out.data(), rows, cols, l, 0.0f, 0.0f, false);
    AKUGaussianProcessRegression::predit2(top8, expect.data(), rows, cols, l, 0.0f);
    EXPECT_EQ(out, expect);

    // Kept peaks show their height, dropped ones only far tails.
    for (size_t k = 0; k < peaks.size(); ++k) {
        const float v = at(out, cols, peaks[k].x, peaks[k].y);
        if (k < 8) {
            EXPECT_GE(v, peaks[k].val);
            EXPECT_LT(v, peaks[k].val + 0.05f);
        } else {
            EXPECT_LT(v, 0.05f) << "height " << peaks[k].val;
        }
    }
}
