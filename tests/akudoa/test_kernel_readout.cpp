// Frame intake, heat-map readout, the target power, coordinate correction and
// program control through the kernel, on small cameras.

#include <sstream>

#include "AKUDoa/akudoacordinate_p.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "kernel_fixture.h"

using namespace kerneltest;

namespace {

// The kernel's engine kind and coordinate table are those of its program.
void expectProgramParts(AKUDoaKernelPrivate* d, bool gridding)
{
    const StCamCfg& c = d->cfg;
    std::vector<float> t(static_cast<size_t>(c.imageResolutionRow) * c.imageResolutionCol * 2);
    (gridding ? akudoa_cordinate_generate_v4 : akudoa_cordinate_generate)(CordinateMat{c.rx1, c.rx2, c.rx3, c.ry1, c.ry2, c.ry3},
                                                                           static_cast<float>(c.sectionFactor), c.imageResolutionRow, c.imageResolutionCol, t.data());
    EXPECT_EQ(t, std::vector<float>(d->cordinate->data, d->cordinate->data + d->cordinate->n)) << "gridding " << gridding;
    EXPECT_EQ(dynamic_cast<AKUDoaQuantizeV4*>(d->doaEngine) != nullptr, gridding);
}

} // namespace

// Focusing rebuilds the engine of either kind for the near field (the
// update is logged with its distance and state), and a point at the focus
// distance then appears at its pixel (the gridding program in its own
// 32 x 24 format); for the steering-table engine the target power of its
// cell is what the map shows.
TEST_F(KernelTest, FocusDistanceReachesTheEngine)
{
    for (auto [program, rows, cols, focus] : {std::tuple<int, int, int, float>{3, 16, 12, 0.6f}, {4, 32, 24, 0.3f}}) {
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(cameraIni(16, 256, rows, cols, program, 1, 1)).c_str()));
        k.setFocusDis(focus, true);
        std::ostringstream line;
        line << "doakernel setFocusDis: TargetDistance = " << focus << " ENABLE  use time(ms) ";
        EXPECT_EQ(bodies().back().rfind(line.str(), 0), 0u) << bodies().back();
        const StCamCfg& cfg = priv(k)->cfg;
        for (auto [pk, pc] : {std::pair<int, int>{rows / 4 - 1, cols / 4}, {rows * 11 / 16, cols * 2 / 3}}) {
            AkuMat frame = capture(cfg, {program == 4 ? akugrid_gridding_source(cfg, pk, pc, focus) : akugrid_near_source(cfg, pk, pc)}), map = akumat(rows, cols);
            ASSERT_TRUE(k.readHeatMap(frame.get(), map.get(), nullptr, 0));
            int r, c, er, ec;
            akugrid_argmax(map.get(), r, c);
            akugrid_rotated(program == 4 ? 0 : 1, rows, cols, pk, pc, er, ec);
            EXPECT_TRUE(std::abs(r - er) <= 1 && std::abs(c - ec) <= 1) << program << " found " << r << "," << c << " for " << er << "," << ec;
            EXPECT_FLOAT_EQ(program == 3 ? k.getPaWithTarget(fpoint2d{0.0f, er, ec}).val : map->data[er][ec], map->data[er][ec]);
        }
    }
}

// Correction off: the engine's own map of the frame in array order, after
// the default Tukey window. The identity correction gives the same values;
// a one-row shift (offsets in raw rows times the section factor 10) moves it
// by one row, the last row extrapolating from the edge; a target in picture
// coordinates is moved the same way. Self terms and a Hann window change
// the image; a program switch restores the default window.
TEST_F(KernelTest, CorrectionResamplesTheEngineMap)
{
    AKUDoaKernel plain, corrected;
    ASSERT_TRUE(plain.init(ini(cameraIni(16, 256, 16, 12, 3, 1, 0), "plain.ini").c_str()));
    ASSERT_TRUE(corrected.init(ini(cameraIni(16, 256, 16, 12, 3, 1, 1), "corr.ini").c_str()));
    StCamCfg cfg = priv(plain)->cfg;
    AkuMat frame = capture(cfg, {akugrid_far_source(cfg, 5, 4, 11), akugrid_far_source(cfg, 12, 9, 12)});
    AkuMat direct = akumat(16, 12), map = akumat(16, 12), arrayFrame = akumat(16, 256);
    ASSERT_TRUE(plain.readHeatMap(frame.get(), direct.get(), nullptr, 0));
    AKUDoaQuantizeV3 engine;
    AKUFFTWindow w(256, FFT_WINDOW_TUKEY, 0.0f, 0.0f, 0.2f);
    engine.doaInit(&cfg), engine.updateFFTWin(w.data()->data, w.data()->n);
    for (int m = 0; m < 16; ++m)
        std::copy(frame->data[cfg.micIndex[m]], frame->data[cfg.micIndex[m]] + 256, arrayFrame->data[m]);
    engine.executeDOA(arrayFrame.get(), *plain.freqBandsManager(), map.get());
    EXPECT_EQ(akugrid_flat(map.get()), akugrid_flat(direct.get()));
    ASSERT_TRUE(corrected.readHeatMap(frame.get(), map.get(), nullptr, 0));
    EXPECT_EQ(akugrid_flat(map.get()), akugrid_flat(direct.get()));
    corrected.updateCordinateMat(CordinateMat{10.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f});
    ASSERT_TRUE(corrected.readHeatMap(frame.get(), map.get(), nullptr, 0));
    for (int i = 0; i < 16; ++i)
        for (int j = 0; j < 12; ++j)
            EXPECT_FLOAT_EQ(map->data[i][j], i < 15 ? direct->data[i + 1][j] : 2.0f * direct->data[15][j]) << i << "," << j;
    const fpoint2d t = corrected.getPaWithTarget(fpoint2d{0.0f, 3, 4});
    EXPECT_EQ(t.x, 3);
    EXPECT_FLOAT_EQ(t.val, direct->data[4][4]);

    for (int step = 0; step < 3; ++step) {
        step == 0 ? plain.setFFTWindow_doa(FFT_WINDOW_HANN, 0.0f, 0.0f, 0.0f)
        : step == 1 ? (plain.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_3), plain.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V3))
                    : plain.setSpectrumSelf(true);
        ASSERT_TRUE(plain.readHeatMap(frame.get(), map.get(), nullptr, 0));
        EXPECT_EQ(akugrid_flat(map.get()) == akugrid_flat(direct.get()), step == 1) << "step " << step;
    }
}

