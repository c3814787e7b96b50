#include "geometry.h"

#include <algorithm>
#include <cmath>

#include "AKUDoa/akudoacamcfg.h"
#include "common.h"

namespace akutool {

double norm(const Vec3& a) { return std::sqrt(a.x * a.x + a.y * a.y + a.z * a.z); }
double dot(const Vec3& a, const Vec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

ArrayLayout layoutFromConfig(const StCamCfg& cfg)
{
    ArrayLayout lay;
    const int m = cfg.channelNum;
    int maxChannel = -1;
    for (int i = 0; i < m; ++i) {
        lay.position.push_back({cfg.micRadius[i] * std::cos(static_cast<double>(cfg.micPhi[i])),
                                cfg.micRadius[i] * std::sin(static_cast<double>(cfg.micPhi[i])), 0.0});
        lay.channel.push_back(cfg.micIndex[i]);
        maxChannel = std::max(maxChannel, cfg.micIndex[i]);
    }
    const bool subsetOf128 = m == 36 || m == 48 || m == 64 || m == 128;
    lay.captureChannels = std::max(subsetOf128 ? AKUDOA_MAX_MIC_NUM : m, maxChannel + 1);
    return lay;
}

ImageGeometry imageFromConfig(const StCamCfg& cfg)
{
    ImageGeometry g;
    g.rows = cfg.imageResolutionRow;
    g.cols = cfg.imageResolutionCol;
    g.program = cfg.doaVersionSelect;
    g.rotateMode = cfg.rotateMode;
    g.angleDomainDeg = cfg.eangleDomain;
    g.thetaXY = cfg.imageThetaXYFactor;
    g.focusEnabled = cfg.focusDistanceEn;
    g.focusDistance = cfg.focusDistance;
    g.micMaxRadius = cfg.micMaxRadius;
    g.correction = cfg.imageCorrectionFlag == 1;
    g.sectionFactor = cfg.sectionFactor;
    g.rx1 = cfg.rx1;
    g.rx2 = cfg.rx2;
    g.rx3 = cfg.rx3;
    g.ry1 = cfg.ry1;
    g.ry2 = cfg.ry2;
    g.ry3 = cfg.ry3;
    return g;
}

PixelTarget pixelTarget(const ImageGeometry& g, double row, double col)
{
    if (g.program == 4 || g.program == 54)
        throw ToolError("pixel directions are known for the V3 programs (3, 53) only; "
                        "give the source a position or a direction instead");
    const double nr = g.rows, nc = g.cols;
    // Coordinate correction: the delivered cell (row, col) is resampled from
    // the engine's map at an affine function of it.
    double r = row, c = col;
    if (g.correction) {
        const double f = g.sectionFactor;
        r = g.rx1 / f + g.rx3 * row + g.rx2 * col;
        c = g.ry1 / f + g.ry3 * row + g.ry2 * col;
    }
    // Undo the orientation the engine writes its map in, back to the grid
    // index (k, j) on which the steering was laid out.
    double k = r, j = c;
    switch (g.rotateMode) {
    case 0: break;
    case 1: k = nr - 1 - r; j = nc - 1 - c; break;
    case 2: j = nc - 1 - c; break;
    case 3: k = nr - 1 - r; break;
    default: throw ToolError("rotate_mode " + std::to_string(g.rotateMode) + " leaves the heat map unwritten");
    }
    const double d = 0.70710677 / std::tan(g.angleDomainDeg * M_PI / 180.0);
    PixelTarget t;
    if (!g.focusEnabled) {
        // Far field: the grid steers pixel (k, j) with the in-plane vector
        // (u, v)/|(u, v, d)|; a plane wave whose direction has the opposite
        // in-plane components lines up with that steering.
        const double u = ((k - nr * 0.5) + 0.5) / nr;
        const double v = (((j - nc * 0.5) + 0.5) / nr) / g.thetaXY;
        Vec3 n{-u, -v, d};
        t.v = (1.0 / norm(n)) * n;
        return t;
    }
    // Near field: the focal grid at the focus distance F.
    const double f = g.focusDistance;
    const double alpha = std::atan2(g.micMaxRadius * 0.5 + 0.5, d);
    const double hr = static_cast<int>(g.rows) / 2, hc = static_cast<int>(g.cols) / 2;
    t.nearField = true;
    t.v.x = f * std::tan(-((k - hr) + 0.5) * (2.0 / nr) * alpha);
    t.v.y = f * std::tan(-((j - hc) + 0.5) * (2.0 / nr) * alpha) / g.thetaXY;
    t.v.z = f;
    return t;
}

} // namespace akutool
