#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "AKUDoa/base/akufftwindow.h"

namespace {

std::vector<float> makeWindow(int n, int type, float p1, float p3)
{
    AKUFFTWindow win(n, static_cast<FFTWindowType>(type), p1, 0.0f, p3);
    return std::vector<float>(win.data()->data, win.data()->data + n);
}

} // namespace

// Every textbook window against scipy's tables (wrong coefficients, divisor
// N vs N-1, off-by-one sample index). The cosine sums and Parzen round a
// double result; Gaussian, Tukey and Chebyshev compute mostly in float.
TEST(FFTWindow, MatchesIndependentTables)
{
    std::ifstream in(std::string(AKUDOA_TEST_DATA_DIR) + "/fft_windows.txt");
    std::string line;
    int checked = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream ls(line);
        int type, n;
        float param;
        ls >> type >> n >> param;
        const std::vector<float> w = makeWindow(n, type, type == FFT_WINDOW_GAUSSIAN ? param : 0, type == FFT_WINDOW_GAUSSIAN ? 0 : param);
        double ref;
        int i = 0;
        for (; ls >> ref; ++i) {
            const double a = std::fabs(ref);
            const double tol = type == FFT_WINDOW_GAUSSIAN ? 1e-7 + 2e-6 * a : type == FFT_WINDOW_TUKEY ? 2e-6 : type == FFT_WINDOW_CHEBYSHEV ? 1e-6 + 2e-5 * a : 2e-7;
            ASSERT_NEAR(w[i], ref, tol) << "type " << type << " N " << n << " param " << param << " sample " << i;
        }
        ASSERT_EQ(i, n);
        ++checked;
    }
    EXPECT_GT(checked, 100) << "reference table missing or truncated";
}

// Documented deviations from the textbook and the parameter limits.
TEST(FFTWindow, QuirksAndLimits)
{
    const double x0 = std::cosh(std::acosh(std::pow(10.0, 3.0)) / 2.0), cheb3 = 1.0 / (2.0 * (1.0 - 1.0 / (x0 * x0)));
    std::vector<float> gauss8(8);
    for (int i = 0; i < 8; ++i) // even length: centred on sample N/2
        gauss8[i] = static_cast<float>(std::exp(-0.5 * std::pow((i - 4) * 5.0 / 7, 2)));
    const struct { int type, n; float p1, p3; std::vector<float> want; float tol; } cases[] = {
        // Even Bartlett: the rising half stops one sample before the centre; even Parzen runs over -(N/2-1) .. N/2.
        {FFT_WINDOW_BARTLETT, 4, 0, 0, {0.0f, 1.3333334f, 0.6666666f, 0.0f}, 1.2e-7f}, {FFT_WINDOW_BARTLETT, 6, 0, 0, {0.0f, 0.4f, 1.2f, 0.8f, 0.4f, 0.0f}, 1.2e-7f},
        {FFT_WINDOW_PARZEN, 4, 0, 0, {0.25f, 1.0f, 0.25f, 0.0f}, 0}, {FFT_WINDOW_PARZEN, 6, 0, 0, {2.0f / 27, 5.0f / 9, 1.0f, 5.0f / 9, 2.0f / 27, 0.0f}, 1e-7f},
        {FFT_WINDOW_GAUSSIAN, 8, 2.5f, 0, gauss8, 1e-6f},
        {FFT_WINDOW_CHEBYSHEV, 3, 0, 60.0f, {float(cheb3), 1.0f, float(cheb3)}, 1e-6f},
        {FFT_WINDOW_CHEBYSHEV, 16, 0, -70.0f, makeWindow(16, FFT_WINDOW_CHEBYSHEV, 0, 70.0f), 0}, // sign ignored
        {FFT_WINDOW_TUKEY, 512, 0, -0.5f, makeWindow(512, FFT_WINDOW_RECTANGULAR, 0, 0), 0},
        {FFT_WINDOW_TUKEY, 512, 0, 1.5f, makeWindow(512, FFT_WINDOW_HANN, 0, 0), 0},
        {0, 7, 2.0f, 0.5f, std::vector<float>(7, 1.0f), 0}, {99, 7, 2.0f, 0.5f, std::vector<float>(7, 1.0f), 0},
    };
    for (const auto& c : cases) {
        const std::vector<float> w = makeWindow(c.n, c.type, c.p1, c.p3);
        for (int i = 0; i < c.n; ++i)
            EXPECT_NEAR(w[i], c.want[i], c.tol) << "type " << c.type << " N " << c.n << " sample " << i;
    }
    EXPECT_GT(makeWindow(4, FFT_WINDOW_BARTLETT, 0, 0)[1], 1.0f);
    // Empty and negative lengths write nothing (the buffer is null).
    for (int type = 0; type <= 15; ++type)
        for (int n : {0, -3})
            EXPECT_EQ(AKUFFTWindow(n, static_cast<FFTWindowType>(type), 2.5f, 0, 0.2f).winLength(), n);
    // Too short for the Chebyshev series: rejected, zeros left.
    AKUFFTWindow two(2, FFT_WINDOW_HANN, 0, 0, 0);
    EXPECT_FALSE(two.setWindowType(FFT_WINDOW_CHEBYSHEV, 0, 0, 60.0f));
    EXPECT_EQ(two.data()->data[0] + two.data()->data[1], 0.0f);
}

// Custom windows copy the caller's samples; regenerating replaces them in
// place, keeping the vector handed out.
TEST(FFTWindow, CustomSamplesAndRegeneration)
{
    std::vector<float> samples = {0.1f, 0.5f, 0.9f, 0.5f};
    vec_fp32 v{4, samples.data()};
    AKUFFTWindow b(&v);
    samples[1] = -1.0f;
    EXPECT_TRUE(b.windowType() == FFT_WINDOW_CUSTOM && b.data()->data[1] == 0.5f);
    vec_fp32* before = b.data();
    EXPECT_TRUE(b.setWindowType(FFT_WINDOW_HAMMING, 0, 0, 0) && b.data() == before);
    EXPECT_EQ(std::vector<float>(b.data()->data, b.data()->data + 4), makeWindow(4, FFT_WINDOW_HAMMING, 0, 0));
}
