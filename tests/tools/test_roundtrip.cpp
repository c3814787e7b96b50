// The round trip through the built akudoa program and the library: a
// simulated scene with two sources, imaged frame by frame, puts the peak of
// the CSV, the raw maps and the PNGs where the sources are.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cli_support.h"
#include "common.h"
#include "pngio.h"
#include "wavio.h"

using namespace akutool;
using namespace clitest;

namespace {

// Source a straight at pixel (4, 3) as a plane wave; source b a point
// source 3 m away along the ray of pixel (11, 8), its level given at the
// array (the 1 m level raised by 20 log10 3).
std::string twoSources(double levelA, double levelB)
{
    std::ostringstream s;
    s << "[scene]\nduration = 0.05\nseed = 11\nmic_noise_db = -70\n"
      << "[source a]\npixel = 4 3\nband = 20000 40000\nlevel_db = " << levelA << "\n"
      << "[source b]\npixel = 11 8\ndistance = 3\nband = 20000 40000\nlevel_db = " << levelB + 20 * std::log10(3.0)
      << "\n";
    return s.str();
}

struct CsvRow {
    int frame, row, col;
    double level;
};

std::vector<CsvRow> readCsv(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "frame,time_s,peak_row,peak_col,peak_level,peak_db");
    std::vector<CsvRow> rows;
    while (std::getline(in, line)) {
        CsvRow r{};
        double t = 0, db = 0;
        if (std::sscanf(line.c_str(), "%d,%lf,%d,%d,%lf,%lf", &r.frame, &t, &r.row, &r.col, &r.level, &db) == 6)
            rows.push_back(r);
    }
    return rows;
}

} // namespace

// Two sources at different pixels: the stronger one is the peak of every
// frame, the weaker one a local maximum of its own within the 10 dB range;
// swapping their levels moves the peak. Catches orientation, sign and
// channel-wiring faults between the simulator, the tool and the library.
TEST(ToolRoundTrip, TwoSourcesPeakAtTheirPixels)
{
    std::string dir = dirFor("roundtrip");
    writeText(joinPath(dir, "cam.ini"), smallCamera());
    for (int swap = 0; swap < 2; ++swap) {
        writeText(joinPath(dir, "scene.ini"), swap ? twoSources(-26, -20) : twoSources(-20, -26));
        ToolRun sim = akudoa(dir, "simulate --config cam.ini --scene scene.ini --out rec.wav");
        ASSERT_EQ(sim.status, 0) << sim.out;
        EXPECT_NE(sim.out.find("expected at heat-map row 4, column 3"), std::string::npos) << sim.out;
        EXPECT_NE(sim.out.find("expected at heat-map row 11, column 8"), std::string::npos) << sim.out;
        SoundReader wav(joinPath(dir, "rec.wav"));
        EXPECT_EQ(wav.info().channels, 128);
        EXPECT_EQ(wav.info().sampleRate, 96000);
        EXPECT_EQ(wav.info().frames, 4800);

        ToolRun img = akudoa(dir, "image --config cam.ini --in rec.wav --out out --every 4 --scale 5");
        ASSERT_EQ(img.status, 0) << img.out;
        EXPECT_NE(img.out.find("frames: 9 of 512 samples"), std::string::npos) << img.out;

        const int strongRow = swap ? 11 : 4, strongCol = swap ? 8 : 3;
        const int weakRow = swap ? 4 : 11, weakCol = swap ? 3 : 8;
        std::vector<CsvRow> csv = readCsv(joinPath(dir, "out/peaks.csv"));
        ASSERT_EQ(csv.size(), 9u);
        for (const CsvRow& r : csv) {
            EXPECT_EQ(r.row, strongRow) << "frame " << r.frame;
            EXPECT_EQ(r.col, strongCol) << "frame " << r.frame;
        }

        // Raw maps: 9 frames of 16 x 12 floats; the weaker source is a
        // local maximum 3 ... 10 dB below the peak in the mean map.
        std::ifstream raw(joinPath(dir, "out/heatmap.f32"), std::ios::binary);
        std::vector<float> maps(9 * 16 * 12);
        raw.read(reinterpret_cast<char*>(maps.data()), static_cast<std::streamsize>(maps.size() * 4));
        ASSERT_TRUE(raw.good());
        raw.get();
        EXPECT_TRUE(raw.eof()) << "heatmap.f32 is longer than 9 maps";
        std::vector<double> mean(16 * 12, 0.0);
        for (int f = 0; f < 9; ++f)
            for (int i = 0; i < 16 * 12; ++i)
                mean[i] += maps[f * 16 * 12 + i] / 9.0;
        EXPECT_EQ(maps[0 * 192 + strongRow * 12 + strongCol] > 0, true);
        EXPECT_FLOAT_EQ(maps[8 * 192 + strongRow * 12 + strongCol], static_cast<float>(csv[8].level));
        double weak = mean[weakRow * 12 + weakCol];
        for (int dr = -1; dr <= 1; ++dr)
            for (int dc = -1; dc <= 1; ++dc)
                if (dr || dc) {
                    EXPECT_GT(weak, mean[(weakRow + dr) * 12 + weakCol + dc]) << dr << " " << dc;
                }
        double below = 20 * std::log10(mean[strongRow * 12 + strongCol] / weak);
        EXPECT_GT(below, 3.0);
        EXPECT_LT(below, 10.0);

        // Every 4th frame as a PNG of (16 x 5) rows by (12 x 5) columns.
        for (int f : {0, 4, 8}) {
            char name[64];
            std::snprintf(name, sizeof name, "out/frame_%05d.png", f);
            RgbImage png = readPng(joinPath(dir, name));
            EXPECT_EQ(png.height, 80);
            EXPECT_EQ(png.width, 60);
        }
        EXPECT_FALSE(exists(joinPath(dir, "out/frame_00001.png")));
    }

    // Over a photo the picture takes the photo's size; the photo shows
    // where the level is more than the range below the peak.
    RgbImage photo(90, 70);
    for (size_t i = 0; i < photo.rgb.size(); ++i)
        photo.rgb[i] = static_cast<uint8_t>(40 + i % 3 * 60);
    writePng(joinPath(dir, "photo.png"), photo);
    ToolRun img = akudoa(dir, "image --config cam.ini --in rec.wav --out over --background photo.png "
                              "--max-frames 1 --range 6");
    ASSERT_EQ(img.status, 0) << img.out;
    RgbImage over = readPng(joinPath(dir, "over/frame_00000.png"));
    EXPECT_EQ(over.width, 90);
    EXPECT_EQ(over.height, 70);
    int untouched = 0;
    for (size_t i = 0; i < over.rgb.size(); ++i)
        untouched += over.rgb[i] == photo.rgb[i];
    EXPECT_GT(untouched, static_cast<int>(over.rgb.size() / 2));
    EXPECT_LT(untouched, static_cast<int>(over.rgb.size()));
}


