// Linear-array engine: group rows, steering table, the beam-power pairing,
// the reversed line map, the int8 paths, and simulated plane waves imaged
// through the kernel with the shipped example configuration.
#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "AKUDoa/akudoakernel.h"
#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/akudoaquantizeline.h"
#include "AKUDoa/akudoaquantizeline_p.h"
#include "support/akudoasim.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kAngles = 361;

// Linear array of channels microphones in two groups; group g, microphone m
// sits at (m - (M-1)/2) * pitch[g] metres along the line.
StCamCfg lineCfg(int channels, int N, double pitch0 = 0.0045, double pitch1 = 0.0045, int fs = 96000)
{
    StCamCfg c{};
    c.sampleFrequency = fs;
    c.channelNum = channels;
    c.imageResolutionRow = 1;
    c.imageResolutionCol = kAngles;
    c.frameSize = N;
    c.rotateMode = 1;
    for (float& s : c.micSensitivity)
        s = 1.0f;
    const int M = channels / 2;
    for (int g = 0; g < 2; ++g)
        for (int m = 0; m < M; ++m) {
            const int i = g * M + m;
            c.micIndex[i] = i;
            c.micPhi[i] = 0.0f;
            c.micRadius[i] = static_cast<float>((m - (M - 1) / 2.0) * (g == 0 ? pitch0 : pitch1));
        }
    return c;
}

void setWindow(AKUDoaQuantizeLine& e, int N, float value)
{
    std::vector<float> w(static_cast<size_t>(N), value);
    e.updateFFTWin(w.data(), N);
}

mat2d_fp32* randomFrame(int rows, int N, uint32_t seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    mat2d_fp32* f = create_mat2d_fp32(rows, N);
    for (int r = 0; r < rows; ++r)
        for (int t = 0; t < N; ++t)
            f->data[r][t] = u(rng);
    return f;
}

// The line map the engine must produce from its per-bin powers: summed in
// band order, scaled, floored (without self terms), square root, over N,
// and written in reverse order.
std::vector<float> expectedLine(const AKUDoaQuantizeLinePrivate* d, const std::vector<doaFreqInfo>& L)
{
    std::vector<float> acc(kAngles, 0.0f);
    for (const doaFreqInfo& e : L)
        for (int i = 0; i < kAngles; ++i)
            acc[i] += d->binMaps->data[e.bin][i];
    const int M = d->micNum;
    std::vector<float> out(kAngles);
    for (int i = 0; i < kAngles; ++i) {
        float x = acc[i] * (1.0f / static_cast<float>((M - 1) * M));
        if (!d->spectrumSelf && x < 0.0f)
            x = 0.0f;
        out[kAngles - 1 - i] = std::sqrt(x) * (1.0f / static_cast<float>(d->frameSize));
    }
    return out;
}

int argmax(const mat2d_fp32* m)
{
    return static_cast<int>(std::max_element(m->data[0], m->data[0] + m->cols) - m->data[0]);
}

// Column of angle theta (degrees) in the reversed line map: +80 is column 0.
double columnOf(double theta)
{
    return (80.0 - theta) * 360.0 / 160.0;
}

} // namespace