// A null caller map still images the frame (the target calls see it) but
// skips the power spectrum; with a map the spectrum comes highest bin
// first, its energy in the 20-40 kHz band (bins 54-106 of 256 samples).
// Radius mode set before the first frame computes only the central square
// (with self terms, every pixel of it has power).
TEST_F(KernelTest, NullMapSpectrumAndRadiusMode)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(cameraIni(16, 256, 16, 12, 3, 0, 1)).c_str()));
    AkuMat frame = capture(priv(k)->cfg, {akugrid_far_source(priv(k)->cfg, 8, 6)}), map = akumat(16, 12);
    vec_fp32* spectrum = create_vec_fp32(129);
    std::fill(spectrum->data, spectrum->data + 129, -7.0f);
    EXPECT_TRUE(k.readHeatMap(frame.get(), nullptr, spectrum, 0));
    EXPECT_EQ(std::count(spectrum->data, spectrum->data + 129, -7.0f), 129);
    EXPECT_GT(k.getPaWithTarget(fpoint2d{0.0f, 8, 6}).val, 0.0f);
    EXPECT_TRUE(k.readHeatMap(frame.get(), map.get(), spectrum, 0));
    float inBand = 0.0f, outBand = 0.0f;
    for (int bin = 0; bin < 129; ++bin)
        inBand += bin >= 56 && bin <= 104 ? spectrum->data[128 - bin] : 0.0f, outBand += bin < 40 || bin > 120 ? spectrum->data[128 - bin] : 0.0f;
    EXPECT_GT(inBand, 1000.0f * outBand);
    EXPECT_GE(*std::min_element(spectrum->data, spectrum->data + 129), 0.0f);
    destroy_vec_fp32(spectrum);
    AKUDoaKernel radius;
    ASSERT_TRUE(radius.init(ini(cameraIni(16, 256, 16, 12, 3, 0, 0), "radius.ini").c_str()));
    radius.setFocusRadius(true), radius.setSpectrumSelf(true);
    ASSERT_TRUE(radius.readHeatMap(frame.get(), map.get(), nullptr, 0));
    for (int i = 0; i < 16; ++i)
        for (int j = 0; j < 12; ++j)
            EXPECT_EQ(map->data[i][j] > 0.0f, i >= 5 && i < 11 && j >= 3 && j < 9) << i << "," << j;
}

// Program switching: the engine, the coordinate table and the stored
// program follow, both messages are logged, the new engine gets the default
// window, and switching back reproduces the first image exactly; an
// out-of-range enumerator reads as V3.
TEST_F(KernelTest, ProgramSwitchRebuildsAndReproduces)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(cameraIni(16, 256, 32, 24, 3, 1, 1)).c_str()));
    AKUDoaKernelPrivate* d = priv(k);
    AkuMat frame = capture(d->cfg, {akugrid_gridding_source(d->cfg, 10, 15)}), first = akumat(32, 24), map = akumat(32, 24);
    ASSERT_TRUE(k.readHeatMap(frame.get(), first.get(), nullptr, 0));
    for (auto [program, stored, name] : {std::tuple<DOAProgarm, int, std::string>{AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_3, 53, "v5 process 3"},
                                         {AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_4, 54, "v5 process 4"},
                                         {AKUDoaKernel::DOA_PROGRAM_V4, 4, "v4"}, {AKUDoaKernel::DOA_PROGRAM_V3, 3, "v3"}}) {
        capturedLines().clear();
        k.setDoaProgram(program);
        EXPECT_EQ(bodies().front(), "AKUDoaKernel::setDoaProgram start set doa program " + name + " ");
        EXPECT_EQ(bodies().back(), "AKUDoaKernel::setDoaProgram set doa program " + name + " ok ");
        EXPECT_TRUE(k.getDoaProgram() == program && d->cfg.doaVersionSelect == stored) << name;
        expectProgramParts(d, stored % 10 == 4);
        ASSERT_TRUE(k.readHeatMap(frame.get(), map.get(), nullptr, 0));
        const std::vector<float> now = akugrid_flat(map.get());
        EXPECT_GT(*std::max_element(now.begin(), now.end()), 0.0f) << name;
        EXPECT_EQ(now == akugrid_flat(first.get()), stored == 3) << name;
    }
    k.setDoaProgram(static_cast<DOAProgarm>(9));
    EXPECT_EQ(k.getDoaProgram(), AKUDoaKernel::DOA_PROGRAM_V3);
}
