// Planar engine V3: steering tables and their cache, per-frame edge cases,
// the target range, and simulated sources imaged at their pixels.
#include <gtest/gtest.h>
#include <omp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>

#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev3_p.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "kernel_fixture.h"
#include "support/akudoagrid.h"

using V3 = AkuImager<AKUDoaQuantizeV3>;
class V3Test : public kerneltest::CacheTest {};
class EndToEndSmall : public kerneltest::CacheTest {};

namespace {

std::vector<uint8_t> tableBytes(const V3& v) { return akugrid_table_bytes(*v.engine.privateData()); }
std::vector<uint8_t> fileBytes(const std::string& p) { return akugrid_file_bytes(p); }

ino_t inode(const std::string& p)
{
    struct stat st;
    return ::stat(p.c_str(), &st) == 0 ? st.st_ino : 0;
}

} // namespace

// Row b of the table steers bin b - 1 (row 1 has phase 0: every cosine the
// row maximum, every sine 0; averaged, row 0 the mean of factors -1 and 0).
// The cache pair holds exactly the rows and scales under names carrying the
// grid and focus; a cached pair is loaded without a write; a short, empty or
// missing file is rebuilt through a temporary name (a new inode).
TEST_F(V3Test, TablesAndTheirCacheFiles)
{
    const StCamCfg cfg = akugrid_camera(16, 8, 6);
    StCamCfg avg = cfg;
    avg.freqAverage = true;
    V3 a(cfg), av(avg);
    const uint8_t* row1 = a.engine.privateData()->steerQuant->data[1];
    ASSERT_EQ(a.engine.privateData()->steerQuant->cols, 2 * 16 * 48);
    for (int n = 0; n < 2 * 16 * 48; ++n)
        ASSERT_EQ(static_cast<int8_t>(row1[n]), (n / 16) % 2 ? 0 : 127) << n;
    ASSERT_EQ(av.engine.privateData()->binNum, 257);
    for (int m = 0; m < 16; ++m)
        EXPECT_GT(static_cast<int8_t>(av.engine.privateData()->steerQuant->data[0][m]), 63) << m;

    const std::string table = cache_ + "QuantizeParam_v3_8_6_16_43_1.3_513.data", scale = cache_ + "QuantizeScaleParam_v3_8_6_16_43_1.3_513.data";
    std::vector<uint8_t> disk = fileBytes(table), s = fileBytes(scale);
    disk.insert(disk.end(), s.begin(), s.end());
    const std::vector<uint8_t> good = tableBytes(a);
    EXPECT_EQ(disk, good);
    const ino_t before = inode(table);
    EXPECT_TRUE(a.engine.focusDisUpdate());
    EXPECT_EQ(inode(table), before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(cache_), {}), 6) << "a temporary file left"; // two pairs, each with its sidecar
    for (auto [f, size] : {std::pair<std::string, long>{table, 1000}, {table, 0}, {scale, 10}, {scale, -1}}) {
        const ino_t old = inode(f);
        ASSERT_EQ(size < 0 ? ::unlink(f.c_str()) : ::truncate(f.c_str(), size), 0);
        V3 b(cfg);
        EXPECT_EQ(tableBytes(b), good) << f << " " << size;
        EXPECT_EQ(fileBytes(f).size(), f == table ? 513u * 2 * 16 * 48 : 513u * 4) << f << " " << size;
        EXPECT_TRUE(size < 0 || inode(f) != old) << "rewritten in place: " << f; // a removed file's inode may come back
    }

    StCamCfg fc = cfg;
    fc.focusDistanceEn = true, fc.focusDistance = 1.5f;
    V3 f(fc);
    const std::vector<uint8_t> near15 = tableBytes(f);
    EXPECT_EQ(fileBytes(cache_ + "QuantizeParam_v3_fodis_1.5_8_6_16_43_1.3_513.data").size(), 513u * 2 * 16 * 48);
    EXPECT_NE(near15, good);
    f.cfg.focusDistance = 2.5f;
    EXPECT_TRUE(!f.engine.loadQuantizeParam() && f.engine.focusDisUpdate());
    EXPECT_EQ(fileBytes(cache_ + "QuantizeScaleParam_v3_fodis_2.5_8_6_16_43_1.3_513.data").size(), 513u * 4);
    EXPECT_NE(tableBytes(f), near15);
    f.cfg.focusDistance = 1.5f;
    EXPECT_TRUE(f.engine.focusDisUpdate());
    EXPECT_EQ(tableBytes(f), near15);

    useCache(cache_ + "missing/"); // nothing saved, still built
    V3 u(cfg);
    EXPECT_FALSE(u.engine.saveQuantizeParam());
    EXPECT_EQ(tableBytes(u), good);
}

