// Planar engine V3: steering tables, per-frame imaging, parameter cache,
// and physical checks with simulated sources.
#include <gtest/gtest.h>
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "AKUDoa/akudoaquantizeparam.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "support/akudoagrid.h"
#include "support/akudoasim.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

StCamCfg makeCfg(int mics, int rows, int cols, int N = 1024, int fs = 96000)
{
    StCamCfg c = akugrid_camera(mics, rows, cols, N);
    c.sampleFrequency = fs;
    return c;
}

// One engine with its configuration, a band list and a rectangular window.
struct Imager {
    StCamCfg cfg;
    AKUDoaQuantizeV3 engine;
    AKUDoaFreqBands bands;
    explicit Imager(const StCamCfg& c, int lowHz = 20000, int highHz = 40000)
        : cfg(c), bands(c.frameSize, c.sampleFrequency)
    {
        engine.doaInit(&cfg);
        setWindow(1.0f);
        bands.updateBands({{lowHz, highHz, 1}});
    }
    void setWindow(float value)
    {
        std::vector<float> w(static_cast<size_t>(cfg.frameSize), value);
        engine.updateFFTWin(w.data(), cfg.frameSize);
    }
    AKUDoaQuantizeV3Private* d() const { return engine.privateData(); }
    int rows() const { return cfg.imageResolutionRow; }
    int cols() const { return cfg.imageResolutionCol; }
    std::vector<float> image(mat2d_fp32* frame)
    {
        mat2d_fp32* heat = create_mat2d_fp32(rows(), cols());
        engine.executeDOA(frame, bands, heat);
        std::vector<float> out;
        for (int r = 0; r < rows(); ++r)
            out.insert(out.end(), heat->data[r], heat->data[r] + cols());
        destroy_mat2d_fp32(heat);
        return out;
    }
    std::vector<uint8_t> tableBytes() const
    {
        std::vector<uint8_t> out;
        for (int b = 0; b < d()->steerQuant->rows; ++b)
            out.insert(out.end(), d()->steerQuant->data[b], d()->steerQuant->data[b] + d()->steerQuant->cols);
        const uint8_t* s = reinterpret_cast<const uint8_t*>(d()->steerScale->data);
        out.insert(out.end(), s, s + sizeof(float) * d()->steerScale->n);
        return out;
    }
};

int argmax(const std::vector<float>& v)
{
    int best = 0;
    for (int i = 1; i < static_cast<int>(v.size()); ++i)
        if (v[i] > v[best])
            best = i;
    return best;
}

// Local maxima (3 x 3 neighbourhood), strongest first.
std::vector<std::pair<float, int>> localMaxima(const std::vector<float>& v, int NR, int NC)
{
    std::vector<std::pair<float, int>> out;
    for (int r = 0; r < NR; ++r)
        for (int c = 0; c < NC; ++c) {
            const float x = v[r * NC + c];
            bool peak = x > 0.0f;
            for (int dr = -1; dr <= 1 && peak; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    const int rr = r + dr, cc = c + dc;
                    if ((dr || dc) && rr >= 0 && rr < NR && cc >= 0 && cc < NC && v[rr * NC + cc] > x)
                        peak = false;
                }
            if (peak)
                out.push_back({x, r * NC + c});
        }
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    return out;
}

