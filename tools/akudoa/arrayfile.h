#ifndef AKUDOA_TOOLS_ARRAYFILE_H
#define AKUDOA_TOOLS_ARRAYFILE_H

// Microphone positions as people keep them (text rows "x y [z]" in metres,
// or Acoular's XML <MicArray> with one <pos Name= x= y= z=/> per
// microphone) turned into the library's geometry file: per position the
// capture channel, the azimuth (radians) and the radius (metres) about the
// array centre.

#include <string>
#include <vector>

#include "geometry.h"

namespace akutool {

struct MicPosition {
    std::string name; // for messages: the XML Name or "microphone N (line L)"
    Vec3 p;
};

// Reads either format (XML when the file starts with '<'). Throws ToolError.
std::vector<MicPosition> readMicPositions(const std::string& path);

struct ArrayGeometry {
    std::vector<int> index;
    std::vector<float> phi, radius;
    Vec3 centre;          // of the input coordinates, subtracted
    double aperture = 0;  // largest distance between two microphones
    double maxRadius = 0; // largest distance from the centre
};

// Centres the array and checks it: a supported count, in the plane within
// 1 mm, no two microphones at one place. Throws ToolError naming the
// microphone at fault.
ArrayGeometry arrayGeometry(const std::vector<MicPosition>& mics);

void writeGeometryFile(const std::string& path, const ArrayGeometry& g);

} // namespace akutool

#endif
