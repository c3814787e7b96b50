// The gridding programs (4 and 54) through the kernel: engine and
// coordinate-table choice at init and on a program switch, focus updates,
// and a simulated source imaged end to end.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "AKUDoa/akudoacordinate_p.h"
#include "AKUDoa/akudoaquantizev3.h"
#include "AKUDoa/akudoaquantizev4.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "kernel_fixture.h"
#include "support/akudoagrid.h"
#include "support/akudoasim.h"

using namespace kerneltest;

namespace {

constexpr double kPi = 3.14159265358979323846;

// 16 microphones, 32 x 24 image (a format with its own gridding lens
// correction), 256-sample frames, 20-40 kHz band.
std::string camera(int program, int correction, const std::string& extra = "")
{
    return "[AudioRecordingParam]\nchannel_num = 16\nframe_size = 256\nsample_frequency = 96000\n"
           "[AcousticCameraParam]\nimage_resolution_row = 32\nimage_resolution_col = 24\n"
           "image_correction_flag = " + std::to_string(correction) + "\nrotate_mode = 1\n"
           "rx1 = 0\nrx2 = 0\nrx3 = 1\nry1 = 0\nry2 = 1\nry3 = 0\ndistanceMeasure_en = false\n"
           "[DOA]\nextra_en = false\nDOAVersionSelect = " + std::to_string(program) + "\n" + extra;
}

struct Owned {
    mat2d_fp32* m;
    explicit Owned(mat2d_fp32* p) : m(p) {}
    Owned(int r, int c) : m(create_mat2d_fp32(r, c)) {}
    ~Owned() { destroy_mat2d_fp32(m); }
};

std::vector<float> flat(const mat2d_fp32* m)
{
    std::vector<float> v;
    for (int i = 0; i < m->rows; ++i)
        v.insert(v.end(), m->data[i], m->data[i] + m->cols);
    return v;
}

std::vector<float> table(AKUDoaKernelPrivate* d)
{
    return std::vector<float>(d->cordinate->data, d->cordinate->data + d->cordinate->n);
}

std::vector<float> expectedTable(const StCamCfg& c, bool gridding)
{
    std::vector<float> t(static_cast<size_t>(c.imageResolutionRow) * c.imageResolutionCol * 2);
    const CordinateMat m{c.rx1, c.rx2, c.rx3, c.ry1, c.ry2, c.ry3};
    if (gridding)
        akudoa_cordinate_generate_v4(m, static_cast<float>(c.sectionFactor), c.imageResolutionRow,
                                     c.imageResolutionCol, t.data());
    else
        akudoa_cordinate_generate(m, static_cast<float>(c.sectionFactor), c.imageResolutionRow,
                                  c.imageResolutionCol, t.data());
    return t;
}

// In-plane direction of the gridding engine's unturned pixel (r, c).
void griddingDirection(const StCamCfg& cfg, int r, int c, double& dx, double& dy)
{
    const int G = std::max(cfg.imageResolutionRow, cfg.imageResolutionCol) + 2;
    const double t = 0.7071067811865476 / std::tan((cfg.eangleDomain + 1) * kPi / 180.0);
    const double pitch = 2.0 * std::sin(std::atan2(0.5 * cfg.micMaxRadius + 0.5, t)) / G;
    dx = (r - cfg.imageResolutionRow / 2) * pitch;
    dy = (c - cfg.imageResolutionCol / 2) * pitch / cfg.imageThetaXYFactor;
}

// Capture frame of a source seen by the gridding engine at pixel (r, c):
// a plane wave, or a point at distance `dist` when dist > 0.
mat2d_fp32* griddingFrame(const StCamCfg& cfg, int r, int c, double dist = 0.0)
{
    double dx, dy;
    griddingDirection(cfg, r, c, dx, dy);
    AkuSimSource s;
    const double dz = std::sqrt(1.0 - dx * dx - dy * dy);
    s.pointSource = dist > 0.0;
    const double scale = dist > 0.0 ? dist : 1.0;
    s.x = scale * dx;
    s.y = scale * dy;
    s.z = scale * dz;
    Owned arrayFrame(akusim_frame(akusim_array_from_cfg(cfg), {s}, cfg.sampleFrequency, cfg.frameSize));
    return akugrid_capture_frame(cfg, arrayFrame.m);
}

} // namespace

