// akudoa image: heat maps of a recording, frame by frame.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AKUDoa/akudoa.h"
#include "args.h"
#include "colormap.h"
#include "camera.h"
#include "commands.h"
#include "common.h"
#include "pngio.h"
#include "render.h"
#include "wavio.h"

namespace akutool {

const char* const kImageHelp =
    "usage: akudoa image --config CAMERA.ini --in RECORDING.wav --out DIR\n"
    "                    [--every N] [--range DB] [--scale S] [--colormap inferno|viridis]\n"
    "                    [--background PHOTO.png] [--no-marker] [--colorbar] [--max-frames N]\n"
    "                    [--cache DIR] [--verbose]\n"
    "\n"
    "Runs the recording through the library one frame (frame_size samples, no\n"
    "overlap) at a time and writes into DIR:\n"
    "  frame_NNNNN.png   heat map of every N-th frame (--every, default 1), levels from\n"
    "                    the frame maximum down to --range dB (default 10) in a\n"
    "                    perceptual colour map, the peak marked; --scale pixels per\n"
    "                    cell (default 8) or, with --background, the photo's size;\n"
    "                    --colorbar adds the labelled colour scale on the right\n"
    "  peaks.csv         per frame: frame, time_s, peak_row, peak_col, peak_level, peak_db\n"
    "  heatmap.f32       every frame's heat map, raw little-endian float32,\n"
    "                    frames x rows x cols (row-major), shape in heatmap.txt\n"
    "The recording must have the configuration's sample rate and one channel per\n"
    "capture channel. Files appear only when the whole run has succeeded.\n";

namespace {

struct Mat2dDeleter {
    void operator()(mat2d_fp32* m) const { destroy_mat2d_fp32(m); }
};
struct VecDeleter {
    void operator()(vec_fp32* v) const { destroy_vec_fp32(v); }
};

std::string frameName(long index)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "frame_%05ld.png", index);
    return buf;
}

void writeAll(FILE* fp, const void* data, size_t bytes, const std::string& name)
{
    if (bytes && std::fwrite(data, 1, bytes, fp) != bytes)
        throw ToolError("write error on " + name + " (disk full?)");
}

} // namespace