// Every test gets a cache directory of its own (tests run as separate
// processes in parallel) under the one ctest provides.
class V3Test : public ::testing::Test {
protected:
    void SetUp() override
    {
        const char* env = std::getenv("AKUDOA_CACHE_DIR");
        base_ = env && *env ? env : "/tmp/akudoa-test-cache/";
        if (base_.back() != '/')
            base_ += '/';
        const ::testing::TestInfo* ti = ::testing::UnitTest::GetInstance()->current_test_info();
        std::string leaf = std::string(ti->test_suite_name()) + "." + ti->name() + "." + std::to_string(::getpid());
        for (char& ch : leaf)
            if (ch == '/')
                ch = '_'; // parameterised names hold slashes: keep one directory level
        dir_ = base_ + leaf + "/";
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

bool fileExists(const std::string& p)
{
    struct stat st;
    return ::stat(p.c_str(), &st) == 0;
}

long fileSize(const std::string& p)
{
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

ino_t fileInode(const std::string& p)
{
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

} // namespace

// ---------------------------------------------------------------------------
// Steering tables

TEST_F(V3Test, TableRowsSteerTheBinBelowThem)
{
    StCamCfg cfg = makeCfg(16, 6, 4);
    Imager im(cfg);
    const int M = 16, P = 24;
    ASSERT_EQ(im.d()->binNum, 513);
    ASSERT_EQ(im.d()->steerQuant->cols, 2 * M * P);
    // Row 1 has phase factor 0: every cosine is the row maximum (127) and
    // every sine 0. A table without the one-bin offset fails here.
    const int8_t* row1 = reinterpret_cast<const int8_t*>(im.d()->steerQuant->data[1]);
    for (int p = 0; p < P; ++p)
        for (int m = 0; m < M; ++m) {
            ASSERT_EQ(row1[p * 2 * M + m], 127) << p << " " << m;
            ASSERT_EQ(row1[p * 2 * M + M + m], 0) << p << " " << m;
        }
    // Row 0 holds cos(-d) and sin(-d); pixel 0 recomputed in double.
    const float k = static_cast<float>(2.0 * kPi * 96000 / (1024 * 340));
    const double D = 0.70710677 / std::tan(43 * kPi / 180.0);
    const double u = ((0 - 3.0) + 0.5) / 6.0, v = (((0 - 2.0) + 0.5) / 6.0) / 1.3;
    const double theta = std::atan2(std::sqrt(u * u + v * v), D), phi = std::atan2(v, u);
    const int8_t* row0 = reinterpret_cast<const int8_t*>(im.d()->steerQuant->data[0]);
    const double scale = im.d()->steerScale->data[0];
    for (int m = 0; m < M; ++m) {
        const double dm = cfg.micRadius[m] * k * std::cos(phi - cfg.micPhi[m]) * std::sin(theta);
        EXPECT_NEAR(row0[m], scale * std::cos(-dm), 1.01) << m;
        EXPECT_NEAR(row0[M + m], scale * std::sin(-dm), 1.01) << m;
    }
    EXPECT_FLOAT_EQ(im.engine.posDistance(0, 0, 0, 3, 4, 0), 5.0f);
}

TEST_F(V3Test, FrequencyAveragingHalvesTheRows)
{
    StCamCfg cfg = makeCfg(16, 4, 4);
    cfg.freqAverage = true;
    Imager im(cfg);
    EXPECT_EQ(im.d()->binNum, 257);
    EXPECT_EQ(im.d()->steerQuant->rows, 257);
    // Row 0 averages the factors -1 and 0: (cos(-d) + 1) / 2, sines halved.
    const int M = 16;
    const int8_t* row0 = reinterpret_cast<const int8_t*>(im.d()->steerQuant->data[0]);
    for (int m = 0; m < M; ++m)
        EXPECT_GT(row0[m], 63) << "the factor-0 half is missing";
}

TEST_F(V3Test, TablesBuiltTwiceAndReloadedAreByteIdentical)
{
    StCamCfg cfg = makeCfg(16, 8, 6);
    Imager a(cfg);
    const std::vector<uint8_t> first = a.tableBytes();

    // A fresh build in an empty cache directory gives the same bytes.
    const std::string other = dir_ + "second/";
    std::filesystem::create_directories(other);
    ::setenv("AKUDOA_CACHE_DIR", other.c_str(), 1);
    Imager b(cfg);
    EXPECT_EQ(first, b.tableBytes());

    // Loading the cached pair reproduces them, and the images agree.
    ::setenv("AKUDOA_CACHE_DIR", dir_.c_str(), 1);
    Imager c(cfg);
    EXPECT_TRUE(c.engine.loadQuantizeParam());
    EXPECT_EQ(first, c.tableBytes());
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 2, 4)}, 96000, 1024);
    EXPECT_EQ(a.image(frame), c.image(frame));
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, CacheFilesCarryTheParametersAndTheTableLayout)
{
    StCamCfg cfg = makeCfg(16, 8, 6);
    Imager a(cfg);
    const std::string table = dir_ + "QuantizeParam_v3_8_6_16_43_1.3_513.data";
    const std::string scale = dir_ + "QuantizeScaleParam_v3_8_6_16_43_1.3_513.data";
    ASSERT_TRUE(fileExists(table));
    ASSERT_TRUE(fileExists(scale));
    EXPECT_EQ(fileSize(table), 513L * 2 * 16 * 48);
    EXPECT_EQ(fileSize(scale), 513L * 4);
    std::ifstream in(table, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<uint8_t> expected = a.tableBytes();
    expected.resize(expected.size() - 513 * 4);
    EXPECT_EQ(bytes, expected);

    // A changed thetaXY factor is a different table: new name, new build.
    StCamCfg cfg2 = cfg;
    cfg2.imageThetaXYFactor = 1.25f;
    Imager b(cfg2);
    EXPECT_TRUE(fileExists(dir_ + "QuantizeParam_v3_8_6_16_43_1.25_513.data"));
    EXPECT_NE(a.tableBytes(), b.tableBytes());

    // Focus distance on: the "_fodis_" pair, named after the distance.
    StCamCfg cfg3 = cfg;
    cfg3.focusDistanceEn = true;
    cfg3.focusDistance = 1.5f;
    Imager c(cfg3);
    EXPECT_TRUE(fileExists(dir_ + "QuantizeParam_v3_fodis_1.5_8_6_16_43_1.3_513.data"));
    EXPECT_TRUE(fileExists(dir_ + "QuantizeScaleParam_v3_fodis_1.5_8_6_16_43_1.3_513.data"));
    c.cfg.focusDistance = 2.5f;
    EXPECT_FALSE(c.engine.loadQuantizeParam()) << "no 2.5 m pair yet";
    const std::vector<uint8_t> at15 = c.tableBytes();
    EXPECT_TRUE(c.engine.focusDisUpdate()); // built and saved
    EXPECT_TRUE(fileExists(dir_ + "QuantizeParam_v3_fodis_2.5_8_6_16_43_1.3_513.data"));
    EXPECT_NE(at15, c.tableBytes());
}

TEST_F(V3Test, FocusUpdateWithACachedPairWritesNothing)
{
    StCamCfg cfg = makeCfg(16, 4, 4);
    Imager a(cfg);
    const std::string table = dir_ + "QuantizeParam_v3_4_4_16_43_1.3_513.data";
    const std::string scale = dir_ + "QuantizeScaleParam_v3_4_4_16_43_1.3_513.data";
    const ino_t t0 = fileInode(table), s0 = fileInode(scale);
    ASSERT_NE(t0, 0u);
    const std::vector<uint8_t> before = a.tableBytes();
    EXPECT_TRUE(a.engine.focusDisUpdate());
    EXPECT_EQ(t0, fileInode(table)) << "table file rewritten";
    EXPECT_EQ(s0, fileInode(scale)) << "scale file rewritten";
    EXPECT_EQ(before, a.tableBytes());
    size_t entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir_)) {
        (void)e;
        ++entries;
    }
    EXPECT_EQ(entries, 2u) << "temporary files left behind";
}