// Init with program 54: the gridding engine, its coordinate table and the
// program line; a source shows up at its pixel through the kernel.
TEST_F(KernelTest, GriddingProgramAtInit)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(camera(54, 1)).c_str()));
    EXPECT_EQ(k.getDoaProgram(), AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_4);
    EXPECT_NE(dynamic_cast<AKUDoaQuantizeV4*>(priv(k)->doaEngine), nullptr);
    EXPECT_TRUE(logged("doa program: 5 process 4 "));
    const std::vector<float> v4 = expectedTable(priv(k)->cfg, true);
    EXPECT_EQ(table(priv(k)), v4);
    EXPECT_NE(v4, expectedTable(priv(k)->cfg, false)); // the lens correction does change this format

    AKUDoaKernel p4;
    ASSERT_TRUE(p4.init(ini(camera(4, 0), "p4.ini").c_str()));
    EXPECT_EQ(p4.getDoaProgram(), AKUDoaKernel::DOA_PROGRAM_V4);
    EXPECT_NE(dynamic_cast<AKUDoaQuantizeV4*>(priv(p4)->doaEngine), nullptr);
    for (const auto& px : std::vector<std::pair<int, int>>{{8, 6}, {22, 17}}) {
        Owned frame(griddingFrame(priv(p4)->cfg, px.first, px.second));
        Owned map(32, 24);
        ASSERT_TRUE(p4.readHeatMap(frame.m, map.m, nullptr, 0));
        int r, c;
        akugrid_argmax(map.m, r, c);
        EXPECT_LE(std::abs(r - px.first), 1) << px.first << "," << px.second << " found " << r << "," << c;
        EXPECT_LE(std::abs(c - px.second), 1) << px.first << "," << px.second << " found " << r << "," << c;
    }
}

// 3 -> 54 -> 3: the engine and the coordinate table follow the program,
// both messages are logged each way, and the first V3 image comes back
// exactly.
TEST_F(KernelTest, SwitchToGriddingAndBackReproducesTheFirstImage)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(camera(3, 1)).c_str()));
    AKUDoaKernelPrivate* d = priv(k);
    ASSERT_NE(dynamic_cast<AKUDoaQuantizeV3*>(d->doaEngine), nullptr);
    const std::vector<float> plainTable = table(d);
    EXPECT_EQ(plainTable, expectedTable(d->cfg, false));
    Owned frame(griddingFrame(d->cfg, 10, 15));
    Owned first(32, 24), second(32, 24), again(32, 24);
    ASSERT_TRUE(k.readHeatMap(frame.m, first.m, nullptr, 0));

    capturedLines().clear();
    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V5_PROCESS_4);
    const std::vector<std::string> lines = bodies();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), "AKUDoaKernel::setDoaProgram start set doa program v5 process 4 ");
    EXPECT_EQ(lines.back(), "AKUDoaKernel::setDoaProgram set doa program v5 process 4 ok ");
    EXPECT_EQ(d->cfg.doaVersionSelect, 54);
    EXPECT_NE(dynamic_cast<AKUDoaQuantizeV4*>(d->doaEngine), nullptr);
    EXPECT_EQ(table(d), expectedTable(d->cfg, true));
    ASSERT_TRUE(k.readHeatMap(frame.m, second.m, nullptr, 0));
    EXPECT_NE(flat(second.m), flat(first.m));
    float peak = 0.0f;
    for (float v : flat(second.m))
        peak = std::max(peak, v);
    EXPECT_GT(peak, 0.0f); // the new engine got the default window

    capturedLines().clear();
    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V4);
    EXPECT_TRUE(logged("AKUDoaKernel::setDoaProgram start set doa program v4 "));
    EXPECT_TRUE(logged("AKUDoaKernel::setDoaProgram set doa program v4 ok "));
    EXPECT_NE(dynamic_cast<AKUDoaQuantizeV4*>(d->doaEngine), nullptr);

    k.setDoaProgram(AKUDoaKernel::DOA_PROGRAM_V3);
    EXPECT_TRUE(logged("AKUDoaKernel::setDoaProgram set doa program v3 ok "));
    EXPECT_NE(dynamic_cast<AKUDoaQuantizeV3*>(d->doaEngine), nullptr);
    EXPECT_EQ(table(d), plainTable);
    ASSERT_TRUE(k.readHeatMap(frame.m, again.m, nullptr, 0));
    EXPECT_EQ(flat(again.m), flat(first.m));
}

// Focus on a gridding program: the update is logged with its distance and
// state, and a point source at the focus distance lands at its pixel.
TEST_F(KernelTest, FocusDistanceReachesTheGriddingEngine)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(camera(4, 0)).c_str()));
    capturedLines().clear();
    k.setFocusDis(0.3f, true);
    bool sawLine = false;
    for (const std::string& l : bodies())
        if (l.rfind("doakernel setFocusDis: TargetDistance = 0.3 ENABLE  use time(ms) ", 0) == 0)
            sawLine = true;
    EXPECT_TRUE(sawLine);
    const AKUDoaQuantizeV4Private* e = static_cast<AKUDoaQuantizeV4*>(priv(k)->doaEngine)->privateData();
    EXPECT_NE(e->focusPhase->data[60][1], 0.0f);

    const StCamCfg& cfg = priv(k)->cfg;
    Owned frame(griddingFrame(cfg, 9, 16, 0.3));
    Owned map(32, 24);
    ASSERT_TRUE(k.readHeatMap(frame.m, map.m, nullptr, 0));
    int r, c;
    akugrid_argmax(map.m, r, c);
    EXPECT_LE(std::abs(r - 9), 1) << r << "," << c;
    EXPECT_LE(std::abs(c - 16), 1) << r << "," << c;
}
