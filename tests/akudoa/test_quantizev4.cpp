// Planar engine V4 (spatial-FFT gridding): sizes and grid arithmetic,
// per-frame edge cases, agreement with plain references, and physical checks
// with simulated sources against the V3 engine.
#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "AKUDoa/akugaussianprocessregression.h"
#include "AKUDoa/base/akudoaarray.h"
#include "support/akudoagrid.h"
#include "support/akudoasim.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

StCamCfg makeCfg(int mics, int rows, int cols, int program = 4)
{
    return akugrid_camera(mics, rows, cols, 1024, program);
}

std::vector<float> flatten(const mat2d_fp32* m)
{
    std::vector<float> out;
    for (int r = 0; r < m->rows; ++r)
        out.insert(out.end(), m->data[r], m->data[r] + m->cols);
    return out;
}

// Any planar engine with its configuration, a band list and a rectangular
// window.
template <class Engine>
struct Imager {
    StCamCfg cfg;
    Engine engine;
    AKUDoaFreqBands bands;
    explicit Imager(const StCamCfg& c, int lowHz = 20000, int highHz = 40000)
        : cfg(c), bands(c.frameSize, c.sampleFrequency)
    {
        engine.doaInit(&cfg);
        std::vector<float> w(static_cast<size_t>(cfg.frameSize), 1.0f);
        engine.updateFFTWin(w.data(), cfg.frameSize);
        bands.updateBands({{lowHz, highHz, 1}});
    }
    int rows() const { return cfg.imageResolutionRow; }
    int cols() const { return cfg.imageResolutionCol; }
    std::vector<float> image(mat2d_fp32* frame, float fill = 0.0f)
    {
        mat2d_fp32* heat = create_mat2d_fp32(rows(), cols());
        for (int r = 0; r < rows(); ++r)
            std::fill(heat->data[r], heat->data[r] + cols(), fill);
        engine.executeDOA(frame, bands, heat);
        std::vector<float> out = flatten(heat);
        destroy_mat2d_fp32(heat);
        return out;
    }
};

using V4 = Imager<AKUDoaQuantizeV4>;
using V3 = Imager<AKUDoaQuantizeV3>;

int argmax(const std::vector<float>& v)
{
    int best = 0;
    for (int i = 1; i < static_cast<int>(v.size()); ++i)
        if (v[i] > v[best])
            best = i;
    return best;
}

// Plane wave from the in-plane direction (dx, dy) (sines of the angles to
// the array axis along the array's x and y).
AkuSimSource planeWave(double dx, double dy, uint32_t seed = 1)
{
    AkuSimSource s;
    s.x = dx;
    s.y = dy;
    s.z = std::sqrt(1.0 - dx * dx - dy * dy);
    s.seed = seed;
    return s;
}

// In-plane direction that V3 images at heat-map pixel (r, c) with
// rotate_mode 1 (the default half turn).
void v3Direction(const StCamCfg& cfg, int r, int c, double& dx, double& dy)
{
    const double NR = cfg.imageResolutionRow, NC = cfg.imageResolutionCol;
    const int k = cfg.imageResolutionRow - 1 - r, j = cfg.imageResolutionCol - 1 - c;
    const double D = 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0);
    const double u = ((k - NR * 0.5) + 0.5) / NR;
    const double v = (((j - NC * 0.5) + 0.5) / NR) / cfg.imageThetaXYFactor;
    const double theta = std::atan2(std::sqrt(u * u + v * v), D);
    const double phi = std::atan2(v, u);
    dx = -std::sin(theta) * std::cos(phi);
    dy = -std::sin(theta) * std::sin(phi);
}

// In-plane direction of V4's pixel (r, c) with rotate_mode 1 (no turn): the
// grid spans spatial frequencies up to half the grid, which the engine
// scales to the sine of alpha (derived from the angle domain and the array
// radius).
void v4Direction(const StCamCfg& cfg, int r, int c, double& dx, double& dy)
{
    const int G = std::max(cfg.imageResolutionRow, cfg.imageResolutionCol) + 2;
    const double t = 0.7071067811865476 / std::tan((cfg.eangleDomain + 1) * kPi / 180.0);
    const double alpha = std::atan2(0.5 * cfg.micMaxRadius + 0.5, t);
    const double pitch = 2.0 * std::sin(alpha) / G;
    dx = (r - cfg.imageResolutionRow / 2) * pitch;
    dy = (c - cfg.imageResolutionCol / 2) * pitch / cfg.imageThetaXYFactor;
}

} // namespace

