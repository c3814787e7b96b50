#include "support/akudoagrid.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace {
constexpr double kPi = 3.14159265358979323846;
} // namespace

StCamCfg akugrid_camera(int mics, int rows, int cols, int frameSize, int program)
{
    StCamCfg c{};
    c.doaVersionSelect = program, c.sampleFrequency = 96000, c.imageResolutionRow = rows, c.imageResolutionCol = cols;
    c.sectionFactor = 10, c.frameSize = frameSize, c.imageThetaXYFactor = 1.3f, c.eangleDomain = 43, c.micMaxRadius = 0.11f;
    c.focusDistance = 1.0f, c.rotateMode = 1, c.targetQuantize = true;
    std::fill(std::begin(c.micSensitivity), std::end(c.micSensitivity), 1.0f);
    akusim_fill_layout(c, mics);
    return c;
}

AkuSimSource akugrid_far_source(const StCamCfg& cfg, int k, int c, uint32_t seed)
{
    const double NR = cfg.imageResolutionRow, NC = cfg.imageResolutionCol;
    const double D = 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0);
    const double u = ((k - NR * 0.5) + 0.5) / NR, v = (((c - NC * 0.5) + 0.5) / NR) / cfg.imageThetaXYFactor;
    const double theta = std::atan2(std::sqrt(u * u + v * v), D), phi = std::atan2(v, u);
    AkuSimSource s;
    s.x = -std::sin(theta) * std::cos(phi), s.y = -std::sin(theta) * std::sin(phi), s.z = std::cos(theta), s.seed = seed;
    return s;
}

AkuSimSource akugrid_near_source(const StCamCfg& cfg, int k, int c, uint32_t seed)
{
    const int NR = cfg.imageResolutionRow, NC = cfg.imageResolutionCol;
    const double alpha = std::atan2(cfg.micMaxRadius * 0.5 + 0.5, 0.70710677 / std::tan(cfg.eangleDomain * kPi / 180.0));
    const double F = cfg.focusDistance;
    AkuSimSource s;
    s.pointSource = true, s.z = F, s.seed = seed;
    s.x = F * std::tan(-((k - NR / 2) + 0.5) * (2.0 / NR) * alpha);
    s.y = F * std::tan(-((c - NC / 2) + 0.5) * (2.0 / NR) * alpha) / cfg.imageThetaXYFactor;
    return s;
}

AkuSimSource akugrid_gridding_source(const StCamCfg& cfg, int r, int c, double dist, uint32_t seed)
{
    const int G = std::max(cfg.imageResolutionRow, cfg.imageResolutionCol) + 2;
    const double t = 0.7071067811865476 / std::tan((cfg.eangleDomain + 1) * kPi / 180.0);
    const double pitch = 2.0 * std::sin(std::atan2(0.5 * cfg.micMaxRadius + 0.5, t)) / G;
    const double dx = (r - cfg.imageResolutionRow / 2) * pitch, dy = (c - cfg.imageResolutionCol / 2) * pitch / cfg.imageThetaXYFactor;
    const double scale = dist > 0.0 ? dist : 1.0;
    AkuSimSource s;
    s.pointSource = dist > 0.0, s.x = scale * dx, s.y = scale * dy, s.z = scale * std::sqrt(1.0 - dx * dx - dy * dy), s.seed = seed;
    return s;
}

void akugrid_rotated(int mode, int rows, int cols, int k, int c, int& r, int& col)
{
    r = mode == 1 || mode == 3 ? rows - 1 - k : k;
    col = mode == 1 || mode == 2 ? cols - 1 - c : c;
}

AkuMat akugrid_frame(const StCamCfg& cfg, const std::vector<AkuSimSource>& sources)
{
    return AkuMat(akusim_frame(akusim_array_from_cfg(cfg), sources, cfg.sampleFrequency, cfg.frameSize));
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
    const int best = akugrid_argmax(akugrid_flat(map));
    row = best / map->cols, col = best % map->cols;
}

int akugrid_argmax(const std::vector<float>& v) { return static_cast<int>(std::max_element(v.begin(), v.end()) - v.begin()); }

std::vector<float> akugrid_flat(const mat2d_fp32* m)
{
    std::vector<float> v;
    for (int i = 0; i < m->rows; ++i)
        v.insert(v.end(), m->data[i], m->data[i] + m->cols);
    return v;
}

std::vector<uint8_t> akugrid_table_bytes(const AKUDoaQuantizeV3Private& d)
{
    std::vector<uint8_t> out;
    for (int b = 0; b < d.steerQuant->rows; ++b)
        out.insert(out.end(), d.steerQuant->data[b], d.steerQuant->data[b] + d.steerQuant->cols);
    const uint8_t* s = reinterpret_cast<const uint8_t*>(d.steerScale->data);
    return out.insert(out.end(), s, s + sizeof(float) * d.steerScale->n), out;
}

std::vector<uint8_t> akugrid_file_bytes(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}
