// Microphone geometry: built-in layouts, the geometry, sensitivity and INI
// files (good, short, bad values, files that are not regular), and
// unsupported counts.
#include <sys/stat.h>

#include "kernel_fixture.h"

using namespace kerneltest;

namespace {

template <int N> struct Layout { // as in a geometry file: indices, azimuths, radii
    int32_t index[N];
    float phi[N];
    float radius[N];
};
using Geometry = Layout<128>;
using GeometryFile = Layout<8>;

Geometry builtin(int count)
{
    Geometry g{};
    EXPECT_TRUE(akudoa_builtin_geometry(count, g.index, g.phi, g.radius)) << count;
    return g;
}

} // namespace

// Spot values of each layout (catches a degree/radian slip, a missing wrap,
// rings built in the wrong order or a wrong subset table), then: subsets sit
// exactly on their capture channel of the 128 layout, azimuths lie in -pi..pi.
TEST(Geometry, BuiltinLayouts)
{
    struct Spot { int count, position, index; double radius, phi; };
    const Spot spots[] = {{128, 0, 0, 0.0171, 0.0},         {128, 1, 1, 0.0171, 0.369599},
                          {128, 17, 17, 0.0242, 0.897598},  {128, 118, 118, 0.0597, -1.267197},
                          {128, 119, 119, 0.01, 1.396263},  {128, 122, 122, 0.01, -2.792527},
                          {8, 5, 5, 0.025, -2.356194},      {16, 9, 9, 0.06, -2.748893},
                          {64, 1, 2, 0.0171, 0.739198},     {48, 8, 19, 0.0242, 0.0},
                          {48, 47, 126, 0.01, 0.0},       {36, 16, 70, 0.0455, 0.0},
                          {36, 35, 124, 0.01, 0.0}};
    const Geometry full = builtin(128);
    for (const Spot& s : spots) {
        const Geometry g = builtin(s.count);
        EXPECT_EQ(g.index[s.position], s.index) << s.count << " " << s.position;
        EXPECT_NEAR(g.radius[s.position], s.radius, 1e-6) << s.count << " " << s.position;
        if (s.count <= 16 || s.count == 128 || s.position == 1) {
            EXPECT_NEAR(g.phi[s.position], s.phi, 1e-6) << s.count << " " << s.position;
        }
        for (int i = 0; i < s.count; ++i) {
            ASSERT_TRUE(g.index[i] >= 0 && g.index[i] < 128 && std::fabs(g.phi[i]) <= M_PI + 1e-6) << s.count << " " << i;
            if (s.count > 16) {
                ASSERT_TRUE(g.phi[i] == full.phi[g.index[i]] && g.radius[i] == full.radius[g.index[i]]) << i;
            }
        }
    }
    Geometry g{};
    for (int bad : {0, 7, 32, 96, 129, -8})
        EXPECT_FALSE(akudoa_builtin_geometry(bad, g.index, g.phi, g.radius)) << bad;
}

