// One frame of the planar engines as a whole: what the per-bin gains do to
// the image, and that every bin's spectrum is kept whatever the band.
#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <thread>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "AKUDoa/iakudoaquantize_p.h"
#include "support/akudoagrid.h"

namespace {

template <class Engine>
std::vector<float> fftMeanRows(Engine& engine)
{
    std::vector<float> all;
    const mat2d_fp32* m = engine.getFFTMean();
    for (int r = 0; r < m->rows; ++r)
        all.insert(all.end(), m->data[r], m->data[r] + m->cols);
    return all;
}

// A second frame images as the first; gains of 1/4 on every bin scale the
// summed power by exactly 1/4, so the amplitude image halves exactly; and a
// narrow band leaves every other bin's spectrum as a full band computes it.
template <class Engine>
void checkFrame(const StCamCfg& base, const char* name)
{
    SCOPED_TRACE(name);
    const AkuMat frame = akugrid_frame(base, {akugrid_far_source(base, 5, 4)});
    AkuImager<Engine> unit(base);
    const std::vector<float> ref = unit.image(frame.get());
    EXPECT_EQ(unit.image(frame.get()), ref); // nothing carried over from a frame
    StCamCfg quarter = base;
    std::fill(std::begin(quarter.micSensitivity), std::end(quarter.micSensitivity), 0.25f);
    AkuImager<Engine> scaled(quarter);
    const std::vector<float> half = scaled.image(frame.get());
    ASSERT_EQ(ref.size(), half.size());
    int nonzero = 0;
    for (size_t p = 0; p < ref.size(); ++p) {
        ASSERT_EQ(half[p], 0.5f * ref[p]) << p;
        nonzero += ref[p] > 0.0f;
    }
    EXPECT_GT(nonzero, 0);

    AkuImager<Engine> narrow(base, 30000, 31000);
    narrow.image(frame.get());
    EXPECT_EQ(fftMeanRows(narrow.engine), fftMeanRows(unit.engine));
}

TEST(PlanarFrame, GainsScaleTheImageAndEveryBinKeepsItsSpectrum)
{
    StCamCfg v3 = akugrid_camera(16, 12, 8, 256);
    checkFrame<AKUDoaQuantizeV3>(v3, "V3");
    v3.compactSteering = true;
    checkFrame<AKUDoaQuantizeV3>(v3, "V3 compact");
    v3.compactSteering = false;
    v3.freqAverage = true;
    checkFrame<AKUDoaQuantizeV3>(v3, "V3 averaged");
    checkFrame<AKUDoaQuantizeV4>(akugrid_camera(16, 12, 8, 256, 4), "V4");
}

// Catches a row added before it is made, twice or never, whatever order
// the threads finish rows in: each row is written just before it is
// reported, and the image must equal the plain sum in band order bit for bit.
TEST(PlanarFrame, ConcurrentRowsSumInBandOrder)
{
    const int P = 515, R = 48;
    StCamCfg cfg = akugrid_camera(16, 4, 4);
    std::mt19937 rng(5);
    std::vector<float> made(static_cast<size_t>(R) * P), maps(made.size()), plain(P, 0.0f), heat(P);
    std::vector<float*> ptr;
    std::vector<int> rows(R), order(R);
    for (int b = 0; b < R; ++b)
        cfg.micSensitivity[b] = static_cast<float>(rng() % 9) / 4.0f, ptr.push_back(&maps[static_cast<size_t>(b) * P]);
    std::generate(made.begin(), made.end(), [&] { return std::ldexp(static_cast<float>(rng() % 2001) - 1000.0f, -9); });
    std::iota(rows.begin(), rows.end(), 0), std::shuffle(rows.begin(), rows.end(), rng);
    for (int b : rows)
        akudoa_add_row(plain.data(), P, &made[static_cast<size_t>(b) * P], cfg.micSensitivity[b]);
    for (int threads : {1, 2, 4})
        for (int trial = 0; trial < 10; ++trial) {
            std::fill(maps.begin(), maps.end(), std::nanf("")), std::fill(heat.begin(), heat.end(), 1.0f);
            AKUDoaOrderedSum sum(heat.data(), P, rows, ptr.data(), &cfg);
            std::iota(order.begin(), order.end(), 0), std::shuffle(order.begin(), order.end(), rng);
            std::atomic<int> next{0};
            std::vector<std::thread> team;
            for (int t = 0; t < threads; ++t)
                team.emplace_back([&] {
                    for (int i; (i = next++) < R;) // made just before it is reported
                        std::copy_n(&made[rows[order[i]] * P], P, &maps[rows[order[i]] * P]), sum.finished(order[i]);
                });
            for (std::thread& t : team)
                t.join();
            ASSERT_EQ(heat, plain) << threads << " threads, trial " << trial;
        }
}

} // namespace
