#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "AKUDoa/base/akudoalogging.h"
#include "AKUDoa/iir/akufilter.h"
#include "AKUDoa/iir/akuiirdesigner.h"

namespace {

const double kEps = std::numeric_limits<float>::epsilon();

IIRCoef_t coef(float b0, float b1, float b2, float a1, float a2) {
    IIRCoef_t c;
    c.b0 = b0;
    c.b1 = b1;
    c.b2 = b2;
    c.a0 = 1.0f;
    c.a1 = a1;
    c.a2 = a2;
    return c;
}

struct Response {
    double mag;
    double tol;  // bound from rounding the six coefficients to float
};

// |H(e^{jw})| of the section in double, with a tolerance scaled to the
// coefficient magnitudes relative to the denominator at that frequency.
Response response(const IIRCoef_t& c, double f, double fs) {
    const std::complex<double> z1 = std::polar(1.0, -2.0 * M_PI * f / fs);
    const std::complex<double> z2 = z1 * z1;
    const std::complex<double> num = double(c.b0) + double(c.b1) * z1 + double(c.b2) * z2;
    const std::complex<double> den = 1.0 + double(c.a1) * z1 + double(c.a2) * z2;
    const double mag = std::abs(num / den);
    const double sumB = std::fabs(c.b0) + std::fabs(c.b1) + std::fabs(c.b2);
    const double sumA = 1.0 + std::fabs(c.a1) + std::fabs(c.a2);
    return {mag, 16.0 * kEps * (sumB + mag * sumA) / std::abs(den)};
}

// Plain direct form I in double: the reference for the float section.
std::vector<double> referenceRun(const IIRCoef_t& c, const std::vector<double>& x) {
    std::vector<double> y(x.size());
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (size_t n = 0; n < x.size(); ++n) {
        const double v = double(c.b0) * x[n] + double(c.b1) * x1 + double(c.b2) * x2 - double(c.a1) * y1 -
                         double(c.a2) * y2;
        x2 = x1;
        x1 = x[n];
        y2 = y1;
        y1 = v;
        y[n] = v;
    }
    return y;
}

struct Design {
    float f0, q, gainDb, fs;
};

const Design kDesigns[] = {
    {1000.0f, 0.7071f, 6.0f, 48000.0f},
    {250.0f, 2.0f, -9.0f, 16000.0f},
    {5000.0f, 0.5f, 12.0f, 96000.0f},
    {12000.0f, 1.5f, -3.0f, 48000.0f},
};

std::vector<std::string> g_lines;
std::vector<std::string> g_files;
std::vector<std::string> g_functions;
std::vector<int> g_lineNumbers;

void captureHandler(const char* file, int line, const char* function, const char* message) {
    g_lines.emplace_back(message);
    g_files.emplace_back(file);
    g_functions.emplace_back(function);
    g_lineNumbers.push_back(line);
}

}  // namespace

TEST(IIRDesigner, LowPassUnitGainAtDc) {
    const IIRCoef_t c = AKUIIRDesigner::createLowPass(1000.0f, 0.7071f, 0.0f, 48000.0f);
    EXPECT_EQ(c.a0, 1.0f);
    const double dc = (double(c.b0) + c.b1 + c.b2) / (1.0 + c.a1 + c.a2);
    EXPECT_NEAR(dc, 1.0, response(c, 0.0, 48000.0).tol);
}