TEST(QuantizeLine, GroupsTakeTheirOwnHalfOfTheArray)
{
    // 128 channels: 64 microphones per group, 2 * 64 * 361 table bytes per
    // bin; group 0 windows frame rows 0..63 into its rows 0..63, group 1 rows
    // 64..127 into rows 64..127, and a frame holding group 1 alone lands in
    // rows 64.. as well.
    const int N = 64;
    StCamCfg cfg = lineCfg(128, N);
    AKUDoaQuantizeLine e0, e1;
    e0.doaInit(&cfg);
    e1.doaInit(&cfg);
    e0.setGroupId(0);
    e1.setGroupId(1);
    const AKUDoaQuantizeLinePrivate* d0 = e0.privateData();
    const AKUDoaQuantizeLinePrivate* d1 = e1.privateData();
    EXPECT_EQ(d0->micNum, 64);
    EXPECT_EQ(d0->steerQ->rows, N / 2 + 1);
    EXPECT_EQ(d0->steerQ->cols, 46208);
    EXPECT_EQ(d0->heatAcc->n, kAngles);
    EXPECT_EQ(d0->fftWindow->n, N);

    std::vector<float> win(static_cast<size_t>(N));
    for (int t = 0; t < N; ++t)
        win[t] = 0.5f + static_cast<float>(t) / N;
    e0.updateFFTWin(win.data(), N);
    e1.updateFFTWin(win.data(), N);
    mat2d_fp32* frame = randomFrame(128, N, 11);
    e0.executeFFT(frame);
    e1.executeFFT(frame);
    for (int r = 0; r < 128; ++r)
        for (int t = 0; t < N; ++t) {
            const float w = frame->data[r][t] * win[t];
            // FFTW r2c keeps its input; rows of the other group stay zero.
            ASSERT_EQ(d0->windowed->data[r][t], r < 64 ? w : 0.0f) << "group 0 row " << r;
            ASSERT_EQ(d1->windowed->data[r][t], r >= 64 ? w : 0.0f) << "group 1 row " << r;
        }
    // Spectra in the dot-product layout come from the group's rows: bin 0
    // real part of microphone 0 is the windowed sum of its own frame row.
    double dc0 = 0.0, dc1 = 0.0;
    for (int t = 0; t < N; ++t) {
        dc0 += frame->data[0][t] * win[t];
        dc1 += frame->data[64][t] * win[t];
    }
    EXPECT_NEAR(d0->fftMean->data[0][0], dc0, 1e-4);
    EXPECT_NEAR(d1->fftMean->data[0][0], dc1, 1e-4);

    mat2d_fp32* half = randomFrame(64, N, 12);
    e1.executeFFT(half);
    for (int t = 0; t < N; ++t)
        ASSERT_EQ(d1->windowed->data[64][t], half->data[0][t] * win[t]);
    destroy_mat2d_fp32(half);
    destroy_mat2d_fp32(frame);
}

TEST(QuantizeLine, SteeringTableHoldsTheLinePhasesAt363MetresPerSecond)
{
    // Dequantized entries against cos/sin(k w x sin(theta)), w = 2 pi fs /
    // (N 363), theta_a = -80 + a * 160/360 degrees. Catches the speed of
    // sound, a bin offset, the angle grid and the cos/sin block order. The
    // two groups have different pitches: each engine's table follows its own
    // group, also after a change of group.
    const int N = 128, fs = 96000, M = 16;
    StCamCfg cfg = lineCfg(2 * M, N, 0.004, 0.003, fs);
    AKUDoaQuantizeLine e;
    e.doaInit(&cfg);
    for (int group : {0, 1, 0}) {
        e.setGroupId(group);
        const AKUDoaQuantizeLinePrivate* d = e.privateData();
        const double w = 2.0 * kPi * fs / (N * 363.0);
        for (int k : {0, 1, 17, 40, N / 2}) {
            const float scale = d->steerScale->data[k];
            const int8_t* q = reinterpret_cast<const int8_t*>(d->steerQ->data[k]);
            for (int a : {0, 1, 90, 180, 247, 359, 360}) {
                const double s = std::sin((-80.0 + a * 160.0 / 360.0) * kPi / 180.0);
                for (int m = 0; m < M; ++m) {
                    const double ph = k * w * cfg.micRadius[group * M + m] * s;
                    // Quantization error: below one step (negative values round toward zero).
                    const double tol = 1.0 / scale + 1e-5;
                    ASSERT_NEAR(q[a * 2 * M + m] / scale, std::cos(ph), tol) << "group " << group << " k " << k << " a " << a;
                    ASSERT_NEAR(q[a * 2 * M + M + m] / scale, std::sin(ph), tol) << "group " << group << " k " << k << " a " << a;
                }
            }
        }
    }
}

