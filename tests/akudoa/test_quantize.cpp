// Quantization primitives shared by the imaging engines. The rounding rule
// is part of the cache-file format, so it is checked value by value.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "AKUDoa/akudoaquantizev3.h"

namespace {

// The primitives use no engine state; any engine object gives access.
struct Prims {
    AKUDoaQuantizeV3 engine;
    IAKUDoaQuantize& q() { return engine; }
};

mat2d_fp32* rowMatrix(const std::vector<float>& v)
{
    mat2d_fp32* m = create_mat2d_fp32(1, static_cast<int>(v.size()));
    for (size_t i = 0; i < v.size(); ++i)
        m->data[0][i] = v[i];
    return m;
}

// Independent statement of the rule: floor((trunc(2*scale*x) + 1) / 2),
// with 2*scale and the product rounded to float as the engines do.
int expectedQuant(float x, float scale)
{
    const float s2 = 2.0f * scale;
    const float prod = s2 * x;
    const long t = static_cast<long>(std::trunc(static_cast<double>(prod)));
    return static_cast<int>(std::floor((static_cast<double>(t) + 1.0) / 2.0));
}

std::vector<int> quantizeRow(const std::vector<float>& v, float scale, int fill = 0x55)
{
    Prims p;
    mat2d_fp32* m = rowMatrix(v);
    vec_fp32* s = create_vec_fp32(1);
    s->data[0] = scale;
    mat2d_uint8* q = create_mat2d_int8(1, static_cast<int>(v.size()));
    for (size_t i = 0; i < v.size(); ++i)
        q->data[0][i] = static_cast<uint8_t>(fill);
    p.q().quantize(m, s, q);
    std::vector<int> out;
    for (size_t i = 0; i < v.size(); ++i)
        out.push_back(static_cast<int8_t>(q->data[0][i]));
    destroy_mat2d_fp32(m);
    destroy_vec_fp32(s);
    destroy_mat2d_uint8(q);
    return out;
}

} // namespace

TEST(Quantize, ScaleAndRoundingOfTheReferenceRow)
{
    Prims p;
    mat2d_fp32* m = rowMatrix({1.0f, -0.5f, 0.25f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f});
    vec_fp32* s = create_vec_fp32(1);
    p.q().quantizeScale(m, s);
    EXPECT_EQ(s->data[0], 127.0f);
    const std::vector<int> q = quantizeRow({1.0f, -0.5f, 0.25f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f}, s->data[0]);
    EXPECT_EQ(q, (std::vector<int>{127, -63, 32, 0, 0, 0, 0, 0}));
    destroy_mat2d_fp32(m);
    destroy_vec_fp32(s);
}

TEST(Quantize, NegativeMaximumGivesMinus127)
{
    Prims p;
    const std::vector<float> row = {-2.0f, 1.0f, 0.5f, -0.25f, 1.5f, 0.0f, 0.0f, 0.0f};
    mat2d_fp32* m = rowMatrix(row);
    vec_fp32* s = create_vec_fp32(1);
    vec_fp32* mx = create_vec_fp32(1);
    p.q().quantizeScale(m, s, mx);
    EXPECT_EQ(s->data[0], 63.5f);
    EXPECT_EQ(mx->data[0], 2.0f);
    EXPECT_EQ(quantizeRow(row, s->data[0])[0], -127);
    destroy_mat2d_fp32(m);
    destroy_vec_fp32(s);
    destroy_vec_fp32(mx);
}

TEST(Quantize, HalvesRoundUpWhenPositiveAndTowardZeroWhenNegative)
{
    // scale 1: q = floor((trunc(2x) + 1) / 2).
    const std::vector<float> x = {1.5f, 1.7f, 1.3f, -1.5f, -1.7f, -2.5f, 2.5f, -0.4f};
    EXPECT_EQ(quantizeRow(x, 1.0f), (std::vector<int>{2, 2, 1, -1, -1, -2, 3, 0}));
}

