// The built akudoa program: bad inputs end with a message and a non-zero
// status before any output is made.
#include <gtest/gtest.h>

#include <string>

#include "cli_support.h"
#include "common.h"
#include "wavio.h"

using namespace akutool;
using namespace clitest;


// Each bad input: status 1 (2 for a wrong command line), a message naming
// the problem, and no output file or directory left behind.
TEST(ToolErrors, BadInputsEndWithAMessageAndLeaveNothing)
{
    std::string dir = dirFor("errors");
    writeText(joinPath(dir, "cam20.ini"), smallCamera(20));
    // 63 channels for 64 microphones recorded on 128, and the right count at 48 kHz.
    writeWavFloat(joinPath(dir, "ch64.wav"), std::vector<std::vector<float>>(63, std::vector<float>(2048, 0.1f)),
                  96000);
    writeWavFloat(joinPath(dir, "rate48.wav"), std::vector<std::vector<float>>(128, std::vector<float>(2048, 0.1f)),
                  48000);
    writeWavFloat(joinPath(dir, "short.wav"), std::vector<std::vector<float>>(128, std::vector<float>(100, 0.1f)),
                  96000);
    writeText(joinPath(dir, "text.wav"), "RIFF but not really a wave file, only text");
    writeText(joinPath(dir, "scene.ini"), "[source]\npixel = 3 3\n");

    struct Case { std::string args; int status; std::string message; };
    const Case cases[] = {
        {"image --config cam.ini --in ch64.wav --out out", 1,
         "ch64.wav has 63 channel(s) but the array has 64 microphones: give a recording of 64 (one per microphone) or 128"},
        {"image --config cam.ini --in rate48.wav --out out", 1, "sampled at 48000 Hz; cam.ini expects 96000 Hz"},
        {"image --config cam.ini --in short.wav --out out", 1, "less than one frame"},
        {"image --config cam.ini --in missing.wav --out out", 1, "cannot read missing.wav"},
        {"image --config cam.ini --in text.wav --out out", 1, "cannot read text.wav as a sound file"},
        {"image --config nothere.ini --in ch64.wav --out out", 1, "cannot read nothere.ini"},
        {"image --config cam20.ini --in ch64.wav --out out", 1, "supports 8, 16, 36, 48, 64 or 128 microphones"},
        {"image --config cam.ini --in ch64.wav --out out --background none.png", 1, "cannot read none.png"},
        {"image --config cam.ini --in ch64.wav --out out --colormap jet", 1, "unknown colour map"},
        {"image --config cam.ini --out out", 2, "--in is required"},
        {"image --config cam.ini --in ch64.wav --out out --speed 3", 2, "unknown option --speed"},
        {"simulate --config cam.ini --scene nope.ini --out out/x.wav", 1, "cannot read nope.ini"},
        {"pickup --config cam.ini --in ch64.wav --out out --cell 16,0", 2, "outside the 16 x 12 heat map"},
        {"pickup --config cam.ini --in ch64.wav --out out --cell 1,1 --peak", 2, "exactly one of --cell"},
        {"frobnicate", 2, "unknown command"},
    };
    for (const Case& c : cases) {
        ToolRun r = akudoa(dir, c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.out;
        EXPECT_NE(r.out.find(c.message), std::string::npos) << c.args << "\n" << r.out;
        EXPECT_FALSE(exists(joinPath(dir, "out"))) << c.args;
    }
}
