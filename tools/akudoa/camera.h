#ifndef AKUDOA_TOOLS_CAMERA_H
#define AKUDOA_TOOLS_CAMERA_H

// The library's kernel set up from an INI configuration, with the checks
// that turn the library's silent failures into clear messages.

#include <memory>
#include <string>

#include "args.h"
#include "geometry.h"

class AKUDoaKernel;
struct StCamCfg;

namespace akutool {

struct CameraOptions {
    std::string cacheDir; // non-empty: steering-table cache (AKUDOA_CACHE_DIR)
    bool verbose = false; // library log lines on standard error

    // --cache DIR and --verbose, as every command takes them.
    static CameraOptions fromArgs(const Args& args) { return {args.get("cache"), args.has("verbose")}; }
};

class Camera {
public:
    // Checks the file and its microphone count (the library would end the
    // process on a wrong one), then initialises the kernel, which builds or
    // loads the steering tables. Throws ToolError.
    Camera(const std::string& iniPath, const CameraOptions& opt);
    ~Camera();

    AKUDoaKernel& kernel() { return *kernel_; }
    const StCamCfg& config() const;
    ArrayLayout layout() const { return layoutFromConfig(config()); }
    ImageGeometry image() const { return imageFromConfig(config()); }
    const std::string& path() const { return path_; }
    // A one-line description: microphones, channels, rate, frame, image.
    std::string describe() const;

private:
    std::string path_;
    std::unique_ptr<AKUDoaKernel> kernel_;
};

// The heat-map pixel whose direction is closest to a source's, or false
// when the program's grid has no known directions.
bool nearestPixel(const ImageGeometry& g, const Vec3& target, int& row, int& col);

} // namespace akutool

#endif
