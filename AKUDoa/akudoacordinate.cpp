#include "AKUDoa/akudoacordinate_p.h"

#include <cmath>

namespace {

// u = ((j*a2)*F + ((i*a3)*F + a1)) / F with both multiply-adds fused.
inline float affine(float i, float j, float a1, float a2, float a3, float factor)
{
    const float inner = std::fmaf(i * a3, factor, a1);
    return std::fmaf(j * a2, factor, inner) / factor;
}

// Clamp in float first: far-off coefficients must not overflow the cast.
inline int clampIndex(float v, int hi)
{
    if (!(v > 0.0f)) return 0;
    if (v > static_cast<float>(hi)) return hi;
    return static_cast<int>(v);
}

}  // namespace

void akudoa_cordinate_generate(const CordinateMat& m, float factor, int rows, int cols, float* table)
{
    for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            float* uv = table + 2 * (static_cast<long>(i) * cols + j);
            uv[0] = affine(static_cast<float>(i), static_cast<float>(j), m.rx1, m.rx2, m.rx3, factor);
            uv[1] = affine(static_cast<float>(i), static_cast<float>(j), m.ry1, m.ry2, m.ry3, factor);
        }
    }
}

void akudoa_cordinate_generate_v4(const CordinateMat& m, float factor, int rows, int cols, float* table)
{
    if (rows <= 0) return;
    CordinateMat c = m;
    float k1 = 0.0001f;
    float k2 = 0.002f;
    if (rows == 32 && cols == 24) {
        k1 = 0.0005f;
        k2 = 0.005f;
    } else if (rows == 64 && cols == 48) {
        // Calibration of the 64 x 48 format: shifts in raw cells and small
        // scale corrections, the latter added in double as calibrated.
        c.rx1 = (factor / 20.0f) * 20.0f + c.rx1 - 19.0f;
        c.ry1 = factor / 20.0f + c.ry1 - 11.0f;
        c.rx3 = static_cast<float>(static_cast<double>(c.rx3) + 0.053);
        c.ry2 = static_cast<float>(static_cast<double>(c.ry2) + 0.07);
    }
    const float hr = static_cast<float>(rows / 2);
    const float hc = static_cast<float>(cols / 2);
    const float cr = hr - 0.5f;
    const float cc = hc - 0.5f;
    for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            const float fi = static_cast<float>(i);
            const float fj = static_cast<float>(j);
            const float u = affine(fi, fj, c.rx1, c.rx2, c.rx3, factor);
            const float v = affine(fi, fj, c.ry1, c.ry2, c.ry3, factor);
            const float dj = fj - cc;
            const float di = fi - cr;
            const float d = std::sqrt(dj * dj + di * di);
            const float s1 = (d - cr) * k2 + 1.0f;
            const float s2 = d * d * k1 + 1.0f;
            float* uv = table + 2 * (static_cast<long>(i) * cols + j);
            uv[0] = ((u - hr) / s1) * 0.96f + hr;
            uv[1] = (v - hc) / s2 + hc;
        }
    }
}

void akudoa_cordinate_resample(const float* table, const mat2d_fp32* raw, mat2d_fp32* out)
{
    const int rows = out->rows;
    const int cols = out->cols;
    for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            const float* uv = table + 2 * (static_cast<long>(i) * cols + j);
            const float u = uv[0];
            const float v = uv[1];
            const int r0 = clampIndex(std::floor(u), rows - 1);
            const int r1 = clampIndex(std::ceil(u), rows - 1);
            const int c0 = clampIndex(std::floor(v), cols - 1);
            const int c1 = clampIndex(std::ceil(v), cols - 1);
            const float fu = u - static_cast<float>(r0);
            const float fv = v - static_cast<float>(c0);
            const float wr = (r1 == r0) ? 1.0f : static_cast<float>(r1) - u;
            const float wc = (c1 == c0) ? 1.0f : static_cast<float>(c1) - v;
            const float* a = raw->data[r0];
            const float* b = raw->data[r1];
            out->data[i][j] = wr * (wc * a[c0] + fv * a[c1]) + fu * (wc * b[c0] + fv * b[c1]);
        }
    }
}

fpoint2d akudoa_cordinate_point(const CordinateMat& m, float factor, fpoint2d p)
{
    const float x = static_cast<float>(p.x);
    const float y = static_cast<float>(p.y);
    fpoint2d r = p;
    r.x = static_cast<int>(std::round(affine(x, y, m.rx1, m.rx2, m.rx3, factor)));
    r.y = static_cast<int>(std::round(affine(x, y, m.ry1, m.ry2, m.ry3, factor)));
    return r;
}
