// The scene simulator against physics: delays of a plane wave and of a point
// source, 1/r spreading, levels, bands, channel wiring, reproducibility.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numeric>

#include "camera.h"
#include "common.h"
#include "ini.h"
#include "scene.h"

using namespace akutool;

namespace {

double rms(const std::vector<float>& x, size_t from, size_t to)
{
    double s = 0;
    for (size_t i = from; i < to; ++i)
        s += static_cast<double>(x[i]) * x[i];
    return std::sqrt(s / static_cast<double>(to - from));
}

ArrayLayout layoutOf(std::vector<Vec3> pos, int capture = -1)
{
    ArrayLayout a;
    a.position = pos;
    for (size_t i = 0; i < pos.size(); ++i)
        a.channel.push_back(static_cast<int>(i));
    a.captureChannels = capture < 0 ? static_cast<int>(pos.size()) : capture;
    return a;
}

ResolvedSource noiseSource(bool plane, Vec3 v, double lo = 0, double hi = 0, double levelDb = -20)
{
    ResolvedSource r;
    r.planeWave = plane;
    r.v = v;
    r.spec.name = "source";
    r.spec.signal = SignalKind::Noise;
    r.spec.bandLow = lo;
    r.spec.bandHigh = hi;
    r.spec.levelDb = levelDb;
    return r;
}

// Reference fractional delay by direct band-limited interpolation: a long
// Blackman-windowed sinc, y[n] = x(n - d).
std::vector<double> sincDelay(const std::vector<float>& x, double d, long n0, long n1)
{
    const int half = 1500;
    std::vector<double> y;
    for (long n = n0; n < n1; ++n) {
        double t = n - d;
        long c = static_cast<long>(std::floor(t));
        double s = 0;
        for (long k = c - half + 1; k <= c + half; ++k) {
            double a = t - k;
            double w = 0.42 + 0.5 * std::cos(M_PI * a / half) + 0.08 * std::cos(2 * M_PI * a / half);
            double sinc = std::fabs(a) < 1e-12 ? 1.0 : std::sin(M_PI * a) / (M_PI * a);
            s += x[static_cast<size_t>(k)] * sinc * w;
        }
        y.push_back(s);
    }
    return y;
}

} // namespace

// A plane wave from 30 degrees off axis reaches a microphone 21.25 mm along
// x exactly 3 samples before the centre (at 96 kHz, 340 m/s): catches the
// sign of the delay and a lost or doubled sample.
TEST(SimulateScene, PlaneWaveIntegerDelayHasRightSign)
{
    Scene sc;
    sc.duration = 0.05;
    ArrayLayout a = layoutOf({{0, 0, 0}, {0.02125, 0, 0}, {-0.02125, 0, 0}});
    auto planes = simulateScene(sc, {noiseSource(true, {0.5, 0, std::sqrt(0.75)})}, a, 96000);
    ASSERT_EQ(planes.size(), 3u);
    const auto& c0 = planes[0];
    const auto& ahead = planes[1];
    const auto& behind = planes[2];
    double maxErr = 0;
    for (size_t n = 10; n + 10 < c0.size(); ++n) {
        maxErr = std::max(maxErr, std::fabs(static_cast<double>(ahead[n]) - c0[n + 3]));
        maxErr = std::max(maxErr, std::fabs(static_cast<double>(behind[n + 3]) - c0[n]));
    }
    EXPECT_LT(maxErr, 1e-5);
    EXPECT_NEAR(rms(c0, 0, c0.size()), 0.1, 0.01); // -20 dB full scale
}

// A fractional delay equals band-limited interpolation computed directly
// in the time domain (independent of the frequency-domain route).
TEST(SimulateScene, FractionalDelayMatchesSincInterpolation)
{
    Scene sc;
    sc.duration = 0.1;
    const double fs = 96000, c = 340;
    const double d = 0.37; // samples of delay at the second microphone
    ArrayLayout a = layoutOf({{0, 0, 0}, {-d * c / fs / 0.6, 0, 0}});
    // direction with x component 0.6: tau = -(p . n)/c = +d / fs
    auto planes = simulateScene(sc, {noiseSource(true, {0.6, 0, 0.8}, 0, 30000)}, a, 96000);
    const long n0 = 3000, n1 = 3400;
    std::vector<double> ref = sincDelay(planes[0], d, n0, n1);
    double err = 0, sig = 0;
    for (long n = n0; n < n1; ++n) {
        double e = planes[1][static_cast<size_t>(n)] - ref[static_cast<size_t>(n - n0)];
        err += e * e;
        sig += ref[static_cast<size_t>(n - n0)] * ref[static_cast<size_t>(n - n0)];
    }
    EXPECT_LT(std::sqrt(err / sig), 1e-3);
}

