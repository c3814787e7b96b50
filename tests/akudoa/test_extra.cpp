// Extended wide view: bins and image size, its own flags, wide-angle
// sources at their pixels, the cache pair, and the kernel readout.
#include <gtest/gtest.h>
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "AKUDoa/akudoaextra.h"
#include "AKUDoa/akudoaextra_p.h"
#include "AKUDoa/base/akufftwindow.h"
#include "kernel_fixture.h"
#include "support/akudoagrid.h"
#include "support/akudoasim.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

StCamCfg makeCfg(int mics, int rows, int cols, int N = 1024)
{
    StCamCfg c = akugrid_camera(mics, rows, cols, N);
    c.rotateMode = 0;
    c.targetQuantize = false;
    c.extraEn = true;
    return c;
}

struct Owned {
    mat2d_fp32* m;
    explicit Owned(mat2d_fp32* p) : m(p) {}
    Owned(int r, int c) : m(create_mat2d_fp32(r, c)) {}
    Owned(Owned&& o) noexcept : m(o.m) { o.m = nullptr; }
    Owned(const Owned&) = delete;
    ~Owned() { destroy_mat2d_fp32(m); }
};

// An extended view on a configuration, with a rectangular window (the
// simulator's frames are exact DFT bins) and a band list it must ignore.
struct Wide {
    StCamCfg cfg;
    AKUDoaExtra engine;
    AKUDoaFreqBands bands;
    explicit Wide(const StCamCfg& c)
        : cfg(c), bands(c.frameSize, c.sampleFrequency)
    {
        engine.doaInit(&cfg);
        setWindow(1.0f);
        bands.updateBands({{20000, 40000, 1}});
    }
    void setWindow(float value)
    {
        std::vector<float> w(static_cast<size_t>(cfg.frameSize), value);
        engine.updateFFTWin(w.data(), cfg.frameSize);
    }
    AKUDoaQuantizeV3Private& core() const { return engine.privateData()->core; }
    int rows() const { return cfg.imageResolutionRow / 2; }
    int cols() const { return cfg.imageResolutionCol / 2; }
    std::vector<float> image(mat2d_fp32* frame)
    {
        Owned heat(rows(), cols());
        engine.executeDOA(frame, bands, heat.m);
        std::vector<float> out;
        for (int r = 0; r < rows(); ++r)
            out.insert(out.end(), heat.m->data[r], heat.m->data[r] + cols());
        return out;
    }
    std::vector<uint8_t> tableBytes() const
    {
        std::vector<uint8_t> out;
        for (int b = 0; b < core().steerQuant->rows; ++b)
            out.insert(out.end(), core().steerQuant->data[b], core().steerQuant->data[b] + core().steerQuant->cols);
        const uint8_t* s = reinterpret_cast<const uint8_t*>(core().steerScale->data);
        out.insert(out.end(), s, s + sizeof(float) * core().steerScale->n);
        return out;
    }
};

// Point at 2 m on the extended grid for unrotated pixel (i, j) of an R x C
// extended image, computed independently in double precision.
AkuSimSource wideSource(const StCamCfg& cfg, int i, int j, uint32_t seed = 3)
{
    const int R = cfg.imageResolutionRow / 2, C = cfg.imageResolutionCol / 2;
    const double s = 2.0 / R;
    AkuSimSource src;
    src.pointSource = true;
    src.x = 2.0 * std::sin(-(((i - R / 2) + 0.5) * s) * kPi / 2);
    src.y = 2.0 * std::sin(-(((j - C / 2) + 0.5) * s) * kPi / 2) / cfg.imageThetaXYFactor;
    src.z = 2.0;
    src.lowHz = 15000.0;
    src.highHz = 40000.0;
    src.seed = seed;
    return src;
}

double offAxisDegrees(const AkuSimSource& s)
{
    return std::atan2(std::hypot(s.x, s.y), s.z) * 180.0 / kPi;
}

