// Mirror-pair (compact) far-field steering table: kernels against the plain
// sums, and compact imaging against the full table on the same frames.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include <sys/stat.h>

#include "AKUDoa/akudoadot_p.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "akudoa/kernel_fixture.h"
#include "support/akudoagrid.h"

namespace {

std::vector<int8_t> randomBytes(size_t n, uint32_t seed, int lo)
{
    std::mt19937 rng(seed);
    std::vector<int8_t> v(n);
    for (int8_t& x : v)
        x = static_cast<int8_t>(std::uniform_int_distribution<int>(lo, 127)(rng));
    return v;
}

using V3 = AkuImager<AKUDoaQuantizeV3>;

StCamCfg layout(StCamCfg c, bool compact) { return c.compactSteering = compact, c; }
AKUDoaQuantizeV3Private* state(const V3& v) { return v.engine.privateData(); }
std::vector<float> turned(V3& v, mat2d_fp32* frame, int mode) { return v.cfg.rotateMode = mode, v.image(frame); }

} // namespace

TEST(SimdDot8Pair, PathsEqualTheFullKernelOnConjugateBlocks)
{
    // 600 microphones: past the vector buffers. Spectrum bytes use the whole
    // int8 range; steering bytes stay negatable.
    // An odd count of mics also makes an odd image: its last pair is the
    // centre pixel, its own mirror.
    for (int mics : {1, 5, 8, 16, 24, 36, 64, 99, 128, 600}) {
        const int m2 = 2 * mics, npair = 7, P = 2 * npair - mics % 2;
        const std::vector<int8_t> a = randomBytes(2 * m2, 5u + mics, -128);
        const std::vector<int8_t> s = randomBytes(static_cast<size_t>(npair) * m2, 9u + mics, -127);
        std::vector<int8_t> full(static_cast<size_t>(P) * m2); // mirror blocks: exact conjugates
        for (int p = 0; p < P; ++p)
            for (int n = 0; n < m2; ++n)
                full[p * m2 + n] = p < npair ? s[p * m2 + n]
                                             : static_cast<int8_t>(n < mics ? 1 : -1) * s[(P - 1 - p) * m2 + n];
        std::vector<float> want(2 * P);
        akudoa_dot8_ref(a.data(), full.data(), m2, P, 0.25f, want.data(), want.data() + P);
        for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
            std::vector<float> got(2 * P + 2, -7.0f); // sentinels at both ends
            float* o = got.data() + 1;
            path.pair(a.data(), s.data(), m2, npair, 0.25f, o, o + P, o + P - 1, o + 2 * P - 1);
            EXPECT_TRUE(!std::memcmp(want.data(), o, sizeof(float) * 2 * P) && got.front() == -7.0f && got.back() == -7.0f)
                << path.name << " mics " << mics;
        }
    }
}

class CompactSteering : public kerneltest::CacheTest {};

