#include "AKUDoa/akudoaquantizev4.h"

#include <omp.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "AKUDoa/akudoapickupv4_p.h"
#include "AKUDoa/akudoaquantizev4_p.h"
#include "AKUDoa/iakudoaquantize_p.h"
#include "AKUDoa/akudoatargetrange_p.h"
#include "AKUDoa/akugaussianprocessregression.h"
#include "AKUDoa/base/akudoaarray.h"
#include "AKUDoa/base/akudoalogging.h"
#include "AKUDoa/base/akudoamath.h"
#include "AKUDoa/base/akudoaneon.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr float kSoundSpeed = 340.0f; // m/s
constexpr int kTaps = 9;              // kernel taps per axis, centred on the nearest node

bool usesRegression(const StCamCfg* cfg)
{
    return cfg->doaVersionSelect == 53 || cfg->doaVersionSelect == 54;
}

// Table row of band entry k: with frequency averaging only even entries are
// visited and a row stands for the pair of FFT bins (2b, 2b + 1).
inline int entryRow(const std::vector<doaFreqInfo>& L, int k, bool average)
{
    return average ? (L.at(static_cast<size_t>(k)).bin >> 1) : L.at(static_cast<size_t>(k)).bin;
}

// Grid coordinate of a kernel tap. Taps past the grid edge wrap around (the
// transform is periodic); with the configured array sizes and sample rates
// every kernel lies inside the grid and this is the identity.
inline int wrapNode(int v, int G)
{
    v %= G;
    return v < 0 ? v + G : v;
}

// Index of the axis node nearest x from below or at x (axis ascending).
int axisPosition(const float* axis, int G, float x)
{
    return static_cast<int>(std::lower_bound(axis, axis + G, x) - axis);
}

} // namespace

AKUDoaV4Geometry akudoa_v4_geometry(int rows, int cols)
{
    AKUDoaV4Geometry g;
    g.G = (rows > cols ? rows : cols) + 2;
    g.S = g.G & ~1;
    g.H = g.G >> 1;
    g.o = (((g.G & ~1) - std::min(rows, cols)) >> 1) - 2;
    return g;
}

int akudoa_v4_nearest_node_ref(const float* ax, const float* ay, int G, float sx, float sy)
{
    float best = FLT_MAX;
    int node = 0;
    for (int n = 0; n < G * G; ++n) {
        const int i = n / G;
        const int j = n - i * G;
        const float dx = sx - ax[i];
        const float dy = sy - ay[j];
        const float dist = std::fmaf(dx, dx, dy * dy);
        if (dist <= best) {
            best = dist;
            node = n;
        }
    }
    return node;
}

int akudoa_v4_nearest_node(const float* ax, const float* ay, int G, float sx, float sy)
{
    // The distance is separable: only nodes next to the point on each axis
    // can reach the minimum. Three nodes either side cover the rounding of
    // the fused sum, and the candidates are visited in increasing n so that
    // ties resolve as in the full scan.
    const int pi = axisPosition(ax, G, sx);
    const int pj = axisPosition(ay, G, sy);
    const int i0 = std::max(pi - 3, 0), i1 = std::min(pi + 3, G - 1);
    const int j0 = std::max(pj - 3, 0), j1 = std::min(pj + 3, G - 1);
    float best = FLT_MAX;
    int node = 0;
    for (int i = i0; i <= i1; ++i) {
        const float dx = sx - ax[i];
        for (int j = j0; j <= j1; ++j) {
            const float dy = sy - ay[j];
            const float dist = std::fmaf(dx, dx, dy * dy);
            if (dist <= best) {
                best = dist;
                node = i * G + j;
            }
        }
    }
    return node;
}

AKUDoaQuantizeV4::AKUDoaQuantizeV4()
    : d(new AKUDoaQuantizeV4Private)
{
}

static void destroyPlans(fftwf_plan* plans, int n)
{
    if (!plans)
        return;
    for (int i = 0; i < n; ++i)
        if (plans[i])
            fftwf_destroy_plan(plans[i]);
    std::free(plans);
}

AKUDoaQuantizeV4::~AKUDoaQuantizeV4()
{
    destroyPlans(d->micPlans, d->micNum);
    if (d->gridPlan)
        fftwf_destroy_plan(d->gridPlan);
    destroyPlans(d->columnPlans, d->binNum);
    destroyPlans(d->rowPlans, 2);
    destroy_vec_fp32(d->fftWindow);
    destroy_mat2d_fp32(d->cellAmp);
    destroy_mat2d_fp32(d->kernelX);
    destroy_mat2d_fp32(d->kernelY);
    destroy_mat2d_fp32(d->deconv);
    destroy_mat2d_int32(d->cellIndex);
    destory_mat2d_fftwfcplx(d->binSpectra);
    destroy_mat2d_fp32(d->fftMean);
    destroy_vec_fp32(d->heatAcc);
    destroy_mat2d_fp32(d->binMaps);
    destroy_mat1d_fp32(d->gprOut);
    destroy_mat2d_fp32(d->focusPhase);
    destroy_mat2d_fp32(d->windowed);
    destory_mat2d_fftwfcplx(d->micSpectra);
    destory_mat2d_fftwfcplx(d->gridIn);
    destory_mat2d_fftwfcplx(d->gridOut);
    destroy_vec_fp32(d->binScratch);
    delete d->cluster;
    delete d;
}

