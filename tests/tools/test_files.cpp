// Heat-map pictures: colours, positions and sizes. (Sound files are checked
// end to end by the round trip, which images what the simulator wrote.)
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <utility>

#include "colormap.h"
#include "render.h"

using namespace akutool;

// Levels map to colours over [max - range, max] dB, nothing below; the
// picture has rows x scale by cols x scale pixels, row-major like the map,
// or the photo's size with the photo showing where the level is low.
TEST(HeatMapPicture, LevelsPositionsAndSizes)
{
    const int rows = 4, cols = 5;
    std::vector<float> map(rows * cols, 0.01f);                  // -40 dB: below the range
    map[1 * cols + 2] = 2.0f;                                     // peak
    map[3 * cols + 0] = 2.0f * std::pow(10.0f, -5.0f / 20.0f);    // 5 dB down: middle of 10 dB
    const Peak p = findPeak(map.data(), rows, cols);
    EXPECT_EQ(std::make_pair(p.row, p.col), std::make_pair(1, 2));
    const ColorTable& t = colorMap("inferno");
    RenderOptions opt;
    opt.scale = 1;
    opt.markPeak = false;
    RgbImage img = renderHeatMap(map.data(), rows, cols, opt);
    auto rgb = [&](int x, int y) { return std::array<uint8_t, 3>{img.at(x, y)[0], img.at(x, y)[1], img.at(x, y)[2]}; };
    ASSERT_EQ(std::make_pair(img.width, img.height), std::make_pair(cols, rows));
    EXPECT_EQ(rgb(2, 1), t[255]);
    EXPECT_EQ(rgb(0, 3), t[128]);
    EXPECT_EQ(rgb(4, 0), t[0]);
    opt.scale = 8;
    img = renderHeatMap(map.data(), rows, cols, opt);
    EXPECT_EQ(std::make_pair(img.width, img.height), std::make_pair(cols * 8, rows * 8));

    RgbImage photo(50, 40);
    photo.rgb.assign(photo.rgb.size(), 77);
    opt.background = &photo;
    img = renderHeatMap(map.data(), rows, cols, opt);
    EXPECT_EQ(std::make_pair(img.width, img.height), std::make_pair(50, 40));
    EXPECT_EQ(img.at(49, 0)[0], 77);
    EXPECT_NE(img.at(25, 15)[0], 77); // peak cell (1, 2) covers x 20..29, y 10..19

}
