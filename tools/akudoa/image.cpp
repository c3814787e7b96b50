// akudoa image: heat maps of a recording, frame by frame.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "AKUDoa/akudoa.h"
#include "args.h"
#include "colormap.h"
#include "camera.h"
#include "commands.h"
#include "common.h"
#include "inputs.h"
#include "pngio.h"
#include "render.h"
#include "wavio.h"

namespace akutool {

const char* const kImageHelp =
    "usage: akudoa image --config CAMERA.ini --in RECORDING|- --out DIR [--raw-format s16|s32|f32]\n"
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
    "The recording (any sound file libsndfile reads, or HDF5 with a 'time_data'\n"
    "dataset of samples x channels and a 'sample_freq' attribute) must have the\n"
    "configuration's sample rate and one channel per microphone (channel i feeds\n"
    "array position i) or per capture channel. Files appear only when the whole run\n"
    "has succeeded.\n"
    "\n"
    "--in - reads raw interleaved little-endian samples (--raw-format, default f32),\n"
    "one channel per microphone at the configuration's rate, from standard input,\n"
    "for example: arecord -t raw -f FLOAT_LE -c 16 -r 96000 | akudoa image ... --in -\n"
    "Each frame is imaged as it arrives: its peaks.csv line is flushed at once and\n"
    "DIR/latest.png (replaced by rename, never half written) shows the newest PNG.\n"
    "Input is read one frame at a time, so a slow run holds the source back\n"
    "rather than buffering; once per second it says on standard error when it\n"
    "falls behind real time. End of input, SIGINT or SIGTERM finish the files; a\n"
    "final incomplete frame is dropped with a message.\n";

namespace {


std::string frameName(long index)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "frame_%05ld.png", index);
    return buf;
}

volatile std::sig_atomic_t g_stop = 0;

void onStopSignal(int) { g_stop = 1; }

bool stopRequested() { return g_stop != 0; }

