#include "inputs.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <hdf5.h>
#include <poll.h>
#include <unistd.h>

#include "common.h"

namespace akutool {

namespace {

class SndSource : public FrameSource {
public:
    explicit SndSource(const std::string& path) : reader_(path) { info_ = reader_.info(); }
    int64_t read(float* interleaved, int64_t frames) override { return reader_.read(interleaved, frames); }

private:
    SoundReader reader_;
};

// Owns an HDF5 identifier and closes it with the matching call.
struct H5Id {
    hid_t id;
    herr_t (*close)(hid_t);
    ~H5Id()
    {
        if (id >= 0)
            close(id);
    }
};

class Hdf5Source : public FrameSource {
public:
    explicit Hdf5Source(const std::string& path) : path_(path)
    {
        H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr); // our messages, not the library's stack dumps
        file_.id = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
        if (file_.id < 0)
            throw ToolError("cannot open " + path + " as an HDF5 file");
        if (H5Lexists(file_.id, "time_data", H5P_DEFAULT) <= 0)
            throw ToolError(path + " has no dataset 'time_data' (samples x channels)");
        data_.id = H5Dopen2(file_.id, "time_data", H5P_DEFAULT);
        space_.id = H5Dget_space(data_.id);
        hsize_t dims[2] = {0, 0};
        if (data_.id < 0 || space_.id < 0 || H5Sget_simple_extent_ndims(space_.id) != 2 ||
            H5Sget_simple_extent_dims(space_.id, dims, nullptr) != 2 || dims[1] < 1)
            throw ToolError(path + ": 'time_data' must be a two-dimensional dataset (samples x channels)");
        double rate = 0;
        if (!readRate(data_.id, rate) && !readRate(file_.id, rate))
            throw ToolError(path + ": no 'sample_freq' attribute on 'time_data'");
        if (!(rate >= 1 && rate < 1e7) || rate != std::floor(rate))
            throw ToolError(path + ": sample_freq " + std::to_string(rate) + " is not a whole number of Hz");
        info_.frames = static_cast<int64_t>(dims[0]);
        info_.channels = static_cast<int>(dims[1]);
        info_.sampleRate = static_cast<int>(rate);
    }

    int64_t read(float* interleaved, int64_t frames) override
    {
        const int64_t n = std::min(frames, info_.frames - next_);
        if (n <= 0)
            return 0;
        hsize_t start[2] = {static_cast<hsize_t>(next_), 0};
        hsize_t count[2] = {static_cast<hsize_t>(n), static_cast<hsize_t>(info_.channels)};
        H5Id mem{H5Screate_simple(2, count, nullptr), H5Sclose};
        if (H5Sselect_hyperslab(space_.id, H5S_SELECT_SET, start, nullptr, count, nullptr) < 0 ||
            H5Dread(data_.id, H5T_NATIVE_FLOAT, mem.id, space_.id, H5P_DEFAULT, interleaved) < 0)
            throw ToolError("read error in " + path_ + " (time_data samples " + std::to_string(next_) + "...)");
        next_ += n;
        return n;
    }

private:
    static bool readRate(hid_t owner, double& rate)
    {
        if (H5Aexists(owner, "sample_freq") <= 0)
            return false;
        H5Id attr{H5Aopen(owner, "sample_freq", H5P_DEFAULT), H5Aclose};
        return attr.id >= 0 && H5Aread(attr.id, H5T_NATIVE_DOUBLE, &rate) >= 0;
    }

    std::string path_;
    H5Id file_{-1, H5Fclose}, data_{-1, H5Dclose}, space_{-1, H5Sclose};
    int64_t next_ = 0;
};

bool isHdf5(const std::string& path)
{
    static const char kSignature[8] = {'\211', 'H', 'D', 'F', '\r', '\n', '\032', '\n'};
    char head[8] = {};
    std::ifstream in(path, std::ios::binary);
    return in.read(head, 8) && std::memcmp(head, kSignature, 8) == 0;
}

} // namespace