// Geometry and sensitivity files: what each position and bin ends up with,
// and the line that says so. Bad values keep the built-in ones; files that
// are not regular (FIFO, device, directory) are refused without blocking.
TEST_F(KernelTest, GeometryAndSensitivityFiles)
{
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    const Geometry ref = builtin(8);
    struct Case {
        const char* name;
        std::function<void(GeometryFile&)> edit; // applied to the file's values
        size_t bytes;                        // written of the 96-byte file
        std::vector<int> builtinAt;          // positions refused for their values
        const char* line;                    // a logged line starts so
    };
    const std::vector<Case> cases = {
        {"full", [](GeometryFile&) {}, 96, {}, "doakernel init: use special formation file"},
        {"short", [](GeometryFile&) {}, 80, {}, "doakernel init: use special formation file"},
        {"bad values", [](GeometryFile& g) { g.phi[1] = g.radius[2] = kNaN, g.radius[3] = kInf, g.phi[4] = 1e30f, g.radius[5] = -20.0f, g.radius[6] = 1e30f; },
         96, {1, 2, 3, 4, 5, 6}, "doakernel init: refused mic position 1"},
        {"bad index", [](GeometryFile& g) { g.index[6] = 128; g.index[7] = -1; }, 96, {}, "doakernel init: mic index"},
        {"zero radii", [](GeometryFile& g) { std::fill(g.radius, g.radius + 8, 0.0f); }, 96, {}, "doakernel init: refused"},
        {"fifo", nullptr, 0, {}, "doakernel init: refused"}, // the sensitivity file is opened the same way
    };
    for (const Case& cs : cases) {
        GeometryFile file{}; // the file's layout for 8 microphones
        for (int i = 0; i < 8; ++i)
            file.index[i] = 7 - i, file.phi[i] = -3.0f + 0.75f * i, file.radius[i] = 0.03f + 0.01f * i;
        if (cs.edit)
            cs.edit(file);
        const std::string geom = path(cs.name);
        ASSERT_TRUE(!cs.edit || kerneltest::writeFile(geom, &file, cs.bytes));
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        ASSERT_TRUE(k.init(ini(cameraIni(8, 64, 4, 4, 3, -1, 0, "[MicParam]\nMicFile = " + geom + "\n")).c_str())) << cs.name;
        const StCamCfg& c = priv(k)->cfg;
        for (int i = 0; i < 8; ++i) {
            // Past the bytes written, or refused: the built-in value.
            const bool kept = std::count(cs.builtinAt.begin(), cs.builtinAt.end(), i) > 0, zero = cs.name == std::string("zero radii");
            EXPECT_EQ(c.micIndex[i], file.index[i] < 0 || file.index[i] > 127 || 4u * i + 4 > cs.bytes ? ref.index[i] : file.index[i]) << cs.name << i;
            EXPECT_EQ(c.micPhi[i], kept || 36u + 4 * i > cs.bytes ? ref.phi[i] : file.phi[i]) << cs.name << i;
            EXPECT_EQ(c.micRadius[i], kept || zero || 68u + 4 * i > cs.bytes ? ref.radius[i] : file.radius[i]) << cs.name << i;
        }
        const std::vector<std::string> b = bodies();
        EXPECT_TRUE(std::any_of(b.begin(), b.end(), [&](const std::string& l) { return l.rfind(cs.line, 0) == 0; }))
            << cs.name;
    }

    // Sensitivity: as many gains as the file holds, bad ones stay at 1.
    std::vector<float> gains(40, 0.5f);
    gains[3] = kNaN, gains[5] = -1.0f, gains[7] = kInf;
    ASSERT_TRUE(kerneltest::writeFile(path("sens"), gains.data(), 20 * 4));
    AKUDoaKernel k;
    ASSERT_TRUE(k.init(ini(cameraIni(8, 64, 4, 4, 3, -1, 0, "[MicParam]\nMicSenCalibrationFile = " + path("sens") + "\n")).c_str()));
    for (int b = 0; b < 33; ++b)
        EXPECT_EQ(priv(k)->cfg.micSensitivity[b], b < 20 && b != 3 && b != 5 && b != 7 ? 0.5f : 1.0f) << b;
    EXPECT_EQ(priv(k)->cfg.micSensitivity[33], 0.0f);

    // The INI file itself: refused, never read until end of file.
    for (const std::string& cfg : {path("fifo"), std::string("/dev/zero"), dir_}) {
        kerneltest::capturedLines().clear();
        AKUDoaKernel k;
        EXPECT_FALSE(k.init(cfg.c_str())) << cfg;
        EXPECT_TRUE(logged("doakernel init: load config failed ")) << cfg;
    }
}

// An unsupported count ends the process with status 0 after the notice on
// standard output (sent to stderr here, where the death test reads).
// The threadsafe death test re-runs the test in a child, which makes its own
// directory and leaves through exit(): the child removes it then.
std::string leaving;

TEST_F(KernelTest, UnsupportedMicCountExits)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int count : {32, 0}) {
        const std::string cfg = ini(cameraIni(count, 64, 4, 4, 3, -1, 0));
        EXPECT_EXIT((dup2(STDERR_FILENO, STDOUT_FILENO), leaving = dir_, std::atexit([] { removeTree(leaving); }), AKUDoaKernel().init(cfg.c_str()), std::exit(3)), ::testing::ExitedWithCode(0),
                    "please set correct mic number!!!$") << count;
    }
}
