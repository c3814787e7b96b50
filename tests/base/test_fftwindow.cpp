#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "AKUDoa/base/akufftwindow.h"

namespace {

std::vector<float> makeWindow(int n, FFTWindowType type, float p1, float p3) {
    AKUFFTWindow win(n, type, p1, 0.0f, p3);
    std::vector<float> w(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) w[static_cast<size_t>(i)] = win.data()->data[i];
    return w;
}

struct RefCase {
    int type;
    int n;
    float param;
    std::vector<double> w;
};

std::vector<RefCase> loadReference() {
    std::vector<RefCase> out;
    std::ifstream in(std::string(AKUDOA_TEST_DATA_DIR) + "/fft_windows.txt");
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream ls(line);
        RefCase c;
        ls >> c.type >> c.n >> c.param;
        double v;
        while (ls >> v) c.w.push_back(v);
        out.push_back(c);
    }
    return out;
}

// Allowed deviation from the double-precision reference. The cosine sums
// and Parzen are evaluated in double and only rounded to float; the
// triangles and Bohman carry single-precision sample positions; Gaussian,
// Tukey and Chebyshev run most of their arithmetic in float (Tukey's slope
// is up to pi/r per unit of t, Chebyshev's series accumulates rounding over
// N/2 terms).
double tolerance(int type, double ref) {
    const double a = std::fabs(ref);
    switch (type) {
        case FFT_WINDOW_GAUSSIAN: return 1e-7 + 2e-6 * a;
        case FFT_WINDOW_TUKEY: return 2e-6;
        case FFT_WINDOW_CHEBYSHEV: return 1e-6 + 2e-5 * a;
        default: return 2e-7;
    }
}

}  // namespace

// Every window whose definition is the textbook one, against scipy's tables
// (catches wrong coefficients, divisor N vs N-1, off-by-one sample index).
TEST(FFTWindow, MatchesIndependentTables) {
    const std::vector<RefCase> cases = loadReference();
    ASSERT_GT(cases.size(), 100u) << "reference table missing or truncated";
    int checked = 0;
    for (const RefCase& c : cases) {
        ASSERT_EQ(static_cast<int>(c.w.size()), c.n);
        const FFTWindowType type = static_cast<FFTWindowType>(c.type);
        const float p1 = (type == FFT_WINDOW_GAUSSIAN) ? c.param : 0.0f;
        const float p3 = (type == FFT_WINDOW_GAUSSIAN) ? 0.0f : c.param;
        const std::vector<float> w = makeWindow(c.n, type, p1, p3);
        for (int i = 0; i < c.n; ++i) {
            const double ref = c.w[static_cast<size_t>(i)];
            ASSERT_NEAR(w[static_cast<size_t>(i)], ref, tolerance(c.type, ref))
                << "type " << c.type << " N " << c.n << " param " << c.param << " sample " << i;
        }
        ++checked;
    }
    EXPECT_EQ(checked, static_cast<int>(cases.size()));
}

TEST(FFTWindow, UnknownTypesAreRectangularAndKeepTheirValue) {
    for (int t : {0, 15, 99}) {
        AKUFFTWindow win(7, static_cast<FFTWindowType>(t), 2.0f, 3.0f, 0.5f);
        EXPECT_EQ(static_cast<int>(win.windowType()), t);
        ASSERT_EQ(win.winLength(), 7);
        for (int i = 0; i < 7; ++i) EXPECT_EQ(win.data()->data[i], 1.0f) << "type " << t;
    }
}

// Even-length Bartlett: the rising half stops one sample before the centre.
TEST(FFTWindow, BartlettEvenLengthKeepsItsAsymmetry) {
    const std::vector<float> w4 = makeWindow(4, FFT_WINDOW_BARTLETT, 0, 0);
    // 2 - 2/3 is a rounding tie in single precision, hence the one-ulp
    // leeway; the sample must still exceed 1.
    EXPECT_EQ(w4[0], 0.0f);
    EXPECT_FLOAT_EQ(w4[1], 1.3333334f);
    EXPECT_GT(w4[1], 1.0f);
    EXPECT_FLOAT_EQ(w4[2], 0.6666666f);
    EXPECT_EQ(w4[3], 0.0f);

    const std::vector<float> w6 = makeWindow(6, FFT_WINDOW_BARTLETT, 0, 0);
    const float expect6[6] = {0.0f, 0.4f, 1.2f, 0.8f, 0.4f, 0.0f};
    for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(w6[static_cast<size_t>(i)], expect6[i]) << i;
}