// SIGINT and SIGTERM end a live run after the frame in hand, so that every
// output is left whole.
void installStopHandlers()
{
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

// latest.png becomes the newest frame's PNG by rename, so a viewer never
// sees half a file; a hard link spares encoding the picture twice.
void showLatest(const std::string& dir, const std::string& frameFile, const RgbImage& img)
{
    const std::string latest = joinPath(dir, "latest.png"), temp = joinPath(dir, ".akudoa-latest.png");
    std::remove(temp.c_str());
    if (link(joinPath(dir, frameFile).c_str(), temp.c_str()) != 0 || std::rename(temp.c_str(), latest.c_str()) != 0)
        writePng(latest, img);
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
              {"config", "in", "out", "every", "range", "scale", "colormap", "background", "max-frames", "cache",
               "raw-format"},
              {"no-marker", "colorbar", "verbose"});
    const std::string configPath = args.required("config");
    const std::string inPath = args.required("in");
    const std::string outDir = args.required("out");
    const bool live = inPath == "-";
    const std::string inName = live ? "standard input" : inPath;
    const RawFormat rawFormat = parseRawFormat(args.get("raw-format", "f32"));
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
    std::unique_ptr<FrameSource> src;
    if (!live)
        src = openRecordingFile(inPath);
    RgbImage photo;
    if (args.has("background")) {
        photo = readPng(args.get("background"));
        ropt.background = &photo;
    }
    requireReadableConfig(configPath);

    std::fprintf(stderr, "akudoa: setting up %s (steering tables are built or loaded from the cache)\n",
                 configPath.c_str());
    Camera cam(configPath, CameraOptions::fromArgs(args));
    AKUDoaKernel& k = cam.kernel();
    const ArrayLayout lay = cam.layout();
    const int frameSize = k.audioRecoverLength();
    const int rows = k.imgRows(), cols = k.imgCols();
    RawStream* stream = nullptr;
    if (live) {
        installStopHandlers();
        auto raw = std::make_unique<RawStream>(0, rawFormat, k.channelsCount(), k.samlpeRate(), stopRequested);
        stream = raw.get();
        src = std::move(raw);
    }
    const SoundInfo in = src->info();
    const std::vector<int> feeds = inputChannelRows(lay, in.channels, inName);
    if (in.sampleRate != k.samlpeRate())
        throw ToolError(inPath + " is sampled at " + std::to_string(in.sampleRate) + " Hz; " + configPath +
                        " expects " + std::to_string(k.samlpeRate()) + " Hz");
    long frames = live ? -1 : static_cast<long>(in.frames / frameSize);
    if (frames == 0)
        throw ToolError(inPath + " holds " + std::to_string(in.frames) + " samples per channel, less than one frame of " +
                        std::to_string(frameSize));
    if (maxFrames >= 0)
        frames = frames < 0 ? maxFrames : std::min(frames, maxFrames);

    // A file run publishes its outputs together at the end; a live run
    // shows them as they grow (each PNG still appears whole, by rename).
    std::unique_ptr<StagedDir> staged;
    if (live)
        makeDirs(outDir);
    else
        staged = std::make_unique<StagedDir>(outDir);
    auto outPath = [&](const std::string& name) { return staged ? staged->path(name) : joinPath(outDir, name); };
    std::unique_ptr<StagedFile> rawFile, csvFile;
    FILE* raw = nullptr;
    FILE* csv = nullptr;
    if (live) {
        raw = std::fopen(outPath("heatmap.f32").c_str(), "wb");
        csv = std::fopen(outPath("peaks.csv").c_str(), "w");
        if (!raw || !csv)
            throw ToolError("cannot write into " + outDir);
    } else {
        rawFile = std::make_unique<StagedFile>(outPath("heatmap.f32"));
        csvFile = std::make_unique<StagedFile>(outPath("peaks.csv"));
        raw = rawFile->stream();
        csv = csvFile->stream();
    }
    std::fprintf(csv, "frame,time_s,peak_row,peak_col,peak_level,peak_db\n");

    std::unique_ptr<mat2d_fp32, Mat2dDeleter> frame(create_mat2d_fp32(lay.captureChannels, frameSize));
    std::unique_ptr<mat2d_fp32, Mat2dDeleter> heat(create_mat2d_fp32(rows, cols));
    std::unique_ptr<vec_fp32, VecDeleter> spectrum(create_vec_fp32(frameSize / 2 + 1));
    std::vector<float> inter(static_cast<size_t>(frameSize) * in.channels);
    std::vector<float> map(static_cast<size_t>(rows) * cols);

    struct Segment {
        long first, last;
        Peak peak;
        double bestDb;
    };
    std::vector<Segment> track;
    double kernelSeconds = 0;
    long pngs = 0;
    long f = 0;
    int64_t partial = 0; // sample frames of an incomplete last frame
    const double realTimeRate = static_cast<double>(in.sampleRate) / frameSize;
    Progress progress("imaging", live ? 0 : frames);
    const auto wallStart = std::chrono::steady_clock::now();
    auto windowStart = wallStart;
    long windowFrames = 0;
    for (; frames < 0 || f < frames; ++f) {
        const int64_t got = src->read(inter.data(), frameSize);
        if (got != frameSize) {
            if (!live)
                throw ToolError(inPath + ": the file ended early");
            partial = got;
            break;
        }
        for (int c = 0; c < in.channels; ++c) {
            float* row = frame->data[feeds[c]];
            for (int i = 0; i < frameSize; ++i)
                row[i] = inter[static_cast<size_t>(i) * in.channels + c];
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
        if (live && (std::fflush(csv) != 0 || std::fflush(raw) != 0))
            throw ToolError("write error in " + outDir + " (disk full?)");
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
            writePng(outPath(frameName(f)), img);
            if (live)
                showLatest(outDir, frameName(f), img);
            ++pngs;
        }
        if (!live) {
            progress.update(f + 1);
            continue;
        }
        // Behind real time: the input had data waiting (little time spent
        // waiting for it) and still fewer frames were imaged than it carries.
        ++windowFrames;
        const auto now = std::chrono::steady_clock::now();
        const double window = std::chrono::duration<double>(now - windowStart).count();
        if (window >= 1.0) {
            const double rate = windowFrames / window, waited = stream->takeWaitSeconds();
            if (rate < realTimeRate && waited < 0.1 * window)
                std::fprintf(stderr, "akudoa image: behind real time: %.1f frames/s imaged, the input carries %.1f "
                                     "frames/s\n", rate, realTimeRate);
            windowStart = now;
            windowFrames = 0;
        }
    }
    progress.finish();
    frames = f;
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    if (live && stopRequested())
        std::fprintf(stderr, "akudoa image: stopped by a signal after %ld frames\n", frames);
    else if (live && (partial > 0 || stream->leftoverBytes() > 0))
        std::fprintf(stderr, "akudoa image: the input ended %zu bytes into frame %ld (a frame is %zu bytes: %d "
                             "samples x %d channels); that incomplete frame was dropped\n",
                     static_cast<size_t>(partial) * stream->bytesPerFrame() + stream->leftoverBytes(), frames,
                     static_cast<size_t>(frameSize) * stream->bytesPerFrame(), frameSize, in.channels);

    {
        StagedFile shape(outPath("heatmap.txt"));
        std::fprintf(shape.stream(),
                     "file heatmap.f32\ndtype float32 little-endian\nframes %ld\nrows %d\ncols %d\n"
                     "order frame row col\nframe_seconds %.9g\nsample_rate %d\nframe_size %d\n",
                     frames, rows, cols, static_cast<double>(frameSize) / in.sampleRate, in.sampleRate, frameSize);
        shape.commit();
    }
    if (live) {
        const bool bad = std::fclose(raw) != 0;
        if ((std::fclose(csv) != 0) || bad)
            throw ToolError("write error in " + outDir + " (disk full?)");
    } else {
        rawFile->commit();
        csvFile->commit();
        staged->commit();
    }

    std::printf("imaged %s with %s\n", inName.c_str(), configPath.c_str());
    std::printf("  array: %s\n", cam.describe().c_str());
    std::printf("  frames: %ld of %d samples (%.3f s), %ld heat-map PNGs\n", frames, frameSize,
                static_cast<double>(frames) * frameSize / in.sampleRate, pngs);
    std::printf("  speed: %.1f frames/s in the library, %.1f frames/s overall (real time: %.1f frames/s)\n",
                kernelSeconds > 0 ? frames / kernelSeconds : 0.0, wall > 0 ? frames / wall : 0.0, realTimeRate);
    std::printf("  peak track (row, column, best level):\n");
    const size_t shown = std::min<size_t>(track.size(), 12);
    for (size_t i = 0; i < shown; ++i)
        std::printf("    frames %ld-%ld: (%d, %d) %.1f dB\n", track[i].first, track[i].last, track[i].peak.row,
                    track[i].peak.col, track[i].bestDb);
    if (track.size() > shown)
        std::printf("    ... %zu more segments in peaks.csv\n", track.size() - shown);
    std::printf("  output: %s (frame_*.png, %speaks.csv, heatmap.f32, heatmap.txt)\n", outDir.c_str(),
                live ? "latest.png, " : "");
    return 0;
}

} // namespace akutool
