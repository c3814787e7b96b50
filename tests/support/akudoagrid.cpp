#include "support/akudoagrid.h"

#include <cmath>
#include <cstring>

namespace {
constexpr double kPi = 3.14159265358979323846;
}

StCamCfg akugrid_camera(int mics, int rows, int cols, int frameSize, int program)
{
    StCamCfg c{};
    c.doaVersionSelect = program;
    c.sampleFrequency = 96000;
    c.imageResolutionRow = rows;
    c.imageResolutionCol = cols;
    c.sectionFactor = 10;
    c.frameSize = frameSize;
    c.imageThetaXYFactor = 1.3f;
    c.eangleDomain = 43;
    c.micMaxRadius = 0.11f;
    c.focusDistance = 1.0f;
    c.rotateMode = 1;
    c.targetQuantize = true;
    for (float& s : c.micSensitivity)
        s = 1.0f;
    akusim_fill_layout(c, mics);
    return c;
}

AkuSimSource akugrid_far_source(const StCamCfg& cfg, int k, int c, uint32_t seed)
{
    const double NR = cfg.imageResolutionRow, NC = cfg.imageResolutionCol;
    const double D = 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0);
    const double u = ((k - NR * 0.5) + 0.5) / NR;
    const double v = (((c - NC * 0.5) + 0.5) / NR) / cfg.imageThetaXYFactor;
    const double theta = std::atan2(std::sqrt(u * u + v * v), D);
    const double phi = std::atan2(v, u);
    AkuSimSource s;
    s.x = -std::sin(theta) * std::cos(phi);
    s.y = -std::sin(theta) * std::sin(phi);
    s.z = std::cos(theta);
    s.seed = seed;
    return s;
}

AkuSimSource akugrid_near_source(const StCamCfg& cfg, int k, int c, uint32_t seed)
{
    const int NR = cfg.imageResolutionRow, NC = cfg.imageResolutionCol;
    const double D = 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0);
    const double alpha = std::atan2(cfg.micMaxRadius * 0.5 + 0.5, D);
    const double F = cfg.focusDistance;
    AkuSimSource s;
    s.pointSource = true;
    s.x = F * std::tan(-((k - NR / 2) + 0.5) * (2.0 / NR) * alpha);
    s.y = F * std::tan(-((c - NC / 2) + 0.5) * (2.0 / NR) * alpha) / cfg.imageThetaXYFactor;
    s.z = F;
    s.seed = seed;
    return s;
}

void akugrid_rotated(int mode, int rows, int cols, int k, int c, int& r, int& col)
{
    r = k;
    col = c;
    if (mode == 1) {
        r = rows - 1 - k;
        col = cols - 1 - c;
    } else if (mode == 2) {
        col = cols - 1 - c;
    } else if (mode == 3) {
        r = rows - 1 - k;
    }
}

mat2d_fp32* akugrid_capture_frame(const StCamCfg& cfg, const mat2d_fp32* arrayFrame)
{
    mat2d_fp32* capture = create_mat2d_fp32(128, arrayFrame->cols);
    for (int m = 0; m < arrayFrame->rows; ++m)
        std::memcpy(capture->data[cfg.micIndex[m]], arrayFrame->data[m], sizeof(float) * arrayFrame->cols);
    return capture;
}

void akugrid_argmax(const mat2d_fp32* map, int& row, int& col)
{
    row = 0;
    col = 0;
    for (int i = 0; i < map->rows; ++i)
        for (int j = 0; j < map->cols; ++j)
            if (map->data[i][j] > map->data[row][col]) {
                row = i;
                col = j;
            }
}