// Even-length Gaussian is centred on sample N/2.
TEST(FFTWindow, GaussianEvenLengthPeaksAtHalfLength) {
    const int n = 8;
    const float alpha = 2.5f;
    const std::vector<float> w = makeWindow(n, FFT_WINDOW_GAUSSIAN, alpha, 0);
    EXPECT_EQ(w[4], 1.0f);
    EXPECT_LT(w[3], 1.0f);
    for (int k = 1; k <= 3; ++k) EXPECT_EQ(w[static_cast<size_t>(4 - k)], w[static_cast<size_t>(4 + k)]) << k;
    for (int i = 0; i < n; ++i) {
        const double x = (i - 4) * 2.0 * alpha / (n - 1);
        EXPECT_NEAR(w[static_cast<size_t>(i)], std::exp(-0.5 * x * x), 1e-6 * std::exp(-0.5 * x * x)) << i;
    }
    // Odd length stays centred.
    const std::vector<float> w7 = makeWindow(7, FFT_WINDOW_GAUSSIAN, alpha, 0);
    EXPECT_EQ(w7[3], 1.0f);
    EXPECT_EQ(w7[0], w7[6]);
}

// Even-length Parzen runs over integer offsets -(N/2-1) .. N/2.
TEST(FFTWindow, ParzenEvenLengthRange) {
    const std::vector<float> w4 = makeWindow(4, FFT_WINDOW_PARZEN, 0, 0);
    const float e4[4] = {0.25f, 1.0f, 0.25f, 0.0f};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(w4[static_cast<size_t>(i)], e4[i]) << i;

    const std::vector<float> w6 = makeWindow(6, FFT_WINDOW_PARZEN, 0, 0);
    const float e6[6] = {static_cast<float>(2.0 / 27.0), static_cast<float>(5.0 / 9.0), 1.0f,
                         static_cast<float>(5.0 / 9.0), static_cast<float>(2.0 / 27.0), 0.0f};
    for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(w6[static_cast<size_t>(i)], e6[i]) << i;
}

TEST(FFTWindow, BlackmanHarrisIsPeriodic) {
    const std::vector<float> w = makeWindow(4, FFT_WINDOW_BLACKMAN_HARRIS, 0, 0);
    EXPECT_FLOAT_EQ(w[0], 0.00006f);
    EXPECT_FLOAT_EQ(w[1], 0.21747f);
    EXPECT_FLOAT_EQ(w[2], 1.0f);
    EXPECT_FLOAT_EQ(w[3], 0.21747f);
}

// The flat top's constant term is 0.215578995 (scipy: 0.21557895), which
// shows at the edges where the five terms nearly cancel.
TEST(FFTWindow, FlatTopEdgeUsesLibraryConstant) {
    const std::vector<float> w = makeWindow(9, FFT_WINDOW_FLAT_TOP, 0, 0);
    const double edge = 0.215578995 - 0.41663158 + 0.277263158 - 0.083578947 + 0.006947368;
    EXPECT_FLOAT_EQ(w[0], static_cast<float>(edge));
    EXPECT_FLOAT_EQ(w[8], static_cast<float>(edge));
}

TEST(FFTWindow, TukeyLimitsAndFlatMiddle) {
    const int n = 512;
    const std::vector<float> rect = makeWindow(n, FFT_WINDOW_RECTANGULAR, 0, 0);
    const std::vector<float> hann = makeWindow(n, FFT_WINDOW_HANN, 0, 0);
    EXPECT_EQ(makeWindow(n, FFT_WINDOW_TUKEY, 0, 0.0f), rect);
    EXPECT_EQ(makeWindow(n, FFT_WINDOW_TUKEY, 0, -0.5f), rect);
    EXPECT_EQ(makeWindow(n, FFT_WINDOW_TUKEY, 0, 1.0f), hann);
    EXPECT_EQ(makeWindow(n, FFT_WINDOW_TUKEY, 0, 1.5f), hann);

    const std::vector<float> w = makeWindow(n, FFT_WINDOW_TUKEY, 0, 0.2f);
    std::vector<float> t(static_cast<size_t>(n));
    ASSERT_TRUE(AKUFFTWindow::linSpace(0.0f, 1.0f, n, t.data()));
    int flat = 0;
    for (int i = 0; i < n; ++i) {
        const float u = t[static_cast<size_t>(i)];
        if (u >= 0.1f && u < 0.9f) {
            EXPECT_EQ(w[static_cast<size_t>(i)], 1.0f) << i;
            ++flat;
        } else {
            EXPECT_LE(w[static_cast<size_t>(i)], 1.0f) << i;
        }
    }
    EXPECT_GT(flat, 400);
    EXPECT_EQ(w[0], 0.0f);
    EXPECT_LT(w[10], 1.0f);
    EXPECT_LT(w[n - 11], 1.0f);
}

