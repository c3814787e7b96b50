// Sound files, PNG files, colour maps and heat-map pictures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

#include "colormap.h"
#include "common.h"
#include "pngio.h"
#include "render.h"
#include "wavio.h"

using namespace akutool;

namespace {
std::string workDir(const std::string& name)
{
    std::string d = joinPath(AKUDOA_TOOL_TEST_DIR, name);
    makeDirs(d);
    return d;
}

int countEntries(const std::string& dir)
{
    std::string cmd = "ls -A '" + dir + "' | wc -l";
    FILE* p = popen(cmd.c_str(), "r");
    int n = -1;
    if (p) {
        if (std::fscanf(p, "%d", &n) != 1)
            n = -1;
        pclose(p);
    }
    return n;
}
} // namespace

// 70 channels (beyond the plain WAV channel masks) survive a write and a
// read bit for bit, in the right order.
TEST(SoundFiles, ManyChannelFloatWavRoundTrip)
{
    std::string dir = workDir("wav");
    std::vector<std::vector<float>> planes(70, std::vector<float>(1000));
    for (size_t c = 0; c < planes.size(); ++c)
        for (size_t i = 0; i < 1000; ++i)
            planes[c][i] = static_cast<float>(std::sin(0.001 * (i + 1) * (c + 1)) * 0.9);
    std::string path = joinPath(dir, "many.wav");
    writeWavFloat(path, planes, 96000);
    SoundReader r(path);
    EXPECT_EQ(r.info().channels, 70);
    EXPECT_EQ(r.info().sampleRate, 96000);
    EXPECT_EQ(r.info().frames, 1000);
    std::vector<float> inter(70 * 1000);
    EXPECT_EQ(r.read(inter.data(), 1000), 1000);
    for (size_t c = 0; c < 70; ++c)
        for (size_t i = 0; i < 1000; ++i)
            ASSERT_EQ(inter[i * 70 + c], planes[c][i]) << c << " " << i;
    int rate = 0;
    std::vector<float> mono = readMono(path, 69, rate);
    EXPECT_EQ(mono, planes[69]);
    EXPECT_THROW(readMono(path, 70, rate), ToolError);
    // Nothing but the file itself is left in the directory.
    EXPECT_EQ(countEntries(dir), 1);
}

TEST(SoundFiles, MissingAndForeignFilesAreNamedInTheError)
{
    std::string dir = workDir("wavbad");
    try {
        SoundReader r(joinPath(dir, "absent.wav"));
        ADD_FAILURE();
    } catch (const ToolError& e) {
        EXPECT_NE(std::string(e.what()).find("absent.wav"), std::string::npos);
    }
    std::string text = joinPath(dir, "text.wav");
    std::ofstream(text) << "not a sound file at all, just some text that is long enough";
    EXPECT_THROW(SoundReader r(text), ToolError);
    // A write into a directory that does not exist leaves no temporary.
    std::vector<std::vector<float>> one(1, std::vector<float>(10, 0.5f));
    EXPECT_THROW(writeWavFloat(joinPath(dir, "no/such/dir.wav"), one, 8000), ToolError);
    EXPECT_EQ(countEntries(dir), 1);
}

