// Microphone geometry: built-in layouts, geometry and sensitivity files,
// per-microphone log lines, unsupported microphone counts.
#include <sys/wait.h>

#include <cmath>
#include <cstring>

#include "kernel_fixture.h"

using kerneltest::KernelTest;

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Geometry {
    int32_t index[128];
    float phi[128];
    float radius[128];
};

Geometry builtin(int count)
{
    Geometry g{};
    EXPECT_TRUE(akudoa_builtin_geometry(count, g.index, g.phi, g.radius)) << count;
    return g;
}

double deg(double d)
{
    return d * kPi / 180.0;
}

std::string iniFor(int mics, int frame, const std::string& extra = "")
{
    return "[AudioRecordingParam]\nchannel_num = " + std::to_string(mics) + "\nframe_size = " +
           std::to_string(frame) + "\n[AcousticCameraParam]\nimage_resolution_row = 4\nimage_resolution_col = 4\n" +
           extra;
}

} // namespace

// Ring radii, ring rotation and wrap-around of the 128 layout: catches a
// degree/radian slip, a missing wrap, or rings built in the wrong order.
TEST(Geometry, Layout128)
{
    const Geometry g = builtin(128);
    EXPECT_NEAR(g.radius[0], 0.0171, 1e-6);
    EXPECT_NEAR(g.phi[0], 0.0, 1e-6);
    EXPECT_NEAR(g.radius[1], 0.0171, 1e-6);
    EXPECT_NEAR(g.phi[1], 0.369599, 1e-6);
    EXPECT_NEAR(g.radius[17], 0.0242, 1e-6);
    EXPECT_NEAR(g.phi[17], 0.897598, 1e-6);
    EXPECT_NEAR(g.radius[119], 0.01, 1e-6);
    EXPECT_NEAR(g.phi[119], 1.396263, 1e-6);

    for (int i = 0; i < 128; ++i) {
        EXPECT_EQ(g.index[i], i);
        EXPECT_GE(g.phi[i], -kPi) << i;
        EXPECT_LE(g.phi[i], kPi) << i;
    }
    for (int k = 0; k < 7; ++k) {
        for (int j = 0; j < 17; ++j) {
            const int i = 17 * k + j;
            EXPECT_NEAR(g.radius[i], 0.0171 + 0.0071 * k, 1e-6) << i;
            // Same direction as the unwrapped angle.
            const double a = deg(k * 360.0 / 7.0 + j * 360.0 / 17.0);
            EXPECT_NEAR(std::cos(g.phi[i]), std::cos(a), 1e-6) << i;
            EXPECT_NEAR(std::sin(g.phi[i]), std::sin(a), 1e-6) << i;
        }
    }
    const double inner[9] = {80, 120, 160, -160, -120, -80, -40, 0, 40};
    for (int j = 0; j < 9; ++j)
        EXPECT_NEAR(g.phi[119 + j], deg(inner[j]), 1e-6) << j;

    // No two microphones share a position.
    for (int a = 0; a < 128; ++a)
        for (int b = a + 1; b < 128; ++b) {
            const double dx = g.radius[a] * std::cos(g.phi[a]) - g.radius[b] * std::cos(g.phi[b]);
            const double dy = g.radius[a] * std::sin(g.phi[a]) - g.radius[b] * std::sin(g.phi[b]);
            EXPECT_GT(std::hypot(dx, dy), 1e-3) << a << " " << b;
        }
}

TEST(Geometry, Rings8And16)
{
    const Geometry g8 = builtin(8);
    const double a8[8] = {0, 0.785398, 1.570796, 2.356194, 3.141593, -2.356194, -1.570796, -0.785398};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(g8.index[i], i);
        EXPECT_NEAR(g8.phi[i], a8[i], 1e-6) << i;
        EXPECT_EQ(g8.radius[i], 0.025f);
    }
    const Geometry g16 = builtin(16);
    const double a16[16] = {0,         0.392699,  0.785398,  1.178097,  1.570796,  1.963495,  2.356194,  2.748893,
                            3.141593, -2.748893, -2.356194, -1.963495, -1.570796, -1.178097, -0.785398, -0.392699};
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(g16.index[i], i);
        EXPECT_NEAR(g16.phi[i], a16[i], 1e-6) << i;
        EXPECT_EQ(g16.radius[i], 0.06f);
    }
}