TEST(FFTWindow, ChebyshevCentreIsOneAndShortLengths) {
    // N = 3: the only computed term is c = M * q, and w[0] = 1 / c.
    const float A = 60.0f;
    const double x0 = std::cosh(std::acosh(std::pow(10.0, A / 20.0)) / 2.0);
    const double c = 2.0 * (1.0 - 1.0 / (x0 * x0));
    const std::vector<float> w3 = makeWindow(3, FFT_WINDOW_CHEBYSHEV, 0, A);
    EXPECT_EQ(w3[1], 1.0f);
    EXPECT_NEAR(w3[0], 1.0 / c, 1e-6 / c);
    EXPECT_EQ(w3[0], w3[2]);

    for (int n : {5, 8, 17, 64, 101}) {
        const std::vector<float> w = makeWindow(n, FFT_WINDOW_CHEBYSHEV, 0, 80.0f);
        EXPECT_EQ(w[static_cast<size_t>((n + 1) / 2 - 1)], 1.0f) << n;
        if (n % 2 == 0) {
            EXPECT_EQ(w[static_cast<size_t>(n / 2)], 1.0f) << n;
        }
        for (int i = 0; i < n; ++i) EXPECT_EQ(w[static_cast<size_t>(i)], w[static_cast<size_t>(n - 1 - i)]) << n;
    }
    // The attenuation's sign is ignored.
    EXPECT_EQ(makeWindow(16, FFT_WINDOW_CHEBYSHEV, 0, -70.0f), makeWindow(16, FFT_WINDOW_CHEBYSHEV, 0, 70.0f));

    // Too short for the series: rejected, and setWindowType leaves zeros.
    float buf[2] = {5.0f, 5.0f};
    EXPECT_FALSE(AKUFFTWindow::creatChebyshevWin(2, 60.0f, buf));
    EXPECT_FALSE(AKUFFTWindow::creatChebyshevWin(1, 60.0f, buf));
    AKUFFTWindow win(2, FFT_WINDOW_HANN, 0, 0, 0);
    EXPECT_FALSE(win.setWindowType(FFT_WINDOW_CHEBYSHEV, 0, 0, 60.0f));
    EXPECT_EQ(win.windowType(), FFT_WINDOW_CHEBYSHEV);
    EXPECT_EQ(win.data()->data[0], 0.0f);
    EXPECT_EQ(win.data()->data[1], 0.0f);
}

// A generator given N <= 0 must not touch the buffer.
TEST(FFTWindow, GeneratorsIgnoreNonPositiveLength) {
    for (int n : {0, -3}) {
        float buf[4] = {7.0f, 7.0f, 7.0f, 7.0f};
        EXPECT_TRUE(AKUFFTWindow::creatRectangularWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatBartlettWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatBartLettHannWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatBlackManWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatBlackManHarrisWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatBohmanWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatChebyshevWin(n, 60.0f, buf));
        EXPECT_TRUE(AKUFFTWindow::creatFlatTopWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatGaussianWin(n, 2.5f, buf));
        EXPECT_TRUE(AKUFFTWindow::creatHammingWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatHannWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatNuttalWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatParzenWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatTriangularWin(n, buf));
        EXPECT_TRUE(AKUFFTWindow::creatTukeyWin(n, 0.2f, buf));
        EXPECT_TRUE(AKUFFTWindow::linSpace(0.0f, 1.0f, n, buf));
        for (float v : buf) EXPECT_EQ(v, 7.0f) << "N " << n;
    }
    AKUFFTWindow empty(0, FFT_WINDOW_TUKEY, 0, 0, 0.2f);
    EXPECT_EQ(empty.winLength(), 0);
    EXPECT_TRUE(empty.setWindowType(FFT_WINDOW_HANN, 0, 0, 0));
}

