#ifndef AKUDOA_TOOLS_INPUTS_H
#define AKUDOA_TOOLS_INPUTS_H

// Where the microphone signals come from: any sound file libsndfile reads,
// an HDF5 time-data file (dataset "time_data", samples x channels, with the
// attribute "sample_freq"), or raw interleaved little-endian samples on
// standard input ("-"). All deliver interleaved floats in -1 ... 1.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "geometry.h"
#include "wavio.h"

namespace akutool {

class FrameSource {
public:
    virtual ~FrameSource() = default;
    // frames is -1 for a stream of unknown length.
    const SoundInfo& info() const { return info_; }
    // Reads up to frames sample frames; fewer only at the end of the input.
    virtual int64_t read(float* interleaved, int64_t frames) = 0;

protected:
    SoundInfo info_;
};

// A file, by content: HDF5 by its signature, anything else through
// libsndfile. Throws ToolError naming the file.
std::unique_ptr<FrameSource> openRecordingFile(const std::string& path);

enum class RawFormat { S16, S32, F32 };
RawFormat parseRawFormat(const std::string& name); // throws UsageError

// Raw interleaved frames from a file descriptor (standard input). read()
// waits for whole sample frames; it returns early when stop() reports true
// (checked while waiting) or at the end of the input. A final partial
// sample frame is counted in leftoverBytes().
class RawStream : public FrameSource {
public:
    RawStream(int fd, RawFormat format, int channels, int sampleRate, bool (*stop)());
    int64_t read(float* interleaved, int64_t frames) override;
    bool ended() const { return ended_; }
    size_t leftoverBytes() const { return pending_.size(); }
    size_t bytesPerFrame() const { return width_ * static_cast<size_t>(info_.channels); }
    // Seconds spent waiting for data since the last call.
    double takeWaitSeconds();

private:
    int fd_;
    RawFormat format_;
    size_t width_;
    bool (*stop_)();
    bool ended_ = false;
    double wait_ = 0;
    std::vector<unsigned char> pending_;
};

// Which frame row (capture channel) each channel of an input feeds: a
// recording of the capture layout feeds rows one to one; a recording of
// exactly the configured microphones feeds position i's row from its
// channel i. Any other width throws ToolError naming both counts.
std::vector<int> inputChannelRows(const ArrayLayout& lay, int inputChannels, const std::string& inputName);

} // namespace akutool

#endif
