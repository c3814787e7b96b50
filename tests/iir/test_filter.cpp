#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>

#include "AKUDoa/base/akudoalogging.h"
#include "AKUDoa/iir/akufilter.h"
#include "AKUDoa/iir/akuiirdesigner.h"

namespace {

IIRCoef_t coef(float b0, float b1, float b2, float a1, float a2) { return IIRCoef_t{b0, b1, b2, 1.0f, a1, a2}; }

// |H(e^{jw})| in double, and the bound from rounding the six coefficients to float.
std::pair<double, double> response(const IIRCoef_t& c, double f, double fs)
{
    const std::complex<double> z1 = std::polar(1.0, -2.0 * M_PI * f / fs), z2 = z1 * z1;
    const std::complex<double> den = 1.0 + double(c.a1) * z1 + double(c.a2) * z2;
    const double mag = std::abs((double(c.b0) + double(c.b1) * z1 + double(c.b2) * z2) / den);
    const double sums = std::fabs(c.b0) + std::fabs(c.b1) + std::fabs(c.b2) + mag * (1.0 + std::fabs(c.a1) + std::fabs(c.a2));
    return {mag, 16.0 * std::numeric_limits<float>::epsilon() * sums / std::abs(den)};
}

struct Design { float f0, q, gainDb, fs; };
const Design kDesigns[] = {{1000.0f, 0.7071f, 6.0f, 48000.0f}, {250.0f, 2.0f, -9.0f, 16000.0f}, {5000.0f, 0.5f, 12.0f, 96000.0f}, {12000.0f, 1.5f, -3.0f, 48000.0f}};
IIRCoef_t (*const kMakers[5])(float, float, float, float) = {AKUIIRDesigner::createLowPass, AKUIIRDesigner::createHighPass, AKUIIRDesigner::createLowShift,
                                                             AKUIIRDesigner::createHighShift, AKUIIRDesigner::createNotch};

std::vector<std::string> g_lines;

} // namespace

// Magnitudes at DC, f0 and Nyquist follow from the cookbook definitions
// (swapped signs, wrong A exponent, shelves mixed up); the float section
// follows a double direct form I over noise (swapped state
// update, wrong feedback sign).
TEST(IIR, DesignsAndSectionAgainstDoubleReference)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    for (const Design& d : kDesigns) {
        const double A = std::pow(10.0, d.gainDb / 40.0);
        const double want[5][3] = {{1.0, d.q, 0.0}, {0.0, d.q, 1.0}, {A * A, A, 1.0}, {1.0, A, A * A}, {1.0, A * A, 1.0}};
        for (int k = 0; k < 5; ++k) {
            const IIRCoef_t c = kMakers[k](d.f0, d.q, d.gainDb, d.fs);
            SCOPED_TRACE(testing::Message() << "design " << k << " f0 " << d.f0 << " q " << d.q << " gain " << d.gainDb);
            EXPECT_EQ(c.a0, 1.0f);
            const double at[3] = {0.0, d.f0, d.fs / 2.0};
            for (int i = 0; i < 3; ++i) {
                const auto [mag, tol] = response(c, at[i], d.fs);
                EXPECT_NEAR(mag, want[k][i], tol + 1e-6 * want[k][i]) << "at " << at[i] << " Hz";
            }
            std::vector<float> x(512), y(512);
            std::generate(x.begin(), x.end(), [&] { return uni(rng); });
            AKUFilter(c).filter(x.data(), y.data(), 512);
            std::vector<double> ref(512);
            double x1 = 0, x2 = 0, y1 = 0, y2 = 0, scale = 0;
            for (int n = 0; n < 512; ++n) {
                ref[n] = double(c.b0) * x[n] + double(c.b1) * x1 + double(c.b2) * x2 - double(c.a1) * y1 - double(c.a2) * y2;
                x2 = x1, x1 = x[n], y2 = y1, y1 = ref[n];
                scale = std::max(scale, std::fabs(ref[n]));
            }
            for (int n = 0; n < 512; ++n)
                ASSERT_NEAR(y[n], ref[n], 1e-5 * scale) << "sample " << n;
        }
    }
}

