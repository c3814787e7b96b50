#include "render.h"

#include <algorithm>
#include <cstdio>
#include <cmath>
#include <limits>

#include "colormap.h"
#include "common.h"

namespace akutool {

Peak findPeak(const float* map, int rows, int cols)
{
    Peak p;
    p.value = -std::numeric_limits<float>::infinity();
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            float v = map[r * cols + c];
            if (v > p.value) {
                p.value = v;
                p.row = r;
                p.col = c;
            }
        }
    if (!(p.value > -std::numeric_limits<float>::infinity()))
        p.value = 0.0f;
    return p;
}

double amplitudeDb(double value)
{
    return value > 0.0 ? 20.0 * std::log10(value) : -std::numeric_limits<double>::infinity();
}

namespace {
void plot(RgbImage& img, int x, int y, uint8_t v)
{
    if (x < 0 || y < 0 || x >= img.width || y >= img.height)
        return;
    uint8_t* p = img.at(x, y);
    p[0] = p[1] = p[2] = v;
}

// A ring with a centre cross, white with a dark rim so that it shows on
// every colour of the map and on a photo.
void drawMarker(RgbImage& img, double cx, double cy, double radius)
{
    const int r = std::max(3, static_cast<int>(std::lround(radius)));
    for (int pass = 0; pass < 2; ++pass) {
        const uint8_t v = pass == 0 ? 0 : 255;
        const double w = pass == 0 ? 1.6 : 0.7; // half width of the stroke
        for (int y = static_cast<int>(cy) - r - 3; y <= static_cast<int>(cy) + r + 3; ++y)
            for (int x = static_cast<int>(cx) - r - 3; x <= static_cast<int>(cx) + r + 3; ++x) {
                double dx = x + 0.5 - cx, dy = y + 0.5 - cy;
                double d = std::sqrt(dx * dx + dy * dy);
                bool ring = std::fabs(d - r) <= w;
                bool cross = (std::fabs(dx) <= w && std::fabs(dy) <= r * 0.5) ||
                             (std::fabs(dy) <= w && std::fabs(dx) <= r * 0.5);
                if (ring || cross)
                    plot(img, x, y, v);
            }
    }
}
} // namespace

RgbImage renderHeatMap(const float* map, int rows, int cols, const RenderOptions& opt)
{
    if (rows <= 0 || cols <= 0)
        throw ToolError("internal error: empty heat map");
    if (!(opt.rangeDb > 0.0))
        throw ToolError("the dynamic range must be above 0 dB");
    const ColorTable& cmap = colorMap(opt.colorMap);
    const Peak peak = findPeak(map, rows, cols);
    const double topDb = amplitudeDb(peak.value);

    RgbImage img;
    if (opt.background) {
        img = *opt.background;
    } else {
        const int s = std::max(1, opt.scale);
        img = RgbImage(cols * s, rows * s);
    }
    const double sy = static_cast<double>(rows) / img.height;
    const double sx = static_cast<double>(cols) / img.width;
    for (int y = 0; y < img.height; ++y) {
        // Position in cell units, cell centres at integer + 0.5.
        double fr = std::clamp((y + 0.5) * sy - 0.5, 0.0, rows - 1.0);
        int r0 = static_cast<int>(fr);
        int r1 = std::min(r0 + 1, rows - 1);
        double wr = fr - r0;
        for (int x = 0; x < img.width; ++x) {
            double fc = std::clamp((x + 0.5) * sx - 0.5, 0.0, cols - 1.0);
            int c0 = static_cast<int>(fc);
            int c1 = std::min(c0 + 1, cols - 1);
            double wc = fc - c0;
            double v = (1 - wr) * ((1 - wc) * map[r0 * cols + c0] + wc * map[r0 * cols + c1]) +
                       wr * ((1 - wc) * map[r1 * cols + c0] + wc * map[r1 * cols + c1]);
            double t = std::isfinite(topDb) ? (amplitudeDb(v) - topDb + opt.rangeDb) / opt.rangeDb : -1.0;
            uint8_t* px = img.at(x, y);
            if (!(t > 0.0)) {
                if (!opt.background)
                    std::copy(cmap[0].begin(), cmap[0].end(), px);
                continue;
            }
            t = std::min(t, 1.0);
            const auto& col = cmap[static_cast<size_t>(std::lround(t * 255.0))];
            if (!opt.background) {
                std::copy(col.begin(), col.end(), px);
            } else {
                // Weak levels let the photo through, the peak covers it most.
                double a = 0.35 + 0.5 * t;
                for (int ch = 0; ch < 3; ++ch)
                    px[ch] = static_cast<uint8_t>(std::lround((1 - a) * px[ch] + a * col[ch]));
            }
        }
    }
    if (opt.markPeak && std::isfinite(topDb)) {
        double cx = (peak.col + 0.5) / sx;
        double cy = (peak.row + 0.5) / sy;
        drawMarker(img, cx, cy, 0.35 * std::min(1.0 / sx, 1.0 / sy) + 3.0);
    }
    return img;
}