// The pruned transform of every bin. Rows of a grid outside [lo, hi) and
// columns outside [left, right) are zero, so the 2-D transform needs the
// second-axis transforms of the covered columns only, and the readout reads
// only NC rows of the result (q = (H + o + 2 + c) mod G, possibly wrapping
// into two pieces). The gridding addresses rows with stride S, which is the
// row length of the plan only when G is even; otherwise the 2-D plan stays.
// Plans are made on the first worker's grid and run on any worker's: the
// grids are allocated alike, so the offsets keep their alignment.
static void createPrunedPlans(AKUDoaQuantizeV4Private* d)
{
    const int G = d->gridSize;
    const AKUDoaV4Geometry g = akudoa_v4_geometry(d->rows, d->cols);
    if (g.S != G)
        return;
    const int B = d->binNum;
    d->columnPlans = static_cast<fftwf_plan*>(std::calloc(static_cast<size_t>(B), sizeof(fftwf_plan)));
    d->rowPlans = static_cast<fftwf_plan*>(std::calloc(2, sizeof(fftwf_plan)));
    fftwf_complex* in = reinterpret_cast<fftwf_complex*>(d->gridIn->data[0]);
    fftwf_complex* out = reinterpret_cast<fftwf_complex*>(d->gridOut->data[0]);
    int n = G;
    for (int b = 0; b < B; ++b) {
        const int left = d->gridCols[2 * static_cast<size_t>(b)];
        const int right = d->gridCols[2 * static_cast<size_t>(b) + 1];
        if (left < right) // no microphones, nothing covered: the grid stays zero
            d->columnPlans[b] = fftwf_plan_many_dft(1, &n, right - left, in + left, nullptr, G, 1, in + left, nullptr,
                                                    G, 1, FFTW_FORWARD, FFTW_ESTIMATE);
    }
    const int first = (g.H + g.o + 2) % G;
    const int pieces[2][2] = {{first, std::min(first + d->cols, G)}, {0, std::max(first + d->cols - G, 0)}};
    for (int k = 0; k < 2; ++k) {
        const int lo = pieces[k][0], hi = pieces[k][1];
        d->readRows[k] = lo;
        if (lo < hi)
            d->rowPlans[k] = fftwf_plan_many_dft(1, &n, hi - lo, in + static_cast<size_t>(lo) * G, nullptr, 1, G,
                                                 out + static_cast<size_t>(lo) * G, nullptr, 1, G, FFTW_FORWARD,
                                                 FFTW_ESTIMATE);
    }
}

void akudoa_v4_transform(const AKUDoaQuantizeV4Private* d, int b, int slot)
{
    fftwf_complex* in = reinterpret_cast<fftwf_complex*>(d->gridIn->data[slot]);
    fftwf_complex* out = reinterpret_cast<fftwf_complex*>(d->gridOut->data[slot]);
    if (!d->columnPlans) {
        fftwf_execute_dft(d->gridPlan, in, out);
        return;
    }
    const int G = d->gridSize;
    const int left = d->gridCols[2 * static_cast<size_t>(b)];
    if (d->columnPlans[b])
        fftwf_execute_dft(d->columnPlans[b], in + left, in + left);
    for (int k = 0; k < 2; ++k)
        if (d->rowPlans[k]) {
            const size_t first = static_cast<size_t>(d->readRows[k]) * G;
            fftwf_execute_dft(d->rowPlans[k], in + first, out + first);
        }
}