// An unknown orientation is ignored; an averaged engine uses every other
// band entry (bins 300 and 303: only the first counts). The flooring of a
// lone microphone's image runs in the extended view's test (the same code).
TEST_F(V3Test, FrameEdgeCases)
{
    StCamCfg cfg = akugrid_camera(16, 4, 4);
    V3 im(cfg);
    AkuMat frame = akugrid_frame(cfg, {akugrid_far_source(cfg, 1, 1)});
    im.cfg.rotateMode = 7; // unknown: the map is left alone
    EXPECT_EQ(im.image(frame.get(), -5.0f), std::vector<float>(16, -5.0f));

    cfg.freqAverage = true;
    V3 av(cfg);
    const int f300 = 300 * 96000 / 1024, f303 = 303 * 96000 / 1024 + 1;
    av.bands.updateBands({{f300, f300, 1}, {f303, f303, 1}});
    const std::vector<float> both = av.image(frame.get());
    av.bands.updateBands({{f300, f300, 1}});
    EXPECT_EQ(both, av.image(frame.get()));
    av.bands.updateBands({{f303, f303, 1}});
    EXPECT_NE(both, av.image(frame.get()));
}

// Each pixel's power is |sum of int8 products|^2 after dequantization, less
// the channels' own power (a plain double-precision reference); pixels past
// the last whole group of four (28, 29 of 30) keep zero.
TEST_F(V3Test, BeamPowerIsTheDequantizedSquaredBeamLessTheSelfTerms)
{
    StCamCfg cfg = akugrid_camera(16, 6, 5);
    V3 im(cfg);
    AkuMat frame = akugrid_frame(cfg, {akugrid_far_source(cfg, 2, 3)});
    im.image(frame.get());
    const AKUDoaQuantizeV3Private* d = im.engine.privateData();
    const int m2 = 2 * d->micNum, P = 30;
    for (int b : {220, 300, 400}) {
        const int8_t* a = reinterpret_cast<const int8_t*>(d->fftQuant->data[b]);
        const double self = std::inner_product(d->fftData->data[b], d->fftData->data[b] + m2, d->fftData->data[b], 0.0);
        for (int p = 0; p < P; ++p) {
            const int8_t* st = reinterpret_cast<const int8_t*>(d->steerQuant->data[b]) + static_cast<size_t>(p) * m2;
            double re = 0.0, imag = 0.0;
            for (int n = 0; n < m2; ++n)
                re += st[n] * a[n], imag += st[n] * a[m2 + n];
            const double f = d->dequantFactor->data[b], want = p < 28 ? re * f * re * f + imag * f * imag * f - self : 0.0;
            EXPECT_NEAR(d->beamPower->data[b][p], want, 1e-5 * self) << "bin " << b << " pixel " << p;
        }
    }
}

// Per-bin peaks near the target form groups {100}, {150..165}, {200..203}
// (the middle one largest and far from the others) or {60..79}, {120}, {180}
// (the low one): the range is that group, the power its band sum. A peak
// more than three pixels away, or below 0.01, is nothing. Both planar
// engines share the search.
TEST_F(V3Test, TargetRangeIsTheLargestSeparatedGroup)
{
    const StCamCfg cfg = akugrid_camera(16, 12, 10);
    AkuImager<AKUDoaQuantizeV3> v3(cfg, 0, 48000);
    AkuImager<AKUDoaQuantizeV4> v4(cfg, 0, 48000);
    const auto span = [](int a, int b, std::vector<int> more) {
        for (int i = a; i <= b; ++i)
            more.push_back(i);
        return more;
    };
    struct Case { std::vector<int> bins; int first, last, peak, targetR, targetC; float value; };
    const std::vector<int> mid = span(150, 165, {100, 200, 201, 202, 203});
    for (const Case& c : {Case{mid, 150, 165, 54, 6, 5, 0.5f}, Case{span(60, 79, {120, 180}), 60, 79, 11, 0, 0, 2.0f},
                          Case{mid, -1, -1, 58, 6, 4, 0.5f}, Case{mid, -1, -1, 54, 5, 4, 0.009f}})
        for (IAKUDoaQuantize* e : std::initializer_list<IAKUDoaQuantize*>{&v3.engine, &v4.engine}) {
            mat2d_fp32* maps = e == &v3.engine ? v3.engine.privateData()->beamPower : v4.engine.privateData()->binMaps;
            for (int b = 0; b < maps->rows; ++b)
                std::fill(maps->data[b], maps->data[b] + maps->cols, 0.0f);
            for (int b : c.bins)
                maps->data[b][c.peak] = c.value;
            int lo = 0, hi = 0;
            float power = 0.0f;
            e->findTargetFreqRange(fpoint2d{0.0f, c.targetR, c.targetC}, v3.bands, lo, hi, power);
            EXPECT_EQ(lo, c.first < 0 ? -1 : c.first * 96000 / 1024) << c.first << " " << c.value;
            EXPECT_EQ(hi, c.last < 0 ? -1 : c.last * 96000 / 1024) << c.first << " " << c.value;
            EXPECT_FLOAT_EQ(power, c.first < 0 ? 0.0f : std::sqrt((c.last - c.first + 1) * c.value / 240.0f) / 1024.0f);
        }
}

