// Extended wide view: bins and image size, its own flags, and wide-angle
// sources at their pixels.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>

#include "AKUDoa/akudoaextra.h"
#include "AKUDoa/akudoaextra_p.h"
#include "kernel_fixture.h"
#include "support/akudoagrid.h"

namespace {

// The extended view of a camera: half its rows and columns.
struct Wide : AkuImager<AKUDoaExtra> {
    explicit Wide(const StCamCfg& c) : AkuImager(c, 20000, 40000, 2) {}
};
class ExtraTest : public kerneltest::CacheTest {};

StCamCfg wideCfg(int mics, int rows, int cols)
{
    StCamCfg c = akugrid_camera(mics, rows, cols);
    c.rotateMode = 0, c.targetQuantize = false, c.extraEn = true;
    return c;
}

// Point 2 m out on the extended grid at unrotated pixel (i, j) of the
// R x C extended image, computed independently in double precision.
AkuSimSource wideSource(const StCamCfg& cfg, int i, int j)
{
    const int R = cfg.imageResolutionRow / 2, C = cfg.imageResolutionCol / 2;
    AkuSimSource src;
    src.pointSource = true, src.z = 2.0, src.lowHz = 15000.0, src.seed = 3;
    src.x = 2.0 * std::sin(-(((i - R / 2) + 0.5) * (2.0 / R)) * M_PI / 2);
    src.y = 2.0 * std::sin(-(((j - C / 2) + 0.5) * (2.0 / R)) * M_PI / 2) / cfg.imageThetaXYFactor;
    return src;
}

} // namespace

// At 96 kHz and 1024 samples exactly the table rows of bins 160, 165, ...,
// 425 halved are imaged, whatever the band list (beamPower rows start zero
// and only imaged rows get power); the 64 x 48 camera gives a 32 x 24 view
// that fills a map of that size and leaves cells beyond it alone. Its own
// flags, not the kernel's: self terms on from construction (a lone
// microphone still has power, none once they are dropped); a window of the
// wrong length is ignored; the target operations do nothing.
TEST_F(ExtraTest, FixedBinsHalfSizeImageAndOwnFlags)
{
    Wide w(wideCfg(16, 64, 48));
    const AKUDoaQuantizeV3Private& d = w.engine.privateData()->core;
    EXPECT_EQ(std::make_pair(d.steerQuant->rows, d.steerQuant->cols), std::make_pair(257, 2 * 16 * 32 * 24));
    AkuSimSource all; // every bin
    all.x = 0.2, all.lowHz = 0.0, all.highHz = 48000.0;
    AkuMat noise = akugrid_frame(w.cfg, {all}), heat = akumat(33, 25, -1.0f), lone = akumat(16, 1024);
    w.bands.updateBands({});
    w.engine.executeDOA(noise.get(), w.bands, heat.get());
    for (int r = 0; r < 33; ++r)
        for (int c = 0; c < 25; ++c)
            ASSERT_EQ(heat->data[r][c] >= 0.0f, r < 32 && c < 24) << r << "," << c;
    std::vector<int> imaged, want;
    for (int b = 0; b < 257; ++b)
        if (std::any_of(d.beamPower->data[b], d.beamPower->data[b] + 32 * 24, [](float v) { return v != 0.0f; }))
            imaged.push_back(b);
    for (int bin = 160; bin <= 425; bin += 5)
        want.push_back(bin >> 1);
    EXPECT_EQ(imaged, want);

    std::copy(noise->data[0], noise->data[0] + 1024, lone->data[0]);
    for (float v : w.image(lone.get()))
        ASSERT_GT(v, 0.0f);
    w.engine.setSpectrumSelf(false);
    EXPECT_EQ(w.image(lone.get()), std::vector<float>(768, 0.0f));
    const std::vector<float> img = w.image(noise.get());
    std::vector<float> shortWin(512, 0.0f);
    w.engine.updateFFTWin(shortWin.data(), 512);
    EXPECT_EQ(w.image(noise.get()), img);
    EXPECT_EQ(w.engine.getFFTMean(), nullptr);
    EXPECT_EQ(w.engine.getPaWithTarget(fpoint2d{0.0f, 2, 2}, w.bands), 0.0f);
    int lo = 7, hi = 8;
    float power = 1.5f;
    w.engine.findTargetFreqRange(fpoint2d{0.0f, 2, 2}, w.bands, lo, hi, power);
    EXPECT_EQ(std::make_tuple(lo, hi, power), std::make_tuple(7, 8, 1.5f));
}

// Grid sign, sine versus tangent, focus distance and orientation: points
// 2 m out, beyond the main view's 43 degree half diagonal, appear at their
// extended-view pixel (+-1) in every orientation, on one thread as on two.
TEST_F(ExtraTest, WideAngleSourcesAppearAtTheirPixel)
{
    const std::pair<int, int> pixels[] = {{0, 5}, {15, 6}, {0, 0}, {15, 11}, {1, 10}, {14, 2}};
    const int threads = omp_get_max_threads();
    for (int mics : {16, 64}) {
        StCamCfg cfg = wideCfg(mics, 32, 24);
        std::vector<AkuMat> frames;
        for (auto [i, j] : pixels) {
            const AkuSimSource src = wideSource(cfg, i, j);
            ASSERT_GT(std::atan2(std::hypot(src.x, src.y), src.z) * 180.0 / M_PI, 43.0);
            frames.push_back(akugrid_frame(cfg, {src}));
        }
        for (int mode = 0; mode < 4; ++mode) {
            cfg.rotateMode = mode;
            Wide w(cfg);
            for (size_t n = 0; n < frames.size(); ++n) {
                const std::vector<float> img = w.image(frames[n].get());
                omp_set_num_threads(1);
                EXPECT_EQ(mode ? img : w.image(frames[n].get()), img) << "one thread against several";
                omp_set_num_threads(threads);
                int er, ec, best = akugrid_argmax(img);
                akugrid_rotated(mode, 16, 12, pixels[n].first, pixels[n].second, er, ec);
                EXPECT_LE(std::abs(best / 12 - er), 1) << mics << " mics, mode " << mode << " pixel " << n;
                EXPECT_LE(std::abs(best % 12 - ec), 1) << mics << " mics, mode " << mode << " pixel " << n;
            }
        }
    }
}