TEST(Quantize, ExtremesStayWithinPlusMinus127)
{
    // Rows whose extremes are the largest magnitude, positive and negative.
    // With a power-of-two maximum 2*scale*x is exact: +-127 exactly.
    for (const float mx : {1.0f, 0.25f, 8.0f, 1024.0f}) {
        const std::vector<float> row = {mx, -mx, mx * 0.999999f, -mx * 0.999999f, 0.5f * mx, -0.5f * mx, 0.0f, mx};
        Prims p;
        mat2d_fp32* m = rowMatrix(row);
        vec_fp32* s = create_vec_fp32(1);
        p.q().quantizeScale(m, s);
        const std::vector<int> q = quantizeRow(row, s->data[0]);
        EXPECT_EQ(q[0], 127) << mx;
        EXPECT_EQ(q[1], -127) << mx;
        EXPECT_EQ(q[7], 127) << mx;
        for (int v : q) {
            EXPECT_LE(v, 127);
            EXPECT_GE(v, -127);
        }
        destroy_mat2d_fp32(m);
        destroy_vec_fp32(s);
    }
    // Otherwise 2*scale*(-max) may round to just above -254 and truncate to
    // -253, giving -126: the negative side is biased toward zero.
    for (const float mx : {3.0e-3f, 7.3f, 1.0e6f, 0.1f}) {
        const std::vector<float> row = {mx, -mx, 0.5f * mx, -0.5f * mx, 0.0f, 0.0f, 0.0f, 0.0f};
        const float scale = 127.0f / mx;
        const std::vector<int> q = quantizeRow(row, scale);
        EXPECT_EQ(q[0], 127) << mx;
        EXPECT_EQ(q[1], expectedQuant(-mx, scale)) << mx;
        EXPECT_GE(q[1], -127) << mx;
        EXPECT_LE(q[1], -126) << mx;
    }
}

TEST(Quantize, RandomRowsFollowTheRule)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-3.0f, 3.0f);
    for (int trial = 0; trial < 50; ++trial) {
        std::vector<float> row(64);
        for (float& v : row)
            v = u(rng);
        Prims p;
        mat2d_fp32* m = rowMatrix(row);
        vec_fp32* s = create_vec_fp32(1);
        p.q().quantizeScale(m, s);
        float mx = 0.0f;
        for (float v : row)
            mx = std::max(mx, std::fabs(v));
        ASSERT_EQ(s->data[0], 127.0f / mx);
        const std::vector<int> q = quantizeRow(row, s->data[0]);
        for (size_t i = 0; i < row.size(); ++i)
            ASSERT_EQ(q[i], expectedQuant(row[i], s->data[0])) << row[i];
        destroy_mat2d_fp32(m);
        destroy_vec_fp32(s);
    }
}

TEST(Quantize, OnlyWholeGroupsAreTouched)
{
    // 12 columns: bytes 8..11 keep what was there (tail handling).
    std::vector<float> row(12, 1.0f);
    const std::vector<int> q = quantizeRow(row, 127.0f, 0x55);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(q[i], 127);
    for (int i = 8; i < 12; ++i)
        EXPECT_EQ(q[i], 0x55);

    // The scale search reads whole groups of four: a 6-column row ignores 4, 5.
    Prims p;
    mat2d_fp32* m = rowMatrix({0.5f, 0.25f, -1.0f, 0.0f, 100.0f, -100.0f});
    vec_fp32* s = create_vec_fp32(1);
    p.q().quantizeScale(m, s);
    EXPECT_EQ(s->data[0], 127.0f);
    destroy_mat2d_fp32(m);
    destroy_vec_fp32(s);
}

