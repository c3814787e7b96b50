// Mirror-pair (compact) far-field steering table: kernels against the plain
// sums, and compact imaging against the full table on the same frames.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <random>
#include <vector>

#include "AKUDoa/akudoadot_p.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "support/akudoagrid.h"

namespace {

std::vector<int8_t> randomBytes(size_t n, uint32_t seed, int lo)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> u(lo, 127);
    std::vector<int8_t> v(n);
    for (int8_t& x : v)
        x = static_cast<int8_t>(u(rng));
    return v;
}

} // namespace

TEST(SimdDot8Pair, PathsEqualTheFullKernelOnConjugateBlocks)
{
    const float f = 1.0f / 8064.5f;
    for (int mics : {1, 5, 8, 16, 24, 36, 64, 100, 128}) {
        for (int odd : {0, 1}) { // odd: the last pair is the centre pixel, its own mirror
            const int m2 = 2 * mics, npair = 7, P = 2 * npair - odd;
            const std::vector<int8_t> a = randomBytes(2 * m2, 5u + mics, -127);
            std::vector<int8_t> s = randomBytes(static_cast<size_t>(npair) * m2, 9u + mics, -127);
            // Full table whose mirror blocks are the exact conjugates.
            std::vector<int8_t> full(static_cast<size_t>(P) * m2);
            for (int p = 0; p < P; ++p)
                for (int n = 0; n < m2; ++n)
                    full[p * m2 + n] = p < npair ? s[p * m2 + n]
                                                 : static_cast<int8_t>(n < mics ? s[(P - 1 - p) * m2 + n]
                                                                                : -s[(P - 1 - p) * m2 + n]);
            std::vector<float> want(2 * P);
            akudoa_dot8_ref(a.data(), full.data(), m2, P, f, want.data(), want.data() + P);
            if (odd) // the centre's mirror is itself: only its stored block counts
                akudoa_dot8_ref(a.data(), s.data() + (npair - 1) * m2, m2, 1, f, &want[npair - 1], &want[P + npair - 1]);
            for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
                std::vector<float> got(2 * P + 2, -7.0f); // sentinels at both ends
                float* o = got.data() + 1;
                path.pair(a.data(), s.data(), m2, npair, f, o, o + P, o + P - 1, o + 2 * P - 1);
                EXPECT_EQ(0, std::memcmp(want.data(), o, sizeof(float) * 2 * P)) << path.name << " mics " << mics;
                EXPECT_TRUE(got.front() == -7.0f && got.back() == -7.0f) << path.name;
            }
        }
    }
}

TEST(SimdDot8Pair, FullInt8RangeAgreesOnEveryPath)
{
    for (int mics : {3, 16, 48, 128, 600}) { // 600: past the vector buffers
        const int m2 = 2 * mics, npair = 5;
        const std::vector<int8_t> a = randomBytes(2 * m2, 1u + mics, -128);
        const std::vector<int8_t> s = randomBytes(static_cast<size_t>(npair) * m2, 2u + mics, -128);
        std::vector<float> want(4 * npair);
        akudoa_dot8pair_ref(a.data(), s.data(), m2, npair, 0.5f, want.data(), want.data() + 2 * npair,
                            want.data() + 2 * npair - 1, want.data() + 4 * npair - 1);
        for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
            std::vector<float> got(4 * npair);
            path.pair(a.data(), s.data(), m2, npair, 0.5f, got.data(), got.data() + 2 * npair,
                      got.data() + 2 * npair - 1, got.data() + 4 * npair - 1);
            EXPECT_EQ(0, std::memcmp(want.data(), got.data(), sizeof(float) * want.size())) << path.name;
        }
    }
}

namespace {

struct Imager {
    StCamCfg cfg;
    AKUDoaQuantizeV3 engine;
    AKUDoaFreqBands bands;
    Imager(StCamCfg c, bool compact) : cfg(c), bands(c.frameSize, c.sampleFrequency)
    {
        cfg.compactSteering = compact;
        engine.doaInit(&cfg);
        std::vector<float> w(static_cast<size_t>(cfg.frameSize), 1.0f);
        engine.updateFFTWin(w.data(), cfg.frameSize);
        bands.updateBands({{20000, 40000, 1}});
    }
    AKUDoaQuantizeV3Private* d() const { return engine.privateData(); }
    std::vector<float> image(mat2d_fp32* frame, int mode)
    {
        cfg.rotateMode = mode;
        mat2d_fp32* heat = create_mat2d_fp32(cfg.imageResolutionRow, cfg.imageResolutionCol);
        engine.executeDOA(frame, bands, heat);
        std::vector<float> out;
        for (int r = 0; r < heat->rows; ++r)
            out.insert(out.end(), heat->data[r], heat->data[r] + heat->cols);
        destroy_mat2d_fp32(heat);
        return out;
    }
};

int argmax(const std::vector<float>& v)
{
    return static_cast<int>(std::max_element(v.begin(), v.end()) - v.begin());
}

} // namespace