std::unique_ptr<FrameSource> openRecordingFile(const std::string& path)
{
    if (!isReadableFile(path))
        throw ToolError("cannot read " + path + ": no such readable file");
    if (isHdf5(path))
        return std::make_unique<Hdf5Source>(path);
    return std::make_unique<SndSource>(path);
}

RawFormat parseRawFormat(const std::string& name)
{
    if (name == "f32")
        return RawFormat::F32;
    if (name == "s32")
        return RawFormat::S32;
    if (name == "s16")
        return RawFormat::S16;
    throw UsageError("--raw-format must be s16, s32 or f32, not '" + name + "'");
}

RawStream::RawStream(int fd, RawFormat format, int channels, int sampleRate, bool (*stop)())
    : fd_(fd), format_(format), width_(format == RawFormat::S16 ? 2 : 4), stop_(stop)
{
    info_.channels = channels;
    info_.sampleRate = sampleRate;
    info_.frames = -1;
}

double RawStream::takeWaitSeconds()
{
    const double w = wait_;
    wait_ = 0;
    return w;
}

int64_t RawStream::read(float* interleaved, int64_t frames)
{
    const size_t want = static_cast<size_t>(frames) * bytesPerFrame();
    while (!ended_ && pending_.size() < want) {
        if (stop_ && stop_())
            break;
        // Wait in short slices so that a stop request is seen promptly
        // even when the source has gone quiet.
        pollfd p{fd_, POLLIN, 0};
        const auto t0 = std::chrono::steady_clock::now();
        const int ready = poll(&p, 1, 100);
        wait_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (ready < 0 && errno != EINTR)
            throw ToolError(std::string("cannot wait for standard input: ") + std::strerror(errno));
        if (ready <= 0)
            continue;
        const size_t old = pending_.size();
        pending_.resize(want);
        const ssize_t got = ::read(fd_, pending_.data() + old, want - old);
        pending_.resize(old + static_cast<size_t>(got > 0 ? got : 0));
        if (got == 0)
            ended_ = true;
        else if (got < 0 && errno != EINTR && errno != EAGAIN)
            throw ToolError(std::string("read error on standard input: ") + std::strerror(errno));
    }
    const size_t whole = std::min(want, pending_.size()) / bytesPerFrame();
    const size_t samples = whole * static_cast<size_t>(info_.channels);
    const unsigned char* b = pending_.data();
    for (size_t i = 0; i < samples; ++i, b += width_) {
        // Little-endian on the wire whatever the host's order.
        const uint32_t u = width_ == 2 ? uint32_t(b[0]) | uint32_t(b[1]) << 8
                                       : uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 |
                                             uint32_t(b[3]) << 24;
        float v;
        if (format_ == RawFormat::F32)
            std::memcpy(&v, &u, 4);
        else if (format_ == RawFormat::S32)
            v = static_cast<float>(static_cast<int32_t>(u) / 2147483648.0);
        else
            v = static_cast<float>(static_cast<int16_t>(u) / 32768.0);
        interleaved[i] = v;
    }
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(whole * bytesPerFrame()));
    return static_cast<int64_t>(whole);
}

std::vector<int> inputChannelRows(const ArrayLayout& lay, int inputChannels, const std::string& inputName)
{
    const int mics = static_cast<int>(lay.position.size());
    std::vector<int> rows;
    if (inputChannels == lay.captureChannels) {
        for (int c = 0; c < inputChannels; ++c)
            rows.push_back(c);
    } else if (inputChannels == mics) {
        rows = lay.channel;
    } else {
        const std::string accepted = mics == lay.captureChannels
                                         ? std::to_string(mics)
                                         : std::to_string(mics) + " (one per microphone) or " +
                                               std::to_string(lay.captureChannels) + " (the capture layout)";
        throw ToolError(inputName + " has " + std::to_string(inputChannels) + " channel(s) but the array has " +
                        std::to_string(mics) + " microphones: give a recording of " + accepted + " channels");
    }
    return rows;
}

} // namespace akutool
