#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "AKUDoa/base/akudoaarray.h"

namespace {

// Owns a mat2d_fp32 filled from a row-major list.
struct Mat {
    mat2d_fp32* m;
    Mat(int rows, int cols) : m(create_mat2d_fp32(rows, cols)) {}
    Mat(int rows, int cols, const std::vector<float>& v) : Mat(rows, cols)
    {
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                m->data[r][c] = v[static_cast<size_t>(r * cols + c)];
    }
    ~Mat() { destroy_mat2d_fp32(m); }
    Mat(const Mat&) = delete;
    Mat& operator=(const Mat&) = delete;
    float& at(int r, int c) { return m->data[r][c]; }
};

struct Vec {
    vec_fp32* v;
    explicit Vec(const std::vector<float>& x) : v(create_vec_fp32(static_cast<int>(x.size())))
    {
        std::copy(x.begin(), x.end(), v->data);
    }
    explicit Vec(size_t n) : v(create_vec_fp32(static_cast<int>(n))) {}
    ~Vec() { destroy_vec_fp32(v); }
    Vec(const Vec&) = delete;
    Vec& operator=(const Vec&) = delete;
};

fpoint2d pt(int x, int y) { return fpoint2d{0.0f, x, y}; }

} // namespace

TEST(ArrayElementwise, ScaleFloorSqrt)
{
    std::vector<float> a{1.5f, -2.0f, 0.0f, 4.0f, 8.0f};
    array_scale_fp32_anchor(a.data(), -0.5f, 4); // last element untouched
    EXPECT_EQ(a, (std::vector<float>{-0.75f, 1.0f, -0.0f, -2.0f, 8.0f}));

    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    std::vector<float> f{-3.0f, 1e-9f, 2.0f, nan, -inf, 1e-3f, 0.5f};
    array_setfloor_fp32(f.data(), 1e-3f, 6);
    EXPECT_EQ(f[0], 1e-3f);
    EXPECT_EQ(f[1], 1e-3f);
    EXPECT_EQ(f[2], 2.0f);
    EXPECT_TRUE(std::isnan(f[3])) << "NaN must not be floored";
    EXPECT_EQ(f[4], 1e-3f);
    EXPECT_EQ(f[5], 1e-3f);
    EXPECT_EQ(f[6], 0.5f) << "beyond n";

    std::vector<float> s{0.0f, 1.0f, 2.25f, 1e6f, -4.0f, 9.0f};
    errno = 0;
    array_sqrt_fp32_anchor(s.data(), 5);
    EXPECT_EQ(s[0], 0.0f);
    EXPECT_EQ(s[1], 1.0f);
    EXPECT_EQ(s[2], 1.5f);
    EXPECT_EQ(s[3], 1000.0f);
    EXPECT_TRUE(std::isnan(s[4]));
    EXPECT_EQ(s[5], 9.0f);
    if (math_errhandling & MATH_ERRNO) {
        EXPECT_EQ(errno, EDOM) << "negative square root sets the error state";
    }
}