void AKUDoaQuantizeV4::doaInit(StCamCfg* cfg)
{
    d->cfg = cfg;
    d->rows = cfg->imageResolutionRow;
    d->cols = cfg->imageResolutionCol;
    d->micNum = cfg->channelNum;
    d->sampleRate = cfg->sampleFrequency;
    d->frameSize = cfg->frameSize;
    const int N = d->frameSize;
    const int B = cfg->freqAverage ? (N >> 2) + 1 : (N >> 1) + 1;
    d->binNum = B;
    const int G = akudoa_v4_geometry(d->rows, d->cols).G;
    d->gridSize = G;
    const int M = d->micNum;
    const int P = d->rows * d->cols;
    d->cluster = new AKUCluster;

    d->fftWindow = create_vec_fp32(N);
    d->cellAmp = create_mat2d_fp32(B, M);
    d->kernelX = create_mat2d_fp32(B, kTaps * M);
    d->kernelY = create_mat2d_fp32(B, kTaps * M);
    d->deconv = create_mat2d_fp32(G, G);
    d->cellIndex = create_mat2d_int32(B, 2 * M);
    d->binSpectra = create_mat2d_fftwfcplx(B, M);
    d->fftMean = create_mat2d_fp32(B, 4 * M);
    d->heatAcc = create_vec_fp32(P);
    d->binMaps = create_mat2d_fp32(B, P);
    // One regression image per worker of a batch; the batch is summed in
    // band order, so its size only sets how much of the pool is used.
    d->slots = std::max(omp_get_max_threads(), 1);
    d->gprOut = create_mat1d_fp32(d->slots * d->rows, d->cols);
    d->focusPhase = create_mat2d_fp32(B, 2 * M);
    d->micPlans = static_cast<fftwf_plan*>(std::calloc(static_cast<size_t>(M), sizeof(fftwf_plan)));
    d->windowed = create_mat2d_fp32(M, N);
    // Zero-filled: with averaging the last bin adds entry N/2 + 1, which the
    // FFT never writes.
    d->micSpectra = create_mat2d_fftwfcplx(M, N);
    // One grid per worker: a bin's grid lives only while the bin is imaged.
    d->gridIn = create_mat2d_fftwfcplx(d->slots, G * G + 1);
    d->gridOut = create_mat2d_fftwfcplx(d->slots, G * G);
    d->binScratch = create_vec_fp32(B);

    // FFTW's planner is not thread safe: every plan is made here, on the
    // caller's thread; executing distinct plans from workers is fine.
    for (int m = 0; m < M; ++m)
        d->micPlans[m] = fftwf_plan_dft_r2c_1d(N, d->windowed->data[m],
                                               reinterpret_cast<fftwf_complex*>(d->micSpectra->data[m]),
                                               FFTW_ESTIMATE);
    d->gridPlan = fftwf_plan_dft_2d(G, G, reinterpret_cast<fftwf_complex*>(d->gridIn->data[0]),
                                    reinterpret_cast<fftwf_complex*>(d->gridOut->data[0]), FFTW_FORWARD,
                                    FFTW_ESTIMATE);

    createQuantizeParam();
    createFocusDisParam();
    // Grid rows and columns each bin's kernels cover; a kernel past the edge
    // wraps and may reach any row or column.
    d->gridRows.assign(2 * static_cast<size_t>(B), 0);
    d->gridCols.assign(2 * static_cast<size_t>(B), 0);
    for (int b = 0; b < B; ++b) {
        const int* idx = d->cellIndex->data[b];
        int lo = G, hi = 0, left = G, right = 0;
        for (int m = 0; m < M; ++m) {
            const bool inside = idx[m] >= 0 && idx[M + m] >= 0 && idx[m] + kTaps <= G && idx[M + m] + kTaps <= G;
            lo = inside ? std::min(lo, idx[M + m]) : 0;
            hi = inside ? std::max(hi, idx[M + m] + kTaps) : G;
            left = inside ? std::min(left, idx[m]) : 0;
            right = inside ? std::max(right, idx[m] + kTaps) : G;
        }
        d->gridRows[2 * static_cast<size_t>(b)] = lo;
        d->gridRows[2 * static_cast<size_t>(b) + 1] = hi;
        d->gridCols[2 * static_cast<size_t>(b)] = left;
        d->gridCols[2 * static_cast<size_t>(b) + 1] = right;
    }
    createPrunedPlans(d);

    // The frequencies assume 48 kHz and 1024 samples whatever the
    // configuration says; the line is defined that way.
    for (int i = 0; i < 512; ++i)
        AKUDOA_LOG() << i << ": Freq = " << ((i * 48000) >> 9) << "Sen scale =" << cfg->micSensitivity[i];
}

// Undoes the taper exp(-tau p^2) that the gridding kernel puts on the image
// (squared: it is applied to powers), with the transform's scale.
static void fillDeconvolution(mat2d_fp32* deconv, int G, float tau)
{
    const float half = static_cast<float>(G) * 0.5f;
    const float norm = static_cast<float>(2.0 * kPi / (static_cast<double>(G) * G * 16.0 * tau));
    for (int r = 0; r < G; ++r) {
        float* row = deconv->data[r];
        for (int c = 0; c < G; ++c) {
            const float dc = static_cast<float>(c) - half;
            const float dr = static_cast<float>(r) - half;
            const float e = std::exp((dc * dc + dr * dr) * tau);
            row[c] = (e * e) * norm;
        }
    }
}