// A point source 0.5 m in front of one microphone and 1.0 m from another:
// amplitudes 2 : 1 (level at 1 m falls as 1/r), arrival 0.5 m / c later.
TEST(SimulateScene, PointSourceSpreadsAsOneOverR)
{
    Scene sc;
    sc.duration = 0.2;
    const Vec3 src{0, 0, 0.5};
    ArrayLayout a = layoutOf({{0, 0, 0}, {std::sqrt(0.75), 0, 0}});
    auto planes = simulateScene(sc, {noiseSource(false, src)}, a, 96000);
    const double shift = 0.5 / 340.0 * 96000.0; // 141.18 samples
    const size_t from = 400, to = planes[0].size() - 400;
    EXPECT_NEAR(rms(planes[0], from, to) / rms(planes[1], from, to), 2.0, 0.05);
    EXPECT_NEAR(rms(planes[0], from, to), 0.2, 0.01); // 0.1 at 1 m -> 0.2 at 0.5 m
    // Cross-correlation peak at the path difference.
    long best = 0;
    double bestv = -1e300;
    for (long lag = 100; lag < 180; ++lag) {
        double s = 0;
        for (size_t n = from; n < to - 200; ++n)
            s += static_cast<double>(planes[0][n]) * planes[1][n + static_cast<size_t>(lag)];
        if (s > bestv) {
            bestv = s;
            best = lag;
        }
    }
    EXPECT_EQ(best, std::lround(shift));
}

// Band-limited noise has (almost) no energy outside its band; catches a
// bin-to-frequency scaling error.
TEST(SimulateScene, NoiseStaysInItsBand)
{
    Scene sc;
    sc.duration = 0.5;
    ArrayLayout a = layoutOf({{0.01, 0.02, 0}});
    auto planes = simulateScene(sc, {noiseSource(true, {0, 0, 1}, 20000, 30000)}, a, 96000);
    const auto& x = planes[0];
    // Goertzel-style power at a few frequencies over a Hann window.
    auto power = [&](double f) {
        const size_t n = 8192, off = 4000;
        std::complex<double> acc = 0;
        for (size_t i = 0; i < n; ++i) {
            double w = 0.5 - 0.5 * std::cos(2 * M_PI * i / n);
            acc += w * static_cast<double>(x[off + i]) * std::polar(1.0, -2 * M_PI * f * i / 96000.0);
        }
        return std::norm(acc);
    };
    double in = (power(22000) + power(25000) + power(28000)) / 3;
    for (double f : {5000.0, 15000.0, 35000.0, 45000.0})
        EXPECT_LT(power(f), in * 1e-4) << f << " Hz";
    EXPECT_NEAR(rms(x, 0, x.size()), 0.1, 0.01);
}

// The recording of a subset layout: each microphone lands on the capture
// channel it is wired to, the others carry only the microphone noise.
TEST(SimulateScene, WiresMicrophonesToTheirCaptureChannels)
{
    Scene sc;
    sc.duration = 0.05;
    sc.micNoise = false;
    ArrayLayout a;
    a.position = {{0.01, 0, 0}, {0, 0.01, 0}};
    a.channel = {5, 2};
    a.captureChannels = 8;
    auto planes = simulateScene(sc, {noiseSource(true, {0, 0, 1})}, a, 48000);
    ASSERT_EQ(planes.size(), 8u);
    for (int ch = 0; ch < 8; ++ch) {
        double r = rms(planes[ch], 0, planes[ch].size());
        if (ch == 5 || ch == 2)
            EXPECT_NEAR(r, 0.1, 0.01) << ch;
        else
            EXPECT_EQ(r, 0.0) << ch;
    }
    // Broadside wave: both microphones see the same samples.
    for (size_t n = 0; n < planes[2].size(); ++n)
        ASSERT_NEAR(planes[2][n], planes[5][n], 1e-6);

    sc.micNoise = true;
    sc.micNoiseDb = -40;
    planes = simulateScene(sc, {noiseSource(true, {0, 0, 1})}, a, 48000);
    EXPECT_NEAR(rms(planes[0], 0, planes[0].size()), 0.01, 0.001);
    // Uncorrelated: the two wired channels now differ by the noise.
    EXPECT_NEAR(rms(planes[7], 0, planes[7].size()), 0.01, 0.001);
    double corr = 0;
    for (size_t n = 0; n < planes[0].size(); ++n)
        corr += static_cast<double>(planes[0][n]) * planes[1][n];
    EXPECT_LT(std::fabs(corr / planes[0].size()), 1e-5);

    a.channel = {3, 3};
    EXPECT_THROW(simulateScene(sc, {noiseSource(true, {0, 0, 1})}, a, 48000), ToolError);
}