// ---------------------------------------------------------------------------
// Sizes and grid arithmetic

TEST(V4Grid, GeometryOfTheDefaultAndSmallImages)
{
    // 640 x 480: pixel (0, 0) reads grid column (H + 1) = 322 of grid row
    // (H + o + 2) = 402 and deconvolution entry [1][o + 2] = [1][81].
    const AKUDoaV4Geometry g = akudoa_v4_geometry(640, 480);
    EXPECT_EQ(g.G, 642);
    EXPECT_EQ(g.S, 642);
    EXPECT_EQ(g.H, 321);
    EXPECT_EQ(g.o, 79);
    EXPECT_EQ((g.H + 1) % g.S, 322);
    EXPECT_EQ((g.H + g.o + 2) % g.S, 402);
    EXPECT_EQ(g.o + 2, 81);

    const AKUDoaV4Geometry s = akudoa_v4_geometry(64, 48);
    EXPECT_EQ(s.G, 66);
    EXPECT_EQ(s.o, 7);
    // Odd grid (odd larger side): the stride drops the lowest bit.
    const AKUDoaV4Geometry odd = akudoa_v4_geometry(31, 24);
    EXPECT_EQ(odd.G, 33);
    EXPECT_EQ(odd.S, 32);
    EXPECT_EQ(odd.H, 16);
}

TEST(V4Grid, EngineSizesWithAndWithoutAveraging)
{
    StCamCfg cfg = makeCfg(16, 32, 24);
    AKUDoaQuantizeV4 plain;
    plain.doaInit(&cfg);
    const AKUDoaQuantizeV4Private* p = plain.privateData();
    EXPECT_EQ(p->binNum, 513);
    EXPECT_EQ(p->gridSize, 34);
    EXPECT_EQ(p->gridIn->rows, 513);
    EXPECT_EQ(p->gridIn->cols, 34 * 34);
    EXPECT_EQ(p->binMaps->cols, 32 * 24);
    EXPECT_EQ(p->cellIndex->cols, 32);
    EXPECT_EQ(p->kernelX->cols, 9 * 16);

    StCamCfg avg = cfg;
    avg.freqAverage = true;
    avg.focusDistanceEn = true;
    cfg.focusDistanceEn = true;
    AKUDoaQuantizeV4 a;
    a.doaInit(&avg);
    AKUDoaQuantizeV4 f;
    f.doaInit(&cfg);
    const AKUDoaQuantizeV4Private* q = a.privateData();
    const AKUDoaQuantizeV4Private* r = f.privateData();
    EXPECT_EQ(q->binNum, 257);
    // Averaged row 3 grids frequency index 2*3 - 1 = 5, which the plain
    // engine's row 6 (b - 1) grids; its focus phase uses (5 fs) / N, the
    // plain engine's row 5.
    for (int m = 0; m < 16; ++m) {
        EXPECT_EQ(q->cellIndex->data[3][m], r->cellIndex->data[6][m]);
        EXPECT_EQ(q->cellIndex->data[3][16 + m], r->cellIndex->data[6][16 + m]);
        EXPECT_EQ(q->cellAmp->data[3][m], r->cellAmp->data[6][m]);
        EXPECT_EQ(q->kernelX->data[3][9 * m + 2], r->kernelX->data[6][9 * m + 2]);
        EXPECT_EQ(q->focusPhase->data[3][m], r->focusPhase->data[5][m]);
        EXPECT_EQ(q->focusPhase->data[3][16 + m], r->focusPhase->data[5][16 + m]);
    }
    // Row 0 grids a negative frequency: mirrored against row 2 (frequency 1).
    EXPECT_NE(r->cellIndex->data[0][0], r->cellIndex->data[2][0]);
}

