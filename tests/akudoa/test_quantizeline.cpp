// Linear-array engine: the beam-power pairing, the reversed
// line map, the int8 paths, and simulated plane waves imaged through the
// kernel with the shipped example configuration.
#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <random>

#include "AKUDoa/akudoakernel.h"
#include "AKUDoa/akudoaquantizeline.h"
#include "AKUDoa/akudoaquantizeline_p.h"
#include "support/akudoagrid.h"

namespace {

constexpr int kAngles = 361;

// Two groups of channels / 2 microphones; microphone m of group g sits at
// (m - (M-1)/2) * pitch[g] metres along the line. A window of ones, a
// random frame, 20-40 kHz.
struct Line {
    StCamCfg cfg{};
    AKUDoaQuantizeLine e;
    AKUDoaQuantizeLinePrivate* d;
    AKUDoaFreqBands bands;
    AkuMat frame;
    Line(int channels, int N, int group, double pitch0 = 0.0045, double pitch1 = 0.0045) : bands(N, 96000), frame(akumat(channels, N))
    {
        cfg.sampleFrequency = 96000, cfg.channelNum = channels, cfg.imageResolutionRow = 1, cfg.imageResolutionCol = kAngles, cfg.frameSize = N;
        std::mt19937 rng(channels + N);
        std::uniform_real_distribution<float> u(-1.0f, 1.0f);
        for (int i = 0; i < channels; ++i) {
            cfg.micIndex[i] = i;
            cfg.micRadius[i] = static_cast<float>((i % (channels / 2) - (channels / 2 - 1) / 2.0) * (i < channels / 2 ? pitch0 : pitch1));
            for (int t = 0; t < N; ++t)
                frame->data[i][t] = u(rng);
        }
        std::vector<float> w(static_cast<size_t>(N), 1.0f);
        e.doaInit(&cfg), e.setGroupId(group), e.updateFFTWin(w.data(), N), bands.updateBands({{20000, 40000, 1}});
        d = e.privateData();
    }
};

} // namespace

// binMaps[k][i] = offset + re(i)^2 + dotOut[k][360 + i]^2: entry i takes the
// imaginary part of angle i - 1 (entry 0 the real part of angle 360), entry
// 360 is never written. The line map is the plain sum over the band's bins,
// scaled, floored without self terms, square-rooted, over N, and reversed,
// so column 0 shows entry 360; the thread count does not change it; the
// target index is row + column * 361, not reversed.
TEST(QuantizeLine, LineMapIsTheReversedPlainSumOfThePairedPowers)
{
    const int N = 128;
    Line l(32, N, 1);
    AkuMat in = akumat(3, 2 * kAngles), out = akumat(3, kAngles), map1 = akumat(1, kAngles), map2 = akumat(1, kAngles);
    const auto f = [](int j) { return static_cast<float>(j % 11 - 5); };
    for (int j = 0; j < 2 * kAngles; ++j)
        in->data[2][j] = f(j), out->data[2][360] = 42.0f;
    l.e.ComplexNormOffset(in.get(), out.get(), -3.0f, 2);
    for (int i = 0; i < 360; ++i)
        ASSERT_EQ(out->data[2][i], -3.0f + f(i) * f(i) + f(360 + i) * f(360 + i)) << i;
    EXPECT_EQ(std::make_pair(out->data[2][360], out->data[0][0]), std::make_pair(42.0f, 0.0f)) << "entry 360 and other rows untouched";

    const int threads = omp_get_max_threads();
    for (int self : {0, 1, 2}) {
        l.e.setSpectrumSelf(self == 1);
        for (const doaFreqInfo& b : l.bands.data())
            l.d->binMaps->data[b.bin][360] = self == 2 ? 4.0f : 0.0f;
        omp_set_num_threads(1), l.e.executeDOA(l.frame.get(), l.bands, map1.get());
        omp_set_num_threads(std::max(2, threads)), l.e.executeDOA(l.frame.get(), l.bands, map2.get());
        omp_set_num_threads(threads);
        EXPECT_EQ(akugrid_flat(map1.get()), akugrid_flat(map2.get())) << "self " << self;
        std::vector<float> acc(kAngles, 0.0f);
        for (const doaFreqInfo& b : l.bands.data())
            for (int i = 0; i < kAngles; ++i)
                acc[i] += l.d->binMaps->data[b.bin][i];
        for (int i = 0; i < kAngles; ++i) {
            const float x = acc[i] * (1.0f / 240.0f);
            ASSERT_EQ(map2->data[0][kAngles - 1 - i], std::sqrt(self == 1 ? x : std::max(x, 0.0f)) / N) << i;
            if (i % 40 == 0 && self != 1) {
                ASSERT_EQ(l.e.getPaWithTarget(fpoint2d{0.0f, i, 0}, l.bands), std::sqrt(std::max(acc[i] / 240.0f, 0.0f)) / N);
            }
        }
        EXPECT_GT(*std::max_element(map2->data[0], map2->data[0] + kAngles), 0.0f);
    }
    EXPECT_EQ(l.e.getPaWithTarget(fpoint2d{0.0f, 3, 1}, l.bands), 0.0f); // past the line
}