TEST(SimulateScene, SameSeedSameRecordingOtherSeedOther)
{
    Scene sc;
    sc.duration = 0.02;
    sc.micNoise = true;
    sc.micNoiseDb = -50;
    ArrayLayout a = layoutOf({{0.01, 0, 0}, {-0.01, 0.005, 0}});
    auto first = simulateScene(sc, {noiseSource(true, {0.1, 0.2, 1})}, a, 96000);
    auto again = simulateScene(sc, {noiseSource(true, {0.1, 0.2, 1})}, a, 96000);
    EXPECT_EQ(first, again);
    sc.seed = 2;
    auto other = simulateScene(sc, {noiseSource(true, {0.1, 0.2, 1})}, a, 96000);
    EXPECT_NE(first, other);
}

// A tone keeps its frequency, level and delay.
TEST(SimulateScene, ToneHasItsLevelAndDelay)
{
    Scene sc;
    sc.duration = 0.05;
    ArrayLayout a = layoutOf({{0, 0, 0}, {0.02125, 0, 0}});
    ResolvedSource t = noiseSource(true, {0.5, 0, std::sqrt(0.75)});
    t.spec.signal = SignalKind::Tone;
    t.spec.frequency = 1000;
    t.spec.levelDb = -6.0206; // RMS 0.5
    auto planes = simulateScene(sc, {t}, a, 96000);
    EXPECT_NEAR(rms(planes[0], 0, 96 * 40), 0.5, 1e-3);
    for (size_t n = 0; n + 3 < planes[0].size(); ++n)
        ASSERT_NEAR(planes[1][n], planes[0][n + 3], 1e-5);
    t.spec.frequency = 48000;
    EXPECT_THROW(simulateScene(sc, {t}, a, 96000), ToolError);
}

TEST(SceneFile, ParsesSourcesAndRejectsMistakes)
{
    IniFile ini = IniFile::parse("[scene]\nduration = 0.5 ; seconds\nseed = 9\nmic_noise_db = -60\n"
                                 "[source a]\npixel = 3 4\nsignal = noise\nband = 20000, 40000\nlevel_db = -14\n"
                                 "[Source b]\nposition = 0.1 -0.2 2\nsignal = tone\nfrequency = 30000\n",
                                 "t.ini");
    Scene sc = parseScene(ini);
    EXPECT_EQ(sc.duration, 0.5);
    EXPECT_EQ(sc.seed, 9u);
    EXPECT_TRUE(sc.micNoise);
    EXPECT_EQ(sc.micNoiseDb, -60);
    ASSERT_EQ(sc.sources.size(), 2u);
    EXPECT_EQ(sc.sources[0].placement, Placement::Pixel);
    EXPECT_EQ(sc.sources[0].row, 3);
    EXPECT_EQ(sc.sources[0].col, 4);
    EXPECT_EQ(sc.sources[0].bandHigh, 40000);
    EXPECT_EQ(sc.sources[0].levelDb, -14);
    EXPECT_EQ(sc.sources[1].placement, Placement::Position);
    EXPECT_EQ(sc.sources[1].signal, SignalKind::Tone);
    EXPECT_EQ(sc.sources[1].position.y, -0.2);

    auto fails = [](const std::string& text, const std::string& needle) {
        try {
            parseScene(IniFile::parse(text, "bad.ini"));
        } catch (const ToolError& e) {
            EXPECT_NE(std::string(e.what()).find(needle), std::string::npos) << e.what();
            return;
        }
        ADD_FAILURE() << "accepted: " << text;
    };
    fails("[scene]\nduration = 1\n", "no [source");
    fails("[source]\npixel = 1 2\nposition = 0 0 1\n", "exactly one");
    fails("[source]\npixel = 1\n", "expected 2 numbers");
    fails("[source]\nposition = 0 0 -1\n", "z must be positive");
    fails("[source]\npixel = 1 2\nsignal = tone\n", "needs 'frequency'");
    fails("[source]\npixel = 1 2\nband = 3000 1000\n", "low < high");
    fails("[source]\npixel = 1 2\nlevel = 3\n", "bad.ini:3: [source] level: unknown key");
    fails("[sources]\npixel = 1 2\n[camera]\nx = 1\n", "unknown section [camera]");
    fails("[scene]\nduration = soon\n[source]\npixel = 1 2\n", "not a number");
}

