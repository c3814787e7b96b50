#ifndef AKUDOA_TOOLS_GEOMETRY_H
#define AKUDOA_TOOLS_GEOMETRY_H

// Where the microphones are and which direction each heat-map pixel looks
// at, derived from the kernel's configuration record.
//
// Array coordinates, metres: the array lies in the plane z = 0 with its
// centre at the origin; x points along microphone azimuth 0, y along
// azimuth +90 degrees, z away from the array into the scene.

#include <vector>

struct StCamCfg;

namespace akutool {

struct Vec3 {
    double x = 0, y = 0, z = 0;
};

inline Vec3 operator-(const Vec3& a, const Vec3& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline Vec3 operator*(double s, const Vec3& a) { return {s * a.x, s * a.y, s * a.z}; }
double norm(const Vec3& a);
double dot(const Vec3& a, const Vec3& b);

struct ArrayLayout {
    int captureChannels = 0;      // channels of a recording for this array
    std::vector<Vec3> position;   // per array position
    std::vector<int> channel;     // capture channel feeding each position
};

// The microphones of the configuration. A layout that is a subset of the
// 128-microphone array (36, 48, 64, 128) is recorded on 128 channels;
// smaller rings on as many channels as they have microphones (or more when
// a geometry file names higher channels).
ArrayLayout layoutFromConfig(const StCamCfg& cfg);

// The settings that decide which direction a heat-map pixel shows.
struct ImageGeometry {
    int rows = 64, cols = 48;
    int program = 3;          // 3 or 53: planar V3 grid
    int rotateMode = 1;
    double angleDomainDeg = 43.0;
    double thetaXY = 1.3;
    bool focusEnabled = false;
    double focusDistance = 1.0; // metres
    double micMaxRadius = 0.11;
    bool correction = false;
    double sectionFactor = 10.0;
    double rx1 = 0, rx2 = 0, rx3 = 0, ry1 = 0, ry2 = 0, ry3 = 0;
};

ImageGeometry imageFromConfig(const StCamCfg& cfg);

// What a pixel centre (row, col of the delivered heat map; fractional
// values allowed) is focused on: a unit direction for a far-field image, or
// the focal point (metres) when the configuration focuses at a distance.
struct PixelTarget {
    bool nearField = false;
    Vec3 v;
};

// Throws ToolError for programs whose grid is not the planar V3 one.
PixelTarget pixelTarget(const ImageGeometry& g, double row, double col);

} // namespace akutool

#endif
