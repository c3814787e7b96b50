#ifndef AKUDOA_TOOLS_WAVIO_H
#define AKUDOA_TOOLS_WAVIO_H

// Multichannel sound files through libsndfile. Samples are floats in the
// file's full-scale range (integer formats are normalised to -1 ... 1).

#include <cstdint>
#include <string>
#include <vector>

namespace akutool {

struct SoundInfo {
    int channels = 0;
    int sampleRate = 0;
    int64_t frames = 0; // samples per channel
};

// Streaming reader: interleaved blocks of whole sample frames.
class SoundReader {
public:
    // Throws ToolError naming the file when it is missing or not a sound file.
    explicit SoundReader(const std::string& path);
    ~SoundReader();
    SoundReader(const SoundReader&) = delete;
    SoundReader& operator=(const SoundReader&) = delete;

    const SoundInfo& info() const { return info_; }
    // Reads up to frames sample frames (frames × channels floats) and
    // returns how many were read; 0 at the end.
    int64_t read(float* interleaved, int64_t frames);

private:
    std::string path_;
    void* file_ = nullptr; // SNDFILE*
    SoundInfo info_;
};

// Whole mono signal (channel `channel` of the file). Throws on any failure.
std::vector<float> readMono(const std::string& path, int channel, int& sampleRate);

// Writes a 32-bit float WAV of channels planes of equal length, atomically
// (a temporary file renamed when complete). planes[c][i] is sample i of
// channel c.
void writeWavFloat(const std::string& path, const std::vector<std::vector<float>>& planes, int sampleRate);

} // namespace akutool

#endif