TEST_F(V3Test, FocusChangeLoadsThePairOfTheNewDistance)
{
    StCamCfg cfg = makeCfg(16, 4, 4);
    cfg.focusDistanceEn = true;
    cfg.focusDistance = 1.5f;
    std::vector<uint8_t> at15;
    {
        Imager a(cfg);
        at15 = a.tableBytes();
    }
    cfg.focusDistance = 1.0f;
    Imager b(cfg);
    ASSERT_NE(at15, b.tableBytes());
    const std::string table15 = dir_ + "QuantizeParam_v3_fodis_1.5_4_4_16_43_1.3_513.data";
    const ino_t before = fileInode(table15);
    b.cfg.focusDistance = 1.5f;
    EXPECT_TRUE(b.engine.focusDisUpdate()); // loaded, not rebuilt
    EXPECT_EQ(at15, b.tableBytes());
    EXPECT_EQ(before, fileInode(table15));
    // Focus off again: the far-field pair of the same grid.
    b.cfg.focusDistanceEn = false;
    b.engine.focusDisUpdate();
    EXPECT_TRUE(fileExists(dir_ + "QuantizeParam_v3_4_4_16_43_1.3_513.data"));
    EXPECT_NE(at15, b.tableBytes());
}

TEST_F(V3Test, TruncatedOrMissingCacheFilesAreRebuilt)
{
    StCamCfg cfg = makeCfg(16, 4, 4);
    const std::string table = dir_ + "QuantizeParam_v3_4_4_16_43_1.3_513.data";
    const std::string scale = dir_ + "QuantizeScaleParam_v3_4_4_16_43_1.3_513.data";
    std::vector<uint8_t> good;
    {
        Imager a(cfg);
        good = a.tableBytes();
    }
    const long tableSize = fileSize(table);
    ASSERT_EQ(::truncate(table.c_str(), tableSize / 2), 0);
    {
        Imager b(cfg);
        EXPECT_EQ(good, b.tableBytes());
        EXPECT_EQ(fileSize(table), tableSize);
    }
    ASSERT_EQ(::truncate(scale.c_str(), 10), 0);
    {
        Imager b(cfg);
        EXPECT_EQ(good, b.tableBytes());
        EXPECT_EQ(fileSize(scale), 513L * 4);
    }
    ASSERT_EQ(::unlink(scale.c_str()), 0);
    {
        // Only the scale file missing: the table file alone is not used.
        Imager b(cfg);
        EXPECT_EQ(good, b.tableBytes());
        EXPECT_TRUE(fileExists(scale));
    }
    {
        // An empty table file.
        std::ofstream(table, std::ios::trunc);
        Imager b(cfg);
        EXPECT_EQ(good, b.tableBytes());
    }
}