void AKUDoaQuantizeV4::createQuantizeParam()
{
    const StCamCfg* cfg = d->cfg;
    const int G = d->gridSize;
    const int M = d->micNum;
    const int B = d->binNum;
    const int fs = d->sampleRate;
    const int N = d->frameSize;
    const bool average = cfg->freqAverage;

    // Kernel width in grid units squared: the taper exp(-tau p^2) it puts on
    // the image is undone by deconv.
    const float tau = 24.0f / static_cast<float>(G * G);
    const float t = static_cast<float>(
        0.7071067811865476 /
        static_cast<double>(std::tan(static_cast<float>((cfg->eangleDomain + 1) * kPi / 180.0))));
    const float alpha = std::atan2(0.5f * cfg->micMaxRadius + 0.5f, t);
    // Half-width of the spatial-frequency axis (node spacing 2 pi / G).
    const float h = static_cast<float>(((G - 1) * 0.5) * kPi * (2.0 / G));
    // Grid units per metre and hertz: a source at in-plane direction sine
    // sin(alpha) lands half a grid away from the centre of the image.
    const float kappa = static_cast<float>(((2.0 * static_cast<double>(std::sin(alpha))) / G) * 2.0 * kPi / 340.0);

    std::vector<float> mx(static_cast<size_t>(M)), my(static_cast<size_t>(M));
    for (int m = 0; m < M; ++m) {
        mx[m] = cfg->micRadius[m] * std::cos(cfg->micPhi[m]);
        my[m] = cfg->micRadius[m] * std::sin(cfg->micPhi[m]);
    }
    float w[kTaps];
    for (int k = 0; k < kTaps; ++k) {
        const float q = static_cast<float>((k - 4) * kPi / G);
        w[k] = std::exp(-(q * q) / tau);
    }
    vec_fp32* Lx = create_vec_fp32(G);
    vec_fp32* Ly = create_vec_fp32(G);
    vec_fp32_linespace(Lx, -h, h);
    vec_fp32_linespace(Ly, -h * cfg->imageThetaXYFactor, h * cfg->imageThetaXYFactor);
    const float* ax = Lx->data;
    const float* ay = Ly->data;

#pragma omp parallel for schedule(dynamic, 1)
    for (int b = 0; b < B; ++b) {
        // Row b grids the bin one below it (bin 0 at a negative frequency):
        // the offset is part of the engine's calibrated behaviour.
        const int k = average ? 2 * b - 1 : b - 1;
        const float f = static_cast<float>(k) * static_cast<float>(fs) / static_cast<float>(N);
        int* idx = d->cellIndex->data[b];
        float* amp = d->cellAmp->data[b];
        float* kx = d->kernelX->data[b];
        float* ky = d->kernelY->data[b];
        for (int m = 0; m < M; ++m) {
            const float sx = kappa * mx[m] * f;
            const float sy = kappa * my[m] * f;
            const int n = akudoa_v4_nearest_node(ax, ay, G, sx, sy);
            const int i = n / G;
            const int j = n - i * G;
            idx[m] = i;
            idx[M + m] = j;
            const float dx = sx - ax[i];
            const float dy = sy - ay[j];
            amp[m] = std::exp(-(dx * dx + dy * dy) / (4.0f * tau));
            const float ex = static_cast<float>(std::exp(static_cast<double>(dx) * kPi / (G * static_cast<double>(tau))));
            const float ey = static_cast<float>(std::exp(static_cast<double>(dy) * kPi / (G * static_cast<double>(tau))));
            for (int tap = 0; tap < kTaps; ++tap) {
                kx[kTaps * m + tap] = w[tap] * std::pow(ex, static_cast<float>(tap - 4));
                ky[kTaps * m + tap] = w[tap] * std::pow(ey, static_cast<float>(tap - 4));
            }
        }
    }
    // Name the kernel's first node instead of its centre.
    for (int b = 0; b < B; ++b)
        for (int c = 0; c < 2 * M; ++c)
            d->cellIndex->data[b][c] -= 4;

    fillDeconvolution(d->deconv, G, tau);
    destroy_vec_fp32(Lx);
    destroy_vec_fp32(Ly);
}

