#ifndef AKUDOA_TOOLS_SERVE_H
#define AKUDOA_TOOLS_SERVE_H

// Pieces of 'akudoa serve' that are worth testing on their own.

#include <map>
#include <string>

namespace akutool {

// The settings a browser may change while the camera runs.
struct LiveSettings {
    double rangeDb = 10.0;
    int program = 3;        // 3, 4, 53 or 54
    bool focus = false;     // near-field focus at distance
    double distance = 1.0;  // metres
    int lowHz = 0, highHz = 0;
    bool paused = false;
    int row = -1, col = -1; // the clicked cell, -1 when none
};

// Limits the control requests are checked against.
struct LiveLimits {
    int rows = 0, cols = 0;
    int nyquistHz = 0;
};

// Applies a control request body ("key=value&key=value", keys range,
// program, focus, distance, low, high, pause, row, col) to s. Returns an
// empty string on success, otherwise the reason; s is then left as it was.
std::string applyControl(const std::string& body, const LiveLimits& lim, LiveSettings& s);

// The page with the colour map filled in.
std::string livePage();

} // namespace akutool

#endif