TEST(V4Grid, NearestNodeTiesGoToTheLargerIndex)
{
    // Axes with exactly representable spacing: (0.5, 0.5) is equally far from
    // four nodes; the full scan keeps the last of them.
    const float ax[4] = {-1.0f, 0.0f, 1.0f, 2.0f};
    const float ay[4] = {-1.0f, 0.0f, 1.0f, 2.0f};
    EXPECT_EQ(akudoa_v4_nearest_node_ref(ax, ay, 4, 0.5f, 0.5f), 2 * 4 + 2);
    EXPECT_EQ(akudoa_v4_nearest_node(ax, ay, 4, 0.5f, 0.5f), 2 * 4 + 2);
    EXPECT_EQ(akudoa_v4_nearest_node(ax, ay, 4, 0.5f, 0.0f), 2 * 4 + 1);
    EXPECT_EQ(akudoa_v4_nearest_node(ax, ay, 4, -0.25f, 1.5f), 1 * 4 + 3);
    // Outside the grid: the corner.
    EXPECT_EQ(akudoa_v4_nearest_node(ax, ay, 4, -7.0f, 9.0f), 0 * 4 + 3);
}

TEST(V4Grid, NearestNodeSearchAgreesWithTheFullScan)
{
    std::mt19937 rng(7);
    for (int G : {10, 34, 66}) {
        vec_fp32* ax = create_vec_fp32(G);
        vec_fp32* ay = create_vec_fp32(G);
        const float h = static_cast<float>(((G - 1) * 0.5) * kPi * (2.0 / G));
        vec_fp32_linespace(ax, -h, h);
        vec_fp32_linespace(ay, -h * 1.3f, h * 1.3f);
        std::uniform_real_distribution<float> any(-1.2f * h * 1.3f, 1.2f * h * 1.3f);
        std::uniform_int_distribution<int> node(0, G - 2);
        for (int k = 0; k < 3000; ++k) {
            float sx = any(rng), sy = any(rng);
            if (k % 3 == 0) { // midpoints between nodes: near-ties in rounding
                const int i = node(rng), j = node(rng);
                sx = 0.5f * (ax->data[i] + ax->data[i + 1]);
                sy = 0.5f * (ay->data[j] + ay->data[j + 1]);
            }
            ASSERT_EQ(akudoa_v4_nearest_node(ax->data, ay->data, G, sx, sy),
                      akudoa_v4_nearest_node_ref(ax->data, ay->data, G, sx, sy))
                << G << " " << sx << " " << sy;
        }
        destroy_vec_fp32(ax);
        destroy_vec_fp32(ay);
    }
}

// ---------------------------------------------------------------------------
// Per-frame edge cases

TEST(V4Frame, PowerSpectrumIsReversedAndTheAveragedLastBinReadsZero)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    cfg.freqAverage = true;
    V4 im(cfg);
    // Channel 2: cosine at bin 3 (|X[3]| = N/2); channel 5: the Nyquist
    // alternation (X[N/2] = N).
    const int N = 1024;
    mat2d_fp32* frame = create_mat2d_fp32(16, N);
    for (int t = 0; t < N; ++t) {
        frame->data[2][t] = static_cast<float>(std::cos(2.0 * kPi * 3.0 * t / N));
        frame->data[5][t] = (t & 1) ? -1.0f : 1.0f;
    }
    im.image(frame);
    vec_fp32* spec = create_vec_fp32(4);
    im.engine.powerSpec(spec, 2);
    EXPECT_NEAR(spec->data[0], 512.0f * 512.0f, 1.0f); // bin 3 written last
    EXPECT_NEAR(spec->data[3], 0.0f, 1e-3f);           // bin 0
    EXPECT_NEAR(spec->data[1], 0.0f, 1e-3f);
    // The averaged last row adds the never-written entry N/2 + 1, which must
    // be zero: the row is exactly X[N/2].
    const AKUDoaQuantizeV4Private* d = im.engine.privateData();
    EXPECT_EQ(d->binSpectra->data[256][5][0], 1024.0f);
    EXPECT_EQ(d->binSpectra->data[256][5][1], 0.0f);
    // Real block form of the same value.
    const mat2d_fp32* mean = im.engine.getFFTMean();
    EXPECT_EQ(mean->data[256][5], 1024.0f);
    EXPECT_EQ(mean->data[256][3 * 16 + 5], 1024.0f);
    // Row 1 holds bins 2 + 3: the cosine's X[3] in block form.
    EXPECT_NEAR(mean->data[1][2], 512.0f, 1e-2f);
    EXPECT_NEAR(mean->data[1][16 + 2], -mean->data[1][2 * 16 + 2], 0.0f);
    destroy_vec_fp32(spec);
    destroy_mat2d_fp32(frame);
}

