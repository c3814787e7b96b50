// Planar engine V4 (spatial-FFT gridding): grid arithmetic, per-frame edge
// cases, the regression rendering, and simulated sources at their pixels.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <utility>

#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "AKUDoa/base/akudoaarray.h"
#include "support/akudoagrid.h"

using V4 = AkuImager<AKUDoaQuantizeV4>;

// 640 x 480: pixel (0, 0) reads grid column H + 1 = 322 of grid row
// H + o + 2 = 402 and deconvolution entry [1][o + 2]; an odd grid drops the
// stride's lowest bit. The averaged engine's row b grids frequency index
// 2b - 1 (plain row 2b, as rows steer bin b - 1), its focus phase that of
// plain row 2b - 1. The fast nearest-node search equals the full scan (ties
// go to the larger index; outside the grid, the corner).
TEST(V4Grid, GeometryAveragedRowsAndNearestNodes)
{
    const AKUDoaV4Geometry g = akudoa_v4_geometry(640, 480), s = akudoa_v4_geometry(64, 48), odd = akudoa_v4_geometry(31, 24);
    EXPECT_EQ((std::vector<int>{g.G, g.S, g.H, g.o, s.G, s.o, odd.G, odd.S, odd.H}), (std::vector<int>{642, 642, 321, 79, 66, 7, 33, 32, 16}));
    StCamCfg cfg = akugrid_camera(16, 32, 24, 1024, 4), avg = cfg;
    cfg.focusDistanceEn = avg.focusDistanceEn = avg.freqAverage = true;
    V4 plain(cfg), half(avg);
    const AKUDoaQuantizeV4Private *p = plain.engine.privateData(), *q = half.engine.privateData();
    EXPECT_EQ((std::vector<int>{p->binNum, p->gridSize, p->gridIn->cols, p->binMaps->cols, p->kernelX->cols, q->binNum}),
              (std::vector<int>{513, 34, 34 * 34 + 1, 32 * 24, 9 * 16, 257}));
    for (int m = 0; m < 32; ++m) {
        EXPECT_EQ(q->cellIndex->data[3][m], p->cellIndex->data[6][m]) << m;
        EXPECT_EQ(q->focusPhase->data[3][m], p->focusPhase->data[5][m]) << m;
        EXPECT_EQ(q->kernelX->data[3][9 * (m / 2) + 2], p->kernelX->data[6][9 * (m / 2) + 2]) << m;
        EXPECT_EQ(q->cellAmp->data[3][m / 2], p->cellAmp->data[6][m / 2]) << m;
    }
    EXPECT_NE(p->cellIndex->data[0][0], p->cellIndex->data[2][0]); // row 0 is a negative frequency

    const float ax[4] = {-1.0f, 0.0f, 1.0f, 2.0f};
    EXPECT_EQ(akudoa_v4_nearest_node_ref(ax, ax, 4, 0.5f, 0.5f), 10);
    for (auto [x, y, want] : {std::tuple<float, float, int>{0.5f, 0.5f, 10}, {0.5f, 0.0f, 9}, {-0.25f, 1.5f, 7}, {-7.0f, 9.0f, 3}})
        EXPECT_EQ(akudoa_v4_nearest_node(ax, ax, 4, x, y), want) << x << "," << y;
    std::mt19937 rng(7);
    for (int G : {10, 34, 66}) {
        vec_fp32 *gx = create_vec_fp32(G), *gy = create_vec_fp32(G);
        const float h = static_cast<float>(((G - 1) * 0.5) * M_PI * (2.0 / G));
        vec_fp32_linespace(gx, -h, h);
        vec_fp32_linespace(gy, -h * 1.3f, h * 1.3f);
        std::uniform_real_distribution<float> any(-1.6f * h, 1.6f * h);
        std::uniform_int_distribution<int> node(0, G - 2);
        for (int k = 0; k < 3000; ++k) { // a third at midpoints between nodes: near-ties in rounding
            const int i = node(rng), j = node(rng);
            const float sx = k % 3 ? any(rng) : 0.5f * (gx->data[i] + gx->data[i + 1]), sy = k % 3 ? any(rng) : 0.5f * (gy->data[j] + gy->data[j + 1]);
            ASSERT_EQ(akudoa_v4_nearest_node(gx->data, gy->data, G, sx, sy), akudoa_v4_nearest_node_ref(gx->data, gy->data, G, sx, sy)) << G << " " << sx << " " << sy;
        }
        destroy_vec_fp32(gx), destroy_vec_fp32(gy);
    }
}

// The averaged last row is exactly X[N/2] of the Nyquist alternation (the
// entry past it, never written, must read zero). A lone microphone has only
// self terms, so the clamped image is zero unless they are kept; no bins
// zero the map.
TEST(V4Frame, EdgeCases)
{
    StCamCfg cfg = akugrid_camera(16, 16, 12, 1024, 4);
    cfg.freqAverage = true;
    V4 av(cfg);
    AkuMat frame = akumat(16, 1024);
    for (int t = 0; t < 1024; ++t)
        frame->data[5][t] = (t & 1) ? -1.0f : 1.0f;
    av.image(frame.get());
    EXPECT_EQ(std::make_pair(av.engine.getFFTMean()->data[256][5], av.engine.getFFTMean()->data[256][3 * 16 + 5]), std::make_pair(1024.0f, 1024.0f));
    cfg.freqAverage = false;
    V4 im(cfg);
    std::mt19937 rng(3);
    std::normal_distribution<float> noise;
    for (int t = 0; t < 1024; ++t)
        frame->data[4][t] = noise(rng);
    EXPECT_EQ(im.image(frame.get()), std::vector<float>(192, 0.0f));
    EXPECT_LT(im.engine.privateData()->binMaps->data[250][0], 0.0f);
    im.engine.setSpectrumSelf(true);
    const std::vector<float> self = im.image(frame.get());
    EXPECT_GT(*std::min_element(self.begin(), self.end()), 0.0f);
    im.bands.updateBands({});
    EXPECT_EQ(im.image(frame.get(), 7.0f), std::vector<float>(192, 0.0f));
}

