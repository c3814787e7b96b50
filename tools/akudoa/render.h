#ifndef AKUDOA_TOOLS_RENDER_H
#define AKUDOA_TOOLS_RENDER_H

// Turning one heat map (rows × cols of linear amplitudes, as the kernel
// delivers them) into a picture.

#include <string>

#include "pngio.h"

namespace akutool {

struct Peak {
    int row = 0;
    int col = 0;
    float value = 0.0f; // linear amplitude at the peak
};

// Largest entry (first one on ties, row-major). NaNs are skipped.
Peak findPeak(const float* map, int rows, int cols);

// 20·log10(value); -inf for 0 and negative values.
double amplitudeDb(double value);

struct RenderOptions {
    double rangeDb = 10.0;            // levels below max - rangeDb are not coloured
    int scale = 8;                    // output pixels per heat-map cell (no background)
    std::string colorMap = "inferno";
    const RgbImage* background = nullptr; // photo: output takes its size, heat is blended over it
    bool markPeak = true;
};

// The picture has rows × scale lines of cols × scale pixels (or the
// background's size); cell (r, c) covers the block whose top-left corner is
// (c × scale, r × scale). Levels are interpolated bilinearly between cell
// centres, mapped to the colour map over [max - rangeDb, max] dB; lower
// levels get the map's first colour, or leave the background visible.
RgbImage renderHeatMap(const float* map, int rows, int cols, const RenderOptions& opt);

// The picture widened by a strip on its right holding the colour scale from
// 0 dB (top, the frame maximum) down to -rangeDb (bottom), labelled.
RgbImage withColorBar(const RgbImage& picture, const std::string& colorMap, double rangeDb);

} // namespace akutool

#endif