TEST(V4Frame, EmptyBandsZeroWindowAndUnknownOrientation)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    V4 im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {planeWave(0.1, 0.05)}, 96000, 1024);
    // Orientation 5 leaves the caller's map alone.
    im.cfg.rotateMode = 5;
    for (float v : im.image(frame, 7.0f))
        ASSERT_EQ(v, 7.0f);
    im.cfg.rotateMode = 1;
    // No bins: nothing accumulated, the map is all zero.
    im.bands.updateBands({});
    for (float v : im.image(frame, 7.0f))
        ASSERT_EQ(v, 0.0f);
    // A window of a length other than N is ignored; the zero window of a
    // fresh engine gives a zero image.
    AKUDoaQuantizeV4 fresh;
    fresh.doaInit(&cfg);
    std::vector<float> w(512, 1.0f);
    fresh.updateFFTWin(w.data(), 512);
    AKUDoaFreqBands bands(1024, 96000);
    bands.updateBands({{20000, 40000, 1}});
    mat2d_fp32* heat = create_mat2d_fp32(16, 12);
    fresh.executeDOA(frame, bands, heat);
    for (float v : flatten(heat))
        ASSERT_EQ(v, 0.0f);
    destroy_mat2d_fp32(heat);
    destroy_mat2d_fp32(frame);
}

TEST(V4Frame, OrientationsAreTurnsOfTheUnturnedImage)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    V4 im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {planeWave(0.2, -0.1)}, 96000, 1024);
    const int NR = 16, NC = 12;
    const std::vector<float> a = im.image(frame); // mode 1: no turn
    for (int mode : {0, 2, 3}) {
        im.cfg.rotateMode = mode;
        const std::vector<float> h = im.image(frame);
        for (int i = 0; i < NR; ++i)
            for (int j = 0; j < NC; ++j) {
                const int si = (mode == 0 || mode == 2) ? NR - 1 - i : i;
                const int sj = (mode == 0 || mode == 3) ? NC - 1 - j : j;
                ASSERT_EQ(h[i * NC + j], a[si * NC + sj]) << mode << " " << i << " " << j;
            }
    }
    destroy_mat2d_fp32(frame);
}

TEST(V4Frame, NegativePixelsAreClampedUnlessSelfTermsAreKept)
{
    // One live microphone: no cross terms, every pixel's power is below its
    // own self term, so without self terms the image is exactly zero.
    StCamCfg cfg = makeCfg(16, 16, 12);
    V4 im(cfg);
    mat2d_fp32* frame = create_mat2d_fp32(16, 1024);
    std::mt19937 rng(3);
    std::normal_distribution<float> noise;
    for (int t = 0; t < 1024; ++t)
        frame->data[4][t] = noise(rng);
    for (float v : im.image(frame))
        ASSERT_EQ(v, 0.0f);
    // The per-bin maps are negative before the clamp.
    const AKUDoaQuantizeV4Private* d = im.engine.privateData();
    EXPECT_LT(d->binMaps->data[250][0], 0.0f);
    im.engine.setSpectrumSelf(true);
    for (float v : im.image(frame))
        ASSERT_GT(v, 0.0f);
    destroy_mat2d_fp32(frame);
}