namespace {

// Plane waves (or points at the focus distance) at unturned pixels: the
// unturned image (rotate_mode 0) peaks there; for the first pixel, every
// other orientation is its
// exact turn; the target power of a cell is the map's value (averaged, it
// reads table rows by full-resolution bin; regression renders); every int8
// path on one or three threads gives the same image bit for bit.
void expectSourcesAtTheirPixels(const StCamCfg& cfg, const std::vector<std::pair<int, int>>& pixels)
{
    V3 im(cfg);
    const int R = cfg.imageResolutionRow, C = cfg.imageResolutionCol, threads = omp_get_max_threads();
    for (auto [k, c] : pixels) {
        SCOPED_TRACE(testing::Message() << cfg.channelNum << " mics, average " << cfg.freqAverage << ", program "
                                        << cfg.doaVersionSelect << ", focus " << cfg.focusDistanceEn << ", pixel " << k << "," << c);
        AkuMat frame = akugrid_frame(cfg, {cfg.focusDistanceEn ? akugrid_near_source(cfg, k, c) : akugrid_far_source(cfg, k, c)});
        im.cfg.rotateMode = 0;
        const std::vector<float> h = im.image(frame.get());
        const int best = akugrid_argmax(h);
        EXPECT_LE(std::abs(best / C - k), 1);
        EXPECT_LE(std::abs(best % C - c), 1);
        for (int mode = 0; mode < 4 && k == pixels[0].first; ++mode) {
            im.cfg.rotateMode = mode;
            const std::vector<float> img = im.image(frame.get());
            for (int i = 0, r, col; i < R * C; ++i) {
                akugrid_rotated(mode, R, C, i / C, i % C, r, col);
                ASSERT_EQ(img[r * C + col], h[i]) << "mode " << mode;
                if (i % 5 == 0 && !cfg.freqAverage && cfg.doaVersionSelect == 3) {
                    ASSERT_NEAR(im.engine.getPaWithTarget(fpoint2d{0.0f, r, col}, im.bands), h[i], 1e-5f * h[best]) << "mode " << mode;
                }
            }
        }
        im.cfg.rotateMode = 0;
        for (const AKUDoaDot8Path& path : akudoa_dot8_paths())
            for (int n = 1; n <= 3 && k == pixels[0].first; n += 2) {
                im.engine.privateData()->dot8 = path;
                omp_set_num_threads(n);
                EXPECT_EQ(im.image(frame.get()), h) << path.name << " " << n << " threads";
            }
        omp_set_num_threads(threads);
    }
}

} // namespace

TEST_F(V3Test, SourcesAppearAtTheirPixels)
{
    struct Case { int mics, program; bool average, focus; };
    for (const Case& c : {Case{8, 3, false, false}, Case{16, 3, true, false}, Case{36, 3, false, false}, Case{48, 3, false, false},
                          Case{64, 3, true, false}, Case{128, 3, false, false}, Case{64, 53, false, false}, Case{64, 3, false, true}}) {
        StCamCfg cfg = akugrid_camera(c.mics, 16, 12, 1024, c.program);
        cfg.freqAverage = c.average, cfg.focusDistanceEn = c.focus;
        expectSourcesAtTheirPixels(cfg, {{4, 8}, {11, 2}, {3, 9}});
    }
}

// Small case, also run under AArch64 emulation: 16 microphones, a 12 x 10
// image and 256-sample frames (54 bins in the band).
TEST_F(EndToEndSmall, PlaneWaveAppearsAtItsPixel) { expectSourcesAtTheirPixels(akugrid_camera(16, 12, 10, 256), {{3, 7}}); }