mat2d_fp32* noiseFrame(int mics, int N, unsigned seed)
{
    mat2d_fp32* f = create_mat2d_fp32(mics, N);
    std::srand(seed);
    for (int m = 0; m < mics; ++m)
        for (int i = 0; i < N; ++i)
            f->data[m][i] = static_cast<float>(std::rand()) / RAND_MAX - 0.5f;
    return f;
}

int argmax(const std::vector<float>& v)
{
    int best = 0;
    for (int i = 1; i < static_cast<int>(v.size()); ++i)
        if (v[i] > v[best])
            best = i;
    return best;
}

// Private cache directory per test (tests run as parallel processes).
class ExtraTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* env = std::getenv("AKUDOA_CACHE_DIR");
        base_ = env && *env ? env : "/tmp/akudoa-test-cache/";
        if (base_.back() != '/')
            base_ += '/';
        const ::testing::TestInfo* ti = ::testing::UnitTest::GetInstance()->current_test_info();
        dir_ = base_ + ti->test_suite_name() + "." + ti->name() + "." + std::to_string(::getpid()) + "/";
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

std::vector<uint8_t> fileBytes(const std::string& p)
{
    std::ifstream f(p, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

long fileSize(const std::string& p)
{
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

} // namespace

// Catches a wrong band, step, bin-to-row mapping or an included highBin: at
// 96 kHz and 1024 samples exactly the table rows of bins 160, 165, ..., 425
// halved are imaged (beamPower rows start zero and only imaged rows get
// power), out of 257; the 64 x 48 camera gives a 32 x 24 view that fills a
// map of that size and leaves cells beyond it alone.
TEST_F(ExtraTest, FixedBinsEveryFifthAndHalfSizeImage)
{
    Wide w(makeCfg(16, 64, 48));
    EXPECT_EQ(w.core().binNum, 257);
    EXPECT_EQ(w.core().steerQuant->rows, 257);
    EXPECT_EQ(w.core().steerQuant->cols, 2 * 16 * 32 * 24);

    Owned frame(noiseFrame(16, 1024, 5));
    Owned heat(33, 25);
    for (int r = 0; r < 33; ++r)
        for (int c = 0; c < 25; ++c)
            heat.m->data[r][c] = -1.0f;
    w.engine.executeDOA(frame.m, w.bands, heat.m);
    for (int r = 0; r < 33; ++r)
        for (int c = 0; c < 25; ++c) {
            if (r < 32 && c < 24)
                ASSERT_GE(heat.m->data[r][c], 0.0f) << r << "," << c;
            else
                ASSERT_EQ(heat.m->data[r][c], -1.0f) << r << "," << c;
        }

    std::vector<int> imaged;
    for (int b = 0; b < 257; ++b) {
        bool any = false;
        for (int p = 0; p < 32 * 24 && !any; ++p)
            any = w.core().beamPower->data[b][p] != 0.0f;
        if (any)
            imaged.push_back(b);
    }
    ASSERT_EQ(imaged.size(), 54u);
    EXPECT_EQ(std::vector<int>(imaged.begin(), imaged.begin() + 5), (std::vector<int>{80, 82, 85, 87, 90}));
    EXPECT_EQ(imaged.back(), 212);
    for (size_t e = 0; e < imaged.size(); ++e)
        EXPECT_EQ(imaged[e], (160 + 5 * static_cast<int>(e)) >> 1);
}

// Catches reading the kernel's flags or the band list instead of the
// engine's own: self-spectrum is on from construction (a lone microphone
// still yields power, which vanishes once self terms are dropped), the band
// list does not change the image, a window of the wrong length is ignored,
// and the target operations do nothing.
TEST_F(ExtraTest, OwnFlagsAndNoTargetAnalysis)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    Wide w(cfg);
    Owned lone(create_mat2d_fp32(16, 1024));
    Owned noise(noiseFrame(16, 1024, 9));
    for (int i = 0; i < 1024; ++i)
        lone.m->data[0][i] = noise.m->data[0][i];

    std::vector<float> img = w.image(lone.m);
    for (float v : img)
        EXPECT_GT(v, 0.0f);
    w.engine.setSpectrumSelf(false);
    img = w.image(lone.m);
    for (float v : img)
        EXPECT_EQ(v, 0.0f);
    w.engine.setSpectrumSelf(true);

    const std::vector<float> withBands = w.image(noise.m);
    w.bands.updateBands({});
    EXPECT_EQ(w.image(noise.m), withBands);

    std::vector<float> shortWin(512, 0.0f);
    w.engine.updateFFTWin(shortWin.data(), 512);
    EXPECT_EQ(w.image(noise.m), withBands);
    w.setWindow(0.0f);
    for (float v : w.image(noise.m))
        EXPECT_EQ(v, 0.0f);

    EXPECT_EQ(w.engine.getFFTMean(), nullptr);
    EXPECT_EQ(w.engine.getPaWithTarget(fpoint2d{0.0f, 2, 2}, w.bands), 0.0f);
    int lo = 7, hi = 8;
    float power = 1.5f;
    w.engine.findTargetFreqRange(fpoint2d{0.0f, 2, 2}, w.bands, lo, hi, power);
    EXPECT_EQ(lo, 7);
    EXPECT_EQ(hi, 8);
    EXPECT_EQ(power, 1.5f);
}

// Catches a thread-dependent sum order: one and two threads give the same
// image bit for bit.
TEST_F(ExtraTest, ImageDoesNotDependOnTheThreadCount)
{
    Wide w(makeCfg(16, 16, 12));
    Owned frame(noiseFrame(16, 1024, 21));
    const int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    const std::vector<float> one = w.image(frame.m);
    omp_set_num_threads(2);
    const std::vector<float> two = w.image(frame.m);
    omp_set_num_threads(saved);
    EXPECT_EQ(one, two);
}

// Catches grid sign, sine-versus-tangent, focus-distance and orientation
// faults: point sources 2 m out, at angles beyond the main view's 43 degree
// half diagonal, appear at their extended-view pixel (+-1) in every
// orientation.
struct WideCase {
    int mics;
};

class ExtraWide : public ExtraTest, public ::testing::WithParamInterface<WideCase> {};

TEST_P(ExtraWide, WideAngleSourcesAppearAtTheirPixel)
{
    const int mics = GetParam().mics;
    StCamCfg cfg = makeCfg(mics, 32, 24);
    const int R = 16, C = 12;
    const std::pair<int, int> pixels[] = {{0, 5}, {15, 6}, {0, 0}, {15, 11}, {1, 10}, {14, 2}};
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    std::vector<Owned> frames;
    frames.reserve(std::size(pixels));
    for (const auto& px : pixels) {
        const AkuSimSource src = wideSource(cfg, px.first, px.second);
        ASSERT_GT(offAxisDegrees(src), 43.0);
        frames.emplace_back(akusim_frame(arr, {src}, 96000, 1024));
    }
    for (int mode = 0; mode < 4; ++mode) {
        cfg.rotateMode = mode;
        Wide w(cfg);
        for (size_t n = 0; n < std::size(pixels); ++n) {
            const auto& px = pixels[n];
            const std::vector<float> img = w.image(frames[n].m);
            int er, ec;
            akugrid_rotated(mode, R, C, px.first, px.second, er, ec);
            const int best = argmax(img);
            EXPECT_LE(std::abs(best / C - er), 1) << "mode " << mode << " pixel " << px.first << "," << px.second;
            EXPECT_LE(std::abs(best % C - ec), 1) << "mode " << mode << " pixel " << px.first << "," << px.second;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Arrays, ExtraWide, ::testing::Values(WideCase{16}, WideCase{64}),
                         [](const ::testing::TestParamInfo<WideCase>& info) {
                             return std::to_string(info.param.mics) + "Mics";
                         });

// Catches a wrong name, layout or a partial write of the cache pair: saving
// writes both files under the documented names, with the scales and rows
// byte for byte; a second engine loads them back into an emptied table.
TEST_F(ExtraTest, CachePairRoundTripsByteForByte)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    Wide a(cfg);
    ASSERT_TRUE(a.engine.saveQuantizeParam());
    const std::string scale = dir_ + "ExtraQuantizeScaleParam_v3_16_6_16_43_1.3_257.data";
    const std::string table = dir_ + "ExtraQuantizeParam_v3_16_6_16_43_1.3_257.data";
    ASSERT_EQ(fileSize(scale), 257L * 4);
    ASSERT_EQ(fileSize(table), 257L * 2 * 16 * 8 * 6);
    std::vector<uint8_t> onDisk = fileBytes(table);
    const std::vector<uint8_t> scaleBytes = fileBytes(scale);
    onDisk.insert(onDisk.end(), scaleBytes.begin(), scaleBytes.end());
    EXPECT_EQ(onDisk, a.tableBytes());

    Wide b(cfg);
    for (int r = 0; r < b.core().steerQuant->rows; ++r)
        std::fill(b.core().steerQuant->data[r], b.core().steerQuant->data[r] + b.core().steerQuant->cols, 0);
    std::fill(b.core().steerScale->data, b.core().steerScale->data + b.core().steerScale->n, 0.0f);
    ASSERT_TRUE(b.engine.loadQuantizeParam());
    EXPECT_EQ(b.tableBytes(), a.tableBytes());

    // With focus distance on, the names carry it.
    cfg.focusDistanceEn = true;
    cfg.focusDistance = 2.5f;
    Wide f(cfg);
    EXPECT_FALSE(f.engine.loadQuantizeParam());
    ASSERT_TRUE(f.engine.saveQuantizeParam());
    EXPECT_EQ(fileSize(dir_ + "ExtraQuantizeParam_v3_fodis_2.5_16_6_16_43_1.3_257.data"), 257L * 2 * 16 * 8 * 6);
    EXPECT_EQ(fileSize(dir_ + "ExtraQuantizeScaleParam_v3_fodis_2.5_16_6_16_43_1.3_257.data"), 257L * 4);
}

// Catches trusting a short file or a stray cache: a truncated table or scale
// file, or a missing scale file, is rejected and the table stays as it was;
// doaInit always builds, even over a cache pair of the right size.
TEST_F(ExtraTest, TruncatedCacheIsRejectedAndInitNeverLoads)
{
    StCamCfg cfg = makeCfg(16, 16, 12);
    const std::string scale = dir_ + "ExtraQuantizeScaleParam_v3_16_6_16_43_1.3_257.data";
    const std::string table = dir_ + "ExtraQuantizeParam_v3_16_6_16_43_1.3_257.data";
    Wide a(cfg);
    const std::vector<uint8_t> good = a.tableBytes();
    ASSERT_TRUE(a.engine.saveQuantizeParam());

    // Same-size files of other content: doaInit must not read them.
    ASSERT_EQ(::truncate(table.c_str(), 0), 0);
    ASSERT_EQ(::truncate(table.c_str(), 257L * 2 * 16 * 8 * 6), 0); // zero-filled, right size
    {
        Wide b(cfg);
        EXPECT_EQ(b.tableBytes(), good);
        ASSERT_TRUE(b.engine.loadQuantizeParam()); // the zero table is accepted by size...
        EXPECT_NE(b.tableBytes(), good);           // ...and replaces the built one
    }

    ASSERT_TRUE(a.engine.saveQuantizeParam());
    const long tableSize = fileSize(table);
    ASSERT_EQ(::truncate(table.c_str(), tableSize / 2), 0);
    {
        Wide b(cfg);
        EXPECT_FALSE(b.engine.loadQuantizeParam());
        EXPECT_EQ(b.tableBytes(), good);
    }
    ASSERT_TRUE(a.engine.saveQuantizeParam());
    ASSERT_EQ(::truncate(scale.c_str(), 10), 0);
    {
        Wide b(cfg);
        EXPECT_FALSE(b.engine.loadQuantizeParam());
        EXPECT_EQ(b.tableBytes(), good);
    }
    ASSERT_EQ(::unlink(scale.c_str()), 0);
    {
        Wide b(cfg);
        EXPECT_FALSE(b.engine.loadQuantizeParam());
    }
}

// ---------------------------------------------------------------------------
// Through the kernel

using kerneltest::KernelTest;

namespace {

std::string wideCamera(bool extra, int rotate)
{
    return std::string("[AudioRecordingParam]\nchannel_num = 16\nframe_size = 1024\nsample_frequency = 96000\n"
                       "[AcousticCameraParam]\nimage_resolution_row = 32\nimage_resolution_col = 24\n"
                       "image_correction_flag = 0\nrotate_mode = ") +
           std::to_string(rotate) + "\ndistanceMeasure_en = false\n[DOA]\nextra_en = " + (extra ? "true" : "false") +
           "\n";
}

} // namespace

// Catches a missing or misordered frame copy (capture rows scattered through
// micIndex), a missing init step, and a window not forwarded: the kernel's
// wide readout shows a 45-degree source at its pixel; with the view
// disabled, or without a frame, it refuses.
TEST_F(KernelTest, ExtendedReadoutShowsAWideSource)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(wideCamera(true, 1)).c_str()));
    AKUDoaKernelPrivate* p = priv(k);
    ASSERT_NE(p->extra, nullptr);

    // The default Tukey window reached the extended view, and a new one does too.
    const AKUDoaQuantizeV3Private& core = p->extra->privateData()->core;
    AKUFFTWindow tukey(1024, FFT_WINDOW_TUKEY, 0, 0, 0.2f);
    EXPECT_TRUE(std::equal(core.fftWindow->data, core.fftWindow->data + 1024, tukey.data()->data));
    k.setFFTWindow_doa(FFT_WINDOW_HANN, 0, 0, 1.0f);
    AKUFFTWindow hann(1024, FFT_WINDOW_HANN, 0, 0, 1.0f);
    EXPECT_TRUE(std::equal(core.fftWindow->data, core.fftWindow->data + 1024, hann.data()->data));

    const StCamCfg& cfg = p->cfg;
    for (const auto& px : {std::pair<int, int>{0, 5}, std::pair<int, int>{15, 8}}) {
        Owned arrayFrame(akusim_frame(akusim_array_from_cfg(cfg), {wideSource(cfg, px.first, px.second)}, 96000,
                                      1024));
        Owned capture(akugrid_capture_frame(cfg, arrayFrame.m));
        Owned map(16, 12);
        ASSERT_TRUE(k.readHeatMapExtra(capture.m, map.m));
        int r, c, er, ec;
        akugrid_argmax(map.m, r, c);
        akugrid_rotated(1, 16, 12, px.first, px.second, er, ec);
        EXPECT_LE(std::abs(r - er), 1) << px.first << "," << px.second;
        EXPECT_LE(std::abs(c - ec), 1) << px.first << "," << px.second;
    }
    Owned map(16, 12);
    EXPECT_FALSE(k.readHeatMapExtra(nullptr, map.m));

    AKUDoaKernel off;
    ASSERT_TRUE(off.init(ini(wideCamera(false, 1), "off.ini").c_str()));
    EXPECT_EQ(priv(off)->extra, nullptr);
    Owned frame(create_mat2d_fp32(128, 1024));
    EXPECT_FALSE(off.readHeatMapExtra(frame.m, map.m));
}