namespace {
// A 3 x 5 pixel font for the scale labels: rows top to bottom, bit 2 is the
// left column.
struct Glyph {
    char c;
    uint8_t rows[5];
};
const Glyph kFont[] = {
    {'0', {7, 5, 5, 5, 7}}, {'1', {2, 6, 2, 2, 7}}, {'2', {7, 1, 7, 4, 7}}, {'3', {7, 1, 7, 1, 7}},
    {'4', {5, 5, 7, 1, 1}}, {'5', {7, 4, 7, 1, 7}}, {'6', {7, 4, 7, 5, 7}}, {'7', {7, 1, 1, 1, 1}},
    {'8', {7, 5, 7, 5, 7}}, {'9', {7, 5, 7, 1, 7}}, {'-', {0, 0, 7, 0, 0}}, {'.', {0, 0, 0, 0, 2}},
    {'d', {1, 1, 7, 5, 7}}, {'B', {6, 5, 6, 5, 6}}, {' ', {0, 0, 0, 0, 0}},
};

void drawText(RgbImage& img, int x, int y, const std::string& text, int px)
{
    for (char ch : text) {
        for (const Glyph& g : kFont) {
            if (g.c != ch)
                continue;
            for (int r = 0; r < 5; ++r)
                for (int c = 0; c < 3; ++c)
                    if (g.rows[r] & (4 >> c))
                        for (int dy = 0; dy < px; ++dy)
                            for (int dx = 0; dx < px; ++dx)
                                plot(img, x + c * px + dx, y + r * px + dy, 230);
        }
        x += 4 * px;
    }
}

std::string dbLabel(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}
} // namespace

RgbImage withColorBar(const RgbImage& picture, const std::string& colorMapName, double rangeDb)
{
    const ColorTable& cmap = colorMap(colorMapName);
    const int px = picture.height >= 200 ? 2 : 1; // font scale
    const int barW = 6 * px, gap = 4 * px;
    const int labelW = 4 * px * 5;                 // five characters
    const int extra = gap + barW + gap + labelW + gap;
    RgbImage out(picture.width + extra, picture.height);
    for (int y = 0; y < picture.height; ++y)
        std::copy(picture.at(0, y), picture.at(0, y) + picture.width * 3, out.at(0, y));
    const int top = 5 * px, bottom = picture.height - 5 * px - 1;
    if (bottom - top < 10)
        return out;
    const int x0 = picture.width + gap;
    for (int y = top; y <= bottom; ++y) {
        double t = 1.0 - static_cast<double>(y - top) / (bottom - top);
        const auto& col = cmap[static_cast<size_t>(std::lround(t * 255.0))];
        for (int x = x0; x < x0 + barW; ++x)
            std::copy(col.begin(), col.end(), out.at(x, y));
    }
    const int tx = x0 + barW + gap;
    drawText(out, tx, top, "0 dB", px);
    drawText(out, tx, (top + bottom) / 2 - 2 * px, dbLabel(-rangeDb / 2), px);
    drawText(out, tx, bottom - 5 * px + 1, dbLabel(-rangeDb), px);
    return out;
}

} // namespace akutool