// Catches swapped signs, wrong A exponent, shelves mixed up: DC, f0 and
// Nyquist magnitudes follow from the cookbook definitions.
TEST(IIRDesigner, FiveResponsesAtDcCentreAndNyquist) {
    for (const Design& d : kDesigns) {
        const double A = std::pow(10.0, d.gainDb / 40.0);
        const double nyq = d.fs / 2.0;
        struct Expect {
            const char* name;
            IIRCoef_t c;
            double dc, centre, top;
        } cases[] = {
            {"lowpass", AKUIIRDesigner::createLowPass(d.f0, d.q, d.gainDb, d.fs), 1.0, d.q, 0.0},
            {"highpass", AKUIIRDesigner::createHighPass(d.f0, d.q, d.gainDb, d.fs), 0.0, d.q, 1.0},
            {"lowshelf", AKUIIRDesigner::createLowShift(d.f0, d.q, d.gainDb, d.fs), A * A, A, 1.0},
            {"highshelf", AKUIIRDesigner::createHighShift(d.f0, d.q, d.gainDb, d.fs), 1.0, A, A * A},
            {"peaking", AKUIIRDesigner::createNotch(d.f0, d.q, d.gainDb, d.fs), 1.0, A * A, 1.0},
        };
        for (const Expect& e : cases) {
            SCOPED_TRACE(testing::Message() << e.name << " f0 " << d.f0 << " q " << d.q << " gain "
                                            << d.gainDb << " fs " << d.fs);
            EXPECT_EQ(e.c.a0, 1.0f);
            const Response r0 = response(e.c, 0.0, d.fs);
            const Response rc = response(e.c, d.f0, d.fs);
            const Response rn = response(e.c, nyq, d.fs);
            EXPECT_NEAR(r0.mag, e.dc, r0.tol + 1e-6 * e.dc);
            EXPECT_NEAR(rc.mag, e.centre, rc.tol + 1e-6 * e.centre);
            EXPECT_NEAR(rn.mag, e.top, rn.tol + 1e-6 * e.top);
        }
        // The peaking section's extremum is at f0.
        const IIRCoef_t pk = AKUIIRDesigner::createNotch(d.f0, d.q, d.gainDb, d.fs);
        const double atF0 = response(pk, d.f0, d.fs).mag;
        for (double f : {0.8 * d.f0, 1.25 * d.f0}) {
            const double m = response(pk, f, d.fs).mag;
            if (d.gainDb > 0) {
                EXPECT_LT(m, atF0);
            } else {
                EXPECT_GT(m, atF0);
            }
        }
    }
}

TEST(IIRDesigner, PeakingWithZeroGainIsIdentity) {
    for (const Design& d : kDesigns) {
        const IIRCoef_t c = AKUIIRDesigner::createNotch(d.f0, d.q, 0.0f, d.fs);
        EXPECT_EQ(c.b0, 1.0f);
        EXPECT_EQ(c.b1, c.a1);
        EXPECT_EQ(c.b2, c.a2);
    }
}

TEST(IIRDesigner, DegenerateArgumentsGiveNonFiniteCoefficients) {
    const IIRCoef_t q0 = AKUIIRDesigner::createLowPass(1000.0f, 0.0f, 0.0f, 48000.0f);
    EXPECT_FALSE(std::isfinite(q0.a2) && std::isfinite(q0.b0) && std::isfinite(q0.a1));
    const IIRCoef_t fs0 = AKUIIRDesigner::createHighPass(1000.0f, 0.7f, 0.0f, 0.0f);
    EXPECT_TRUE(std::isnan(fs0.b0));
}

// The float transposed-direct-form section against a double direct form I
// over a long impulse response and a noise block (catches a swapped state
// update or a wrong feedback sign, which diverge within a few samples).
TEST(IIRFilter, MatchesDoubleDirectFormReference) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    for (const Design& d : kDesigns) {
        const IIRCoef_t designs[] = {
            AKUIIRDesigner::createLowPass(d.f0, d.q, d.gainDb, d.fs),
            AKUIIRDesigner::createHighPass(d.f0, d.q, d.gainDb, d.fs),
            AKUIIRDesigner::createLowShift(d.f0, d.q, d.gainDb, d.fs),
            AKUIIRDesigner::createHighShift(d.f0, d.q, d.gainDb, d.fs),
            AKUIIRDesigner::createNotch(d.f0, d.q, d.gainDb, d.fs),
        };
        for (const IIRCoef_t& c : designs) {
            for (int kind = 0; kind < 2; ++kind) {
                const int n = 512;
                std::vector<float> x(n, 0.0f);
                if (kind == 0) {
                    x[0] = 1.0f;
                } else {
                    for (float& v : x) v = uni(rng);
                }
                AKUFilter f(c);
                std::vector<float> y(n);
                f.filter(x.data(), y.data(), n);
                const std::vector<double> ref = referenceRun(c, std::vector<double>(x.begin(), x.end()));
                double scale = 0.0;
                for (double v : ref) scale = std::max(scale, std::fabs(v));
                for (int i = 0; i < n; ++i)
                    ASSERT_NEAR(y[static_cast<size_t>(i)], ref[static_cast<size_t>(i)], 1e-5 * scale)
                        << "sample " << i << (kind == 0 ? " impulse" : " noise");
            }
        }
    }
}