TEST_F(CompactSteering, ImagesAsTheFullTableWithinOneQuantizationUnit)
{
    // A fresh cache directory: the first compact engine builds, saves and
    // folds; the full one loads; the last compact one folds as it reads.
    const std::string& dir = cache_;
    const struct { int mics, rows, cols; bool average; } cases[] = {{16, 8, 6, false}, {64, 6, 8, true}, {128, 6, 4, false}, {16, 7, 5, false}};
    for (const auto& c : cases) {
        StCamCfg cfg = akugrid_camera(c.mics, c.rows, c.cols);
        cfg.freqAverage = c.average;
        V3 compact(layout(cfg, true)), full(layout(cfg, false));
        const auto inodes = [&dir] {
            std::vector<ino_t> v;
            struct stat st {};
            for (const auto& e : std::filesystem::directory_iterator(dir))
                v.push_back(::stat(e.path().c_str(), &st) == 0 ? st.st_ino : 0);
            std::sort(v.begin(), v.end());
            return v;
        };
        const std::vector<ino_t> saved = inodes();
        V3 reloaded(layout(cfg, true));
        EXPECT_EQ(inodes(), saved) << "the folded load was refused and the pair rebuilt";
        ASSERT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 3 * (&c - cases + 1)); // pair and sidecar
        const int P = c.rows * c.cols, npair = (P + 1) / 2, M = c.mics;
        long oneUnit = 0, larger = 0;
        akudoa_planar_mirror_diff(state(full), oneUnit, larger);
        EXPECT_EQ(larger, 0) << "mirror blocks differ from the conjugates by more than one unit";
        const AKUDoaQuantizeV3Private* d = state(full);
        for (int b = 0; b < d->binNum; ++b) // the stored blocks are the full table's
            for (const V3* im : {&compact, &reloaded})
                ASSERT_EQ(0, std::memcmp(state(*im)->steerQuant->data[b], d->steerQuant->data[b], 2u * M * npair));
        const int sources[3][2] = {{1, 1}, {c.rows - 2, c.cols - 1}, {c.rows / 2, c.cols / 2}};
        for (const auto& px : sources) {
            const AkuMat frame = akugrid_frame(cfg, {akugrid_far_source(cfg, px[0], px[1])});
            for (int mode = 0; mode < 4; ++mode) {
                const std::vector<float> hf = turned(full, frame.get(), mode), hc = turned(compact, frame.get(), mode);
                const int peak = static_cast<int>(std::max_element(hf.begin(), hf.end()) - hf.begin());
                EXPECT_EQ(peak, std::max_element(hc.begin(), hc.end()) - hc.begin()) << M << " mics, mode " << mode;
                // One unit per byte moves each beam component by at most
                // e = factor * sum|a|, |z|^2 by 2|z| sqrt2 e + 2e^2, and the
                // image (a square root) by the root of their scaled sum.
                for (int p = 0; p < P; ++p) {
                    double dS = 0.0;
                    const std::vector<doaFreqInfo> L = full.bands.data();
                    for (size_t k = 0; k < L.size(); k += c.average ? 2 : 1) {
                        const int b = c.average ? L[k].bin >> 1 : L[k].bin;
                        double e = 0.0;
                        for (int n = 0; n < 2 * M; ++n)
                            e += std::abs(static_cast<int8_t>(d->fftQuant->data[b][n])) * d->dequantFactor->data[b];
                        dS += 2.0 * e * (std::sqrt(2.0) * std::hypot(d->beamComplex->data[b][p], d->beamComplex->data[b][P + p]) + e);
                    }
                    int r, col;
                    akugrid_rotated(mode, c.rows, c.cols, p / c.cols, p % c.cols, r, col);
                    EXPECT_LE(std::abs(hf[r * c.cols + col] - hc[r * c.cols + col]),
                              1.001 * std::sqrt(dS / ((M - 1) * M)) / 1024.0 + 1e-6 * hf[peak]) << M << " mics, pixel " << p;
                }
            }
            // Only the central square: the same values inside it.
            float* row = state(compact)->beamComplex->data[state(compact)->binNum / 2]; // a row inside the band
            const std::vector<float> whole(row, row + 2 * P);
            std::fill_n(row, 2 * P, 0.0f);
            compact.engine.setFocusRadiusMode(true);
            turned(compact, frame.get(), 1);
            compact.engine.setFocusRadiusMode(false);
            for (int r = std::max(c.rows / 2 - c.cols / 4, 0); r < std::min(c.rows / 2 + c.cols / 4, c.rows); ++r)
                for (int col = c.cols / 4; col < std::min(c.cols / 4 + c.cols / 2, c.cols); ++col)
                    EXPECT_TRUE(whole[r * c.cols + col] == row[r * c.cols + col] &&
                                whole[P + r * c.cols + col] == row[P + r * c.cols + col]) << r << "," << col;
        }
    }
    StCamCfg nearCfg = akugrid_camera(16, 6, 4);
    nearCfg.focusDistanceEn = true; // the near field keeps the full table
    EXPECT_EQ(state(V3(layout(nearCfg, true)))->steerQuant->cols, 2 * 16 * 24);
}
