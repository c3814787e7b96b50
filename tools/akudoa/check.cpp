// akudoa check: which microphone of an array is dead, clipping, noisy,
// inverted, swapped with another or not where the geometry says.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "AKUDoa/akudoa.h"
#include "args.h"
#include "camera.h"
#include "check.h"
#include "commands.h"
#include "common.h"
#include "inputs.h"
#include "pngio.h"
#include "render.h"

namespace akutool {

const char* const kCheckHelp =
    "usage: akudoa check --config CAMERA.ini --in RECORDING [--source ROW,COL] [--out DIR]\n"
    "                    [--max-frames N] [--cache DIR] [--verbose]\n"
    "\n"
    "Checks every microphone of the array on a recording (any file 'akudoa image'\n"
    "reads; the first --max-frames frames, by default two seconds). Positions and\n"
    "recording channels are numbered from 0.\n"
    "Always, per microphone: RMS and peak level (dB full scale), share of samples\n"
    "at the channel's own extreme value (clipped), DC offset, and its multiple\n"
    "coherence with its three nearest neighbours over the configured band (the\n"
    "share of its power they explain; near 1 with up to three sources).\n"
    "  dead     level 20 dB or more below the array's median, or 6 dB below it with\n"
    "           no coherence (under half the array's median coherence)\n"
    "  clipped  more than 1% of the samples at the channel's extreme value\n"
    "  noisy    no coherence at a normal level, or 10 dB or more above the median\n"
    "With one source in view (--source ROW,COL, the heat-map cell of a loudspeaker\n"
    "or a clap; without it, the strongest peak of the mean heat map when it stands\n"
    "3 dB or more above every other peak): each microphone's delay, by GCC-PHAT\n"
    "against the beam steered at that cell, is compared with the delay its\n"
    "position predicts (a delay plane common to all microphones is fitted out):\n"
    "  inverted        correlation with the beam negative\n"
    "  swapped with N  its delay fits position N's prediction and N's fits its own\n"
    "  misplaced       off its prediction by 5 robust deviations of the array (at\n"
    "                  least 0.3 samples); one source reveals only the part of a\n"
    "                  position error along the source's direction\n"
    "When swaps are found it prints the corrected channel order and the heat map's\n"
    "peak sharpness (peak over mean, dB) before and after re-imaging with it.\n"
    "--out DIR receives channels.csv (one row per microphone) and levels.png (the\n"
    "array seen from the scene, x to the right, y up, each microphone coloured by\n"
    "status: green ok, grey dead, orange clipped, purple noisy, blue inverted,\n"
    "red swapped, magenta misplaced).\n"
    "Exit status: 0 every microphone ok, 3 any is not, 1 on errors (also when no\n"
    "clear source is in view and --source is not given).\n";

namespace {

using Mat = std::unique_ptr<mat2d_fp32, Mat2dDeleter>;

const double kSpeedOfSound = 340.0; // m/s, as the imaging engines assume

// The mean heat map of the recording, position i fed from rows[source[i]]
// of the capture data.
std::vector<double> meanMap(AKUDoaKernel& k, const std::vector<std::vector<float>>& rows,
                            const ArrayLayout& lay, const std::vector<int>& source, long frames, int frameSize)
{
    const int nr = k.imgRows(), nc = k.imgCols();
    Mat frame(create_mat2d_fp32(lay.captureChannels, frameSize)), heat(create_mat2d_fp32(nr, nc));
    std::unique_ptr<vec_fp32, VecDeleter> spectrum(create_vec_fp32(frameSize / 2 + 1));
    std::vector<double> sum(static_cast<size_t>(nr) * nc, 0.0);
    for (long f = 0; f < frames; ++f) {
        for (size_t i = 0; i < source.size(); ++i)
            std::copy_n(rows[source[i]].begin() + f * frameSize, frameSize, frame->data[lay.channel[i]]);
        if (!k.readHeatMap(frame.get(), heat.get(), spectrum.get(), 0))
            throw ToolError("the library rejected frame " + std::to_string(f));
        for (int r = 0; r < nr; ++r)
            for (int c = 0; c < nc; ++c)
                sum[static_cast<size_t>(r) * nc + c] += heat->data[r][c] / frames;
    }
    return sum;
}

// Peak over the mean of the map. The engines floor the map at zero, so most
// cells away from a source are zero and a median would say nothing.
double sharpnessDb(const std::vector<double>& map)
{
    double sum = 0, peak = 0;
    for (double v : map) {
        sum += v;
        peak = std::max(peak, v);
    }
    return amplitudeDb(peak * map.size() / sum);
}

struct Cell {
    int row, col;
    double value;
};

// Local maxima of the map (8 neighbours), strongest first.
std::vector<Cell> peaks(const std::vector<double>& map, int nr, int nc)
{
    std::vector<Cell> out;
    for (int r = 0; r < nr; ++r)
        for (int c = 0; c < nc; ++c) {
            const double v = map[static_cast<size_t>(r) * nc + c];
            bool top = true;
            for (int dr = -1; dr <= 1 && top; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    const int rr = r + dr, cc = c + dc;
                    if ((dr || dc) && rr >= 0 && rr < nr && cc >= 0 && cc < nc &&
                        map[static_cast<size_t>(rr) * nc + cc] > v) {
                        top = false;
                        break;
                    }
                }
            if (top)
                out.push_back({r, c, v});
        }
    std::sort(out.begin(), out.end(), [](const Cell& a, const Cell& b) { return a.value > b.value; });
    return out;
}

std::array<uint8_t, 3> statusColour(const std::string& s)
{
    if (s == "ok")
        return {60, 200, 80};
    if (s == "dead")
        return {128, 128, 128};
    if (s == "clipped")
        return {255, 150, 0};
    if (s == "noisy")
        return {150, 70, 220};
    if (s == "inverted")
        return {40, 110, 255};
    if (s == "misplaced")
        return {240, 40, 220};
    return {230, 30, 30}; // swapped
}

// Position numbers beside the flagged microphones, in a 3 x 5 pixel font
// scaled by px.
void drawNumber(RgbImage& img, int x, int y, int number, int px)
{
    static const uint8_t digits[10][5] = {{7, 5, 5, 5, 7}, {2, 6, 2, 2, 7}, {7, 1, 7, 4, 7}, {7, 1, 7, 1, 7},
                                          {5, 5, 7, 1, 1}, {7, 4, 7, 1, 7}, {7, 4, 7, 5, 7}, {7, 1, 1, 1, 1},
                                          {7, 5, 7, 5, 7}, {7, 5, 7, 1, 7}};
    const std::string text = std::to_string(number);
    for (char ch : text) {
        for (int r = 0; r < 5; ++r)
            for (int c = 0; c < 3; ++c)
                for (int d = 0; digits[ch - '0'][r] & (4 >> c) && d < px * px; ++d) {
                    const int xx = x + c * px + d % px, yy = y + r * px + d / px;
                    if (xx >= 0 && yy >= 0 && xx < img.width && yy < img.height)
                        std::fill_n(img.at(xx, yy), 3, uint8_t(240));
                }
        x += 4 * px;
    }
}

RgbImage drawArray(const std::vector<MicReport>& mics)
{
    const int size = 480, dot = 9;
    RgbImage img(size, size);
    double reach = 1e-6;
    for (const MicReport& m : mics)
        reach = std::max(reach, std::hypot(m.position.x, m.position.y));
    const double scale = (size / 2 - 2 * dot) / reach;
    std::fill(img.rgb.begin(), img.rgb.end(), uint8_t(24));
    for (int t = -6; t <= 6; ++t) { // the array centre
        for (int ch = 0; ch < 3; ++ch) {
            img.at(size / 2 + t, size / 2)[ch] = 200;
            img.at(size / 2, size / 2 + t)[ch] = 200;
        }
    }
    for (const MicReport& m : mics) {
        const auto colour = statusColour(m.status);
        const int cx = static_cast<int>(std::lround(size / 2 + scale * m.position.x));
        const int cy = static_cast<int>(std::lround(size / 2 - scale * m.position.y));
        for (int y = cy - dot; y <= cy + dot; ++y)
            for (int x = cx - dot; x <= cx + dot; ++x) {
                const int d2 = (x - cx) * (x - cx) + (y - cy) * (y - cy);
                if (x < 0 || y < 0 || x >= size || y >= size || d2 > dot * dot)
                    continue;
                const bool rim = d2 > (dot - 2) * (dot - 2);
                for (int ch = 0; ch < 3; ++ch)
                    img.at(x, y)[ch] = rim ? 240 : colour[ch];
            }
        if (m.status != "ok")
            drawNumber(img, cx + dot + 2, cy - dot, static_cast<int>(&m - mics.data()), 2);
    }
    return img;
}

} // namespace

int runCheck(const std::vector<std::string>& argv)
{
    Args args(argv, {"config", "in", "out", "source", "max-frames", "cache"}, {"verbose"});
    const std::string configPath = args.required("config");
    const std::string inPath = args.required("in");
    const std::string outDir = args.get("out");
    const long maxFrames = args.integer("max-frames", 0);
    int srcRow = -1, srcCol = -1;
    if (args.has("source")) {
        const std::string t = args.get("source");
        const size_t comma = t.find(',');
        if (comma == std::string::npos)
            throw UsageError("--source wants ROW,COL (for example 8,6), not '" + t + "'");
        srcRow = static_cast<int>(parseLong(t.substr(0, comma), "--source row"));
        srcCol = static_cast<int>(parseLong(t.substr(comma + 1), "--source column"));
    }
    if (inPath == "-")
        throw UsageError("check reads a recording file, not standard input");
    std::unique_ptr<FrameSource> src = openRecordingFile(inPath);
    requireReadableConfig(configPath);

    Camera cam(configPath, CameraOptions::fromArgs(args));
    AKUDoaKernel& k = cam.kernel();
    const ArrayLayout lay = cam.layout();
    const int frameSize = k.audioRecoverLength(), rate = k.samlpeRate();
    const int nr = k.imgRows(), nc = k.imgCols();
    const SoundInfo in = src->info();
    const std::vector<int> feeds = inputChannelRows(lay, in.channels, inPath);
    if (in.sampleRate != rate)
        throw ToolError(inPath + " is sampled at " + std::to_string(in.sampleRate) + " Hz; " + configPath +
                        " expects " + std::to_string(rate) + " Hz");
    long frames = static_cast<long>(in.frames / frameSize);
    // Two seconds are plenty for every estimate and keep memory in bounds.
    frames = std::min(frames, maxFrames > 0 ? maxFrames : std::max(16L, 2L * rate / frameSize));
    // Fewer segments would let independent noise look coherent.
    if (frames < 16)
        throw ToolError(inPath + " holds " + std::to_string(in.frames) + " samples per channel; the check needs " +
                        "at least 16 frames of " + std::to_string(frameSize));
    if (args.has("source") && (srcRow < 0 || srcRow >= nr || srcCol < 0 || srcCol >= nc))
        throw UsageError("--source lies outside the " + std::to_string(nr) + " x " + std::to_string(nc) +
                         " heat map");

    // The whole recording, one vector per capture row.
    const size_t len = static_cast<size_t>(frames) * frameSize;
    std::vector<std::vector<float>> rows(static_cast<size_t>(lay.captureChannels), std::vector<float>(len, 0.0f));
    std::vector<int> inputOfRow(static_cast<size_t>(lay.captureChannels), -1);
    {
        std::vector<float> inter(static_cast<size_t>(frameSize) * in.channels);
        for (long f = 0; f < frames; ++f) {
            if (src->read(inter.data(), frameSize) != frameSize)
                throw ToolError(inPath + ": the file ended early");
            for (int c = 0; c < in.channels; ++c)
                for (int t = 0; t < frameSize; ++t)
                    rows[feeds[c]][static_cast<size_t>(f) * frameSize + t] = inter[static_cast<size_t>(t) * in.channels + c];
        }
        for (int c = 0; c < in.channels; ++c)
            inputOfRow[feeds[c]] = c;
    }
    const size_t m = lay.position.size();
    std::vector<std::vector<float>> sig(m);
    std::vector<MicReport> mics(m);
    for (size_t i = 0; i < m; ++i) {
        sig[i] = rows[lay.channel[i]];
        mics[i].position = lay.position[i];
        mics[i].channel = inputOfRow[lay.channel[i]];
    }
    const double lowHz = std::max(1.0, double(k.freqBandsManager()->minDownFreq()));
    const double highHz = std::min(0.5 * rate, double(k.freqBandsManager()->maxUpFreq()));
    const CheckLimits lim;
    checkLevels(sig, nearestNeighbours(lay.position, 3), frameSize, rate, lowHz, highHz, lim, mics);

    // The source cell: given, or the one clear peak of the mean map.
    const std::vector<double> before = meanMap(k, rows, lay, lay.channel, frames, frameSize);
    std::string sourceNote;
    if (srcRow < 0) {
        const std::vector<Cell> p = peaks(before, nr, nc);
        if (p.size() > 1 && amplitudeDb(p[0].value / p[1].value) < lim.clearPeakDb) {
            char buf[256];
            std::snprintf(buf, sizeof buf, "no single clear source: peaks at (%d, %d) and (%d, %d) are %.1f dB apart",
                          p[0].row, p[0].col, p[1].row, p[1].col, amplitudeDb(p[0].value / p[1].value));
            sourceNote = buf;
        } else {
            srcRow = p[0].row;
            srcCol = p[0].col;
        }
    }
    const double sharpBefore = sharpnessDb(before);
    std::vector<int> corrected = lay.channel;
    double sharpAfter = sharpBefore;
    bool swaps = false;
    if (srcRow >= 0) {
        // The beam steered at the cell, frame by frame, as the pickup delivers it.
        Mat frame(create_mat2d_fp32(lay.captureChannels, frameSize));
        std::unique_ptr<vec_fp32, VecDeleter> audio(create_vec_fp32(frameSize));
        std::vector<float> beam;
        for (long f = 0; f < frames; ++f) {
            for (int r = 0; r < lay.captureChannels; ++r)
                std::copy_n(rows[r].begin() + f * frameSize, frameSize, frame->data[r]);
            if (!k.readPickedUpAudioAtCell(frame.get(), audio.get(), fpoint2d{0.0f, srcRow, srcCol}))
                throw ToolError("the library rejected frame " + std::to_string(f) + " for the pickup");
            beam.insert(beam.end(), audio->data, audio->data + frameSize);
        }
        const PixelTarget t = pixelTarget(cam.image(), srcRow, srcCol);
        std::vector<double> predicted(m);
        for (size_t i = 0; i < m; ++i)
            predicted[i] = t.nearField ? (norm(t.v - lay.position[i]) - norm(t.v)) / kSpeedOfSound
                                       : -dot(lay.position[i], t.v) / kSpeedOfSound;
        checkDelays(sig, beam, predicted, rate, lowHz, highHz, lim, mics);
        for (size_t i = 0; i < m; ++i)
            if (mics[i].swappedWith >= 0) {
                corrected[i] = lay.channel[static_cast<size_t>(mics[i].swappedWith)];
                swaps = true;
            }
        if (swaps)
            sharpAfter = sharpnessDb(meanMap(k, rows, lay, corrected, frames, frameSize));
    }

    size_t bad = 0;
    for (const MicReport& r : mics)
        bad += r.status != "ok";
    std::printf("checked %s with %s\n", inPath.c_str(), configPath.c_str());
    std::printf("  array: %s\n", cam.describe().c_str());
    std::printf("  frames: %ld, band %.0f ... %.0f Hz\n", frames, lowHz, highHz);
    if (srcRow >= 0)
        std::printf("  source: heat-map cell (%d, %d)%s\n", srcRow, srcCol, args.has("source") ? "" : ", the clear peak");
    else
        std::printf("  source: %s; give --source ROW,COL to check delays, polarity and order\n", sourceNote.c_str());
    std::printf("\n  pos  chan   x_mm   y_mm   rms_dB  peak_dB  clip_%%       dc   coh  delay_us   pred_us  status\n");
    for (size_t i = 0; i < m; ++i) {
        const MicReport& r = mics[i];
        char delay[32] = "        -", pred[32] = "        -";
        if (r.delayKnown) {
            std::snprintf(delay, sizeof delay, "%9.1f", r.delayUs);
            std::snprintf(pred, sizeof pred, "%9.1f", r.predictedUs);
        }
        std::printf("  %3zu  %4d %6.1f %6.1f %8.1f %8.1f %7.2f %8.5f %5.2f %s %s  %s\n", i, r.channel,
                    1e3 * r.position.x, 1e3 * r.position.y, r.rmsDb, r.peakDb, r.clippedPct, r.dc, r.coherence, delay,
                    pred, r.status.c_str());
    }
    std::printf("\n  %zu of %zu microphones ok\n", m - bad, m);
    std::printf("  peak sharpness: %.2f dB\n", sharpBefore);
    if (swaps) {
        std::printf("  corrected channel order (recording channel of each position 0 ... %zu):\n   ", m - 1);
        for (int c : corrected)
            std::printf(" %d", inputOfRow[c]);
        std::printf("\n  peak sharpness with the corrected order: %.2f dB before, %.2f dB after\n", sharpBefore,
                    sharpAfter);
    }

    if (!outDir.empty()) {
        StagedDir staged(outDir);
        {
            StagedFile csv(staged.path("channels.csv"));
            FILE* fp = csv.stream();
            std::fprintf(fp, "position,x_m,y_m,channel,rms_dbfs,peak_dbfs,clipped_pct,dc,coherence,delay_us,"
                             "predicted_us,status\n");
            for (size_t i = 0; i < m; ++i) {
                const MicReport& r = mics[i];
                std::fprintf(fp, "%zu,%.5f,%.5f,%d,%.2f,%.2f,%.3f,%.6g,%.4f,", i, r.position.x, r.position.y,
                             r.channel, r.rmsDb, r.peakDb, r.clippedPct, r.dc, r.coherence);
                if (r.delayKnown)
                    std::fprintf(fp, "%.2f,%.2f,", r.delayUs, r.predictedUs);
                else
                    std::fprintf(fp, ",,");
                std::fprintf(fp, "%s\n", r.status.c_str());
            }
            csv.commit();
        }
        writePng(staged.path("levels.png"), drawArray(mics));
        staged.commit();
        std::printf("  output: %s (channels.csv, levels.png)\n", outDir.c_str());
    }
    if (srcRow < 0) {
        std::fprintf(stderr, "akudoa check: %s; give --source ROW,COL\n", sourceNote.c_str());
        return 1;
    }
    return bad ? 3 : 0;
}

} // namespace akutool
