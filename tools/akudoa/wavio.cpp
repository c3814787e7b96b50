#include "wavio.h"

#include <algorithm>
#include <sndfile.h>

#include "common.h"

namespace akutool {

SoundReader::SoundReader(const std::string& path) : path_(path)
{
    if (!isReadableFile(path))
        throw ToolError("cannot read " + path + ": no such readable file");
    SF_INFO sfi{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &sfi);
    if (!f)
        throw ToolError("cannot read " + path + " as a sound file: " + sf_strerror(nullptr));
    file_ = f;
    info_.channels = sfi.channels;
    info_.sampleRate = sfi.samplerate;
    info_.frames = sfi.frames;
}

SoundReader::~SoundReader()
{
    if (file_)
        sf_close(static_cast<SNDFILE*>(file_));
}

int64_t SoundReader::read(float* interleaved, int64_t frames)
{
    sf_count_t got = sf_readf_float(static_cast<SNDFILE*>(file_), interleaved, frames);
    if (got < 0)
        throw ToolError("read error in " + path_ + ": " + sf_strerror(static_cast<SNDFILE*>(file_)));
    return got;
}

std::vector<float> readMono(const std::string& path, int channel, int& sampleRate)
{
    SoundReader r(path);
    const SoundInfo& in = r.info();
    if (channel < 0 || channel >= in.channels)
        throw ToolError(path + " has " + std::to_string(in.channels) + " channel(s); channel " +
                        std::to_string(channel) + " does not exist");
    sampleRate = in.sampleRate;
    std::vector<float> out;
    out.reserve(static_cast<size_t>(std::max<int64_t>(in.frames, 0)));
    std::vector<float> block(static_cast<size_t>(4096) * in.channels);
    for (;;) {
        int64_t got = r.read(block.data(), 4096);
        if (got == 0)
            break;
        for (int64_t i = 0; i < got; ++i)
            out.push_back(block[static_cast<size_t>(i * in.channels + channel)]);
    }
    return out;
}

void writeWavFloat(const std::string& path, const std::vector<std::vector<float>>& planes, int sampleRate)
{
    if (planes.empty())
        throw ToolError("nothing to write to " + path);
    const int channels = static_cast<int>(planes.size());
    const size_t frames = planes[0].size();
    for (const auto& p : planes)
        if (p.size() != frames)
            throw ToolError("internal error: channel lengths differ for " + path);

    StagedFile staged(path);
    SF_INFO sfi{};
    sfi.channels = channels;
    sfi.samplerate = sampleRate;
    sfi.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    if (!sf_format_check(&sfi))
        throw ToolError("libsndfile cannot write a float WAV with " + std::to_string(channels) + " channels at " +
                        std::to_string(sampleRate) + " Hz");
    SNDFILE* f = sf_open(staged.tempPath().c_str(), SFM_WRITE, &sfi);
    if (!f)
        throw ToolError("cannot write " + path + ": " + sf_strerror(nullptr));
    // The PEAK chunk carries the time of writing; without it the same
    // samples always give the same bytes.
    sf_command(f, SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    const size_t block = 4096;
    std::vector<float> inter(block * channels);
    bool ok = true;
    for (size_t start = 0; start < frames && ok; start += block) {
        size_t n = std::min(block, frames - start);
        for (size_t i = 0; i < n; ++i)
            for (int c = 0; c < channels; ++c)
                inter[i * channels + c] = planes[c][start + i];
        ok = sf_writef_float(f, inter.data(), static_cast<sf_count_t>(n)) == static_cast<sf_count_t>(n);
    }
    std::string err = ok ? std::string() : sf_strerror(f);
    if (sf_close(f) != 0 && ok) {
        ok = false;
        err = "close failed";
    }
    if (!ok)
        throw ToolError("write error on " + path + ": " + err);
    staged.commit();
}

} // namespace akutool