TEST(FFTWindow, LinSpace) {
    float v[5];
    ASSERT_TRUE(AKUFFTWindow::linSpace(0.0f, 1.0f, 5, v));
    const float e[5] = {0.0f, 0.25f, 0.5f, 0.75f, 1.0f};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(v[i], e[i]);
    ASSERT_TRUE(AKUFFTWindow::linSpace(-2.0f, 2.0f, 3, v));
    EXPECT_EQ(v[0], -2.0f);
    EXPECT_EQ(v[1], 0.0f);
    EXPECT_EQ(v[2], 2.0f);
    // One point: the step divides by zero and 0 * inf gives NaN.
    ASSERT_TRUE(AKUFFTWindow::linSpace(0.0f, 1.0f, 1, v));
    EXPECT_TRUE(std::isnan(v[0]));
}

// Custom windows copy the caller's samples; regenerating replaces them in
// place and the vector handed out stays the same object.
TEST(FFTWindow, CustomSamplesAndRegeneration) {
    std::vector<float> samples = {0.1f, 0.5f, 0.9f, 0.5f};
    AKUFFTWindow a(samples.data(), 4);
    samples[1] = -1.0f;
    EXPECT_EQ(a.windowType(), FFT_WINDOW_CUSTOM);
    EXPECT_EQ(a.data()->data[1], 0.5f);

    vec_fp32 v{4, samples.data()};
    AKUFFTWindow b(&v);
    EXPECT_EQ(b.windowType(), FFT_WINDOW_CUSTOM);
    EXPECT_NE(b.data()->data, samples.data());
    EXPECT_EQ(b.data()->data[1], -1.0f);

    vec_fp32* before = b.data();
    ASSERT_TRUE(b.setWindowType(FFT_WINDOW_HAMMING, 0, 0, 0));
    EXPECT_EQ(b.data(), before);
    float ham[4];
    AKUFFTWindow::creatHammingWin(4, ham);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(b.data()->data[i], ham[i]);
}

// The kernel's default: Tukey 0.2 over the frame; symmetric and in [0, 1].
TEST(FFTWindow, DefaultTukeyIsSymmetricWithinUnitRange) {
    const int n = 1024;
    const std::vector<float> w = makeWindow(n, FFT_WINDOW_TUKEY, 0, 0.2f);
    for (int i = 0; i < n; ++i) {
        EXPECT_GE(w[static_cast<size_t>(i)], 0.0f);
        EXPECT_LE(w[static_cast<size_t>(i)], 1.0f);
        EXPECT_NEAR(w[static_cast<size_t>(i)], w[static_cast<size_t>(n - 1 - i)], 2e-6) << i;
    }
}

// Physical check of the closed-form series: a Dolph-Chebyshev window has
// equiripple side lobes exactly at the requested attenuation. Sampled on a
// dense grid, the highest side lobe sits within 0.05 dB of -A.
TEST(FFTWindow, ChebyshevSideLobesAtRequestedLevel) {
    for (int n : {31, 64}) {
        for (float A : {60.0f, 80.0f}) {
            const std::vector<float> w = makeWindow(n, FFT_WINDOW_CHEBYSHEV, 0, A);
            const int grid = 8192;
            std::vector<double> mag(grid / 2 + 1);
            for (int k = 0; k <= grid / 2; ++k) {
                double re = 0.0, im = 0.0;
                for (int i = 0; i < n; ++i) {
                    const double ph = 2.0 * M_PI * k * i / grid;
                    re += w[static_cast<size_t>(i)] * std::cos(ph);
                    im -= w[static_cast<size_t>(i)] * std::sin(ph);
                }
                mag[static_cast<size_t>(k)] = std::hypot(re, im);
            }
            size_t k = 1;
            while (k < mag.size() && mag[k] < mag[k - 1]) ++k;  // end of the main lobe
            ASSERT_LT(k, mag.size());
            double side = 0.0;
            for (; k < mag.size(); ++k) side = std::max(side, mag[k]);
            const double db = 20.0 * std::log10(side / mag[0]);
            EXPECT_NEAR(db, -A, 0.05) << "N " << n << " A " << A;
        }
    }
}