TEST(QuantizeLine, BeamPowerPairsRealOfAngleWithImaginaryOfThePreviousAngle)
{
    // binMaps[k][i] = offset + re(i)^2 + dotOut[k][360 + i]^2: the imaginary
    // block starts at 361, so entry i takes the imaginary part of angle i-1
    // and entry 0 the real part of angle 360; entry 360 is never written.
    StCamCfg cfg = lineCfg(32, 32);
    AKUDoaQuantizeLine e;
    e.doaInit(&cfg);
    mat2d_fp32* in = create_mat2d_fp32(3, 2 * kAngles);
    mat2d_fp32* out = create_mat2d_fp32(3, kAngles);
    auto f = [](int j) { return static_cast<float>(j % 11 - 5); };
    for (int j = 0; j < 2 * kAngles; ++j)
        in->data[2][j] = f(j);
    out->data[2][360] = 42.0f;
    e.ComplexNormOffset(in, out, -3.0f, 2);
    for (int i = 0; i < 360; ++i)
        ASSERT_EQ(out->data[2][i], -3.0f + f(i) * f(i) + f(360 + i) * f(360 + i)) << i;
    EXPECT_EQ(out->data[2][0], -3.0f + 25.0f + f(360) * f(360)); // real part of angle 360
    EXPECT_EQ(out->data[2][360], 42.0f);
    for (int j = 0; j < kAngles; ++j)
        EXPECT_EQ(out->data[0][j], 0.0f) << "other rows untouched";
    destroy_mat2d_fp32(in);
    destroy_mat2d_fp32(out);
}

TEST(QuantizeLine, LineMapIsTheReversedPlainSumOverBinsOnAnyThreadCount)
{
    const int N = 128, fs = 96000;
    StCamCfg cfg = lineCfg(32, N);
    AKUDoaQuantizeLine e;
    e.doaInit(&cfg);
    e.setGroupId(1);
    setWindow(e, N, 1.0f);
    AKUDoaFreqBands bands(N, fs);
    bands.updateBands({{20000, 40000, 1}});
    const std::vector<doaFreqInfo> L = bands.data();
    mat2d_fp32* frame = randomFrame(32, N, 5);
    mat2d_fp32* map1 = create_mat2d_fp32(1, kAngles);
    mat2d_fp32* map2 = create_mat2d_fp32(1, kAngles);
    AKUDoaQuantizeLinePrivate* d = e.privateData();

    const int threads = omp_get_max_threads();
    for (bool self : {false, true}) {
        e.setSpectrumSelf(self);
        omp_set_num_threads(1);
        e.executeDOA(frame, bands, map1);
        omp_set_num_threads(std::max(2, threads));
        e.executeDOA(frame, bands, map2);
        omp_set_num_threads(threads);
        ASSERT_EQ(0, std::memcmp(map1->data[0], map2->data[0], sizeof(float) * kAngles)) << "self " << self;
        const std::vector<float> want = expectedLine(d, L);
        for (int j = 0; j < kAngles; ++j)
            ASSERT_EQ(map2->data[0][j], want[j]) << "column " << j << " self " << self;
        // Column 0 is index 360, built from the never written power entries.
        EXPECT_EQ(map2->data[0][0], 0.0f);
        EXPECT_GT(*std::max_element(map2->data[0], map2->data[0] + kAngles), 0.0f);
    }

    // Whatever sits in entry 360 of the bin powers reaches column 0.
    for (const doaFreqInfo& b : L)
        d->binMaps->data[b.bin][360] = 4.0f;
    e.setSpectrumSelf(false);
    e.executeDOA(frame, bands, map1);
    EXPECT_EQ(map1->data[0][0], expectedLine(d, L)[0]);
    EXPECT_GT(map1->data[0][0], 0.0f);

    destroy_mat2d_fp32(frame);
    destroy_mat2d_fp32(map1);
    destroy_mat2d_fp32(map2);
}