// Subsets take exactly the position of their capture channel in the 128
// layout; the index tables are strictly increasing and inside 0..127.
TEST(Geometry, SubsetLayouts)
{
    const Geometry full = builtin(128);
    const Geometry g64 = builtin(64);
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(g64.index[i], 2 * i);
    EXPECT_NEAR(g64.radius[1], 0.0171, 1e-6);
    EXPECT_NEAR(g64.phi[1], 0.739198, 1e-6);
    EXPECT_NEAR(g64.phi[1] * 180.0 / kPi, 42.353, 1e-3);

    const Geometry g48 = builtin(48);
    const Geometry g36 = builtin(36);
    EXPECT_EQ(g48.index[8], 19);
    EXPECT_EQ(g48.index[47], 126);
    EXPECT_EQ(g36.index[0], 3);
    EXPECT_EQ(g36.index[16], 70);
    EXPECT_EQ(g36.index[35], 124);
    for (const auto& [count, g] : {std::pair<int, const Geometry*>{36, &g36}, {48, &g48}, {64, &g64}}) {
        for (int i = 0; i < count; ++i) {
            const int c = g->index[i];
            ASSERT_GE(c, 0);
            ASSERT_LT(c, 128);
            if (i > 0) {
                EXPECT_LT(g->index[i - 1], c) << count << " " << i;
            }
            EXPECT_EQ(g->phi[i], full.phi[c]) << count << " " << i;
            EXPECT_EQ(g->radius[i], full.radius[c]) << count << " " << i;
        }
    }
    int32_t idx[128];
    float phi[128], rad[128];
    for (int bad : {0, 7, 32, 96, 129, -8})
        EXPECT_FALSE(akudoa_builtin_geometry(bad, idx, phi, rad)) << bad;
}

// The per-microphone lines show the one-based capture channel.
TEST_F(KernelTest, MicLinesOf8Ring)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(iniFor(8, 128)).c_str()));
    std::vector<std::string> mic;
    for (const std::string& b : bodies())
        if (b.find(" Radius = ") != std::string::npos)
            mic.push_back(b);
    ASSERT_EQ(mic.size(), 8u);
    const char* phis[8] = {"0", "0.785398", "1.5708", "2.35619", "3.14159", "-2.35619", "-1.5708", "-0.785398"};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(mic[i], std::to_string(i + 1) + " Radius = 0.025 MicPhi = " + phis[i] + " ");
    EXPECT_FALSE(logged("doakernel init: use special formation file " + path("x") + " "));
}

TEST_F(KernelTest, GeometryOf64InRecord)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(iniFor(64, 128)).c_str()));
    const StCamCfg& c = priv(k)->cfg;
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(c.micIndex[i], 2 * i);
    EXPECT_NEAR(c.micRadius[1], 0.0171, 1e-6);
    EXPECT_NEAR(c.micPhi[1], 0.739198, 1e-6);
    EXPECT_FLOAT_EQ(c.micMaxRadius, 0.11f);
}

// A geometry file replaces all three arrays; the lines show its indices + 1.
TEST_F(KernelTest, GeometryFile)
{
    const int n = 16;
    std::vector<int32_t> idx(n);
    std::vector<float> phi(n), rad(n);
    for (int i = 0; i < n; ++i) {
        idx[i] = 100 + i;
        phi[i] = -0.5f + 0.0625f * i;
        rad[i] = 0.25f + 0.125f * i;
    }
    std::vector<char> blob(n * 12);
    std::memcpy(blob.data(), idx.data(), n * 4);
    std::memcpy(blob.data() + n * 4, phi.data(), n * 4);
    std::memcpy(blob.data() + n * 8, rad.data(), n * 4);
    const std::string geom = path("geom.bin");
    ASSERT_TRUE(kerneltest::writeFile(geom, blob.data(), blob.size()));

    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(iniFor(n, 128, "[MicParam]\nMicFile = " + geom + "\n")).c_str()));
    const StCamCfg& c = priv(k)->cfg;
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(c.micIndex[i], idx[i]);
        EXPECT_EQ(c.micPhi[i], phi[i]);
        EXPECT_EQ(c.micRadius[i], rad[i]);
    }
    const std::vector<std::string> b = bodies();
    size_t at = 0;
    while (at < b.size() && b[at] != "doakernel init: use special formation file " + geom + " ")
        ++at;
    ASSERT_LT(at + n, b.size());
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(b[at + 1 + i].rfind(std::to_string(101 + i) + " Radius = ", 0), 0u) << b[at + 1 + i];
}