TEST(PngFiles, RoundTripAndErrors)
{
    std::string dir = workDir("png");
    RgbImage img(37, 11);
    for (int y = 0; y < img.height; ++y)
        for (int x = 0; x < img.width; ++x) {
            uint8_t* p = img.at(x, y);
            p[0] = static_cast<uint8_t>(x * 7);
            p[1] = static_cast<uint8_t>(y * 23);
            p[2] = static_cast<uint8_t>(x ^ y);
        }
    std::string path = joinPath(dir, "img.png");
    writePng(path, img);
    RgbImage back = readPng(path);
    EXPECT_EQ(back.width, 37);
    EXPECT_EQ(back.height, 11);
    EXPECT_EQ(back.rgb, img.rgb);
    std::string text = joinPath(dir, "fake.png");
    std::ofstream(text) << "GIF89a........";
    try {
        readPng(text);
        ADD_FAILURE();
    } catch (const ToolError& e) {
        EXPECT_NE(std::string(e.what()).find("not a PNG"), std::string::npos) << e.what();
    }
    // A truncated PNG fails to decode instead of yielding a partial image.
    std::ifstream in(path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::string cut = joinPath(dir, "cut.png");
    std::ofstream(cut, std::ios::binary) << bytes.substr(0, bytes.size() / 2);
    EXPECT_THROW(readPng(cut), ToolError);
}

// Perceptual maps: lightness rises monotonically from the first entry to
// the last, so a brighter colour always means a higher level.
TEST(ColorMaps, LightnessRisesMonotonically)
{
    for (const char* name : {"inferno", "viridis"}) {
        const ColorTable& t = colorMap(name);
        double prev = -1;
        for (int i = 0; i < 256; ++i) {
            double l = lightness(t[i]);
            EXPECT_GT(l, prev - 0.3) << name << " entry " << i; // 8-bit rounding
            prev = l;
        }
        EXPECT_GT(lightness(t[255]) - lightness(t[0]), 60.0) << name;
    }
    EXPECT_THROW(colorMap("jet"), ToolError);
}

// Levels map to colours over [max - range, max] dB, nothing below; the
// picture has rows x scale by cols x scale pixels, row-major like the map.
TEST(HeatMapPicture, LevelsPositionsAndSize)
{
    const int rows = 4, cols = 5;
    std::vector<float> map(rows * cols, 0.01f);         // -40 dB: below the range
    map[1 * cols + 2] = 2.0f;                            // peak
    map[3 * cols + 0] = 2.0f * std::pow(10.0f, -5.0f / 20.0f); // 5 dB down: middle of 10 dB
    Peak p = findPeak(map.data(), rows, cols);
    EXPECT_EQ(p.row, 1);
    EXPECT_EQ(p.col, 2);
    EXPECT_EQ(p.value, 2.0f);

    const ColorTable& t = colorMap("inferno");
    RenderOptions opt;
    opt.scale = 1;
    opt.markPeak = false;
    RgbImage img = renderHeatMap(map.data(), rows, cols, opt);
    ASSERT_EQ(img.width, cols);
    ASSERT_EQ(img.height, rows);
    auto rgb = [&](int x, int y) { return std::array<uint8_t, 3>{img.at(x, y)[0], img.at(x, y)[1], img.at(x, y)[2]}; };
    EXPECT_EQ(rgb(2, 1), t[255]);
    EXPECT_EQ(rgb(0, 3), t[128]);
    EXPECT_EQ(rgb(4, 0), t[0]);

    opt.scale = 8;
    opt.markPeak = true;
    img = renderHeatMap(map.data(), rows, cols, opt);
    EXPECT_EQ(img.width, cols * 8);
    EXPECT_EQ(img.height, rows * 8);
    // The marker is drawn around the peak cell's centre (20, 12).
    bool white = false;
    for (int dx = -8; dx <= 8; ++dx)
        white = white || rgb(20 + dx, 12)[0] == 255;
    EXPECT_TRUE(white);
    EXPECT_EQ(rgb(38, 30), t[0]); // far corner, cell (3, 4), untouched by the marker

    // Over a photo: the photo's size, untouched where the level is low.
    RgbImage photo(50, 40);
    for (auto& b : photo.rgb)
        b = 77;
    opt.background = &photo;
    opt.markPeak = false;
    img = renderHeatMap(map.data(), rows, cols, opt);
    EXPECT_EQ(img.width, 50);
    EXPECT_EQ(img.height, 40);
    EXPECT_EQ(rgb(49, 0)[0], 77);
    EXPECT_NE(rgb(25, 15)[0], 77); // peak cell (1, 2) covers x 20..29, y 10..19
}

// The colour scale beside the picture runs from the top colour (0 dB) down
// to the bottom one (-range), and the picture itself is kept unchanged.
TEST(HeatMapPicture, ColorBarRunsFromMaximumDown)
{
    RgbImage pic(40, 300);
    for (size_t i = 0; i < pic.rgb.size(); ++i)
        pic.rgb[i] = static_cast<uint8_t>(i % 251);
    RgbImage out = withColorBar(pic, "viridis", 12.0);
    ASSERT_EQ(out.height, 300);
    ASSERT_GT(out.width, 40);
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 40; ++x)
            ASSERT_EQ(out.at(x, y)[1], pic.at(x, y)[1]);
    const ColorTable& t = colorMap("viridis");
    // Find the bar: the first column right of the picture holding the top colour.
    int bar = -1;
    for (int x = 40; x < out.width && bar < 0; ++x)
        if (std::equal(t[255].begin(), t[255].end(), out.at(x, 10)))
            bar = x;
    ASSERT_GE(bar, 0);
    const std::array<uint8_t, 3> bottom{out.at(bar, 289)[0], out.at(bar, 289)[1], out.at(bar, 289)[2]};
    EXPECT_EQ(bottom, t[0]);
    EXPECT_LT(lightness(bottom), lightness(t[128]));
}
