// Distance to a source by focus sweep: the sweep's fixed bookkeeping, and the
// accuracy over the working range through the kernel's distance readout.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "AKUDoa/akudoadistance.h"
#include "AKUDoa/akudoadistance_p.h"
#include "AKUDoa/iakudoaquantize.h"
#include "kernel_fixture.h"
#include "support/akudoagrid.h"
#include "support/akudoasim.h"

class AKUDoaDistanceInspector {
public:
    static AKUDoaDistancePrivate* priv(AKUDoaDistance& dist) { return dist.d; }
};

namespace {

// A quarter of the default image keeps the 128-microphone steering table at
// 100 MB. Its pixels are fine enough that the half pixel between the axis and
// the pixel beside it costs little depth; a 21 x 21 measurement grid reaches
// a pixel a quarter of the image off centre.
constexpr int kRows = 32;
constexpr int kCols = 24;
constexpr int kFs = 96000;
constexpr int kN = 1024;

// Engine pixels of the two source directions: next to the axis, and 8.5 rows
// and 6.5 columns (over a quarter of the image) off centre.
const int kPixels[2][2] = {{kRows / 2, kCols / 2}, {7, 18}};

struct Frame {
    AkuMat data;
    double distance;
    bool axis;
};

// 128-channel capture frame of band-limited noise (20-40 kHz) from a point at
// `distance` toward engine pixel (k, c) (straight ahead when `axis`), plus
// independent white noise per microphone 20 dB below the source there.
Frame sourceFrame(double distance, bool axis, uint32_t seed)
{
    StCamCfg cfg = akugrid_camera(128, kRows, kCols);
    const int* px = kPixels[axis ? 0 : 1];
    AkuSimSource s = akugrid_far_source(cfg, px[0], px[1], seed);
    if (axis)
        s.x = s.y = 0.0;
    const double scale = distance / s.z;
    s.pointSource = true;
    s.x *= scale;
    s.y *= scale;
    s.z *= scale;
    AkuMat f(akusim_frame(akusim_array_from_cfg(cfg), {s}, kFs, kN));
    std::mt19937 rng(seed);
    for (int m = 0; m < f->rows; ++m) {
        double power = 0.0;
        for (int n = 0; n < kN; ++n)
            power += static_cast<double>(f->data[m][n]) * f->data[m][n];
        std::normal_distribution<float> noise(0.0f, static_cast<float>(0.1 * std::sqrt(power / kN)));
        for (int n = 0; n < kN; ++n)
            f->data[m][n] += noise(rng);
    }
    return {std::move(f), distance, axis};
}

class DistanceKernel : public kerneltest::KernelTest {
protected:
    void init(AKUDoaKernel& k, int mics, bool average, int rotate)
    {
        const std::string text = "[AudioRecordingParam]\nchannel_num = " + std::to_string(mics)
            + "\n[AcousticCameraParam]\nimage_resolution_row = 32\nimage_resolution_col = 24\n"
              "distance_measure_row = 21\ndistance_measure_col = 21\nimage_correction_flag = 0\nrotate_mode = "
            + std::to_string(rotate) + "\nfreq_average = " + (average ? "true" : "false")
            + "\n[QuantizeiParam]\nreadFromFile = false\nautoSave = false\n[DOA]\nextra_en = false\n";
        ASSERT_TRUE(k.init(ini(text).c_str()));
    }

    static float measureAt(AKUDoaKernel& k, const Frame& f, int x, int y)
    {
        AkuMat heat = akumat(kRows, kCols);
        float distance = -1.0f;
        EXPECT_TRUE(k.readHeatMap(f.data.get(), heat.get(), fpoint2d{0.0f, x, y}, distance, nullptr, 0));
        return distance;
    }

    // Distance at the heat map's peak pixel, as a user points at the source.
    static float measure(AKUDoaKernel& k, const Frame& f)
    {
        AkuMat heat = akumat(kRows, kCols);
        EXPECT_TRUE(k.readHeatMap(f.data.get(), heat.get(), nullptr, 0));
        int x, y;
        akugrid_argmax(heat.get(), x, y);
        return measureAt(k, f, x, y);
    }
};

// One frame per estimate; every rotate_mode appears once, so the target's
// mapping onto the measurement grid is exercised in each orientation.
TEST_F(DistanceKernel, EstimateWithinBoundFromNearToFar)
{
    struct Setup {
        int mics;
        bool average;
        int rotate;
        double bound; // metres
    };
    const Setup setups[] = {{128, false, 1, 0.05}, {128, true, 2, 0.08}, {64, false, 3, 0.05}, {64, true, 0, 0.08}};
    std::vector<Frame> frames;
    for (bool axis : {true, false})
        for (double d : {0.3, 0.5, 0.8, 1.5, 2.2})
            frames.push_back(sourceFrame(d, axis, 11));
    for (const Setup& s : setups) {
        AKUDoaKernel k;
        init(k, s.mics, s.average, s.rotate);
        for (const Frame& f : frames) {
            const double got = measure(k, f);
            EXPECT_NEAR(got, f.distance, s.bound) << s.mics << " mics, average " << s.average << ", "
                                                  << (f.axis ? "on axis" : "off axis") << ", rotate_mode " << s.rotate;
        }
    }
}

// The sweep's fixed shape: coarse candidates 7, 23, ..., 247; a fine window of
// 16 around the coarse winner, cut at the list start (0..14 around 7); and
// nothing written before initDistance or for a target outside the grid.
TEST_F(DistanceKernel, SweepCandidatesAndUntouchedResults)
{
    AKUDoaKernel k;
    init(k, 64, false, 1);
    // A far-field map shows a source this near off its pixel; aim at the
    // pixel beside the axis instead (engine pixel (16, 12), shown at (15, 11)).
    const Frame near = sourceFrame(0.15, true, 5);
    EXPECT_NEAR(measureAt(k, near, 15, 11), 0.15, 0.05);
    const AKUDoaDistancePrivate* p = AKUDoaDistanceInspector::priv(*priv(k)->distance);
    for (int i = 0; i < p->candidateNum; ++i) {
        EXPECT_EQ(p->coarsePower->data[i] > 0.0f, i >= 7 && (i - 7) % 16 == 0) << "candidate " << i;
        EXPECT_EQ(p->finePower->data[i] > 0.0f, i <= 14) << "candidate " << i;
    }
    // A corner lies outside the 21 x 21 grid in every orientation.
    float distance = measureAt(k, near, 0, 0);
    EXPECT_EQ(distance, -1.0f);

    AKUDoaDistance fresh;
    fresh.executeDoa(priv(k)->doaEngine->getFFTMean(), *priv(k)->freqBands, fpoint2d{0.0f, 15, 11}, distance);
    EXPECT_EQ(distance, -1.0f);
}

TEST(DistanceEdge, VecPowerSumsWholeGroupsOfFour)
{
    struct Case { std::vector<float> a; unsigned n; float want; };
    const Case cases[] = {
        {{1, -2, 3}, 3, 0.0f},
        {{1, -2, 3, 4, 100, 200, 300}, 7, 30.0f},
        // Lanes combine as (l0 + l1) + (l2 + l3): 1 + 2^24 rounds to 2^24,
        // then + 2 is exact; a running sum would lose both ones.
        {{1, 4096, 1, 1}, 4, 16777218.0f},
    };
    AKUDoaDistance dist;
    for (const Case& c : cases) {
        std::vector<float> a = c.a;
        EXPECT_EQ(dist.vec_power_fp32(a.data(), c.n), c.want) << "n " << c.n;
    }
}

} // namespace