TEST_F(V3Test, UnwritableCacheStillImages)
{
    const std::string missing = dir_ + "does-not-exist/";
    ::setenv("AKUDOA_CACHE_DIR", missing.c_str(), 1);
    StCamCfg cfg = makeCfg(16, 8, 6);
    Imager im(cfg);
    EXPECT_FALSE(im.engine.saveQuantizeParam());
    EXPECT_FALSE(im.engine.loadQuantizeParam());
    EXPECT_FALSE(fileExists(missing));
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 2, 4)}, 96000, 1024);
    const std::vector<float> img = im.image(frame);
    int r, c;
    akugrid_rotated(1, 8, 6, 2, 4, r, c);
    const int best = argmax(img);
    EXPECT_LE(std::abs(best / 6 - r), 1);
    EXPECT_LE(std::abs(best % 6 - c), 1);
    destroy_mat2d_fp32(frame);

    int total = -1, freeMB = -1;
    EXPECT_TRUE(storage_request("/", &total, &freeMB));
    EXPECT_GT(total, 0);
    EXPECT_GE(total, freeMB);
    EXPECT_FALSE(storage_request(missing.c_str(), &total, nullptr));
}

// ---------------------------------------------------------------------------
// Per-frame imaging

TEST_F(V3Test, EmptyBandListAndZeroWindowGiveZeroImages)
{
    StCamCfg cfg = makeCfg(16, 4, 4);
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 1, 1)}, 96000, 1024);
    const std::vector<float> zero(16, 0.0f);

    im.bands.updateBands({});
    EXPECT_EQ(im.image(frame), zero);
    im.bands.updateBands({{20000, 40000, 1}});

    // A window of the wrong length is ignored: the zero window stays.
    im.setWindow(0.0f);
    std::vector<float> ones(1000, 1.0f);
    im.engine.updateFFTWin(ones.data(), 1000);
    EXPECT_EQ(im.image(frame), zero);
    im.setWindow(1.0f);
    const std::vector<float> img = im.image(frame);
    EXPECT_GT(img[argmax(img)], 0.0f);
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, SingleMicrophoneHasNoCrossTermsWithoutSelfSpectrum)
{
    StCamCfg cfg = makeCfg(16, 4, 4);
    Imager im(cfg);
    AkuSimArray one = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(one, {akugrid_far_source(cfg, 1, 1)}, 96000, 1024);
    for (int m = 1; m < 16; ++m)
        std::fill(frame->data[m], frame->data[m] + 1024, 0.0f);
    im.engine.setSpectrumSelf(true);
    const std::vector<float> with = im.image(frame);
    im.engine.setSpectrumSelf(false);
    const std::vector<float> without = im.image(frame);
    for (size_t p = 0; p < with.size(); ++p) {
        EXPECT_GT(with[p], 0.0f);
        // |a_m X_m|^2 - |X_m|^2 is only int8 rounding, and it comes out
        // below zero here, so flooring leaves exactly 0.
        EXPECT_EQ(without[p], 0.0f) << p;
    }
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, OrientationOfATwoByTwoImage)
{
    StCamCfg cfg = makeCfg(16, 2, 2);
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 0, 1)}, 96000, 1024);
    im.cfg.rotateMode = 0;
    const std::vector<float> h = im.image(frame); // the unrotated sums
    ASSERT_NE(h[0], h[3]);
    im.cfg.rotateMode = 1;
    EXPECT_EQ(im.image(frame), (std::vector<float>{h[3], h[2], h[1], h[0]}));
    im.cfg.rotateMode = 2;
    EXPECT_EQ(im.image(frame), (std::vector<float>{h[1], h[0], h[3], h[2]}));
    im.cfg.rotateMode = 3;
    EXPECT_EQ(im.image(frame), (std::vector<float>{h[2], h[3], h[0], h[1]}));
    // Unknown orientation: the caller's map is left as it was.
    im.cfg.rotateMode = 7;
    mat2d_fp32* heat = create_mat2d_fp32(2, 2);
    heat->data[0][0] = heat->data[0][1] = heat->data[1][0] = heat->data[1][1] = -5.0f;
    im.engine.executeDOA(frame, im.bands, heat);
    EXPECT_EQ(heat->data[1][1], -5.0f);
    destroy_mat2d_fp32(heat);
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, PowerSpectrumIsReversed)
{
    StCamCfg cfg = makeCfg(16, 4, 4, 64, 96000);
    Imager im(cfg);
    mat2d_fp32* frame = create_mat2d_fp32(16, 64);
    for (int n = 0; n < 64; ++n)
        frame->data[3][n] = static_cast<float>(std::cos(2 * kPi * 5 * n / 64.0) + 0.25 * n / 64.0);
    std::vector<float> win(64);
    for (int n = 0; n < 64; ++n)
        win[n] = static_cast<float>(0.5 - 0.5 * std::cos(2 * kPi * n / 63.0));
    im.engine.updateFFTWin(win.data(), 64);
    im.image(frame);
    vec_fp32* spec = create_vec_fp32(3);
    im.engine.powerSpec(spec, 3);
    for (int i = 0; i < 3; ++i) {
        double re = 0, imv = 0;
        for (int n = 0; n < 64; ++n) {
            const double x = static_cast<double>(frame->data[3][n]) * win[n];
            re += x * std::cos(2 * kPi * i * n / 64.0);
            imv -= x * std::sin(2 * kPi * i * n / 64.0);
        }
        EXPECT_NEAR(spec->data[2 - i], re * re + imv * imv, 1e-4 * (re * re + imv * imv) + 1e-6) << i;
    }
    // A channel outside the array leaves the vector alone.
    spec->data[0] = -1.0f;
    im.engine.powerSpec(spec, -1);
    im.engine.powerSpec(spec, 16);
    EXPECT_EQ(spec->data[0], -1.0f);
    destroy_vec_fp32(spec);
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, AveragingVisitsEveryOtherBandEntry)
{
    StCamCfg cfg = makeCfg(16, 4, 4);
    cfg.freqAverage = true;
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 1, 2)}, 96000, 1024);
    // Bins 300 and 303 (entries 0 and 1): only entry 0 counts, as row 150.
    const int f300 = 300 * 96000 / 1024, f303 = 303 * 96000 / 1024 + 1;
    im.bands.updateBands({{f300, f300, 1}, {f303, f303, 1}});
    ASSERT_EQ(im.bands.data().size(), 2u);
    ASSERT_EQ(im.bands.data()[1].bin, 303);
    const std::vector<float> both = im.image(frame);
    im.bands.updateBands({{f300, f300, 1}});
    EXPECT_EQ(both, im.image(frame));
    im.bands.updateBands({{f303, f303, 1}});
    EXPECT_NE(both, im.image(frame));
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, RadiusModeImagesOnlyTheCentralSquare)
{
    StCamCfg cfg = makeCfg(16, 8, 8);
    cfg.rotateMode = 0;
    Imager im(cfg);
    im.engine.setSpectrumSelf(true);
    im.engine.setFocusRadiusMode(true);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 4, 4)}, 96000, 1024);
    const std::vector<float> img = im.image(frame);
    // Rows 4 - 2 .. 4 + 2 (exclusive), columns 2 .. 6 (exclusive).
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 8; ++c) {
            const bool inside = r >= 2 && r < 6 && c >= 2 && c < 6;
            if (inside)
                EXPECT_GT(img[r * 8 + c], 0.0f) << r << " " << c;
            else
                EXPECT_EQ(img[r * 8 + c], 0.0f) << r << " " << c;
        }
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, TargetPowerReadsThePixelOfEachOrientation)
{
    StCamCfg cfg = makeCfg(16, 6, 4);
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 1, 3)}, 96000, 1024);
    for (int mode = 0; mode < 4; ++mode) {
        im.cfg.rotateMode = mode;
        const std::vector<float> img = im.image(frame);
        for (int r = 0; r < 6; ++r)
            for (int c = 0; c < 4; ++c) {
                fpoint2d t{0.0f, r, c};
                EXPECT_NEAR(im.engine.getPaWithTarget(t, im.bands), img[r * 4 + c], 1e-5f * img[argmax(img)])
                    << mode << " " << r << " " << c;
            }
    }
    AKUDoaFreqBands empty(1024, 96000);
    EXPECT_EQ(im.engine.getPaWithTarget(fpoint2d{0.0f, 0, 0}, empty), 0.0f);
    int lo = 0, hi = 0;
    float power = 0.0f;
    im.engine.findTargetFreqRange(fpoint2d{0.0f, 0, 0}, empty, lo, hi, power);
    EXPECT_EQ(lo, -1);
    EXPECT_EQ(hi, -1);
    destroy_mat2d_fp32(frame);
}

