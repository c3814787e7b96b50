// akudoa pickup: the sound arriving from one heat-map cell, as a mono WAV.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AKUDoa/akudoa.h"
#include "args.h"
#include "camera.h"
#include "commands.h"
#include "common.h"
#include "inputs.h"
#include "render.h"
#include "wavio.h"

namespace akutool {

const char* const kPickupHelp =
    "usage: akudoa pickup --config CAMERA.ini --in RECORDING|- --out AUDIO.wav\n"
    "                     (--cell ROW,COL | --peak) [--max-frames N] [--cache DIR] [--verbose]\n"
    "                     [--raw-format s16|s32|f32]\n"
    "\n"
    "Steers the array at one heat-map cell and writes the beamformed sound from\n"
    "there as a mono 32-bit float WAV at the recording's rate:\n"
    "  --cell ROW,COL   a fixed cell of the heat map as 'akudoa image' draws it\n"
    "  --peak           the strongest cell of each frame's heat map\n"
    "The recording is processed one frame (frame_size samples) at a time; the\n"
    "pickup passes the configured frequency band only. Its output lags the\n"
    "input by half a frame plus 11 samples; that many samples at the start of\n"
    "AUDIO.wav are the pickup settling, and the file has whole frames only.\n"
    "Recordings are read as by 'akudoa image' (sound files, HDF5 time data, or\n"
    "raw samples on standard input with --in -, up to the end of the input).\n";

namespace {


void parseCell(const std::string& text, int& row, int& col)
{
    const size_t comma = text.find(',');
    if (comma == std::string::npos)
        throw UsageError("--cell wants ROW,COL (for example 8,6), not '" + text + "'");
    row = static_cast<int>(parseLong(text.substr(0, comma), "--cell row"));
    col = static_cast<int>(parseLong(text.substr(comma + 1), "--cell column"));
}

} // namespace

int runPickup(const std::vector<std::string>& argv)
{
    Args args(argv, {"config", "in", "out", "cell", "max-frames", "cache", "raw-format"}, {"peak", "verbose"});
    const std::string configPath = args.required("config");
    const std::string inPath = args.required("in");
    const std::string outPath = args.required("out");
    const bool followPeak = args.has("peak");
    if (followPeak == args.has("cell"))
        throw UsageError("give exactly one of --cell ROW,COL and --peak");
    int cellRow = 0, cellCol = 0;
    if (!followPeak)
        parseCell(args.get("cell"), cellRow, cellCol);
    const long maxFrames = args.integer("max-frames", -1);
    const bool live = inPath == "-";
    const RawFormat rawFormat = parseRawFormat(args.get("raw-format", "f32"));

    std::unique_ptr<FrameSource> src;
    if (!live)
        src = openRecordingFile(inPath);
    requireReadableConfig(configPath);

    std::fprintf(stderr, "akudoa: setting up %s\n", configPath.c_str());
    Camera cam(configPath, CameraOptions::fromArgs(args));
    AKUDoaKernel& k = cam.kernel();
    if (live)
        src = std::make_unique<RawStream>(0, rawFormat, k.channelsCount(), k.samlpeRate(), nullptr);
    const SoundInfo in = src->info();
    const ArrayLayout lay = cam.layout();
    const int frameSize = k.audioRecoverLength();
    const int rows = k.imgRows(), cols = k.imgCols();
    if (rows <= 1)
        throw ToolError(configPath + " configures a linear array, which has no pickup");
    if (!followPeak && (cellRow < 0 || cellRow >= rows || cellCol < 0 || cellCol >= cols))
        throw UsageError("--cell " + std::to_string(cellRow) + "," + std::to_string(cellCol) +
                         " lies outside the " + std::to_string(rows) + " x " + std::to_string(cols) + " heat map");
    const std::vector<int> feeds = inputChannelRows(lay, in.channels, live ? "standard input" : inPath);
    if (in.sampleRate != k.samlpeRate())
        throw ToolError(inPath + " is sampled at " + std::to_string(in.sampleRate) + " Hz; " + configPath +
                        " expects " + std::to_string(k.samlpeRate()) + " Hz");
    long frames = live ? -1 : static_cast<long>(in.frames / frameSize);
    if (frames == 0)
        throw ToolError(inPath + " holds " + std::to_string(in.frames) +
                        " samples per channel, less than one frame of " + std::to_string(frameSize));
    if (maxFrames >= 0)
        frames = frames < 0 ? maxFrames : std::min(frames, maxFrames);

    std::unique_ptr<mat2d_fp32, Mat2dDeleter> frame(create_mat2d_fp32(lay.captureChannels, frameSize));
    std::unique_ptr<mat2d_fp32, Mat2dDeleter> heat(create_mat2d_fp32(rows, cols));
    std::unique_ptr<vec_fp32, VecDeleter> spectrum(create_vec_fp32(frameSize / 2 + 1));
    std::unique_ptr<vec_fp32, VecDeleter> audio(create_vec_fp32(frameSize));
    std::vector<float> inter(static_cast<size_t>(frameSize) * in.channels);
    std::vector<float> mono;
    std::vector<float> map(static_cast<size_t>(rows) * cols);

    Progress progress("pickup", live ? 0 : frames);
    long f = 0;
    for (; frames < 0 || f < frames; ++f) {
        if (src->read(inter.data(), frameSize) != frameSize) {
            if (!live)
                throw ToolError(inPath + ": the file ended early");
            break;
        }
        for (int c = 0; c < in.channels; ++c) {
            float* row = frame->data[feeds[c]];
            for (int i = 0; i < frameSize; ++i)
                row[i] = inter[static_cast<size_t>(i) * in.channels + c];
        }
        if (followPeak) {
            if (!k.readHeatMap(frame.get(), heat.get(), spectrum.get(), 0))
                throw ToolError("the library rejected frame " + std::to_string(f) + " for imaging");
            for (int r = 0; r < rows; ++r)
                std::copy(heat->data[r], heat->data[r] + cols, map.begin() + static_cast<long>(r) * cols);
            const Peak p = findPeak(map.data(), rows, cols);
            cellRow = p.row;
            cellCol = p.col;
        }
        if (!k.readPickedUpAudioAtCell(frame.get(), audio.get(), fpoint2d{0.0f, cellRow, cellCol}))
            throw ToolError("the library rejected frame " + std::to_string(f) + " for the pickup");
        mono.insert(mono.end(), audio->data, audio->data + frameSize);
        if (!live)
            progress.update(f + 1);
    }
    progress.finish();
    frames = f;
    if (frames == 0)
        throw ToolError("standard input ended before the first whole frame");
    writeWavFloat(outPath, {mono}, in.sampleRate);

    double energy = 0;
    for (float v : mono)
        energy += double(v) * v;
    const double rms = mono.empty() ? 0.0 : std::sqrt(energy / mono.size());
    std::printf("picked up %s with %s\n", inPath.c_str(), configPath.c_str());
    std::printf("  array: %s\n", cam.describe().c_str());
    if (followPeak)
        std::printf("  target: strongest heat-map cell of each frame\n");
    else
        std::printf("  target: heat-map cell (%d, %d)\n", cellRow, cellCol);
    std::printf("  frames: %ld of %d samples (%.3f s), output RMS %.1f dB full scale\n", frames, frameSize,
                static_cast<double>(frames) * frameSize / in.sampleRate, amplitudeDb(rms));
    std::printf("  output: %s (lags the input by %d samples)\n", outPath.c_str(), frameSize / 2 + 11);
    return 0;
}

} // namespace akutool