TEST(QuantizeLine, EmptyBandsWrongWindowAndTargetSearch)
{
    const int N = 64, fs = 96000;
    StCamCfg cfg = lineCfg(32, N);
    AKUDoaQuantizeLine e;
    e.doaInit(&cfg);
    e.setGroupId(0);
    mat2d_fp32* frame = randomFrame(32, N, 9);
    mat2d_fp32* map = create_mat2d_fp32(1, kAngles);
    for (int j = 0; j < kAngles; ++j)
        map->data[0][j] = 7.0f;

    AKUDoaFreqBands none(N, fs);
    none.updateBands({});
    setWindow(e, N, 1.0f);
    e.executeDOA(frame, none, map);
    for (int j = 0; j < kAngles; ++j)
        ASSERT_EQ(map->data[0][j], 7.0f);

    // A window of another length is ignored: the engine keeps the old one.
    AKUDoaFreqBands bands(N, fs);
    bands.updateBands({{20000, 40000, 1}});
    std::vector<float> zeros(static_cast<size_t>(N) + 1, 0.0f);
    e.updateFFTWin(zeros.data(), N + 1);
    e.executeDOA(frame, bands, map);
    EXPECT_GT(*std::max_element(map->data[0], map->data[0] + kAngles), 0.0f);
    e.updateFFTWin(zeros.data(), N);
    e.executeDOA(frame, bands, map);
    EXPECT_EQ(*std::max_element(map->data[0], map->data[0] + kAngles), 0.0f);

    int lo = 5, hi = 6;
    float power = 3.0f;
    e.findTargetFreqRange(fpoint2d{1.0f, 0, 100}, bands, lo, hi, power);
    EXPECT_EQ(lo, -1);
    EXPECT_EQ(hi, -1);
    EXPECT_EQ(power, 0.0f);
    destroy_mat2d_fp32(frame);
    destroy_mat2d_fp32(map);
}

TEST(QuantizeLine, TargetPowerAndSpectrumOfTheGroup)
{
    const int N = 128, fs = 96000;
    StCamCfg cfg = lineCfg(32, N);
    AKUDoaQuantizeLine e;
    e.doaInit(&cfg);
    e.setGroupId(1);
    setWindow(e, N, 1.0f);
    AKUDoaFreqBands bands(N, fs);
    bands.updateBands({{20000, 40000, 1}});
    // Microphone 3 of group 1 (frame row 19) carries a cosine on bin 5, all
    // others noise; the spectrum is written highest bin first.
    mat2d_fp32* frame = randomFrame(32, N, 21);
    for (int t = 0; t < N; ++t)
        frame->data[19][t] = 2.0f * static_cast<float>(std::cos(2.0 * kPi * 5 * t / N));
    mat2d_fp32* map = create_mat2d_fp32(1, kAngles);
    e.executeDOA(frame, bands, map);

    vec_fp32* spec = create_vec_fp32(N / 2 + 1);
    e.powerSpec(spec, 3);
    const int n = spec->n;
    EXPECT_NEAR(spec->data[n - 1 - 5], static_cast<float>(N * N), N * N * 1e-5);
    for (int k = 0; k < n; ++k) {
        if (k != 5) {
            ASSERT_LT(spec->data[n - 1 - k], 1e-6f * N * N) << k;
        }
    }
    spec->data[0] = -1.0f;
    e.powerSpec(spec, 16); // past the group
    EXPECT_EQ(spec->data[0], -1.0f);

    // Target index row + column * 361, not reversed.
    const AKUDoaQuantizeLinePrivate* d = e.privateData();
    const int M = d->micNum;
    for (int i : {0, 17, 200, 359}) {
        float sum = 0.0f;
        for (const doaFreqInfo& b : bands.data())
            sum += d->binMaps->data[b.bin][i];
        const float want = std::sqrt(std::max(0.0f, sum / static_cast<float>((M - 1) * M))) / N;
        EXPECT_EQ(e.getPaWithTarget(fpoint2d{0.0f, i, 0}, bands), want) << i;
        EXPECT_NEAR(e.getPaWithTarget(fpoint2d{0.0f, i, 0}, bands), map->data[0][360 - i], 1e-5f * want + 1e-12f);
    }
    EXPECT_EQ(e.getPaWithTarget(fpoint2d{0.0f, 3, 1}, bands), 0.0f); // past the line
    destroy_vec_fp32(spec);
    destroy_mat2d_fp32(frame);
    destroy_mat2d_fp32(map);
}