void AKUDoaQuantizeV4::createFocusDisParam()
{
    const StCamCfg* cfg = d->cfg;
    if (!cfg->focusDistanceEn)
        return;
    const int M = d->micNum;
    const int B = d->binNum;
    const int fs = d->sampleRate;
    const int N = d->frameSize;
    const float D = cfg->focusDistance;
    const float den = (D + D) * kSoundSpeed;
    // q_m: Fresnel phase per hertz, 2 pi r^2 / (2 D c); groups of four lanes,
    // padded with zeros past M.
    const int M4 = (M + 3) & ~3;
    std::vector<float> q(static_cast<size_t>(M4), 0.0f);
    for (int m = 0; m < M; ++m) {
        const double r = static_cast<double>(cfg->micRadius[m]);
        q[m] = static_cast<float>((r * (2.0 * kPi) * r) / static_cast<double>(den));
    }
    for (int b = 0; b < B; ++b) {
        // Unlike the gridding, the phase uses the bin itself (b, or the
        // pair's 2b - 1 with averaging), as an integer frequency.
        const int F = cfg->freqAverage ? ((2 * b - 1) * fs) / N : (b * fs) / N;
        const float32x4_t vf = vdupq_n_f32(static_cast<float>(F));
        float* cosRow = d->focusPhase->data[b];
        float* sinRow = cosRow + M;
        for (int m = 0; m < M4; m += 4) {
            float32x4_t s, c;
            sincos_ps(vmulq_f32(vf, vld1q_f32(q.data() + m)), &s, &c);
            float cs[4], sn[4];
            vst1q_f32(cs, c);
            vst1q_f32(sn, s);
            for (int l = 0; l < 4 && m + l < M; ++l) {
                cosRow[m + l] = cs[l];
                sinRow[m + l] = sn[l];
            }
        }
    }
}

void AKUDoaQuantizeV4::focusDisUpdate()
{
    createFocusDisParam();
}

void AKUDoaQuantizeV4::updateFFTWin(float* window, int length)
{
    if (!d->fftWindow || length != d->frameSize)
        return;
    std::memcpy(d->fftWindow->data, window, sizeof(float) * static_cast<size_t>(length));
}

// Windows and transforms channel m of the frame (nothing for a channel the
// frame does not have).
// Bin b's rows of fftMean and binSpectra from the transformed channels.
static void spectrumRow(AKUDoaQuantizeV4Private* d, int b, bool average)
{
    akudoa_spectrum_row(d->micSpectra->data, d->micNum, b, average, d->fftMean->data[b], d->binSpectra->data[b]);
}

static void channelFFT(AKUDoaQuantizeV4Private* d, mat2d_fp32* frame, int m)
{
    if (m >= std::min(frame->rows, d->micNum))
        return;
    const int samples = std::min(frame->cols, d->frameSize);
    const float* in = frame->data[m];
    const float* win = d->fftWindow->data;
    float* t = d->windowed->data[m];
    for (int i = 0; i < samples; ++i)
        t[i] = in[i] * win[i];
    fftwf_execute(d->micPlans[m]);
}

void AKUDoaQuantizeV4::executeFFT(mat2d_fp32* frame)
{
    const bool average = d->cfg->freqAverage;
#pragma omp parallel for schedule(dynamic, 1)
    for (int m = 0; m < d->micNum; ++m)
        channelFFT(d, frame, m);
#pragma omp parallel for schedule(static)
    for (int b = 0; b < d->binNum; ++b)
        spectrumRow(d, b, average);
    d->pending.clear();
}

// Readout offsets of one image size, computed once per frame: grid column
// p = (H + r) mod S of image row r - 1 (r = 1 .. NR), grid row
// q = (H + o + 2 + c) mod S of image column c as an offset q * S, and the
// deconvolution column o + 2 + c (read cyclically when the image is wider
// than tall and the column would run past the row).
struct ReadoutTables {
    std::vector<int> gridCol;   // NR + 1 entries, index r
    std::vector<int> gridRow;   // NC entries: q * S
    std::vector<int> deconvCol; // NC entries

    ReadoutTables(const AKUDoaV4Geometry& g, int NR, int NC)
        : gridCol(static_cast<size_t>(NR) + 1), gridRow(static_cast<size_t>(NC)), deconvCol(static_cast<size_t>(NC))
    {
        for (int r = 0; r <= NR; ++r)
            gridCol[r] = (g.H + r) % g.S;
        for (int c = 0; c < NC; ++c) {
            gridRow[c] = ((g.H + g.o + 2 + c) % g.S) * g.S;
            deconvCol[c] = (g.o + 2 + c) % g.G;
        }
    }
};

// Zeroes what bin b's gridding and transform left non-zero in a worker's
// grid: the covered columns of every row after a pruned transform (it works
// in place), the covered rows after the 2-D plan (it leaves its input
// alone). Either is about a third of the grid, still in cache.
static void clearGrid(const AKUDoaQuantizeV4Private* d, int S, int b, int slot)
{
    const int G = d->gridSize;
    akudoa_fftwf_complex* grid = d->gridIn->data[slot];
    if (d->columnPlans) {
        const int left = d->gridCols[2 * static_cast<size_t>(b)];
        const int right = d->gridCols[2 * static_cast<size_t>(b) + 1];
        const size_t width = sizeof(akudoa_fftwf_complex) * static_cast<size_t>(std::max(right - left, 0));
        for (int j = 0; j < G && width; ++j)
            std::memset(grid + static_cast<size_t>(j) * G + left, 0, width);
        return;
    }
    const int lo = d->gridRows[2 * static_cast<size_t>(b)];
    const int hi = d->gridRows[2 * static_cast<size_t>(b) + 1];
    if (lo < hi) {
        const size_t first = static_cast<size_t>(lo) * S;
        const size_t end = std::min(static_cast<size_t>(hi - 1) * S + G, static_cast<size_t>(G) * G);
        std::memset(grid + first, 0, sizeof(akudoa_fftwf_complex) * (end - first));
    }
}

