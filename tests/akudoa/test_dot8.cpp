// int8 beam sums: every vector path this CPU runs must equal the scalar
// reference bit for bit, for every microphone count and for block
// remainders (16/32/64-byte kernels on rows of 2M bytes).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "AKUDoa/akudoadot_p.h"

namespace {

struct Case {
    std::vector<int8_t> a; // 2 * m2 spectrum bytes
    std::vector<int8_t> s; // npix * m2 steering bytes
    int m2;
    int npix;
};

Case randomCase(int m2, int npix, uint32_t seed, int lo = -127, int hi = 127)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> u(lo, hi);
    Case c{std::vector<int8_t>(static_cast<size_t>(2 * m2)), std::vector<int8_t>(static_cast<size_t>(npix) * m2), m2, npix};
    for (int8_t& v : c.a)
        v = static_cast<int8_t>(u(rng));
    for (int8_t& v : c.s)
        v = static_cast<int8_t>(u(rng));
    return c;
}

void expectPathsAgree(const Case& c, float f, const char* what)
{
    std::vector<float> refRe(static_cast<size_t>(c.npix)), refIm(static_cast<size_t>(c.npix));
    akudoa_dot8_ref(c.a.data(), c.s.data(), c.m2, c.npix, f, refRe.data(), refIm.data());
    for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
        // Sentinels around the output catch writes past the pixel range.
        std::vector<float> re(static_cast<size_t>(c.npix) + 2, -7.0f), im(static_cast<size_t>(c.npix) + 2, -7.0f);
        path.fn(c.a.data(), c.s.data(), c.m2, c.npix, f, re.data() + 1, im.data() + 1);
        ASSERT_EQ(0, std::memcmp(refRe.data(), re.data() + 1, sizeof(float) * c.npix))
            << path.name << " real, " << what << ", m2 " << c.m2;
        ASSERT_EQ(0, std::memcmp(refIm.data(), im.data() + 1, sizeof(float) * c.npix))
            << path.name << " imag, " << what << ", m2 " << c.m2;
        EXPECT_EQ(re.front(), -7.0f);
        EXPECT_EQ(re.back(), -7.0f);
        EXPECT_EQ(im.front(), -7.0f);
        EXPECT_EQ(im.back(), -7.0f);
    }
}

} // namespace

TEST(SimdDot8, ReferenceMatchesDirectSums)
{
    // The oracle itself against a plain statement of the sums.
    const Case c = randomCase(72, 5, 3);
    std::vector<float> re(5), im(5);
    akudoa_dot8_ref(c.a.data(), c.s.data(), c.m2, c.npix, 0.25f, re.data(), im.data());
    for (int p = 0; p < 5; ++p) {
        long r = 0, i = 0;
        for (int n = 0; n < 72; ++n) {
            r += static_cast<long>(c.s[p * 72 + n]) * c.a[n];
            i += static_cast<long>(c.s[p * 72 + n]) * c.a[72 + n];
        }
        EXPECT_EQ(re[p], static_cast<float>(r) * 0.25f);
        EXPECT_EQ(im[p], static_cast<float>(i) * 0.25f);
    }
}

TEST(SimdDot8, EveryMicrophoneCount)
{
    // m2 = 2M for M = 8, 16, 36, 48, 64, 128.
    for (int mics : {8, 16, 36, 48, 64, 128}) {
        const Case c = randomCase(2 * mics, 37, 100u + static_cast<uint32_t>(mics));
        expectPathsAgree(c, 1.0f / 8064.5f, "mic count");
    }
}

TEST(SimdDot8, BlockRemainders)
{
    // Lengths around the 8/16/32/64-byte block sizes.
    for (int m2 = 1; m2 <= 200; ++m2) {
        const Case c = randomCase(m2, 3, static_cast<uint32_t>(m2));
        expectPathsAgree(c, 0.5f, "remainder");
    }
    expectPathsAgree(randomCase(264, 4, 9), 0.5f, "remainder");
    expectPathsAgree(randomCase(1000, 2, 10), 0.5f, "long row");
    expectPathsAgree(randomCase(2100, 2, 11), 0.5f, "row beyond the vector buffers");
}

TEST(SimdDot8, ExtremeValues)
{
    // All +127 or -127 maximises every partial sum; -128 is outside the
    // quantizer's range but must not break exactness either.
    for (int mics : {8, 16, 36, 48, 64, 128}) {
        const int m2 = 2 * mics;
        for (int va : {127, -127, -128}) {
            for (int vs : {127, -127, -128}) {
                Case c{std::vector<int8_t>(static_cast<size_t>(2 * m2), static_cast<int8_t>(va)),
                       std::vector<int8_t>(static_cast<size_t>(3) * m2, static_cast<int8_t>(vs)), m2, 3};
                // Flip the imaginary half so both signs meet in one call.
                for (int n = m2; n < 2 * m2; ++n)
                    c.a[n] = static_cast<int8_t>(-va == 128 ? 127 : -va);
                expectPathsAgree(c, 1.0f, "extremes");
                std::vector<float> re(3), im(3);
                akudoa_dot8_ref(c.a.data(), c.s.data(), m2, 3, 1.0f, re.data(), im.data());
                EXPECT_EQ(re[0], static_cast<float>(static_cast<long>(va) * vs * m2));
            }
        }
        expectPathsAgree(randomCase(m2, 11, 77, -128, 127), 1.0f, "full int8 range");
    }
}

TEST(SimdDot8, ZeroPixelsWritesNothing)
{
    const Case c = randomCase(32, 0, 1);
    for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
        float re = -1.0f, im = -1.0f;
        path.fn(c.a.data(), c.s.data(), 32, 0, 1.0f, &re, &im);
        EXPECT_EQ(re, -1.0f) << path.name;
        EXPECT_EQ(im, -1.0f) << path.name;
    }
}

TEST(SimdDot8, SelectedPathIsOneOfThePaths)
{
    const AKUDoaDot8Path best = akudoa_dot8_select();
    bool found = false;
    for (const AKUDoaDot8Path& p : akudoa_dot8_paths())
        found = found || (p.fn == best.fn);
    EXPECT_TRUE(found);
#if !defined(AKUDOA_FORCE_SCALAR) && (defined(__x86_64__) || defined(__aarch64__))
    EXPECT_GT(akudoa_dot8_paths().size(), 1u) << "no vector path on a vector build";
#endif
}