TEST(Quantize, DequantizationFactors)
{
    Prims p;
    vec_fp32* a = create_vec_fp32(2);
    vec_fp32* b = create_vec_fp32(2);
    vec_fp32* out = create_vec_fp32(2);
    a->data[1] = 127.0f;
    b->data[1] = 127.0f / 2.0f;
    p.q().dequantizeScale(a, b, out, 1);
    EXPECT_EQ(out->data[1], 1.0f / 8064.5f);
    EXPECT_EQ(out->data[0], 0.0f); // only entry i is written

    // dequantize converts whole groups of four columns only.
    mat2d_int32* acc = create_mat2d_int32(2, 6);
    mat2d_fp32* res = create_mat2d_fp32(2, 6);
    vec_fp32* f = create_vec_fp32(2);
    f->data[1] = 0.5f;
    for (int c = 0; c < 6; ++c) {
        acc->data[1][c] = -3 * c + 1;
        res->data[1][c] = -9.0f;
    }
    p.q().dequantize(acc, f, res, 1);
    for (int c = 0; c < 4; ++c)
        EXPECT_EQ(res->data[1][c], static_cast<float>(-3 * c + 1) * 0.5f);
    EXPECT_EQ(res->data[1][4], -9.0f);
    EXPECT_EQ(res->data[1][5], -9.0f);
    EXPECT_EQ(res->data[0][0], 0.0f);
    destroy_vec_fp32(a);
    destroy_vec_fp32(b);
    destroy_vec_fp32(out);
    destroy_mat2d_int32(acc);
    destroy_mat2d_fp32(res);
    destroy_vec_fp32(f);
}

TEST(Quantize, PowerSumsWholeGroupsInFourLanes)
{
    Prims p;
    float x[7] = {1.0f, 2.0f, 3.0f, 4.0f, 100.0f, 100.0f, 100.0f};
    EXPECT_EQ(p.q().vec_power_fp32(x, 7), 30.0f);
    EXPECT_EQ(p.q().vec_power_fp32(x, 3), 0.0f);
    // Lane order: (l0 + l1) + (l2 + l3) with l0 = x0^2 + x4^2 ...: values
    // chosen so that a sequential sum would round differently.
    // Pairwise: (2^24 + 1) + (1 + 1) = 2^24 + 2; left to right every +1 is lost.
    float y[8] = {4096.0f, 1.0f, 1.0f, 1.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    EXPECT_EQ(p.q().vec_power_fp32(y, 8), 16777218.0f);
}

TEST(Quantize, AccumulationUsesOneRoundingPerElement)
{
    // m * w + sum with m = w = 1 + 2^-12 and sum = -1: fused, the 2^-24 term
    // survives; multiplied then added it is rounded away.
    Prims p;
    const float e = std::ldexp(1.0f, -12);
    mat2d_fp32* m = create_mat2d_fp32(2, 3);
    vec_fp32* sum = create_vec_fp32(2);
    m->data[1][0] = 1.0f + e;
    m->data[1][1] = 2.0f;
    m->data[1][2] = 77.0f; // beyond sum->n: never read
    sum->data[0] = -1.0f;
    sum->data[1] = 0.5f;
    p.q().ComplexAddWithScale(m, sum, 1.0f + e, 1);
    EXPECT_EQ(sum->data[0], std::ldexp(1.0f, -11) + std::ldexp(1.0f, -24));
    EXPECT_EQ(sum->data[1], 2.0f * (1.0f + e) + 0.5f);

    mat1d_fp32* b = create_mat1d_fp32(1, 2);
    b->data[0] = 1.0f + e;
    b->data[1] = 3.0f;
    sum->data[0] = -1.0f;
    sum->data[1] = 1.0f;
    p.q().ComplexAddWithScale(b, sum, 1.0f + e);
    EXPECT_EQ(sum->data[0], std::ldexp(1.0f, -11) + std::ldexp(1.0f, -24));

    p.q().ComplexAdd(b, sum);
    EXPECT_EQ(sum->data[1], 3.0f * (1.0f + e) + 1.0f + 3.0f);
    p.q().ComplexAdd(m, sum, 1);
    EXPECT_EQ(sum->data[1], 3.0f * (1.0f + e) + 1.0f + 3.0f + 2.0f);
    destroy_mat2d_fp32(m);
    destroy_vec_fp32(sum);
    destroy_mat1d_fp32(b);
}
