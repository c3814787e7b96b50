#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>

#include "AKUDoa/base/akudoaarray.h"

namespace {

// Owns a mat2d_fp32 filled from a row-major list (or by f(r, c)).
struct Mat {
    mat2d_fp32* m;
    template <class F> Mat(int rows, int cols, F f) : m(create_mat2d_fp32(rows, cols))
    {
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                m->data[r][c] = f(r, c);
    }
    Mat(int rows, int cols, const std::vector<float>& v = {}) : Mat(rows, cols, [&](int r, int c) { return v.empty() ? 0.0f : v[r * cols + c]; }) {}
    ~Mat() { destroy_mat2d_fp32(m); }
    float& at(int r, int c) { return m->data[r][c]; }
};

std::vector<fpoint2d> peaks(std::vector<float> map, int rows, int cols, float thr, int r0, int r1, int c0, int c1, std::vector<fpoint2d> out = {})
{
    array_findpeak2d(map.data(), rows, cols, thr, out, r0, r1, c0, c1);
    return out;
}

} // namespace

TEST(Array, ElementwiseAndReductions)
{
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    std::vector<float> a{1.5f, -2.0f, 0.0f, 4.0f, 8.0f};
    array_scale_fp32_anchor(a.data(), -0.5f, 4); // the element beyond n stays
    EXPECT_EQ(a, (std::vector<float>{-0.75f, 1.0f, -0.0f, -2.0f, 8.0f}));
    std::vector<float> f{-3.0f, 1e-9f, 2.0f, nan, -inf, 0.5f};
    array_setfloor_fp32(f.data(), 1e-3f, 5);
    EXPECT_EQ(f[0] + f[1] + f[4], 3e-3f);
    EXPECT_TRUE(f[2] == 2.0f && std::isnan(f[3]) && f[5] == 0.5f) << "NaN must not be floored";
    std::vector<float> s{0.0f, 2.25f, 1e6f, -4.0f, 9.0f};
    errno = 0;
    array_sqrt_fp32_anchor(s.data(), 4);
    EXPECT_TRUE(s[0] == 0.0f && s[1] == 1.5f && s[2] == 1000.0f && std::isnan(s[3]) && s[4] == 9.0f);
    EXPECT_TRUE(!(math_errhandling & MATH_ERRNO) || errno == EDOM);

    // Four lanes over 4*floor(n/4) elements, divided by n, combined as
    // (l0 + l1) + (l2 + l3): a running sum or other pairing gives other values.
    const struct { std::vector<float> v; unsigned n; float want; } avg[] = {
        {{1, 2, 3, 4, 100}, 5, 2.0f}, {{2, 4, 6, 8}, 2, 10.0f}, {{1e8f, 1.0f, -1e8f, 1.0f}, 4, 0.0f},
        {{1e8f, 1.0f, 0.0f, 0.0f, -1e8f, 1.0f, 0.0f, 0.0f}, 8, 0.25f},
    };
    for (const auto& c : avg)
        EXPECT_EQ(array_avg_fp32(const_cast<float*>(c.v.data()), c.n), c.want) << c.n;

    // The fused step: -1.3 .. 2.9 over 7 points rounds differently unfused.
    vec_fp32* v = create_vec_fp32(7);
    vec_fp32_linespace(v, -1.3f, 2.9f);
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(v->data[i], std::fmaf(float(i), 4.2f / 6.0f, -1.3f)) << i;
    const float e[7] = {5, 1, 9, 9, 1, -2, 0};
    std::copy(e, e + 7, v->data);
    float mx, mn;
    int imx, imn;
    vec_fp32_find_max(v, mx, imx);
    vec_fp32_find_min(v, mn, imn);
    EXPECT_EQ(std::vector<float>({mx, float(imx), mn, float(imn)}), std::vector<float>({9, 2, -2, 5})); // first of ties
    destroy_vec_fp32(v);

    // Difference taken in integers: beyond float's integer range it survives.
    EXPECT_EQ(point_quad({0, 16777217, 0}, {0, 16777216, 0}), 1.0f);

    // Upper median of the positive values (of all when none), input untouched.
    const struct { std::vector<float> v; float want; } med[] = {
        {{0, 0, 0, 5, 9, 2}, 5}, {{4, 1, 3, 2}, 3}, {{0, -3, -7, 0, -2}, -2}, {{-9, 6, -1, 0, 1, 4}, 4}, {{-2}, -2}};
    for (const auto& c : med) {
        std::vector<float> copy = c.v;
        EXPECT_EQ(array_media_fp32(copy.data(), unsigned(copy.size())), c.want);
        EXPECT_EQ(copy, c.v);
    }
    Mat mm(3, 4, {0, 0, 0, 0, 8, 1, 0, -3, 6, 0, 2, 7});
    EXPECT_EQ(mat2d_fp32_median(mm.m), 6.0f);

    // Block sums, single precision row by row (1e8 absorbs the ones).
    Mat p(4, 5, [](int r, int c) { return float(10 * r + c); });
    EXPECT_EQ(mat2d_fp32_partSum(p.m, 2, 3, 1, 2) + mat2d_fp32_partSum(p.m, 0, 5, 0, 0) + mat2d_fp32_partSum(p.m, -1, 5, 0, 0), 108.0f);
    Mat big(1, 5, {1e8f, 1.0f, 1.0f, 1.0f, 1.0f});
    EXPECT_EQ(mat2d_fp32_partSum(big.m, 1, 5, 0, 0), 1e8f);
}

