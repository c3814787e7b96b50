// The kernel's picked-up audio path: the three-buffer frame ring, the target
// correction, the pickup window, and listening where the heat map shows a
// source (the imaging engine's heat map against the pickup's output).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "AKUDoa/akudoakernel.h"
#include "AKUDoa/akudoakernel_p.h"
#include "AKUDoa/akudoapickupv4.h"
#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/base/akufftwindow.h"
#include "kernel_fixture.h"
#include "support/akudoasim.h"

struct AKUDoaPickupV4Access {
    static AKUDoaPickupV4Private* d(AKUDoaPickupV4& p) { return p.d; }
};

namespace {

using kerneltest::KernelTest;

struct Mat {
    mat2d_fp32* m;
    Mat(int r, int c) : m(create_mat2d_fp32(r, c)) {}
    explicit Mat(mat2d_fp32* p) : m(p) {}
    ~Mat() { destroy_mat2d_fp32(m); }
};

struct Vec {
    vec_fp32* v;
    explicit Vec(int n) : v(create_vec_fp32(n)) {}
    ~Vec() { destroy_vec_fp32(v); }
};

// A 128-channel capture frame whose channel c carries 1000 * tag + c.
void fillTagged(mat2d_fp32* f, int tag)
{
    for (int c = 0; c < f->rows; ++c)
        for (int i = 0; i < f->cols; ++i)
            f->data[c][i] = float(1000 * tag + c) + 0.001f * float(i);
}

const char* kSmall = "[AudioRecordingParam]\nchannel_num = 64\nframe_size = 256\n"
                     "[AcousticCameraParam]\nimage_resolution_row = 8\nimage_resolution_col = 6\n"
                     "distanceMeasure_en = false\n"
                     "[DOA]\nextra_en = false\n"
                     "[QuantizeiParam]\nreadFromFile = false\nautoSave = false\n";

TEST_F(KernelTest, PickupRingRotatesThreeBuffers)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(kSmall).c_str()));
    AKUDoaKernelPrivate* p = priv(k);
    ASSERT_EQ(p->framePool.size(), 3u);
    ASSERT_NE(p->pickup, nullptr);
    const std::vector<mat2d_fp32*> initial(p->framePool.begin(), p->framePool.end());
    Mat frame(128, 256);
    Vec audio(256);
    const fpoint2d target{0.f, 2, 3};

    // A null frame is refused and moves nothing.
    EXPECT_FALSE(k.readPickedUpAudio(nullptr, audio.v, target));
    EXPECT_TRUE(std::equal(initial.begin(), initial.end(), p->framePool.begin()));

    for (int call = 0; call < 4; ++call) {
        mat2d_fp32* expected = initial[call % 3]; // the oldest buffer is reused
        fillTagged(frame.m, call + 1);
        ASSERT_TRUE(k.readPickedUpAudio(frame.m, audio.v, target));
        ASSERT_EQ(p->framePool.back(), expected) << "call " << call;
        // Array order: row r holds capture channel micIndex[r] (the even
        // channels for 64 microphones).
        for (int r = 0; r < 64; ++r)
            ASSERT_EQ(expected->data[r][7], frame.m->data[p->cfg.micIndex[r]][7]) << "call " << call << " row " << r;
    }
    EXPECT_EQ(p->cfg.micIndex[5], 10);
    EXPECT_EQ(p->framePool.front(), initial[1]);
}