// Pixel directions of the far-field grid: the centre of the image looks
// straight ahead, opposite pixels look to opposite sides, and the default
// half-turn orientation puts increasing rows along +x, columns along +y.
TEST(SceneGeometry, PixelDirectionsOfTheFarFieldGrid)
{
    ImageGeometry g;
    g.rows = 4;
    g.cols = 4;
    g.thetaXY = 1.0;
    g.angleDomainDeg = 45.0;
    PixelTarget centre = pixelTarget(g, 1.5, 1.5);
    EXPECT_NEAR(centre.v.x, 0, 1e-12);
    EXPECT_NEAR(centre.v.y, 0, 1e-12);
    EXPECT_NEAR(centre.v.z, 1, 1e-12);
    PixelTarget low = pixelTarget(g, 0, 0), high = pixelTarget(g, 3, 3);
    EXPECT_LT(low.v.x, 0);
    EXPECT_LT(low.v.y, 0);
    EXPECT_NEAR(high.v.x, -low.v.x, 1e-12);
    // Corner of the image sits at the angle domain when T = 1 and NR = NC:
    // the pixel-centre corner (0.375, 0.375) over D = 0.7071/tan 45.
    PixelTarget corner = pixelTarget(g, 3.5, 3.5);
    EXPECT_NEAR(std::acos(corner.v.z) * 180 / M_PI, 45.0, 1e-4);
    g.rotateMode = 0;
    PixelTarget flipped = pixelTarget(g, 3, 3);
    EXPECT_NEAR(flipped.v.x, low.v.x, 1e-12);
    g.program = 4;
    EXPECT_THROW(pixelTarget(g, 1, 1), ToolError);
}

// Every pixel's own direction is nearest to itself (the simulator's
// "expected at" line), far field and focused alike; the focal grid sits at
// the focus distance and is mirrored about the image centre.
TEST(SceneGeometry, EveryPixelIsNearestToItsOwnDirection)
{
    ImageGeometry g;
    g.rows = 12;
    g.cols = 10;
    for (bool focus : {false, true}) {
        g.focusEnabled = focus;
        g.focusDistance = 1.5;
        for (int r = 0; r < g.rows; ++r)
            for (int c = 0; c < g.cols; ++c) {
                PixelTarget t = pixelTarget(g, r, c);
                EXPECT_EQ(t.nearField, focus);
                if (focus) {
                    EXPECT_DOUBLE_EQ(t.v.z, 1.5);
                }
                int rr = -1, cc = -1;
                ASSERT_TRUE(nearestPixel(g, t.v, rr, cc));
                EXPECT_EQ(rr, r);
                EXPECT_EQ(cc, c);
                PixelTarget m = pixelTarget(g, g.rows - 1 - r, g.cols - 1 - c);
                EXPECT_NEAR(m.v.x, -t.v.x, 1e-12);
                EXPECT_NEAR(m.v.y, -t.v.y, 1e-12);
            }
    }
    // The affine correction: with rx3 = ry2 = 1 and offsets of 2 cells
    // (rx1 = 2 F) the delivered pixel (r, c) shows grid cell (r + 2, c).
    ImageGeometry corrected = g;
    corrected.focusEnabled = false;
    corrected.correction = true;
    corrected.rx1 = 2 * corrected.sectionFactor;
    corrected.rx3 = 1;
    corrected.ry2 = 1;
    g.focusEnabled = false;
    PixelTarget a = pixelTarget(corrected, 3, 4), b = pixelTarget(g, 5, 4);
    EXPECT_NEAR(a.v.x, b.v.x, 1e-12);
    EXPECT_NEAR(a.v.y, b.v.y, 1e-12);
}
