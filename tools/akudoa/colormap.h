#ifndef AKUDOA_TOOLS_COLORMAP_H
#define AKUDOA_TOOLS_COLORMAP_H

// Perceptual colour maps for heat maps: 256-entry 8-bit RGB tables whose
// lightness rises steadily from the first entry to the last, so equal steps
// of level look like equal steps of colour.

#include <array>
#include <cstdint>
#include <string>

namespace akutool {

using ColorTable = std::array<std::array<uint8_t, 3>, 256>;

// "inferno" (black - purple - orange - pale yellow) or "viridis" (blue -
// green - yellow). Throws ToolError for another name.
const ColorTable& colorMap(const std::string& name);

// CIE L* lightness (0 ... 100) of an sRGB colour.
double lightness(const std::array<uint8_t, 3>& rgb);

} // namespace akutool

#endif
