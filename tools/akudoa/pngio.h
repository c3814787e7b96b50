#ifndef AKUDOA_TOOLS_PNGIO_H
#define AKUDOA_TOOLS_PNGIO_H

// 8-bit RGB images and their PNG files (libpng).

#include <cstdint>
#include <string>
#include <vector>

namespace akutool {

struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb; // row-major, 3 bytes per pixel

    RgbImage() = default;
    RgbImage(int w, int h) : width(w), height(h), rgb(static_cast<size_t>(w) * h * 3, 0) {}
    uint8_t* at(int x, int y) { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
    const uint8_t* at(int x, int y) const { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
};

// Any PNG (grey, palette, 16-bit, with alpha composited over black) as
// 8-bit RGB. Throws ToolError naming the file on failure.
RgbImage readPng(const std::string& path);

// Writes an 8-bit RGB PNG atomically.
void writePng(const std::string& path, const RgbImage& image);

} // namespace akutool

#endif