TEST_F(KernelTest, PickupTargetWithAndWithoutCorrection)
{
    // Correction off: the pickup gets the caller's row and column (mode 0
    // stores them unmapped). Correction on: the point is first mapped by the
    // plain affine rule, (2, 3) -> (3, 3) with F = 10, rx1 = 5, rx3 = ry2 = 1.
    struct Case {
        int flag, er, ec;
    };
    for (const Case& c : {Case{0, 2, 3}, Case{1, 3, 3}}) {
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(std::string(kSmall) + "[AcousticCameraParam]\nrotate_mode = 0\n"
                                                      "image_correction_flag = " + std::to_string(c.flag) +
                               "\nsection_factor = 10\nrx1 = 5\nrx2 = 0\nrx3 = 1\nry1 = 0\nry2 = 1\nry3 = 0\n")
                               .c_str()));
        Mat frame(128, 256);
        Vec audio(256);
        ASSERT_TRUE(k.readPickedUpAudio(frame.m, audio.v, fpoint2d{0.f, 2, 3}));
        AKUDoaPickupV4Private* pd = AKUDoaPickupV4Access::d(*priv(k)->pickup);
        EXPECT_EQ(pd->targetRow, c.er) << "flag " << c.flag;
        EXPECT_EQ(pd->targetCol, c.ec) << "flag " << c.flag;
    }
}

TEST_F(KernelTest, PickupWindowDefaultAndSetter)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(kSmall).c_str()));
    AKUDoaPickupV4Private* pd = AKUDoaPickupV4Access::d(*priv(k)->pickup);
    AKUFFTWindow hann(256, FFT_WINDOW_HANN, 0.f, 0.f, 1.f);
    EXPECT_EQ(0, std::memcmp(pd->fftWindow->data, hann.data()->data, 256 * sizeof(float)));
    k.setFFTWindow_pickup(FFT_WINDOW_TUKEY, 0.f, 0.f, 0.5f);
    AKUFFTWindow tukey(256, FFT_WINDOW_TUKEY, 0.f, 0.f, 0.5f);
    EXPECT_EQ(0, std::memcmp(pd->fftWindow->data, tukey.data()->data, 256 * sizeof(float)));
    EXPECT_FALSE(priv(k)->cfg.pickupFullBand);
}

// ------------------------------------------------ listening at a heat-map cell

struct Scene {
    std::unique_ptr<AKUDoaKernel> kernel;
    StCamCfg engineCfg;
    std::unique_ptr<AKUDoaQuantizeV3> engine;
};

// Peak cell of the imaging engine's heat map of one frame (array order).
std::pair<int, int> engineCell(IAKUDoaQuantize& engine, StCamCfg& cfg, AKUDoaFreqBands& bands, mat2d_fp32* frame)
{
    Mat map(cfg.imageResolutionRow, cfg.imageResolutionCol);
    engine.executeDOA(frame, bands, map.m);
    std::pair<int, int> best{0, 0};
    for (int i = 0; i < map.m->rows; ++i)
        for (int j = 0; j < map.m->cols; ++j)
            if (map.m->data[i][j] > map.m->data[best.first][best.second])
                best = {i, j};
    return best;
}

// Capture frame (128 channels) from an array-order frame.
void toCapture(const StCamCfg& cfg, mat2d_fp32* arrayFrame, mat2d_fp32* capture)
{
    for (int r = 0; r < arrayFrame->rows; ++r)
        std::memcpy(capture->data[cfg.micIndex[r]], arrayFrame->data[r], sizeof(float) * arrayFrame->cols);
}