TEST(ArrayAverage, TailIgnoredButCounted)
{
    std::vector<float> a{1, 2, 3, 4, 100};
    EXPECT_EQ(array_avg_fp32(a.data(), 5), 2.0f);

    // n < 4 still sums the four leading elements.
    std::vector<float> b{2, 4, 6, 8};
    EXPECT_EQ(array_avg_fp32(b.data(), 2), 10.0f);

    std::vector<float> c{1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(array_avg_fp32(c.data(), 8), 4.5f);
}

TEST(ArrayAverage, LaneWiseSummationOrder)
{
    // Lanes combined as (l0 + l1) + (l2 + l3): 1e8 + 1 and -1e8 + 1 both round
    // to +-1e8, so the result is 0. A running sum gives 1/4, lanes paired as
    // (l0 + l2) + (l1 + l3) give 2/4.
    std::vector<float> a{1e8f, 1.0f, -1e8f, 1.0f};
    EXPECT_EQ(array_avg_fp32(a.data(), 4), 0.0f);

    // Each lane accumulates its own column: lane 0 cancels exactly (0), lane 1
    // keeps 2; a running sum would absorb the first 1 into 1e8 and give 1/8.
    std::vector<float> b{1e8f, 1.0f, 0.0f, 0.0f, -1e8f, 1.0f, 0.0f, 0.0f};
    EXPECT_EQ(array_avg_fp32(b.data(), 8), 0.25f);
}

TEST(ArrayLinespace, EvenSpacingWithFusedStep)
{
    Vec v(size_t{5});
    vec_fp32_linespace(v.v, -1.0f, 1.0f);
    EXPECT_EQ(std::vector<float>(v.v->data, v.v->data + 5),
              (std::vector<float>{-1.0f, -0.5f, 0.0f, 0.5f, 1.0f}));

    // -1.3 .. 2.9 over 7 points: two elements round differently when the
    // product is rounded before the add; the fused form is required.
    Vec w(size_t{7});
    const float a = -1.3f, b = 2.9f;
    vec_fp32_linespace(w.v, a, b);
    const float step = (b - a) / 6.0f;
    int discriminating = 0;
    for (int i = 0; i < 7; ++i) {
        const float fused = std::fmaf(static_cast<float>(i), step, a);
        const volatile float prod = static_cast<float>(i) * step;
        if (prod + a != fused)
            ++discriminating;
        EXPECT_EQ(w.v->data[i], fused) << "i=" << i;
    }
    EXPECT_GT(discriminating, 0) << "test data no longer tells fused from unfused";
}

TEST(ArrayExtremes, FirstIndexOnTies)
{
    Vec v(std::vector<float>{3, 7, 7, 1});
    float m = 0;
    int idx = -1;
    vec_fp32_find_max(v.v, m, idx);
    EXPECT_EQ(m, 7.0f);
    EXPECT_EQ(idx, 1);
    float m2 = 0;
    vec_fp32_find_max(v.v, m2);
    EXPECT_EQ(m2, 7.0f);

    Vec u(std::vector<float>{5, 1, 9, 1, 2});
    vec_fp32_find_min(u.v, m, idx);
    EXPECT_EQ(m, 1.0f);
    EXPECT_EQ(idx, 1);
    vec_fp32_find_min(u.v, m2);
    EXPECT_EQ(m2, 1.0f);

    // Extremes in the last position (loop runs to the end).
    Vec w(std::vector<float>{0, -2, 4, -8, 16});
    vec_fp32_find_max(w.v, m, idx);
    EXPECT_EQ(idx, 4);
    vec_fp32_find_min(w.v, m, idx);
    EXPECT_EQ(idx, 3);
    EXPECT_EQ(m, -8.0f);

    Vec one(std::vector<float>{-3});
    vec_fp32_find_min(one.v, m, idx);
    EXPECT_EQ(m, -3.0f);
    EXPECT_EQ(idx, 0);
    vec_fp32_find_max(one.v, m, idx);
    EXPECT_EQ(m, -3.0f);
    EXPECT_EQ(idx, 0);
}

TEST(ArrayBilinear, UpsampleExtrapolatesAtBorders)
{
    // src(r, c) = 1 + 2r + c is linear, so resampling reproduces it exactly at
    // the mapped coordinates y, x in {-0.25, 0.25, 0.75, 1.25}, including the
    // extrapolated border (destination (0, 0) uses fy = fx = -0.25).
    Mat src(2, 2, {1, 2, 3, 4});
    Mat dst(4, 4);
    mat_fp32_bilinearInterpol(src.m, dst.m);
    const float coord[4] = {-0.25f, 0.25f, 0.75f, 1.25f};
    EXPECT_EQ(dst.at(0, 0), 0.25f);
    EXPECT_EQ(dst.at(3, 3), 4.75f);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            EXPECT_EQ(dst.at(i, j), 1 + 2 * coord[i] + coord[j]) << i << "," << j;

    // A bilinear surface r*c + r with a non-square scale (3x3 -> 2x6).
    Mat s2(3, 3);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            s2.at(r, c) = static_cast<float>(r * c + r);
    Mat d2(2, 6);
    mat_fp32_bilinearInterpol(s2.m, d2.m);
    const float ys[2] = {0.25f, 1.75f};                          // (i+0.5)*1.5-0.5
    const float xs[6] = {-0.25f, 0.25f, 0.75f, 1.25f, 1.75f, 2.25f}; // (j+0.5)*0.5-0.5
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 6; ++j)
            EXPECT_FLOAT_EQ(d2.at(i, j), ys[i] * xs[j] + ys[i]) << i << "," << j;
}

