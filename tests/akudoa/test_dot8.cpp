// int8 beam sums: every vector path this CPU runs must equal the scalar
// reference bit for bit (catches a dropped tail, a lane-order slip, a
// narrowed accumulator), and the reference must equal the plain sums.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "AKUDoa/akudoadot_p.h"

TEST(SimdDot8, EveryPathEqualsTheReferenceAndThePlainSums)
{
    struct Case { int m2, npix, lo, hi; }; // lo == hi: every byte that value, the imaginary half negated
    std::vector<Case> cases;
    for (int m2 = 1; m2 <= 200; ++m2) // around the 8/16/32/64-byte blocks
        cases.push_back({m2, 3, -127, 127});
    for (int m2 : {256, 1000, 2100}) // 128 microphones, long rows, one past the vector buffers
        cases.push_back({m2, 2, -128, 127}), cases.push_back({m2, 2, -128, -128}), cases.push_back({m2, 2, 127, 127});
    std::mt19937 rng(1);
    for (const Case& c : cases) {
        std::uniform_int_distribution<int> u(c.lo, c.hi);
        std::vector<int8_t> a(2 * c.m2), s(static_cast<size_t>(c.npix) * c.m2);
        for (int8_t& v : s)
            v = static_cast<int8_t>(u(rng));
        for (size_t n = 0; n < a.size(); ++n)
            a[n] = static_cast<int8_t>(c.lo == c.hi && n >= size_t(c.m2) ? -std::max(c.lo, -127) : u(rng));
        std::vector<float> re(c.npix), im(c.npix);
        akudoa_dot8_ref(a.data(), s.data(), c.m2, c.npix, 0.25f, re.data(), im.data());
        for (int p = 0; p < c.npix; ++p) {
            long r = 0, i = 0;
            for (int n = 0; n < c.m2; ++n) {
                r += long(s[p * c.m2 + n]) * a[n];
                i += long(s[p * c.m2 + n]) * a[c.m2 + n];
            }
            ASSERT_EQ(re[p], float(r) * 0.25f) << c.m2;
            ASSERT_EQ(im[p], float(i) * 0.25f) << c.m2;
        }
        for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
            // Sentinels around the output catch writes past the pixel range.
            std::vector<float> pr(c.npix + 2, -7.0f), pi(c.npix + 2, -7.0f);
            path.fn(a.data(), s.data(), c.m2, c.npix, 0.25f, pr.data() + 1, pi.data() + 1);
            ASSERT_EQ(0, std::memcmp(re.data(), pr.data() + 1, sizeof(float) * c.npix)) << path.name << " " << c.m2;
            ASSERT_EQ(0, std::memcmp(im.data(), pi.data() + 1, sizeof(float) * c.npix)) << path.name << " " << c.m2;
            ASSERT_TRUE(pr[0] == -7.0f && pr.back() == -7.0f && pi[0] == -7.0f && pi.back() == -7.0f) << path.name;
        }
    }
#if !defined(AKUDOA_FORCE_SCALAR) && (defined(__x86_64__) || defined(__aarch64__))
    EXPECT_GT(akudoa_dot8_paths().size(), 1u) << "no vector path on a vector build";
#endif
    EXPECT_EQ(akudoa_dot8_select().fn, akudoa_dot8_paths().back().fn);
}
