// Frame intake, heat-map readout, coordinate correction and program control
// through the kernel, on a small 16-microphone camera.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "AKUDoa/akudoaquantizev3.h"
#include "kernel_fixture.h"
#include "support/akudoagrid.h"
#include "support/akudoasim.h"

using namespace kerneltest;

namespace {

// 16 x 12 image, 256-sample frames (bins of 375 Hz), 20-40 kHz band.
std::string smallCamera(int correction, int rotate, const std::string& extra = "")
{
    return "[AudioRecordingParam]\nchannel_num = 16\nframe_size = 256\nsample_frequency = 96000\n"
           "[AcousticCameraParam]\nimage_resolution_row = 16\nimage_resolution_col = 12\n"
           "image_correction_flag = " + std::to_string(correction) + "\nrotate_mode = " + std::to_string(rotate) +
           "\nrx1 = 0\nrx2 = 0\nrx3 = 1\nry1 = 0\nry2 = 1\nry3 = 0\ndistanceMeasure_en = false\n"
           "[DOA]\nextra_en = false\n" + extra;
}

struct Owned {
    mat2d_fp32* m;
    explicit Owned(mat2d_fp32* p) : m(p) {}
    Owned(int r, int c) : m(create_mat2d_fp32(r, c)) {}
    ~Owned() { destroy_mat2d_fp32(m); }
};

// Capture frame with a plane wave from unrotated pixel (k, c).
mat2d_fp32* sceneFrame(const StCamCfg& cfg, const std::vector<std::pair<int, int>>& pixels)
{
    std::vector<AkuSimSource> sources;
    uint32_t seed = 11;
    for (const auto& p : pixels)
        sources.push_back(akugrid_far_source(cfg, p.first, p.second, seed++));
    Owned arrayFrame(akusim_frame(akusim_array_from_cfg(cfg), sources, cfg.sampleFrequency, cfg.frameSize));
    return akugrid_capture_frame(cfg, arrayFrame.m);
}

std::vector<float> flat(const mat2d_fp32* m)
{
    std::vector<float> v;
    for (int i = 0; i < m->rows; ++i)
        v.insert(v.end(), m->data[i], m->data[i] + m->cols);
    return v;
}

} // namespace

// Catches orientation and frame-order faults between capture and image: a
// source placed at a pixel shows up there, for every orientation, with the
// capture channels scattered through micIndex.
TEST_F(KernelTest, EndToEndSmallSourceAppearsAtItsPixel)
{
    const int pixels[][2] = {{3, 2}, {11, 8}};
    for (int rotate = 0; rotate < 4; ++rotate) {
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(smallCamera(0, rotate)).c_str()));
        const StCamCfg& cfg = priv(k)->cfg;
        for (const auto& p : pixels) {
            Owned frame(sceneFrame(cfg, {{p[0], p[1]}}));
            Owned map(16, 12);
            ASSERT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
            int r, c, er, ec;
            akugrid_argmax(map.m, r, c);
            akugrid_rotated(rotate, 16, 12, p[0], p[1], er, ec);
            EXPECT_LE(std::abs(r - er), 1) << "rotate " << rotate;
            EXPECT_LE(std::abs(c - ec), 1) << "rotate " << rotate;

            // The target power at the source's cell is what the map shows.
            const fpoint2d at = k.getPaWithTarget(fpoint2d{0.0f, er, ec});
            EXPECT_EQ(at.x, er);
            EXPECT_EQ(at.y, ec);
            EXPECT_FLOAT_EQ(at.val, map.m->data[er][ec]) << "rotate " << rotate;
        }
    }
}

// With correction off the caller gets the engine's map; with the identity
// correction the same values; with a one-row shift the raw map moved by one
// row (the last row extrapolates from the edge).
TEST_F(KernelTest, CorrectionResamplesTheEngineMap)
{
    AKUDoaKernel plain;
    ASSERT_TRUE(plain.init(ini(smallCamera(0, 1), "plain.ini").c_str()));
    Owned frame(sceneFrame(priv(plain)->cfg, {{5, 4}, {12, 9}}));
    Owned direct(16, 12);
    ASSERT_TRUE(plain.readHeatMap(frame.m, direct.m, nullptr, 0));

    // The same frame through a separately built engine, in array order.
    {
        AKUDoaQuantizeV3 engine;
        StCamCfg cfg = priv(plain)->cfg;
        engine.doaInit(&cfg);
        AKUFFTWindow w(256, FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f);
        engine.updateFFTWin(w.data()->data, w.data()->n);
        Owned arrayFrame(16, 256);
        for (int m = 0; m < 16; ++m)
            for (int n = 0; n < 256; ++n) arrayFrame.m->data[m][n] = frame.m->data[cfg.micIndex[m]][n];
        Owned map(16, 12);
        engine.executeDOA(arrayFrame.m, *plain.freqBandsManager(), map.m);
        EXPECT_EQ(flat(map.m), flat(direct.m));
    }

    AKUDoaKernel corrected;
    ASSERT_TRUE(corrected.init(ini(smallCamera(1, 1), "corr.ini").c_str()));
    Owned identity(16, 12);
    ASSERT_TRUE(corrected.readHeatMap(frame.m, identity.m, nullptr, 0));
    EXPECT_EQ(flat(identity.m), flat(direct.m));

    // u = i + 1: offsets are in raw rows times the section factor (10).
    corrected.updateCordinateMat(CordinateMat{10.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f});
    EXPECT_EQ(corrected.cordinateMat().rx1, 10.0f);
    Owned shifted(16, 12);
    ASSERT_TRUE(corrected.readHeatMap(frame.m, shifted.m, nullptr, 0));
    for (int i = 0; i < 15; ++i)
        for (int j = 0; j < 12; ++j) EXPECT_FLOAT_EQ(shifted.m->data[i][j], direct.m->data[i + 1][j]);
    for (int j = 0; j < 12; ++j) EXPECT_FLOAT_EQ(shifted.m->data[15][j], 2.0f * direct.m->data[15][j]);

    // A target given in picture coordinates is moved the same way.
    const fpoint2d t = corrected.getPaWithTarget(fpoint2d{0.0f, 3, 4});
    EXPECT_EQ(t.x, 3);
    EXPECT_FLOAT_EQ(t.val, direct.m->data[4][4]);
}