// Target frequency range on hand-made per-bin powers: a peak of `value` at
// the target pixel in each listed bin row, nothing elsewhere.
struct RangeFixture {
    Imager im;
    explicit RangeFixture(const StCamCfg& c) : im(c) { im.bands.updateBands({{0, 48000, 1}}); }
    void setPeaks(const std::vector<int>& bins, int r, int c, float value)
    {
        mat2d_fp32* bp = im.d()->beamPower;
        for (int b = 0; b < bp->rows; ++b)
            std::fill(bp->data[b], bp->data[b] + bp->cols, 0.0f);
        for (int b : bins)
            bp->data[b][r * im.cols() + c] = value;
    }
};

TEST_F(V3Test, TargetRangeIsTheLargestOfThreeSeparatedGroups)
{
    RangeFixture f(makeCfg(16, 12, 10));
    // Groups {100}, {150..165}, {200..203}: gaps of 50 and 35 bins, the
    // middle one largest, so the range is exactly the middle group.
    std::vector<int> bins = {100};
    for (int b = 150; b <= 165; ++b)
        bins.push_back(b);
    for (int b = 200; b <= 203; ++b)
        bins.push_back(b);
    f.setPeaks(bins, 5, 4, 0.5f);
    int lo = 0, hi = 0;
    float power = 0.0f;
    f.im.engine.findTargetFreqRange(fpoint2d{0.0f, 6, 5}, f.im.bands, lo, hi, power);
    EXPECT_EQ(lo, 150 * 96000 / 1024);
    EXPECT_EQ(hi, 165 * 96000 / 1024);
    EXPECT_FLOAT_EQ(power, std::sqrt(16 * 0.5f / (15.0f * 16.0f)) / 1024.0f);

    // A peak more than three pixels away, or below 0.01, is not the target's.
    f.setPeaks(bins, 5, 8, 0.5f);
    power = 0.0f;
    f.im.engine.findTargetFreqRange(fpoint2d{0.0f, 6, 4}, f.im.bands, lo, hi, power);
    EXPECT_EQ(lo, -1);
    EXPECT_EQ(hi, -1);
    EXPECT_EQ(power, 0.0f);
    f.setPeaks(bins, 5, 4, 0.009f);
    f.im.engine.findTargetFreqRange(fpoint2d{0.0f, 5, 4}, f.im.bands, lo, hi, power);
    EXPECT_EQ(lo, -1);
}

