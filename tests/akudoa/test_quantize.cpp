// Quantization primitives shared by the imaging engines. The rounding rule
// is part of the cache-file format, so it is checked value by value.
#include <gtest/gtest.h>

#include <cmath>

#include "AKUDoa/akudoaquantizev3.h"

// q = floor((trunc(2 * scale * x) + 1) / 2): halves round up when positive
// and toward zero when negative (-7.5 at scale 127 / 7.5 gives -126); the
// scale search reads whole groups of four (the last one too) and maps the
// largest magnitude to 127; quantize works in groups of eight and leaves a partial last group
// alone (the 0x55 fill, 85).
TEST(Quantize, ScaleAndRoundingOfKnownRows)
{
    struct Case {
        std::vector<float> row;
        float scale, wantScale; // scale 0: found by quantizeScale
        std::vector<int> want;
    };
    for (const Case& c : {Case{{1.0f, -0.5f, 0.25f, 0, 0, 0, 0, 0}, 0, 127.0f, {127, -63, 32, 0, 0, 0, 0, 0}},
                          Case{{1.0f, 0.5f, -0.25f, 1.5f, 0, 0, 0, -2.0f}, 0, 63.5f, {64, 32, -15, 95, 0, 0, 0, -127}},
                          Case{{1.5f, 1.7f, 1.3f, -1.5f, -1.7f, -2.5f, 2.5f, -0.4f}, 1.0f, 1.0f, {2, 2, 1, -1, -1, -2, 3, 0}},
                          Case{{0.5f, 0.25f, -1.0f, 0.0f, 100.0f, -100.0f}, 0, 127.0f, {85, 85, 85, 85, 85, 85}},
                          Case{std::vector<float>(12, 1.0f), 127.0f, 127.0f, {127, 127, 127, 127, 127, 127, 127, 127, 85, 85, 85, 85}},
                          Case{{7.5f, -7.5f, 0, 0, 0, 0, 0, 0}, 0, 127.0f / 7.5f, {127, -126, 0, 0, 0, 0, 0, 0}}}) {
        AKUDoaQuantizeV3 engine;
        IAKUDoaQuantize& e = engine; // the primitives use no engine state
        const int n = static_cast<int>(c.row.size());
        mat2d_fp32* m = create_mat2d_fp32(1, n);
        vec_fp32* s = create_vec_fp32(1);
        mat2d_uint8* out = create_mat2d_int8(1, n);
        std::copy(c.row.begin(), c.row.end(), m->data[0]);
        std::fill(out->data[0], out->data[0] + n, 0x55);
        s->data[0] = c.scale;
        if (c.scale == 0)
            e.quantizeScale(m, s);
        EXPECT_EQ(s->data[0], c.wantScale) << c.row[0];
        e.quantize(m, s, out);
        EXPECT_EQ(std::vector<int>(reinterpret_cast<int8_t*>(out->data[0]), reinterpret_cast<int8_t*>(out->data[0]) + n), c.want) << c.row[0];
        destroy_mat2d_fp32(m), destroy_vec_fp32(s), destroy_mat2d_uint8(out);
    }
}

// Exact values that a changed lane order, a fused or unfused product, or a
// conversion of partial groups would change.
TEST(Quantize, DequantizationAndSumsRoundAsDocumented)
{
    AKUDoaQuantizeV3 engine;
    IAKUDoaQuantize& q = engine;
    vec_fp32 *a = create_vec_fp32(2), *b = create_vec_fp32(2), *f = create_vec_fp32(2), *sum = create_vec_fp32(2);
    a->data[1] = 127.0f, b->data[1] = 63.5f;
    q.dequantizeScale(a, b, f, 1);
    EXPECT_EQ(std::make_pair(f->data[0], f->data[1]), std::make_pair(0.0f, 1.0f / 8064.5f)); // only entry i is written
    mat2d_int32* acc = create_mat2d_int32(2, 6);
    mat2d_fp32 *res = create_mat2d_fp32(2, 6), *m = create_mat2d_fp32(2, 3);
    f->data[1] = 0.5f;
    for (int c = 0; c < 6; ++c)
        acc->data[1][c] = -3 * c + 1, res->data[1][c] = -9.0f;
    q.dequantize(acc, f, res, 1);
    EXPECT_EQ(std::vector<float>(res->data[1], res->data[1] + 6), (std::vector<float>{0.5f, -1.0f, -2.5f, -4.0f, -9.0f, -9.0f}));
    // Four lanes summed (l0 + l1) + (l2 + l3): left to right every +1 is lost.
    float x[7] = {4096.0f, 1.0f, 1.0f, 1.0f, 100.0f, 100.0f, 100.0f};
    EXPECT_EQ(q.vec_power_fp32(x, 7), 16777218.0f); // the partial group is not read
    EXPECT_EQ(q.vec_power_fp32(x, 3), 0.0f);
    // m * w + sum with m = w = 1 + 2^-12, sum = -1: one rounding keeps 2^-24.
    const float eps = std::ldexp(1.0f, -12), fused = std::ldexp(1.0f, -11) + std::ldexp(1.0f, -24);
    m->data[1][0] = 1.0f + eps, m->data[1][1] = 2.0f, m->data[1][2] = 77.0f; // beyond sum->n: never read
    sum->data[0] = -1.0f, sum->data[1] = 0.5f;
    q.ComplexAddWithScale(m, sum, 1.0f + eps, 1);
    EXPECT_EQ(std::make_pair(sum->data[0], sum->data[1]), std::make_pair(fused, 2.0f * (1.0f + eps) + 0.5f));
    mat1d_fp32* v = create_mat1d_fp32(1, 2);
    v->data[0] = 1.0f + eps, v->data[1] = 3.0f, sum->data[0] = -1.0f;
    q.ComplexAddWithScale(v, sum, 1.0f + eps);
    EXPECT_EQ(sum->data[0], fused);
    q.ComplexAdd(v, sum);
    q.ComplexAdd(m, sum, 1);
    EXPECT_EQ(sum->data[1], 2.0f * (1.0f + eps) + 0.5f + 3.0f * (1.0f + eps) + 3.0f + 2.0f);
    destroy_vec_fp32(a), destroy_vec_fp32(b), destroy_vec_fp32(f), destroy_vec_fp32(sum), destroy_mat1d_fp32(v);
    destroy_mat2d_int32(acc), destroy_mat2d_fp32(res), destroy_mat2d_fp32(m);
}