// Image of bin b into binMaps[b]: gridding, 2-D FFT, deconvolution readout
// and self-term removal, on the worker's own grid (zero on entry and left
// zero). Touches only row b of the per-bin buffers, so bins run
// concurrently.
static void imageBin(AKUDoaQuantizeV4* engine, AKUDoaQuantizeV4Private* d, const AKUDoaV4Geometry& g,
                     const ReadoutTables& t, int b, int slot)
{
    const int G = g.G;
    const int S = g.S;
    const int M = d->micNum;
    const int NR = d->rows;
    const int NC = d->cols;
    akudoa_fftwf_complex* grid = d->gridIn->data[slot];
    const int* idx = d->cellIndex->data[b];

    // Gridding: each microphone's value spread over its 9 x 9 kernel.
    const bool focus = d->cfg->focusDistanceEn;
    const float* cosRow = d->focusPhase->data[b];
    const float* sinRow = cosRow + M;
    const float* amp = d->cellAmp->data[b];
    const float* kx = d->kernelX->data[b];
    const float* ky = d->kernelY->data[b];
    for (int m = 0; m < M; ++m) {
        float re = d->binSpectra->data[b][m][0];
        float im = d->binSpectra->data[b][m][1];
        if (focus) {
            const float c = cosRow[m];
            const float s = sinRow[m];
            const float r2 = std::fmaf(-im, s, re * c);
            const float i2 = std::fmaf(re, s, im * c);
            re = r2;
            im = i2;
        }
        const int i0 = idx[m];
        const int j0 = idx[M + m];
        const float a = amp[m];
        const float* kxm = kx + kTaps * m;
        const float* kym = ky + kTaps * m;
        // The weight is separable: the value times a * kx[v] once per
        // microphone, then each kernel row adds ky[u] times that. A tenth,
        // zero tap pads a row to five groups of four lanes (two taps as
        // re, im, re, im); adding zero leaves the cell past the kernel as it
        // was (the grid has one spare value for the last row).
        float tap[2 * (kTaps + 1)];
        for (int v = 0; v < kTaps; ++v) {
            const float w = a * kxm[v];
            tap[2 * v] = re * w;
            tap[2 * v + 1] = im * w;
        }
        tap[2 * kTaps] = tap[2 * kTaps + 1] = 0.0f;
        if (i0 >= 0 && j0 >= 0 && i0 + kTaps <= G && j0 + kTaps <= G) {
            for (int u = 0; u < kTaps; ++u) {
                const float32x4_t wy = vdupq_n_f32(kym[u]);
                float* line = &grid[static_cast<size_t>(j0 + u) * S + i0][0];
                for (int v = 0; v < 2 * (kTaps + 1); v += 4)
                    vst1q_f32(line + v, vaddq_f32(vld1q_f32(line + v), vmulq_f32(wy, vld1q_f32(tap + v))));
            }
        } else {
            for (int u = 0; u < kTaps; ++u) {
                akudoa_fftwf_complex* line = grid + static_cast<size_t>(wrapNode(j0 + u, G)) * S;
                for (int v = 0; v < kTaps; ++v) {
                    akudoa_fftwf_complex& cell = line[wrapNode(i0 + v, G)];
                    cell[0] += kym[u] * tap[2 * v];
                    cell[1] += kym[u] * tap[2 * v + 1];
                }
            }
        }
    }
    akudoa_v4_transform(d, b, slot);

    // Readout: the microphones' own power sum |X_m|^2 is part of every
    // pixel's squared beam; removing it leaves the cross terms.
    const float self = d->spectrumSelf
        ? 0.0f
        : engine->vec_power_fp32(reinterpret_cast<float*>(d->binSpectra->data[b]), 2u * static_cast<unsigned>(M));
    const akudoa_fftwf_complex* out = d->gridOut->data[slot];
    float* map = d->binMaps->data[b];
    const int* qOff = t.gridRow.data();
    const int* dCol = t.deconvCol.data();
    const float32x4_t negSelf = vdupq_n_f32(-self);
    for (int r = 1; r <= NR; ++r) {
        const akudoa_fftwf_complex* col = out + t.gridCol[static_cast<size_t>(r)];
        const float* dec = d->deconv->data[r];
        float* dst = map + static_cast<size_t>(r - 1) * NC;
        int c = 0;
        // Four pixels at a time: their grid values gathered as (re, im)
        // pairs, the powers re*re + im*im by pairwise sums, then
        // fma(deconv, power, -self) as for one pixel. The deconvolution
        // columns are consecutive except where they wrap.
        for (; c + 4 <= NC; c += 4) {
            if (dCol[c + 3] != dCol[c] + 3)
                break;
            const float z[8] = {col[qOff[c]][0],     col[qOff[c]][1],     col[qOff[c + 1]][0], col[qOff[c + 1]][1],
                                col[qOff[c + 2]][0], col[qOff[c + 2]][1], col[qOff[c + 3]][0], col[qOff[c + 3]][1]};
            const float32x4_t lo = vld1q_f32(z);
            const float32x4_t hi = vld1q_f32(z + 4);
            const float32x4_t pw = vpaddq_f32(vmulq_f32(lo, lo), vmulq_f32(hi, hi));
            vst1q_f32(dst + c, vfmaq_f32(negSelf, vld1q_f32(dec + dCol[c]), pw));
        }
        for (; c < NC; ++c) {
            const akudoa_fftwf_complex& z = col[qOff[c]];
            const float pw = z[0] * z[0] + z[1] * z[1];
            dst[c] = std::fmaf(dec[dCol[c]], pw, -self);
        }
    }
    clearGrid(d, S, b, slot);
}

