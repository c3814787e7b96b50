#include "AKUDoa/base/akudoaarray.h"

#include <alloca.h>

#include <algorithm>
#include <cmath>
#include <cstring>

float* array_scale_fp32_anchor(float* a, float s, unsigned n)
{
    for (unsigned i = 0; i < n; ++i)
        a[i] = a[i] * s;
    return a + n;
}

float* array_setfloor_fp32(float* a, float f, unsigned n)
{
    for (unsigned i = 0; i < n; ++i) {
        if (a[i] < f) // false for NaN, which therefore stays
            a[i] = f;
    }
    return a + n;
}

float* array_sqrt_fp32_anchor(float* a, unsigned n)
{
    for (unsigned i = 0; i < n; ++i)
        a[i] = std::sqrt(a[i]);
    return a + n;
}

float array_avg_fp32(float* a, unsigned n)
{
    // Four lane sums in the order a four-lane vector add produces them, so the
    // result equals the vector version bit for bit.
    float l0 = a[0], l1 = a[1], l2 = a[2], l3 = a[3];
    const unsigned groups = n / 4;
    for (unsigned g = 1; g < groups; ++g) {
        const float* p = a + 4 * g;
        l0 += p[0];
        l1 += p[1];
        l2 += p[2];
        l3 += p[3];
    }
    return ((l0 + l1) + (l2 + l3)) / static_cast<float>(n);
}

void vec_fp32_linespace(vec_fp32* v, float a, float b)
{
    const int n = v->n;
    const float step = (b - a) / static_cast<float>(n - 1);
    for (int i = 0; i < n; ++i)
        v->data[i] = std::fmaf(static_cast<float>(i), step, a);
}

void vec_fp32_find_min(vec_fp32* v, float& m)
{
    int idx;
    vec_fp32_find_min(v, m, idx);
}

void vec_fp32_find_max(vec_fp32* v, float& m)
{
    int idx;
    vec_fp32_find_max(v, m, idx);
}

void vec_fp32_find_min(vec_fp32* v, float& m, int& idx)
{
    float best = v->data[0];
    int at = 0;
    for (int i = 1; i < v->n; ++i) {
        if (v->data[i] < best) {
            best = v->data[i];
            at = i;
        }
    }
    m = best;
    idx = at;
}

void vec_fp32_find_max(vec_fp32* v, float& m, int& idx)
{
    float best = v->data[0];
    int at = 0;
    for (int i = 1; i < v->n; ++i) {
        if (v->data[i] > best) {
            best = v->data[i];
            at = i;
        }
    }
    m = best;
    idx = at;
}

void mat_fp32_bilinearInterpol(mat2d_fp32* src, mat2d_fp32* dst)
{
    const float sy = static_cast<float>(src->rows) / static_cast<float>(dst->rows);
    const float sx = static_cast<float>(src->cols) / static_cast<float>(dst->cols);
    const int maxY0 = src->rows - 2;
    const int maxX0 = src->cols - 2;
    for (int i = 0; i < dst->rows; ++i) {
        // Pixel-centre mapping; fy is left unclamped so that the outermost
        // destination rows extrapolate from the two border rows.
        const float y = static_cast<float>((i + 0.5) * sy - 0.5);
        const int y0 = std::min(std::max(static_cast<int>(std::floor(y)), 0), maxY0);
        const float fy = y - static_cast<float>(y0);
        const float* r0 = src->data[y0];
        const float* r1 = src->data[y0 + 1];
        float* out = dst->data[i];
        for (int j = 0; j < dst->cols; ++j) {
            const float x = static_cast<float>((j + 0.5) * sx - 0.5);
            const int x0 = std::min(std::max(static_cast<int>(std::floor(x)), 0), maxX0);
            const float fx = x - static_cast<float>(x0);
            const float a = r0[x0], b = r0[x0 + 1], c = r1[x0], d = r1[x0 + 1];
            out[j] = (1 - fy) * (1 - fx) * a + (1 - fy) * fx * b + fy * (1 - fx) * c + fy * fx * d;
        }
    }
}

float point_quad(fpoint2d p, fpoint2d q)
{
    const float dy = static_cast<float>(p.y - q.y);
    const float dx = static_cast<float>(p.x - q.x);
    return dy * dy + dx * dx;
}