// A null caller map still images the frame (so the target calls see it) but
// skips the power spectrum; with a map the spectrum comes in reverse order.
TEST_F(KernelTest, NullMapSkipsSpectrumAndSpectrumIsReversed)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(smallCamera(1, 1)).c_str()));
    Owned frame(sceneFrame(priv(k)->cfg, {{8, 6}}));
    vec_fp32* spectrum = create_vec_fp32(129);
    for (int i = 0; i < spectrum->n; ++i) spectrum->data[i] = -7.0f;
    EXPECT_TRUE(k.readHeatMap(frame.m, nullptr, spectrum, 0));
    for (int i = 0; i < spectrum->n; ++i) ASSERT_EQ(spectrum->data[i], -7.0f);
    EXPECT_GT(k.getPaWithTarget(fpoint2d{0.0f, 16 - 1 - 8, 12 - 1 - 6}).val, 0.0f);

    Owned map(16, 12);
    EXPECT_TRUE(k.readHeatMap(frame.m, map.m, spectrum, 0));
    // Energy sits in 20-40 kHz (bins 54-106): written at 128 - bin.
    float inBand = 0.0f, outBand = 0.0f;
    for (int bin = 0; bin < 129; ++bin) {
        const float p = spectrum->data[128 - bin];
        EXPECT_GE(p, 0.0f);
        if (bin >= 56 && bin <= 104) inBand += p;
        if (bin < 40 || bin > 120) outBand += p;
    }
    EXPECT_GT(inBand, 1000.0f * outBand);
    destroy_vec_fp32(spectrum);
}

// Program switching: same program is a no-op without a log line; V3 -> 53
// -> V3 logs both messages each way and the first image comes back exactly.
TEST_F(KernelTest, ProgramSwitchRebuildsAndReproduces)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(smallCamera(0, 1)).c_str()));
    EXPECT_EQ(k.getDoaProgram(), AKUDoaKernel::DOA_PROGRAM_V3);
    Owned frame(sceneFrame(priv(k)->cfg, {{4, 3}}));
    Owned first(16, 12), second(16, 12), again(16, 12);
    ASSERT_TRUE(k.readHeatMap(frame.m, first.m, nullptr, 0));

    capturedLines().clear();
    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V3);
    EXPECT_TRUE(capturedLines().empty());

    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_3);
    EXPECT_TRUE(logged("AKUDoaKernel::setDoaProgram start set doa program v5 process 3 "));
    EXPECT_TRUE(logged("AKUDoaKernel::setDoaProgram set doa program v5 process 3 ok "));
    EXPECT_EQ(k.getDoaProgram(), AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_3);
    EXPECT_EQ(priv(k)->cfg.doaVersionSelect, 53);
    ASSERT_TRUE(k.readHeatMap(frame.m, second.m, nullptr, 0));
    EXPECT_NE(flat(second.m), flat(first.m));

    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V3);
    EXPECT_TRUE(logged("AKUDoaKernel::setDoaProgram set doa program v3 ok "));
    ASSERT_TRUE(k.readHeatMap(frame.m, again.m, nullptr, 0));
    EXPECT_EQ(flat(again.m), flat(first.m));

    // Out-of-range enumerators are ignored.
    k.setDoaProgram(static_cast<DOAProgarm>(9));
    EXPECT_EQ(k.getDoaProgram(), AKUDoaKernel::DOA_PROGRAM_V3);
}