TEST(ArrayBilinear, DownsampleCurvedAndIdentity)
{
    // src(r, c) = r^2 along rows: y = 0.25 lies between rows 0 and 1 (0.25),
    // y = 1.75 between rows 1 and 2 (1 + 0.75 * 3 = 3.25).
    Mat src(3, 2, {0, 0, 1, 1, 4, 4});
    Mat dst(2, 1);
    mat_fp32_bilinearInterpol(src.m, dst.m);
    EXPECT_EQ(dst.at(0, 0), 0.25f);
    EXPECT_EQ(dst.at(1, 0), 3.25f);

    // Same size: an exact copy (the last row/column uses the clamped cell
    // with weight 1 on its far corner).
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-5.0f, 5.0f);
    Mat a(5, 7), b(5, 7);
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 7; ++c)
            a.at(r, c) = u(rng);
    mat_fp32_bilinearInterpol(a.m, b.m);
    for (int r = 0; r < 5; ++r)
        for (int c = 0; c < 7; ++c)
            ASSERT_EQ(b.at(r, c), a.at(r, c)) << r << "," << c;
}

TEST(ArrayPoints, QuadAndDistanceUseIntegerDifferences)
{
    EXPECT_EQ(point_quad(pt(1, 2), pt(4, 6)), 25.0f);
    EXPECT_EQ(point_distance(pt(1, 2), pt(4, 6)), 5.0f);
    EXPECT_EQ(point_distance(pt(-3, 0), pt(0, -4)), 5.0f);
    // Coordinates beyond float's integer range: converting each coordinate
    // before subtracting would lose the difference.
    EXPECT_EQ(point_quad(pt(16777217, 0), pt(16777216, 0)), 1.0f);
    EXPECT_EQ(point_quad(pt(0, -16777217), pt(0, -16777216)), 1.0f);
}

TEST(ArrayPeakTests, IsPeakWithClippedBorder)
{
    float rows[5][5] = {};
    float* block[5] = {rows[0], rows[1], rows[2], rows[3], rows[4]};
    rows[2][2] = 5.0f;
    EXPECT_TRUE(isPeak(block, 0, 0));
    rows[0][4] = 5.0f; // equal does not disqualify
    EXPECT_TRUE(isPeak(block, 0, 0));
    rows[4][0] = 5.5f;
    EXPECT_FALSE(isPeak(block, 0, 0));

    // dr = 1: rows 0..3 examined, centre (1, 2); row 4 is ignored.
    float r2[5][5] = {};
    float* b2[5] = {r2[0], r2[1], r2[2], r2[3], r2[4]};
    r2[1][2] = 3.0f;
    r2[4][2] = 9.0f;
    EXPECT_TRUE(isPeak(b2, 1, 0));
    r2[3][0] = 3.5f;
    EXPECT_FALSE(isPeak(b2, 1, 0));

    // dc = -2: columns 2..4 examined, centre (2, 2); columns 0, 1 ignored.
    float r3[5][5] = {};
    float* b3[5] = {r3[0], r3[1], r3[2], r3[3], r3[4]};
    r3[2][2] = 1.0f;
    r3[0][0] = 2.0f;
    r3[4][1] = 2.0f;
    EXPECT_TRUE(isPeak(b3, 0, -2));
    EXPECT_FALSE(isPeak(b3, 0, 0));
    // dr = -1, dc = 2: rows 1..4, columns 0..2, centre (2, 0).
    float r4[5][5] = {};
    float* b4[5] = {r4[0], r4[1], r4[2], r4[3], r4[4]};
    r4[2][0] = 1.0f;
    r4[0][1] = 4.0f; // row 0 not examined
    r4[3][3] = 4.0f; // column 3 not examined
    EXPECT_TRUE(isPeak(b4, -1, 2));
    r4[4][2] = 1.5f;
    EXPECT_FALSE(isPeak(b4, -1, 2));
}

TEST(ArrayPeakTests, BlockAndBufferHelpers)
{
    std::vector<float> b(25, 1.0f);
    EXPECT_TRUE(isPeak2(b.data(), 1.0f));
    b[24] = 1.0001f;
    EXPECT_FALSE(isPeak2(b.data(), 1.0f));
    b[24] = 0.0f;
    b[0] = 2.0f;
    EXPECT_FALSE(isPeak2(b.data(), 1.0f));

    std::vector<float> a{1, 2, 3, 9};
    EXPECT_TRUE(isPeak3(a.data(), 3.0f, 3));
    EXPECT_FALSE(isPeak3(a.data(), 3.0f, 4));
    EXPECT_TRUE(isPeak3(a.data(), -100.0f, 0));

    EXPECT_EQ(bufMax(a.data(), 4), 9.0f);
    EXPECT_EQ(bufMax(a.data(), 3), 3.0f);
    EXPECT_EQ(bufMax(a.data(), 1), 1.0f);
    EXPECT_EQ(bufMax(a.data(), 0), 1.0f);
    std::vector<float> neg{-4, -1, -7};
    EXPECT_EQ(bufMax(neg.data(), 3), -1.0f);
}