float point_distance(fpoint2d p, fpoint2d q)
{
    return std::sqrt(point_quad(p, q));
}

bool isPeak(float** block, int dr, int dc)
{
    const int r0 = std::max(-dr, 0), r1 = 4 - std::max(dr, 0);
    const int c0 = std::max(-dc, 0), c1 = 4 - std::max(dc, 0);
    const int cr = 2 - std::max(dr, 0), cc = 2 - std::max(dc, 0);
    const float centre = block[cr][cc];
    for (int r = r0; r <= r1; ++r) {
        for (int c = c0; c <= c1; ++c) {
            if ((r != cr || c != cc) && block[r][c] > centre)
                return false;
        }
    }
    return true;
}

bool isPeak2(float* block25, float v)
{
    return isPeak3(block25, v, 25);
}

bool isPeak3(float* a, float v, int n)
{
    for (int i = 0; i < n; ++i) {
        if (a[i] > v)
            return false;
    }
    return true;
}

float bufMax(float* a, int n)
{
    float m = a[0];
    for (int i = 1; i < n; ++i)
        m = std::max(m, a[i]);
    return m;
}

float mat2d_fp32_partSum(mat2d_fp32* m, int nRows, int nCols, int row0, int col0)
{
    float sum = 0.0f;
    for (int r = 0; r < nRows; ++r) {
        const float* row = m->data[row0 + r] + col0;
        for (int c = 0; c < nCols; ++c)
            sum += row[c];
    }
    return sum;
}

void array_findpeak2d(float* map, int rows, int cols, float threshold,
                      std::vector<fpoint2d>& out,
                      int rowBegin, int rowEnd, int colBegin, int colEnd)
{
    float block[25];
    for (int r = rowBegin; r < rowEnd; ++r) {
        int c = colBegin;
        while (c < colEnd) {
            const float v = map[r * cols + c];
            if (!(v > threshold)) {
                ++c;
                continue;
            }
            // Neighbours outside the image (not the search window) are 0.
            for (int dr = -2; dr <= 2; ++dr) {
                const int rr = r + dr;
                for (int dc = -2; dc <= 2; ++dc) {
                    const int cc = c + dc;
                    const bool inside = rr >= 0 && rr < rows && cc >= 0 && cc < cols;
                    block[(dr + 2) * 5 + (dc + 2)] = inside ? map[rr * cols + cc] : 0.0f;
                }
            }
            if (isPeak2(block, v)) {
                out.push_back(fpoint2d{v, r, c});
                c += 3; // a plateau up to three columns wide yields one peak
            } else {
                ++c;
            }
        }
    }
    std::sort(out.begin(), out.end(),
              [](const fpoint2d& p, const fpoint2d& q) { return p.val > q.val; });
}

namespace {

// Upper median of the positive values of the sorted buf[0..n-1], or of all
// values when none is positive.
float positiveUpperMedian(float* buf, unsigned n)
{
    std::sort(buf, buf + n);
    if (n == 0 || buf[0] > 0.0f)
        return buf[n / 2];
    unsigned k = 1;
    while (k < n && !(buf[k] > 0.0f))
        ++k;
    if (k == n)
        return buf[n / 2];
    return buf[k + (n - k) / 2];
}

} // namespace

// The scratch copy lives on the stack (heat maps of a few thousand values).
// One spare element keeps n == 0 defined: it then yields 0.
float mat2d_fp32_median(mat2d_fp32* m)
{
    const unsigned cols = m->cols > 0 ? static_cast<unsigned>(m->cols) : 0u;
    const unsigned rows = m->rows > 0 ? static_cast<unsigned>(m->rows) : 0u;
    const unsigned n = rows * cols;
    float* buf = static_cast<float*>(alloca((n + 1) * sizeof(float)));
    buf[0] = 0.0f;
    for (unsigned r = 0; r < rows; ++r)
        std::memcpy(buf + r * cols, m->data[r], cols * sizeof(float));
    return positiveUpperMedian(buf, n);
}

float array_media_fp32(float* a, unsigned n)
{
    float* buf = static_cast<float*>(alloca((static_cast<size_t>(n) + 1) * sizeof(float)));
    buf[0] = 0.0f;
    if (n > 0)
        std::memcpy(buf, a, n * sizeof(float));
    return positiveUpperMedian(buf, n);
}