// An unknown stored program reads back as V3 and images with V3.
TEST_F(KernelTest, UnknownProgramReadsAsV3)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(smallCamera(0, 1, "DOAVersionSelect = 7\n")).c_str()));
    EXPECT_EQ(k.getDoaProgram(), AKUDoaKernel::DOA_PROGRAM_V3);
    Owned frame(sceneFrame(priv(k)->cfg, {{4, 3}}));
    Owned map(16, 12);
    EXPECT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
}

// Focusing: the V3 engine of program 53 is rebuilt for the near field (the
// log names the distance and the state), and a point source at the focus
// distance then appears at its pixel.
TEST_F(KernelTest, FocusDistanceRebuildsTheEngine)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(smallCamera(0, 1)).c_str()));
    capturedLines().clear();
    k.setFocusDis(0.6f, true);
    EXPECT_EQ(k.getFocusDis(), 0.6f);
    EXPECT_TRUE(k.getFocusDisEn());
    bool sawLine = false;
    for (const std::string& l : bodies())
        if (l.rfind("doakernel setFocusDis: TargetDistance = 0.6 ENABLE  use time(ms) ", 0) == 0) sawLine = true;
    EXPECT_TRUE(sawLine);

    const StCamCfg& cfg = priv(k)->cfg;
    const int pk = 5, pc = 8;
    Owned arrayFrame(akusim_frame(akusim_array_from_cfg(cfg), {akugrid_near_source(cfg, pk, pc, 3)},
                                  cfg.sampleFrequency, cfg.frameSize));
    Owned frame(akugrid_capture_frame(cfg, arrayFrame.m));
    Owned map(16, 12);
    ASSERT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
    int r, c, er, ec;
    akugrid_argmax(map.m, r, c);
    akugrid_rotated(1, 16, 12, pk, pc, er, ec);
    EXPECT_LE(std::abs(r - er), 1);
    EXPECT_LE(std::abs(c - ec), 1);
}

// Windows and modes reach the engine; a program switch restores the default
// imaging window.
TEST_F(KernelTest, WindowSettersReachTheEngines)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(smallCamera(0, 1)).c_str()));
    Owned frame(sceneFrame(priv(k)->cfg, {{4, 3}}));
    Owned map(16, 12);
    // The default Tukey(0.2) image, then a Hann window changes it.
    ASSERT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
    const std::vector<float> tukey = flat(map.m);
    k.setFFTWindow_doa(FFT_WINDOW_HANN, 0.0f, 0.0f, 0.0f);
    ASSERT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
    EXPECT_NE(flat(map.m), tukey);
    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_3);
    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V3);
    ASSERT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
    EXPECT_EQ(flat(map.m), tukey);

    // Self-spectrum and radius modes are forwarded.
    k.setSpectrumSelf(true);
    EXPECT_TRUE(k.spectrumSelf());
    ASSERT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
    EXPECT_NE(flat(map.m), tukey);

    // Radius mode set before the first frame: only the central square of
    // the image is computed, everything else stays zero.
    AKUDoaKernel radius;
    ASSERT_TRUE(radius.init(ini(smallCamera(0, 0), "radius.ini").c_str()));
    radius.setFocusRadius(true);
    EXPECT_TRUE(radius.focusRadius());
    ASSERT_TRUE(radius.readHeatMap(frame.m, map.m, nullptr, 0));
    for (int i = 0; i < 16; ++i)
        for (int j = 0; j < 12; ++j) {
            const bool inside = i >= 8 - 3 && i < 8 + 3 && j >= 3 && j < 3 + 6;
            if (!inside) {
                EXPECT_EQ(map.m->data[i][j], 0.0f) << i << "," << j;
            }
        }
}

// One capture thread reads heat maps while another switches focus distance,
// self-spectrum, radius mode, windows and the correction table. Run under
// the thread sanitizer in CI.
TEST_F(KernelTest, ConcurrencyReadoutWhileSettersRun)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(smallCamera(1, 1)).c_str()));
    Owned frame(sceneFrame(priv(k)->cfg, {{4, 3}}));
    std::atomic<bool> done{false};
    std::atomic<int> frames{0};
    std::thread reader([&] {
        Owned map(16, 12);
        vec_fp32* spectrum = create_vec_fp32(64);
        for (int i = 0; i < 40; ++i) {
            if (k.readHeatMap(frame.m, map.m, spectrum, 1)) ++frames;
            k.getPaWithTarget(fpoint2d{0.0f, 3, 3});
        }
        destroy_vec_fp32(spectrum);
        done = true;
    });
    int round = 0;
    while (!done) {
        k.setFocusDis(round % 2 ? 0.8f : 1.2f, round % 3 == 0);
        k.setSpectrumSelf(round % 2 == 0);
        k.setFocusRadius(round % 4 == 1);
        k.setFFTWindow_doa(round % 2 ? FFT_WINDOW_HANN : FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f);
        k.setFFTWindow_pickup(FFT_WINDOW_HANN, 0.0f, 0.0f, 1.0f);
        k.updateCordinateMat(CordinateMat{0.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f});
        ++round;
    }
    reader.join();
    EXPECT_EQ(frames.load(), 40);
}