TEST_F(KernelTest, PickupAtHeatMapCellFavoursThatSource)
{
    const int n = 1024, rows = 16, cols = 12, frames = 6, warm = 2;
    // Steering-table program 3 and gridding program 4, half-turn mode 0 and
    // the default mode 1.
    for (auto [program, mode] : {std::pair<int, int>{3, 1}, {3, 0}, {4, 1}, {4, 0}}) {
        SCOPED_TRACE("program " + std::to_string(program) + " mode " + std::to_string(mode));
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 64\n"
                               "[AcousticCameraParam]\nimage_resolution_row = 16\nimage_resolution_col = 12\n"
                               "distanceMeasure_en = false\nimage_correction_flag = 0\nrotate_mode = " +
                               std::to_string(mode) + "\n[DOA]\nextra_en = false\nDOAVersionSelect = " +
                               std::to_string(program) +
                               "\n[QuantizeiParam]\nreadFromFile = false\nautoSave = false\n")
                               .c_str()));
        AKUDoaKernelPrivate* p = priv(k);
        // The imaging engine on the kernel's configuration shows where the
        // sources appear.
        StCamCfg ecfg = p->cfg;
        std::unique_ptr<IAKUDoaQuantize> engineOwner;
        if (program == 4)
            engineOwner.reset(new AKUDoaQuantizeV4());
        else
            engineOwner.reset(new AKUDoaQuantizeV3());
        IAKUDoaQuantize& engine = *engineOwner;
        engine.doaInit(&ecfg);
        AKUFFTWindow tukey(n, FFT_WINDOW_TUKEY, 0.f, 0.f, 0.2f);
        engine.updateFFTWin(tukey.data()->data, n);

        const AkuSimArray array = akusim_array_from_cfg(p->cfg);
        AkuSimSource a, b;
        a.x = 0.22; a.y = -0.12; a.seed = 5;
        b.x = -0.18; b.y = 0.2; b.seed = 6;
        Mat fa(akusim_frame(array, {a}, 96000, n)), fb(akusim_frame(array, {b}, 96000, n));
        const std::pair<int, int> cellA = engineCell(engine, ecfg, *k.freqBandsManager(), fa.m);
        const std::pair<int, int> cellB = engineCell(engine, ecfg, *k.freqBandsManager(), fb.m);
        ASSERT_NE(cellA, cellB);

        Mat capA(128, n), capB(128, n);
        toCapture(p->cfg, fa.m, capA.m);
        toCapture(p->cfg, fb.m, capB.m);
        Vec audio(n);
        const fpoint2d at{0.f, cellA.first, cellA.second};
        // Periodic frames: the same frame again and again is a continuous
        // signal. Energy after the warm-up frames.
        auto listen = [&](mat2d_fp32* capture, bool atCell, fpoint2d target) {
            double e = 0;
            for (int f = 0; f < frames; ++f) {
                EXPECT_TRUE(atCell ? k.readPickedUpAudioAtCell(capture, audio.v, target)
                                   : k.readPickedUpAudio(capture, audio.v, target));
                if (f >= warm)
                    for (int i = 0; i < n; ++i)
                        e += double(audio.v->data[i]) * audio.v->data[i];
            }
            return e;
        };
        const double own = listen(capA.m, true, at), other = listen(capB.m, true, at);
        const double gainDb = 10 * std::log10(own / other);
        EXPECT_GE(gainDb, 10.0) << "mode " << mode << " cell " << cellA.first << "," << cellA.second;
        double ea = 0, eb = 0;
        for (int i = 0; i < n; ++i) {
            ea += double(fa.m->data[0][i]) * fa.m->data[0][i];
            eb += double(fb.m->data[0][i]) * fb.m->data[0][i];
        }
        EXPECT_NEAR(10 * std::log10(ea / eb), 0.0, 1.0); // one microphone: no preference

        // readPickedUpAudio given the same cell listens elsewhere; given the
        // documented mirrored target it steers exactly like the cell call.
        // (First steer elsewhere: the pickup skips a target equal to the one
        // it stored, and after the cell calls it stored the cell itself in
        // mode 1.)
        ASSERT_TRUE(k.readPickedUpAudio(capA.m, audio.v, fpoint2d{0.f, -1, -1}));
        const double naive = listen(capA.m, false, at);
        EXPECT_LT(naive, own * 0.5) << "mode " << mode;
        if (program == 4) {
            RecordProperty("program4_mode" + std::to_string(mode),
                           "cell " + std::to_string(cellA.first) + "," + std::to_string(cellA.second) +
                               " separation_db " + std::to_string(gainDb));
            continue;
        }
        RecordProperty("mode" + std::to_string(mode), "cell " + std::to_string(cellA.first) + "," +
                                                          std::to_string(cellA.second) + " separation_db " +
                                                          std::to_string(gainDb) + " same_cell_plain_call_db " +
                                                          std::to_string(10 * std::log10(naive / own)));
        const fpoint2d mirrored{0.f, mode == 1 ? rows - cellA.first : rows - 1 - cellA.first,
                                mode == 1 ? cols - cellA.second : cols - 1 - cellA.second};
        std::vector<float> viaCell, viaTarget;
        listen(capA.m, true, at);
        ASSERT_TRUE(k.readPickedUpAudioAtCell(capA.m, audio.v, at));
        viaCell.assign(audio.v->data, audio.v->data + n);
        listen(capA.m, false, mirrored);
        ASSERT_TRUE(k.readPickedUpAudio(capA.m, audio.v, mirrored));
        viaTarget.assign(audio.v->data, audio.v->data + n);
        EXPECT_EQ(viaCell, viaTarget) << "mode " << mode;
    }
}

} // namespace