// Plane waves (or points at the focus distance) land at their pixel of the
// unturned image (rotate_mode 1); every other orientation is its exact turn;
// the target power reads the cell of the engine's index table (mode 7: the
// column-major default; checked on the first pixel); one thread gives the
// same image as several.
TEST(V4Physics, SourcesAppearAtTheirPixels)
{
    struct Case { int mics, rows, cols, program; double focus; };
    for (const Case& cs : {Case{16, 32, 24, 4, 0.0}, Case{16, 64, 48, 4, 0.0}, Case{64, 32, 24, 54, 0.0}, Case{64, 32, 24, 4, 0.4}}) {
        StCamCfg cfg = akugrid_camera(cs.mics, cs.rows, cs.cols, 1024, cs.program);
        cfg.focusDistance = static_cast<float>(cs.focus), cfg.focusDistanceEn = cs.focus > 0.0;
        V4 im(cfg);
        const int R = cs.rows, C = cs.cols, threads = omp_get_max_threads();
        for (auto [k, c] : {std::pair<int, int>{4, 4}, {R - 5, C - 4}, {6, C - 5}}) {
            SCOPED_TRACE(testing::Message() << cs.mics << " mics " << R << "x" << C << " program " << cs.program << " focus " << cs.focus << " pixel " << k << "," << c);
            AkuMat frame = akugrid_frame(cfg, {akugrid_gridding_source(cfg, k, c, cs.focus)});
            im.cfg.rotateMode = 1;
            omp_set_num_threads(1);
            const std::vector<float> a = im.image(frame.get());
            omp_set_num_threads(threads);
            const int best = akugrid_argmax(a);
            EXPECT_LE(std::abs(best / C - k), 1) << "found " << best / C << "," << best % C;
            EXPECT_LE(std::abs(best % C - c), 1) << "found " << best / C << "," << best % C;
            for (int mode : {1, 0, 2, 3, 7}) {
                if (k != 4)
                    break; // orientations on the first pixel
                im.cfg.rotateMode = mode;
                const std::vector<float> h = im.image(frame.get(), -1.0f);
                for (int i = 0; i < R * C && mode != 7; ++i)
                    ASSERT_EQ(h[i], a[(mode == 3 || mode == 1 ? i / C : R - 1 - i / C) * C + (mode == 2 || mode == 1 ? i % C : C - 1 - i % C)]) << "mode " << mode << " cell " << i;
                for (int r = 0; r < R && cs.program == 4; r += 3)
                    for (int col = 0; col < C; col += 5) {
                        const int idx = mode == 0 ? r * C + (C - 1 - col) : mode == 1 ? r * C + col : mode == 7 ? R * col + r : (R - 1 - r) * C + (mode == 2 ? col : C - 1 - col);
                        if (idx < R * C) {
                            ASSERT_NEAR(im.engine.getPaWithTarget(fpoint2d{0.0f, r, col}, im.bands), a[idx], 1e-5f * a[best]) << "mode " << mode << " target " << r << "," << col;
                        }
                    }
            }
        }
    }
}

// The pruned transform (covered columns, read rows) images as the 2-D plan
// does, frame after frame; an odd grid keeps the 2-D plan.
TEST(V4Grid, PrunedTransformImagesAsTheFullOne)
{
    for (auto [mics, rows, cols] : {std::array<int, 3>{16, 32, 24}, {64, 64, 48}, {16, 24, 31}}) {
        SCOPED_TRACE(testing::Message() << mics << " mics " << rows << "x" << cols);
        V4 im(akugrid_camera(mics, rows, cols, 1024, 4));
        AKUDoaQuantizeV4Private* d = const_cast<AKUDoaQuantizeV4Private*>(im.engine.privateData());
        ASSERT_EQ(d->columnPlans != nullptr, d->gridSize % 2 == 0);
        AkuMat frame = akugrid_frame(im.cfg, {akugrid_gridding_source(im.cfg, 3, 5), akugrid_gridding_source(im.cfg, rows - 6, cols / 2, 0.0, 2)});
        im.image(frame.get()); // the second frame must find its grids cleared
        const std::vector<float> pruned = im.image(frame.get());
        fftwf_plan* columnPlans = std::exchange(d->columnPlans, nullptr);
        const std::vector<float> full = im.image(frame.get());
        const float peak = *std::max_element(full.begin(), full.end());
        for (size_t i = 0; i < full.size(); ++i)
            ASSERT_NEAR(pruned[i], full[i], 1e-4f * peak) << "pixel " << i;
        d->columnPlans = columnPlans;
    }
}