TEST_F(V3Test, TargetRangeAtTheImageBorderAndWithALargeLowGroup)
{
    RangeFixture f(makeCfg(16, 12, 10));
    // Low group largest: {60..79}, then {120}, {180}: gap01 = 41 > 20, so the
    // range is the low group alone. The target sits in the corner, the
    // search window reaches past the image.
    std::vector<int> bins;
    for (int b = 60; b <= 79; ++b)
        bins.push_back(b);
    bins.push_back(120);
    bins.push_back(180);
    f.setPeaks(bins, 1, 1, 2.0f);
    int lo = 0, hi = 0;
    float power = 0.0f;
    f.im.engine.findTargetFreqRange(fpoint2d{0.0f, 0, 0}, f.im.bands, lo, hi, power);
    EXPECT_EQ(lo, 60 * 96000 / 1024);
    EXPECT_EQ(hi, 79 * 96000 / 1024);
    EXPECT_FLOAT_EQ(power, std::sqrt(20 * 2.0f / (15.0f * 16.0f)) / 1024.0f);
}

TEST_F(V3Test, ImageDoesNotDependOnTheThreadCount)
{
    for (int program : {3, 53}) {
        StCamCfg cfg = makeCfg(16, 8, 8);
        cfg.doaVersionSelect = program;
        Imager im(cfg);
        const AkuSimArray arr = akusim_array_from_cfg(cfg);
        mat2d_fp32* frame =
            akusim_frame(arr, {akugrid_far_source(cfg, 2, 5, 3), akugrid_far_source(cfg, 6, 1, 4)}, 96000, 1024);
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

TEST_F(V3Test, EveryBeamSumPathGivesTheSameImage)
{
    for (int mics : {8, 36, 48}) {
        StCamCfg cfg = makeCfg(mics, 6, 6);
        Imager im(cfg);
        const AkuSimArray arr = akusim_array_from_cfg(cfg);
        mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 1, 4)}, 96000, 1024);
        std::vector<float> ref;
        for (const AKUDoaDot8Path& path : akudoa_dot8_paths()) {
            im.d()->dot8 = path;
            const std::vector<float> img = im.image(frame);
            if (ref.empty())
                ref = img;
            EXPECT_EQ(0, std::memcmp(ref.data(), img.data(), sizeof(float) * ref.size())) << path.name << mics;
        }
        destroy_mat2d_fp32(frame);
    }
}