int runImage(const std::vector<std::string>& argv)
{
    Args args(argv,
              {"config", "in", "out", "every", "range", "scale", "colormap", "background", "max-frames", "cache"},
              {"no-marker", "colorbar", "verbose"});
    const std::string configPath = args.required("config");
    const std::string inPath = args.required("in");
    const std::string outDir = args.required("out");
    const long every = args.integer("every", 1);
    if (every < 1)
        throw UsageError("--every must be 1 or more");
    const long maxFrames = args.integer("max-frames", -1);
    RenderOptions ropt;
    ropt.rangeDb = args.number("range", 10.0);
    if (!(ropt.rangeDb > 0.0) || ropt.rangeDb > 200.0)
        throw UsageError("--range must lie in (0, 200] dB");
    ropt.scale = static_cast<int>(args.integer("scale", 8));
    if (ropt.scale < 1 || ropt.scale > 64)
        throw UsageError("--scale must lie in 1 ... 64");
    ropt.colorMap = args.get("colormap", "inferno");
    colorMap(ropt.colorMap); // reject an unknown name before any work
    ropt.markPeak = !args.has("no-marker");
    const bool colorBar = args.has("colorbar");

    // Every input is checked before the (possibly long) table set-up and
    // before anything is written.
    SoundReader wav(inPath);
    RgbImage photo;
    if (args.has("background")) {
        photo = readPng(args.get("background"));
        ropt.background = &photo;
    }
    if (!isReadableFile(configPath))
        throw ToolError("cannot read " + configPath + ": no such readable file");

    std::fprintf(stderr, "akudoa: setting up %s (steering tables are built or loaded from the cache)\n",
                 configPath.c_str());
    CameraOptions copt;
    copt.cacheDir = args.get("cache");
    copt.verbose = args.has("verbose");
    Camera cam(configPath, copt);
    AKUDoaKernel& k = cam.kernel();
    const SoundInfo& in = wav.info();
    const int channels = cam.layout().captureChannels;
    const int frameSize = k.audioRecoverLength();
    const int rows = k.imgRows(), cols = k.imgCols();
    if (in.channels != channels)
        throw ToolError(inPath + " has " + std::to_string(in.channels) + " channel(s); " + configPath +
                        " describes " + std::to_string(k.channelsCount()) + " microphones recorded on " +
                        std::to_string(channels) + " channels");
    if (in.sampleRate != k.samlpeRate())
        throw ToolError(inPath + " is sampled at " + std::to_string(in.sampleRate) + " Hz; " + configPath +
                        " expects " + std::to_string(k.samlpeRate()) + " Hz");
    long frames = static_cast<long>(in.frames / frameSize);
    if (frames < 1)
        throw ToolError(inPath + " holds " + std::to_string(in.frames) + " samples per channel, less than one frame of " +
                        std::to_string(frameSize));
    if (maxFrames >= 0)
        frames = std::min(frames, maxFrames);

    StagedDir out(outDir);
    StagedFile rawFile(out.path("heatmap.f32"));
    StagedFile csvFile(out.path("peaks.csv"));
    FILE* raw = rawFile.stream();
    FILE* csv = csvFile.stream();
    std::fprintf(csv, "frame,time_s,peak_row,peak_col,peak_level,peak_db\n");

    std::unique_ptr<mat2d_fp32, Mat2dDeleter> frame(create_mat2d_fp32(channels, frameSize));
    std::unique_ptr<mat2d_fp32, Mat2dDeleter> heat(create_mat2d_fp32(rows, cols));
    std::unique_ptr<vec_fp32, VecDeleter> spectrum(create_vec_fp32(frameSize / 2 + 1));
    std::vector<float> inter(static_cast<size_t>(frameSize) * channels);
    std::vector<float> map(static_cast<size_t>(rows) * cols);

    struct Segment {
        long first, last;
        Peak peak;
        double bestDb;
    };
    std::vector<Segment> track;
    double kernelSeconds = 0;
    long pngs = 0;
    Progress progress("imaging", frames);
    const auto wallStart = std::chrono::steady_clock::now();
    for (long f = 0; f < frames; ++f) {
        if (wav.read(inter.data(), frameSize) != frameSize)
            throw ToolError(inPath + ": the file ended early");
        for (int c = 0; c < channels; ++c) {
            float* row = frame->data[c];
            for (int i = 0; i < frameSize; ++i)
                row[i] = inter[static_cast<size_t>(i) * channels + c];
        }
        const auto t0 = std::chrono::steady_clock::now();
        if (!k.readHeatMap(frame.get(), heat.get(), spectrum.get(), 0))
            throw ToolError("the library rejected frame " + std::to_string(f));
        kernelSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        for (int r = 0; r < rows; ++r)
            std::copy(heat->data[r], heat->data[r] + cols, map.begin() + static_cast<long>(r) * cols);

        writeAll(raw, map.data(), map.size() * sizeof(float), "heatmap.f32");
        const Peak p = findPeak(map.data(), rows, cols);
        const double db = amplitudeDb(p.value);
        std::fprintf(csv, "%ld,%.6f,%d,%d,%.9g,%.3f\n", f, static_cast<double>(f) * frameSize / in.sampleRate,
                     p.row, p.col, static_cast<double>(p.value), db);
        if (!track.empty() && track.back().peak.row == p.row && track.back().peak.col == p.col) {
            track.back().last = f;
            track.back().bestDb = std::max(track.back().bestDb, db);
        } else {
            track.push_back({f, f, p, db});
        }
        if (f % every == 0) {
            RgbImage img = renderHeatMap(map.data(), rows, cols, ropt);
            if (colorBar)
                img = withColorBar(img, ropt.colorMap, ropt.rangeDb);
            std::string name = frameName(f);
            writePng(out.path(name), img);
            ++pngs;
        }
        progress.update(f + 1);
    }
    progress.finish();
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();

    {
        StagedFile shape(out.path("heatmap.txt"));
        std::fprintf(shape.stream(),
                     "file heatmap.f32\ndtype float32 little-endian\nframes %ld\nrows %d\ncols %d\n"
                     "order frame row col\nframe_seconds %.9g\nsample_rate %d\nframe_size %d\n",
                     frames, rows, cols, static_cast<double>(frameSize) / in.sampleRate, in.sampleRate, frameSize);
        shape.commit();
    }
    rawFile.commit();
    csvFile.commit();
    out.commit();

    std::printf("imaged %s with %s\n", inPath.c_str(), configPath.c_str());
    std::printf("  array: %s\n", cam.describe().c_str());
    std::printf("  frames: %ld of %d samples (%.3f s), %ld heat-map PNGs\n", frames, frameSize,
                static_cast<double>(frames) * frameSize / in.sampleRate, pngs);
    std::printf("  speed: %.1f frames/s in the library, %.1f frames/s overall (real time: %.1f frames/s)\n",
                kernelSeconds > 0 ? frames / kernelSeconds : 0.0, wall > 0 ? frames / wall : 0.0,
                static_cast<double>(in.sampleRate) / frameSize);
    std::printf("  peak track (row, column, best level):\n");
    const size_t shown = std::min<size_t>(track.size(), 12);
    for (size_t i = 0; i < shown; ++i)
        std::printf("    frames %ld-%ld: (%d, %d) %.1f dB\n", track[i].first, track[i].last, track[i].peak.row,
                    track[i].peak.col, track[i].bestDb);
    if (track.size() > shown)
        std::printf("    ... %zu more segments in peaks.csv\n", track.size() - shown);
    std::printf("  output: %s (frame_*.png, peaks.csv, heatmap.f32, heatmap.txt)\n", outDir.c_str());
    return 0;
}

} // namespace akutool