TEST(V4Frame, FocusPhasesFollowTheFocusSwitch)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    AKUDoaQuantizeV4 e;
    e.doaInit(&cfg);
    const AKUDoaQuantizeV4Private* d = e.privateData();
    // Off: no phases computed, and an update changes nothing.
    cfg.focusDistance = 0.5f;
    e.focusDisUpdate();  // engine e reads this cfg itself
    for (int b = 0; b < d->binNum; ++b)
        for (int m = 0; m < 32; ++m)
            ASSERT_EQ(d->focusPhase->data[b][m], 0.0f);
    // On: the Fresnel phase 2 pi F r^2 / (2 D c) of each microphone, F the
    // integer bin frequency.
    cfg.focusDistanceEn = true;
    e.focusDisUpdate();
    const int b = 300;
    const double F = (b * 96000) / 1024;
    for (int m = 0; m < 16; ++m) {
        const double r = cfg.micRadius[m];
        const double phi = F * (2.0 * kPi * r * r) / (2.0 * 0.5 * 340.0);
        EXPECT_NEAR(d->focusPhase->data[b][m], std::cos(phi), 2e-5);
        EXPECT_NEAR(d->focusPhase->data[b][16 + m], std::sin(phi), 2e-5);
    }
}

TEST(V4Frame, TargetPowerUsesTheEngineIndexTable)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    V4 im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {planeWave(0.25, -0.1), planeWave(-0.1, 0.2, 9)}, 96000, 1024);
    const int NR = 16, NC = 12;
    im.bands.updateBands({{30000, 30000, 1}}); // one bin: the map is the pixel's amplitude
    const std::vector<float> a = im.image(frame); // mode 1: unturned
    // Heat-map cell that each mode's index table reads, relative to the
    // unturned image a.
    for (int mode : {0, 1, 2, 3, 7}) {
        im.cfg.rotateMode = mode;
        for (int r = 0; r < NR; r += 3)
            for (int c = 0; c < NC; c += 5) {
                int idx;
                switch (mode) {
                case 0: idx = r * NC + (NC - 1 - c); break;
                case 1: idx = r * NC + c; break;
                case 2:
                case 3: idx = (NR - 1 - r) * NC + (mode == 2 ? c : NC - 1 - c); break;
                default: idx = NR * c + r; break;
                }
                if (idx >= NR * NC)
                    continue;
                const float pa = im.engine.getPaWithTarget(fpoint2d{0.0f, r, c}, im.bands);
                ASSERT_FLOAT_EQ(pa, a[idx]) << mode << " " << r << " " << c;
            }
    }
    AKUDoaFreqBands none(1024, 96000);
    none.updateBands({});
    EXPECT_EQ(im.engine.getPaWithTarget(fpoint2d{0.0f, 2, 2}, none), 0.0f);
    destroy_mat2d_fp32(frame);
}

TEST(V4Frame, TargetRangeRunsOverTheBinMaps)
{
    StCamCfg cfg = makeCfg(16, 12, 10);
    V4 im(cfg, 0, 48000);
    AKUDoaQuantizeV4Private* d = im.engine.privateData();
    // Peaks at (5, 4) in groups {100}, {150..165}, {200..203}: the middle
    // group is the largest and far from the others, so it is the range.
    std::vector<int> bins = {100};
    for (int b = 150; b <= 165; ++b)
        bins.push_back(b);
    for (int b = 200; b <= 203; ++b)
        bins.push_back(b);
    for (int b : bins)
        d->binMaps->data[b][5 * 10 + 4] = 0.5f;
    int lo = 0, hi = 0;
    float power = 0.0f;
    im.engine.findTargetFreqRange(fpoint2d{0.0f, 6, 5}, im.bands, lo, hi, power);
    EXPECT_EQ(lo, 150 * 96000 / 1024);
    EXPECT_EQ(hi, 165 * 96000 / 1024);
    EXPECT_FLOAT_EQ(power, std::sqrt(16 * 0.5f / (15.0f * 16.0f)) / 1024.0f);
    // Too far from the target: nothing found.
    power = 0.0f;
    im.engine.findTargetFreqRange(fpoint2d{0.0f, 11, 9}, im.bands, lo, hi, power);
    EXPECT_EQ(lo, -1);
    EXPECT_EQ(hi, -1);
    EXPECT_EQ(power, 0.0f);
}

// ---------------------------------------------------------------------------
// Threads and the regression path