// A short geometry file fills what it holds and keeps the built-in values
// for the rest; nothing is read past the arrays.
TEST_F(KernelTest, ShortGeometryFile)
{
    const int n = 16;
    const Geometry ref = builtin(n);
    std::vector<int32_t> idx(n);
    for (int i = 0; i < n; ++i)
        idx[i] = 15 - i;
    const float somePhi[3] = {0.5f, 0.25f, -0.75f};
    std::vector<char> blob(n * 4 + sizeof(somePhi));
    std::memcpy(blob.data(), idx.data(), n * 4);
    std::memcpy(blob.data() + n * 4, somePhi, sizeof(somePhi));
    ASSERT_TRUE(kerneltest::writeFile(path("short.bin"), blob.data(), blob.size()));

    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(iniFor(n, 128, "[MicParam]\nMicFile = " + path("short.bin") + "\n")).c_str()));
    const StCamCfg& c = priv(k)->cfg;
    for (int i = 0; i < n; ++i) {
        EXPECT_EQ(c.micIndex[i], 15 - i);
        EXPECT_EQ(c.micPhi[i], i < 3 ? somePhi[i] : ref.phi[i]) << i;
        EXPECT_EQ(c.micRadius[i], ref.radius[i]) << i;
    }

    // An empty file changes nothing, a missing one is not even announced.
    ASSERT_TRUE(kerneltest::writeFile(path("empty.bin"), nullptr, 0));
    AKUDoaKernel e;
    ASSERT_TRUE(e.init(ini(iniFor(n, 128, "[MicParam]\nMicFile = " + path("empty.bin") + "\n"), "e.ini").c_str()));
    EXPECT_EQ(std::memcmp(priv(e)->cfg.micIndex, ref.index, n * 4), 0);
    kerneltest::capturedLines().clear();
    AKUDoaKernel m;
    ASSERT_TRUE(m.init(ini(iniFor(n, 128, "[MicParam]\nMicFile = " + path("absent.bin") + "\n"), "m.ini").c_str()));
    EXPECT_EQ(std::memcmp(priv(m)->cfg.micPhi, ref.phi, n * 4), 0);
    for (const std::string& b : bodies())
        EXPECT_EQ(b.find("special formation"), std::string::npos);
    EXPECT_TRUE(logged("doakernel init: read mic info success "));
}

// Indices outside the capture channels would read past the caller's frame:
// such positions keep their built-in channel.
TEST_F(KernelTest, GeometryFileIndexOutOfRange)
{
    const int n = 8;
    int32_t idx[n] = {7, 6, 128, 4, -1, 2, 1, 0};
    ASSERT_TRUE(kerneltest::writeFile(path("bad.bin"), idx, sizeof(idx)));
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(iniFor(n, 128, "[MicParam]\nMicFile = " + path("bad.bin") + "\n")).c_str()));
    const int32_t want[n] = {7, 6, 2, 4, 4, 2, 1, 0};
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(priv(k)->cfg.micIndex[i], want[i]) << i;
}