// State carries across blocks bit for bit (empty and negative counts leave
// it alone); in place equals separate buffers; reset and setCoef restart it.
TEST(IIR, StateAcrossBlocksResetAndSetCoef)
{
    const IIRCoef_t c = AKUIIRDesigner::createNotch(440.0f, 3.0f, -12.0f, 8000.0f);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    std::vector<float> x(300), whole(300), parts(300, 99.0f);
    std::generate(x.begin(), x.end(), [&] { return uni(rng); });
    AKUFilter a(c), b(c), e(AKUIIRDesigner::createHighPass(300.0f, 0.7f, 0.0f, 16000.0f));
    a.filter(x.data(), whole.data(), 300);
    size_t pos = 0;
    for (int s : {1, 7, 0, 64, -5, 3, 100, 125}) {
        b.filter(x.data() + pos, parts.data() + pos, s);
        pos += s > 0 ? s : 0;
    }
    EXPECT_EQ(parts, whole);
    std::vector<float> buf = x;
    b.reset();
    b.filter(buf.data(), buf.data(), 300);
    EXPECT_EQ(buf, whole);
    g_lines.clear();
    InstallDoaMessageHandler([](const char* file, int line, const char* fn, const char* text) { g_lines.push_back(std::string(file) + "|" + std::to_string(line) + "|" + fn + "|" + text); });
    e.filter(x.data(), buf.data(), 300);
    e.setCoef(coef(0.25f, 0.5f, 0.25f, -1.5f, 0.5625f));
    InstallDoaMessageHandler(nullptr);
    ASSERT_EQ(g_lines, std::vector<std::string>{"../../V5/AKUDoa/iir/akufilter|67|void AKUFilter::setCoef(IIRCoef)|[AKUDOALIB] filter coef 1 -1.5 0.5625 0.25 0.5 0.25 \r\n"});
    e.setCoef(c);
    e.filter(x.data(), buf.data(), 300);
    EXPECT_EQ(buf, whole);
}

// 16-bit samples: full scale 32767; outputs truncate toward zero and keep
// the low 16 bits (overdrive wraps; beyond int32 it saturates first); every
// overload runs the same section.
TEST(IIR, ShortSamples)
{
    const IIRCoef_t unit = coef(1.0f, 0.0f, 0.0f, 0.0f, 0.0f);
    const float in[6] = {2.0f, -2.0f, 1.0f, -0.99999f, 1e6f, -1e6f};
    short out[6];
    AKUFilter(unit).filter(in, out, 6);
    EXPECT_EQ(std::vector<short>(out, out + 6), (std::vector<short>{-2, 2, 32767, -32766, -1, 0}));
    const short sin[4] = {32767, -32767, 16384, -1};
    float fout[4];
    AKUFilter(unit).filter(sin, fout, 4);
    EXPECT_EQ(std::vector<float>(fout, fout + 4), (std::vector<float>{1.0f, -1.0f, 16384.0f / 32767.0f, -1.0f / 32767.0f}));
    AKUFilter(unit).filter(sin, out, 4);
    EXPECT_EQ(std::vector<short>(out, out + 4), std::vector<short>(sin, sin + 4));

    // Every overload runs the same section: short in equals float in scaled by 1/32767, short out truncates.
    const IIRCoef_t c = AKUIIRDesigner::createLowShift(500.0f, 0.7f, 6.0f, 16000.0f);
    std::vector<short> s(200), ye(200), yg(200);
    std::vector<float> xs(200), ya(200), yb(200);
    for (size_t i = 0; i < s.size(); ++i)
        s[i] = static_cast<short>(8000.0 * std::sin(0.05 * double(i))), xs[i] = float(s[i]) / 32767.0f;
    AKUFilter(c).filter(s.data(), ya.data(), 200);
    AKUFilter(c).filter(xs.data(), yb.data(), 200);
    AKUFilter(c).filter(s.data(), ye.data(), 200);
    AKUFilter(c).filter(xs.data(), yg.data(), 200);
    EXPECT_TRUE(ya == yb && ye == yg);
    for (size_t i = 0; i < s.size(); ++i)
        EXPECT_EQ(ye[i], static_cast<short>(static_cast<int32_t>(yb[i] * 32767.0f))) << i;
}