TEST(V4Threads, ImageDoesNotDependOnTheThreadCount)
{
    for (int program : {4, 54}) {
        StCamCfg cfg = makeCfg(16, 16, 12, program);
        V4 im(cfg);
        const AkuSimArray arr = akusim_array_from_cfg(cfg);
        mat2d_fp32* frame = akusim_frame(arr, {planeWave(0.2, 0.1, 3), planeWave(-0.15, -0.1, 4)}, 96000, 1024);
        const int saved = omp_get_max_threads();
        omp_set_num_threads(1);
        const std::vector<float> one = im.image(frame);
        omp_set_num_threads(3);
        const std::vector<float> three = im.image(frame);
        omp_set_num_threads(saved);
        EXPECT_EQ(0, std::memcmp(one.data(), three.data(), sizeof(float) * one.size())) << program;
        destroy_mat2d_fp32(frame);
    }
}

TEST(V4Threads, RegressionImageIsTheSumOverBinsOfEachRendering)
{
    // Plain reference: every bin's map rendered on its own and added in band
    // order, then normalised. Catches workers overwriting a shared output.
    StCamCfg cfg = makeCfg(16, 16, 12, 54);
    V4 im(cfg, 25000, 27000);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {planeWave(0.2, 0.1, 3), planeWave(-0.15, -0.1, 4)}, 96000, 1024);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(3);
    const std::vector<float> img = im.image(frame);
    omp_set_num_threads(saved);
    const AKUDoaQuantizeV4Private* d = im.engine.privateData();
    const int P = 16 * 12;
    std::vector<float> acc(P, 0.0f), out(P);
    int visited = 0;
    for (const doaFreqInfo& e : im.bands.data()) {
        AKUGaussianProcessRegression::predit_auto_process(d->binMaps->data[e.bin], out.data(), 16, 12, 1.5f, 4.0f,
                                                          0.025f, true);
        for (int p = 0; p < P; ++p)
            acc[p] += out[p];
        ++visited;
    }
    ASSERT_GT(visited, 10);
    for (int p = 0; p < P; ++p) {
        const float v = std::max(acc[p] * (1.0f / (15.0f * 16.0f)), 0.0f);
        ASSERT_EQ(img[p], std::sqrt(v) * (1.0f / 1024.0f)) << p;
    }
    destroy_mat2d_fp32(frame);
}

// ---------------------------------------------------------------------------
// Physics: simulated sources

struct SizeCase {
    int mics;
    int rows;
    int cols;
};

void PrintTo(const SizeCase& c, std::ostream* os)
{
    *os << c.mics << " mics, " << c.rows << "x" << c.cols;
}

class V4AgainstV3 : public ::testing::TestWithParam<SizeCase> {
protected:
    // V3 caches its tables: every test process gets a directory of its own.
    void SetUp() override
    {
        const char* env = std::getenv("AKUDOA_CACHE_DIR");
        base_ = env && *env ? env : "/tmp/akudoa-test-cache/";
        if (base_.back() != '/')
            base_ += '/';
        dir_ = base_ + "V4AgainstV3." + std::to_string(::getpid()) + "/";
        std::filesystem::create_directories(dir_);
        ::setenv("AKUDOA_CACHE_DIR", dir_.c_str(), 1);
    }
    void TearDown() override
    {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
        ::setenv("AKUDOA_CACHE_DIR", base_.c_str(), 1);
    }
    std::string base_;
    std::string dir_;
};