// Sensitivity gains: frameSize / 2 + 1 preset to 1, as many read from the
// file as it holds, never more than that count.
TEST_F(KernelTest, SensitivityFile)
{
    {
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(iniFor(8, 1024)).c_str()));
        const StCamCfg& c = priv(k)->cfg;
        for (int b = 0; b < 513; ++b)
            ASSERT_EQ(c.micSensitivity[b], 1.0f) << b;
        EXPECT_EQ(c.micSensitivity[513], 0.0f);
    }
    {
        // Longer than needed: only 513 gains are taken.
        std::vector<float> g(600);
        for (size_t i = 0; i < g.size(); ++i)
            g[i] = 2.0f + static_cast<float>(i);
        ASSERT_TRUE(kerneltest::writeFile(path("long.bin"), g.data(), g.size() * 4));
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(
            ini(iniFor(8, 1024, "[MicParam]\nMicSenCalibrationFile = " + path("long.bin") + "\n"), "l.ini").c_str()));
        const StCamCfg& c = priv(k)->cfg;
        for (int b = 0; b < 513; ++b)
            ASSERT_EQ(c.micSensitivity[b], g[b]) << b;
        EXPECT_EQ(c.micSensitivity[513], 0.0f);
        EXPECT_TRUE(logged("doakernel init: use special sensitvity calibration file " + path("long.bin") + " "));
    }
    {
        // Shorter, and with a torn last value: the rest stays at 1 apart
        // from the torn gain's first bytes.
        std::vector<float> g(101, 0.25f);
        ASSERT_TRUE(kerneltest::writeFile(path("short.bin"), g.data(), 100 * 4 + 2));
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(
            ini(iniFor(8, 256, "[MicParam]\nMicSenCalibrationFile = " + path("short.bin") + "\n"), "s.ini").c_str()));
        const StCamCfg& c = priv(k)->cfg;
        for (int b = 0; b < 129; ++b)
            if (b != 100) {
                ASSERT_EQ(c.micSensitivity[b], b < 100 ? 0.25f : 1.0f) << b;
            }
    }
    {
        // Frames above the record's capacity must not overflow it.
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(iniFor(8, 2048, "[MicParam]\nMicSenCalibrationFile = " + path("long.bin") + "\n"),
                               "big.ini")
                               .c_str()));
        for (int b = 0; b < 514; ++b)
            ASSERT_EQ(priv(k)->cfg.micSensitivity[b], 2.0f + static_cast<float>(b)) << b;
    }
}

// An unsupported count ends the process with status 0 after the notice on
// standard output (and after the configuration summary in the log).
TEST_F(KernelTest, UnsupportedMicCountExits)
{
    for (int count : {32, 0, 129}) {
        const std::string cfg = ini(iniFor(count, 128), "n" + std::to_string(count) + ".ini");
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        fflush(stdout);
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            dup2(fds[1], STDOUT_FILENO);
            close(fds[0]);
            close(fds[1]);
            AKUDoaKernel k;
            k.init(cfg.c_str());
            _exit(3); // init must not return
        }
        close(fds[1]);
        std::string out;
        char buf[256];
        ssize_t n;
        while ((n = read(fds[0], buf, sizeof(buf))) > 0)
            out.append(buf, static_cast<size_t>(n));
        close(fds[0]);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status)) << count;
        EXPECT_EQ(WEXITSTATUS(status), 0) << count;
        EXPECT_EQ(out, "please set correct mic number!!!") << count;
    }
}

// Frames enter in array order through micIndex: catches an identity copy or
// an index off by one on the subset arrays.
TEST_F(KernelTest, FrameCopyFollowsMicIndex)
{
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(iniFor(64, 64)).c_str()));
    AKUDoaKernelPrivate* p = priv(k);
    mat2d_fp32* in = create_mat2d_fp32(128, 64);
    for (int r = 0; r < 128; ++r)
        for (int c = 0; c < 64; ++c)
            in->data[r][c] = static_cast<float>(r * 1000 + c);
    p->pushDoaAudioFrame(in);
    p->pushExtraAudioFrame(in);
    for (int r = 0; r < 64; ++r)
        for (int c = 0; c < 64; ++c) {
            ASSERT_EQ(p->doaFrame->data[r][c], static_cast<float>(2 * r * 1000 + c));
            ASSERT_EQ(p->extraFrame->data[r][c], static_cast<float>(2 * r * 1000 + c));
        }

    // The pickup ring: three buffers reused in turn, the newest at the back.
    ASSERT_EQ(p->framePool.size(), 3u);
    const std::vector<mat2d_fp32*> bufs(p->framePool.begin(), p->framePool.end());
    for (int frame = 0; frame < 4; ++frame) {
        in->data[0][0] = static_cast<float>(-1 - frame);
        p->pushPickUpAudioFrame(in);
        EXPECT_EQ(p->framePool.back(), bufs[frame % 3]) << frame;
        EXPECT_EQ(p->framePool.back()->data[0][0], static_cast<float>(-1 - frame));
    }
    EXPECT_EQ(p->framePool.size(), 3u);
    // The fourth frame overwrote the buffer of the first; the second survives.
    EXPECT_EQ(bufs[0]->data[0][0], -4.0f);
    EXPECT_EQ(bufs[1]->data[0][0], -2.0f);
    destroy_mat2d_fp32(in);
}