// ---------------------------------------------------------------------------
// Physics: simulated sources appear where the grid says they are.

struct FarCase {
    int mics;
    bool average;
};

void PrintTo(const FarCase& c, std::ostream* os)
{
    *os << c.mics << " mics" << (c.average ? ", averaged" : "");
}

class V3FarField : public V3Test, public ::testing::WithParamInterface<FarCase> {};

TEST_P(V3FarField, PlaneWaveAppearsAtItsPixelInEveryOrientation)
{
    const FarCase fc = GetParam();
    StCamCfg cfg = makeCfg(fc.mics, 16, 12);
    cfg.freqAverage = fc.average;
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    for (const auto& px : {std::pair<int, int>{4, 8}, std::pair<int, int>{11, 2}}) {
        mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, px.first, px.second)}, 96000, 1024);
        for (int mode = 0; mode < 4; ++mode) {
            im.cfg.rotateMode = mode;
            const std::vector<float> img = im.image(frame);
            int r, c;
            akugrid_rotated(mode, 16, 12, px.first, px.second, r, c);
            const int best = argmax(img);
            EXPECT_LE(std::abs(best / 12 - r), 1) << "mode " << mode << " pixel " << px.first << "," << px.second;
            EXPECT_LE(std::abs(best % 12 - c), 1) << "mode " << mode << " pixel " << px.first << "," << px.second;
        }
        destroy_mat2d_fp32(frame);
    }
}

