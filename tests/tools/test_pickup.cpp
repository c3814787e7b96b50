// akudoa pickup: a recording of two tones drawn at two heat-map cells; the
// pickup at one cell carries its own tone well above the other.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>
#include <tuple>
#include <vector>

#include "cli_support.h"
#include "common.h"
#include "wavio.h"

using namespace akutool;
using namespace clitest;

namespace {

// Power of one frequency after the first two frames (single-bin DFT).
double tonePower(const std::vector<float>& x, double hz)
{
    std::complex<double> sum = 0;
    for (size_t i = 1024; i < x.size(); ++i)
        sum += static_cast<double>(x[i]) * std::polar(1.0, -2 * M_PI * hz * static_cast<double>(i) / 96000);
    return std::norm(sum);
}

} // namespace

// Source a (25 kHz) at cell 4,3, source b (33 kHz) at 11,8: each cell's
// pickup favours its own tone by 10 dB, one microphone hears both alike;
// with b 6 dB weaker, following the peak stays on a.
TEST(ToolPickup, CellCarriesItsOwnSource)
{
    std::string dir = dirFor("pickup");
    // Source b's level, the target, the output's 25 over 33 kHz at least (negative: at most).
    const std::tuple<std::string, const char*, double> cases[] = {
        {"-20", "--cell 4,3", 10}, {"-20", "--cell 11,8", -10}, {"-26", "--peak", 16}};
    for (const auto& [bLevel, target, leastDb] : cases) {
        ASSERT_EQ(simulate(dir, std::string("[scene]\nduration = 0.08\nmic_noise_db = -80\n[source a]\npixel = 4 3\n"
                                            "signal = tone\nfrequency = 25000\n[source b]\npixel = 11 8\nsignal = tone\n"
                                            "frequency = 33000\nlevel_db = ") + bLevel + "\n").status, 0);
        ToolRun r = akudoa(dir, std::string("pickup --config cam.ini --in rec.wav --out p.wav ") + target);
        ASSERT_EQ(r.status, 0) << r.out;
        int rate = 0;
        const std::vector<float> mic = readMono(joinPath(dir, "rec.wav"), 0, rate);
        const std::vector<float> out = readMono(joinPath(dir, "p.wav"), 0, rate);
        ASSERT_EQ(rate, 96000);
        EXPECT_EQ(out.size(), mic.size() / 512 * 512) << "whole frames";
        auto db = [&](const std::vector<float>& x) {
            return 10 * std::log10(tonePower(x, 25000) / tonePower(x, 33000));
        };
        if (bLevel == "-20") { EXPECT_NEAR(db(mic), 0.0, 1.0); }
        EXPECT_GE(db(out) / leastDb, 1.0) << target << ": " << db(out) << " dB";
    }
}
