#include "colormap.h"

#include <algorithm>
#include <cmath>

#include "common.h"

namespace akutool {

namespace {
// Sixth-degree polynomial fits (per channel, coefficients of t^0 ... t^6) of
// matplotlib's inferno and viridis tables; within about 1/100 of the
// originals everywhere.
const double kInferno[3][7] = {
    {0.0002189403691192265, 0.1065134194856116, 11.60249308247187, -41.70399613139459, 77.162935699427,
     -71.31942824499214, 25.13112622477341},
    {0.001651004631001012, 0.5639564367884091, -3.972853965665698, 17.43639888205313, -33.40235894210092,
     32.62606426397723, -12.24266895238567},
    {-0.01948089843709184, 3.932712388889277, -15.9423941062914, 44.35414519872813, -81.80730925738993,
     73.20951985803202, -23.07032500287172}};
const double kViridis[3][7] = {
    {0.2777273272234177, 0.1050930431085774, -0.3308618287255563, -4.634230498983486, 6.228269936347081,
     4.776384997670288, -5.435455855934631},
    {0.005407344544966578, 1.404613529898575, 0.214847559468213, -5.799100973351585, 14.17993336680509,
     -13.74514537774601, 4.645852612178535},
    {0.3340998053353061, 1.384590162594685, 0.09509516302823659, -19.33244095627987, 56.69055260068105,
     -65.35303263337234, 26.3124352495832}};

ColorTable build(const double (&c)[3][7])
{
    ColorTable t{};
    for (int i = 0; i < 256; ++i) {
        double x = i / 255.0;
        for (int ch = 0; ch < 3; ++ch) {
            double v = c[ch][6];
            for (int k = 5; k >= 0; --k)
                v = v * x + c[ch][k];
            v = std::clamp(v, 0.0, 1.0);
            t[i][ch] = static_cast<uint8_t>(std::lround(v * 255.0));
        }
    }
    return t;
}
} // namespace

const ColorTable& colorMap(const std::string& name)
{
    static const ColorTable inferno = build(kInferno);
    static const ColorTable viridis = build(kViridis);
    if (name == "inferno")
        return inferno;
    if (name == "viridis")
        return viridis;
    throw ToolError("unknown colour map '" + name + "' (inferno or viridis)");
}

double lightness(const std::array<uint8_t, 3>& rgb)
{
    auto lin = [](uint8_t c) {
        double s = c / 255.0;
        return s <= 0.04045 ? s / 12.92 : std::pow((s + 0.055) / 1.055, 2.4);
    };
    double y = 0.2126 * lin(rgb[0]) + 0.7152 * lin(rgb[1]) + 0.0722 * lin(rgb[2]);
    return y > 216.0 / 24389.0 ? 116.0 * std::cbrt(y) - 16.0 : y * 24389.0 / 27.0;
}

} // namespace akutool
