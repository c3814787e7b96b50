#ifndef AKUDOA_TOOLS_SCENE_H
#define AKUDOA_TOOLS_SCENE_H

// Scene descriptions for `akudoa simulate`: point sources in free field in
// front of the array, each with a signal, and optional uncorrelated noise on
// every microphone. The file format is documented in examples/README.md and
// in `akudoa simulate --help`.

#include <cstdint>
#include <string>
#include <vector>

#include "geometry.h"

namespace akutool {

class IniFile;

enum class Placement { Position, Direction, Pixel };
enum class SignalKind { Noise, Tone, File };

struct SourceSpec {
    std::string name;            // section name, for messages
    Placement placement = Placement::Position;
    Vec3 position;               // metres (Position)
    Vec3 direction;              // not normalised yet (Direction)
    double row = 0, col = 0;     // heat-map pixel (Pixel)
    double distance = 0;         // > 0: point source at this range along the direction/pixel ray
    SignalKind signal = SignalKind::Noise;
    double bandLow = 0, bandHigh = 0; // Hz; both 0: white
    double frequency = 0;        // Hz (Tone)
    std::string file;            // mono WAV (File)
    int fileChannel = 0;
    double levelDb = -20;        // noise/tone: RMS in dB full scale; file: gain in dB
};

struct Scene {
    double duration = 1.0;       // seconds
    int sampleRate = 0;          // Hz; 0: the configuration's
    uint64_t seed = 1;
    double speedOfSound = 340.0; // m/s, as the imaging engines assume
    bool micNoise = false;
    double micNoiseDb = -200;    // RMS in dB full scale
    std::vector<SourceSpec> sources;
};

// Parses and checks a scene; relative signal file names are taken relative
// to the scene file's directory. Throws ToolError with file:line context.
Scene parseScene(const IniFile& ini);

// A source made concrete for one array: either a plane wave (unit
// direction, the level as given at every microphone) or a point source
// (position in metres; the level is that at 1 m, falling as 1/r).
struct ResolvedSource {
    bool planeWave = true;
    Vec3 v;
    SourceSpec spec;
};

ResolvedSource resolveSource(const SourceSpec& s, const ImageGeometry& image);

// The recording: one plane per capture channel, duration × rate samples.
// Delays are relative to the arrival at the array centre, applied exactly
// (band-limited, in the frequency domain); the result depends only on the
// inputs and the seed.
std::vector<std::vector<float>> simulateScene(const Scene& scene, const std::vector<ResolvedSource>& sources,
                                              const ArrayLayout& array, int sampleRate);

} // namespace akutool

#endif