INSTANTIATE_TEST_SUITE_P(Arrays, V3FarField,
                         ::testing::Values(FarCase{8, false}, FarCase{16, false}, FarCase{16, true}, FarCase{36, false},
                                           FarCase{48, false}, FarCase{64, false},
                                           FarCase{64, true}, FarCase{128, false}),
                         [](const ::testing::TestParamInfo<FarCase>& info) {
                             return std::to_string(info.param.mics) + (info.param.average ? "Averaged" : "");
                         });

TEST_F(V3Test, PointSourceAtTheFocusDistanceAppearsAtItsPixel)
{
    StCamCfg cfg = makeCfg(64, 16, 12);
    cfg.focusDistanceEn = true;
    cfg.focusDistance = 1.0f;
    cfg.rotateMode = 0;
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    for (const auto& px : {std::pair<int, int>{3, 9}, std::pair<int, int>{12, 4}}) {
        mat2d_fp32* frame = akusim_frame(arr, {akugrid_near_source(cfg, px.first, px.second)}, 96000, 1024);
        const std::vector<float> img = im.image(frame);
        const int best = argmax(img);
        EXPECT_LE(std::abs(best / 12 - px.first), 1) << px.first << "," << px.second;
        EXPECT_LE(std::abs(best % 12 - px.second), 1) << px.first << "," << px.second;
        destroy_mat2d_fp32(frame);
    }
}

TEST_F(V3Test, TwoEqualSourcesGiveTwoSimilarMaxima)
{
    StCamCfg cfg = makeCfg(64, 16, 12);
    cfg.rotateMode = 0;
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 4, 3, 11), akugrid_far_source(cfg, 10, 10, 12)}, 96000, 1024);
    const std::vector<float> img = im.image(frame);
    const auto peaks = localMaxima(img, 16, 12);
    ASSERT_GE(peaks.size(), 2u);
    bool near1 = false, near2 = false;
    for (int i = 0; i < 2; ++i) {
        const int r = peaks[i].second / 12, c = peaks[i].second % 12;
        near1 = near1 || (std::abs(r - 4) <= 1 && std::abs(c - 3) <= 1);
        near2 = near2 || (std::abs(r - 10) <= 1 && std::abs(c - 10) <= 1);
    }
    EXPECT_TRUE(near1 && near2);
    EXPECT_GT(peaks[1].first, 0.75f * peaks[0].first);
    destroy_mat2d_fp32(frame);
}

TEST_F(V3Test, RegressionProgramKeepsTheSourceAtItsPixel)
{
    StCamCfg cfg = makeCfg(64, 16, 12);
    cfg.doaVersionSelect = 53;
    cfg.rotateMode = 0;
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 5, 7)}, 96000, 1024);
    const std::vector<float> img = im.image(frame);
    const int best = argmax(img);
    EXPECT_LE(std::abs(best / 12 - 5), 1);
    EXPECT_LE(std::abs(best % 12 - 7), 1);
    destroy_mat2d_fp32(frame);
}

// Small end-to-end case, also run under AArch64 emulation: 16 microphones,
// a 12 x 10 image and 256-sample frames (54 bins in the band).
class EndToEndSmall : public V3Test {};

TEST_F(EndToEndSmall, PlaneWaveAppearsAtItsPixel)
{
    StCamCfg cfg = makeCfg(16, 12, 10, 256, 96000);
    Imager im(cfg);
    const AkuSimArray arr = akusim_array_from_cfg(cfg);
    mat2d_fp32* frame = akusim_frame(arr, {akugrid_far_source(cfg, 3, 7)}, 96000, 256);
    for (int mode : {0, 1}) {
        im.cfg.rotateMode = mode;
        const std::vector<float> img = im.image(frame);
        int r, c;
        akugrid_rotated(mode, 12, 10, 3, 7, r, c);
        const int best = argmax(img);
        EXPECT_LE(std::abs(best / 10 - r), 1) << mode;
        EXPECT_LE(std::abs(best % 10 - c), 1) << mode;
    }
    destroy_mat2d_fp32(frame);
}