// State carries across blocks: any split of the input gives the same output
// as one call, bit for bit; empty and negative counts leave it untouched.
TEST(IIRFilter, BlocksContinueStateExactly) {
    const IIRCoef_t c = AKUIIRDesigner::createNotch(440.0f, 3.0f, -12.0f, 8000.0f);
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> uni(-1.0f, 1.0f);
    std::vector<float> x(300);
    for (float& v : x) v = uni(rng);

    AKUFilter whole(c);
    std::vector<float> y1(x.size());
    whole.filter(x.data(), y1.data(), static_cast<int>(x.size()));

    AKUFilter parts(c);
    std::vector<float> y2(x.size(), 99.0f);
    size_t pos = 0;
    const int sizes[] = {1, 7, 0, 64, -5, 3, 100};
    for (int s : sizes) {
        parts.filter(x.data() + pos, y2.data() + pos, s);
        if (s > 0) pos += static_cast<size_t>(s);
    }
    parts.filter(x.data() + pos, y2.data() + pos, static_cast<int>(x.size() - pos));
    EXPECT_EQ(y1, y2);

    // In place gives the same as separate buffers.
    AKUFilter inPlace(c);
    std::vector<float> buf = x;
    inPlace.filter(buf.data(), buf.data(), static_cast<int>(buf.size()));
    EXPECT_EQ(buf, y1);
}

TEST(IIRFilter, ResetAndSetCoefRestartFromZeroState) {
    const IIRCoef_t c = AKUIIRDesigner::createLowPass(2000.0f, 0.9f, 0.0f, 16000.0f);
    std::vector<float> x(64);
    for (size_t i = 0; i < x.size(); ++i) x[i] = std::sin(0.3f * static_cast<float>(i));

    AKUFilter fresh(c);
    std::vector<float> expect(x.size());
    fresh.filter(x.data(), expect.data(), static_cast<int>(x.size()));

    AKUFilter used(c);
    std::vector<float> y(x.size());
    used.filter(x.data(), y.data(), static_cast<int>(x.size()));
    used.filter(x.data(), y.data(), static_cast<int>(x.size()));
    EXPECT_NE(y, expect);  // state from the first block shows
    used.reset();
    used.filter(x.data(), y.data(), static_cast<int>(x.size()));
    EXPECT_EQ(y, expect);

    AKUFilter other(AKUIIRDesigner::createHighPass(300.0f, 0.7f, 0.0f, 16000.0f));
    other.filter(x.data(), y.data(), static_cast<int>(x.size()));
    other.setCoef(c);
    other.filter(x.data(), y.data(), static_cast<int>(x.size()));
    EXPECT_EQ(y, expect);
}

