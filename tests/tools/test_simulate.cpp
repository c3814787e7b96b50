// The scene simulator against physics (delays of plane waves and point
// sources, 1/r spreading, levels, channel wiring), the scene file, and the
// pixel directions the simulator aims its sources at.
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <utility>

#include "camera.h"
#include "common.h"
#include "ini.h"
#include "scene.h"

using namespace akutool;

namespace {

ResolvedSource source(bool plane, Vec3 v, double hi = 0, double toneHz = 0, double levelDb = -20)
{
    ResolvedSource r;
    r.planeWave = plane, r.v = v, r.spec.frequency = toneHz, r.spec.bandHigh = hi, r.spec.levelDb = levelDb;
    r.spec.signal = toneHz > 0 ? SignalKind::Tone : SignalKind::Noise;
    return r;
}

// Band-limited interpolation computed directly in the time domain (a long
// Blackman-windowed sinc), independent of the simulator's frequency-domain
// route: y[n] = x(n - d).
double sincAt(const std::vector<float>& x, double t)
{
    const int half = 1500;
    const long c = static_cast<long>(std::floor(t));
    double s = 0;
    for (long k = c - half + 1; k <= c + half; ++k) {
        const double a = t - k;
        const double w = 0.42 + 0.5 * std::cos(M_PI * a / half) + 0.08 * std::cos(2 * M_PI * a / half);
        s += x[static_cast<size_t>(k)] * (std::fabs(a) < 1e-12 ? 1.0 : std::sin(M_PI * a) / (M_PI * a)) * w;
    }
    return s;
}

} // namespace

// Microphone 1 hears microphone 0's signal delayed by d samples and scaled
// by gain: plane waves from 30 degrees off axis reach a microphone 21.25 mm
// along x 3 samples early (96 kHz, 340 m/s); a point source 0.5 m in front
// of microphone 0 reaches one 1 m away 141.18 samples later at half the
// amplitude. Catches the delay's sign, a lost sample, a wrong 1/r law.
TEST(SimulateScene, DelaysAndLevelsFollowTheGeometry)
{
    const double s30 = std::sqrt(0.75), d37 = 0.37 * 340 / 96000 / 0.6;
    struct Case { const char* what; Vec3 mic1; ResolvedSource src; double d, gain, rms0; };
    const Case cases[] = {
        {"plane, ahead", {0.02125, 0, 0}, source(true, {0.5, 0, s30}, 30000), -3, 1, 0.1},
        {"plane, fractional", {-d37, 0, 0}, source(true, {0.6, 0, 0.8}, 30000), 0.37, 1, 0.1},
        {"tone", {0.02125, 0, 0}, source(true, {0.5, 0, s30}, 0, 1000, -6.0206), -3, 1, 0.5},
        {"point source", {s30, 0, 0}, source(false, {0, 0, 0.5}, 30000), 0.5 / 340 * 96000, 0.5, 0.2},
    };
    for (const Case& c : cases) {
        Scene sc;
        sc.duration = 0.1;
        ArrayLayout a;
        a.position = {{0, 0, 0}, c.mic1}, a.channel = {0, 1}, a.captureChannels = 2;
        const auto p = simulateScene(sc, {c.src}, a, 96000);
        EXPECT_EQ(p, simulateScene(sc, {c.src}, a, 96000)) << "the same seed gave another recording";
        ASSERT_EQ(p.size(), 2u);
        double err = 0, sig = 0;
        for (long n = 3000; n < 3400; ++n) {
            const double ref = c.gain * sincAt(p[0], n - c.d);
            err += (p[1][n] - ref) * (p[1][n] - ref);
            sig += ref * ref;
        }
        EXPECT_LT(std::sqrt(err / sig), 1e-3) << c.what;
        const double e0 = std::inner_product(p[0].begin() + 1000, p[0].begin() + 8600, p[0].begin() + 1000, 0.0);
        EXPECT_NEAR(std::sqrt(e0 / 7600), c.rms0, 0.05 * c.rms0) << c.what;
    }
}

// Each mistake in a scene file is refused with a message that names it.
TEST(SceneFile, RejectsMistakes)
{
    const std::pair<const char*, const char*> bad[] = {
        {"[scene]\nduration = 1\n", "no [source"},
        {"[source]\npixel = 1 2\nposition = 0 0 1\n", "exactly one"},
        {"[source]\npixel = 1\n", "expected 2 numbers"},
        {"[source]\nposition = 0 0 -1\n", "z must be positive"},
        {"[source]\npixel = 1 2\nsignal = tone\n", "needs 'frequency'"},
        {"[source]\npixel = 1 2\nband = 3000 1000\n", "low < high"},
        {"[source]\npixel = 1 2\nlevel = 3\n", "bad.ini:3: [source] level: unknown key"},
        {"[scene]\nduration = soon\n[source]\npixel = 1 2\n", "not a number"},
    };
    for (const auto& [text, needle] : bad) {
        try {
            parseScene(IniFile::parse(text, "bad.ini"));
            ADD_FAILURE() << "accepted: " << text;
        } catch (const ToolError& e) {
            EXPECT_NE(std::string(e.what()).find(needle), std::string::npos) << e.what();
        }
    }
}

// Every pixel's direction is nearest to itself, far field and focused, and
// the image centre looks straight ahead; each rotate mode mirrors the
// unrotated grid on its own axes; the affine correction with an offset of
// two cells shows grid cell (r + 2, c) at pixel (r, c).
TEST(SceneGeometry, PixelDirectionsOfTheGrid)
{
    ImageGeometry g;
    g.rows = 12, g.cols = 10, g.focusDistance = 1.5;
    for (bool focus : {false, true}) {
        g.focusEnabled = focus;
        for (int r = 0; r < g.rows; ++r)
            for (int c = 0; c < g.cols; ++c) {
                const PixelTarget t = pixelTarget(g, r, c);
                int rr = -1, cc = -1;
                ASSERT_TRUE(nearestPixel(g, t.v, rr, cc));
                EXPECT_EQ(std::make_pair(rr, cc), std::make_pair(r, c)) << focus;
                EXPECT_EQ(t.v.z == 1.5, focus);
            }
    }
    g.focusEnabled = false;
    EXPECT_NEAR(std::hypot(pixelTarget(g, 5.5, 4.5).v.x, pixelTarget(g, 5.5, 4.5).v.y), 0, 1e-12);
    struct Case {
        int mode;
        bool correct;
        int rawRow, rawCol; // the unrotated grid cell pixel (2, 3) shows
    } cases[] = {{1, false, 9, 6}, {2, false, 2, 6}, {3, false, 9, 3}, {0, true, 4, 3}};
    for (const Case& c : cases) {
        ImageGeometry m = g, raw = g;
        m.rotateMode = c.mode, raw.rotateMode = 0, m.correction = c.correct;
        m.rx1 = 2 * m.sectionFactor, m.rx3 = m.ry2 = 1;
        const Vec3 a = pixelTarget(m, 2, 3).v, b = pixelTarget(raw, c.rawRow, c.rawCol).v;
        EXPECT_NEAR(std::hypot(a.x - b.x, a.y - b.y), 0, 1e-12) << c.mode << c.correct;
    }
    g.program = 4;
    EXPECT_THROW(pixelTarget(g, 1, 1), ToolError);
}
