#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "AKUDoa/akudoacordinate_p.h"

namespace {

struct Map {
    explicit Map(int r, int c) : m(create_mat2d_fp32(r, c)) {}
    ~Map() { destroy_mat2d_fp32(m); }
    mat2d_fp32* m;
};

const CordinateMat kIdentity{0.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f};

}  // namespace

// Catches swapped coefficient roles (row/column, offset/slope).
TEST(Cordinate, IdentityCoefficientsGiveIdentityTableAndCopy)
{
    const int rows = 6, cols = 5;
    std::vector<float> table(rows * cols * 2);
    akudoa_cordinate_generate(kIdentity, 10.0f, rows, cols, table.data());
    Map raw(rows, cols), out(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            EXPECT_EQ(table[2 * (i * cols + j)], static_cast<float>(i));
            EXPECT_EQ(table[2 * (i * cols + j) + 1], static_cast<float>(j));
            raw.m->data[i][j] = static_cast<float>(i * 100 + j * 7) - 13.5f;
        }
    akudoa_cordinate_resample(table.data(), raw.m, out.m);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) EXPECT_EQ(out.m->data[i][j], raw.m->data[i][j]);
}

// Offsets are in raw cells times the section factor; slopes per output cell.
TEST(Cordinate, AffineTableAndInteriorInterpolation)
{
    const int rows = 8, cols = 8;
    const float factor = 4.0f;
    // u = 1 + 0.5 i + 0.25 j, v = 0.5 + 0.75 j
    const CordinateMat m{4.0f, 0.25f, 0.5f, 2.0f, 0.75f, 0.0f};
    std::vector<float> table(rows * cols * 2);
    akudoa_cordinate_generate(m, factor, rows, cols, table.data());
    Map raw(rows, cols), out(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) raw.m->data[i][j] = 3.0f * i + 5.0f * j;  // bilinear is exact on it
    akudoa_cordinate_resample(table.data(), raw.m, out.m);
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            const float u = 1.0f + 0.5f * i + 0.25f * j;
            const float v = 0.5f + 0.75f * j;
            EXPECT_FLOAT_EQ(table[2 * (i * cols + j)], u);
            EXPECT_FLOAT_EQ(table[2 * (i * cols + j) + 1], v);
            EXPECT_NEAR(out.m->data[i][j], 3.0f * u + 5.0f * v, 1e-4f) << i << "," << j;
        }
}

// Outside the raw map the edge value is scaled by (1 + overshoot), not repeated.
TEST(Cordinate, OutsideTheMapScalesTheEdge)
{
    const int rows = 4, cols = 4;
    Map raw(rows, cols), out(rows, cols);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) raw.m->data[i][j] = 1.0f + i + 10.0f * j;

    // Half a row beyond the last row, columns on the grid.
    std::vector<float> table(rows * cols * 2);
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            table[2 * (i * cols + j)] = rows - 1 + 0.5f;
            table[2 * (i * cols + j) + 1] = static_cast<float>(j);
        }
    akudoa_cordinate_resample(table.data(), raw.m, out.m);
    for (int j = 0; j < cols; ++j) EXPECT_FLOAT_EQ(out.m->data[0][j], 1.5f * raw.m->data[rows - 1][j]);

    // The configuration defaults (all coefficients -1) put every cell before
    // row 0 and column 0: u = v = -1/F - i - j.
    const float factor = 10.0f;
    const CordinateMat d{-1.0f, -1.0f, -1.0f, -1.0f, -1.0f, -1.0f};
    akudoa_cordinate_generate(d, factor, rows, cols, table.data());
    akudoa_cordinate_resample(table.data(), raw.m, out.m);
    const double a = raw.m->data[0][0];
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < cols; ++j) {
            const double u = -1.0 / factor - i - j;
            EXPECT_NEAR(table[2 * (i * cols + j)], u, 1e-5);
            const double expect = (1.0 + u) * (1.0 + u) * a;
            EXPECT_NEAR(out.m->data[i][j], expect, 1e-5 * (1.0 + std::fabs(expect)));
        }
}

TEST(Cordinate, PointRoundsHalvesAwayFromZeroAndKeepsValue)
{
    const CordinateMat m{5.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f};
    fpoint2d p{0.75f, 2, 3};
    fpoint2d q = akudoa_cordinate_point(m, 10.0f, p);
    EXPECT_EQ(q.x, 3);  // 2 + 0.5 rounds up
    EXPECT_EQ(q.y, 3);
    EXPECT_EQ(q.val, 0.75f);

    const CordinateMat neg{-5.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f};
    fpoint2d n = akudoa_cordinate_point(neg, 10.0f, fpoint2d{0.0f, -2, 1});
    EXPECT_EQ(n.x, -3);  // -2 - 0.5 rounds away from zero
    EXPECT_EQ(n.y, 1);

    // Row comes from x, column from y: a transposing map swaps them.
    const CordinateMat swap{0.0f, 1.0f, 0.0f, 0.0f, 0.0f, 1.0f};
    fpoint2d s = akudoa_cordinate_point(swap, 10.0f, fpoint2d{0.0f, 4, 9});
    EXPECT_EQ(s.x, 9);
    EXPECT_EQ(s.y, 4);
}

// The radial correction pulls cells toward the image centre; checked against
// a double-precision rendering of the same model for both calibrated formats.
TEST(Cordinate, RadialCorrectionOfTheGriddingPrograms)
{
    struct Case { int rows, cols; double k1, k2; bool adjust; };
    const Case cases[] = {{32, 24, 0.0005, 0.005, false}, {64, 48, 0.0001, 0.002, true}, {16, 16, 0.0001, 0.002, false}};
    const float factor = 10.0f;
    for (const Case& c : cases) {
        std::vector<float> table(c.rows * c.cols * 2);
        akudoa_cordinate_generate_v4(kIdentity, factor, c.rows, c.cols, table.data());
        double rx1 = 0, ry1 = 0, rx3 = 1, ry2 = 1;
        if (c.adjust) {
            rx1 = factor - 19.0;
            ry1 = factor / 20.0 - 11.0;
            rx3 += 0.053;
            ry2 += 0.07;
        }
        const double hr = c.rows / 2, hc = c.cols / 2, cr = hr - 0.5, cc = hc - 0.5;
        for (int i = 0; i < c.rows; ++i)
            for (int j = 0; j < c.cols; ++j) {
                const double u = rx1 / factor + rx3 * i;
                const double v = ry1 / factor + ry2 * j;
                const double d = std::sqrt((j - cc) * (j - cc) + (i - cr) * (i - cr));
                const double eu = (u - hr) / ((d - cr) * c.k2 + 1.0) * 0.96 + hr;
                const double ev = (v - hc) / (d * d * c.k1 + 1.0) + hc;
                ASSERT_NEAR(table[2 * (i * c.cols + j)], eu, 2e-4) << c.rows << " " << i << "," << j;
                ASSERT_NEAR(table[2 * (i * c.cols + j) + 1], ev, 2e-4) << c.rows << " " << i << "," << j;
            }
    }
    // No rows: nothing is written.
    float sentinel[2] = {7.0f, 7.0f};
    akudoa_cordinate_generate_v4(kIdentity, factor, 0, 4, sentinel);
    EXPECT_EQ(sentinel[0], 7.0f);
}