TEST_P(V4AgainstV3, FarFieldSourceLandsWhereV3PutsIt)
{
    const SizeCase sc = GetParam();
    StCamCfg c3 = makeCfg(sc.mics, sc.rows, sc.cols, 3);
    StCamCfg c4 = makeCfg(sc.mics, sc.rows, sc.cols, 4);
    V3 v3(c3);
    V4 v4(c4);
    const AkuSimArray arr = akusim_array_from_cfg(c4);
    const int NR = sc.rows, NC = sc.cols;
    // Pixels around the centre in every quadrant (both engines: rotate_mode 1).
    const int cases[][2] = {{NR / 2, NC / 2}, {NR / 2 - 3, NC / 2 + 2}, {NR / 2 + 4, NC / 2 - 3},
                            {NR / 2 - 5, NC / 2 - 4}, {NR / 2 + 2, NC / 2 + 5}};
    for (const auto& pc : cases) {
        double dx, dy;
        v3Direction(c3, pc[0], pc[1], dx, dy);
        mat2d_fp32* frame = akusim_frame(arr, {planeWave(dx, dy)}, 96000, 1024);
        const int p3 = argmax(v3.image(frame));
        const int p4 = argmax(v4.image(frame));
        EXPECT_EQ(p3 / NC, pc[0]); // V3 itself finds it
        EXPECT_EQ(p3 % NC, pc[1]);
        EXPECT_LE(std::abs(p4 / NC - p3 / NC), 1) << pc[0] << "," << pc[1] << " V4 at " << p4 / NC << "," << p4 % NC;
        EXPECT_LE(std::abs(p4 % NC - p3 % NC), 1) << pc[0] << "," << pc[1] << " V4 at " << p4 / NC << "," << p4 % NC;
        destroy_mat2d_fp32(frame);
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, V4AgainstV3,
                         ::testing::Values(SizeCase{16, 64, 48}, SizeCase{64, 32, 24}, SizeCase{16, 32, 24}));

TEST(V4Physics, FarFieldSourceLandsAtItsOwnPixelAcrossTheImage)
{
    for (int mics : {16, 64}) {
        StCamCfg cfg = makeCfg(mics, 32, 24);
        V4 im(cfg);
        const AkuSimArray arr = akusim_array_from_cfg(cfg);
        for (const auto& pc : std::vector<std::pair<int, int>>{{4, 4}, {27, 20}, {6, 19}, {25, 3}, {16, 12}}) {
            double dx, dy;
            v4Direction(cfg, pc.first, pc.second, dx, dy);
            mat2d_fp32* frame = akusim_frame(arr, {planeWave(dx, dy)}, 96000, 1024);
            const int p = argmax(im.image(frame));
            EXPECT_LE(std::abs(p / 24 - pc.first), 1) << mics << " mics, " << pc.first << "," << pc.second
                                                     << " found " << p / 24 << "," << p % 24;
            EXPECT_LE(std::abs(p % 24 - pc.second), 1) << mics << " mics, " << pc.first << "," << pc.second
                                                      << " found " << p / 24 << "," << p % 24;
            destroy_mat2d_fp32(frame);
        }
    }
}

TEST(V4Physics, PointSourceAtTheFocusDistanceLandsAtItsPixel)
{
    StCamCfg cfg = makeCfg(64, 32, 24);
    cfg.focusDistance = 0.4f;
    cfg.focusDistanceEn = true;
    V4 focused(cfg);
    StCamCfg far = cfg;
    far.focusDistanceEn = false;
    V4 unfocused(far);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    for (const auto& pc : std::vector<std::pair<int, int>>{{10, 8}, {20, 15}, {16, 12}}) {
        double dx, dy;
        v4Direction(cfg, pc.first, pc.second, dx, dy);
        AkuSimSource s;
        s.pointSource = true;
        s.x = 0.4 * dx;
        s.y = 0.4 * dy;
        s.z = 0.4 * std::sqrt(1.0 - dx * dx - dy * dy);
        mat2d_fp32* frame = akusim_frame(arr, {s}, 96000, 1024);
        const std::vector<float> img = focused.image(frame);
        const int p = argmax(img);
        EXPECT_LE(std::abs(p / 24 - pc.first), 1) << pc.first << "," << pc.second << " found " << p / 24 << ","
                                                 << p % 24;
        EXPECT_LE(std::abs(p % 24 - pc.second), 1) << pc.first << "," << pc.second << " found " << p / 24 << ","
                                                  << p % 24;
        // Focusing gathers the near source: its peak beats the far-field one.
        const std::vector<float> blur = unfocused.image(frame);
        EXPECT_GT(img[p], blur[argmax(blur)]);
        destroy_mat2d_fp32(frame);
    }
}

// Small end-to-end case for the emulated-architecture runs.
TEST(EndToEndSmallV4, PlaneWaveAppearsAtItsPixel)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    V4 im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    double dx, dy;
    v4Direction(cfg, 5, 8, dx, dy);
    mat2d_fp32* frame = akusim_frame(arr, {planeWave(dx, dy)}, 96000, 1024);
    const int p = argmax(im.image(frame));
    EXPECT_LE(std::abs(p / 12 - 5), 1);
    EXPECT_LE(std::abs(p % 12 - 8), 1);
    destroy_mat2d_fp32(frame);
}