namespace {

// Where the gridding program draws a source against where the pickup hears
// it best (a full sweep of pickup points). Its cells are 1.23 pickup cells
// wide at these settings, so the drawn cell fixes the direction to within
// about half a pickup cell: the derived point is the loudest or its
// neighbour, and loses at most 3 dB against the loudest.
TEST(PickupGriddedCell, DerivedPointHearsLikeTheLoudest)
{
    const int n = 1024;
    StCamCfg cfg;
    std::memset(&cfg, 0, sizeof cfg);
    cfg.doaVersionSelect = 4;
    cfg.sampleFrequency = 96000;
    cfg.channelNum = 64;
    cfg.imageResolutionRow = 16;
    cfg.imageResolutionCol = 12;
    cfg.sectionFactor = 10;
    cfg.frameSize = n;
    cfg.imageThetaXYFactor = 1.3f;
    cfg.eangleDomain = 43;
    cfg.micMaxRadius = 0.11f;
    cfg.rotateMode = 1; // the gridding engine's identity orientation
    ASSERT_TRUE(akusim_fill_layout(cfg, 64));
    for (float& g : cfg.micSensitivity)
        g = 1.f;
    AKUDoaQuantizeV4 engine;
    engine.doaInit(&cfg);
    AKUFFTWindow tukey(n, FFT_WINDOW_TUKEY, 0.f, 0.f, 0.2f);
    engine.updateFFTWin(tukey.data()->data, n);
    AKUDoaFreqBands bands(n, 96000);
    bands.updateBands({{20000, 40000, 1}});
    AKUFFTWindow hann(n, FFT_WINDOW_HANN, 0.f, 0.f, 1.f);
    const AkuSimArray array = akusim_array_from_cfg(cfg);
    Vec out(n);
    for (auto [x, y] : {std::pair<double, double>{0.22, -0.12}, {0.05, 0.25}, {-0.25, -0.05}}) {
        AkuSimSource s;
        s.x = x;
        s.y = y;
        Mat frame(akusim_frame(array, {s}, 96000, n));
        const std::pair<int, int> cell = engineCell(engine, cfg, bands, frame.m);
        int pr = -1, pc = -1;
        akudoa_pickup_target_for_gridded_cell(cfg, cell.first, cell.second, pr, pc);
        double best = -1, derived = -1;
        std::pair<int, int> loudest{-1, -1};
        for (int r = 0; r <= 16; ++r)
            for (int c = 0; c <= 12; ++c) {
                AKUDoaPickupV4 p;
                p.initPickup(&cfg);
                p.updateFFTWin(hann.data()->data, n);
                p.steerTo(r, c);
                double e = 0;
                for (int f = 0; f < 3; ++f) {
                    p.executePickup(frame.m, bands, out.v);
                    for (int i = 0; f == 2 && i < n; ++i)
                        e += double(out.v->data[i]) * out.v->data[i];
                }
                if (e > best) {
                    best = e;
                    loudest = {r, c};
                }
                if (r == pr && c == pc)
                    derived = e;
            }
        SCOPED_TRACE("source " + std::to_string(x) + "," + std::to_string(y) + " drawn at " +
                     std::to_string(cell.first) + "," + std::to_string(cell.second) + ", derived " +
                     std::to_string(pr) + "," + std::to_string(pc) + ", loudest " + std::to_string(loudest.first) +
                     "," + std::to_string(loudest.second) + ", loss " +
                     std::to_string(10 * std::log10(best / derived)) + " dB");
        EXPECT_LE(std::abs(pr - loudest.first), 1);
        EXPECT_LE(std::abs(pc - loudest.second), 1);
        EXPECT_LE(10 * std::log10(best / derived), 3.0);
        RecordProperty("source_" + std::to_string(x) + "_" + std::to_string(y),
                       "drawn " + std::to_string(cell.first) + "," + std::to_string(cell.second) + " derived " +
                           std::to_string(pr) + "," + std::to_string(pc) + " loudest " +
                           std::to_string(loudest.first) + "," + std::to_string(loudest.second) + " loss_db " +
                           std::to_string(10 * std::log10(best / derived)));
    }
}

} // namespace