TEST(ArrayPartSum, BlockSumRowByRow)
{
    Mat m(4, 5);
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 5; ++c)
            m.at(r, c) = static_cast<float>(10 * r + c);
    // Rows 1..2, columns 2..4: (12+13+14) + (22+23+24).
    EXPECT_EQ(mat2d_fp32_partSum(m.m, 2, 3, 1, 2), 108.0f);
    EXPECT_EQ(mat2d_fp32_partSum(m.m, 4, 5, 0, 0), 340.0f);
    EXPECT_EQ(mat2d_fp32_partSum(m.m, 1, 1, 3, 4), 34.0f);
    EXPECT_EQ(mat2d_fp32_partSum(m.m, 0, 5, 0, 0), 0.0f);
    EXPECT_EQ(mat2d_fp32_partSum(m.m, -1, 5, 0, 0), 0.0f);

    // Single-precision running sum: 1e8 absorbs the small terms one by one.
    Mat s(1, 5, {1e8f, 1.0f, 1.0f, 1.0f, 1.0f});
    EXPECT_EQ(mat2d_fp32_partSum(s.m, 1, 5, 0, 0), 1e8f);
}

TEST(ArrayFindPeak, BorderPeakAgainstThreshold)
{
    // Isolated maximum in the corner: out-of-image neighbours count as 0.
    std::vector<float> map(6 * 6, 0.0f);
    map[0] = 2.0f;
    map[1] = 1.0f;
    map[6] = 1.5f;
    std::vector<fpoint2d> out;
    array_findpeak2d(map.data(), 6, 6, 1.9f, out, 0, 6, 0, 6);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].val, 2.0f);
    EXPECT_EQ(out[0].x, 0);
    EXPECT_EQ(out[0].y, 0);

    out.clear();
    array_findpeak2d(map.data(), 6, 6, 2.0f, out, 0, 6, 0, 6); // at threshold
    EXPECT_TRUE(out.empty());

    // With every value negative the out-of-image zeros exceed a corner value.
    std::vector<float> negMap(6 * 6, -5.0f);
    negMap[0] = -1.0f;
    out.clear();
    array_findpeak2d(negMap.data(), 6, 6, -3.0f, out, 0, 6, 0, 6);
    EXPECT_TRUE(out.empty());
    negMap[2 * 6 + 2] = -1.0f; // interior: no zeros around it
    array_findpeak2d(negMap.data(), 6, 6, -3.0f, out, 0, 6, 0, 6);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].x, 2);
    EXPECT_EQ(out[0].y, 2);
}

TEST(ArrayFindPeak, EqualMaximaColumnSkip)
{
    const int rows = 5, cols = 12;
    std::vector<float> map(rows * cols, 0.0f);
    auto at = [&](int r, int c) -> float& { return map[static_cast<size_t>(r * cols + c)]; };
    std::vector<fpoint2d> out;

    // Three columns apart: both reported.
    at(2, 2) = 1.0f;
    at(2, 5) = 1.0f;
    array_findpeak2d(map.data(), rows, cols, 0.5f, out, 0, rows, 0, cols);
    ASSERT_EQ(out.size(), 2u);
    std::sort(out.begin(), out.end(), [](const fpoint2d& p, const fpoint2d& q) { return p.y < q.y; });
    EXPECT_EQ(out[0].y, 2);
    EXPECT_EQ(out[1].y, 5);

    // Adjacent equal columns, and two apart: only the left one.
    std::fill(map.begin(), map.end(), 0.0f);
    at(2, 2) = 1.0f;
    at(2, 3) = 1.0f;
    at(2, 8) = 1.0f;
    at(2, 10) = 1.0f;
    out.clear();
    array_findpeak2d(map.data(), rows, cols, 0.5f, out, 0, rows, 0, cols);
    ASSERT_EQ(out.size(), 2u);
    std::sort(out.begin(), out.end(), [](const fpoint2d& p, const fpoint2d& q) { return p.y < q.y; });
    EXPECT_EQ(out[0].y, 2);
    EXPECT_EQ(out[1].y, 8);

    // A plateau over two rows gives one peak per row (rows are independent).
    std::fill(map.begin(), map.end(), 0.0f);
    at(1, 4) = 1.0f;
    at(2, 4) = 1.0f;
    out.clear();
    array_findpeak2d(map.data(), rows, cols, 0.5f, out, 0, rows, 0, cols);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].y, 4);
    EXPECT_EQ(out[1].y, 4);
    EXPECT_EQ(std::min(out[0].x, out[1].x), 1);
    EXPECT_EQ(std::max(out[0].x, out[1].x), 2);
}