// The summed image h (rows x cols) into the caller's map in the configured
// orientation.
static void copyOriented(const float* h, mat2d_fp32* heatMap, int NR, int NC, int mode)
{
    switch (mode) {
    case 0: // half turn
        for (int i = 0; i < NR; ++i)
            for (int j = 0; j < NC; ++j)
                heatMap->data[i][j] = h[(NR - 1 - i) * NC + (NC - 1 - j)];
        break;
    case 1:
        for (int i = 0; i < NR; ++i)
            for (int j = 0; j < NC; ++j)
                heatMap->data[i][j] = h[i * NC + j];
        break;
    case 2: // rows reversed
        for (int i = 0; i < NR; ++i)
            for (int j = 0; j < NC; ++j)
                heatMap->data[i][j] = h[(NR - 1 - i) * NC + j];
        break;
    case 3: // columns reversed
        for (int i = 0; i < NR; ++i)
            for (int j = 0; j < NC; ++j)
                heatMap->data[i][j] = h[i * NC + (NC - 1 - j)];
        break;
    default:
        break; // unknown orientation: the caller's map is left as it was
    }
}

void AKUDoaQuantizeV4::executeDOA(mat2d_fp32* frame, AKUDoaFreqBands& bands, mat2d_fp32* heatMap)
{
    const std::vector<doaFreqInfo> L = bands.data();
    const int NR = d->rows;
    const int NC = d->cols;
    const int P = NR * NC;
    const int M = d->micNum;
    const int B = d->binNum;
    const AKUDoaV4Geometry g = akudoa_v4_geometry(NR, NC);
    const ReadoutTables tables(g, NR, NC);

    // Rows of the band entries in band order; a band edge past the last
    // table row has no bin.
    const bool average = d->cfg->freqAverage;
    const bool regression = usesRegression(d->cfg);
    const int stride = average ? 2 : 1;
    std::vector<int> rowsOf;
    for (int k = 0; k < static_cast<int>(L.size()); k += stride) {
        const int b = entryRow(L, k, average);
        if (b >= 0 && b < B)
            rowsOf.push_back(b);
    }
    const int count = static_cast<int>(rowsOf.size());
    d->pending.leave(rowsOf, B, average);
    float* heat = d->heatAcc->data;
    AKUDoaOrderedSum sum(heat, P, rowsOf, d->binMaps->data, d->cfg);

    // One team for the frame, no larger than the number of grids; each bin
    // has its own row of binMaps, each worker its own grid.
    const int team = std::min(omp_get_max_threads(), d->slots);
#pragma omp parallel num_threads(team)
    {
        const int slot = omp_get_thread_num();
#pragma omp for schedule(dynamic, 1)
        for (int m = 0; m < M; ++m)
            channelFFT(d, frame, m);
#pragma omp for schedule(static)
        for (int e = 0; e < count; ++e)
            spectrumRow(d, rowsOf[static_cast<size_t>(e)], average);
#pragma omp for schedule(dynamic, 1)
        for (int e = 0; e < count; ++e) {
            imageBin(this, d, g, tables, rowsOf[static_cast<size_t>(e)], slot);
            if (!regression)
                sum.finished(e);
        }
    }

    if (regression) {
        // Programs 53/54: each bin's image re-rendered from its peaks. Every
        // worker of a batch writes its own slot of gprOut; the batch is then
        // added in band order. Sensitivity gains do not apply on this path.
        std::fill(heat, heat + P, 0.0f);
        const int slots = d->slots;
        mat1d_fp32 slot;
        slot.rows = NR;
        slot.cols = NC;
        for (int start = 0; start < count; start += slots) {
            const int batch = std::min(slots, count - start);
#pragma omp parallel for schedule(dynamic, 1)
            for (int s = 0; s < batch; ++s)
                AKUGaussianProcessRegression::predit_auto_process(
                    d->binMaps->data[rowsOf[start + s]], d->gprOut->data + static_cast<size_t>(s) * P, NR, NC, 1.5f,
                    4.0f, 0.025f, d->cfg->targetQuantize);
            for (int s = 0; s < batch; ++s) {
                slot.data = d->gprOut->data + static_cast<size_t>(s) * P;
                ComplexAdd(&slot, d->heatAcc);
            }
        }
    }

    float* h = d->heatAcc->data;
    const unsigned n = static_cast<unsigned>(P);
    array_scale_fp32_anchor(h, 1.0f / static_cast<float>((M - 1) * M), n);
    if (!d->spectrumSelf)
        array_setfloor_fp32(h, 0.0f, n);
    array_sqrt_fp32_anchor(h, n);
    array_scale_fp32_anchor(h, 1.0f / static_cast<float>(d->frameSize), n);

    copyOriented(h, heatMap, NR, NC, d->cfg->rotateMode);
}

