#include "camera.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "AKUDoa/akudoa.h"
#include "common.h"
#include "ini.h"

namespace akutool {

namespace {
void printLogLine(const char*, int, const char*, const char* message)
{
    std::fputs(message, stderr);
    size_t n = std::strlen(message);
    if (n == 0 || message[n - 1] != '\n')
        std::fputc('\n', stderr);
}
} // namespace

Camera::Camera(const std::string& iniPath, const CameraOptions& opt) : path_(iniPath)
{
    // Our own reading of the few keys whose wrong values the library does
    // not report: it ends the process on an unknown microphone count.
    IniFile ini = IniFile::load(iniPath);
    const long mics = ini.getLong("AudioRecordingParam", "channel_num", 128);
    if (mics != 8 && mics != 16 && mics != 36 && mics != 48 && mics != 64 && mics != 128)
        throw ToolError(ini.where("AudioRecordingParam", "channel_num") + " = " + std::to_string(mics) +
                        ": the library supports 8, 16, 36, 48, 64 or 128 microphones");
    if (ini.getLong("AcousticCameraParam", "image_resolution_row", 64) <= 1)
        throw ToolError(iniPath + ": a one-row image selects the linear-array mode, which this program does "
                                  "not image");
    const long frame = ini.getLong("AudioRecordingParam", "frame_size", 1024);
    if (frame < 16 || frame > 1024)
        throw ToolError(ini.where("AudioRecordingParam", "frame_size") + ": must lie in 16 ... 1024 samples");

    if (!opt.cacheDir.empty()) {
        makeDirs(opt.cacheDir);
        std::string dir = opt.cacheDir.back() == '/' ? opt.cacheDir : opt.cacheDir + "/";
        setenv("AKUDOA_CACHE_DIR", dir.c_str(), 1);
    }
    InstallDoaMessageHandler(opt.verbose ? printLogLine : nullptr);
    kernel_ = std::make_unique<AKUDoaKernel>();
    if (!kernel_->init(iniPath.c_str()))
        throw ToolError("the library could not load the configuration " + iniPath);
}

Camera::~Camera() = default;

const StCamCfg& Camera::config() const { return *kernel_->camConfig(); }

std::string Camera::describe() const
{
    const StCamCfg& c = config();
    std::ostringstream s;
    s << c.channelNum << " microphones on " << layout().captureChannels << " channels, " << c.sampleFrequency
      << " Hz, frames of " << c.frameSize << ", image " << c.imageResolutionRow << " x " << c.imageResolutionCol
      << (c.focusDistanceEn ? ", focused at " + std::to_string(c.focusDistance) + " m" : std::string(", far field"));
    return s.str();
}

bool nearestPixel(const ImageGeometry& g, const Vec3& target, int& row, int& col)
{
    Vec3 dir = (1.0 / norm(target)) * target;
    double best = -2;
    for (int r = 0; r < g.rows; ++r)
        for (int c = 0; c < g.cols; ++c) {
            PixelTarget t;
            try {
                t = pixelTarget(g, r, c);
            } catch (const ToolError&) {
                return false;
            }
            double cosang = dot(dir, (1.0 / norm(t.v)) * t.v);
            if (cosang > best) {
                best = cosang;
                row = r;
                col = c;
            }
        }
    return true;
}

} // namespace akutool