TEST(IIRFilter, SetCoefLogsTheCoefficients) {
    g_lines.clear();
    g_files.clear();
    g_functions.clear();
    g_lineNumbers.clear();
    InstallDoaMessageHandler(captureHandler);
    AKUFilter f(coef(0.5f, 0.25f, 0.125f, -1.5f, 0.5625f));
    f.setCoef(coef(0.25f, 0.5f, 0.25f, -1.5f, 0.5625f));
    InstallDoaMessageHandler(nullptr);
    ASSERT_EQ(g_lines.size(), 1u);
    EXPECT_EQ(g_lines[0], "[AKUDOALIB] filter coef 1 -1.5 0.5625 0.25 0.5 0.25 \r\n");
    EXPECT_EQ(g_files[0], "../../V5/AKUDoa/iir/akufilter");
    EXPECT_EQ(g_lineNumbers[0], 67);
    EXPECT_EQ(g_functions[0], "void AKUFilter::setCoef(IIRCoef)");
}

// 16-bit samples: full scale is 32767; outputs truncate toward zero and keep
// only the low 16 bits, so overdriven outputs wrap instead of clipping.
TEST(IIRFilter, ShortSamplesScaleTruncateAndWrap) {
    const IIRCoef_t unit = coef(1.0f, 0.0f, 0.0f, 0.0f, 0.0f);
    {
        AKUFilter f(unit);
        const float in[4] = {2.0f, -2.0f, 1.0f, -0.99999f};
        short out[4];
        f.filter(in, out, 4);
        EXPECT_EQ(out[0], -2);      // 65534 -> 0xFFFE
        EXPECT_EQ(out[1], 2);       // -65534 -> 0x0002
        EXPECT_EQ(out[2], 32767);
        EXPECT_EQ(out[3], -32766);  // -32766.67 truncated toward zero
    }
    {
        // Beyond the 32-bit range the conversion saturates before the wrap.
        AKUFilter f(unit);
        const float in[2] = {1e6f, -1e6f};
        short out[2];
        f.filter(in, out, 2);
        EXPECT_EQ(out[0], -1);  // 0x7FFFFFFF -> 0xFFFF
        EXPECT_EQ(out[1], 0);   // 0x80000000 -> 0x0000
    }
    {
        // short -> float divides by 32767; short -> short round-trips a
        // unit filter exactly.
        AKUFilter f(unit);
        const short in[4] = {32767, -32767, 16384, -1};
        float out[4];
        f.filter(in, out, 4);
        EXPECT_EQ(out[0], 1.0f);
        EXPECT_EQ(out[1], -1.0f);
        EXPECT_EQ(out[2], 16384.0f / 32767.0f);
        EXPECT_EQ(out[3], -1.0f / 32767.0f);
        AKUFilter g(unit);
        short back[4];
        g.filter(in, back, 4);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(back[i], in[i]);
    }
    {
        // Every overload runs the same section: short -> float equals
        // float -> float on the scaled input, float -> short truncates it.
        const IIRCoef_t c = AKUIIRDesigner::createLowShift(500.0f, 0.7f, 6.0f, 16000.0f);
        std::vector<short> s(200);
        std::vector<float> xs(s.size());
        for (size_t i = 0; i < s.size(); ++i) {
            s[i] = static_cast<short>(8000.0 * std::sin(0.05 * static_cast<double>(i)));
            xs[i] = static_cast<float>(s[i]) / 32767.0f;
        }
        AKUFilter a(c), b(c), e(c), g(c);
        std::vector<float> ya(s.size()), yb(s.size());
        std::vector<short> ye(s.size()), yg(s.size());
        a.filter(s.data(), ya.data(), static_cast<int>(s.size()));
        b.filter(xs.data(), yb.data(), static_cast<int>(s.size()));
        e.filter(s.data(), ye.data(), static_cast<int>(s.size()));
        g.filter(xs.data(), yg.data(), static_cast<int>(s.size()));
        EXPECT_EQ(ya, yb);
        EXPECT_EQ(ye, yg);
        for (size_t i = 0; i < s.size(); ++i) {
            const float v = yb[i] * 32767.0f;
            ASSERT_LT(std::fabs(v), 32767.0f);  // stays in range: no wrap here
            EXPECT_EQ(ye[i], static_cast<short>(static_cast<int32_t>(v))) << i;
        }
    }
}