TEST(ArrayFindPeak, BlobMapSortedDescendingWithinWindow)
{
    // Three separated cone-shaped blobs of different heights on a 16 x 20 map.
    const int rows = 16, cols = 20;
    std::vector<float> map(rows * cols, 0.0f);
    struct Blob { int r, c; float h; };
    const Blob blobs[3] = {{3, 4, 2.0f}, {10, 15, 5.0f}, {12, 3, 3.5f}};
    for (const Blob& b : blobs) {
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < cols; ++c) {
                const float d = std::sqrt(static_cast<float>((r - b.r) * (r - b.r) + (c - b.c) * (c - b.c)));
                map[static_cast<size_t>(r * cols + c)] = std::max(map[static_cast<size_t>(r * cols + c)], b.h - 0.5f * d);
            }
        }
    }
    std::vector<fpoint2d> out{{4.0f, -1, -1}}; // prior content is sorted too
    array_findpeak2d(map.data(), rows, cols, 0.1f, out, 0, rows, 0, cols);
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[0].val, 5.0f);
    EXPECT_EQ(out[0].x, 10);
    EXPECT_EQ(out[0].y, 15);
    EXPECT_EQ(out[1].val, 4.0f);
    EXPECT_EQ(out[1].x, -1);
    EXPECT_EQ(out[2].val, 3.5f);
    EXPECT_EQ(out[2].x, 12);
    EXPECT_EQ(out[2].y, 3);
    EXPECT_EQ(out[3].val, 2.0f);
    EXPECT_EQ(out[3].x, 3);
    EXPECT_EQ(out[3].y, 4);

    // The window limits where peaks are searched, not the neighbourhood: a
    // window edge beside the tallest blob's summit finds nothing there.
    out.clear();
    array_findpeak2d(map.data(), rows, cols, 0.1f, out, 0, rows, 0, 14);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0].val, 3.5f);
    EXPECT_EQ(out[1].val, 2.0f);
    out.clear();
    array_findpeak2d(map.data(), rows, cols, 0.1f, out, 8, rows, 10, cols);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].x, 10);
    EXPECT_EQ(out[0].y, 15);
}

TEST(ArrayMedian, PositivePartUpperMedian)
{
    std::vector<float> a{0, 0, 0, 5, 9, 2};
    EXPECT_EQ(array_media_fp32(a.data(), 6), 5.0f);
    std::vector<float> b{-1, 0};
    EXPECT_EQ(array_media_fp32(b.data(), 2), 0.0f);
    std::vector<float> c{4, 1, 3, 2};
    EXPECT_EQ(array_media_fp32(c.data(), 4), 3.0f);
    EXPECT_EQ(c, (std::vector<float>{4, 1, 3, 2})) << "input must not be reordered";

    // No positive value: median of all (sorted -7 -3 -2 0 0, element 2).
    std::vector<float> d{0, -3, -7, 0, -2};
    EXPECT_EQ(array_media_fp32(d.data(), 5), -2.0f);
    // Negatives and zeros ignored once positives exist: positives 1 4 6.
    std::vector<float> e{-9, 6, -1, 0, 1, 4};
    EXPECT_EQ(array_media_fp32(e.data(), 6), 4.0f);
    std::vector<float> one{-2};
    EXPECT_EQ(array_media_fp32(one.data(), 1), -2.0f);

    // Matrix form over all rows (separately allocated).
    Mat m(3, 4, {0, 0, 0, 0, 8, 1, 0, -3, 6, 0, 2, 7});
    // positives sorted 1 2 6 7 8 -> element 2 of them = 6
    EXPECT_EQ(mat2d_fp32_median(m.m), 6.0f);
    EXPECT_EQ(m.at(1, 0), 8.0f);
    Mat pos(2, 2, {4, 1, 3, 2});
    EXPECT_EQ(mat2d_fp32_median(pos.m), 3.0f);
}
