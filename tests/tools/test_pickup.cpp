// akudoa pickup: a recording of two tones drawn at two heat-map cells; the
// pickup at one cell carries its own tone well above the other.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <string>
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
    writeText(joinPath(dir, "cam.ini"), smallCamera());
    struct Case {
        const char* bLevel;
        const char* target;
        double minDb, maxDb; // 25 kHz over 33 kHz in the output
    };
    const Case cases[] = {
        {"-20", "--cell 4,3", 10, 99}, {"-20", "--cell 11,8", -99, -10}, {"-26", "--peak", 16, 99}};
    for (const Case& c : cases) {
        writeText(joinPath(dir, "scene.ini"), std::string("[scene]\nduration = 0.08\nmic_noise_db = -80\n"
                                                          "[source a]\npixel = 4 3\nsignal = tone\nfrequency = 25000\n"
                                                          "[source b]\npixel = 11 8\nsignal = tone\nfrequency = 33000\n"
                                                          "level_db = ") + c.bLevel + "\n");
        ASSERT_EQ(akudoa(dir, "simulate --config cam.ini --scene scene.ini --out rec.wav").status, 0);
        ToolRun r = akudoa(dir, std::string("pickup --config cam.ini --in rec.wav --out p.wav ") + c.target);
        ASSERT_EQ(r.status, 0) << r.out;
        int rate = 0;
        const std::vector<float> mic = readMono(joinPath(dir, "rec.wav"), 0, rate);
        const std::vector<float> out = readMono(joinPath(dir, "p.wav"), 0, rate);
        ASSERT_EQ(rate, 96000);
        EXPECT_EQ(out.size(), mic.size() / 512 * 512) << "whole frames";
        auto db = [&](const std::vector<float>& x) {
            return 10 * std::log10(tonePower(x, 25000) / tonePower(x, 33000));
        };
        if (std::string(c.bLevel) == "-20") {
            EXPECT_NEAR(db(mic), 0.0, 1.0);
        }
        EXPECT_GE(db(out), c.minDb) << c.target;
        EXPECT_LE(db(out), c.maxDb) << c.target;
    }
}