// A cosine on bin 5 of group 1's microphone 3 (frame row 19), all else
// noise: its power spectrum has N^2 there, written highest bin first (group
// 0's rows are not read).
TEST(QuantizeLine, SpectrumOfTheGroupHighestBinFirst)
{
    const int N = 128;
    Line l(32, N, 1);
    AkuMat map = akumat(1, kAngles);
    for (int t = 0; t < N; ++t)
        l.frame->data[19][t] = 2.0f * static_cast<float>(std::cos(2.0 * M_PI * 5 * t / N));
    l.e.executeDOA(l.frame.get(), l.bands, map.get());
    vec_fp32* spectrum = create_vec_fp32(N / 2 + 1);
    l.e.powerSpec(spectrum, 3);
    for (int k = 0; k <= N / 2; ++k)
        ASSERT_NEAR(spectrum->data[N / 2 - k], k == 5 ? N * N : 0.0f, N * N * 1e-5) << k;
    destroy_vec_fp32(spectrum);
}

// 361 angles per bin (an odd count), 64 microphones per group and 8 (below
// every block width): each path's beams equal the scalar reference bit for
// bit. Nine bins keep it quick under emulation.
TEST(SimdLineDot8, EveryPathEqualsTheReferenceOnLineBeams)
{
    for (int channels : {128, 16}) {
        Line l(channels, 16, 1);
        l.e.executeFFT(l.frame.get());
        AkuMat ref = akumat(l.d->binNum, 2 * kAngles);
        for (int k = 0; k < l.d->binNum; ++k)
            l.e.dequantizeScale(l.d->frameScale, l.d->steerScale, l.d->dotFactor, k), l.d->dot8 = {"ref", akudoa_dot8_ref},
                                                                                      l.e.matRowDotInt8(l.d->frameQ, l.d->steerQ, l.d->dotFactor, ref.get(), k);
        for (const AKUDoaDot8Path& path : akudoa_dot8_paths())
            for (int k = 0; k < l.d->binNum; ++k) {
                l.d->dot8 = path;
                l.e.matRowDotInt8(l.d->frameQ, l.d->steerQ, l.d->dotFactor, l.d->dotOut, k);
                ASSERT_EQ(0, std::memcmp(ref->data[k], l.d->dotOut->data[k], sizeof(float) * 2 * kAngles)) << path.name << " bin " << k << " channels " << channels;
            }
    }
}

// The shipped two-row example through the kernel: different plane waves on
// the two rows of microphones; each map peaks at its own wave's column
// (+80 degrees is column 0; positive angles lie toward the negative end of
// the line). The simulator's medium has 340 m/s; positions scaled by
// 340/363 give the delays of the line engine's medium.
TEST(QuantizeLineKernel, EachRowImagesItsOwnPlaneWave)
{
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(AKUDOA_SOURCE_DIR), 0); // the example names its geometry file from the root
    AKUDoaKernel kernel;
    const bool ok = kernel.init("examples/linear-2x64.ini");
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_TRUE(ok);
    const StCamCfg* c = kernel.camConfig();
    AkuSimArray array;
    for (int i = 0; i < c->channelNum; ++i)
        array.x.push_back(c->micRadius[i] * kAkuSimSoundSpeed / 363.0), array.y.push_back(0.0), array.z.push_back(0.0);
    AkuMat map0 = akumat(1, kAngles), map1 = akumat(1, kAngles);
    EXPECT_FALSE(kernel.readLineHeatMap(nullptr, map0.get(), map1.get()));
    for (auto [theta0, theta1] : {std::pair<double, double>{30.0, -45.0}, {-45.0, 30.0}}) {
        AkuSimSource s0, s1;
        s0.x = -std::sin(theta0 * M_PI / 180.0), s0.z = std::cos(theta0 * M_PI / 180.0), s0.seed = 7;
        s1.x = -std::sin(theta1 * M_PI / 180.0), s1.z = std::cos(theta1 * M_PI / 180.0), s1.seed = 8;
        AkuMat frame(akusim_frame(array, {s0}, c->sampleFrequency, c->frameSize)), f1(akusim_frame(array, {s1}, c->sampleFrequency, c->frameSize));
        for (int r = 64; r < 128; ++r)
            std::copy(f1->data[r], f1->data[r] + c->frameSize, frame->data[r]);
        ASSERT_TRUE(kernel.readLineHeatMap(frame.get(), map0.get(), map1.get()));
        EXPECT_LE(std::fabs(akugrid_argmax(akugrid_flat(map0.get())) - (80.0 - theta0) * 2.25), 1.0) << theta0;
        EXPECT_LE(std::fabs(akugrid_argmax(akugrid_flat(map1.get())) - (80.0 - theta1) * 2.25), 1.0) << theta1;
    }
}
