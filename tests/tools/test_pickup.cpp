// akudoa pickup: a recording of two tones drawn at two heat-map cells; the
// pickup at one cell carries its own tone well above the other.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "cli_support.h"
#include "common.h"
#include "wavio.h"

using namespace akutool;
using namespace clitest;

namespace {

// Power of one frequency in x[from ...] (single-bin DFT).
double tonePower(const std::vector<float>& x, size_t from, double hz, int rate)
{
    double re = 0, im = 0;
    const double w = 2 * 3.14159265358979323846 * hz / rate;
    for (size_t i = from; i < x.size(); ++i) {
        re += x[i] * std::cos(w * double(i));
        im -= x[i] * std::sin(w * double(i));
    }
    return re * re + im * im;
}

} // namespace

TEST(ToolPickup, CellCarriesItsOwnSource)
{
    std::string dir = dirFor("pickup");
    writeText(joinPath(dir, "cam.ini"), smallCamera());
    writeText(joinPath(dir, "scene.ini"), "[scene]\nduration = 0.08\nmic_noise_db = -80\n"
                                          "[source a]\npixel = 4 3\nsignal = tone\nfrequency = 25000\n"
                                          "[source b]\npixel = 11 8\nsignal = tone\nfrequency = 33000\n");
    ASSERT_EQ(akudoa(dir, "simulate --config cam.ini --scene scene.ini --out rec.wav").status, 0);
    ToolRun a = akudoa(dir, "pickup --config cam.ini --in rec.wav --out a.wav --cell 4,3");
    ASSERT_EQ(a.status, 0) << a.out;
    ASSERT_EQ(akudoa(dir, "pickup --config cam.ini --in rec.wav --out b.wav --cell 11,8").status, 0);

    int rate = 0;
    const std::vector<float> mic = readMono(joinPath(dir, "rec.wav"), 0, rate);
    const std::vector<float> outA = readMono(joinPath(dir, "a.wav"), 0, rate);
    const std::vector<float> outB = readMono(joinPath(dir, "b.wav"), 0, rate);
    ASSERT_EQ(rate, 96000);
    EXPECT_EQ(outA.size(), mic.size() / 512 * 512); // whole frames
    const size_t settled = 2 * 512;
    auto db = [&](const std::vector<float>& x) {
        return 10 * std::log10(tonePower(x, settled, 25000, rate) / tonePower(x, settled, 33000, rate));
    };
    EXPECT_NEAR(db(mic), 0.0, 1.0); // one microphone hears both alike
    EXPECT_GE(db(outA), 10.0) << a.out;
    EXPECT_LE(db(outB), -10.0);

    // Following the peak: with source b 6 dB weaker the peak stays on a.
    writeText(joinPath(dir, "scene2.ini"), "[scene]\nduration = 0.08\nmic_noise_db = -80\n"
                                           "[source a]\npixel = 4 3\nsignal = tone\nfrequency = 25000\n"
                                           "[source b]\npixel = 11 8\nsignal = tone\nfrequency = 33000\n"
                                           "level_db = -26\n");
    ASSERT_EQ(akudoa(dir, "simulate --config cam.ini --scene scene2.ini --out rec2.wav").status, 0);
    ToolRun p = akudoa(dir, "pickup --config cam.ini --in rec2.wav --out p.wav --peak");
    ASSERT_EQ(p.status, 0) << p.out;
    const std::vector<float> outP = readMono(joinPath(dir, "p.wav"), 0, rate);
    EXPECT_GE(db(outP), 6.0 + 10.0) << p.out;

    // Exactly one target; cells inside the map.
    EXPECT_EQ(akudoa(dir, "pickup --config cam.ini --in rec.wav --out c.wav").status, 2);
    EXPECT_EQ(akudoa(dir, "pickup --config cam.ini --in rec.wav --out c.wav --cell 1,1 --peak").status, 2);
    EXPECT_EQ(akudoa(dir, "pickup --config cam.ini --in rec.wav --out c.wav --cell 16,0").status, 2);
    EXPECT_EQ(akudoa(dir, "pickup --config cam.ini --in rec.wav --out c.wav --cell 3").status, 2);
    EXPECT_FALSE(exists(joinPath(dir, "c.wav")));
}