// A bilinear surface is reproduced at the mapped coordinates (i + 0.5) *
// scale - 0.5, extrapolated beyond the border, for up, down and same size.
TEST(Array, BilinearResampling)
{
    auto f = [](float r, float c) { return 1 + 2 * r + c + 0.5f * r * c; };
    for (auto [sr, sc, dr, dc] : {std::array<int, 4>{2, 2, 4, 4}, {3, 3, 2, 6}, {3, 2, 2, 1}, {5, 7, 5, 7}}) {
        Mat src(sr, sc, [&](int r, int c) { return f(float(r), float(c)); }), dst(dr, dc);
        mat_fp32_bilinearInterpol(src.m, dst.m);
        for (int i = 0; i < dr; ++i)
            for (int j = 0; j < dc; ++j)
                EXPECT_FLOAT_EQ(dst.at(i, j), f((i + 0.5f) * sr / dr - 0.5f, (j + 0.5f) * sc / dc - 0.5f)) << sr << "x" << sc << " to " << dr << "x" << dc << " at " << i << "," << j;
    }
}

TEST(Array, FindPeak2d)
{
    // Corner peak: out-of-image neighbours count as 0; strictly above threshold.
    std::vector<float> map(36, 0.0f);
    map[0] = 2.0f;
    map[1] = 1.0f;
    ASSERT_EQ(peaks(map, 6, 6, 1.9f, 0, 6, 0, 6).size(), 1u);
    EXPECT_TRUE(peaks(map, 6, 6, 2.0f, 0, 6, 0, 6).empty());
    std::vector<float> neg(36, -5.0f);
    neg[0] = -1.0f; // all negative: the zeros outside beat the corner
    EXPECT_TRUE(peaks(neg, 6, 6, -3.0f, 0, 6, 0, 6).empty());

    // Equal maxima: adjacent or two columns apart only the left one, three
    // apart both; rows are independent.
    std::vector<float> eq(5 * 12, 0.0f);
    for (int i : {2 * 12 + 2, 2 * 12 + 3, 2 * 12 + 8, 2 * 12 + 10, 4 * 12 + 2, 4 * 12 + 5, 1 * 12 + 5, 0 * 12 + 5})
        eq[i] = 1.0f;
    std::vector<fpoint2d> e = peaks(eq, 5, 12, 0.5f, 0, 5, 0, 12);
    std::vector<std::pair<int, int>> at;
    for (const fpoint2d& p : e)
        at.push_back({p.x, p.y});
    std::sort(at.begin(), at.end());
    EXPECT_EQ(at, (std::vector<std::pair<int, int>>{{0, 5}, {1, 5}, {2, 2}, {2, 8}, {4, 2}, {4, 5}}));

    // Cone blobs: sorted by height together with prior content; the window
    // limits where peaks are searched, not the neighbourhood.
    const int rows = 16, cols = 20;
    std::vector<float> cones(rows * cols, 0.0f);
    const float blobs[3][3] = {{3, 4, 2.0f}, {10, 15, 5.0f}, {12, 3, 3.5f}};
    for (const auto& bl : blobs)
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                cones[r * cols + c] = std::max(cones[r * cols + c], bl[2] - 0.5f * std::hypot(r - bl[0], c - bl[1]));
    const struct { int r0, r1, c0, c1; std::vector<float> want; } windows[] = {
        {0, rows, 0, cols, {5.0f, 4.0f, 3.5f, 2.0f}}, {0, rows, 0, 14, {4.0f, 3.5f, 2.0f}}, {8, rows, 10, cols, {5.0f, 4.0f}}};
    for (const auto& w : windows) {
        std::vector<float> got;
        for (const fpoint2d& p : peaks(cones, rows, cols, 0.1f, w.r0, w.r1, w.c0, w.c1, {{4.0f, -1, -1}})) {
            got.push_back(p.val);
            EXPECT_TRUE(p.val != 5.0f || (p.x == 10 && p.y == 15));
        }
        EXPECT_EQ(got, w.want) << w.r0 << ".." << w.r1 << " x " << w.c0 << ".." << w.c1;
    }
}
