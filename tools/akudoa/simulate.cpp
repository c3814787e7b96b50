// akudoa simulate: a recording of a scene for the configured array.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "AKUDoa/akudoa.h"
#include "args.h"
#include "camera.h"
#include "commands.h"
#include "common.h"
#include "ini.h"
#include "scene.h"
#include "wavio.h"

namespace akutool {

const char* const kSimulateHelp =
    "usage: akudoa simulate --config CAMERA.ini --scene SCENE.ini --out RECORDING.wav|-\n"
    "                       [--duration SECONDS] [--rate HZ] [--seed N] [--cache DIR] [--verbose]\n"
    "\n"
    "Writes a 32-bit float WAV with one channel per capture channel of the configured\n"
    "array (128 for the 36/48/64/128-microphone layouts) holding the point sources of\n"
    "the scene in free field: exact fractional delays, 1/r spreading, optional\n"
    "uncorrelated microphone noise. The same scene and seed give the same file.\n"
    "--out - writes raw interleaved little-endian float32 samples to standard output\n"
    "instead, one channel per microphone, as 'akudoa image --in -' reads a live array.\n"
    "\n"
    "Scene file (INI; ';' or '#' comments):\n"
    "  [scene]\n"
    "  duration = 1.0            seconds (--duration overrides)\n"
    "  sample_rate = 96000       Hz; default: the configuration's (--rate overrides)\n"
    "  seed = 1                  random seed (--seed overrides)\n"
    "  mic_noise_db = -60        uncorrelated noise on every channel, RMS dB full scale\n"
    "  speed_of_sound = 340      m/s\n"
    "  [source NAME]             one section per source; exactly one of:\n"
    "  pixel = ROW COL           the direction the heat-map pixel shows (V3 programs)\n"
    "  direction = X Y Z         a direction in array coordinates (plane wave)\n"
    "  position = X Y Z          metres, array coordinates: x along microphone\n"
    "                            azimuth 0, y along +90 degrees, z into the scene\n"
    "  distance = METRES         with pixel/direction: a point source at this range\n"
    "  signal = noise|tone|file  default noise\n"
    "  band = LOW HIGH           noise band in Hz (default: white)\n"
    "  frequency = HZ            tone frequency\n"
    "  file = mono.wav           signal file (relative to the scene file), channel = N\n"
    "  level_db = -20            noise/tone RMS in dB full scale (at 1 m for point\n"
    "                            sources); for a file, a gain in dB (default 0)\n";

namespace {

// Position i's channel as channel i of raw little-endian float32 frames.
void writeRawMicrophones(const std::vector<std::vector<float>>& planes, const ArrayLayout& layout)
{
    const size_t mics = layout.channel.size();
    std::vector<unsigned char> frame(mics * 4);
    for (size_t t = 0; t < planes[0].size(); ++t) {
        for (size_t i = 0; i < mics; ++i) {
            uint32_t u;
            std::memcpy(&u, &planes[static_cast<size_t>(layout.channel[i])][t], 4);
            for (int b = 0; b < 4; ++b)
                frame[i * 4 + b] = static_cast<unsigned char>(u >> (8 * b));
        }
        if (std::fwrite(frame.data(), 1, frame.size(), stdout) != frame.size())
            throw ToolError("write error on standard output");
    }
    if (std::fflush(stdout) != 0)
        throw ToolError("write error on standard output");
}

} // namespace

int runSimulate(const std::vector<std::string>& argv)
{
    Args args(argv, {"config", "scene", "out", "duration", "rate", "seed", "cache"}, {"verbose"});
    const std::string configPath = args.required("config");
    const std::string scenePath = args.required("scene");
    const std::string outPath = args.required("out");

    Scene scene = parseScene(IniFile::load(scenePath));
    if (args.has("duration")) {
        scene.duration = args.number("duration", scene.duration);
        if (!(scene.duration > 0.0) || scene.duration > 3600.0)
            throw UsageError("--duration must lie in (0, 3600] seconds");
    }
    if (args.has("seed"))
        scene.seed = static_cast<uint64_t>(args.integer("seed", 1));
    for (const SourceSpec& s : scene.sources)
        if (s.signal == SignalKind::File && !isReadableFile(s.file))
            throw ToolError("[" + s.name + "] cannot read the signal file " + s.file);

    std::fprintf(stderr, "akudoa: setting up %s (steering tables are built or loaded from the cache)\n",
                 configPath.c_str());
    Camera cam(configPath, CameraOptions::fromArgs(args));
    const ArrayLayout layout = cam.layout();
    const ImageGeometry image = cam.image();

    int rate = static_cast<int>(args.integer("rate", scene.sampleRate > 0 ? scene.sampleRate : cam.kernel().samlpeRate()));
    if (rate < 1000 || rate > 1000000)
        throw UsageError("--rate must lie in 1000 ... 1000000 Hz");

    std::vector<ResolvedSource> sources;
    for (const SourceSpec& s : scene.sources)
        sources.push_back(resolveSource(s, image));

    auto planes = simulateScene(scene, sources, layout, rate);
    // With the samples on standard output the report goes to standard error.
    FILE* report = stdout;
    if (outPath == "-") {
        report = stderr;
        writeRawMicrophones(planes, layout);
    } else {
        writeWavFloat(outPath, planes, rate);
    }

    std::fprintf(report, "wrote %s: %zu channels, %d Hz, %.3f s\n", outPath.c_str(),
                 outPath == "-" ? layout.channel.size() : planes.size(), rate,
                 static_cast<double>(planes[0].size()) / rate);
    std::fprintf(report, "array: %s\n", cam.describe().c_str());
    if (rate != cam.kernel().samlpeRate())
        std::fprintf(report, "note: %s expects %d Hz; `akudoa image` will refuse this recording with it\n",
                    configPath.c_str(), cam.kernel().samlpeRate());
    for (const ResolvedSource& s : sources) {
        int row = -1, col = -1;
        bool known = nearestPixel(image, s.v, row, col);
        const char* kind = s.spec.signal == SignalKind::Noise ? "noise" : s.spec.signal == SignalKind::Tone ? "tone" : "file";
        if (s.planeWave)
            std::fprintf(report, "  [%s] %s from direction (%.4f, %.4f, %.4f)", s.spec.name.c_str(), kind, s.v.x, s.v.y,
                        s.v.z);
        else
            std::fprintf(report, "  [%s] %s at (%.3f, %.3f, %.3f) m", s.spec.name.c_str(), kind, s.v.x, s.v.y, s.v.z);
        if (known)
            std::fprintf(report, ", expected at heat-map row %d, column %d\n", row, col);
        else
            std::fprintf(report, "\n");
    }
    return 0;
}

} // namespace akutool