void AKUDoaQuantizeV4::powerSpec(vec_fp32* spectrum, int channel)
{
    if (!spectrum || !d->micSpectra || channel < 0 || channel >= d->micNum)
        return;
    akudoa_reverse_power_spectrum(&d->micSpectra->data[channel][0][0], d->frameSize, spectrum);
}

void AKUDoaQuantizeV4::setSpectrumSelf(bool on)
{
    d->spectrumSelf = on;
}

void AKUDoaQuantizeV4::setFocusRadiusMode(bool on)
{
    d->focusRadiusMode = on;
}

mat2d_fp32* AKUDoaQuantizeV4::getFFTMean()
{
    AKUDoaQuantizeV4Private* p = d;
    d->pending.complete([p](int b, bool average) { spectrumRow(p, b, average); });
    return d->fftMean;
}

float AKUDoaQuantizeV4::getPaWithTarget(fpoint2d target, AKUDoaFreqBands& bands)
{
    const int NR = d->rows;
    const int NC = d->cols;
    const int M = d->micNum;
    const int r = target.x;
    const int c = target.y;
    // This engine's own mapping from heat-map coordinates to a pixel of
    // binMaps (it is not the inverse of every orientation of executeDOA).
    int idx;
    switch (d->cfg->rotateMode) {
    case 0: idx = r * NC + (NC - c - 1); break;
    case 1: idx = r * NC + c; break;
    case 2: idx = (NR - r - 1) * NC + c; break;
    case 3: idx = (NR - r) * NC - c - 1; break;
    default: idx = NR * c + r; break;
    }
    if (!d->binMaps || idx < 0 || idx >= NR * NC)
        return 0.0f; // a target outside the image has no pixel
    const std::vector<doaFreqInfo> L = bands.data();
    float sum = 0.0f;
    for (const doaFreqInfo& e : L) {
        if (e.bin < 0 || e.bin >= d->binNum)
            continue;
        sum = std::fmaf(d->binMaps->data[e.bin][idx], akudoa_bin_gain(d->cfg, e.bin), sum);
    }
    return akudoa_target_amplitude(sum, M, d->frameSize, d->spectrumSelf);
}

void AKUDoaQuantizeV4::findTargetFreqRange(fpoint2d target, AKUDoaFreqBands& bands, int& lowFreq, int& highFreq,
                                           float& power)
{
    const AKUDoaTargetRangeSource src{d->binMaps, d->rows, d->cols, d->micNum,
                                      d->frameSize, d->sampleRate, d->cfg && d->cfg->freqAverage};
    akudoa_find_target_freq_range(src, d->cluster, target, bands.data(), lowFreq, highFreq, power);
}

bool AKUDoaQuantizeV4::pickupTargetForCell(int row, int col, int& pickupRow, int& pickupCol) const
{
    // Undo the orientation step of executeDOA, then steer at the nearest
    // pickup point to the direction the gridded cell shows.
    const StCamCfg& c = *d->cfg;
    const int mode = c.rotateMode;
    const int ra = (mode == 0 || mode == 2) ? c.imageResolutionRow - 1 - row : row;
    const int ca = (mode == 0 || mode == 3) ? c.imageResolutionCol - 1 - col : col;
    akudoa_pickup_target_for_gridded_cell(c, ra, ca, pickupRow, pickupCol);
    return true;
}