TEST(SimdLineDot8, EveryPathEqualsTheReferenceOnLineBeams)
{
    // 361 angles per bin (an odd count), 64 microphones per group and 8 (a
    // remainder below every block width): each path's beams must equal the
    // scalar reference bit for bit. Nine bins keep it quick under emulation.
    const int N = 16;
    for (int channels : {128, 16}) {
        StCamCfg cfg = lineCfg(channels, N);
        AKUDoaQuantizeLine e;
        e.doaInit(&cfg);
        e.setGroupId(1);
        setWindow(e, N, 1.0f);
        mat2d_fp32* frame = randomFrame(channels, N, 31u + static_cast<uint32_t>(channels));
        e.executeFFT(frame);
        AKUDoaQuantizeLinePrivate* d = e.privateData();
        const AKUDoaDot8Path chosen = d->dot8;
        mat2d_fp32* ref = create_mat2d_fp32(d->binNum, 2 * kAngles);
        for (int k = 0; k < d->binNum; ++k) {
            e.dequantizeScale(d->frameScale, d->steerScale, d->dotFactor, k);
            d->dot8 = {"ref", akudoa_dot8_ref};
            e.matRowDotInt8(d->frameQ, d->steerQ, d->dotFactor, ref, k);
        }
        for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
            d->dot8 = path;
            for (int k = 0; k < d->binNum; ++k) {
                e.matRowDotInt8(d->frameQ, d->steerQ, d->dotFactor, d->dotOut, k);
                ASSERT_EQ(0, std::memcmp(ref->data[k], d->dotOut->data[k], sizeof(float) * 2 * kAngles))
                    << path.name << " bin " << k << " channels " << channels;
            }
        }
        d->dot8 = chosen;
        destroy_mat2d_fp32(ref);
        destroy_mat2d_fp32(frame);
    }
}

// ---------------------------------------------------------------------------
// The shipped example, through the kernel.

class QuantizeLineKernel : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        // The example names its geometry file relative to the repository root.
        char cwd[4096];
        ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
        ASSERT_EQ(chdir(AKUDOA_SOURCE_DIR), 0);
        kernel_ = new AKUDoaKernel;
        const bool ok = kernel_->init("examples/linear-2x64.ini");
        ASSERT_EQ(chdir(cwd), 0);
        ASSERT_TRUE(ok);
    }
    static void TearDownTestSuite()
    {
        delete kernel_;
        kernel_ = nullptr;
    }

    // The example array with the wave from theta (degrees): rows 0..63 and
    // 64..127 take the waves of rows0 and rows1.
    static mat2d_fp32* planeWaves(double theta0, double theta1)
    {
        const StCamCfg* c = kernel_->camConfig();
        // The simulator's medium has 340 m/s; positions scaled by 340/363 give
        // the delays of the 363 m/s medium the line engine assumes.
        AkuSimArray array;
        for (int i = 0; i < c->channelNum; ++i) {
            array.x.push_back(c->micRadius[i] * kAkuSimSoundSpeed / 363.0);
            array.y.push_back(0.0);
            array.z.push_back(0.0);
        }
        mat2d_fp32* out = nullptr;
        for (int g = 0; g < 2; ++g) {
            const double th = (g == 0 ? theta0 : theta1) * kPi / 180.0;
            // Positive angles lie toward the negative end of the line.
            AkuSimSource s;
            s.x = -std::sin(th);
            s.z = std::cos(th);
            s.seed = 7u + static_cast<uint32_t>(g);
            mat2d_fp32* f = akusim_frame(array, {s}, c->sampleFrequency, c->frameSize);
            if (!out) {
                out = f;
            } else {
                for (int r = 64; r < 128; ++r)
                    std::memcpy(out->data[r], f->data[r], sizeof(float) * c->frameSize);
                destroy_mat2d_fp32(f);
            }
        }
        return out;
    }

    static AKUDoaKernel* kernel_;
};