namespace {

// Through the kernel alone: the heat map's peak cell, fed back to
// readPickedUpAudioAtCell, hears that source well above another one; also
// when the coordinate correction shifts the displayed map against the
// engine's (by 2 rows and -1 column here) and for the gridding program.
TEST_F(KernelTest, PickupAtTheHeatMapPeakEndToEnd)
{
    const int n = 1024, frames = 5, warm = 2;
    struct Case {
        int program, flag;
        const char* coefficients;
    };
    const Case cases[] = {
        {3, 0, ""},
        {3, 1, "section_factor = 10\nrx1 = 20\nrx2 = 0\nrx3 = 1\nry1 = -10\nry2 = 1\nry3 = 0\n"},
        {4, 0, ""},
    };
    for (const Case& cs : cases) {
        SCOPED_TRACE("program " + std::to_string(cs.program) + " correction " + std::to_string(cs.flag));
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini("[AudioRecordingParam]\nchannel_num = 64\n"
                               "[AcousticCameraParam]\nimage_resolution_row = 16\nimage_resolution_col = 12\n"
                               "distanceMeasure_en = false\nimage_correction_flag = " +
                               std::to_string(cs.flag) + "\n" + cs.coefficients +
                               "[DOA]\nextra_en = false\nDOAVersionSelect = " + std::to_string(cs.program) +
                               "\n[QuantizeiParam]\nreadFromFile = false\nautoSave = false\n")
                               .c_str()));
        const StCamCfg& cfg = priv(k)->cfg;
        const AkuSimArray array = akusim_array_from_cfg(cfg);
        AkuSimSource a, b;
        a.x = 0.12; a.y = -0.08; a.seed = 8;
        b.x = -0.15; b.y = 0.1; b.seed = 9;
        Mat fa(akusim_frame(array, {a}, 96000, n)), fb(akusim_frame(array, {b}, 96000, n));
        Mat capA(128, n), capB(128, n);
        toCapture(cfg, fa.m, capA.m);
        toCapture(cfg, fb.m, capB.m);

        Mat heat(16, 12);
        Vec spectrum(n / 2 + 1);
        ASSERT_TRUE(k.readHeatMap(capA.m, heat.m, spectrum.v, 0));
        fpoint2d peak{0.f, 0, 0};
        for (int i = 0; i < 16; ++i)
            for (int j = 0; j < 12; ++j)
                if (heat.m->data[i][j] > heat.m->data[peak.x][peak.y]) {
                    peak.x = i;
                    peak.y = j;
                }
        Vec audio(n);
        auto listen = [&](mat2d_fp32* capture) {
            double e = 0;
            for (int f = 0; f < frames; ++f) {
                EXPECT_TRUE(k.readPickedUpAudioAtCell(capture, audio.v, peak));
                for (int i = 0; f >= warm && i < n; ++i)
                    e += double(audio.v->data[i]) * audio.v->data[i];
            }
            return e;
        };
        const double gainDb = 10 * std::log10(listen(capA.m) / listen(capB.m));
        RecordProperty("program" + std::to_string(cs.program) + "_correction" + std::to_string(cs.flag),
                       "peak " + std::to_string(peak.x) + "," + std::to_string(peak.y) + " separation_db " +
                           std::to_string(gainDb));
        EXPECT_GE(gainDb, 10.0) << "peak " << peak.x << "," << peak.y;
    }
}

} // namespace