TEST(CompactSteering, ImagesAsTheFullTableWithinOneQuantizationUnit)
{
    // A fresh cache directory: the first compact engine builds, saves and
    // folds; the others load (the second one folding as it reads).
    const char* base = std::getenv("AKUDOA_CACHE_DIR");
    const std::string dir = std::string(base ? base : "/tmp/") + "/compact-" + std::to_string(getpid()) + "/";
    ASSERT_TRUE(std::filesystem::create_directories(dir));
    ::setenv("AKUDOA_CACHE_DIR", dir.c_str(), 1);
    struct Case { int mics, rows, cols; bool average; };
    const Case cases[] = {{16, 8, 6, false}, {64, 6, 8, true}, {128, 6, 4, false}, {16, 7, 5, false}};
    for (const Case& c : cases) {
        StCamCfg cfg = akugrid_camera(c.mics, c.rows, c.cols);
        cfg.freqAverage = c.average;
        Imager compact(cfg, true), full(cfg, false), reloaded(cfg, true); // built+folded, loaded, loaded+folded
        ASSERT_EQ(std::distance(std::filesystem::directory_iterator(dir), {}), 2 * (&c - cases + 1));
        const int P = c.rows * c.cols, npair = (P + 1) / 2, M = c.mics;
        ASSERT_TRUE(compact.d()->compact && !full.d()->compact);
        long oneUnit = 0, larger = 0;
        akudoa_planar_mirror_diff(full.d(), oneUnit, larger);
        EXPECT_EQ(larger, 0) << "mirror blocks differ from the conjugates by more than one unit";
        std::printf("mics %d %dx%d: %ld of %ld mirror bytes one unit off the conjugate\n", M, c.rows, c.cols, oneUnit,
                    static_cast<long>(full.d()->binNum) * npair * 2 * M);
        for (int b = 0; b < full.d()->binNum; ++b) // the stored blocks are the full table's
            for (const Imager* im : {&compact, &reloaded})
                ASSERT_EQ(0, std::memcmp(im->d()->steerQuant->data[b], full.d()->steerQuant->data[b], 2u * M * npair));
        const AkuSimArray arr = akusim_array_from_cfg(cfg);
        const int sources[3][2] = {{1, 1}, {c.rows - 2, c.cols - 1}, {c.rows / 2, c.cols / 2}};
        for (const auto& px : sources) {
            mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, px[0], px[1])}, 96000, 1024);
            for (int mode = 0; mode < 4; ++mode) {
                const std::vector<float> hf = full.image(frame, mode), hc = compact.image(frame, mode);
                EXPECT_EQ(argmax(hf), argmax(hc)) << M << " mics, mode " << mode;
                // One unit per byte moves each beam component by at most
                // e = factor * sum|a|; |z|^2 by 2|z| sqrt2 e + 2e^2; the image
                // (a square root) by the root of the weighted sum of those.
                const AKUDoaQuantizeV3Private* d = full.d();
                const float norm = 1.0f / static_cast<float>((M - 1) * M), N = 1024.0f;
                for (int p = 0; p < P; ++p) {
                    double dS = 0.0;
                    const std::vector<doaFreqInfo> L = full.bands.data();
                    for (size_t k = 0; k < L.size(); k += c.average ? 2 : 1) {
                        const int b = c.average ? L[k].bin >> 1 : L[k].bin;
                        double sa = 0.0;
                        for (int n = 0; n < 2 * M; ++n)
                            sa += std::abs(static_cast<int8_t>(d->fftQuant->data[b][n]));
                        const double err = d->dequantFactor->data[b] * sa;
                        const double z = std::hypot(d->beamComplex->data[b][p], d->beamComplex->data[b][P + p]);
                        dS += 2.0 * z * std::sqrt(2.0) * err + 2.0 * err * err;
                    }
                    int r = p / c.cols, col = p % c.cols;
                    akugrid_rotated(mode, c.rows, c.cols, r, col, r, col);
                    const int idx = r * c.cols + col;
                    EXPECT_LE(std::abs(hf[idx] - hc[idx]), 1.001 * std::sqrt(dS * norm) / N + 1e-6 * hf[argmax(hf)])
                        << M << " mics, pixel " << p;
                }
            }
            // The central square alone: the same values inside it.
            float* row = compact.d()->beamComplex->data[compact.d()->binNum / 2]; // a row inside the band
            const std::vector<float> whole(row, row + 2 * P);
            std::fill_n(row, 2 * P, 0.0f);
            compact.engine.setFocusRadiusMode(true);
            compact.image(frame, 1);
            compact.engine.setFocusRadiusMode(false);
            const int r0 = std::max(c.rows / 2 - c.cols / 4, 0), r1 = std::min(c.rows / 2 + c.cols / 4, c.rows);
            for (int r = r0; r < r1; ++r)
                for (int col = c.cols / 4; col < std::min(c.cols / 4 + c.cols / 2, c.cols); ++col)
                    for (int h : {0, P})
                        EXPECT_EQ(whole[h + r * c.cols + col], row[h + r * c.cols + col])
                            << r << "," << col;
            compact.d()->dot8 = akudoa_dot8_paths().front();
            const std::vector<float> ref = compact.image(frame, 1);
            for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
                compact.d()->dot8 = path;
                EXPECT_EQ(0, std::memcmp(ref.data(), compact.image(frame, 1).data(), sizeof(float) * P)) << path.name;
            }
            destroy_mat2d_fp32(frame);
        }
    }
    ::setenv("AKUDOA_CACHE_DIR", base ? base : "", 1);
    std::filesystem::remove_all(dir);
}

TEST(CompactSteering, NearFieldKeepsTheFullTable)
{
    StCamCfg cfg = akugrid_camera(16, 6, 4);
    cfg.focusDistanceEn = true;
    Imager im(cfg, true);
    EXPECT_FALSE(im.d()->compact);
    EXPECT_EQ(im.d()->steerQuant->cols, 2 * 16 * 24);
}