AKUDoaKernel* QuantizeLineKernel::kernel_ = nullptr;

TEST_F(QuantizeLineKernel, ExampleBuildsTwoLineEngines)
{
    AKUDoaKernelPrivate* p = AKUDoaKernelInspector::d(*kernel_);
    ASSERT_NE(p->lineEngine[0], nullptr);
    ASSERT_NE(p->lineEngine[1], nullptr);
    EXPECT_EQ(p->lineEngine[0]->privateData()->groupId, 0);
    EXPECT_EQ(p->lineEngine[1]->privateData()->groupId, 1);
    EXPECT_EQ(p->doaEngine, nullptr);
    // The geometry file: 4.5 mm pitch, centred, both rows alike.
    EXPECT_FLOAT_EQ(p->cfg.micRadius[0], -0.14175f);
    EXPECT_FLOAT_EQ(p->cfg.micRadius[63], 0.14175f);
    EXPECT_FLOAT_EQ(p->cfg.micRadius[64], -0.14175f);
    EXPECT_NEAR(p->cfg.micRadius[1] - p->cfg.micRadius[0], 0.0045f, 1e-7f);
    EXPECT_FALSE(kernel_->readLineHeatMap(nullptr, nullptr, nullptr));
}

TEST_F(QuantizeLineKernel, PlaneWavePeaksAtItsColumnInBothMaps)
{
    mat2d_fp32* map0 = create_mat2d_fp32(1, kAngles);
    mat2d_fp32* map1 = create_mat2d_fp32(1, kAngles);
    for (double theta : {30.0, -45.0}) {
        mat2d_fp32* frame = planeWaves(theta, theta);
        ASSERT_TRUE(kernel_->readLineHeatMap(frame, map0, map1));
        EXPECT_LE(std::fabs(argmax(map0) - columnOf(theta)), 1.0) << theta << " degrees, group 0";
        EXPECT_LE(std::fabs(argmax(map1) - columnOf(theta)), 1.0) << theta << " degrees, group 1";
        destroy_mat2d_fp32(frame);
    }
    destroy_mat2d_fp32(map0);
    destroy_mat2d_fp32(map1);
}

TEST_F(QuantizeLineKernel, EachGroupImagesItsOwnRows)
{
    // Different waves on the two rows of microphones: each map shows its own.
    mat2d_fp32* map0 = create_mat2d_fp32(1, kAngles);
    mat2d_fp32* map1 = create_mat2d_fp32(1, kAngles);
    const double pairs[2][2] = {{30.0, -45.0}, {-45.0, 30.0}};
    for (const auto& pr : pairs) {
        mat2d_fp32* frame = planeWaves(pr[0], pr[1]);
        ASSERT_TRUE(kernel_->readLineHeatMap(frame, map0, map1));
        EXPECT_LE(std::fabs(argmax(map0) - columnOf(pr[0])), 1.0) << "group 0 at " << pr[0];
        EXPECT_LE(std::fabs(argmax(map1) - columnOf(pr[1])), 1.0) << "group 1 at " << pr[1];
        destroy_mat2d_fp32(frame);
    }
    destroy_mat2d_fp32(map0);
    destroy_mat2d_fp32(map1);
}