// Focused at 1.2 m: a point source placed at a pixel's focal point is
// imaged at that pixel, one at the mirrored pixel elsewhere; catches a
// wrong inverse of the focal grid (sign, half-pixel offset, 1/T scaling).
TEST(ToolRoundTrip, FocusedImageFindsSourcesOnTheFocalGrid)
{
    std::string dir = dirFor("focused");
    std::string cam = smallCamera();
    cam.replace(cam.find("rotate_mode = 1"), 15, "rotate_mode = 1\nfocus_distance_en = true\nfocus_distance = 1.2");
    writeText(joinPath(dir, "cam.ini"), cam);
    for (const char* cell : {"2 9", "13 1"}) {
        writeText(joinPath(dir, "scene.ini"), std::string("[scene]\nduration = 0.03\nmic_noise_db = -70\n"
                                                          "[source]\nband = 20000 40000\npixel = ") +
                                                  cell + "\n");
        ToolRun sim = akudoa(dir, "simulate --config cam.ini --scene scene.ini --out rec.wav");
        ASSERT_EQ(sim.status, 0) << sim.out;
        EXPECT_NE(sim.out.find("noise at ("), std::string::npos) << "a focused pixel is a point source\n" << sim.out;
        ToolRun img = akudoa(dir, "image --config cam.ini --in rec.wav --out out");
        ASSERT_EQ(img.status, 0) << img.out;
        std::vector<CsvRow> csv = readCsv(joinPath(dir, "out/peaks.csv"));
        ASSERT_EQ(csv.size(), 5u);
        int row = 0, col = 0;
        std::sscanf(cell, "%d %d", &row, &col);
        for (const CsvRow& r : csv) {
            EXPECT_EQ(r.row, row) << cell;
            EXPECT_EQ(r.col, col) << cell;
        }
    }
}
