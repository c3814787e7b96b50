// The round trip through the built akudoa program and the library: a
// simulated scene, imaged frame by frame, puts the peak of the CSV, the raw
// maps and the PNGs where the sources are.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

#include "cli_support.h"
#include "common.h"
#include "pngio.h"
#include "wavio.h"

using namespace akutool;
using namespace clitest;

namespace {

// Source a as a plane wave at pixel (4, 3); source b a point source 3 m
// away along the ray of pixel (11, 8), its level given at the array (the
// 1 m level raised by 20 log10 3). levelB 0: a alone.
std::string scene(const std::string& a, double levelA, double levelB = 0)
{
    std::string s = "[scene]\nduration = 0.05\nseed = 11\nmic_noise_db = -70\n[source a]\nband = 20000 40000\npixel = " +
                    a + "\nlevel_db = " + std::to_string(levelA) + "\n";
    if (levelB != 0)
        s += "[source b]\npixel = 11 8\ndistance = 3\nband = 20000 40000\nlevel_db = " +
             std::to_string(levelB + 20 * std::log10(3.0)) + "\n";
    return s;
}

} // namespace

// Far field with two sources both ways round (the stronger is the peak of
// every frame), and focused at 1.2 m on two focal points. Catches
// orientation, sign and channel-wiring faults between the simulator, the
// tool and the library, and a wrong inverse of the focal grid (sign,
// half-pixel offset, 1/T).
TEST(ToolRoundTrip, SourcesPeakAtTheirPixels)
{
    std::string dir = dirFor("roundtrip");
    std::string focused = smallCamera();
    focused.replace(focused.find("rotate_mode = 1"), 15, "rotate_mode = 1\nfocus_distance_en = true\nfocus_distance = 1.2");
    writeText(joinPath(dir, "near.ini"), focused);
    struct Case { const char* cam; std::string scene; int row, col; };
    const Case cases[] = {{"cam.ini", scene("4 3", -20, -26), 4, 3}, {"cam.ini", scene("4 3", -26, -20), 11, 8},
                          {"near.ini", scene("2 9", -20), 2, 9}, {"near.ini", scene("13 1", -20), 13, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.scene);
        ASSERT_EQ(simulate(dir, c.scene, c.cam).status, 0);
        const SoundInfo wav = SoundReader(joinPath(dir, "rec.wav")).info();
        EXPECT_EQ(std::make_tuple(wav.channels, wav.sampleRate, wav.frames), std::make_tuple(128, 96000, int64_t{4800}));
        ToolRun img = akudoa(dir, std::string("image --config ") + c.cam + " --in rec.wav --out out --every 4 --scale 5");
        ASSERT_EQ(img.status, 0) << img.out;
        EXPECT_NE(img.out.find("frames: 9 of 512 samples"), std::string::npos) << img.out;

        // peaks.csv: one row per frame, each at the stronger source.
        std::ifstream csv(joinPath(dir, "out/peaks.csv"));
        std::string line;
        std::getline(csv, line);
        EXPECT_EQ(line, "frame,time_s,peak_row,peak_col,peak_level,peak_db");
        int frames = 0, frame = 0, row = 0, col = 0;
        double t = 0, level = 0, db = 0;
        for (; std::getline(csv, line); ++frames) {
            ASSERT_EQ(std::sscanf(line.c_str(), "%d,%lf,%d,%d,%lf,%lf", &frame, &t, &row, &col, &level, &db), 6);
            EXPECT_EQ(std::make_tuple(frame, row, col), std::make_tuple(frames, c.row, c.col));
        }
        EXPECT_EQ(frames, 9);

        // Raw maps: exactly 9 frames of 16 x 12 floats, the last frame's peak
        // as in the CSV.
        const std::string raw = slurp(joinPath(dir, "out/heatmap.f32"));
        ASSERT_EQ(raw.size(), 9u * 192 * 4);
        float last = 0;
        std::memcpy(&last, raw.data() + 4 * (8 * 192 + c.row * 12 + c.col), 4);
        EXPECT_FLOAT_EQ(last, static_cast<float>(level));

        // Every 4th frame as a PNG of (16 x 5) rows by (12 x 5) columns.
        for (int f = 0; f < 9; ++f) {
            char name[64];
            std::snprintf(name, sizeof name, "out/frame_%05d.png", f);
            EXPECT_EQ(exists(joinPath(dir, name)), f % 4 == 0) << name;
        }
        const RgbImage png = readPng(joinPath(dir, "out/frame_00008.png"));
        EXPECT_EQ(std::make_pair(png.height, png.width), std::make_pair(80, 60));
    }
}
